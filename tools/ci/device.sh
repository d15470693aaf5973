#!/usr/bin/env bash
# The device lane: libqrncam_sysutils as the device compiles it.
#  1. Android.bp is in Blueprint's own format (bpfmt shows no difference).
#  2. The module, read with Debian's Blueprint parser, compiles exactly as
#     declared with clang and libc++, without exceptions and RTTI unless it
#     opts in, warnings as errors, without a single warning; each public
#     header compiles for a client that has only what the module exports.
#  3. The same library (plus the host's kernel-node redirection), the host
#     platform and the tests are built with clang and libc++, GoogleTest from
#     Debian's sources, and the whole suite runs against it.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
build="$root/build/device"
jobs=${QRNCAM_JOBS:-2}

diff=$(bpfmt -d Android.bp)
if [ -n "$diff" ]; then
  echo "Android.bp is not in Blueprint's format (bpfmt -w Android.bp fixes it):"; echo "$diff"; exit 1
fi
echo "bpfmt: Android.bp is clean"

QRNCAM_JOBS=$jobs /usr/bin/python3 tools/ci/android_bp.py device Android.bp libqrncam_sysutils "$build/module"

cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/clang-libcxx.cmake \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQRNCAM_BUILD_BENCH=OFF -DQRNCAM_DEVICE_MODULE="$build/module/module.cmake" \
  >/dev/null
cmake --build "$build" -j"$jobs"
# Every binary of the suite runs on libc++, the library included.
for f in "$build"/lib/libqrncam_sysutils.so "$build"/bin/cpuctrl_test; do
  readelf -d "$f" | grep -q 'NEEDED.*libc++' || { echo "$f is not linked with libc++"; exit 1; }
done
(cd "$build" && ctest -j"$jobs" --output-on-failure --timeout 300 -LE stress)
