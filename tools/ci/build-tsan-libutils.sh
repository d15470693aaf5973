#!/usr/bin/env bash
# Builds Debian's own libutils (android-platform-tools source package) with
# ThreadSanitizer into OUTDIR, for the TSan lane.
#
# Prebuilt libutils is not instrumented, and TSan does not model the acquire
# fence that RefBase puts after its release decrements, so every last
# decStrong/decWeak looks like a race with the destructor it triggers. This
# build instruments libutils and makes those two decrements acquire-release,
# which orders the same accesses the fence orders and lets TSan see it. No
# other project's source is kept in this repository: it is fetched here.
#
# apt must know the source package: tools/ci/deb-src.py adds source entries
# derived from the machine's own when it does not.
set -euo pipefail
out=$(realpath -m "${1:?usage: $0 OUTDIR}")
if [ -f "$out/libutils.so.0" ]; then echo "tsan libutils: $out already built"; exit 0; fi
"$(dirname "$0")/deb-src.py" android-platform-tools
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
apt-get source -qq --download-only android-platform-tools >/dev/null 2>&1 || {
  echo "tsan libutils: cannot fetch the android-platform-tools source package" >&2; exit 1; }
tar -xzf android-platform-tools_*.orig.tar.gz --strip-components=1 --wildcards \
  '*/system/core/libutils/*' '*/system/core/include/*' '*/system/core/base/include/*' \
  '*/system/core/libcutils/include/*' '*/system/core/liblog/include/*' \
  '*/system/core/libbacktrace/include/*' '*/system/core/libprocessgroup/include/*' \
  '*/system/core/libsystem/include/*'
tar -xJf android-platform-tools_*.debian.tar.xz debian/patches/system/core/Vector-cast.patch
patch -s -p1 < debian/patches/system/core/Vector-cast.patch

ref=system/core/libutils/RefBase.cpp
n=$(grep -c 'fetch_sub(1, std::memory_order_release)' "$ref")
[ "$n" = 2 ] || { echo "tsan libutils: expected 2 release decrements in RefBase.cpp, found $n" >&2; exit 1; }
sed -i 's/fetch_sub(1, std::memory_order_release)/fetch_sub(1, std::memory_order_acq_rel)/' "$ref"

srcs="CallStack FileMap JenkinsHash Looper misc NativeHandle Printer ProcessCallStack PropertyMap RefBase
      SharedBuffer StopWatch String16 String8 StrongPointer SystemClock Threads Timers Tokenizer Unicode VectorImpl"
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
objs=()
for s in $srcs; do
  ${CXX:-g++} -std=gnu++2a -fPIC -O1 -g -fsanitize=thread -w -DLIBUTILS_NATIVE=1 \
    -Isystem/core/base/include -Isystem/core/include -Isystem/core/libbacktrace/include \
    -Isystem/core/libcutils/include -Isystem/core/liblog/include -Isystem/core/libprocessgroup/include -Isystem/core/libsystem/include \
    -c "system/core/libutils/$s.cpp" -o "$s.o" &
  objs+=("$s.o")
  if [ "$(jobs -r | wc -l)" -ge 2 ]; then wait -n; fi
done
wait
mkdir -p "$out"
${CXX:-g++} -shared -fsanitize=thread -o "$out/libutils.so.0" "${objs[@]}" -Wl,-soname,libutils.so.0 \
  -L/usr/lib/$arch/android -Wl,-rpath,/usr/lib/$arch/android -lbacktrace -lcutils -llog -lpthread
ln -sf libutils.so.0 "$out/libutils.so"
echo "tsan libutils: built $out/libutils.so.0"
