// Unit tests of the trace viewer's core (parsing, analysis, redaction), run
// under node on the code of the page itself: the <script id="trace-core">
// and <script id="result-codes"> blocks of tools/traceview/traceview.html.
//   node tests/traceview/parser_test.js [path/to/traceview.html]
'use strict';
const fs = require('fs');
const path = require('path');
const vm = require('vm');
const assert = require('assert');

const htmlPath = process.argv[2] || path.join(__dirname, '..', '..', 'tools', 'traceview', 'traceview.html');
const html = fs.readFileSync(htmlPath, 'utf8');

function scriptBlock(id) {
  const m = new RegExp('^<script id="' + id + '">\\n([\\s\\S]*?)^</script>', 'm').exec(html);
  if (!m) throw new Error('no <script id="' + id + '"> in ' + htmlPath);
  return m[1];
}

const context = vm.createContext({ TextDecoder, Buffer, atob: (s) => Buffer.from(s, 'base64').toString('latin1') });
vm.runInContext(scriptBlock('trace-core') + '\nthis.TraceCore = TraceCore;', context);
vm.runInContext(scriptBlock('result-codes') + '\nthis.RESULT_CODES = RESULT_CODES;', context);
const C = context.TraceCore;
const CODES = context.RESULT_CODES;

// A trace line as the add-in writes it (the "\n" that starts every entry).
function line(h, m, s, ms, thread, message, file = 'QuorvantisAPI.cpp', src = 100) {
  const p2 = (v) => String(v).padStart(2, '0');
  return '\n Time(H' + p2(h) + ':M' + p2(m) + ':S' + p2(s) + ':' + String(ms).padStart(2, ' ') + '), Thread(' + thread +
    '), FILE(' + file.padStart(20) + '), LINE(' + String(src).padStart(4) + ') : ' + message;
}

// Values made inside the vm context have that context's prototypes: compare
// them as plain data.
function same(actual, expected, message) {
  assert.deepStrictEqual(JSON.parse(JSON.stringify(actual)), expected, message);
}

const tests = [];
function test(name, fn) { tests.push({ name, fn }); }

/* ---- Time ------------------------------------------------------------ */
test('the hour is UTC + 9 and not wrapped; milliseconds are "%2d"', () => {
  const { trace } = C.parseTrace('t', line(25, 30, 12, 345, 1, 'Open IN') + line(25, 30, 12, 5, 1, 'Open OUT') +
    line(24, 0, 0, 0, 1, 'Close IN'));
  assert.strictEqual(trace.count, 3);
  assert.strictEqual(C.formatUtc(trace.time[0]), '16:30:12.345');
  assert.strictEqual(C.formatUtc(trace.time[1]), '16:30:12.005');
  assert.strictEqual(C.formatUtc(trace.time[2]), '15:00:00.000');
});

test('a call across midnight UTC (H32 -> H09) keeps its duration', () => {
  const text = line(32, 59, 59, 900, 7, 'GetACT IN') + line(32, 59, 59, 950, 7, 'CDevice::GetACT IN') +
    line(9, 0, 0, 100, 7, 'CDevice::GetACT OUT') + line(9, 0, 0, 100, 7, 'GetACT OUT');
  const { analysis } = C.parseTrace('t', text);
  assert.strictEqual(analysis.calls.length, 1);
  assert.strictEqual(analysis.calls[0].duration, 200);
  assert.strictEqual(analysis.calls[0].status, 'ok');
  assert.strictEqual(C.formatUtc(analysis.calls[0].endTime), '+1d 00:00:00.100');
});

test('threads a few milliseconds out of order are not a new day', () => {
  const text = line(20, 0, 0, 500, 1, 'Open IN') + line(20, 0, 0, 498, 2, 'Open IN') +
    line(20, 0, 0, 510, 2, 'Open OUT') + line(20, 0, 0, 520, 1, 'Open OUT');
  const { analysis } = C.parseTrace('t', text);
  same(analysis.calls.map((c) => c.duration), [20, 12]);
});

