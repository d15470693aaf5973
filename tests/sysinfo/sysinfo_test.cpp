// Memory and thermal information, over files put behind the kernel paths,
// and the sensor listener stub.
#include <MemoryInfo.h>
#include <SensorListener.h>
#include <ThermalInfo.h>
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <qrnhost/testing.h>
#include <filesystem>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using namespace NSCam::NSMemoryInfo;
using namespace NSCam::NSThermalInfo;
namespace fs = std::filesystem;
constexpr const char* kMeminfo = "/proc/meminfo";
constexpr const char* kValueNode = "/proc/qrntz/qrntsAP";
constexpr const char* kModeNode = "/proc/driver/cl_apu_status";

struct SysInfo : ::testing::Test {
    qt::KernelNodes nodes;
};

// A real file's layout, with the lines around the keys that a loose match
// would take for them. An empty value leaves its line out.
std::string meminfo(const char* memFree, const char* buffers, const char* cached, const char* total = "3956000") {
    auto line = [](const char* key, const char* v) { return *v ? std::string(key) + v + " kB\n" : ""; };
    return line("MemTotal: ", total) + line("MemFree: ", memFree) + "MemAvailable: 2500000 kB\n" +
           line("Buffers: ", buffers) + line("Cached: ", cached) + "SwapCached: 77777 kB\nActive(Buffers): 1 kB\n";
}

TEST_F(SysInfo, MeminfoContents) {
    using Case = std::tuple<const char*, std::string, int64_t, int64_t>;  // what, content, free, total
    const Case cases[] = {
        {"all keys", meminfo("1000", "200", "300"), 1536000, 4050944000},
        {"no MemFree", meminfo("", "200", "300"), -1, 4050944000},
        {"no Buffers", meminfo("1000", "", "300"), -1, 4050944000},
        {"no Cached (SwapCached is not it)", meminfo("1000", "200", ""), -1, 4050944000},
        {"no MemTotal", meminfo("1000", "200", "300", ""), 1536000, -1},
        {"negative values", meminfo("1000", "-200", "300", "-5"), -1, -1},
        {"zero is a value, -1 is none", meminfo("0", "0", "0", "0"), 0, 0},
        {"-1 MemFree", meminfo("-1", "0", "0", "-1"), -1, -1},
        {"-1 Cached", meminfo("0", "0", "-1"), -1, 4050944000},
        {"repeats", meminfo("1", "1", "1", "1") + meminfo("10", "20", "30", "2") + "Cached:\n", 60 << 10, 2 << 10},
        {"further in", meminfo("1", "2", "3", "1") + " MemTotal: 9\nXMemFree: 9\n\tBuffers: 9\n", 6 << 10, 1 << 10},
        {"prefixes", "MemTotaX: 5 kB\nMemFreeZ 1\nBuffers_2 2\nCachedness: 3 kB\n", 6 << 10, 5 << 10},
        {"one character short", "MemFree 1\nBuffers 2\nCached 3\nMemTot: 5\nMemFre: 70\nBuffer: 80\nCache: 90\n",
         6 << 10, -1},
        {"long line", "MemFree:" + std::string(300, ' ') + "1\nBuffers: 2\nCached: 3\nMemTotal: 7", 6 << 10, 7 << 10},
        {"32-bit sum", meminfo("2147483647", "1", "0"), -2147483648LL * 1024, 4050944000},
    };
    for (const auto& [what, content, free, total] : cases) {
        nodes.set(kMeminfo, content);  // rewritten each time: nothing may be cached
        EXPECT_EQ(free, getFreeMemorySize()) << what;
        EXPECT_EQ(total, getSystemTotalMemorySize()) << what;
    }
}

