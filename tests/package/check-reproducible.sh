#!/usr/bin/env bash
# Two package builds give the same bytes: runs scripts/package again from an
# empty build tree (the same folder, which the PDB's command-line records
# name) into another dist folder, and compares the archive and SHA256SUMS
# with the first run's. On a difference it names the archive members that
# differ.
#   check-reproducible.sh <source dir> <first dist dir> <package build dir> <work dir>
set -euo pipefail
source_dir=$1 first=$2 build=$3 work=$4
rm -rf "$work"
mkdir -p "$work"
"$source_dir/scripts/package" --clean --build "$build" --dist "$work/dist" >"$work/package.log" 2>&1 ||
  { cat "$work/package.log" >&2; exit 1; }
status=0
for file in "$first"/*; do
  name=$(basename "$file")
  if cmp -s "$file" "$work/dist/$name"; then
    echo "identical: $name $(sha256sum <"$file" | cut -c1-64)"
  else
    echo "FAIL differs: $name" >&2
    status=1
  fi
done
[ "$(ls "$first")" = "$(ls "$work/dist")" ] || { echo "FAIL the two dist folders hold other files" >&2; status=1; }
if [ "$status" != 0 ]; then
  /usr/bin/python3 - "$first" "$work/dist" <<'PY'
import glob, os, sys, zipfile
a = zipfile.ZipFile(glob.glob(os.path.join(sys.argv[1], "*.zip"))[0])
b = zipfile.ZipFile(glob.glob(os.path.join(sys.argv[2], "*.zip"))[0])
for name in sorted(set(a.namelist()) | set(b.namelist())):
    x = a.read(name) if name in a.namelist() else None
    y = b.read(name) if name in b.namelist() else None
    ia = a.getinfo(name) if x is not None else None
    ib = b.getinfo(name) if y is not None else None
    if x != y or (ia and ib and (ia.date_time, ia.external_attr) != (ib.date_time, ib.external_attr)):
        print("  member differs: " + name)
PY
fi
exit $status
