#!/usr/bin/env python3
"""The device-log reader against ground truth. Host sessions of several kinds
run against the simulators, whose journals and notes are the truth (the
session's --json); the lines the library logged are turned into what a
device's logcat prints, by liblog's own formatter in every format logcat
has and as logd's records (forge); qrncam_logscan reads them back. What it
reconstructs must match: every scenario, command, enabled span, perf lock,
flush and leak, and nothing claimed that did not happen. What the log cannot
show may be marked unknown, never wrong.
Usage: check_roundtrip.py QRNCAM_SESSION QRNCAM_LOGSCAN FORGE"""
import json
import os
import re
import subprocess
import sys
import tempfile

SMALL = ["--frames", "8", "--frame-size", "256K", "--frames-per-file", "3", "--quiet-log"]
KINDS = [
    ("default", []),
    ("two-of-each", ["--scenario", "two-of-each"]),
    ("service-death", ["--scenario", "service-death"]),
    ("refused-locks", ["--scenario", "refused-locks"]),
    ("budget overrun, file-cache log on", ["--budget", "1M", "--prop", "vendor.debug.file_cache.log=1"]),
    ("budget overrun, file-cache log off", ["--budget", "1M"]),
    ("WARN only", ["--level", "2", "--scenario", "refused-locks", "--budget", "1M"]),
]
FORMATS = ["threadtime", "time", "brief", "long", "threadtime,uid", "threadtime,year,usec", "time,epoch",
           "threadtime,monotonic", "threadtime,printable", "threadtime,color", "long,usec,uid", "binary"]
LEAKS = {"left registered", "left enabled", "perf lock held", "users left", "dump pending", "cache open"}


class Mismatch(Exception):
    pass


def power_matches(h, d):
    if h["op"] != d["op"] or len(h["args"]) != len(d["args"]):
        return False
    for i, (a, b) in enumerate(zip(h["args"], d["args"])):
        if not d["unknown_args"] & (1 << i) and a != b:
            return False
    return d["result"] is None or h["result"] == d["result"]


def perf_matches(h, d, host, dev):
    if h["op"] != d["op"]:
        return False
    if h["op"] == "acquire":
        return (h["list"] == d["list"] and (d["duration_ms"] is None or d["duration_ms"] == h["duration_ms"])
                and (h["result"] != 0) == d["granted"] and (d["result"] is None or d["result"] == h["result"]))
    # A release: of the lock with the same list.
    released = [c for c in host["perf_calls"] if c["op"] == "acquire" and c["result"] == h["handle"]]
    if d["releases"] >= 0:
        return bool(released) and dev["perf_calls"][d["releases"]]["list"] == released[-1]["list"]
    # A release of a lock the reader cannot tell.
    return True


def sequences(host_calls, dev_calls, matches, what):
    """Every host call in order among the device's, one for one; a device
    call that is not unknown must be one of them; unknown ones may be."""
    n, m = len(host_calls), len(dev_calls)
    # ok[i][j]: host_calls[i:] and dev_calls[j:] can be so aligned.
    ok = [[False] * (m + 1) for _ in range(n + 1)]
    ok[n][m] = True
    for j in range(m - 1, -1, -1):
        ok[n][j] = ok[n][j + 1] and dev_calls[j]["at"]["how"] == "unknown"
    for i in range(n - 1, -1, -1):
        for j in range(m - 1, -1, -1):
            ok[i][j] = ((dev_calls[j]["at"]["how"] == "unknown" and ok[i][j + 1]) or
                        (matches(host_calls[i], dev_calls[j]) and ok[i + 1][j + 1]))
    if ok[0][0]:
        return
    # Where it goes wrong: the furthest point a matching prefix reaches.
    i = j = 0
    while i < n and j < m and (matches(host_calls[i], dev_calls[j]) or dev_calls[j]["at"]["how"] == "unknown"):
        if matches(host_calls[i], dev_calls[j]):
            i += 1
        j += 1
    raise Mismatch("%s: truth and the reader part at truth's %s and the reader's %s" %
                   (what, host_calls[i] if i < n else "end", dev_calls[j] if j < m else "end"))


