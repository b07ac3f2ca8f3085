#!/usr/bin/env python3
"""The trace viewer in headless Chromium, on traces of the real DLL.

    test_viewer.py --html tools/traceview/traceview.html --traces DIR --artefacts DIR

DIR holds the traces tests/traceview/scenarios.py wrote (CTest's fixture
traceview.traces): NAME.log as the add-in wrote it and NAME.json with what
the server saw (results, secrets). Each test opens the page from file://,
gives it a trace through the file picker, as a user does, and checks what
the page shows. Screenshots go to ARTEFACTS/screenshots, redacted copies to
ARTEFACTS/downloads.
"""
import argparse
import base64
import json
import os
import re
import shutil
import sys
import time
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from browser import Browser  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

ARGS = None
ENTRY = re.compile(rb"\n Time\(H(\d+):M(\d+):S(\d+):\s*(\d+)\), Thread\((\d+)\), FILE\([^)]*\), LINE\([^)]*\) : ")
ENTRY_CALLS = ("Initialize", "Open", "GetPolicy", "Authentication", "GetACT", "Close", "BufferFree")


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


# ---------------------------------------------------------------------------
# An independent reading of a trace, to hold the page's figures against.
def raw_entries(data):
    """[(ms since the first day's 00:00 UTC, thread, message)] of a trace."""
    out, day, last = [], 0, None
    matches = list(ENTRY.finditer(data))
    for k, m in enumerate(matches):
        h, mi, s, ms, tid = (int(g) for g in m.groups())
        t = (((h - 9) % 24) * 60 + mi) * 60000 + s * 1000 + ms + day
        if last is not None and t < last - 43200000:
            day += 86400000
            t += 86400000
        last = max(t, last or t)
        end = matches[k + 1].start() if k + 1 < len(matches) else len(data)
        out.append((t, tid, data[m.end():end].decode("cp1252", "replace").rstrip()))
    return out


def entry_call_spans(entries):
    """[(name, thread, IN time, OUT time)] of the entry calls with both lines."""
    open_calls, spans = {}, []
    for t, tid, msg in entries:
        for name in ENTRY_CALLS:
            if msg == name + " IN":
                open_calls[tid] = (name, t)
            elif msg == name + " OUT" and open_calls.get(tid, (None,))[0] == name:
                spans.append((name, tid, open_calls.pop(tid)[1], t))
    return spans


