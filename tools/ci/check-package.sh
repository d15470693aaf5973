#!/usr/bin/env bash
# Checks an installed tree as its users meet it:
#  - a project that finds it with find_package(qrncam_sysutils) gets
#    imported targets in the package's namespace only, none of them global,
#    and not a single new cache entry besides qrncam_sysutils_DIR;
#  - a program built through find_package, and one through pkg-config, take
#    a camera perf lock, which works only if the installed library finds the
#    installed perf-lock library through its own RUNPATH;
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

cat > "$work/consumer/main.cpp" <<'CPP'
// Takes and gives back a camera perf lock, which works only when the library
// has found the perf-lock library, and prints where that library was found.
#include <Cam3CPUCtrl.h>
#include <dlfcn.h>
#include <stdio.h>
int main() {
    Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
    const bool locked = ctrl->enterCameraPerf();
    ctrl->exitCameraPerf();
    ctrl->destroyInstance();
    void* perf = dlopen("libqrnperf_client_vendor.so", RTLD_NOW | RTLD_NOLOAD);
    Dl_info info{};
    if (!locked || perf == nullptr || dladdr(dlsym(perf, "perf_lock_acq"), &info) == 0) {
        fprintf(stderr, "consumer: no perf lock\n");
        return 1;
    }
    printf("%s\n", info.dli_fname);
    return 0;
}
CPP
cat > "$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
get_cmake_property(cache_before CACHE_VARIABLES)
find_package(qrncam_sysutils REQUIRED)
get_cmake_property(cache_after CACHE_VARIABLES)
list(REMOVE_ITEM cache_after ${cache_before} qrncam_sysutils_DIR)
if(cache_after)
  message(FATAL_ERROR "find_package(qrncam_sysutils) added cache entries: ${cache_after}")
endif()
get_directory_property(imported IMPORTED_TARGETS)
foreach(t IN LISTS imported)
  get_target_property(global ${t} IMPORTED_GLOBAL)
  if(NOT t MATCHES "^qrncam_sysutils::" OR global)
    message(FATAL_ERROR "find_package(qrncam_sysutils) created ${t} (global: ${global})")
  endif()
endforeach()
if(NOT TARGET qrncam_sysutils::testing)
  message(FATAL_ERROR "the package has no qrncam_sysutils::testing")
endif()
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE qrncam_sysutils::qrncam_sysutils)
CMAKE

# The perf-lock library a consumer ended up with must be the installed one.
check_perf() {
  local found
  found=$("$@") || { echo "package: $1 failed" >&2; return 1; }
  [ "$(realpath "$found")" = "$prefix/lib/perf/libqrnperf_client_vendor.so" ] || {
    echo "package: $1 loaded the perf-lock library from $found" >&2; return 1; }
}

cmake -S "$work/consumer" -B "$work/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
check_perf "$work/consumer/build/consumer"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046 # pkg-config's output is a list of flags
g++ -std=c++17 "$work/consumer/main.cpp" -o "$work/consumer/pc" $(pkg-config --cflags --libs qrncam_sysutils)
check_perf "$work/consumer/pc"

example="$prefix/share/qrncam_sysutils/example"
cmake -S "$example" -B "$work/example" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/example" >/dev/null
ctest --test-dir "$work/example" --output-on-failure
echo "package: find_package and pkg-config consumers and the harness example built and ran"