def compare(host, dev, kind):
    debug = {tag: "D" in levels for tag, levels in dev["coverage"]["tag_levels"].items()}
    controllers_seen = debug.get("QrnCam/CpuCtrl") or debug.get("Cam3CPUCtrl_util")
    if not controllers_seen:
        # The log cannot show the controllers: nothing may be claimed, and
        # the reader must say why.
        if dev["power_calls"] or dev["perf_calls"] or dev["controllers"]:
            raise Mismatch("calls claimed without the controllers' DEBUG lines")
        if not any("no DEBUG lines" in n for n in dev["coverage"]["notes"]):
            raise Mismatch("no note that the controllers' DEBUG lines are missing")
    else:
        sequences([c for c in host["power_calls"] if not c["transport_failed"]], dev["power_calls"], power_matches,
                  "power calls")
        sequences(host["perf_calls"], dev["perf_calls"], lambda h, d: perf_matches(h, d, host, dev), "perf calls")
        for h, d in zip(host["controllers"], dev["controllers"]):
            if h["kind"] != d["kind"]:
                raise Mismatch("controller %s is a %s, the reader says %s" % (h["id"], h["kind"], d["kind"]))
        for c in dev["power_calls"] + dev["perf_calls"]:
            if c["controller"] and any(d["id"] == c["controller"] and d["ambiguous"] for d in dev["controllers"]):
                raise Mismatch("a call attributed to an object the reader says it cannot tell apart")
        check_scenarios(host, dev)
        check_locks(host, dev)
    check_caches(host, dev, kind)
    leaks = sorted((f["kind"], f["on_purpose"]) for f in host["findings"] if f["kind"] in LEAKS)
    said = sorted((f["kind"], f["on_purpose"]) for f in dev["findings"] if f["kind"] in LEAKS)
    if controllers_seen and leaks != said:
        raise Mismatch("left held: truth %s, the reader %s" % (leaks, said))


def strict(dev):
    """Where the reader can tell every object apart, "unknown" is no answer
    for what the log shows."""
    return not any(c["ambiguous"] for c in dev["controllers"])


def check_scenarios(host, dev):
    if len(host["scenarios"]) != len(dev["scenarios"]):
        raise Mismatch("%d scenarios, the reader finds %d" % (len(host["scenarios"]), len(dev["scenarios"])))
    for h, d in zip(host["scenarios"], dev["scenarios"]):
        where = "scenario %d" % h["handle"]
        unknown_end = (not strict(dev) and d["unregistered"] is not None and
                       d["unregistered"]["how"] == "unknown")
        for key in ("handle", "left_registered", "left_enabled", "lost_with_service", "on_purpose"):
            if unknown_end and key != "handle":
                continue  # the reader says it cannot tell
            if h[key] != d[key]:
                raise Mismatch("%s: %s is %s, the reader says %s" % (where, key, h[key], d[key]))
        if len(h["enabled"]) != len(d["enabled"]):
            raise Mismatch("%s: %d enabled spans, the reader finds %d" % (where, len(h["enabled"]), len(d["enabled"])))
        for hs, ds in zip(h["enabled"], d["enabled"]):
            if ds["timeout_ms"] is not None and ds["timeout_ms"] != hs["timeout_ms"]:
                raise Mismatch("%s: timeout %s, the reader says %s" % (where, hs["timeout_ms"], ds["timeout_ms"]))
            # A span whose timeout the log does not give may have timed out.
            allowed = (hs["ended_by"], "unknown") if not strict(dev) else (hs["ended_by"],)
            if ds["ended_by"] not in allowed and not (ds["timeout_ms"] is None and hs["ended_by"] == "timed out"):
                raise Mismatch("%s: span ended by %s, the reader says %s" % (where, hs["ended_by"], ds["ended_by"]))
        if d["controller"] and d["controller"] != h["controller"]:
            raise Mismatch("%s belongs to controller %s, the reader says %s" % (where, h["controller"],
                                                                                 d["controller"]))


def check_locks(host, dev):
    if len(host["perf_locks"]) != len(dev["perf_locks"]):
        raise Mismatch("%d perf locks, the reader finds %d" % (len(host["perf_locks"]), len(dev["perf_locks"])))
    for h, d in zip(host["perf_locks"], dev["perf_locks"]):
        where = "perf lock %s (%s)" % (h["handle"], h["request"])
        if h["request"] != d["request"] or h["refused"] != d["refused"]:
            raise Mismatch("%s: the reader says %s, refused %s" % (where, d["request"], d["refused"]))
        if d["ended_by"] != h["ended_by"] and not (d["duration_ms"] is None and d["ended_by"] == "unknown"):
            raise Mismatch("%s ended by %s, the reader says %s" % (where, h["ended_by"], d["ended_by"]))


