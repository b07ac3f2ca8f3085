#!/usr/bin/env bash
# Installs the build into a fresh temporary prefix and checks the layout a
# driver package is made from (tests/package/layout.py): the DLL, qvhost and
# qvcheck; the public header; the import library and the CMake package; the
# README, the sample ini, the troubleshooting page, the trace viewer and the
# reference server under share/quorvantis. The release archive
# (scripts/package) is this layout plus bin/Quorvantis.pdb.
# Usage: check-install.sh <build dir>
set -euo pipefail
build=${1:?build directory}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null

status=0
/usr/bin/python3 "$source_dir/tests/package/layout.py" --source "$source_dir" --check "$prefix" || status=1
# The installed files are the built and the committed ones, not stale copies.
cmp -s "$build/bin/Quorvantis.dll" "$prefix/bin/Quorvantis.dll" || { echo "bin/Quorvantis.dll differs from the build" >&2; status=1; }
cmp -s "$build/lib/Quorvantis.lib" "$prefix/lib/Quorvantis.lib" || { echo "lib/Quorvantis.lib differs from the build" >&2; status=1; }
cmp -s "$source_dir/include/Quorvantis.h" "$prefix/include/Quorvantis.h" || { echo "include/Quorvantis.h differs from the source" >&2; status=1; }
cmp -s "$source_dir/docs/troubleshooting.md" "$prefix/share/quorvantis/troubleshooting.md" || { echo "share/quorvantis/troubleshooting.md differs from the source" >&2; status=1; }
# The CMake package names the installed files relative to its own folder,
# never the build or the source tree.
if grep -l -F -e "$build" -e "$source_dir" -r "$prefix/lib/cmake" >&2; then
  echo "the CMake package names the build or source tree (files above)" >&2
  status=1
fi
exit $status
