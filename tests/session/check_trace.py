#!/usr/bin/env python3
"""Runs a small session with --trace and checks the file as every trace
viewer needs it: valid JSON; each E naming the section its B began, with the
same category, and sections nesting on each thread; every async slice ended
with the name it began with; every process (the supervisor too) and every
thread that has events named; the budget counter; the flushes on the dump
worker's thread with every accepted byte; the power-service codes named.
Usage: check_trace.py QRNCAM_SESSION"""
import json
import os
import re
import subprocess
import sys
import tempfile
from collections import defaultdict


def fail(msg):
    print("check_trace: " + msg)
    sys.exit(1)


def check(events):
    """Returns a list of problems with the events, [] when none."""
    problems = []
    process_names, thread_names = {}, {}
    stacks = defaultdict(list)  # (pid, tid): open sections
    asyncs = defaultdict(list)  # (cat, id): open slices
    used_threads, used_pids = set(), set()
    for e in events:
        ph, key = e["ph"], (e.get("pid"), e.get("tid"))
        if ph == "M":
            (process_names if e["name"] == "process_name" else thread_names)[
                e["pid"] if e["name"] == "process_name" else key] = e["args"]["name"]
            continue
        used_pids.add(e["pid"])
        if ph in "BEXi" and not (ph == "i" and e.get("s") in ("p", "g")):
            used_threads.add(key)
        if ph == "B":
            stacks[key].append(e)
        elif ph == "E":
            if not stacks[key]:
                problems.append("an end without a begin on thread %s: %s" % (key, e))
                continue
            b = stacks[key].pop()
            if e.get("name") != b["name"] or e.get("cat") != b.get("cat"):
                problems.append("end %s does not name its begin %s" % (e, b))
            if e["ts"] < b["ts"]:
                problems.append("section %s ends before it begins" % b["name"])
        elif ph == "b":
            asyncs[(e["cat"], e["id"])].append(e)
        elif ph == "e":
            opened = asyncs[(e["cat"], e["id"])]
            if not opened or opened[-1]["name"] != e["name"] or opened[-1]["ts"] > e["ts"]:
                problems.append("async end %s does not close the last slice begun in %s" % (e, e["id"]))
            elif opened:
                opened.pop()
    problems += ["sections never ended on %s: %s" % (k, [b["name"] for b in v]) for k, v in stacks.items() if v]
    problems += ["async slices never ended in %s" % (k,) for k, v in asyncs.items() if v]
    problems += ["process %s has no name" % p for p in used_pids if p not in process_names]
    problems += ["thread %s has events but no name" % (t,) for t in used_threads if t not in thread_names]
    return problems, process_names, thread_names


def main():
    session = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "t.json")
        with open(path, "w") as f:
            f.write("left from an earlier run")  # replaced, not appended to
        run = subprocess.run([session, "--frames", "8", "--frame-size", "256K", "--frames-per-file", "3",
                              "--budget", "1M", "--quiet-log", "--trace", path],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            fail("the session failed:\n" + run.stdout)
        with open(path) as f:
            events = json.load(f)["traceEvents"]

    problems, process_names, thread_names = check(events)
    for p in problems:
        print("check_trace: " + p)
    if problems:
        sys.exit(1)

    def count(pred):
        return sum(1 for e in events if pred(e))

    worker = [k for k, n in thread_names.items() if n == "FileCache worker"]
    flushes = [e for e in events if e["ph"] == "X"]
    refused = int(re.search(r"\((\d+) frames refused by the budget\)", run.stdout).group(1))
    checks = [
        (len(process_names) == 2 and any("supervisor" in n for n in process_names.values()),
         "processes named, the supervisor too: %s" % sorted(process_names.values())),
        (count(lambda e: e["ph"] == "B") >= 10, "library sections: %d" % count(lambda e: e["ph"] == "B")),
        (count(lambda e: e["ph"] == "b" and e["cat"] == "power" and e["name"].startswith("scenario")) >= 2,
         "power scenarios"),
        (count(lambda e: e["ph"] == "b" and e["cat"] == "perf") >= 1, "perf locks"),
        (count(lambda e: e["ph"] == "b" and e["cat"] == "controller") == 2, "controller objects"),
        (count(lambda e: e["ph"] == "i" and e["cat"] == "log") >= 10, "log lines"),
        (count(lambda e: e["ph"] == "C") >= 2, "budget samples"),
        (count(lambda e: e["ph"] == "i" and "CMD_SET_CPU_FREQ_BIG_LITTLE_MIN" in e["name"]) >= 1,
         "configScenario calls named CMD_SET_CPU_FREQ_BIG_LITTLE_MIN"),
        (len(worker) == 1 and len(flushes) >= 1 and all((f["pid"], f["tid"]) == worker[0] for f in flushes),
         "flushes on the worker's thread: %d" % len(flushes)),
        (sum(f["args"]["bytes"] for f in flushes) == (8 - refused) * 256 * 1024,
         "bytes flushed: every frame the budget accepted (%d refused)" % refused),
        (refused > 0 and count(lambda e: e["ph"] == "i" and e["cat"] == "dump") == refused,
         "refused frames marked where they happened"),
        (count(lambda e: e["ph"] == "i" and e["cat"] == "session" and e["name"].startswith("exit")) == 1,
         "the process exit marked"),
    ]
    for ok, what in checks:
        if not ok:
            fail(what)
        print("ok: " + what)


if __name__ == "__main__":
    main()