def check_caches(host, dev, kind):
    log_on = "log on" in kind
    by_path = {}
    for c in dev["file_caches"]:
        by_path.setdefault(c["path"], []).append(c)
    for h in host["file_caches"]:
        found = by_path.get(h["path"], [])
        if not log_on:
            refused = sum(len(d["refused"]) for d in found)
            if refused != len(h["refused"]):
                raise Mismatch("%s: %d blocks refused, the reader finds %d" % (h["path"], len(h["refused"]), refused))
            continue
        if len(found) != 1:
            raise Mismatch("%s: the reader finds %d caches" % (h["path"], len(found)))
        d = found[0]
        for key in ("blocks", "bytes"):
            if h[key] != d[key]:
                raise Mismatch("%s: %s %s, the reader says %s" % (h["path"], key, h[key], d[key]))
        if len(h["refused"]) != len(d["refused"]):
            raise Mismatch("%s: refusals %d, the reader finds %d" % (h["path"], len(h["refused"]), len(d["refused"])))
        hf, df = h["flush"], d["flush"]
        if (hf["end"] is None) != (df["end"] is None) or hf["bytes"] != df["bytes"] or hf["ok"] != df["ok"]:
            raise Mismatch("%s: flush %s, the reader says %s" % (h["path"], hf, df))
    if log_on:
        # One value a flush, each one the budget really held (to the KB).
        held = [p["bytes"] for p in host["budget"]["points"]] + [0]
        dp = dev["budget"]["points"]
        flushes = sum(1 for h in host["file_caches"] if h["flush"]["end"] is not None)
        if len(dp) != flushes or any(not any(0 <= h - p["bytes"] < 1024 for h in held) for p in dp):
            raise Mismatch("the budget: truth held %s, the reader says %s" % (held, [p["bytes"] for p in dp]))
    elif dev["budget"]["points"]:
        raise Mismatch("a budget curve claimed without the file cache's own lines")


def page_rows(path):
    """The rows the page draws: kind, bar classes and which are left held."""
    text = open(path).read()
    data = json.loads(re.search(r'<script id="data" type="application/json">(.*?)</script>', text, re.S)
                      .group(1).replace("<\\/", "</"))
    rows = [(r["kind"], [(b["cls"], b["left"]) for b in r["bars"]], r.get("note", "")) for r in data["rows"]]
    return rows, [(b["cls"], b["left"]) for b in data["flushes"]]


def section(text, start):
    """The lines of a printed section, up to the next blank line."""
    lines = text.split("\n")
    at = lines.index(start) + 1
    return "\n".join(lines[at:lines.index("", at)])


def same_views(session, logscan, forge, tmp, env):
    """The log of a default host session, read back: the same leak check as
    the session prints, and a page with the same bars."""
    host_page, dev_page = os.path.join(tmp, "host.html"), os.path.join(tmp, "dev.html")
    host_file, log = os.path.join(tmp, "views.json"), os.path.join(tmp, "views.log")
    run = subprocess.run([session] + SMALL + ["--prop", "vendor.debug.file_cache.log=1", "--json", host_file,
                                              "--report", host_page], stdout=subprocess.PIPE, text=True, env=env)
    subprocess.run([forge, host_file, "threadtime", log], check=True, env=env)
    scan = subprocess.run([logscan, log, "--report", dev_page], stdout=subprocess.PIPE, text=True, env=env)
    if section(run.stdout, "== left held ==") != section(scan.stdout, "-- left held --"):
        raise Mismatch("the leak checks differ:\n%s\n--\n%s" % (section(run.stdout, "== left held =="),
                                                                  section(scan.stdout, "-- left held --")))
    if page_rows(host_page) != page_rows(dev_page):
        raise Mismatch("the pages' bars differ:\n%s\n%s" % (page_rows(host_page), page_rows(dev_page)))


def main():
    session, logscan, forge = sys.argv[1:4]
    failures, runs, items = 0, 0, 0
    with tempfile.TemporaryDirectory() as tmp:
        env = dict(os.environ, TZ="UTC")
        for kind, args in KINDS:
            host_file = os.path.join(tmp, "host.json")
            run = subprocess.run([session] + SMALL + args + ["--json", host_file], stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True)
            if run.returncode != 0:
                print("FAIL %s: the session failed:\n%s" % (kind, run.stdout))
                failures += 1
                continue
            host = json.load(open(host_file))
            for fmt in FORMATS:
                runs += 1
                log = os.path.join(tmp, "device.log")
                dev_file = os.path.join(tmp, "device.json")
                subprocess.run([forge, host_file, fmt, log], check=True, env=env)
                scan = subprocess.run([logscan, log, "--json", dev_file], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, env=env)
                try:
                    if scan.returncode not in (0, 1):
                        raise Mismatch("qrncam_logscan failed:\n" + scan.stdout)
                    sessions = [json.loads(line) for line in open(dev_file)]
                    if len(sessions) != 1:
                        raise Mismatch("%d sessions read back, not one" % len(sessions))
                    compare(host, sessions[0], kind)
                    items += len(host["power_calls"]) + len(host["perf_calls"]) + len(host["file_caches"])
                except Mismatch as e:
                    failures += 1
                    print("FAIL %s, %s: %s" % (kind, fmt, e))
            print("ok: %s, in %d formats" % (kind, len(FORMATS)) if not failures else "checked: %s" % kind)
        try:
            same_views(session, logscan, forge, tmp, env)
            print("ok: a default session read back prints the same leak check and draws the same bars")
        except Mismatch as e:
            failures += 1
            print("FAIL views: %s" % e)
    print("%d round trips, %d failed; %d calls and caches matched" % (runs, failures, items))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
