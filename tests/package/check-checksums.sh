#!/usr/bin/env bash
# dist/SHA256SUMS names the release archive, and only it, with its SHA-256,
# in the form sha256sum -c reads; and it verifies.
#   check-checksums.sh <dist dir>
set -euo pipefail
cd "$1"
zips=(Quorvantis-*-win64.zip)
[ ${#zips[@]} = 1 ] && [ -f "${zips[0]}" ] || { echo "FAIL expected one Quorvantis-*-win64.zip in $1" >&2; exit 1; }
if [ "$(wc -l <SHA256SUMS)" != 1 ] || ! grep -qE "^[0-9a-f]{64}  ${zips[0]//./\\.}\$" SHA256SUMS; then
  echo "FAIL SHA256SUMS is not one line for ${zips[0]}:" >&2
  cat SHA256SUMS >&2
  exit 1
fi
sha256sum --check --strict SHA256SUMS