TEST_F(SysInfo, LowRamDevice) {
    // Unreadable: both sizes -1, which counts as low-RAM at every positive threshold.
    nodes.remove(kMeminfo);
    EXPECT_EQ(-1, getFreeMemorySize());
    EXPECT_EQ(-1, getSystemTotalMemorySize());
    for (float t : {std::numeric_limits<float>::denorm_min(), 0.5f, 1e30f}) EXPECT_TRUE(isLowRamDevice(t)) << t;

    // A threshold of 0 or less judges no device low-RAM, not even this one.
    EXPECT_FALSE(isLowRamDevice(0.0f));
    EXPECT_FALSE(isLowRamDevice(-0.5f));

    nodes.set(kMeminfo, meminfo("1", "1", "1"));  // about 3.77 GiB
    EXPECT_TRUE(isLowRamDevice(4.0f));
    nodes.set(kMeminfo, meminfo("1", "1", "1", "4194303"));  // 1 KiB short of 4 GiB is below 4
    EXPECT_TRUE(isLowRamDevice(4.0f));
    nodes.set(kMeminfo, meminfo("1", "1", "1", "4194304"));  // exactly 4 GiB is not below 4
    EXPECT_FALSE(isLowRamDevice(4.0f));
    nodes.set(kMeminfo, meminfo("1", "1", "1", "33554431"));  // single precision rounds this up to 32 GiB
    EXPECT_FALSE(isLowRamDevice(32.0f));
}

TEST_F(SysInfo, ThermalValueIsTheFirstTokenAsADecimalInt) {
    for (auto [content, value] : {std::pair{"452\n", 452},
                                  {"  -5 and further words\n", -5},
                                  {"0x1A\n", 0},
                                  {"2147483647\n", 2147483647},
                                  {"-2147483648\n", -2147483647 - 1}}) {
        nodes.set(kValueNode, content);
        EXPECT_EQ(value, getSystemThermalValue()) << '"' << content << '"';
    }
    // A node without a number, or one beyond int, is the caller's to handle:
    // the conversion's exception comes through, and the stream is closed on
    // the way (code unwound without exceptions enabled would skip that).
    auto openDescriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto before = openDescriptors();
    for (const char* content : {"", "abc\n"}) {
        nodes.set(kValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::invalid_argument) << '"' << content << '"';
    }
    for (const char* content : {"2147483648\n", "-2147483649\n", "99999999999\n"}) {
        nodes.set(kValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::out_of_range) << '"' << content << '"';
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(SysInfo, ThermalModeTranscript) {
    qt::Capture cap;
    qt::Transcript t(cap, nullptr);
    for (int mode : {0, 1, 2, -1}) {
        nodes.set(kModeNode, "previous content\n");
        t.step("setThermalMode(" + std::to_string(mode) + ")");
        const int result = setThermalMode(mode);
        t.note("-> " + std::to_string(result) + ", the node holds \"" + nodes.contents(kModeNode) + "\"");
    }
    nodes.remove(kValueNode);
    nodes.remove(kModeNode);
    t.step("getSystemThermalValue() without its node");
    t.note("-> " + std::to_string(getSystemThermalValue()));
    t.step("setThermalMode(7) without its node");
    t.note("-> " + std::to_string(setThermalMode(7)));
    QRN_CHECK_TRANSCRIPT(t, "thermal");
}

int gListenerCalls = 0, gDestroyed = 0;

// A second free of the same object is what ASan and valgrind (which run this
// test) report.
struct CountingListener : SensorListenerImp {
    CountingListener() : SensorListenerImp("counting") {}
    ~CountingListener() override { ++gDestroyed; }
};

TEST(SensorListener, StubAnswersAndDestroyOnce) {
    EXPECT_EQ(nullptr, SensorListener::createInstance("any"));
    EXPECT_EQ(nullptr, SensorListener::createInstance(nullptr));
    EXPECT_EQ(sizeof(void*), sizeof(SensorListenerImp));  // no state besides the interface's link
    SensorListener* l = new CountingListener;             // used through the interface, as callers do
    EXPECT_EQ(1, l->setListener(nullptr));
    EXPECT_EQ(1, l->setListener([] { ++gListenerCalls; }));
    for (int t = SensorListener::SensorType_Acc; t <= SensorListener::SensorType_Num; ++t) {
        EXPECT_EQ(0, l->enableSensor(static_cast<SensorListener::SensorTypeEnum>(t), t == 0 ? 0u : ~0u)) << t;
        EXPECT_EQ(0, l->disableSensor(static_cast<SensorListener::SensorTypeEnum>(t))) << t;
    }
    EXPECT_EQ(0, l->init());
    EXPECT_EQ(0, l->getEvents());
    EXPECT_EQ(0, l->isSupport());
    EXPECT_EQ(0, l->uninit());
    EXPECT_EQ(0, gListenerCalls);  // neither called nor kept
    EXPECT_EQ(1, SensorListenerImp_callback(-1, 0, nullptr));
    l->destroyInstance();  // through the deleting destructor
    EXPECT_EQ(1, gDestroyed);
}

}  // namespace
