// This program supplies its own getSystemTotalMemorySize, as a camera
// process may; the library's isLowRamDevice must be answered from it.
#include <MemoryInfo.h>
#include <gtest/gtest.h>

#include <qrnhost/capture.h>
#include <qrnhost/kernelfs.h>

static int gCalls = 0;

int64_t NSCam::NSMemoryInfo::getSystemTotalMemorySize() {
    ++gCalls;
    return 8LL << 30;
}

TEST(Interposed, LowRamIsJudgedFromTheReplacement) {
    using namespace NSCam::NSMemoryInfo;
    // What the library's own copy would read: 1 kB, low-RAM at any size.
    qrnhost::testing::TempDir dir;
    qrnhost::testing::writeFile(dir.file("meminfo"), "MemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\nMemTotal: 1 kB\n");
    qrnhost::kernelfs::redirect("/proc/meminfo", dir.file("meminfo"));
    EXPECT_EQ(3 * 1024, getFreeMemorySize());  // the redirection is in effect
    EXPECT_FALSE(isLowRamDevice(4.0f));
    EXPECT_TRUE(isLowRamDevice(8.5f));
    // A threshold at zero or below is answered without reading the memory size.
    for (float t : {0.0f, -0.0f, -1.0f}) EXPECT_FALSE(isLowRamDevice(t)) << t;
    EXPECT_EQ(2, gCalls);  // only the two positive thresholds asked for the size
}
