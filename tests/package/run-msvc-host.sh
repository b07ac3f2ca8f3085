#!/usr/bin/env bash
# The MSVC-ABI test: compiles tests/package/msvc for x86_64-pc-windows-msvc
# with clang (the header from the archive, the few SDK types from msvc/stub),
# links it with lld-link against the archive's lib/Quorvantis.lib only, checks
# that the program imports exactly Quorvantis.dll!ZEB_GetInterface, and runs it
# under Wine beside the archive's DLL.
#   run-msvc-host.sh <source dir> <unpacked archive> <work dir>
set -euo pipefail
source_dir=$1 unpacked=$2 work=$3
: "${WINEPREFIX:?}"
here=$source_dir/tests/package/msvc
rm -rf "$work"
mkdir -p "$work"
cd "$work"
for file in host import; do
  clang-14 --target=x86_64-pc-windows-msvc -std=c99 -Wall -Wextra -pedantic -Werror \
    -I "$unpacked/include" -I "$here/stub" -c "$here/$file.c" -o "$file.obj"
done
lld-link-14 /nologo /nodefaultlib /entry:mainCRTStartup /subsystem:console /out:host.exe \
  host.obj import.obj "$unpacked/lib/Quorvantis.lib"

llvm-readobj-14 --coff-imports host.exe >imports.txt
imports=$(sed -n 's/^ *Name: //p;s/^ *Symbol: \([^ ]*\).*/  \1/p' imports.txt)
expected=$(printf 'Quorvantis.dll\n  ZEB_GetInterface')
if [ "$imports" != "$expected" ]; then
  echo "host.exe imports:" >&2
  echo "$imports" >&2
  echo "expected:" >&2
  echo "$expected" >&2
  exit 1
fi
echo "host.exe imports Quorvantis.dll!ZEB_GetInterface only"

cp "$unpacked/bin/Quorvantis.dll" .
status=0
"$source_dir/scripts/wine-run" host.exe || status=$?
echo "host.exe exit status $status"
exit "$status"