/* ---- Entries and calls ----------------------------------------------- */
test('lines without a header continue the entry before them', () => {
  const text = line(20, 0, 0, 0, 1, 'RequestMessage=<a>\n\t<b/>\n</a>') + line(20, 0, 0, 1, 1, 'StatusCode: 200\n') +
    line(20, 0, 0, 2, 1, 'ContentType: text/xml');
  const { trace } = C.parseTrace('t', text);
  assert.strictEqual(trace.count, 3);
  assert.strictEqual(trace.message(0), 'RequestMessage=<a>\n\t<b/>\n</a>');
  assert.strictEqual(trace.message(1), 'StatusCode: 200');
  same(trace.header(2), { file: 'QuorvantisAPI.cpp', line: 100, stamp: 'H20:M00:S00:2' });
});

test('a failed call has no OUT line; its result is its last failure line', () => {
  const text = line(20, 0, 0, 0, 5, 'Authentication IN') +
    line(20, 0, 0, 10, 5, 'ParseLib SoapFault Result = d5060004', 'ParseLib.cpp') +
    line(20, 0, 0, 11, 5, 'ParseLib SoapFault Result = d5070102', 'ParseLib.cpp') +
    line(20, 0, 0, 12, 5, 'RST_Basic2::Deserialize ERROR SoapErrorCheck = d5070102', 'WSRequest.cpp') +
    line(20, 0, 0, 30, 5, 'Close IN') + line(20, 0, 0, 31, 5, 'Close OUT');
  const { analysis } = C.parseTrace('t', text);
  const [auth, close] = analysis.calls;
  assert.strictEqual(auth.status, 'failed');
  assert.strictEqual(auth.code, 0xD5070102);
  assert.strictEqual(auth.duration, 12);
  assert.strictEqual(close.status, 'ok');
  const s = C.summarize(analysis, CODES);
  assert.strictEqual(s.failures.length, 1);
  assert.strictEqual(s.failures[0].info.name, 'ZEB_ERROR_FAULT_FAILED_AUTHENTICATION');
});

test('a call with neither OUT nor failure line is unknown, not failed', () => {
  const text = line(20, 0, 0, 0, 5, 'GetACT IN') + line(20, 0, 0, 3, 5, 'CDevice::GetACT IN') + line(20, 0, 0, 9, 5, 'Close IN');
  const { analysis } = C.parseTrace('t', text);
  assert.strictEqual(analysis.calls[0].status, 'unknown');
  assert.strictEqual(analysis.calls[1].status, 'unknown');  // the log ends inside Close
});

test('an OUT without its IN line is a call known from its OUT', () => {
  const text = line(20, 0, 0, 0, 1, 'Initialize OUT') + line(20, 0, 0, 1, 1, 'Open IN') + line(20, 0, 0, 2, 1, 'Open OUT');
  const { analysis } = C.parseTrace('t', text);
  assert.strictEqual(analysis.calls.length, 2);
  assert.strictEqual(analysis.calls[0].name, 'Initialize');
  assert.strictEqual(analysis.calls[0].hasIn, false);
  assert.strictEqual(analysis.calls[0].status, 'ok');
});

test('a lost entry IN line: the entry\'s first frame starts the call', () => {
  const text = line(20, 0, 0, 0, 1, 'Authentication OUT') + line(20, 0, 0, 5, 1, 'CDevice::GetACT IN', 'CDevice.cpp') +
    line(20, 0, 0, 9, 1, 'CDevice::GetACT OUT', 'CDevice.cpp') + line(20, 0, 0, 9, 1, 'GetACT OUT');
  const { analysis } = C.parseTrace('t', text);
  same(analysis.calls.map((c) => [c.name, c.status, c.duration, c.hasIn]),
    [['Authentication', 'ok', 0, false], ['GetACT', 'ok', 4, false]]);
});

