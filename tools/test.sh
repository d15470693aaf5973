#!/usr/bin/env bash
# Builds the project and runs the whole test suite, then the quality lanes.
# Usage: tools/test.sh [LANE ...]
#   lanes: default (normal build, every test), format (clang-format),
#          device (as the device compiles it, suite on libc++), asan
#          (ASan+UBSan), tsan, stress (bounded, under ASan+UBSan and TSan),
#          valgrind, tidy, arm64, fuzz, package, report (the session's page
#          in headless chromium), roundtrip (device logs read back against
#          host sessions);  no argument runs them all.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
lanes=("$@")
[ "${#lanes[@]}" -gt 0 ] || lanes=(default format device asan tsan stress valgrind tidy package report roundtrip arm64 fuzz)
cross=0
for l in "${lanes[@]}"; do [ "$l" = arm64 ] && cross=1; done
if [ "$cross" = 1 ]; then tools/ci/install-deps.sh --cross; else tools/ci/install-deps.sh; fi
exec tools/ci/lanes.sh "${lanes[@]}"
