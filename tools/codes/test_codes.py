"""Checks of the result-code list and of what is made from it.

Run from this folder: /usr/bin/python3 -B -m unittest -v test_codes

- Every result-code macro of include/Quorvantis.h is in the list with its
  value, has its row in qvhost's table and its entry (anchor) in
  docs/troubleshooting.md: the generator makes that true, these tests catch
  hand edits of any of the three.
- Every trace text the list quotes is a text of the sources, and every
  level-1 trace text of the sources that carries a code is quoted somewhere.
- The generator's --check fails on drift and passes once the files are
  rewritten; the trace viewer's block is replaced only between its markers.
"""
import contextlib
import io
import json
import os
import re
import shutil
import tempfile
import unittest

import gen_codes

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..'))
SOURCES = os.path.join(ROOT, 'src')

MACRO = re.compile(r'^#define\s+(ZEB_\w+)\s+(0x[0-9A-Fa-f]+)u?\b', re.M)
LITERAL = re.compile(r'L?"((?:[^"\\\n]|\\.)*)"')
CHAR_LITERAL = re.compile(r"L?'(?:[^'\\\n]|\\.)'")
ESCAPES = {'n': '\n', 't': '\t', 'r': '\r', '"': '"', '\\': '\\', "'": "'", '0': '\0'}


def read(rel):
    with open(os.path.join(ROOT, rel), encoding='utf-8') as f:
        return f.read()


def header_codes():
    """name -> value of every result-code macro of the public header."""
    codes = {}
    for name, value in MACRO.findall(read(gen_codes.HEADER_PATH)):
        number = int(value, 16)
        if name == 'ZEB_SUCCESS' or name.startswith('ZEB_ERROR_') or (
                name != 'ZEB_FAILURE_MASK' and number & gen_codes.FAILURE_MASK):
            codes[name] = '0x%08X' % number
    return codes


def unescape(text):
    return re.sub(r'\\(.)', lambda m: ESCAPES.get(m.group(1), m.group(1)), text)


def source_files():
    for folder, _, files in os.walk(SOURCES):
        for name in sorted(files):
            if name.endswith(('.cpp', '.h')):
                yield os.path.join(folder, name)


def literal_runs(text):
    """The string literals of a C++ text, adjacent ones joined, unescaped."""
    text = CHAR_LITERAL.sub(lambda m: ' ' * len(m.group(0)), text)
    runs, current, last_end = [], None, None
    for match in LITERAL.finditer(text):
        if current is not None and text[last_end:match.start()].strip() == '':
            current += unescape(match.group(1))
        else:
            if current is not None:
                runs.append(current)
            current = unescape(match.group(1))
        last_end = match.end()
    if current is not None:
        runs.append(current)
    return runs


def source_texts():
    texts = set()
    for path in source_files():
        with open(path, encoding='utf-8') as f:
            texts.update(literal_runs(f.read()))
    return texts


def level1_literal_texts():
    """The text literal of every level-1 line of the sources: WSCLOG(1, ...),
    QV_FAIL(code, ...) and the platform-failure macros (QV_LAST_ERROR,
    QV_FAILURE and their per-family names)."""
    found = []
    call = re.compile(r'WSCLOG\(\s*1\s*,|QV_FAIL\(\s*\w+\s*,|QV_\w+_FAILED\(|'
                      r'QV_LAST_ERROR\(\s*[^,]+,|QV_FAILURE\(\s*[^,]+,\s*[^,]+,')
    for path in source_files():
        with open(path, encoding='utf-8') as f:
            text = f.read()
        for match in call.finditer(text):
            runs = literal_runs(text[match.end():match.end() + 600].split(');')[0])
            rest = text[match.end():].lstrip()
            if runs and rest.startswith(('L"', '"')):
                found.append((os.path.relpath(path, ROOT), runs[0]))
    return found


def listed_texts(data):
    texts = [t['text'] for t in data['benign_traces']]
    for family in data['families']:
        texts += family.get('traces', [])
    for entry in data['codes']:
        texts += entry.get('traces', []) + entry.get('other_traces', [])
    return texts


def prose(data):
    pieces = []
    for family in data['families']:
        pieces += [family['intro']] + family.get('causes', []) + family.get('checks', [])
    for entry in data['codes']:
        pieces += entry.get('causes', []) + entry.get('checks', [])
    pieces += [t['note'] for t in data['benign_traces']]
    return pieces