test('time-outs: a retried one is recovered, counted, and does not fail the call', () => {
  const t = (ms, msg) => line(20, 0, 1, ms, 3, msg, 'CWinHttp.cpp');
  const text = line(20, 0, 0, 0, 3, 'GetPolicy IN') + t(0, 'CWinHttp::SendRequest IN') +
    t(100, 'CWinHttp::Request WinHttpReceiveResponse Error = 0000274c, ZEB_ERROR = d5020001') + t(101, 'ZEB_ERROR_WINHTTP_TIMEOUT') +
    t(102, 'CWinHttp::SendRequest IN') + t(150, 'CWinHttp::SendRequest OUT') + line(20, 0, 1, 200, 3, 'GetPolicy OUT');
  const { analysis } = C.parseTrace('t', text);
  const s = C.summarize(analysis, CODES);
  assert.strictEqual(s.timeouts, 1);
  assert.strictEqual(s.retries, 1);
  assert.strictEqual(analysis.calls[0].status, 'ok');
  assert.strictEqual(analysis.calls[0].recovered, 1);
});

test('key exchange: the key-required fault is recovered, also when GetPublicKey IN lines were lost', () => {
  const text = line(20, 0, 0, 0, 4, 'GetACT IN') + line(20, 0, 0, 5, 4, 'ParseLib SoapFault Result = d5070404') +
    line(20, 0, 0, 6, 4, 'GetACTRequest::Deserialize ERROR SoapErrorCheck = d5070404') +
    line(20, 0, 0, 9, 4, 'GetPublicKeyRequest::Serialize Soap Header =<soap:Header/>') + line(20, 0, 0, 30, 4, 'BufferFree IN');
  const { analysis } = C.parseTrace('t', text);
  assert.strictEqual(analysis.calls[0].status, 'unknown');
  assert.strictEqual(analysis.calls[0].recovered, 1);
  assert.strictEqual(analysis.keyExchanges, 1);
});

test('failure codes: the redirect signal and level-5 "failes" lines are none', () => {
  assert.strictEqual(C.errorCode('CWinHttp::_SendRequest Connection Redirect ZEB_ERROR = d500012e'), 0);
  assert.strictEqual(C.errorCode('X::Deserialize GetXMLDataValue failes. ERROR = 0x00000008'), 0);
  assert.strictEqual(C.errorCode('CWinHttp::Open WinHttpConnect Error = 00002efd, ZEB_ERROR = d502000d'), 0xD502000D);
  assert.strictEqual(C.errorCode('GetPolicyRequest::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057'), 0xD5000057);
  assert.strictEqual(C.errorCode('ParseLib SoapFault Result = 00000000'), 0);
});

test('IN/OUT lines, with the values some OUT lines carry', () => {
  same(C.classifyInOut('CWinHttp::Open IN'), { dir: 'IN', name: 'CWinHttp::Open' });
  same(C.classifyInOut('SoapMessage::SetXMLData OUT return 0'), { dir: 'OUT', name: 'SoapMessage::SetXMLData' });
  same(C.classifyInOut('SoapRequest::GetZebSoapFaultPrefix OUT wstrRet = zeb'),
    { dir: 'OUT', name: 'SoapRequest::GetZebSoapFaultPrefix' });
  assert.strictEqual(C.classifyInOut('StatusCode: 200'), null);
});

test('the call tree nests frames and marks frames without OUT', () => {
  const text = line(20, 0, 0, 0, 1, 'GetACT IN') + line(20, 0, 0, 1, 1, 'CDevice::GetACT IN') +
    line(20, 0, 0, 2, 1, 'WSDrvCommClient::GetACT IN') + line(20, 0, 0, 6, 1, 'CDevice::GetACT OUT') +
    line(20, 0, 0, 7, 1, 'ParseLib SoapErrorCheck IN') + line(20, 0, 0, 8, 1, 'ParseLib SoapErrorCheck No Error OUT') +
    line(20, 0, 0, 9, 1, 'GetACT OUT');
  const { trace, analysis } = C.parseTrace('t', text);
  const { root } = C.callTree(trace, analysis.calls[0]);
  assert.strictEqual(root.children.length, 2);
  const dev = root.children[0];
  assert.strictEqual(dev.name, 'CDevice::GetACT');
  assert.strictEqual(dev.duration, 5);
  assert.strictEqual(dev.children[0].hasOut, false);
  assert.strictEqual(root.children[1].hasOut, true);
});

