#!/usr/bin/env python3
"""The archive's share/quorvantis, as an administrator and an integrator read it.

    check_share.py --share UNPACKED/share/quorvantis

- Quorvantis.ini, the sample: every key of the README's Settings table
  (section [Quorvantis]) is there, commented out (";Key=value"), with the
  table's default as its value ("(none)": empty), and no key the table does
  not have; nothing in it is set (no uncommented key);
- every relative link of its Markdown files leads to a file of the package;
- the reference server: every module its .py files import is either one of
  its own, Python's standard library, or listed in its requirements.txt and
  named in its README; and the README says how to run it on its own.
"""
import argparse
import ast
import os
import re
import sys


def settings_table(readme):
    """{key: default} of the README's Settings table."""
    text = open(readme, encoding="utf-8").read()
    m = re.search(r"^## Settings.*?\n(\| Key \|.*?)(?:\n\n|\Z)", text, re.S | re.M)
    if not m:
        raise SystemExit("FAIL no Settings table in " + readme)
    table = {}
    for row in m.group(1).splitlines()[2:]:
        cells = [cell.strip() for cell in row.strip().strip("|").split("|")]
        key, default = cells[0].strip("`"), cells[1]
        table[key] = "" if default == "(none)" else default.strip("`")
    return table


def check_ini(path, table, problems):
    sample = {}
    for number, line in enumerate(open(path, encoding="utf-8"), 1):
        line = line.rstrip("\r\n")
        m = re.match(r"^;([A-Za-z]+)=(.*)$", line)
        if m:
            sample[m.group(1)] = m.group(2)
        elif re.match(r"^\s*[A-Za-z]+\s*=", line):
            problems.append("Quorvantis.ini line %d sets a key: %s" % (number, line))
    for key, default in table.items():
        if key not in sample:
            problems.append("Quorvantis.ini has no ;%s=%s" % (key, default))
        elif sample[key] != default:
            problems.append("Quorvantis.ini: ;%s=%s, the README's default is %r" % (key, sample[key], default))
    for key in sample:
        if key not in table:
            problems.append("Quorvantis.ini has %s, which the README's table does not" % key)
    print("Quorvantis.ini: %d of the README's %d keys, commented, with their defaults"
          % (len(set(sample) & set(table)), len(table)))


def check_links(folder, problems):
    count = 0
    for top, _, names in os.walk(folder):
        for name in sorted(names):
            if not name.endswith(".md"):
                continue
            path = os.path.join(top, name)
            text = open(path, encoding="utf-8").read()
            for target in re.findall(r"\]\(([^)\s]+)\)", text):
                if re.match(r"^[a-z]+:", target) or target.startswith("#"):
                    continue
                count += 1
                if not os.path.isfile(os.path.join(top, target.split("#")[0])):
                    problems.append("%s links %s, which the package does not have"
                                    % (os.path.relpath(path, folder), target))
    print("links: %d relative links of the Markdown files checked" % count)


def check_refserver(folder, problems):
    own = {name[:-3] for name in os.listdir(folder) if name.endswith(".py")}
    imported = set()
    for name in sorted(own):
        tree = ast.parse(open(os.path.join(folder, name + ".py"), encoding="utf-8").read())
        for node in ast.walk(tree):
            if isinstance(node, ast.Import):
                imported.update(alias.name.split(".")[0] for alias in node.names)
            elif isinstance(node, ast.ImportFrom) and node.level == 0 and node.module:
                imported.add(node.module.split(".")[0])
    third_party = sorted(imported - own - set(sys.stdlib_module_names))
    requirements = {line.strip() for line in open(os.path.join(folder, "requirements.txt"))
                    if line.strip() and not line.startswith("#")}
    readme = open(os.path.join(folder, "README.md"), encoding="utf-8").read()
    for module in third_party:
        if module not in requirements:
            problems.append("refserver imports %s, which requirements.txt does not list" % module)
        if module not in readme:
            problems.append("refserver imports %s, which its README does not name" % module)
    for extra in sorted(requirements - set(third_party)):
        problems.append("requirements.txt lists %s, which no refserver file imports" % extra)
    for needed in ("--http-port", "--https-port", "production"):
        if needed not in readme:
            problems.append("refserver/README.md does not mention %r" % needed)
    print("refserver: imports %s beyond the standard library; requirements.txt lists %s"
          % (", ".join(third_party), ", ".join(sorted(requirements))))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--share", required=True)
    args = parser.parse_args()
    problems = []
    check_ini(os.path.join(args.share, "Quorvantis.ini"), settings_table(os.path.join(args.share, "README.md")),
              problems)
    check_links(args.share, problems)
    check_refserver(os.path.join(args.share, "refserver"), problems)
    for problem in problems:
        print("FAIL " + problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
