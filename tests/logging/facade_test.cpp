// The logging facade: gates per module, sinks and their order, the unified
// logger's bounded buffer, the error suffix, trace sections and the
// "file_cache" form.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <string_view>

#define LOG_TAG "QrnCam/CpuCtrl"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCpuCtrl
#include <SysLog.h>
#include <qrnhost/capture.h>

namespace {

namespace qt = qrnhost::testing;

using qt::Capture;
using qt::Sink;
constexpr uint32_t kCam3 = qrncam::log::kModuleCam3CPUCtrl;

// One line of each level from each of two modules with different group bits.
void logBothModules() {
    QRN_LOGD("[%s] cpu", "f");
    QRN_LOGW("[%s] warn", "f");
    QRN_LOGE("[%s] error", "f");
    QRN_LOGD_M(kCam3, "Cam3CPUCtrl_util", "[%s] cam3", "f");
}

TEST(Facade, GatesAndSinksPerModeLevelAndMask) {
    struct Case {
        uint32_t mode, level, mask;
        std::vector<std::string> android;
        size_t ulog;
    } cases[] = {
        {0, 5, 0x40107000, {}, 0},  // no sink: even ERROR is dropped
        {1, 5, 0x40107000, {"[f] cpu", "[f] warn", "[f] error (logBothModules){#", "[f] cam3"}, 0},
        {2, 5, 0x40007000, {}, 3},
        {8, 5, 0x40007000, {}, 3},
        {0x10, 5, 0x40007000, {}, 0},  // bits above 3 select nothing
        {1, 4, 0x40107000, {"[f] warn", "[f] error (logBothModules){#"}, 0},
        {1, 1, 0x40107000, {"[f] error (logBothModules){#"}, 0},
        {1, 0xFFFFFFFFu, 0x00107000, {"[f] warn", "[f] error (logBothModules){#", "[f] cam3"}, 0},
        {1, 5, 0x40000000, {"[f] warn", "[f] error (logBothModules){#"}, 0},  // group bit but no channel
        {1, 5, 0x40004000, {"[f] cpu", "[f] warn", "[f] error (logBothModules){#"}, 0},
        {1, 5, 0x00007000, {"[f] warn", "[f] error (logBothModules){#"}, 0},  // channel but no group
    };
    for (const auto& c : cases) {
        Capture cap(c.mode, c.level, c.mask);
        logBothModules();
        std::vector<std::string> got = cap.texts(Sink::Android);
        ASSERT_EQ(c.android.size(), got.size()) << "mode " << c.mode << " level " << c.level << " mask " << c.mask;
        for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(0u, got[i].find(c.android[i])) << got[i];
        EXPECT_EQ(c.ulog, cap.records(Sink::ULog).size()) << "mode " << c.mode;
    }
}

TEST(Facade, BothSinksGetEachLineTheAndroidLogFirst) {
    Capture cap(3, 5, 0x40007000);
    QRN_LOGD("[%s] debug %d", "f", 1);
    QRN_LOGW("[%s] warn", "f");
    int line = __LINE__ + 1;
    QRN_LOGE("[%s] Open File Node Error", __FUNCTION__);
    std::vector<qt::Record> r = cap.records();
    ASSERT_EQ(6u, r.size());
    const int prio[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_WARN, ANDROID_LOG_ERROR};
    const int32_t level[] = {5, 2, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Sink::Android, r[2 * i].sink);
        EXPECT_EQ(prio[i], r[2 * i].priority);
        EXPECT_EQ(Sink::ULog, r[2 * i + 1].sink);
        EXPECT_EQ(level[i], r[2 * i + 1].level);
        EXPECT_EQ(0x40007001u, r[2 * i + 1].module);
        EXPECT_EQ("QrnCam/CpuCtrl", r[2 * i + 1].tag);
    }
    EXPECT_EQ("[f] debug 1", r[1].text);
    EXPECT_EQ(11, r[1].length);
    // The suffix is in the Android copy only.
    std::string fn = "TestBody";
    EXPECT_EQ(
        "[" + fn + "] Open File Node Error (" + fn + "){#" + std::to_string(line) + ":tests/logging/facade_test.cpp}",
        r[4].text);
    EXPECT_EQ("[" + fn + "] Open File Node Error", r[5].text);
}

TEST(Facade, UnifiedLoggerBufferIsBoundedButTheLengthIsNot) {
    Capture cap(2, 5, 0x40007000);
    for (size_t n : {1500u, 1023u, 1024u}) QRN_LOGW("%s", std::string(n, 'a').c_str());
    std::vector<qt::Record> r = cap.records(Sink::ULog);
    ASSERT_EQ(3u, r.size());
    const int64_t lengths[] = {1500, 1023, 1024};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(std::string(1023, 'a'), r[i].text);  // terminator at index 1023
        EXPECT_EQ(lengths[i], r[i].length);
    }
}

