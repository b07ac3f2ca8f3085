#!/usr/bin/python3
"""Writes everything that is made from the list of result codes.

The list, tools/codes/result_codes.json, is the one place where a result code
of the add-in is named, numbered and explained. From it this script writes:

  include/Quorvantis.h           the block between the RESULT CODES markers
  tools/host/ResultCodeNames.inc the rows of qvhost's code-name table
  docs/troubleshooting.md        the administrators' page, whole
  tools/traceview/traceview.html the JSON between its RESULT CODES markers,
                                 when the file and both markers are there

Usage:
  gen_codes.py            rewrite the files that differ from what the list makes
  gen_codes.py --check    write nothing; fail, naming the files, if any differs
  --root DIR              the source tree (default: two folders above this file)

Standard library only; runs on /usr/bin/python3.
"""
import argparse
import json
import os
import re
import sys

LIST_PATH = 'tools/codes/result_codes.json'
HEADER_PATH = 'include/Quorvantis.h'
QVHOST_PATH = 'tools/host/ResultCodeNames.inc'
DOC_PATH = 'docs/troubleshooting.md'
TRACEVIEW_PATH = 'tools/traceview/traceview.html'

HEADER_BEGIN = '/* BEGIN RESULT CODES: made from tools/codes/result_codes.json by tools/codes/gen_codes.py */'
HEADER_END = '/* END RESULT CODES */'
TRACEVIEW_BEGIN = '/* BEGIN RESULT CODES */'
TRACEVIEW_END = '/* END RESULT CODES */'

FAILURE_MASK = 0xD5000000
VALUE_PATTERN = re.compile(r'^0x[0-9A-F]{8}$')
NAME_PATTERN = re.compile(r'^ZEB_[A-Z0-9_]+$')


class ListError(Exception):
    """The list breaks one of its rules."""


# ---------------------------------------------------------------- the list

def load_list(root):
    path = os.path.join(root, LIST_PATH)
    with open(path, encoding='utf-8') as f:
        data = json.load(f)
    validate(data)
    return data


def _strings(where, value):
    if not isinstance(value, list) or not all(isinstance(s, str) and s for s in value):
        raise ListError('%s: a list of non-empty texts expected' % where)


def _plain_line(where, text):
    if not isinstance(text, str) or not text.strip():
        raise ListError('%s: a text expected' % where)
    for bad in ('\n', '`', '|'):
        if bad in text:
            raise ListError('%s: one plain line expected, without %r' % (where, bad))


def validate(data):
    for key in ('families', 'codes', 'benign_traces'):
        if key not in data:
            raise ListError('the list has no %r' % key)
    family_ids = []
    for family in data['families']:
        fid = family.get('id')
        where = 'family %r' % fid
        if not fid or fid in family_ids:
            raise ListError('%s: missing or repeated id' % where)
        family_ids.append(fid)
        for key in ('title', 'intro'):
            if not isinstance(family.get(key), str) or not family[key]:
                raise ListError('%s: no %s' % (where, key))
        for key in ('causes', 'checks', 'traces'):
            _strings('%s %s' % (where, key), family.get(key, []))
        header = family.get('header')
        if not isinstance(header, dict) or not isinstance(header.get('name_width'), int):
            raise ListError('%s: header with name_width expected' % where)
        _strings('%s header comment' % where, header.get('comment', []) or [])
    for entry in data['benign_traces']:
        if not entry.get('text') or not entry.get('note'):
            raise ListError('benign trace without text or note: %r' % entry)

    names, values = set(), set()
    order = []
    for entry in data['codes']:
        name = entry.get('name')
        where = 'code %s' % (name or entry.get('value'))
        family = entry.get('family')
        if family not in family_ids:
            raise ListError('%s: unknown family %r' % (where, family))
        if not order or order[-1] != family:
            if family in order:
                raise ListError('%s: the codes of family %r are not together' % (where, family))
            order.append(family)
        if name is None:
            if not entry.get('title'):
                raise ListError('%s: a result without a name needs a title' % where)
        elif not NAME_PATTERN.match(name) or name in names:
            raise ListError('%s: bad or repeated name' % where)
        else:
            names.add(name)
            width = family_by_id(data, family)['header']['name_width']
            if len(name) >= width:
                raise ListError('%s: longer than the name column (%d) of its family' % (where, width))
        all_values = [entry.get('value')] + [v.get('value') for v in entry.get('other_values', [])]
        for value in all_values:
            if not isinstance(value, str) or not VALUE_PATTERN.match(value) or value in values:
                raise ListError('%s: bad or repeated value %r' % (where, value))
            values.add(value)
            failure = (int(value, 16) & FAILURE_MASK) != 0
            if failure != family_by_id(data, family).get('failures', True):
                raise ListError('%s: %s is %s a failure, unlike its family' % (
                    where, value, '' if failure else 'not'))
        _plain_line('%s meaning' % where, entry.get('meaning'))
        for key in ('causes', 'checks', 'traces', 'other_traces'):
            _strings('%s %s' % (where, key), entry.get(key, []))
        for source in entry.get('maps_from', []):
            if not source.get('name'):
                raise ListError('%s: maps_from entry without a name' % where)
    if order != [f for f in family_ids if f in order]:
        raise ListError('the codes are not in the order of their families')


