#!/usr/bin/env python3
"""The version has one source, the CMake project version: check what shows it.

    check_version.py --version 1.0.0 --header include/Quorvantis.h
                     [--dll Quorvantis.dll] [--config-version QuorvantisConfigVersion.cmake]

- the header's QUORVANTIS_VERSION_MAJOR, _MINOR, _PATCH and _STRING;
- with --dll: the DLL's VERSIONINFO resource, FILEVERSION and PRODUCTVERSION
  (major, minor, patch, 0) and the FileVersion and ProductVersion strings
  ("major.minor.patch.0");
- with --config-version: the PACKAGE_VERSION of the CMake package's version
  file.
Prints one line per check; exit status 0 when all agree, 1 otherwise.
"""
import argparse
import re
import struct
import sys


def header_version(path):
    text = open(path, encoding="utf-8").read()
    found = {}
    for part in ("MAJOR", "MINOR", "PATCH", "STRING"):
        m = re.search(r"^#define\s+QUORVANTIS_VERSION_%s\s+(\S+)\s*$" % part, text, re.M)
        found[part] = m.group(1) if m else None
    return found


# --- The VERSIONINFO resource of a PE image --------------------------------

def _rva_to_offset(sections, rva):
    for virtual_address, virtual_size, raw_size, raw_offset in sections:
        if virtual_address <= rva < virtual_address + max(virtual_size, raw_size):
            return raw_offset + rva - virtual_address
    raise ValueError("RVA 0x%x is in no section" % rva)


def version_resource(path):
    """The bytes of the first RT_VERSION resource of a PE image."""
    data = open(path, "rb").read()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    if data[pe:pe + 4] != b"PE\0\0":
        raise ValueError("not a PE image")
    sections_count, optional_size = struct.unpack_from("<H12xH", data, pe + 6)
    optional = pe + 24
    magic = struct.unpack_from("<H", data, optional)[0]
    directories = optional + (112 if magic == 0x20B else 96)
    resource_rva, resource_size = struct.unpack_from("<II", data, directories + 2 * 8)
    if not resource_rva:
        raise ValueError("no resources")
    sections = []
    table = optional + optional_size
    for i in range(sections_count):
        virtual_size, virtual_address, raw_size, raw_offset = struct.unpack_from("<IIII", data, table + 40 * i + 8)
        sections.append((virtual_address, virtual_size, raw_size, raw_offset))
    base = _rva_to_offset(sections, resource_rva)

    def entries(offset):
        named, ids = struct.unpack_from("<HH", data, base + offset + 12)
        for i in range(named + ids):
            name, target = struct.unpack_from("<II", data, base + offset + 16 + 8 * i)
            yield name, target

    for name, target in entries(0):
        if name == 16 and target & 0x80000000:  # RT_VERSION
            level = target & 0x7FFFFFFF
            while True:
                _, target = next(entries(level))
                if not target & 0x80000000:
                    break
                level = target & 0x7FFFFFFF
            data_rva, size = struct.unpack_from("<II", data, base + target)
            start = _rva_to_offset(sections, data_rva)
            return data[start:start + size]
    raise ValueError("no VERSIONINFO resource")


def _align4(n):
    return (n + 3) & ~3


def _block(data, offset):
    """(key, value bytes, type, children offsets range) of one version block."""
    length, value_length, kind = struct.unpack_from("<HHH", data, offset)
    p = offset + 6
    end_of_key = p
    while data[end_of_key:end_of_key + 2] != b"\0\0":
        end_of_key += 2
    key = data[p:end_of_key].decode("utf-16-le")
    p = _align4(end_of_key + 2)
    value_bytes = value_length * 2 if kind == 1 else value_length
    value = data[p:p + value_bytes]
    children = _align4(p + value_bytes)
    return key, value, kind, children, offset + length


def _children(data, start, end):
    offset = start
    while offset < end:
        key, value, kind, children, next_offset = _block(data, offset)
        yield key, value, kind, children, next_offset
        if next_offset <= offset:
            break
        offset = _align4(next_offset)


def parse_version_info(resource):
    key, fixed, _, children, end = _block(resource, 0)
    if key != "VS_VERSION_INFO":
        raise ValueError("VERSIONINFO block is %r" % key)
    signature, _, file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<6I", fixed, 0)
    if signature != 0xFEEF04BD:
        raise ValueError("VS_FIXEDFILEINFO signature 0x%08x" % signature)
    split = lambda ms, ls: (ms >> 16, ms & 0xFFFF, ls >> 16, ls & 0xFFFF)
    strings = {}
    for key, _, _, start, stop in _children(resource, children, end):
        if key != "StringFileInfo":
            continue
        for _, _, _, table_start, table_stop in _children(resource, start, stop):
            for name, value, _, _, _ in _children(resource, table_start, table_stop):
                strings[name] = value.decode("utf-16-le").rstrip("\0")
    return split(file_ms, file_ls), split(product_ms, product_ls), strings


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", required=True, help="the project version, major.minor.patch")
    parser.add_argument("--header", required=True)
    parser.add_argument("--dll")
    parser.add_argument("--config-version")
    args = parser.parse_args()

    failures = 0

    def check(name, ok, detail):
        nonlocal failures
        print("%s %s: %s" % ("PASS" if ok else "FAIL", name, detail))
        failures += 0 if ok else 1

    m = re.fullmatch(r"(\d+)\.(\d+)\.(\d+)", args.version)
    if not m:
        check("project version", False, "%r is not major.minor.patch" % args.version)
        return 1
    major, minor, patch = (int(x) for x in m.groups())

    found = header_version(args.header)
    expected = {"MAJOR": str(major), "MINOR": str(minor), "PATCH": str(patch), "STRING": '"%s"' % args.version}
    for part in ("MAJOR", "MINOR", "PATCH", "STRING"):
        check("header QUORVANTIS_VERSION_" + part, found[part] == expected[part],
              "%s (project version %s)" % (found[part], args.version))

    if args.dll:
        try:
            file_version, product_version, strings = parse_version_info(version_resource(args.dll))
        except (ValueError, struct.error, StopIteration) as error:
            check("DLL VERSIONINFO", False, str(error))
        else:
            four = (major, minor, patch, 0)
            text = "%d.%d.%d.%d" % four
            check("DLL FILEVERSION", file_version == four, "%d,%d,%d,%d" % file_version)
            check("DLL PRODUCTVERSION", product_version == four, "%d,%d,%d,%d" % product_version)
            for name in ("FileVersion", "ProductVersion"):
                check("DLL string " + name, strings.get(name) == text, repr(strings.get(name)))

    if args.config_version:
        text = open(args.config_version, encoding="utf-8").read()
        m = re.search(r'^set\(PACKAGE_VERSION "([^"]*)"\)', text, re.M)
        value = m.group(1) if m else None
        check("CMake package version", value == args.version, repr(value))

    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
