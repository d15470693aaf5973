#!/usr/bin/env python3
"""Turns Google Benchmark JSON results into a Markdown table of figures,
their baselines from the same run, and the ratios.

bench/pairs.tsv lists, one pair a line (tab-separated):
    binary  figure  baseline  metric  goal  note
metric is "time" (real time per iteration), "cpu" (CPU time per iteration)
or the name of a user counter;
ratio = figure / baseline of that metric. goal is one of
    ratio<=X    the figure costs at most X times the baseline
    speed>=X    the figure runs at least X times the baseline's speed
                (baseline time / figure time, or for rate counters figure / baseline)
    abs<=X      the figure's own value is at most X (in the metric's unit)
    -           no goal, reported for information
"""
import json
import sys
from pathlib import Path


def load(results_dir):
    runs = {}
    for f in sorted(Path(results_dir).glob("*.json")):
        data = json.loads(f.read_text())
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            name = b.get("run_name", b["name"])
            runs[(f.stem, name)] = b
    return runs


def value(b, metric):
    if metric in ("time", "cpu"):
        unit = b.get("time_unit", "ns")
        scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[unit]
        return b["real_time" if metric == "time" else "cpu_time"] * scale, "ns"
    return float(b[metric]), metric


def fmt(v):
    if v == 0:
        return "0"
    if abs(v) >= 1e6:
        return f"{v:.4g}"
    if abs(v) >= 100:
        return f"{v:.0f}"
    return f"{v:.3g}"


def main():
    results_dir, pairs_file, out = sys.argv[1], sys.argv[2], sys.argv[3]
    runs = load(results_dir)
    rows = ["| benchmark | figure | baseline (same run) | ratio | goal | met |",
            "|---|---|---|---|---|---|"]
    failed = 0
    for line in Path(pairs_file).read_text().splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        cols = line.split("\t")
        binary, fig, base, metric, goal = cols[:5]
        note = cols[5] if len(cols) > 5 else ""
        f, b = runs.get((binary, fig)), runs.get((binary, base))
        if f is None or b is None:
            rows.append(f"| {binary}: {fig} | missing | {base} | | {goal} | no |")
            failed += 1
            continue
        fv, unit = value(f, metric)
        bv, _ = value(b, metric)
        ratio = fv / bv if bv else float("inf")
        met = "-"
        if goal.startswith("ratio<="):
            met = "yes" if ratio <= float(goal[7:]) else "no"
        elif goal.startswith("speed>="):
            speed = (1 / ratio) if metric in ("time", "cpu") else ratio
            met = "yes" if speed >= float(goal[7:]) else "no"
        elif goal.startswith("abs<="):
            met = "yes" if fv <= float(goal[5:]) else "no"
        if met == "no":
            failed += 1
        label = f"{fig}" + (f" ({note})" if note else "")
        rows.append(f"| {binary}: {label} | {fmt(fv)} {unit} | {base}: {fmt(bv)} {unit} | {ratio:.3f} | {goal} | {met} |")
    table = "\n".join(rows) + "\n"
    Path(out).write_text(table)
    print(table)
    print(f"{failed} goal(s) not met" if failed else "every goal met")


if __name__ == "__main__":
    main()