# ---------------------------------------------------------------------------
# Every form a secret could take in a file.
def secret_forms(secret):
    raws = []
    if "text" in secret:
        text = secret["text"]
        raws.append(text.encode("utf-8"))
        raws.append(text.encode("cp1252", "replace"))
        for esc_text in (text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;"), urllib.parse.quote(text)):
            raws.append(esc_text.encode("utf-8"))
        utf16 = text.encode("utf-16-le")
    else:
        utf16 = None
        raws.append(base64.b64decode(secret["b64"]))
    forms = set()
    for raw in raws:
        forms.add(raw)
        forms.add(raw.hex().encode())
        forms.add(raw.hex().upper().encode())
        forms.add(base64.b64encode(raw).rstrip(b"="))
        # Base64 of the secret inside a longer text, at each of its three
        # alignments: the characters that depend on the secret's bytes only.
        for pad in (1, 2):
            enc = base64.b64encode(b"\0" * pad + raw)
            forms.add(enc[4:-4])
    if utf16:
        forms.add(utf16)
        forms.add(base64.b64encode(utf16).rstrip(b"="))
    return {f for f in forms if len(f) >= 6}


def leaks(data, secrets):
    """The secrets (kind and form) found in data, as it is and without any white space."""
    compact = re.sub(rb"\s+", b"", data)
    found = []
    for s in secrets:
        for form in secret_forms(s):
            if form in data or form in compact:
                found.append("%s (%r...)" % (s["kind"], form[:24]))
    return found


# ---------------------------------------------------------------------------
class ViewerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.artefacts = os.path.abspath(ARGS.artefacts)
        cls.shots = os.path.join(cls.artefacts, "screenshots")
        cls.downloads = os.path.join(cls.artefacts, "downloads")
        os.makedirs(cls.shots, exist_ok=True)
        shutil.rmtree(cls.downloads, ignore_errors=True)
        os.makedirs(cls.downloads)
        cls.browser = Browser(download_dir=cls.downloads)
        cls.d = cls.browser.driver
        cls.url = "file://" + os.path.abspath(ARGS.html)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    # helpers ---------------------------------------------------------------
    def load(self, name):
        """Opens the page afresh and gives it the scenario's trace; its JSON."""
        path = os.path.join(ARGS.traces, name + ".log")
        self.d.get(self.url)
        self.d.find_element(By.ID, "file-input").send_keys(os.path.abspath(path))
        self.wait(lambda: self.js("return !!(TraceView.app.lastLoad)"), "the trace to load")
        self.data = read_bytes(path)
        with open(os.path.join(ARGS.traces, name + ".json")) as f:
            return json.load(f)

    def wait(self, condition, what, seconds=60):
        end = time.time() + seconds
        while time.time() < end:
            if condition():
                return
            time.sleep(0.05)
        self.fail("timed out waiting for " + what)

    def js(self, script, *args):
        return self.d.execute_script(script, *args)

    def text(self, element_id):
        return self.d.find_element(By.ID, element_id).text

    def call_row(self, name):
        row = self.d.find_element(By.CSS_SELECTOR, '#calls-table tr[data-name="%s"]' % name)
        return (int(row.find_element(By.CLASS_NAME, "c-calls").text), int(row.find_element(By.CLASS_NAME, "c-failed").text))

    def calls(self):
        return self.js("return TraceView.app.analysis.calls.map(c => ({id: c.id, name: c.name, thread: c.thread, "
                       "status: c.status, code: c.code, duration: c.duration, start: c.startTime}))")

    def click_bar(self, call_id):
        """Clicks a call's bar on the timeline, where a user would."""
        self.d.find_element(By.CSS_SELECTOR, 'nav button[data-tab="timeline"]').click()
        pos = self.js("return TraceView.timeline.barCenter(arguments[0])", call_id)
        canvas = self.d.find_element(By.ID, "timeline")
        size = canvas.size
        ActionChains(self.d).move_to_element_with_offset(
            canvas, int(pos["x"] - size["width"] / 2), int(pos["y"] - size["height"] / 2)).click().perform()
        self.wait(lambda: self.d.find_element(By.ID, "detail").is_displayed(), "the call detail")

    def assert_durations_match_trace(self):
        """Every call with IN and OUT lasts, in the page, what its lines say."""
        expected = sorted((n, tid, round(t1 - t0)) for n, tid, t0, t1 in entry_call_spans(raw_entries(self.data)))
        shown = sorted((c["name"], c["thread"], round(c["duration"])) for c in self.calls() if c["status"] == "ok"
                       and self.js("return TraceView.app.analysis.calls[arguments[0]].hasIn", c["id"]))
        self.assertEqual(shown, expected)

    # successes -------------------------------------------------------------
    def test_success_with_every_mechanism(self):
        for name in ("ok-basic2", "ok-basic", "ok-sdl", "ok-sdl2", "ok-ntlm"):
            with self.subTest(name):
                info = self.load(name)
                self.assertEqual(self.text("no-failures"), "No entry call failed.")
                self.assertEqual(self.call_row("GetACT"), (2, 0))
                self.assertEqual(self.call_row("Authentication"), (1, 0))
                self.assertEqual(self.call_row("GetPolicy"), (1, 0))
                self.assertEqual(self.text("nw-keyx").split()[0], "1")
                self.assert_durations_match_trace()
                labels = self.js("const a = TraceView.app.analysis; return a.exchanges.map(x => "
                                 "TraceView.core.exchangeLabel(TraceView.app.trace.message(x.request)))")
                legs = 2 if info["mech"] in ("SDL", "SDL2", "NTLM") else 1
                self.assertEqual(labels.count("WS-Trust RST/Issue") + labels.count("WS-Trust RSTR/Issue"), legs)

    # failures --------------------------------------------------------------
    def test_wrong_password(self):
        self.load("wrong-password")
        row = self.d.find_element(By.CSS_SELECTOR, '#failures-table tr[data-code="0xD5070102"]')
        self.assertIn("ZEB_ERROR_FAULT_FAILED_AUTHENTICATION", row.text)
        self.assertIn("the credentials are not correct", row.text)
        link = row.find_element(By.CSS_SELECTOR, "a.code-link")
        self.assertTrue(link.get_attribute("href").endswith("troubleshooting.md#zeb_error_fault_failed_authentication"))
        self.assertEqual(self.call_row("Authentication"), (1, 1))
        self.d.save_screenshot(os.path.join(self.shots, "failed-login-summary.png"))
        failed = [c for c in self.calls() if c["status"] == "failed"]
        self.assertEqual([(c["name"], c["code"]) for c in failed], [("Authentication", 0xD5070102)])
        self.click_bar(failed[0]["id"])
        self.assertEqual(self.text("detail-status"), "failed")
        self.assertIn("ZEB_ERROR_FAULT_FAILED_AUTHENTICATION", self.text("detail-code"))
        tree = self.text("detail-tree")
        self.assertIn("Auth_Basic2::Authentication", tree)
        self.assertIn("no OUT", tree)
        lines = self.text("detail-lines")
        self.assertIn("ParseLib SoapFault Result = d5070102", lines)
        self.d.save_screenshot(os.path.join(self.shots, "failed-login.png"))

    def test_server_fault(self):
        self.load("server-fault")
        faults = self.text("faults-table")
        self.assertIn("soap:Receiver", faults)
        self.assertIn("zeb:RoleMappingDataError", faults)
        self.assertIn("No role is mapped to this user.", faults)
        self.assertIn("ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR", faults)
        self.assertEqual(self.call_row("GetACT"), (1, 1))
        self.assertTrue(self.d.find_elements(By.CSS_SELECTOR, '#failures-table tr[data-code="0xD5070303"]'))

    def test_timeout_with_retries(self):
        info = self.load("timeout")
        self.assertEqual(info["ini"]["RetryCount"], "2")
        self.assertEqual(self.text("nw-retries"), "2")
        self.assertTrue(self.text("nw-timeouts").startswith("3 timed-out attempt(s); 1 call(s) failed"))
        self.assertEqual(self.call_row("GetPolicy"), (1, 1))
        failed = [c for c in self.calls() if c["status"] == "failed"][0]
        self.assertEqual(failed["code"], 0xD5020001)
        # The failed call lasts from its IN line to its thread's last line
        # before the next entry call, as the trace itself says.
        entries = raw_entries(self.data)
        start = next(t for t, tid, m in entries if m == "GetPolicy IN")
        close = next(k for k, e in enumerate(entries) if e[2] == "Close IN")
        end = entries[close - 1][0]
        self.assertAlmostEqual(failed["duration"], end - start, delta=1)
        self.assertGreater(failed["duration"], 3 * 1000 * 0.9)  # three attempts of Timeout=1000 ms
        self.assertIn("ZEB_ERROR_WINHTTP_TIMEOUT", self.text("failures-table"))

    # the paths that recover -------------------------------------------------
    def test_redirect_to_https(self):
        info = self.load("redirect")
        self.assertEqual(self.text("nw-redirects"), "1")
        self.assertIn("https://127.0.0.1:%d/wls/WLSPolicyService.actv" % info["ports"]["https_port"],
                      self.text("redirects-table"))
        self.assertEqual(self.text("no-failures"), "No entry call failed.")
        self.assertIn("302", self.text("nw-status"))

    def test_key_exchange(self):
        self.load("key-exchange")
        self.assertEqual(self.text("nw-keyx").split()[0], "2")
        faults = self.text("faults-table")
        self.assertIn("zeb:GetActErrorRequestHmacKey", faults)
        self.assertTrue(faults.rstrip().endswith("2"))
        self.assertEqual(self.call_row("GetACT"), (2, 0))
        self.assert_durations_match_trace()

    def test_four_threads(self):
        info = self.load("threads4")
        self.assertEqual(info["threads"], 4)
        threads = []
        for _, tid, _ in raw_entries(self.data):
            if tid not in threads:
                threads.append(tid)
        self.assertEqual(self.text("ov-threads"), str(len(threads)))
        self.d.find_element(By.CSS_SELECTOR, 'nav button[data-tab="timeline"]').click()
        lanes = self.js("return TraceView.app.analysis.threadOrder")
        self.assertEqual(lanes, threads)
        # Four host threads ran a whole flow each beside the one that called
        # Initialize. Lines that collide between threads are dropped by the
        # add-in, so a lane may miss a call, never all of them.
        by_thread = {}
        for c in self.calls():
            by_thread.setdefault(c["thread"], []).append(c["name"])
        workers = [t for t, names in by_thread.items() if "Initialize" not in names]
        self.assertEqual(len(workers), 4)
        for t in workers:
            self.assertGreaterEqual(len(by_thread[t]), 2)
        # No exact results or durations here: with lines dropped at random,
        # a call's result and end are only as good as the lines left.
        self.d.save_screenshot(os.path.join(self.shots, "four-threads.png"))

    def test_mtom_parts(self):
        self.load("mtom")
        exchange = self.js("const a = TraceView.app.analysis, t = TraceView.app.trace; return a.exchanges.findIndex("
                           "x => x.request >= 0 && t.message(x.request).indexOf('MIMEBoundary') >= 0)")
        self.assertGreaterEqual(exchange, 0)
        self.js("TraceView.messages.select(arguments[0])", exchange)
        self.assertIn("MTOM", self.text("req-mtom"))
        parts = self.d.find_elements(By.CSS_SELECTOR, "#message-detail .mtom-part")
        self.assertGreaterEqual(len(parts), 1)
        self.assertIn("application/xop+xml", parts[0].text)
        self.assertIn("soap:Envelope", parts[0].text)
        self.d.save_screenshot(os.path.join(self.shots, "mtom-message.png"))

    # redaction --------------------------------------------------------------
    def save_redacted(self, name):
        for f in os.listdir(self.downloads):
            os.remove(os.path.join(self.downloads, f))
        self.d.find_element(By.ID, "save-redacted").click()
        target = os.path.join(self.downloads, name + "-redacted.log")
        self.wait(lambda: os.path.exists(target) and not [f for f in os.listdir(self.downloads)
                                                          if f.endswith(".crdownload")], "the redacted copy")
        time.sleep(0.2)
        return read_bytes(target)

    def test_redacted_copy_holds_no_secret(self):
        for name in ("ok-basic2", "ok-basic", "ok-sdl", "ok-sdl2", "ok-ntlm", "wrong-password", "key-exchange",
                     "redirect", "threads4", "mtom"):
            with self.subTest(name):
                info = self.load(name)
                secrets = info["secrets"]
                kinds = {s["kind"] for s in secrets}
                self.assertIn("password", kinds)
                # The check means something: the original does hold secrets.
                self.assertTrue(leaks(self.data, secrets), "the original trace holds no known secret")
                redacted = self.save_redacted(name)
                self.assertEqual(leaks(redacted, secrets), [])
                self.assertIn(b"[REDACTED:", redacted)
                # Nothing else changed: same entries, same headers.
                self.assertEqual([(t, tid) for t, tid, _ in raw_entries(redacted)],
                                 [(t, tid) for t, tid, _ in raw_entries(self.data)])
                shutil.copy(os.path.join(self.downloads, name + "-redacted.log"),
                            os.path.join(self.artefacts, name + "-redacted.log"))

    def test_view_masks_secrets_until_asked(self):
        info = self.load("ok-basic2")
        password = [s["text"] for s in info["secrets"] if s["kind"] == "password"][0]
        self.wait(lambda: self.js("return TraceView.app.secretsReady"), "the secrets pass")
        self.d.find_element(By.CSS_SELECTOR, 'nav button[data-tab="lines"]').click()
        box = self.d.find_element(By.ID, "lines-filter")
        box.send_keys("Sanitizing")
        self.wait(lambda: "of" in self.text("lines-count") and not self.text("lines-count").startswith(
            self.js("return TraceView.app.trace.count.toLocaleString()")), "the filter")
        shown = self.text("lines-list")
        self.assertIn("[REDACTED:", shown)
        self.assertNotIn(password, shown)
        self.assertIn("Before Sanitizing = alice", shown)
        exchange = self.js("const a = TraceView.app.analysis, t = TraceView.app.trace; return a.exchanges.findIndex("
                           "x => t.message(x.request).indexOf('BasicAuthenticationData') >= 0)")
        self.js("TraceView.messages.select(arguments[0])", exchange)
        page = self.d.find_element(By.TAG_NAME, "body").text
        self.assertNotIn(password, page)
        self.assertNotIn(password.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;"), page)
        # Unmasked on request: the same view now shows it.
        self.d.find_element(By.ID, "mask-toggle").click()
        self.assertIn(password.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;"),
                      self.d.find_element(By.ID, "message-detail").text)


def main():
    global ARGS
    p = argparse.ArgumentParser()
    p.add_argument("--html", required=True)
    p.add_argument("--traces", required=True)
    p.add_argument("--artefacts", required=True)
    ARGS, rest = p.parse_known_args()
    unittest.main(argv=[sys.argv[0], "-v"] + rest)


if __name__ == "__main__":
    main()
