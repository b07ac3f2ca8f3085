#!/usr/bin/env python3
"""The archive's symbols: bin/Quorvantis.pdb is the PDB of bin/Quorvantis.dll
and a Windows debugger can use it.

    check_pdb.py --bin UNPACKED/bin --source SOURCE_DIR --build PACKAGE_BUILD_DIR

With llvm-readobj-14 and llvm-pdbutil-14 (exit status 77, "skipped",
without them):
- the DLL's debug directory has a CodeView (RSDS) record naming the PDB by
  its file name only, "Quorvantis.pdb";
- the PDB's GUID and age are the record's (a debugger matches them);
- the PDB has the DLL's public symbol ZEB_GetInterface and line information
  for the DLL's own sources (src/api/QuorvantisAPI.cpp, under the neutral
  root C:\\Quorvantis);
- no source file or module of the PDB, and no byte string of the DLL, names
  the machine's source or build tree, nor does a byte string of qvhost.exe
  or qvcheck.exe.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys

READOBJ = "llvm-readobj-14"
PDBUTIL = "llvm-pdbutil-14"


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    args = parser.parse_args()
    for tool in (READOBJ, PDBUTIL):
        if not shutil.which(tool):
            print("skipped: %s not found (Debian package llvm-14)" % tool)
            return 77
    dll = os.path.join(args.bin, "Quorvantis.dll")
    pdb = os.path.join(args.bin, "Quorvantis.pdb")
    problems = []

    debug = run(READOBJ, "--coff-debug-directory", dll)
    m = re.search(r"PDBGUID: \(([0-9A-F ]+)\)\s+PDBAge: (\d+)\s+PDBFileName: (.*)", debug)
    if not m:
        print("FAIL the DLL has no CodeView record in its debug directory")
        return 1
    raw = bytes.fromhex(m.group(1).replace(" ", ""))
    age, file_name = int(m.group(2)), m.group(3).strip()
    # The record's GUID bytes as the PDB prints them: three little-endian
    # fields, then eight bytes in order.
    guid = "{%s-%s-%s-%s-%s}" % (raw[3::-1].hex(), raw[5:3:-1].hex(), raw[7:5:-1].hex(), raw[8:10].hex(),
                                 raw[10:16].hex())
    guid = guid.upper()
    print("DLL: CodeView record GUID %s, age %d, PDB %s" % (guid, age, file_name))
    if file_name != "Quorvantis.pdb":
        problems.append("the DLL names its PDB %r, not 'Quorvantis.pdb'" % file_name)

    summary = run(PDBUTIL, "dump", "-summary", pdb)
    pdb_guid = re.search(r"GUID: (\{[0-9A-F-]+\})", summary)
    pdb_age = re.search(r"Age: (\d+)", summary)
    print("PDB: GUID %s, age %s" % (pdb_guid and pdb_guid.group(1), pdb_age and pdb_age.group(1)))
    if not pdb_guid or pdb_guid.group(1) != guid or not pdb_age or int(pdb_age.group(1)) != age:
        problems.append("the PDB's GUID and age are not the DLL's record")
    if "Has Debug Info: true" not in summary or "Has Publics: true" not in summary:
        problems.append("the PDB has no debug information or no publics")

    publics = run(PDBUTIL, "dump", "-publics", pdb)
    if not re.search(r"S_PUB32 .*`ZEB_GetInterface`", publics):
        problems.append("no public symbol ZEB_GetInterface")
    files = run(PDBUTIL, "dump", "-files", pdb)
    modules = run(PDBUTIL, "dump", "-modules", pdb)
    wanted = "C:\\Quorvantis\\src\\api\\QuorvantisAPI.cpp"
    if wanted.lower() not in files.replace("/", "\\").lower():
        problems.append("no line information for %s" % wanted)
    source = os.path.realpath(args.source)
    build = os.path.realpath(args.build)
    for text, what in ((files, "source files"), (modules, "modules")):
        for tree in (source, build):
            if tree in text:
                problems.append("the PDB's %s name %s" % (what, tree))
    for program in ("Quorvantis.dll", "qvhost.exe", "qvcheck.exe"):
        image = open(os.path.join(args.bin, program), "rb").read()
        for tree in (source, build):
            if tree.encode() in image or tree.encode("utf-16-le") in image:
                problems.append("%s names %s" % (program, tree))

    for problem in problems:
        print("FAIL " + problem)
    if not problems:
        print("bin/Quorvantis.pdb matches bin/Quorvantis.dll; publics and line information present; no build paths")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
