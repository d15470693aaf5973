#!/usr/bin/env python3
"""Loads a session's trace into speedscope, a trace viewer somebody else
wrote: its built page is served on loopback and opened in headless chromium
in its sandwich view, and what it drew is read back from the page: the
threads it made profiles of, with their total weights, and for the session
thread every frame with its total and self time. Both must match what the
trace says, computed here from its B/E pairs: a section drawn as never
ending, or nested under the wrong parent, shows as a wrong total or self.
Usage: check_speedscope.py QRNCAM_SESSION SPEEDSCOPE_DIST_DIR"""
import functools
import html
import http.server
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
from collections import defaultdict

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from check_report import chromium  # noqa: E402


def fail(msg):
    print("check_speedscope: " + msg)
    sys.exit(1)


def micros(text):
    """speedscope's "12.34µs", "1.08ms" or "2.00s", in microseconds."""
    m = re.match(r"([0-9.]+)\s*(µs|ms|s)$", text.strip())
    if not m:
        fail("cannot read the time %r" % text)
    return float(m.group(1)) * {"µs": 1, "ms": 1e3, "s": 1e6}[m.group(2)]


def sandwich(events, key):
    """Total and self time of each frame on one thread, and the thread's
    weight (time with a frame open), from its B/E pairs in file order."""
    total, self_time = defaultdict(float), defaultdict(float)
    stack, last, weight = [], None, 0.0
    for e in events:
        if (e.get("pid"), e.get("tid")) != key or e["ph"] not in "BE":
            continue
        if stack and last is not None:
            span = e["ts"] - last
            weight += span
            for name in set(stack):
                total[name] += span
            self_time[stack[-1]] += span
        if e["ph"] == "B":
            stack.append(e["name"])
        else:
            stack.pop()
        last = e["ts"]
    return total, self_time, weight


def close(drawn, want):
    # speedscope prints two decimals of its unit: allow that, and a tenth of
    # a microsecond of the trace's own rounding.
    return abs(drawn - want) <= max(0.15, want * 0.006)


def main():
    session, dist = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory() as tmp:
        www = os.path.join(tmp, "www")
        shutil.copytree(dist, www)
        trace = os.path.join(www, "trace.json")
        run = subprocess.run([session, "--frames", "8", "--frame-size", "256K", "--frames-per-file", "3",
                              "--quiet-log", "--trace", trace],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            fail("the session failed:\n" + run.stdout)
        events = json.load(open(trace))["traceEvents"]
        handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=www)
        http.server.SimpleHTTPRequestHandler.log_message = lambda *a: None
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        base = "http://127.0.0.1:%d/" % server.server_port
        try:
            dom = chromium(["--virtual-time-budget=15000", "--window-size=1600,3000", "--dump-dom",
                            base + "index.html#profileURL=" + base + "trace.json&view=sandwich"], tmp).stdout
        finally:
            server.shutdown()

    names = {}
    for e in events:
        if e["ph"] == "M" and e["name"] == "thread_name":
            names[(e["pid"], e["tid"])] = e["args"]["name"]
    session_thread = [k for k, n in names.items() if n == "session"]
    if len(session_thread) != 1:
        fail("the trace names no one session thread: %s" % names)
    key = session_thread[0]
    total, self_time, weight = sandwich(events, key)

    # The profiles speedscope made: one a thread with sections or slices.
    profiles = re.findall(r'<tr title="([^"]*)"[^>]*><td[^>]*>\d+</td><td[^>]*><span>[^<]*</span></td>'
                          r'<td[^>]*>([^<]*)</td></tr>', dom)
    if not profiles:
        fail("speedscope drew no profile (did it load the trace?)")
    threads_with_frames = {(e["pid"], e["tid"]) for e in events if e["ph"] in "BEX"}
    if len(profiles) != len(threads_with_frames):
        fail("speedscope made %d profiles, the trace has %d threads with frames" %
             (len(profiles), len(threads_with_frames)))
    first_name, first_weight = html.unescape(profiles[0][0]), micros(html.unescape(profiles[0][1]))
    if "session (tid %d)" % key[1] not in first_name:
        fail("the first profile is %r, not the session thread" % first_name)
    if not close(first_weight, weight):
        fail("speedscope weighs the session thread %.2f µs, the trace %.2f µs" % (first_weight, weight))
    print("ok: %d profiles; the session thread weighs %.2f µs" % (len(profiles), weight))

    rows = re.findall(r'<tr[^>]*><td[^>]*>([^<(]*)\([^)]*\)<div.*?</td><td[^>]*>([^<(]*)\([^)]*\)<div.*?</td>'
                      r'<td[^>]*><span[^>]*></span>([^<]*)</td></tr>', dom)
    drawn = {html.unescape(n): (micros(t), micros(s)) for t, s, n in rows}
    if set(drawn) != set(total):
        fail("speedscope shows the frames %s, the trace has %s" % (sorted(drawn), sorted(total)))
    for name in sorted(total):
        t, s = drawn[name]
        if not close(t, total[name]) or not close(s, self_time[name]):
            fail("%s: speedscope draws total %.2f, self %.2f µs; the trace says %.2f, %.2f" %
                 (name, t, s, total[name], self_time[name]))
    nested = sum(1 for n in total if self_time[n] + 0.15 < total[n])
    if len(total) < 10 or nested < 3:
        fail("too few frames (%d) or nested frames (%d) to tell anything" % (len(total), nested))
    print("ok: %d frames of the session thread, %d with frames inside, totals and self times as the trace says" %
          (len(total), nested))


if __name__ == "__main__":
    main()