def family_by_id(data, fid):
    for family in data['families']:
        if family['id'] == fid:
            return family
    raise ListError('unknown family %r' % fid)


def named_codes(data):
    return [c for c in data['codes'] if c.get('name')]


def hex8(value):
    return '%08x' % int(value, 16)


def anchor(entry):
    if entry.get('name'):
        return entry['name'].lower()
    return 'result_%d' % int(entry['value'], 16)


# ---------------------------------------------------------------- outputs

def render_header_block(data):
    """The lines between the header's markers: the header as it always was."""
    lines = []
    for family in data['families']:
        members = [c for c in named_codes(data) if c['family'] == family['id']]
        if not members:
            continue
        header = family['header']
        if header.get('blank_before'):
            lines.append('')
        lines.extend(header.get('comment', []))
        for entry in members:
            line = '#define %s%su' % (entry['name'].ljust(header['name_width']), entry['value'])
            if entry.get('header_comment'):
                line += ' /* %s */' % entry['header_comment']
            lines.append(line)
    return lines


def render_qvhost(data):
    lines = [
        '// Rows of qvhost\'s code-name table: every result code of Quorvantis.h by its',
        '// header name. Made from %s by tools/codes/gen_codes.py;' % LIST_PATH,
        '// edit the list and run the script, not this file.',
    ]
    for entry in named_codes(data):
        lines.append('CODE_ROW(%s),' % entry['name'])
        for other in entry.get('other_values', []):
            row = '{%d, "%s"},' % (int(other['value'], 16), entry['name'])
            if other.get('note'):
                row += '  // ' + other['note']
            lines.append(row)
    return '\n'.join(lines) + '\n'


def _html_safe_json(text):
    return json.dumps(text).replace('<', '\\u003c').replace('>', '\\u003e').replace('&', '\\u0026')


def render_traceview_block(data):
    rows = []
    for entry in named_codes(data):
        for value in [entry['value']] + [v['value'] for v in entry.get('other_values', [])]:
            rows.append('  %s: {"name": %s, "meaning": %s}' % (
                _html_safe_json(value), _html_safe_json(entry['name']), _html_safe_json(entry['meaning'])))
    return ['{'] + [row + (',' if i + 1 < len(rows) else '') for i, row in enumerate(rows)] + ['}']


def _code_block(texts):
    lines = ['```text']
    lines.extend(t.rstrip('\n') for t in texts)
    lines.append('```')
    return lines


def _bullets(items):
    return ['- ' + item for item in items]


def _section(out, heading, items, render):
    """Appends `heading`, then `items` as `render` lays them out, when there are any."""
    if items:
        out.extend([heading, ''] + render(items) + [''])


def _maps_from(family, entry):
    parts = []
    for source in entry.get('maps_from', []):
        text = ('%s `%s`' % (source['value'], source['name'])) if source.get('value') else '`%s`' % source['name']
        if source.get('note'):
            text += ' (%s)' % source['note']
        parts.append(text)
    if not parts:
        return None
    return '%s %s' % (family.get('maps_from_label', 'From'), '; '.join(parts))


def _search(family, entry):
    template = entry.get('search', family.get('search'))
    if not template:
        return None
    return template.replace('{hex}', hex8(entry['value']))


def _heading(entry):
    if not entry.get('name'):
        return entry['title']
    text = '%s %s' % (entry['value'], entry['name'])
    others = [v['value'] for v in entry.get('other_values', [])]
    if others:
        text += ' (also %s)' % ', '.join(others)
    return text


