#!/usr/bin/env bash
# Cross-compiles the project for 64-bit Arm and runs the whole test suite
# under qemu-aarch64.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
build="$root/build/arm64"
sysroot="$root/build/arm64-sysroot"
jobs=${QRNCAM_JOBS:-2}

# Private root searched before the real one: only the arm64 p7zip (apt
# satisfies libbacktrace:arm64's dependency with the amd64 package, whose
# 7z.so an arm64 process cannot load). The loader and libc come from
# libc6:arm64 in the real root; the cross toolchain's own copies are another
# build and must not be mixed with it.
if [ ! -f "$sysroot/usr/lib/p7zip/7z.so" ]; then
  rm -rf "$sysroot"
  mkdir -p "$sysroot/dl"
  (cd "$sysroot/dl" && apt-get download -qq p7zip-full:arm64 >/dev/null 2>&1)
  dpkg-deb -x "$sysroot"/dl/p7zip-full_*_arm64.deb "$sysroot"
  rm -rf "$sysroot/dl"
fi
file -L "$sysroot/usr/lib/p7zip/7z.so" | grep -q aarch64

cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
  -DQRNCAM_ARM64_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQRNCAM_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$jobs"
file -L "$build/lib/libqrncam_sysutils.so" | grep -q 'ARM aarch64'
(cd "$build" && ctest -j"$jobs" --output-on-failure --timeout 300)
