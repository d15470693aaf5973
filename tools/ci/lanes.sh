#!/usr/bin/env bash
# The quality lanes. Each builds in its own directory under build/ and fails
# the run on the first error. Usage: tools/ci/lanes.sh LANE [LANE ...]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
jobs=${QRNCAM_JOBS:-2}
summary=()

banner() { printf '\n==== lane %s ====\n' "$1"; }

lane_format() {
  # Every C/C++ file of the repository (new ones too) exactly as
  # clang-format writes it with .clang-format.
  mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
  if ! clang-format --dry-run --Werror "${files[@]}"; then
    echo "format: files differ from clang-format's output (clang-format -i FILE rewrites them)"
    return 1
  fi
  echo "format: ${#files[@]} files as clang-format writes them"
}

lane_default() {
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$jobs"
  ctest --preset default
  # The README's commands that select tests, as written, and the fault sets,
  # which must still apply to the code they plant faults in.
  tools/ci/check-readme.py
}

lane_asan() {
  cmake --preset asan >/dev/null
  cmake --build --preset asan -j"$jobs"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan
}

lane_tsan() {
  # An instrumented libutils built from Debian's source package: see
  # tools/ci/build-tsan-libutils.sh for why. No suppressions.
  tools/ci/build-tsan-libutils.sh "$root/build/tsan-libutils"
  cmake --preset tsan >/dev/null  # takes build/tsan-libutils
  cmake --build --preset tsan -j"$jobs"
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --preset tsan
}

lane_stress() {
  # Bounded stress runs (tests/stress) under ASan+UBSan and under TSan, on
  # the builds of those lanes. QRNCAM_STRESS_SCALE multiplies the rounds.
  export QRNCAM_STRESS_SCALE=${QRNCAM_STRESS_SCALE:-4}
  cmake --preset asan >/dev/null
  cmake --build --preset asan -j"$jobs"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan-stress
  tools/ci/build-tsan-libutils.sh "$root/build/tsan-libutils"
  cmake --preset tsan >/dev/null  # takes build/tsan-libutils
  cmake --build --preset tsan -j"$jobs"
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --preset tsan-stress
}

lane_valgrind() {
  # memcheck over the tests that do not fork: no invalid access, no
  # definite leak.
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$jobs"
  tools/ci/valgrind-tests.py build/default
}

lane_tidy() {
  # The whole tree built with clang and libc++ (preset clang), where clang's
  # -Wthread-safety is an error: a guarded field touched without its lock
  # fails the build. Then clang-tidy over the host's default build.
  cmake --preset clang >/dev/null
  cmake --build --preset clang -j"$jobs"
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$jobs"
  mapfile -t files < <(git ls-files 'utils/*.cpp' 'host/*.cpp' 'tools/*.cpp')
  run-clang-tidy -quiet -p build/default -j "$jobs" "${files[@]}" 2>&1 | grep -v '^[0-9]* warnings generated' \
    | tee build/clang-tidy.log
  if grep -qE 'warning:|error:' build/clang-tidy.log; then echo "clang-tidy reported warnings"; return 1; fi
}

lane_package() {
  # cmake --install straight after a configure, as a new user may run it:
  # it builds what it installs (the libraries only, in a build of their
  # own, cleaned first). Then projects outside the tree use the installed
  # package through find_package and through pkg-config.
  local build="$root/build/package-build" prefix="$root/build/package/prefix"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQRNCAM_BUILD_TESTS=OFF \
    -DQRNCAM_BUILD_BENCH=OFF -DQRNCAM_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$build" --target clean >/dev/null
  rm -rf "$root/build/package"
  CMAKE_BUILD_PARALLEL_LEVEL="$jobs" cmake --install "$build" --prefix "$prefix" >/dev/null
  tools/ci/check-package.sh "$prefix" "$root/build/package"
}

lane_arm64() { tools/ci/arm64.sh; }

# The library as the device compiles it (Android.bp, clang, libc++, no
# exceptions or RTTI unless asked), and the whole suite on libc++.
lane_device() { tools/ci/device.sh; }

lane_report() {
  # The session's page and trace opened by programs somebody else wrote: the
  # page in headless chromium, the trace in speedscope's built page served on
  # loopback. Debian's chromium (and Node's npm, where the machine has none)
  # are installed here, not by install-deps: only this lane needs them.
  # speedscope comes from the machine's own npm registry, at a fixed version.
  local missing=()
  command -v chromium >/dev/null || missing+=(chromium)
  command -v npm >/dev/null || missing+=(nodejs npm)
  if [ "${#missing[@]}" -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" = 0 ] || SUDO=sudo
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
  local speedscope="$root/build/speedscope/node_modules/speedscope/dist/release"
  if [ ! -f "$speedscope/index.html" ]; then
    npm install --prefix "$root/build/speedscope" --no-save --no-package-lock --no-audit --no-fund \
      speedscope@1.25.0 >/dev/null
  fi
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$jobs" --target qrncam_session
  python3 tests/session/check_report.py build/default/bin/qrncam_session
  python3 tests/session/check_speedscope.py build/default/bin/qrncam_session "$speedscope"
}

# The device-log reader against host sessions: the round trip alone, with
# what it matched.
lane_roundtrip() {
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$jobs"
  ctest --preset default -L roundtrip --verbose | grep -E '^[0-9]+: (ok|FAIL|[0-9]+ round trips)|tests passed|Failed'
}

lane_fuzz() { QRNCAM_FUZZ_BUILD_DIR="$root/build/fuzz" tools/ci/fuzz.sh "${QRNCAM_FUZZ_SECONDS:-60}"; }

for lane in "$@"; do
  banner "$lane"
  start=$(date +%s)
  if ! declare -F "lane_$lane" >/dev/null; then echo "unknown lane: $lane" >&2; exit 2; fi
  "lane_$lane"
  summary+=("$lane: ok ($(( $(date +%s) - start )) s)")
done
printf '\n==== summary ====\n'
printf '%s\n' "${summary[@]}"
echo "lanes: ${#summary[@]} passed, 0 failed"
