#include <MemoryInfo.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <limits>
#include <string>

#include "KernelFiles.h"

namespace {

using namespace NSCam::NSMemoryInfo;
using sysinfotest::kMeminfo;
using sysinfotest::OpenWatch;

// The layout of a real /proc/meminfo, with the lines around the keys that a
// loose match would take for them.
std::string meminfo(const std::string& memFree = "1000", const std::string& buffers = "200",
                    const std::string& cached = "300", const std::string& total = "3956000") {
    std::string s;
    if (!total.empty()) s += "MemTotal:       " + total + " kB\n";
    if (!memFree.empty()) s += "MemFree:        " + memFree + " kB\n";
    s += "MemAvailable:    2500000 kB\n";
    if (!buffers.empty()) s += "Buffers:        " + buffers + " kB\n";
    if (!cached.empty()) s += "Cached:         " + cached + " kB\n";
    s += "SwapCached:        77777 kB\n"
         "Active:          880000 kB\n"
         "SwapTotal:      2097148 kB\n"
         "SwapFree:       2000000 kB\n"
         "HugePages_Total:       0\n";
    return s;
}

class MemoryInfo : public sysinfotest::KernelFilesTest {};

TEST_F(MemoryInfo, SumsFreeBuffersAndCachedAndScalesTotal) {
    place(kMeminfo, meminfo());
    EXPECT_EQ(1536000, getFreeMemorySize());
    EXPECT_EQ(4050944000, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, EachMissingKeyFailsOnlyItsOwnFunction) {
    place(kMeminfo, meminfo("", "200", "300"));
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(4050944000, getSystemTotalMemorySize());

    place(kMeminfo, meminfo("1000", "", "300"));
    EXPECT_EQ(-1, getFreeMemorySize());

    place(kMeminfo, meminfo("1000", "200", ""));  // SwapCached is still there
    EXPECT_EQ(-1, getFreeMemorySize());

    place(kMeminfo, meminfo("1000", "200", "300", ""));
    EXPECT_EQ(-1, getSystemTotalMemorySize());
    EXPECT_EQ(1536000, getFreeMemorySize());

    place(kMeminfo, "");
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, ANegativeValueFails) {
    place(kMeminfo, meminfo("1000", "-200", "300", "-5"));
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());
    place(kMeminfo, meminfo("0", "0", "0", "0"));
    EXPECT_EQ(0, getFreeMemorySize());
    EXPECT_EQ(0, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, TheLastOfRepeatedKeysWins) {
    place(kMeminfo,
          "MemTotal: 1 kB\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n"
          "MemTotal: 2 kB\nMemFree: 10 kB\nBuffers: 20 kB\nCached: 30 kB\n");
    EXPECT_EQ(60 * 1024, getFreeMemorySize());
    EXPECT_EQ(2 * 1024, getSystemTotalMemorySize());

    // A repeated key that is negative the last time fails, even after a
    // good value.
    place(kMeminfo, meminfo() + "Buffers: -1 kB\n");
    EXPECT_EQ(-1, getFreeMemorySize());
}

TEST_F(MemoryInfo, ALineWithoutANumberKeepsTheEarlierValue) {
    place(kMeminfo, meminfo() + "Cached:\nMemTotal: many kB\n");
    EXPECT_EQ(1536000, getFreeMemorySize());
    EXPECT_EQ(4050944000, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, KeysMatchOnlyAtTheStartOfTheLine) {
    // Keys further in, or after a blank, are not keys.
    place(kMeminfo,
          " MemTotal: 9 kB\nXMemFree: 9 kB\nSwapCached: 9 kB\nActive(Buffers): 9 kB\n"
          "\tCached: 9 kB\nMemFree: 1 kB\nBuffers: 2 kB\n");
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());

    // Only the prefix is compared: seven characters of "MemTotal" and the
    // full shorter keys; the value is the first number after the first word.
    place(kMeminfo, "MemTotaX: 5 kB\nMemFreeZ 1\nBuffers_2 2\nCachedness: 3 kB\n");
    EXPECT_EQ(5 * 1024, getSystemTotalMemorySize());
    EXPECT_EQ(6 * 1024, getFreeMemorySize());
}

TEST_F(MemoryInfo, LinesLongerThanTheInitialBufferAreRead) {
    std::string longLine = "Comment: " + std::string(5000, 'x') + "\n";
    place(kMeminfo, longLine + "MemFree:" + std::string(300, ' ') + "1000 kB\n" + longLine +
                        "Buffers: 200 kB\nCached: 300\nMemTotal: 7 kB");  // no final newline
    EXPECT_EQ(1536000, getFreeMemorySize());
    EXPECT_EQ(7 * 1024, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, TheFreeSumWrapsIn32Bits) {
    // 2^31 - 1 + 1 wraps to -2^31 kB, scaled as a negative 64-bit value.
    place(kMeminfo, meminfo("2147483647", "1", "0"));
    EXPECT_EQ(-2147483648LL * 1024, getFreeMemorySize());
    // 2^32 wraps to zero.
    place(kMeminfo, meminfo("2147483647", "2147483647", "2"));
    EXPECT_EQ(0, getFreeMemorySize());
    // The largest values that do not wrap.
    place(kMeminfo, meminfo("2147483640", "3", "4", "2147483647"));
    EXPECT_EQ(2147483647LL * 1024, getFreeMemorySize());
    EXPECT_EQ(2147483647LL * 1024, getSystemTotalMemorySize());
}

TEST_F(MemoryInfo, MissingFile) {
    remove(kMeminfo);
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());
    // -1 byte is a tiny negative size, below every positive threshold.
    EXPECT_TRUE(isLowRamDevice(0.5f));
    EXPECT_TRUE(isLowRamDevice(std::numeric_limits<float>::denorm_min()));
    EXPECT_TRUE(isLowRamDevice(1e30f));
}

TEST_F(MemoryInfo, LowRamThresholdInGiB) {
    place(kMeminfo, meminfo());  // 3956000 kB, about 3.77 GiB
    EXPECT_TRUE(isLowRamDevice(4.0f));
    EXPECT_TRUE(isLowRamDevice(3.78f));
    EXPECT_FALSE(isLowRamDevice(3.77f));
    EXPECT_FALSE(isLowRamDevice(3.5f));

    // Strictly below: exactly 4 GiB is not low-RAM at 4.
    place(kMeminfo, meminfo("1", "1", "1", "4194304"));
    EXPECT_FALSE(isLowRamDevice(4.0f));
    EXPECT_TRUE(isLowRamDevice(4.0001f));

    // The byte count is rounded to single precision first: 32 GiB less one
    // KiB becomes exactly 32 GiB, which is not below 32.
    place(kMeminfo, meminfo("1", "1", "1", "33554431"));
    EXPECT_FALSE(isLowRamDevice(32.0f));
}

TEST_F(MemoryInfo, ThresholdsOfZeroAndBelowDoNotReadTheFile) {
    std::string file = place(kMeminfo, "MemTotal: 1 kB\n");
    OpenWatch watch(file);
    EXPECT_FALSE(isLowRamDevice(0.0f));
    EXPECT_FALSE(isLowRamDevice(-0.0f));
    EXPECT_FALSE(isLowRamDevice(-1.0f));
    EXPECT_FALSE(isLowRamDevice(-std::numeric_limits<float>::infinity()));
    EXPECT_EQ(0, watch.opens());
    // The watch does see the open of a positive threshold.
    EXPECT_TRUE(isLowRamDevice(1.0f));
    EXPECT_EQ(1, watch.opens());
    // And each size function reads the file afresh on every call. (Equal
    // events that are not yet read are merged, so look after each call.)
    getFreeMemorySize();
    EXPECT_EQ(2, watch.opens());
    getSystemTotalMemorySize();
    EXPECT_EQ(3, watch.opens());
    getSystemTotalMemorySize();
    EXPECT_EQ(4, watch.opens());
}

// The host seam: a directory standing in for the root, overridden by an
// explicit redirection.
TEST_F(MemoryInfo, KernelRootFromTheEnvironment) {
    ASSERT_EQ(0, mkdir((mDir.path() + "/proc").c_str(), 0755));
    qrntest::writeFile(mDir.path() + "/proc/meminfo", meminfo());
    ASSERT_EQ(0, setenv(qrnhost::kernelfs::kRootEnv, mDir.path().c_str(), 1));
    EXPECT_EQ(4050944000, getSystemTotalMemorySize());
    place(kMeminfo, "MemTotal: 3 kB\n");
    EXPECT_EQ(3 * 1024, getSystemTotalMemorySize());
    unsetenv(qrnhost::kernelfs::kRootEnv);
}

}  // namespace
