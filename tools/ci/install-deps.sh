#!/usr/bin/env bash
# Installs what a fresh Debian bookworm machine lacks to build, run and test
# the project (all lanes). When nothing is missing it does nothing and prints
# nothing. Source packages (the TSan lane's) are not its business: see
# tools/ci/deb-src.py.
# Usage: tools/ci/install-deps.sh [--cross]   (--cross adds the arm64 lane's needs)
set -euo pipefail
cross=0
[ "${1:-}" = "--cross" ] && cross=1

pkgs=(cmake ninja-build g++ file python3 python3-apt clang clang-tidy clang-format libclang-rt-14-dev dpkg-dev pkg-config
      libgtest-dev libgmock-dev googletest libbenchmark-dev libboost-dev valgrind nlohmann-json3-dev
      libc++-dev libc++abi-dev blueprint-tools mini-soong
      android-libutils-dev android-liblog-dev android-libbase-dev android-libcutils-dev libminizip-dev)
cross_pkgs=(g++-aarch64-linux-gnu qemu-user android-libutils-dev:arm64 android-liblog-dev:arm64
            android-libbase-dev:arm64 android-libcutils-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
            libbenchmark-dev:arm64 libminizip-dev:arm64)

SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo

native=$(dpkg --print-architecture)
wanted=("${pkgs[@]}")
update=0
if [ "$cross" = 1 ]; then
  wanted+=("${cross_pkgs[@]}")
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
    update=1
  fi
fi

# Packages are checked by architecture. Once a package is installed for
# arm64 too, its bare name is ambiguous to dpkg -s, which then fails as if
# it were missing; dpkg-query -W lists every installed instance instead.
# A package without a ":arch" is wanted for the native architecture, and an
# "all" package serves any.
declare -A installed=()
names=("${wanted[@]%%:*}")
while read -r status pkg; do
  [ "$status" = ii ] && installed[$pkg]=1
done < <(dpkg-query -W -f='${db:Status-Abbrev} ${Package}:${Architecture}\n' "${names[@]}" 2>/dev/null || true)
missing=()
for p in "${wanted[@]}"; do
  name=${p%%:*}
  arch=$native
  [ "$name" = "$p" ] || arch=${p#*:}
  [ -n "${installed[$name:$arch]:-}" ] || [ -n "${installed[$name:all]:-}" ] || missing+=("$p")
done

[ "${#missing[@]}" -gt 0 ] || [ "$update" = 1 ] || exit 0
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
