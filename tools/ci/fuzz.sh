#!/bin/sh
# Builds the libFuzzer targets with clang and runs each for a bounded time.
# Fails when a target finds a crash or a sanitizer report (libFuzzer then
# exits non-zero and leaves the input as crash-* in the run directory).
#
#   tools/ci/fuzz.sh [seconds per target, default 60]
set -eu

seconds=${1:-60}
case $seconds in '' | *[!0-9]*) echo "usage: $0 [seconds]" >&2; exit 2 ;; esac

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${QRNCAM_FUZZ_BUILD_DIR:-$root/build-fuzz}
jobs=${QRNCAM_JOBS:-2}

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQRNCAM_BUILD_FUZZ=ON -DQRNCAM_BUILD_TESTS=OFF -DQRNCAM_BUILD_BENCH=OFF -DQRNCAM_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$jobs"

status=0
for target in meminfo_fuzz thermal_fuzz logread_fuzz interpret_fuzz; do
    corpus=$build/corpus/$target
    artifacts=$build/artifacts/$target
    mkdir -p "$corpus" "$artifacts"
    echo "== $target: ${seconds}s"
    if ! (cd "$artifacts" && "$build/bin/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$root/fuzz/corpus/$target"); then
        echo "== $target FAILED; inputs in $artifacts" >&2
        status=1
    fi
done
exit $status
