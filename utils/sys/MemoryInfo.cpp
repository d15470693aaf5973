#include <MemoryInfo.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <memory>

#include "KernelPath.h"

namespace NSCam {
namespace NSMemoryInfo {
namespace {

// The file's lines are short; getline enlarges the buffer if one is not.
constexpr size_t kLineBufferSize = 256;

// Wrapping 32-bit addition: the kB values are summed in 32 bits on purpose,
// and signed overflow must wrap rather than be undefined.
int32_t add32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// kB to bytes: the sign-extended value times 1024.
int64_t kbToBytes(int32_t kb) {
    return static_cast<int64_t>(kb) * 1024;
}

// Hands every line of the file to onLine, in order. The buffer starts at
// 256 bytes and getline enlarges it for a longer line.
template <typename OnLine>
void forEachLine(FILE* file, OnLine&& onLine) {
    size_t size = kLineBufferSize;
    char* line = static_cast<char*>(malloc(size));
    while (getline(&line, &size, file) >= 0) onLine(line);
    free(line);
}

// getSystemTotalMemorySize as the process's symbol lookup finds it, which
// is what a call from outside the library reaches: a process that supplies
// its own definition is answered from it. A plain call from this file could
// be bound to the library's own copy, or inlined, by the compiler whatever
// the platform's interposition rules say; a lookup at run time cannot.
// Without a dynamic entry (a static link) the library's own copy is used.
using TotalMemoryFn = int64_t (*)();

TotalMemoryFn exportedTotalMemoryFn() {
    void* sym = dlsym(RTLD_DEFAULT, "_ZN5NSCam12NSMemoryInfo24getSystemTotalMemorySizeEv");
    return sym != nullptr ? reinterpret_cast<TotalMemoryFn>(sym) : &getSystemTotalMemorySize;
}

}  // namespace

int64_t getFreeMemorySize() {
    int32_t memFree = -1;
    int32_t buffers = -1;
    int32_t cached = -1;

    std::unique_ptr<FILE, std::function<void(FILE*)>> file(fopen(QRN_KERNEL_PATH("/proc/meminfo"), "r"),
                                                           [](FILE* f) { fclose(f); });
    if (!file) return -1;

    // Every line is looked at, so a repeated key takes its last value. The
    // prefixes are compared from the first character: "SwapCached" is not
    // "Cached".
    forEachLine(file.get(), [&](const char* line) {
        if (strncmp(line, "MemFree", 7) == 0) {
            sscanf(line, "%*s%d", &memFree);
        } else if (strncmp(line, "Buffers", 7) == 0) {
            sscanf(line, "%*s%d", &buffers);
        } else if (strncmp(line, "Cached", 6) == 0) {
            sscanf(line, "%*s%d", &cached);
        }
    });
    file.reset();

    if (memFree < 0 || buffers < 0 || cached < 0) return -1;
    return kbToBytes(add32(add32(memFree, buffers), cached));
}

int64_t getSystemTotalMemorySize() {
    int32_t total = -1;

    std::unique_ptr<FILE, std::function<void(FILE*)>> file(fopen(QRN_KERNEL_PATH("/proc/meminfo"), "r"),
                                                           [](FILE* f) { fclose(f); });
    if (!file) return -1;

    // Seven characters of "MemTotal": callers have always been matched this
    // way, so any "MemTota..." line counts.
    forEachLine(file.get(), [&](const char* line) {
        if (strncmp(line, "MemTota", 7) == 0) sscanf(line, "%*s%d", &total);
    });
    file.reset();

    if (total < 0) return -1;
    return kbToBytes(total);
}

bool isLowRamDevice(float thresholdGiB) {
    if (thresholdGiB <= 0.0) return false;
    float gib = static_cast<float>(exportedTotalMemoryFn()());
    // Three single-precision steps, rounding after each: a size right at a
    // threshold is judged by exactly this arithmetic. An unreadable
    // total (-1) becomes a tiny negative size, which is below every positive
    // threshold: such a device is treated as low-RAM.
    gib *= 0.0009765625f;
    gib *= 0.0009765625f;
    gib *= 0.0009765625f;
    return gib < thresholdGiB;
}

}  // namespace NSMemoryInfo
}  // namespace NSCam