test('SOAP faults, redirects and exchanges are collected per thread', () => {
  const p = (ms, m) => line(20, 0, 0, ms, 2, m, 'ParseLib.cpp');
  const text = line(20, 0, 0, 0, 2, 'GetACT IN') + p(1, 'RequestMessage=<soap:Envelope><soap:Header><wsa:Action>urn:orvel:zeb:drvcomm/GetACT</wsa:Action></soap:Header></soap:Envelope>') +
    p(2, 'StatusCode: 500\n') + p(3, 'ContentType: application/soap+xml; charset=utf-8') + p(4, 'ResponseMessage=<x/>') +
    p(5, 'ParseLib SoapFault soap:Body/soap:Fault/soap:Code/soap:Value = soap:Receiver') +
    p(6, 'ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Reason/soap:Text = No role.') +
    p(7, 'ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value = zeb:RoleMappingDataError') +
    p(8, 'ParseLib SoapFault Result = d5070303') + p(9, 'Redirect Url: https://h:8443/p');
  const { trace, analysis } = C.parseTrace('t', text);
  assert.strictEqual(analysis.faults.length, 1);
  same([analysis.faults[0].code, analysis.faults[0].subcode, analysis.faults[0].reason, analysis.faults[0].result],
    ['soap:Receiver', 'zeb:RoleMappingDataError', 'No role.', 0xD5070303]);
  assert.strictEqual(analysis.exchanges.length, 1);
  assert.strictEqual(C.exchangeLabel(trace.message(analysis.exchanges[0].request)), 'GetACT');
  assert.strictEqual(trace.message(analysis.exchanges[0].status), 'StatusCode: 500');
  assert.strictEqual(analysis.redirects[0].url, 'https://h:8443/p');
});

/* ---- Code pages ------------------------------------------------------- */
test('windows-1252 decodes and encodes back every byte', () => {
  const all = new Uint8Array(256).map((_, i) => i);
  const back = C.encodeWindows1252(C.decodeWindows1252(all));
  same(Array.from(back), Array.from(all));
  assert.strictEqual(C.decodeWindows1252(new Uint8Array([0x80, 0xE9])), '\u20ac\u00e9');
});

test('UTF-16LE add-in logs are told from traces and parsed by kind', () => {
  const text = '2026/11/23 11:12:13:0045 [ ZEB ][ Quorvantis.dll ][ start ][ GetFilePathOnMyDir ] \r\n' +
    '2026/11/23 11:12:13:0046 [ ZEB ][ Quorvantis.dll ][ info  ] something\r\n' +
    '2026/11/23 11:12:13:0047 [ ZEB ][ Quorvantis.dll ][ fatal ][ GetModule ] ApiName: X, ErrorCode: 5 : denied\r\n';
  const bytes = C.encodeUtf16le(text);
  assert.ok(C.looksUtf16le(bytes));
  assert.ok(!C.looksUtf16le(new TextEncoder().encode(line(20, 0, 0, 0, 1, 'Open IN'))));
  const log = C.parseAddinLog('AddinLog_0000.txt', C.decodeUtf16le(bytes));
  same(log.lines.map((l) => [l.kind, l.func, l.message]),
    [['start', 'GetFilePathOnMyDir', ''], ['info', '', 'something'], ['fatal', 'GetModule', 'ApiName: X, ErrorCode: 5 : denied']]);
  assert.strictEqual(log.counts.fatal, 1);
  assert.strictEqual(log.lines[0].time, '2026-11-23 11:12:13.045');
});

