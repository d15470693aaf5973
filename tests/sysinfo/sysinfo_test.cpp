// Memory and thermal information, over files put behind the kernel paths.
#include <MemoryInfo.h>
#include <ThermalInfo.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qrnhost/kernelfs.h>
#include <climits>
#include <limits>
#include <stdexcept>
#include <string>

#include "Capture.h"

namespace {

using namespace NSCam::NSMemoryInfo;
using namespace NSCam::NSThermalInfo;
using qrntest::Capture;
using qrntest::readFile;
using qrntest::Sink;
constexpr const char* kMeminfo = "/proc/meminfo";
constexpr const char* kThermalValueNode = "/proc/qrntz/qrntsAP";
constexpr const char* kThermalModeNode = "/proc/driver/cl_apu_status";

class KernelFilesTest : public ::testing::Test {
  protected:
    void TearDown() override { qrnhost::kernelfs::reset(); }
    // Puts content behind the fixed path; returns the file's real path.
    std::string place(const char* fixedPath, const std::string& content) {
        std::string p = mDir.file(std::to_string(mNext++));
        qrntest::writeFile(p, content);
        qrnhost::kernelfs::redirect(fixedPath, p);
        return p;
    }
    void remove(const char* fixedPath) { qrnhost::kernelfs::redirect(fixedPath, mDir.file("absent/node")); }

    qrntest::TempDir mDir;
    int mNext = 0;
};

// Counts IN_OPEN events of a file. The open call queues its event, but an
// unread event equal to the last one is merged into it: call opens() after
// each open to be counted.
class OpenWatch {
  public:
    explicit OpenWatch(const std::string& path) : mFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(inotify_add_watch(mFd, path.c_str(), IN_OPEN), 0);
    }
    ~OpenWatch() { close(mFd); }

    int opens() {
        alignas(inotify_event) char buf[4096];
        for (ssize_t n; (n = read(mFd, buf, sizeof buf)) > 0;) {
            for (char* p = buf; p < buf + n; p += sizeof(inotify_event) + reinterpret_cast<inotify_event*>(p)->len)
                ++mOpens;
        }
        return mOpens;
    }

  private:
    int mFd;
    int mOpens = 0;
};

// A real file's layout, with the lines around the keys that a loose match
// would take for them. An empty value leaves its line out.
std::string meminfo(const std::string& memFree, const std::string& buffers, const std::string& cached,
                    const std::string& total = "3956000") {
    auto line = [](const char* key, const std::string& v) { return v.empty() ? "" : key + v + " kB\n"; };
    return line("MemTotal:       ", total) + line("MemFree:        ", memFree) + "MemAvailable:    2500000 kB\n" +
           line("Buffers:        ", buffers) + line("Cached:         ", cached) +
           "SwapCached:        77777 kB\nActive(Buffers): 1 kB\nHugePages_Total:       0\n";
}

class MemoryInfo : public KernelFilesTest {};

