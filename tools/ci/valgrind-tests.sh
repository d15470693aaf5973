#!/usr/bin/env bash
# Runs every test binary of a build under valgrind memcheck, leaving out the
# cases that fork (gtest death tests, suites named *DeathTest, and suites
# that run child processes, named *ChildTest): valgrind follows neither
# well. Fails on any invalid access or definite leak.
# Usage: tools/ci/valgrind-tests.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: $0 BUILD_DIR}
status=0
for bin in "$build"/bin/*_test; do
  [ -x "$bin" ] || continue
  log="$build/valgrind-$(basename "$bin").log"
  printf 'valgrind %-28s ' "$(basename "$bin")"
  if valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
       --show-leak-kinds=definite --num-callers=30 --log-file="$log" \
       "$bin" --gtest_filter='-*DeathTest.*:*ChildTest.*' >"$log.out" 2>&1; then
    echo "clean ($(grep -c '^\[       OK \]' "$log.out") tests)"
  else
    echo "FAILED (see $log)"
    tail -40 "$log"
    status=1
  fi
done
exit $status
