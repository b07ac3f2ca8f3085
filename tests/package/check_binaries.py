#!/usr/bin/env python3
"""What the archive's programs link to, from their PE tables (objdump -p).

    check_binaries.py --bin UNPACKED/bin [--objdump x86_64-w64-mingw32-objdump]

- Quorvantis.dll exports ZEB_GetInterface and nothing else (by name or by
  ordinal only);
- Quorvantis.dll, qvhost.exe and qvcheck.exe import system DLLs only: every
  imported DLL is one that Windows itself provides (the list below), none of
  the MinGW runtime (libstdc++, libgcc, winpthreads).
"""
import argparse
import os
import re
import subprocess
import sys

# DLLs of Windows itself that the add-in and its tools may import (names
# compared without case).
SYSTEM_DLLS = {
    "kernel32.dll", "advapi32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll", "crypt32.dll",
    "secur32.dll", "rpcrt4.dll", "userenv.dll", "winhttp.dll", "shlwapi.dll", "user32.dll",
    "ws2_32.dll", "psapi.dll", "version.dll",
}
PROGRAMS = ["Quorvantis.dll", "qvhost.exe", "qvcheck.exe"]


def tables(objdump, path):
    text = subprocess.run([objdump, "-p", path], check=True, capture_output=True, text=True).stdout
    imports = re.findall(r"^\s*DLL Name: (\S+)", text, re.M)
    names, addresses = [], []
    m = re.search(r"^\[Ordinal/Name Pointer\] Table\n((?:\t\[.*\n)*)", text, re.M)
    if m:
        names = re.findall(r"\]\s+(\S+)", m.group(1))
    m = re.search(r"^Export Address Table -- Ordinal Base \d+\n((?:\t\[.*\n)*)", text, re.M)
    if m:
        addresses = re.findall(r"^\t\[\s*\d+\] \+base\[\s*\d+\] ([0-9a-f]+)", m.group(1), re.M)
    return imports, names, [a for a in addresses if int(a, 16) != 0]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--objdump", default="x86_64-w64-mingw32-objdump")
    args = parser.parse_args()
    problems = []
    for program in PROGRAMS:
        imports, names, addresses = tables(args.objdump, os.path.join(args.bin, program))
        if not imports:
            problems.append("%s: no import table found" % program)
        other = [dll for dll in imports if dll.lower() not in SYSTEM_DLLS]
        if other:
            problems.append("%s imports non-system DLLs: %s" % (program, ", ".join(other)))
        print("%s imports %s" % (program, ", ".join(imports)))
        if program == "Quorvantis.dll":
            if names != ["ZEB_GetInterface"] or len(addresses) != 1:
                problems.append("Quorvantis.dll exports %s by name and %d addresses; expected ZEB_GetInterface alone"
                                % (names, len(addresses)))
            print("Quorvantis.dll exports %s (%d address)" % (", ".join(names), len(addresses)))
    for problem in problems:
        print("FAIL " + problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
