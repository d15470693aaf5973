#!/usr/bin/env bash
# Builds and runs a small consumer of the installed library, once through
# find_package(qrncam_sysutils) and once through pkg-config.
set -euo pipefail
prefix=$1
work=$2
mkdir -p "$work/consumer"
cat > "$work/consumer/main.cpp" <<'CPP'
#include <SensorListener.h>
#include <stdio.h>
int main() {
    SensorListener* l = SensorListener::createInstance("consumer");
    printf("sensor listener: %s\n", l ? "present" : "none");
    return l == nullptr ? 0 : 1;
}
CPP
cat > "$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qrncam_sysutils REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE qrncam_sysutils::qrncam_sysutils)
CMAKE
cmake -S "$work/consumer" -B "$work/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
"$work/consumer/build/consumer"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" g++ -std=c++17 "$work/consumer/main.cpp" -o "$work/consumer/pc" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs qrncam_sysutils)
"$work/consumer/pc"
echo "package: find_package and pkg-config consumers built and ran"