class HeaderCoverage(unittest.TestCase):
    """Every code macro of the header is in the list, qvhost's table and the page."""

    @classmethod
    def setUpClass(cls):
        cls.data = gen_codes.load_list(ROOT)
        cls.codes = header_codes()

    def test_the_header_has_result_codes(self):
        self.assertIn('ZEB_SUCCESS', self.codes)
        self.assertIn('ZEB_ERROR_CRYPT_BAD_FLAGS', self.codes)
        self.assertGreater(len(self.codes), 100)

    def test_every_macro_is_in_the_list_with_its_value(self):
        listed = {c['name']: c['value'] for c in self.data['codes'] if c.get('name')}
        for name, value in self.codes.items():
            with self.subTest(name=name):
                self.assertEqual(listed.get(name), value, 'not in %s with this value' % gen_codes.LIST_PATH)
        self.assertEqual(sorted(listed), sorted(self.codes), 'the list names codes the header lacks')

    def test_every_macro_has_a_row_in_qvhosts_table(self):
        rows = set(re.findall(r'^CODE_ROW\((\w+)\),', read(gen_codes.QVHOST_PATH), re.M))
        for name in self.codes:
            with self.subTest(name=name):
                self.assertIn(name, rows)
        self.assertIn('#include "ResultCodeNames.inc"', read('tools/host/QvHost.cpp'))

    def test_every_macro_has_an_entry_in_the_troubleshooting_page(self):
        page = read(gen_codes.DOC_PATH)
        for name, value in self.codes.items():
            with self.subTest(name=name):
                self.assertIn('<a id="%s"></a>%s %s' % (name.lower(), value, name), page)


class TraceTexts(unittest.TestCase):
    """The trace texts of the list are those of the sources, and complete."""

    @classmethod
    def setUpClass(cls):
        cls.data = gen_codes.load_list(ROOT)
        cls.sources = source_texts()

    def test_every_listed_trace_text_is_in_the_sources(self):
        for text in listed_texts(self.data):
            with self.subTest(text=text):
                self.assertTrue(text in self.sources, 'not a text of src/: %r' % text)

    def test_trace_texts_quoted_in_the_prose_are_in_the_sources(self):
        for piece in prose(self.data):
            for quoted in re.findall(r'`([^`]+)`', piece):
                if re.search(r'%(08x|s|d|u)', quoted):
                    # A text quoted in a sentence leaves out a trailing line feed.
                    with self.subTest(text=quoted):
                        self.assertTrue(quoted in self.sources or quoted + '\n' in self.sources,
                                        'not a text of src/: %r' % quoted)

    def test_every_level1_text_with_a_code_is_listed(self):
        listed = set(listed_texts(self.data))
        calls = level1_literal_texts()
        self.assertGreater(len(calls), 200)
        for path, text in calls:
            if '%08x' in text:
                with self.subTest(path=path, text=text):
                    self.assertTrue(text in listed, 'not in the list: %r' % text)


