#!/usr/bin/env bash
# Fails when the device build's source list differs from the host build's.
# Usage: tools/ci/check-android-bp.sh SOURCES_FILE   (written by CMake)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cmake_list=$(sed "s|^$root/||" "${1:?usage: $0 SOURCES_FILE}" | sort)
bp_list=$(awk '/srcs: \[/{on=1; next} on && /\]/{on=0} on' "$root/Android.bp" | tr -d ' ",' | grep -v '^$' | sort)
if [ "$cmake_list" != "$bp_list" ]; then
  echo "Android.bp srcs and utils/CMakeLists.txt QRNCAM_SYSUTILS_SOURCES differ:"
  diff <(echo "$bp_list") <(echo "$cmake_list") || true
  exit 1
fi
echo "Android.bp lists the same $(echo "$bp_list" | wc -l) sources as CMake"