TEST_F(MemoryInfo, Contents) {
    const std::string longLine = "Comment: " + std::string(5000, 'x') + "\n";
    struct Case {
        const char* what;
        std::string content;
        int64_t free, total;
    } cases[] = {
        {"all keys", meminfo("1000", "200", "300"), 1536000, 4050944000},
        {"no MemFree", meminfo("", "200", "300"), -1, 4050944000},
        {"no Buffers", meminfo("1000", "", "300"), -1, 4050944000},
        {"no Cached (SwapCached is no Cached)", meminfo("1000", "200", ""), -1, 4050944000},
        {"no MemTotal", meminfo("1000", "200", "300", ""), 1536000, -1},
        {"empty", "", -1, -1},
        {"negative values", meminfo("1000", "-200", "300", "-5"), -1, -1},
        {"the last of repeated keys wins",
         "MemTotal: 1\nMemFree: 1\nBuffers: 1\nCached: 1\nMemTotal: 2\nMemFree: 10\nBuffers: 20\nCached: 30\n",
         60 * 1024, 2 * 1024},
        {"a line without a number keeps the earlier value", meminfo("1000", "200", "300") + "Cached:\nMemTotal: x\n",
         1536000, 4050944000},
        {"keys further in the line", " MemTotal: 9\nXMemFree: 9\n\tCached: 9\nMemFree: 1\nBuffers: 2\n", -1, -1},
        {"only the prefix is compared", "MemTotaX: 5 kB\nMemFreeZ 1\nBuffers_2 2\nCachedness: 3 kB\n", 6 * 1024,
         5 * 1024},
        {"lines longer than the first buffer, no final newline",
         longLine + "MemFree:" + std::string(300, ' ') + "1000\n" + longLine + "Buffers: 200\nCached: 300\nMemTotal: 7",
         1536000, 7 * 1024},
        {"32-bit sum wraps negative", meminfo("2147483647", "1", "0"), -2147483648LL * 1024, 4050944000},
        {"32-bit sum wraps to zero", meminfo("2147483647", "2147483647", "2"), 0, 4050944000},
        {"largest sum without a wrap", meminfo("2147483640", "3", "4", "0"), 2147483647LL * 1024, 0},
    };
    for (const Case& c : cases) {
        place(kMeminfo, c.content);
        EXPECT_EQ(c.free, getFreeMemorySize()) << c.what;
        EXPECT_EQ(c.total, getSystemTotalMemorySize()) << c.what;
    }
}

TEST_F(MemoryInfo, MissingFileIsLowRamForAnyPositiveThreshold) {
    remove(kMeminfo);
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());
    for (float t : {std::numeric_limits<float>::denorm_min(), 0.5f, 1e30f}) EXPECT_TRUE(isLowRamDevice(t)) << t;
}

TEST_F(MemoryInfo, LowRamThresholdInGiB) {
    place(kMeminfo, meminfo("1", "1", "1", "3956000"));  // about 3.77 GiB
    EXPECT_TRUE(isLowRamDevice(4.0f));
    EXPECT_FALSE(isLowRamDevice(3.5f));
    // Strictly below: exactly 4 GiB is not low-RAM at 4.
    place(kMeminfo, meminfo("1", "1", "1", "4194304"));
    EXPECT_FALSE(isLowRamDevice(4.0f));
    EXPECT_TRUE(isLowRamDevice(4.0001f));
    // Single precision: 32 GiB less one KiB rounds to 32 GiB, not below 32.
    place(kMeminfo, meminfo("1", "1", "1", "33554431"));
    EXPECT_FALSE(isLowRamDevice(32.0f));
}

TEST_F(MemoryInfo, EachCallOpensTheFileUnlessTheThresholdIsNotPositive) {
    OpenWatch watch(place(kMeminfo, "MemTotal: 1 kB\n"));
    for (float t : {0.0f, -0.0f, -1.0f, -std::numeric_limits<float>::infinity()}) EXPECT_FALSE(isLowRamDevice(t));
    EXPECT_EQ(0, watch.opens());
    EXPECT_TRUE(isLowRamDevice(1.0f));
    EXPECT_EQ(1, watch.opens());
    getFreeMemorySize();
    EXPECT_EQ(2, watch.opens());
    getSystemTotalMemorySize();
    EXPECT_EQ(3, watch.opens());
}

// The host seam: a directory standing in for the root, below an explicit
// redirection.
TEST_F(MemoryInfo, KernelRootFromTheEnvironment) {
    ASSERT_EQ(0, mkdir((mDir.path() + "/proc").c_str(), 0755));
    qrntest::writeFile(mDir.path() + "/proc/meminfo", "MemTotal: 2 kB\n");
    ASSERT_EQ(0, setenv(qrnhost::kernelfs::kRootEnv, mDir.path().c_str(), 1));
    EXPECT_EQ(2 * 1024, getSystemTotalMemorySize());
    place(kMeminfo, "MemTotal: 3 kB\n");
    EXPECT_EQ(3 * 1024, getSystemTotalMemorySize());
    unsetenv(qrnhost::kernelfs::kRootEnv);
}

