#!/usr/bin/env python3
"""Prints each file cache / job queue figure beside its baseline as a ratio.

Usage: ratios.py OUT.json [OUT.json ...], where each file is the output of
one of the benchmark binaries run with --benchmark_format=json. On a shared
machine add --benchmark_repetitions=10 --benchmark_enable_random_interleaving
so that medians are compared and load changes hit both sides alike.
"""
import json
import sys


def load(paths):
    runs = {}
    for path in paths:
        with open(path) as f:
            for b in json.load(f)["benchmarks"]:
                if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                    continue
                name = b.get("run_name", b["name"])
                runs[name] = b
    return runs


def main():
    runs = load(sys.argv[1:])

    def get(name, field):
        return runs[name][field] if name in runs else None

    def show(label, num, den, note=""):
        if num is None or den is None:
            return
        print(f"{label:58s} {num / den:6.3f} {note}")

    for size in (65536, 1048576, 16777216):
        # Copy figures use the calling thread's CPU time: all the work is there.
        show(f"write {size >> 10} KiB vs malloc+memcpy (speed, cpu)",
             get(f"BM_MallocMemcpy/{size}", "cpu_time"), get(f"BM_FileCacheWrite/{size}", "cpu_time"), "goal >= 0.95")
    for size in (1048576, 16777216):
        show(f"flush {size >> 20} MiB blocks vs stdio (speed, wall)",
             get(f"BM_StdioWrite/{size}/0/real_time", "real_time"),
             get(f"BM_FileCacheFlush/{size}/real_time", "real_time"), "goal >= 0.95")
        show(f"flush {size >> 20} MiB blocks vs stdio + free (speed, wall)",
             get(f"BM_StdioWrite/{size}/1/real_time", "real_time"),
             get(f"BM_FileCacheFlush/{size}/real_time", "real_time"))
    idle, busy = "BM_CallerSide/0/iterations:12/real_time", "BM_CallerSide/1/iterations:12/real_time"
    show("caller side, busy / idle worker (wall)", get(busy, "real_time"), get(idle, "real_time"), "goal <= 1.10")
    show("caller side, busy / idle worker (caller cpu)", get(busy, "cpu_time"), get(idle, "cpu_time"))
    for q in ("Ref", "Asio"):
        for posters in (1, 2):
            show(f"JobQueue vs {q} throughput, {posters} poster(s)",
                 get(f"BM_Throughput<JQ>/{posters}/real_time", "items_per_second"),
                 get(f"BM_Throughput<{q}>/{posters}/real_time", "items_per_second"))
        for stat in ("median_us", "p99_us"):
            show(f"JobQueue vs {q} idle latency {stat} (speed)",
                 get(f"BM_IdleLatency<{q}>/iterations:5000/real_time", stat),
                 get("BM_IdleLatency<JQ>/iterations:5000/real_time", stat))
    for q in ("JQ", "Ref", "RefNotifyAfterUnlock", "Asio"):
        name = f"BM_IdleLatency<{q}>/iterations:5000/real_time"
        if name in runs:
            print(f"idle latency {q:22s} median {runs[name]['median_us']:6.2f} us, p99 {runs[name]['p99_us']:6.2f} us")
    burst = runs.get("BM_BurstOverBudget/iterations:3/real_time")
    if burst:
        print(f"burst: budget {burst['budget_MiB']:.0f} MiB, peak cached {burst['peak_cached_MiB']:.1f} MiB, "
              f"RSS growth {burst['rss_growth_MiB']:.1f} MiB, refused writes {burst['refused_writes']:.0f}")


if __name__ == "__main__":
    main()
