#!/usr/bin/env bash
# Installs what a fresh Debian bookworm machine lacks to build, run and test
# the project (all lanes). Quick when everything is already there.
# Usage: tools/ci/install-deps.sh [--cross]   (--cross adds the arm64 lane's needs)
set -euo pipefail
cross=0
[ "${1:-}" = "--cross" ] && cross=1

pkgs=(cmake ninja-build g++ file python3 clang clang-tidy clang-format libclang-rt-14-dev dpkg-dev pkg-config
      libgtest-dev libgmock-dev googletest libbenchmark-dev libboost-dev valgrind
      libc++-dev libc++abi-dev blueprint-tools mini-soong
      android-libutils-dev android-liblog-dev android-libbase-dev android-libcutils-dev)
cross_pkgs=(g++-aarch64-linux-gnu qemu-user android-libutils-dev:arm64 android-liblog-dev:arm64
            android-libbase-dev:arm64 android-libcutils-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
            libbenchmark-dev:arm64)

SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo

missing=()
for p in "${pkgs[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if [ "$cross" = 1 ]; then
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
    missing+=(__update__)
  fi
  for p in "${cross_pkgs[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
fi

# Source packages are needed for the TSan lane's instrumented libutils.
src=/etc/apt/sources.list.d/qrncam-debian-src.sources
if ! grep -rqs "deb-src" /etc/apt/sources.list /etc/apt/sources.list.d/ 2>/dev/null; then
  $SUDO tee "$src" >/dev/null <<'SRC'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  missing+=(__update__)
fi

if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  real=()
  for p in "${missing[@]}"; do [ "$p" = __update__ ] || real+=("$p"); done
  if [ "${#real[@]}" -gt 0 ]; then
    echo "install-deps: installing ${real[*]}"
    $SUDO apt-get install -y -qq --no-install-recommends "${real[@]}" >/dev/null
  fi
fi