DOC_TOP = r'''# Troubleshooting: result codes of the Quorvantis add-in

<!-- Made from tools/codes/result_codes.json by tools/codes/gen_codes.py.
     Edit the list and run the script; do not edit this page. -->

For administrators of printers and drivers that use `Quorvantis.dll`. Every
call of the add-in returns a 32-bit result code. 0 (or 1) is success; a code
is a failure exactly when it shares a bit with 0xD5000000. This page lists
every code: what it means, its likely causes, what to check (settings,
server, network, certificates, clock), and the trace lines that show it.

## How to find the code and its cause

1. Turn the trace on. In `Quorvantis.ini`, section `[Quorvantis]`, set a
   trace level and a file. The add-in reads `Quorvantis.ini` beside
   `Quorvantis.dll` when it is loaded, and again the file the driver names
   when it calls `Initialize` (that file replaces all settings, so set the
   keys there if the driver uses one):

   ```ini
   [Quorvantis]
   DebugLevel=5
   DebugFile=C:\ProgramData\Quorvantis\trace.log
   ```

   The folder must exist, and the account that loads the add-in
   (LocalSystem, for a driver component in the print spooler) must be allowed
   to write to it. Without `DebugFile` the lines go to the debugger output
   only (DebugView shows them). Level 1 writes the failures only; level 4 adds
   every step, the HTTP status and the content type of each answer; level 5
   adds the exchanged XML.
2. Restart the program or service that loads the add-in (for a printer
   driver, the print spooler), so that the settings are read, and reproduce
   the problem.
3. Open the file and search for `ZEB_ERROR = `. Every failure writes one
   level-1 line that ends in `ZEB_ERROR = ` and the code in eight lower-case
   hexadecimal digits, for example:

   ```text
    Time(H25:M30:S12:345), Thread(36), FILE(        CWinHttp.cpp), LINE( 641) : CWinHttp::Request WinHttpReceiveResponse Error = 00002ee2, ZEB_ERROR = d5020001
   ```

   The first such line of the failing call names the step that failed; lines
   after it with the same code pass the same failure on. `Error = ` is the
   platform's own error (here 0x2ee2, that is 12002). The hour is UTC plus
   nine hours and does not wrap (H24 to H32 stand for 15:00 to 23:59 UTC).
   When the server answered with a fault, the lines begin with `ParseLib`
   and give the fault's code, reason and subcode; the last
   `ParseLib SoapFault Result = ` line holds the code that is returned.
4. Look the code up below: in the table of all codes, or directly by its
   name in lower case (`troubleshooting.md#zeb_error_winhttp_timeout`).
5. When done, set `DebugLevel=0` again and delete the file: at level 5 the
   trace holds the exchanged XML, with passwords (Basic2), login answers and
   SAML assertions.

In the trace texts below, `%08x` stands for eight hexadecimal digits, `%s`
for a text (a class name such as `GetACTRequest`, an XPath or a value), and
`%d` and `%u` for a number.

These level-1 lines also appear when everything works, and are no failure
by themselves:
'''


def render_doc(data):
    out = DOC_TOP.split('\n')
    for entry in data['benign_traces']:
        out.append('- `%s`: %s' % (entry['text'].rstrip('\n'), entry['note']))
    out.append('')

    out.append('## All codes')
    out.append('')
    out.append('| Code | Name | Meaning |')
    out.append('|---|---|---|')
    for entry in data['codes']:
        label = entry['name'] or '(no name)'
        out.append('| %s | [%s](#%s) | %s |' % (entry['value'], label, anchor(entry), entry['meaning']))
        for other in entry.get('other_values', []):
            out.append('| %s | [%s](#%s) | Same as %s: %s. |' % (
                other['value'], label, anchor(entry), entry['value'], other.get('note', '')))
    out.append('')

    for family in data['families']:
        out.append('## <a id="family-%s"></a>%s' % (family['id'], family['title']))
        out.append('')
        out.append(family['intro'])
        out.append('')
        _section(out, 'Likely causes, for every code of this family:', family.get('causes'), _bullets)
        _section(out, 'What to check, for every code of this family:', family.get('checks'), _bullets)
        _section(out, 'Trace lines of this family (the code is the last `%08x`):', family.get('traces'), _code_block)

        for entry in [c for c in data['codes'] if c['family'] == family['id']]:
            out.append('### <a id="%s"></a>%s' % (anchor(entry), _heading(entry)))
            out.append('')
            if entry.get('returned') is False:
                out.append('**Not returned by this version.** ' + entry['meaning'])
            else:
                out.append(entry['meaning'])
            out.append('')
            facts = []
            source = _maps_from(family, entry)
            if source:
                facts.append('**From:** ' + source)
            search = _search(family, entry)
            if search:
                facts.append('**Find it in the trace:** `%s`' % search)
            if facts:
                out.extend(_bullets(facts))
                out.append('')
            _section(out, family.get('causes_label', 'Likely causes') + ':',
                     entry.get('causes') or ['None beyond the meaning above.'], _bullets)
            _section(out, 'What to check:', entry.get('checks'), _bullets)
            _section(out, 'Trace lines:', entry.get('traces'), _code_block)
            _section(out, 'Other lines that give it (memory exhaustion, or checks inside the add-in that a host '
                     'cannot trigger; report those to the vendor):', entry.get('other_traces'), _code_block)
            if family.get('causes') or family.get('checks') or family.get('traces'):
                out.append('The causes, checks and trace lines of the whole family apply as well: [%s](#family-%s).'
                           % (family['title'], family['id']))
                out.append('')
            elif not entry.get('traces') and family.get('failures', True):
                out.append('No level-1 trace line shows it.')
                out.append('')
    while out and out[-1] == '':
        out.pop()
    return '\n'.join(out) + '\n'