class Generator(unittest.TestCase):
    """--check fails on drift; the trace viewer's block stays between its markers."""

    def setUp(self):
        # A copy of the list and the header, with the made files brought up to
        # date: these tests do not depend on the state of the working tree
        # (codes.generated checks that).
        self.root = tempfile.mkdtemp(prefix='qvcodes')
        for rel in (gen_codes.LIST_PATH, gen_codes.HEADER_PATH):
            os.makedirs(os.path.dirname(os.path.join(self.root, rel)), exist_ok=True)
            shutil.copyfile(os.path.join(ROOT, rel), os.path.join(self.root, rel))
        self.assertEqual(self.run_generator()[0], 0)

    def tearDown(self):
        shutil.rmtree(self.root)

    def run_generator(self, *args):
        with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()) as errors:
            status = gen_codes.main(list(args) + ['--root', self.root])
        return status, errors.getvalue()

    def edit_list(self, change):
        path = os.path.join(self.root, gen_codes.LIST_PATH)
        with open(path, encoding='utf-8') as f:
            data = json.load(f)
        change(data)
        with open(path, 'w', encoding='utf-8') as f:
            json.dump(data, f, indent=2)

    def test_a_fresh_tree_is_up_to_date(self):
        self.assertEqual(self.run_generator('--check'), (0, ''))

    def test_check_names_the_stale_files_and_writes_nothing(self):
        def reword(data):
            data['codes'][-1]['meaning'] = 'Reworded.'
        self.edit_list(reword)
        with open(os.path.join(self.root, gen_codes.DOC_PATH), encoding='utf-8') as f:
            before = f.read()
        status, errors = self.run_generator('--check')
        self.assertEqual(status, 1)
        self.assertIn(gen_codes.DOC_PATH, errors)
        with open(os.path.join(self.root, gen_codes.DOC_PATH), encoding='utf-8') as f:
            self.assertEqual(f.read(), before)
        self.assertEqual(self.run_generator()[0], 0)
        self.assertEqual(self.run_generator('--check'), (0, ''))

    def test_a_new_code_reaches_the_header_the_table_and_the_page(self):
        def add(data):
            entry = dict(data['codes'][-1], name='ZEB_ERROR_FAULT_EXAMPLE', value='0xD5070406')
            entry.pop('header_comment', None)
            data['codes'].append(entry)
        self.edit_list(add)
        self.assertEqual(self.run_generator('--check')[0], 1)
        self.assertEqual(self.run_generator()[0], 0)
        with open(os.path.join(self.root, gen_codes.HEADER_PATH), encoding='utf-8') as f:
            header = f.read()
        self.assertRegex(header, r'\n#define ZEB_ERROR_FAULT_EXAMPLE +0xD5070406u\n' + re.escape(gen_codes.HEADER_END))
        with open(os.path.join(self.root, gen_codes.QVHOST_PATH), encoding='utf-8') as f:
            self.assertIn('CODE_ROW(ZEB_ERROR_FAULT_EXAMPLE),', f.read())
        with open(os.path.join(self.root, gen_codes.DOC_PATH), encoding='utf-8') as f:
            self.assertIn('<a id="zeb_error_fault_example"></a>', f.read())

    def test_a_broken_list_is_refused(self):
        def repeat(data):
            data['codes'][-1]['value'] = data['codes'][-2]['value']
        self.edit_list(repeat)
        status, errors = self.run_generator('--check')
        self.assertEqual(status, 2)
        self.assertIn('repeated value', errors)

    def write_traceview(self, text):
        path = os.path.join(self.root, gen_codes.TRACEVIEW_PATH)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'w', encoding='utf-8', newline='') as f:
            f.write(text)
        return path

    def test_the_trace_viewer_block_is_replaced_between_its_markers(self):
        path = self.write_traceview('<script>\r\n  const CODES =\r\n    /* BEGIN RESULT CODES */\r\n    {}\r\n'
                                    '    /* END RESULT CODES */;\r\n</script>\r\n')
        self.assertEqual(self.run_generator('--check')[0], 1)
        self.assertEqual(self.run_generator()[0], 0)
        with open(path, encoding='utf-8', newline='') as f:
            text = f.read()
        self.assertTrue(text.startswith('<script>\r\n  const CODES =\r\n    /* BEGIN RESULT CODES */\r\n    {\r\n'))
        self.assertTrue(text.endswith('    }\r\n    /* END RESULT CODES */;\r\n</script>\r\n'))
        block = text.split('/* BEGIN RESULT CODES */')[1].split('/* END RESULT CODES */')[0]
        table = json.loads(block)
        self.assertEqual(table['0xD5020001']['name'], 'ZEB_ERROR_WINHTTP_TIMEOUT')
        self.assertEqual(table['0x00000001']['name'], 'ZEB_SUCCESS')
        self.assertTrue(table['0xD5030001']['meaning'])
        self.assertEqual(len(table), len(header_codes()) + 1)
        self.assertEqual(self.run_generator('--check'), (0, ''))

    def test_a_trace_viewer_without_markers_is_left_alone(self):
        path = self.write_traceview('<html>no block here</html>\n')
        self.assertEqual(self.run_generator('--check'), (0, ''))
        self.assertEqual(self.run_generator()[0], 0)
        with open(path, encoding='utf-8') as f:
            self.assertEqual(f.read(), '<html>no block here</html>\n')


if __name__ == '__main__':
    unittest.main()
