#!/usr/bin/env python3
"""Runs a small session with --trace and checks the file as a trace viewer
reads it: valid JSON, sections that nest on each thread, every async slice
ended, named threads, the budget counter, the flushes on the dump worker's
thread and the power-service codes named.
Usage: check_trace.py QRNCAM_SESSION"""
import json
import os
import subprocess
import sys
import tempfile
from collections import defaultdict


def fail(msg):
    print("check_trace: " + msg)
    sys.exit(1)


def main():
    session = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "t.json")
        with open(path, "w") as f:
            f.write("left from an earlier run")  # replaced, not appended to
        args = [session, "--frames", "8", "--frame-size", "256K", "--frames-per-file", "3", "--quiet-log",
                "--trace", path]
        run = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            fail("the session failed:\n" + run.stdout)
        with open(path) as f:
            events = json.load(f)["traceEvents"]

    names = {}
    stacks = defaultdict(list)  # (pid, tid): open sections
    asyncs = defaultdict(list)  # (cat, id): open slices
    last_ts = defaultdict(int)
    for e in events:
        ph, key = e["ph"], (e.get("pid"), e.get("tid"))
        if ph == "M":
            names[key] = e["args"]["name"]
        elif ph in "BE":
            if e["ts"] < last_ts[key]:
                fail("time goes back on thread %s at %s" % (key, e))
            last_ts[key] = e["ts"]
            if ph == "B":
                stacks[key].append(e["name"])
            elif not stacks[key]:
                fail("an end without a begin on thread %s" % (key,))
            else:
                stacks[key].pop()
        elif ph == "b":
            asyncs[(e["cat"], e["id"])].append((e["name"], e["ts"]))
        elif ph == "e":
            opened = asyncs[(e["cat"], e["id"])]
            if not opened or opened[-1][0] != e["name"] or opened[-1][1] > e["ts"]:
                fail("async end %s does not close the last slice begun in %s: %s" % (e, e["id"], opened))
            opened.pop()
    left = {k: v for k, v in stacks.items() if v}
    if left:
        fail("sections never ended: %s" % left)
    left = {k: v for k, v in asyncs.items() if v}
    if left:
        fail("async slices never ended: %s" % left)
    for key in stacks:
        if key not in names:
            fail("thread %s has sections but no name" % (key,))

    def count(pred):
        return sum(1 for e in events if pred(e))

    sections = count(lambda e: e["ph"] == "B")
    scenarios = count(lambda e: e["ph"] == "b" and e["cat"] == "power" and e["name"].startswith("scenario"))
    locks = count(lambda e: e["ph"] == "b" and e["cat"] == "perf")
    logs = count(lambda e: e["ph"] == "i" and e["cat"] == "log")
    counters = count(lambda e: e["ph"] == "C")
    worker = [k for k, n in names.items() if n == "FileCache worker"]
    flushes = [e for e in events if e["ph"] == "X"]
    named = count(lambda e: e["ph"] == "i" and "CMD_SET_CPU_FREQ_BIG_LITTLE_MIN" in e["name"])
    checks = [
        (sections >= 10, "library sections: %d" % sections),
        (scenarios >= 2, "power scenarios: %d" % scenarios),
        (locks >= 1, "perf locks: %d" % locks),
        (logs >= 10, "log lines: %d" % logs),
        (counters >= 2, "budget samples: %d" % counters),
        (named >= 1, "configScenario calls named CMD_SET_CPU_FREQ_BIG_LITTLE_MIN: %d" % named),
        (len(worker) == 1 and len(flushes) >= 1 and all((f["pid"], f["tid"]) == worker[0] for f in flushes),
         "flushes on the worker's thread: %d" % len(flushes)),
        (sum(f["args"]["bytes"] for f in flushes) == 8 * 256 * 1024, "bytes flushed"),
    ]
    for ok, what in checks:
        if not ok:
            fail(what)
        print("ok: " + what)


main()
