#!/usr/bin/env python3
"""Benchmark of the trace viewer: load time of big traces in headless Chromium.

    run_bench.py [--build build] [--sizes 5,50,200] [--rounds 2]

Makes synthetic traces of each size from the real traces in
<build>/traceview/traces (tests/traceview/scenarios.py writes them; run
`ctest -R traceview.traces` first), opens tools/traceview/traceview.html in
Debian's headless Chromium, gives it each trace through its file picker and
prints, for the best of --rounds loads: the page's load time (file picked to
summary drawn), lines per second, and the floor measured in the same browser
and run: reading the same file as text (File.text()), so the figure is also a
ratio. It also prints the time to write the redacted copy. Not a test: it
prints figures and asserts nothing.
"""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(ROOT, "tests", "traceview"))
from browser import Browser  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

# Runs in the page: the floor, reading the picked file as text.
FLOOR_JS = """
const done = arguments[arguments.length - 1];
const file = document.getElementById('file-input').files[0];
const t0 = performance.now();
file.text().then((text) => done({ms: performance.now() - t0, chars: text.length}));
"""

REDACT_JS = """
const a = TraceView.app, C = TraceView.core;
const t0 = performance.now();
const text = C.redactTraceText(a.trace, a.secrets);
const bytes = C.encodeWindows1252(text);
return {ms: performance.now() - t0, bytes: bytes.length};
"""


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", default=os.path.join(ROOT, "build"))
    p.add_argument("--sizes", default="5,50,200")
    p.add_argument("--rounds", type=int, default=2)
    args = p.parse_args()
    traces = os.path.join(args.build, "traceview", "traces")
    out = os.path.join(args.build, "traceview", "bench")
    os.makedirs(out, exist_ok=True)
    if not [f for f in os.listdir(traces) if f.endswith(".log")] if os.path.isdir(traces) else True:
        sys.exit("no real traces in %s: run `ctest -R traceview.traces` in the build first" % traces)
    files = []
    for size in args.sizes.split(","):
        path = os.path.join(out, "trace-%sMB.log" % size)
        if not os.path.exists(path) or os.path.getsize(path) < float(size) * 1024 * 1024 * 0.99:
            subprocess.run([sys.executable, os.path.join(HERE, "make_big_trace.py"), "--traces", traces,
                            "--size-mb", size, "--out", path], check=True)
        files.append((size, path))

    url = "file://" + os.path.join(ROOT, "tools", "traceview", "traceview.html")
    print("trace viewer load, headless Chromium (%s), best of %d; floor = File.text() of the same file" % (
        Browser.version() if hasattr(Browser, "version") else "Debian chromium", args.rounds))
    print("%-8s %10s %10s %10s %12s %10s %8s %10s" % ("size", "entries", "load", "floor", "lines/s", "x floor",
                                                     "parse", "redact"))
    with Browser() as b:
        d = b.driver
        for size, path in files:
            best = None
            for _ in range(args.rounds):
                d.get(url)
                d.find_element(By.ID, "file-input").send_keys(path)
                end = time.time() + 300
                while time.time() < end and not d.execute_script("return !!TraceView.app.lastLoad"):
                    time.sleep(0.05)
                load = d.execute_script("return TraceView.app.lastLoad")
                floor = d.execute_async_script(FLOOR_JS)
                if best is None or load["totalMs"] < best[0]["totalMs"]:
                    best = (load, floor)
            load, floor = best
            end = time.time() + 300
            while time.time() < end and not d.execute_script("return TraceView.app.secretsReady"):
                time.sleep(0.05)
            redact = d.execute_script(REDACT_JS)
            print("%-8s %10d %8.2f s %8.2f s %12.0f %9.1fx %6.2f s %8.2f s" % (
                size + " MB", load["entries"], load["totalMs"] / 1000, floor["ms"] / 1000,
                load["entries"] / (load["totalMs"] / 1000), load["totalMs"] / max(1, floor["ms"]),
                load["parseMs"] / 1000, redact["ms"] / 1000))
            sys.stdout.flush()


if __name__ == "__main__":
    main()
