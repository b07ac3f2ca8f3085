#!/usr/bin/env python3
"""Synthetic big traces for the trace viewer's benchmark, made of real ones.

    make_big_trace.py --traces DIR --size-mb 50 --out FILE [--threads 8] [--seed 1]

Takes the real traces in DIR (the *.log files tests/traceview/scenarios.py
writes: whole GetPolicy/Authentication/GetACT rounds of the real add-in) and
repeats their rounds on several host threads at once until FILE has the size
asked for: each repeat gets the thread's id and times shifted so that it
follows the thread's previous round, and the threads' lines are merged in time
order, as the add-in would have written them. The trace starts at 23:59:40 UTC
(H32:59:40), so it crosses midnight (H32 -> H09) as a real one may.
Assertion IDs are renumbered per round, so that no two rounds share one.
"""
import argparse
import glob
import heapq
import os
import random
import re

HEADER = re.compile(rb"^ Time\(H(\d+):M(\d+):S(\d+):\s*(\d+)\), Thread\((\d+)\), ")
ASSERTION_ID = re.compile(rb"_[0-9a-f]{32}")
DAY_MS = 86400000


def entries_of(path):
    """[(time ms, thread, text after the thread field)] of one real trace."""
    data = open(path, "rb").read()
    out = []
    for chunk in data.split(b"\n Time(")[1:]:
        chunk = b" Time(" + chunk
        m = HEADER.match(chunk)
        if not m:
            continue
        h, mi, s, ms = (int(g) for g in m.groups()[:4])
        t = (((h - 9) % 24) * 60 + mi) * 60000 + s * 1000 + ms
        out.append((t, int(m.group(5)), chunk[m.end():]))
    return out


def rounds_of(path):
    """The trace's entries split per thread, each a list of (offset ms, text)."""
    entries = entries_of(path)
    if not entries:
        return []
    threads = {}
    for t, tid, rest in entries:
        threads.setdefault(tid, []).append((t, rest))
    out = []
    for items in threads.values():
        base = items[0][0]
        # A trace that crossed midnight has times that go back by a day.
        fixed, last = [], base
        for t, rest in items:
            while t < last - DAY_MS // 2:
                t += DAY_MS
            fixed.append((t - base, rest))
            last = t
        if len(fixed) >= 20:
            out.append(fixed)
    return out


def header(t, tid):
    hour_utc, rest = divmod(t % DAY_MS, 3600000)
    minute, rest = divmod(rest, 60000)
    second, ms = divmod(rest, 1000)
    return b"\n Time(H%02d:M%02d:S%02d:%2d), Thread(%d), " % (hour_utc + 9, minute, second, ms, tid)


def thread_stream(templates, tid, start, rng, counter):
    """Rounds on one thread, back to back, for ever (the caller stops)."""
    t = start
    while True:
        rnd = rng.choice(templates)
        ids = {}

        def renumber(m):
            if m.group(0) not in ids:
                counter[0] += 1
                ids[m.group(0)] = b"_%032x" % counter[0]
            return ids[m.group(0)]

        for offset, rest in rnd:
            yield t + offset, tid, ASSERTION_ID.sub(renumber, rest)
        t += rnd[-1][0] + rng.randint(5, 40)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--traces", required=True)
    p.add_argument("--size-mb", type=float, required=True)
    p.add_argument("--out", required=True)
    p.add_argument("--threads", type=int, default=8)
    p.add_argument("--seed", type=int, default=1)
    args = p.parse_args(argv)
    rng = random.Random(args.seed)
    templates = []
    for path in sorted(glob.glob(os.path.join(args.traces, "*.log"))):
        templates.extend(rounds_of(path))
    if not templates:
        raise SystemExit("no real traces in " + args.traces)
    start = ((23 * 60 + 59) * 60 + 40) * 1000
    counter = [0]
    streams = [thread_stream(templates, 2000 + 4 * i, start + i * 7, random.Random(rng.random()), counter)
               for i in range(args.threads)]
    target = int(args.size_mb * 1024 * 1024)
    written = 0
    lines = 0
    with open(args.out + ".tmp", "wb") as f:
        for t, tid, rest in heapq.merge(*streams, key=lambda e: e[0]):
            piece = header(t, tid) + rest
            f.write(piece)
            written += len(piece)
            lines += 1
            if written >= target:
                break
    os.replace(args.out + ".tmp", args.out)
    print("%s: %.1f MB, %d entries, %d threads, %d real rounds as templates" % (
        args.out, written / 1048576, lines, args.threads, len(templates)))


if __name__ == "__main__":
    main()
