// Feeds arbitrary bytes as /proc/meminfo to both size functions and the
// low-RAM test. Beyond the sanitizers, every size must be -1 or a whole
// number of KiB, and the low-RAM answer must follow from the total.
#include <MemoryInfo.h>
#include <stdlib.h>

#include "FuzzFile.h"

using namespace NSCam::NSMemoryInfo;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const qrnfuzz::FuzzFile file("/proc/meminfo", "meminfo");
    file.write(data, size);

    int64_t freeBytes = getFreeMemorySize();
    int64_t total = getSystemTotalMemorySize();
    if (freeBytes != -1 && freeBytes % 1024 != 0) abort();
    if (total != -1 && (total < 0 || total % 1024 != 0)) abort();

    // The total is never negative except -1, which is below every positive
    // threshold; a non-negative total is low-RAM at 1 GiB only below it.
    bool low = isLowRamDevice(1.0f);
    if (total == -1 && !low) abort();
    if (total >= (int64_t{1} << 30) && low) abort();
    if (total >= 0 && total < (int64_t{1} << 29) && !low) abort();
    return 0;
}
