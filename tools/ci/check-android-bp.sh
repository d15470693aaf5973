#!/usr/bin/env bash
# Fails when the device build's sources differ from the host build's. The
# device module is read with the Blueprint parser (tools/ci/android_bp.py),
# its whole static libraries included.
# Usage: tools/ci/check-android-bp.sh SOURCES_FILE   (written by CMake)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cmake_list=$(sed "s|^$root/||" "${1:?usage: $0 SOURCES_FILE}" | sort)
bp_list=$(/usr/bin/python3 "$root/tools/ci/android_bp.py" sources "$root/Android.bp" libqrncam_sysutils | sort)
if [ "$cmake_list" != "$bp_list" ]; then
  echo "Android.bp srcs and utils/CMakeLists.txt QRNCAM_SYSUTILS_SOURCES differ:"
  diff <(echo "$bp_list") <(echo "$cmake_list") || true
  exit 1
fi
echo "Android.bp lists the same $(echo "$bp_list" | wc -l) sources as CMake"
