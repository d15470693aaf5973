#!/usr/bin/env bash
# Runs every benchmark of bench/ and writes a Markdown table of each figure,
# its baseline from the same run and the ratio to build/default/bench-report.md.
# Usage: tools/bench-report.sh [extra Google Benchmark flags]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
tools/ci/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2
out="$root/build/default/bench-results"
rm -rf "$out"
mkdir -p "$out"
for bin in build/default/bin/*_bench; do
  name=$(basename "$bin")
  echo "running $name" >&2
  # Single runs swing with page faults, the page cache and when the queue's
  # worker sleeps: report medians of repetitions interleaved with their
  # baselines (programs that set their own repetitions keep them).
  "$bin" --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$out/$name.json" --benchmark_out_format=json "$@" >/dev/null
done
python3 tools/ci/bench_report.py "$out" bench/pairs.tsv build/default/bench-report.md
echo "written: build/default/bench-report.md" >&2
