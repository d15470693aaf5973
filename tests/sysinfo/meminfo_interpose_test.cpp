// This program supplies its own getSystemTotalMemorySize, as a camera
// process may; the library's isLowRamDevice must be answered from it.
#include <MemoryInfo.h>
#include <gtest/gtest.h>

#include <qrnhost/kernelfs.h>

#include "Capture.h"

namespace {
int64_t gTotal = 0;
int gCalls = 0;
}  // namespace

int64_t NSCam::NSMemoryInfo::getSystemTotalMemorySize() {
    ++gCalls;
    return gTotal;
}

namespace {

using NSCam::NSMemoryInfo::isLowRamDevice;

TEST(Interposed, LowRamIsJudgedFromTheReplacement) {
    // What the library's own copy would read: 1 kB, low-RAM at any size.
    qrntest::TempDir dir;
    qrntest::writeFile(dir.file("meminfo"), "MemTotal: 1 kB\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n");
    qrnhost::kernelfs::redirect("/proc/meminfo", dir.file("meminfo"));

    gTotal = 8LL << 30;
    EXPECT_FALSE(isLowRamDevice(4.0f));
    EXPECT_TRUE(isLowRamDevice(8.5f));
    gTotal = -1;
    EXPECT_TRUE(isLowRamDevice(0.5f));
    EXPECT_FALSE(isLowRamDevice(0.0f));  // no call at all
    EXPECT_EQ(3, gCalls);
    // The library's other entries are its own.
    EXPECT_EQ(3 * 1024, NSCam::NSMemoryInfo::getFreeMemorySize());
    EXPECT_EQ(3, gCalls);
    qrnhost::kernelfs::reset();
}

}  // namespace
