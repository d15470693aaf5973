#!/usr/bin/env bash
# Checks the dynamic symbol table of libqrncam_sysutils.so: every defined
# symbol belongs to an external interface, and each interface is there.
set -euo pipefail
lib=${1:?usage: $0 LIBRARY}
nm=${NM:-nm}
command -v "$nm" >/dev/null || nm=aarch64-linux-gnu-nm
syms=$("$nm" -D --defined-only "$lib" | awk '{print $3}' | c++filt)
allowed='^(CpuCtrl::|Utils::Cam3CPUCtrl::|NSCam::IFileCache::|FileCache::|writeToFile\(|NSCam::JobQueue<|NSCam::NSMemoryInfo::|NSCam::NSThermalInfo::|SensorListener::|SensorListenerImp::|SensorListenerImp_callback\(|(vtable|typeinfo|typeinfo name) for (CpuCtrl|Utils::Cam3CPUCtrl|NSCam::IFileCache|FileCache|NSCam::JobQueue<.*|SensorListener|SensorListenerImp)$|VTT for FileCache$|QRNCAM_|LIBQRNCAM)'
bad=$(echo "$syms" | grep -vE "$allowed" || true)
if [ -n "$bad" ]; then
  echo "symbols exported that are not part of the interface:"; echo "$bad"; exit 1
fi
status=0
for want in 'CpuCtrl::createInstance()' 'Utils::Cam3CPUCtrl::createInstance()' \
            'NSCam::IFileCache::open(char const*)' 'writeToFile(char*' 'FileCache::FileCache(char const*)' \
            'NSCam::JobQueue<void (), (NSCam::JQPriority)0>::addJob(' \
            'NSCam::NSMemoryInfo::getFreeMemorySize()' 'NSCam::NSMemoryInfo::getSystemTotalMemorySize()' \
            'NSCam::NSMemoryInfo::isLowRamDevice(float)' 'NSCam::NSThermalInfo::getSystemThermalValue()' \
            'NSCam::NSThermalInfo::setThermalMode(int)' 'SensorListener::createInstance(char const*)' \
            'SensorListenerImp::SensorListenerImp(char const*)' 'SensorListenerImp_callback(int, int, void*)'; do
  echo "$syms" | grep -qF "$want" || { echo "missing export: $want"; status=1; }
done
[ $status = 0 ] && echo "exports: $(echo "$syms" | wc -l) symbols, all of the interface"
exit $status
