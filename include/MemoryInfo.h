// Memory questions for camera components, answered from "/proc/meminfo",
// which is read afresh on every call. Nothing is logged or cached; any
// thread may call at any time. On the host, qrnhost::testing::KernelNodes
// puts a file of the test's behind it.
#pragma once

#include <stdint.h>

namespace NSCam {
namespace NSMemoryInfo {

// MemFree + Buffers + Cached, in bytes; -1 when the file cannot be read or a
// value is missing or negative. The kB values are added as 32-bit integers,
// so a sum beyond 2^31 - 1 kB wraps before it is scaled.
int64_t getFreeMemorySize();

// MemTotal in bytes, or -1.
int64_t getSystemTotalMemorySize();

// True when the total memory in GiB is below thresholdGiB. A threshold of
// zero or less is false without reading anything. An unreadable total (-1)
// counts as low-RAM for every positive threshold.
bool isLowRamDevice(float thresholdGiB);

}  // namespace NSMemoryInfo
}  // namespace NSCam
