#!/usr/bin/env python3
"""Runs a session with --report and --trace, opens the page in a real browser
(headless chromium) and compares what the browser drew, as the page's own
script counted it from its SVG and table, with the session's trace and its
closing report. Usage: check_report.py QRNCAM_SESSION"""
import json
import os
import re
import subprocess
import sys
import tempfile


def fail(msg):
    print("check_report: " + msg)
    sys.exit(1)


def main():
    session = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp:
        page, trace = os.path.join(tmp, "r.html"), os.path.join(tmp, "t.json")
        run = subprocess.run([session, "--frames", "12", "--frame-size", "1M", "--frames-per-file", "4",
                              "--budget", "6M", "--quiet-log", "--report", page, "--trace", trace],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            fail("the session failed:\n" + run.stdout)
        if re.search(r"(src|href)\s*=\s*[\"']?(https?:)?//", open(page).read()):
            fail("the page refers to something outside itself")
        events = json.load(open(trace))["traceEvents"]
        # A profile of its own, no network: the page must stand alone.
        browser = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                                  "--user-data-dir=" + os.path.join(tmp, "profile"), "--dump-dom",
                                  "file://" + page],
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=120)
    found = re.search(r'<pre id="rendered">([^<]*)</pre>', browser.stdout)
    if not found or not found.group(1):
        fail("the page's script drew nothing (no counts in the rendered page)")
    drawn = json.loads(found.group(1))
    verified = re.search(r"files verified:\s+(\d+) of (\d+)", run.stdout)
    want = {
        "scenarios": sum(1 for e in events if e["ph"] == "b" and e["cat"] == "power" and e["name"] == e["id"]),
        "enabled": sum(1 for e in events if e["ph"] == "b" and e["cat"] == "power" and e["name"] != e["id"]),
        "locks": sum(1 for e in events if e["ph"] == "b" and e["cat"] == "perf"),
        "flushes": sum(1 for e in events if e["ph"] == "X"),
        "budgetSteps": sum(1 for e in events if e["ph"] == "C"),
        "fileRows": int(verified.group(2)),
        "verifiedRows": int(verified.group(1)),
    }
    for key, value in want.items():
        if drawn.get(key) != value:
            fail("%s: the browser drew %s, the session had %s" % (key, drawn.get(key), value))
        print("ok: %s %d" % (key, value))
    if want["scenarios"] < 2 or want["flushes"] < 1 or want["budgetSteps"] < 2:
        fail("the session was too small to show anything: %s" % want)


main()
