#!/usr/bin/env bash
# Checks an installed tree as its users meet it:
#  - a project that finds it with find_package(qrncam_sysutils) gets
#    imported targets in the package's namespace only, none of them global,
#    and not a single new cache entry besides qrncam_sysutils_DIR;
#  - a program built through find_package, and one through pkg-config, take
#    a camera perf lock, which works only if the installed library finds the
#    installed perf-lock library through its own RUNPATH;
#  - the capture stage of tests/package/consumer, built both ways (pkg-config
#    --cflags --libs qrncam_sysutils-testing gtest alone), passes its tests
#    under testing_main, and a test that leaves a perf lock held fails with
#    the lock named;
#  - qrncam-transcripts shows how an actual transcript differs;
#  - no installed binary looks for anything in the source or build tree;
#  - the example of the test harness, as installed, builds through
#    find_package and its tests pass.
# Usage: check-package.sh PREFIX WORKDIR
set -euo pipefail
prefix=$(realpath "$1")
work=$(realpath -m "$2")
root=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "$work/consumer"

if grep -rqi 'libbase\|android::base' "$prefix/lib/cmake/qrncam_sysutils"; then
  echo "package: the CMake package asks for libbase, which the library does not link" >&2; exit 1
fi

# RUNPATHs of the installed libraries: relative to them, or system places.
while IFS= read -r -d '' elf; do
  runpath=$(readelf -d "$elf" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
  case ":$runpath:" in
    *":$root"*) echo "package: $elf looks in the tree: $runpath" >&2; exit 1 ;;
  esac
done < <(find "$prefix/lib" -name '*.so*' -type f -print0)
readelf -d "$prefix/lib/libqrncam_sysutils.so" | grep -q 'RUNPATH.*\$ORIGIN/perf' || {
  echo "package: libqrncam_sysutils.so has no RUNPATH to the perf-lock library" >&2; exit 1; }

consumer="$root/tests/package/consumer"
check_perf() {  # the perf-lock library a program ended up with must be the installed one
  local found
  found=$("$@") || { echo "package: $1 failed" >&2; return 1; }
  [ "$(realpath "$found")" = "$prefix/lib/perf/libqrnperf_client_vendor.so" ] || {
    echo "package: $1 loaded the perf-lock library from $found" >&2; return 1; }
}
check_tests() {  # $1: the capture stage's tests, $2: the test that leaves a perf lock held
  "$1" >"$work/stage.out" 2>&1 || { cat "$work/stage.out" >&2; echo "package: $1 failed" >&2; return 1; }
  if "$2" >"$work/leaky.out" 2>&1; then
    cat "$work/leaky.out" >&2; echo "package: $2 passed, leaving a perf lock held" >&2; return 1
  fi
  grep -qF "the test left a perf lock behind: lock 1 {0x01404300, 0x00000001, 0x01404100, 0x00000001} until released (camera perf mode: enterCameraPerf)" \
    "$work/leaky.out" || { cat "$work/leaky.out" >&2; echo "package: $2 did not name the lock it left" >&2; return 1; }
}

# Through find_package.
cmake -S "$consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
check_perf "$work/consumer/perf_where"
check_tests "$work/consumer/stage_test" "$work/consumer/leaky_test"

# Through pkg-config alone: the library, then the harness with GoogleTest.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
mkdir -p "$work/pc"
# shellcheck disable=SC2046 # pkg-config's output is a list of flags
g++ -std=c++17 "$consumer/perf_where.cpp" -o "$work/pc/perf_where" $(pkg-config --cflags --libs qrncam_sysutils)
check_perf "$work/pc/perf_where"
for test in stage_test leaky_test; do
  # shellcheck disable=SC2046
  g++ -std=c++17 "$consumer/$test.cpp" "$consumer/capture_stage.cpp" -o "$work/pc/$test" \
    $(pkg-config --cflags --libs qrncam_sysutils-testing gtest)
done
check_tests "$work/pc/stage_test" "$work/pc/leaky_test"
[ "$(pkg-config --libs qrncam_sysutils-testing_main)" = "$(pkg-config --libs qrncam_sysutils-testing)" ] || {
  echo "package: qrncam_sysutils-testing_main is not the harness" >&2; exit 1; }

# The transcript command, installed, on an actual transcript of its own.
printf '# kept\n== a\n-> 1\n' > "$work/kept.txt"
printf '# %s\n# kept\n== a\n-> 2\n' "$work/kept.txt" > "$work/actual.txt"
if "$prefix/bin/qrncam-transcripts" "$work/actual.txt" > "$work/transcripts.out"; then
  echo "package: qrncam-transcripts found no difference" >&2; exit 1
fi
grep -qx -- '+-> 2' "$work/transcripts.out" || { cat "$work/transcripts.out" >&2; exit 1; }

example="$prefix/share/qrncam_sysutils/example"
cmake -S "$example" -B "$work/example" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/example" >/dev/null
ctest --test-dir "$work/example" --output-on-failure
echo "package: find_package and pkg-config consumers (a program, the capture stage's tests and a test that"
echo "  leaves a perf lock, which failed naming it), qrncam-transcripts and the harness example built and ran"