TEST(Facade, ArgumentsAreEvaluatedOncePerEnabledSinkAndNeverWhenClosed) {
    std::atomic<int> evaluated{0};
    auto arg = [&] {
        ++evaluated;
        return "x";
    };
    for (uint32_t mode : {0u, 1u, 2u, 3u}) {
        Capture cap(mode, 5, 0x40007000);
        evaluated = 0;
        QRN_LOGE("[%s]", arg());
        EXPECT_EQ(static_cast<int>((mode & 1) + ((mode & 0xE) != 0)), evaluated.load()) << mode;
    }
    Capture closed(3, 4, 0x40007000);
    evaluated = 0;
    QRN_LOGD("[%s]", arg());
    EXPECT_EQ(0, evaluated.load());
}

void scoped(bool early) {
    QRN_FUNCTION_SCOPE("CpuCtrl::init");
    QRN_LOGD("[%s] body", __FUNCTION__);
    if (early) QRN_FUNCTION_SCOPE_EXIT();
}

TEST(Facade, FunctionScopeTrace) {
    Capture cap(1, 5, 0x40007000);
    scoped(false);
    std::vector<qt::Record> r = cap.records();
    ASSERT_EQ(5u, r.size());
    EXPECT_EQ(Sink::TraceBegin, r[0].sink);
    EXPECT_EQ("CpuCtrl::init", r[0].text);
    EXPECT_EQ("[scoped] +", r[1].text);
    EXPECT_EQ("[scoped] -", r[3].text);
    EXPECT_EQ(Sink::TraceEnd, r[4].sink);
    cap.clear();
    scoped(true);  // "-" where the code says, once
    EXPECT_EQ((std::vector<std::string>{"[scoped] +", "[scoped] body", "[scoped] -"}), cap.texts(Sink::Android));

    // Camera tag off: no section, but the lines still follow their own gate.
    Capture noTag(1, 5, 0x40007000, /*cameraTrace=*/false);
    scoped(false);
    EXPECT_EQ(0u, noTag.sectionsBegun().size() + noTag.sectionsEnded());
    EXPECT_EQ(3u, noTag.records(Sink::Android).size());
    Capture quiet(1, 4, 0x40007000, /*cameraTrace=*/true);
    scoped(false);
    EXPECT_EQ(std::vector<std::string>{"CpuCtrl::init"}, quiet.sectionsBegun());
    EXPECT_TRUE(quiet.records(Sink::Android).empty());
}

// --- the "file_cache" form ---

std::atomic<int> gAsked[128];
std::atomic<int> gAllow{1};
int testLogHook(const char*, int level) {
    if (level >= 0 && level < 128) ++gAsked[level];
    return gAllow.load();
}

TEST(FileCacheForm, FlagFirstThenSwitchThenAndroidLogOnly) {
    for (auto& a : gAsked) a = 0;
    qrncam::stdutils::setTestLogHook(&testLogHook);
    Capture cap(0, 0, 0);  // the unified logger's controls do not matter here
    int flag = 0;
    FC_LOGI(flag, "Initialize FileCache <%s>", "a");
    FC_LOGD(flag, "<%s> Write %d bytes to memory", "a", 4);
    EXPECT_EQ(0, gAsked[int{'I'}] + gAsked[int{'D'}]);  // not asked while the flag is 0
    EXPECT_TRUE(cap.records().empty());

    flag = 1;
    FC_LOGI(flag, "Initialize FileCache <%s>", "a");
    FC_LOGD(flag, "<%s> Write %d bytes to memory", "a", 4);
    int line = __LINE__ + 1;
    FC_LOGE("Fail to open physical file <%s>", "/d.raw");
    EXPECT_EQ(1, gAsked[int{'I'}].load());
    EXPECT_EQ(1, gAsked[int{'D'}].load());
    EXPECT_EQ(1, gAsked[int{'E'}].load());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_INFO, "file_cache", "Initialize FileCache <a>"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, "file_cache", "<a> Write 4 bytes to memory"));
    EXPECT_TRUE(cap.hasAndroid(
        ANDROID_LOG_ERROR, "file_cache",
        "Fail to open physical file </d.raw> (TestBody){#" + std::to_string(line) + ":tests/logging/facade_test.cpp}"));
    EXPECT_TRUE(cap.records(Sink::ULog).empty());

    gAllow = 0;
    cap.clear();
    FC_LOGI(flag, "x");
    FC_LOGE("x");
    EXPECT_TRUE(cap.records().empty());
    FC_LOG_FATAL("lock mutex exception");  // ignores every switch
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "file_cache", "lock mutex exception"));
    qrncam::stdutils::setTestLogHook(nullptr);
}

}  // namespace

namespace {
// A device build records paths from the top of the platform tree.
static_assert(std::string_view(qrncam::log::sourcePath("vendor/x/camera/utils/sys/FileCache.cpp")) ==
              "utils/sys/FileCache.cpp");
static_assert(std::string_view(qrncam::log::sourcePath("utils/sys/ThermalInfo.cpp")) == "utils/sys/ThermalInfo.cpp");
static_assert(std::string_view(qrncam::log::sourcePath("tests/a/myutils/b.cpp")) == "tests/a/myutils/b.cpp");
}  // namespace