def _replace_between(text, begin, end, new_lines, path):
    """text with the lines strictly between the line holding `begin` and the
    line holding `end` replaced by new_lines (indented like the begin line),
    or None when a marker is missing."""
    newline = '\r\n' if '\r\n' in text else '\n'
    lines = text.split(newline)
    starts = [i for i, line in enumerate(lines) if begin in line]
    ends = [i for i, line in enumerate(lines) if end in line]
    if not starts or not ends:
        return None
    if len(starts) != 1 or len(ends) != 1 or ends[0] <= starts[0]:
        raise ListError('%s: the markers %r and %r must stand once each, on lines of their own, in this order'
                        % (path, begin, end))
    indent = lines[starts[0]][:len(lines[starts[0]]) - len(lines[starts[0]].lstrip())]
    body = [(indent + line) if line else line for line in new_lines]
    return newline.join(lines[:starts[0] + 1] + body + lines[ends[0]:])


def _read(path):
    with open(path, encoding='utf-8', newline='') as f:
        return f.read()


def outputs(root, data):
    """(relative path, expected text) for every file the list makes."""
    made = []
    header_path = os.path.join(root, HEADER_PATH)
    header = _replace_between(_read(header_path), HEADER_BEGIN, HEADER_END, render_header_block(data), HEADER_PATH)
    if header is None:
        raise ListError('%s: the lines %r and %r are missing' % (HEADER_PATH, HEADER_BEGIN, HEADER_END))
    made.append((HEADER_PATH, header))
    made.append((QVHOST_PATH, render_qvhost(data)))
    made.append((DOC_PATH, render_doc(data)))
    traceview_path = os.path.join(root, TRACEVIEW_PATH)
    if os.path.isfile(traceview_path):
        traceview = _replace_between(_read(traceview_path), TRACEVIEW_BEGIN, TRACEVIEW_END,
                                     render_traceview_block(data), TRACEVIEW_PATH)
        if traceview is not None:
            made.append((TRACEVIEW_PATH, traceview))
    return made


def stale(root, made):
    """The relative paths whose file differs from what the list makes."""
    differing = []
    for rel, text in made:
        path = os.path.join(root, rel)
        if not os.path.isfile(path) or _read(path) != text:
            differing.append(rel)
    return differing


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--check', action='store_true', help='write nothing; fail if a made file is out of date')
    parser.add_argument('--root', default=os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                                        '..', '..')))
    args = parser.parse_args(argv)
    try:
        data = load_list(args.root)
        made = outputs(args.root, data)
    except (ListError, OSError, ValueError) as error:
        print('gen_codes: %s' % error, file=sys.stderr)
        return 2
    differing = stale(args.root, made)
    if args.check:
        if differing:
            for rel in differing:
                print('gen_codes: out of date: %s' % rel, file=sys.stderr)
            print('gen_codes: run /usr/bin/python3 tools/codes/gen_codes.py and commit the result', file=sys.stderr)
            return 1
        print('gen_codes: %d files up to date' % len(made))
        return 0
    for rel, text in made:
        if rel in differing:
            path = os.path.join(args.root, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, 'w', encoding='utf-8', newline='') as f:
                f.write(text)
            print('gen_codes: wrote %s' % rel)
    return 0


if __name__ == '__main__':
    sys.exit(main())
