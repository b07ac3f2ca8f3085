#!/usr/bin/env python3
"""The release layout: the files `cmake --install` gives, and the release
archive (scripts/package), which adds bin/Quorvantis.pdb.

    layout.py --source DIR [--package]                 print the files, one a line
    layout.py --source DIR [--package] --check FOLDER  compare a folder with them

--check prints every missing, unexpected and empty file and exits 1 if there
is one. The reference server's files are its .py files but its self-tests
(test_*.py), its README.md and requirements.txt.
"""
import argparse
import os
import sys

FIXED = [
    "bin/Quorvantis.dll",
    "bin/qvcheck.exe",
    "bin/qvhost.exe",
    "include/Quorvantis.h",
    "lib/Quorvantis.lib",
    "lib/cmake/Quorvantis/QuorvantisConfig.cmake",
    "lib/cmake/Quorvantis/QuorvantisConfigVersion.cmake",
    "lib/cmake/Quorvantis/QuorvantisTargets-release.cmake",
    "lib/cmake/Quorvantis/QuorvantisTargets.cmake",
    "share/quorvantis/Quorvantis.ini",
    "share/quorvantis/README.md",
    "share/quorvantis/performance.md",
    "share/quorvantis/traceview.html",
    "share/quorvantis/troubleshooting.md",
    "share/quorvantis/refserver/README.md",
    "share/quorvantis/refserver/requirements.txt",
]
PACKAGE_ONLY = ["bin/Quorvantis.pdb"]


def expected_files(source, package):
    files = list(FIXED)
    refserver = os.path.join(source, "tools", "refserver")
    files += ["share/quorvantis/refserver/" + name for name in os.listdir(refserver)
              if name.endswith(".py") and not name.startswith("test_")]
    if package:
        files += PACKAGE_ONLY
    return sorted(files)


def folder_files(folder):
    found = []
    for directory, subdirectories, names in os.walk(folder):
        subdirectories.sort()
        for name in names:
            found.append(os.path.relpath(os.path.join(directory, name), folder).replace(os.sep, "/"))
        if not names and not subdirectories:
            found.append(os.path.relpath(directory, folder).replace(os.sep, "/") + "/")
    return sorted(found)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source", required=True, help="the source tree")
    parser.add_argument("--package", action="store_true", help="the archive's layout (with the PDB)")
    parser.add_argument("--check", metavar="FOLDER", help="compare the files of FOLDER with the layout")
    args = parser.parse_args()
    expected = expected_files(args.source, args.package)
    if not args.check:
        print("\n".join(expected))
        return 0
    found = folder_files(args.check)
    status = 0
    for path in sorted(set(expected) - set(found)):
        print("missing: " + path)
        status = 1
    for path in sorted(set(found) - set(expected)):
        print("unexpected: " + path)
        status = 1
    for path in sorted(set(expected) & set(found)):
        if os.path.getsize(os.path.join(args.check, path)) == 0:
            print("empty: " + path)
            status = 1
    if status == 0:
        print("layout: %d files as expected" % len(expected))
    return status


if __name__ == "__main__":
    sys.exit(main())