class ThermalInfo : public KernelFilesTest {};

TEST_F(ThermalInfo, ReadsTheFirstTokenAsADecimalInt) {
    struct Case {
        const char* content;
        int value;
    } cases[] = {
        {"452\n", 452},          {"  -5 and further words\n", -5},
        {"\t\n 17", 17},         {"+8\n", 8},
        {"0x1A\n", 0},  // decimal only
        {"012\n", 12},           {"37500mC\n", 37500},
        {"2147483647", INT_MAX},
    };
    for (const Case& c : cases) {
        place(kThermalValueNode, c.content);
        EXPECT_EQ(c.value, getSystemThermalValue()) << '"' << c.content << '"';
    }
}

// A node without a number is the caller's to handle: the conversion's own
// exceptions come through.
TEST_F(ThermalInfo, ConversionFailuresReachTheCaller) {
    for (const char* content : {"", "   \n", "abc\n", "- 5\n"}) {
        place(kThermalValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::invalid_argument) << '"' << content << '"';
    }
    for (const char* content : {"2147483648\n", "-2147483649\n", "99999999999999999999\n"}) {
        place(kThermalValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::out_of_range) << '"' << content << '"';
    }
}

TEST_F(ThermalInfo, AbsentNodesLogAnErrorAndAnswerMinus2) {
    remove(kThermalValueNode);
    remove(kThermalModeNode);
    {
        Capture cap(3, 0, 0);
        EXPECT_EQ(-2, getSystemThermalValue());
        EXPECT_EQ(-2, setThermalMode(7));  // the open is tried before the mode
        // The Android log has the error suffix, the unified logger not.
        EXPECT_EQ((std::vector<std::string>{"[getSystemThermalValue] Open File Node Error "
                                            "(getSystemThermalValue){#81:utils/sys/ThermalInfo.cpp}",
                                            "[setThermalMode] Open File Node(/proc/driver/cl_apu_status) Error "
                                            "(setThermalMode){#104:utils/sys/ThermalInfo.cpp}"}),
                  cap.texts(Sink::Android, "ThermalInfo"));
        EXPECT_EQ((std::vector<std::string>{"[getSystemThermalValue] Open File Node Error",
                                            "[setThermalMode] Open File Node(/proc/driver/cl_apu_status) Error"}),
                  cap.texts(Sink::ULog, "ThermalInfo"));
        EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "ThermalInfo", cap.texts(Sink::Android)[0]));
    }
    Capture quiet(0, 0, 0);
    EXPECT_EQ(-2, getSystemThermalValue());
    EXPECT_EQ(-2, setThermalMode(0));
    EXPECT_TRUE(quiet.records().empty());
}

TEST_F(ThermalInfo, ModesAreWrittenAsOneByte) {
    std::string file = place(kThermalModeNode, "previous content\n");
    EXPECT_EQ(0, setThermalMode(0));
    EXPECT_EQ("0", readFile(file));
    EXPECT_EQ(0, setThermalMode(1));
    EXPECT_EQ("1", readFile(file));
}

TEST_F(ThermalInfo, InvalidModesWriteNothingButTheNodeIsOpenedFirst) {
    Capture cap(3, 5, 0x40007000);
    for (int mode : {2, -1, INT_MIN, INT_MAX}) {
        std::string file = place(kThermalModeNode, "1");
        OpenWatch watch(file);
        EXPECT_EQ(-22, setThermalMode(mode)) << mode;
        EXPECT_EQ(1, watch.opens()) << mode;
        EXPECT_EQ("", readFile(file)) << mode;  // truncated by the open
    }
    EXPECT_TRUE(cap.records().empty());
}

}  // namespace
