#!/usr/bin/env python3
"""The release archive holds exactly the release layout and is reproducible
in form.

    check_archive.py --zip dist/Quorvantis-<version>-win64.zip --source DIR [--epoch SECONDS]

Checks: the name carries the CMake package's version; the entries are the
files of tests/package/layout.py (--package) and their folders, nothing else
(no build-tree leftovers, caches or self-tests), each once and in path order;
every entry has the same time (--epoch: that one, as a UTC DOS time) and the
fixed permissions (folders and .dll/.exe 0755, the rest 0644); every CRC
matches. Exit status 0 when all hold.
"""
import argparse
import os
import re
import sys
import time
import zipfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import layout  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--zip", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("--epoch", type=int)
    args = parser.parse_args()
    problems = []

    archive = zipfile.ZipFile(args.zip)
    infos = archive.infolist()
    names = [info.filename for info in infos]

    version_file = archive.read("lib/cmake/Quorvantis/QuorvantisConfigVersion.cmake").decode()
    m = re.search(r'^set\(PACKAGE_VERSION "([^"]*)"\)', version_file, re.M)
    version = m.group(1) if m else "?"
    if os.path.basename(args.zip) != "Quorvantis-%s-win64.zip" % version:
        problems.append("name %s does not carry the package version %s" % (os.path.basename(args.zip), version))

    files = layout.expected_files(args.source, package=True)
    folders = set()
    for path in files:
        parts = path.split("/")[:-1]
        for i in range(1, len(parts) + 1):
            folders.add("/".join(parts[:i]) + "/")
    expected = sorted(set(files) | folders)
    for name in sorted(set(expected) - set(names)):
        problems.append("missing: " + name)
    for name in sorted(set(names) - set(expected)):
        problems.append("unexpected: " + name)
    if len(names) != len(set(names)):
        problems.append("entries appear more than once")
    if names != sorted(names):
        problems.append("entries are not in path order")

    stamps = {info.date_time for info in infos}
    if len(stamps) != 1:
        problems.append("entries carry %d different times" % len(stamps))
    if args.epoch is not None:
        want = time.gmtime(max(args.epoch, 315532800))[:6]
        want = want[:5] + (want[5] - want[5] % 2,)  # a DOS time counts seconds by two
        if stamps != {want}:
            problems.append("entry times %s, not the commit time %s" % (sorted(stamps), want))
    for info in infos:
        mode = info.external_attr >> 16
        if info.filename.endswith("/"):
            want = 0o040755
        elif info.filename.endswith((".dll", ".exe")):
            want = 0o100755
        else:
            want = 0o100644
        if info.create_system != 3 or mode != want:
            problems.append("%s: mode %o (system %d), expected %o" % (info.filename, mode, info.create_system, want))
    bad = archive.testzip()
    if bad:
        problems.append("CRC error in " + bad)

    for problem in problems:
        print("FAIL " + problem)
    if not problems:
        print("archive %s: %d entries (%d files) as expected, one time %s, fixed permissions, CRCs good"
              % (os.path.basename(args.zip), len(names), len(files), sorted(stamps)[0]))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