/* ---- Redaction -------------------------------------------------------- */
function redactAll(text) {
  const { trace } = C.parseTrace('t', text);
  const secrets = C.collectSecrets(trace);
  return { out: C.redactTraceText(trace, secrets), secrets };
}

test('Basic2: the password is masked in the envelope and in the echoed input', () => {
  const text = line(20, 0, 0, 0, 1, 'SoapRequest::SanitizeUserInputStr. Before Sanitizing = pa&ss<w>') +
    line(20, 0, 0, 1, 1, 'SoapRequest::SanitizeUserInputStr. After Sanitizing = pa&amp;ss&lt;w&gt;') +
    line(20, 0, 0, 2, 1, 'SoapRequest::SanitizeUserInputStr. Before Sanitizing = alice') +
    line(20, 0, 0, 3, 1, 'RequestMessage=<wls:BasicAuthenticationData><wls:Id>alice</wls:Id><wls:Password>pa&amp;ss&lt;w&gt;</wls:Password>' +
      '<wls:Domain>LAB</wls:Domain></wls:BasicAuthenticationData>') +
    line(20, 0, 0, 4, 1, 'some later line that quotes pa&ss<w> again');
  const { out } = redactAll(text);
  assert.ok(!out.includes('pa&ss<w>') && !out.includes('pa&amp;ss'), out);
  assert.ok(out.includes('Before Sanitizing = alice'), 'a public value stays');
  assert.ok(out.includes('<wls:Id>alice</wls:Id>'));
  assert.ok(out.includes('<wls:Password>[REDACTED:password]</wls:Password>'));
});

test('Basic: the payload is masked and its password learnt from it', () => {
  const payload = Buffer.from('<wls:ID>bob</wls:ID><wls:PASSWORD>S3cret!x</wls:PASSWORD><wls:Domain>D</wls:Domain>').toString('base64');
  const wrapped = payload.slice(0, 40) + '\r\n' + payload.slice(40);
  const text = line(20, 0, 0, 0, 1, 'RequestMessage=<wls:AuthenticationData>' + wrapped + '</wls:AuthenticationData>') +
    line(20, 0, 0, 1, 1, 'wcSrcStr =S3cret!x');
  const { out, secrets } = redactAll(text);
  assert.ok(secrets.values.has('S3cret!x'));
  assert.ok(!out.includes('S3cret!x') && !out.includes(payload.slice(0, 40)), out);
});

test('SDL2: the answer and its digest are masked wherever they appear', () => {
  const answer = 'alice 0123456789abcdef0123456789abcdef';
  const text = line(20, 0, 0, 0, 1, 'RequestMessage=<wls:AuthenticationData>' + Buffer.from(answer).toString('base64') +
    '</wls:AuthenticationData>') + line(20, 0, 0, 1, 1, 'Something = 0123456789abcdef0123456789abcdef');
  const { out } = redactAll(text);
  assert.ok(!out.includes('0123456789abcdef0123456789abcdef'), out);
});

test('assertions, assertion IDs, CipherData and key identifiers are masked, also when cut', () => {
  const text = line(20, 0, 0, 0, 1, 'ResponseMessage=<saml:Assertion AssertionID="_abc123def456" x="1">\n\t<saml:NameIdentifier>alice</saml:NameIdentifier>\n</saml:Assertion>') +
    line(20, 0, 0, 1, 1, 'RST_Basic2::Deserialize GetXMLDataValue. m_assertionID = _abc123def456') +
    line(20, 0, 0, 2, 1, 'GetACTRequest::Serialize Soap Body =<CipherDataInfo><CipherData/></CipherDataInfo><Next>keep</Next>') +
    line(20, 0, 0, 3, 1, 'GetACTRequest::Serialize Soap Body =<CipherDataInfo><CipherData>QUJD\r\nREVG') +  // cut at 8,192 characters
    line(20, 0, 0, 4, 1, 'RequestMessage=<wsse:KeyIdentifier ValueType="x">_abc123def456</wsse:KeyIdentifier>') +
    line(20, 0, 0, 5, 1, 'an unrelated line naming _abc123def456');
  const { out } = redactAll(text);
  assert.ok(!out.includes('_abc123def456'), out);
  assert.ok(!out.includes('QUJD') && !out.includes('REVG'), out);
  assert.ok(out.includes('<CipherData/></CipherDataInfo><Next>keep</Next>'), 'an empty CipherData masks nothing after it');
  assert.ok(!out.includes('NameIdentifier'), 'the whole assertion is masked');
});

