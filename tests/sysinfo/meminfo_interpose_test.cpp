// This program defines its own NSCam::NSMemoryInfo::getSystemTotalMemorySize,
// as a camera process may to answer for a device. The library's
// isLowRamDevice must call it rather than the library's own copy.
#include <MemoryInfo.h>
#include <gtest/gtest.h>

#include <qrnhost/kernelfs.h>
#include <atomic>

#include "Capture.h"

namespace {
std::atomic<int64_t> gTotal{0};
std::atomic<int> gCalls{0};
}  // namespace

namespace NSCam {
namespace NSMemoryInfo {
int64_t getSystemTotalMemorySize() {
    ++gCalls;
    return gTotal.load();
}
}  // namespace NSMemoryInfo
}  // namespace NSCam

namespace {

using NSCam::NSMemoryInfo::isLowRamDevice;

class Interposed : public ::testing::Test {
  protected:
    void SetUp() override {
        // What the library's own copy would read: 1 kB, low-RAM at any size.
        qrntest::writeFile(mDir.file("meminfo"), "MemTotal: 1 kB\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n");
        qrnhost::kernelfs::redirect("/proc/meminfo", mDir.file("meminfo"));
        gCalls = 0;
    }
    void TearDown() override { qrnhost::kernelfs::reset(); }
    qrntest::TempDir mDir;
};

TEST_F(Interposed, LowRamIsJudgedFromTheReplacement) {
    gTotal = 8LL << 30;
    EXPECT_FALSE(isLowRamDevice(4.0f));
    EXPECT_FALSE(isLowRamDevice(8.0f));
    EXPECT_TRUE(isLowRamDevice(8.5f));
    EXPECT_EQ(3, gCalls.load());

    gTotal = (3LL << 30) + (1LL << 29);  // 3.5 GiB
    EXPECT_TRUE(isLowRamDevice(4.0f));
    EXPECT_FALSE(isLowRamDevice(3.5f));

    gTotal = -1;
    EXPECT_TRUE(isLowRamDevice(0.5f));
    EXPECT_EQ(6, gCalls.load());
}

TEST_F(Interposed, NoCallForThresholdsOfZeroAndBelow) {
    gTotal = 1;
    EXPECT_FALSE(isLowRamDevice(0.0f));
    EXPECT_FALSE(isLowRamDevice(-2.0f));
    EXPECT_EQ(0, gCalls.load());
}

// The library's other entries are its own: free memory still comes from the
// file.
TEST_F(Interposed, FreeMemoryStillReadsTheFile) {
    EXPECT_EQ(3 * 1024, NSCam::NSMemoryInfo::getFreeMemorySize());
    EXPECT_EQ(0, gCalls.load());
}

}  // namespace
