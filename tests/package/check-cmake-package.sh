#!/usr/bin/env bash
# The archive's CMake package (lib/cmake/Quorvantis): find_package gives the
# imported target Quorvantis::Quorvantis with the header's folder, the import
# library (IMPORTED_IMPLIB) and the DLL (IMPORTED_LOCATION), all inside the
# unpacked archive; the version file follows SameMajorVersion (a request of
# the same major version up to the package's is accepted, another major or a
# newer minor refused) and refuses a 32-bit consumer.
#   check-cmake-package.sh <source dir> <unpacked archive> <work dir>
set -euo pipefail
source_dir=$1 unpacked=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
version=$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' "$unpacked/lib/cmake/Quorvantis/QuorvantisConfigVersion.cmake")
major=${version%%.*}
rest=${version#*.}; minor=${rest%%.*}
status=0
n=0
probe() {  # probe EXPECTED REQUEST [POINTER_SIZE]
  n=$((n + 1))
  local out
  out=$(cmake -S "$source_dir/tests/package/probe" -B "$work/$n" -DQV_PREFIX="$unpacked" \
          -DQV_REQUEST="$2" -DQV_POINTER_SIZE="${3:-}" 2>&1) || { echo "$out"; status=1; return; }
  local found
  found=$(sed -n 's/^-- found=\([01]\).*/\1/p' <<<"$out")
  local size=${3:-}
  printf 'find_package(Quorvantis %-7s) %-8s found=%s (expected %s)\n' "$2" "${size:+${size}-byte}" "$found" "$1"
  [ "$found" = "$1" ] || status=1
  if [ "$found" = 1 ] && [ -z "$size" ]; then
    sed -n 's/^-- \([A-Z_]*=\)/  \1/p' <<<"$out"
    check() {  # check PROPERTY VALUE
      grep -qxF -- "-- $1=$2" <<<"$out" || { echo "  FAIL $1 is not $2" >&2; status=1; }
    }
    check TYPE SHARED_LIBRARY
    check IMPORTED_IMPLIB_RELEASE "$unpacked/lib/Quorvantis.lib"
    check IMPORTED_LOCATION_RELEASE "$unpacked/bin/Quorvantis.dll"
    check INTERFACE_INCLUDE_DIRECTORIES "$unpacked/include"
  fi
}
probe 1 ""
probe 1 "$major"
probe 1 "$major.$minor"
probe 1 "$version"
probe 0 "$((major + 1))"
probe 0 "$major.$((minor + 1))"
if [ "$major" -gt 0 ]; then probe 0 "$((major - 1)).9"; fi
probe 0 "$version" 4
exit $status
