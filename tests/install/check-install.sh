#!/usr/bin/env bash
# Installs the build into a fresh temporary prefix and checks the layout a
# driver package is made from: the DLL, its public header and import library.
# Usage: check-install.sh <build dir>
set -euo pipefail
build=${1:?build directory}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null

status=0
for file in bin/Quorvantis.dll include/Quorvantis.h lib/Quorvantis.lib; do
  if [ ! -s "$prefix/$file" ]; then
    echo "missing or empty: $file" >&2
    status=1
  fi
done
# The installed DLL and header are the built ones, not stale copies.
cmp -s "$build/bin/Quorvantis.dll" "$prefix/bin/Quorvantis.dll" || { echo "bin/Quorvantis.dll differs from the build" >&2; status=1; }
header_source=$(cd "$(dirname "$0")/../.." && pwd)/include/Quorvantis.h
cmp -s "$header_source" "$prefix/include/Quorvantis.h" || { echo "include/Quorvantis.h differs from the source" >&2; status=1; }
exit $status