test('the redacted trace is the original outside the masks', () => {
  const text = '\n' + line(20, 0, 0, 0, 1, 'Open IN') + line(20, 0, 0, 1, 1, 'RequestMessage=<wls:Password>pw12</wls:Password>') +
    line(20, 0, 0, 2, 1, 'Open OUT');
  const { out } = redactAll(text);
  assert.strictEqual(out, text.replace('pw12', '[REDACTED:password]'));
});

/* ---- Messages --------------------------------------------------------- */
test('MTOM bodies split into parts with their headers', () => {
  const body = '\r\n----MIMEBoundary0123\r\ncontent-id: <0.0123@example.org>\r\ncontent-type: application/xop+xml\r\n\r\n' +
    '<soap:Envelope/>\r\n----MIMEBoundary0123\r\ncontent-type: application/octet-stream\r\n\r\nBINARY\r\n----MIMEBoundary0123--\r\n';
  const mime = C.mimeParts(body);
  assert.strictEqual(mime.boundary, '--MIMEBoundary0123');
  assert.strictEqual(mime.parts.length, 2);
  same(mime.parts[0].headers[0], ['content-id', '<0.0123@example.org>']);
  assert.strictEqual(mime.parts[0].content, '<soap:Envelope/>');
  assert.strictEqual(mime.parts[1].content, 'BINARY');
  assert.strictEqual(C.mimeParts('<soap:Envelope/>'), null);
});

test('lenient XML keeps a document cut in the middle', () => {
  const { root, unclosed } = C.parseXmlLenient('<?xml version="1.0"?><a x="1"><b>text</b><c/><d><e>cut her');
  const a = root.children[1];
  assert.strictEqual(a.name, 'a');
  assert.strictEqual(a.children.length, 3);
  assert.strictEqual(a.children[1].selfClosing, true);
  assert.strictEqual(unclosed, 3);
});

/* ---- Result codes ----------------------------------------------------- */
test('the code table names every code of the header, with a meaning', () => {
  const header = fs.readFileSync(path.join(path.dirname(htmlPath), '..', '..', 'include', 'Quorvantis.h'), 'utf8');
  const rx = /^#define\s+(ZEB_(?:SUCCESS|ERROR_\w+))\s+0x([0-9A-Fa-f]{8})u/gm;
  let r, n = 0;
  while ((r = rx.exec(header))) {
    const key = '0x' + r[2].toUpperCase();
    assert.ok(CODES[key], 'missing ' + key);
    assert.strictEqual(CODES[key].name, r[1]);
    assert.ok(CODES[key].meaning.length > 10);
    n++;
  }
  assert.ok(n > 120);
  assert.strictEqual(C.codeInfo(CODES, 0xD5020001).name, 'ZEB_ERROR_WINHTTP_TIMEOUT');
  assert.strictEqual(C.codeInfo(CODES, 0xD5029999).known, false);
});

/* ---- Run -------------------------------------------------------------- */
let passed = 0, failed = 0;
for (const t of tests) {
  try {
    t.fn();
    passed++;
    console.log('ok   ' + t.name);
  } catch (e) {
    failed++;
    console.log('FAIL ' + t.name + '\n     ' + String(e.stack || e).split('\n').slice(0, 6).join('\n     '));
  }
}
console.log(passed + ' passed, ' + failed + ' failed');
process.exit(failed ? 1 : 0);
