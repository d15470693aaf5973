#!/usr/bin/env python3
"""Runs a session with --report and --trace, opens the page in a real browser
(headless chromium) and compares what the browser drew, as the page counted
it in the data attributes of its hidden #drawn element, with the session's
trace and its closing report: bars of controllers, scenarios, enabled spans,
perf locks and flushes, what was left held, the WARN, ERROR, refusal and exit
marks, the budget's steps, the file and log rows. The page must stand alone
and show no debugging text.
Usage: check_report.py QRNCAM_SESSION"""
import html
import json
import os
import re
import subprocess
import sys
import tempfile


def fail(msg):
    print("check_report: " + msg)
    sys.exit(1)


def chromium(args, tmp):
    """Runs headless chromium with a profile of its own and no network."""
    return subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                           "--no-first-run", "--disable-background-networking", "--disable-component-update",
                           "--disable-sync", "--user-data-dir=" + os.path.join(tmp, "profile")] + args,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=180)


def main():
    session = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp:
        page, trace = os.path.join(tmp, "r.html"), os.path.join(tmp, "t.json")
        run = subprocess.run([session, "--frames", "12", "--frame-size", "1M", "--frames-per-file", "4",
                              "--budget", "6M", "--quiet-log", "--report", page, "--trace", trace],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            fail("the session failed:\n" + run.stdout)
        text = open(page).read()
        if re.search(r"(src|href)\s*=\s*[\"']?(https?:)?//", text):
            fail("the page refers to something outside itself")
        events = json.load(open(trace))["traceEvents"]
        dom = chromium(["--dump-dom", "file://" + page], tmp).stdout
    found = re.search(r'<div id="drawn" hidden=""([^>]*)>', dom)
    if not found:
        fail("the page's script drew nothing (no counts in the rendered page)")
    drawn = {k: int(v) for k, v in re.findall(r'data-([a-z-]+)="(\d+)"', found.group(1))}
    visible = re.sub(r"<script.*?</script>", "", dom, flags=re.S)
    if re.search(r'\{"[a-zA-Z]+":', html.unescape(re.sub(r"<[^>]+>", " ", visible))):
        fail("the page shows debugging text (JSON) to the reader")

    def count(pred):
        return sum(1 for e in events if pred(e))

    def left(e):
        return e["ph"] == "e" and any(k in e.get("args", {}) for k in
                                      ("left registered", "left enabled", "left held", "users left"))
    verified = re.search(r"files verified:\s+(\d+) of (\d+), byte for byte, after the session exited with (\d+)",
                         run.stdout)
    refused = int(re.search(r"\((\d+) frames refused by the budget\)", run.stdout).group(1))
    power = [e for e in events if e["ph"] == "b" and e["cat"] == "power"]
    want = {
        "controller": count(lambda e: e["ph"] == "b" and e["cat"] == "controller"),
        "scenario": sum(1 for e in power if e["name"].startswith("scenario")),
        "enabled": sum(1 for e in power if not e["name"].startswith("scenario")),
        "lock": count(lambda e: e["ph"] == "b" and e["cat"] == "perf"),
        "flush": count(lambda e: e["ph"] == "X"),
        "left": count(left),
        "warn-marks": count(lambda e: e["ph"] == "i" and e["cat"] == "log" and e["args"]["level"] == "W"),
        "error-marks": count(lambda e: e["ph"] == "i" and e["cat"] == "log" and e["args"]["level"] in "EF"),
        "refused-marks": refused + count(lambda e: e["ph"] == "i" and e["cat"] == "perf"),
        "exit-marks": count(lambda e: e["ph"] == "i" and e["cat"] == "session" and e["name"].startswith("exit")),
        "budget-steps": count(lambda e: e["ph"] == "C"),
        "file-rows": int(verified.group(2)),
        "verified-rows": int(verified.group(1)),
        "log-rows": count(lambda e: e["ph"] == "i" and e["cat"] == "log"),
    }
    for key, value in want.items():
        if drawn.get(key) != value:
            fail("%s: the browser drew %s, the session had %s" % (key, drawn.get(key), value))
        print("ok: %s %d" % (key, value))
    pending = int(verified.group(3))
    exit_text = re.search(r"exit: (\d+) dumps? still pending", html.unescape(dom))
    if not exit_text or int(exit_text.group(1)) != pending:
        fail("the exit mark does not say the %d dumps the closing report counts as pending" % pending)
    summary = re.search(r'<div id="summary">(.*?)</div>', dom).group(1)
    left_line = re.search(r"(\d+) left held \((\d+) unintended\)", re.sub(r"<[^>]+>", "", summary))
    scenarios_left = int(re.search(r"scenarios left registered: (\d+)", run.stdout).group(1))
    if not left_line or int(left_line.group(1)) != want["left"] or scenarios_left != want["left"]:
        fail("the summary line does not count what was left held: %s" % summary)
    if want["scenario"] < 2 or want["flush"] < 1 or want["budget-steps"] < 2 or refused < 1 or want["left"] < 1:
        fail("the session was too small to show anything: %s" % want)
    print("ok: the exit mark (%d pending) and the summary line" % pending)


if __name__ == "__main__":
    main()
