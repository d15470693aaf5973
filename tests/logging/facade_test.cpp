// The logging facade: gates per module, sinks and their order, the unified
// logger's bounded buffer, the error suffix, trace sections and the
// "file_cache" form.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "Capture.h"

#define LOG_TAG "QrnCam/CpuCtrl"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCpuCtrl
#include <SysLog.h>

namespace {

using qrntest::Capture;
using qrntest::Sink;
constexpr uint32_t kCam3 = qrncam::log::kModuleCam3CPUCtrl;

void logAllLevels() {
    QRN_LOGD("[%s] debug %d", "f", 1);
    QRN_LOGW("[%s] warn", "f");
    QRN_LOGE("[%s] error", "f");
}

int errorLine;  // source line of the ERROR call below
void logError() {
    errorLine = __LINE__ + 1;
    QRN_LOGE("[%s] Open File Node Error", __FUNCTION__);
}

TEST(Facade, ModeSelectsTheSinks) {
    struct Case {
        uint32_t mode;
        size_t android, ulog;
    } cases[] = {{0, 0, 0}, {1, 3, 0}, {2, 0, 3}, {4, 0, 3}, {8, 0, 3}, {3, 3, 3}, {0x10, 0, 0}};
    for (const auto& c : cases) {
        Capture cap(c.mode, 5, 0x40007000);
        logAllLevels();
        EXPECT_EQ(c.android, cap.records(Sink::Android).size()) << "sMode " << c.mode;
        EXPECT_EQ(c.ulog, cap.records(Sink::ULog).size()) << "sMode " << c.mode;
    }
}

TEST(Facade, BothSinksGetEachLineAndheAndroidLogFirst) {
    Capture cap(3, 5, 0x40007000);
    logAllLevels();
    std::vector<qrntest::Record> r = cap.records();
    ASSERT_EQ(6u, r.size());
    const int prio[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_WARN, ANDROID_LOG_ERROR};
    const int32_t level[] = {5, 2, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Sink::Android, r[2 * i].sink);
        EXPECT_EQ(prio[i], r[2 * i].priority);
        EXPECT_EQ("QrnCam/CpuCtrl", r[2 * i].tag);
        EXPECT_EQ(Sink::ULog, r[2 * i + 1].sink);
        EXPECT_EQ(level[i], r[2 * i + 1].level);
        EXPECT_EQ(0x40007001u, r[2 * i + 1].module);
    }
    EXPECT_EQ("[f] debug 1", r[0].text);
    EXPECT_EQ("[f] debug 1", r[1].text);
    EXPECT_EQ(11, r[1].length);
}

TEST(Facade, DetailsLevelGatesDebugAndWarn) {
    struct Case {
        uint32_t level;
        std::vector<int> prios;
    } cases[] = {
            {5, {ANDROID_LOG_DEBUG, ANDROID_LOG_WARN, ANDROID_LOG_ERROR}},
            {4, {ANDROID_LOG_WARN, ANDROID_LOG_ERROR}},
            {2, {ANDROID_LOG_WARN, ANDROID_LOG_ERROR}},
            {1, {ANDROID_LOG_ERROR}},
            {0, {ANDROID_LOG_ERROR}},
            {0xFFFFFFFFu, {ANDROID_LOG_DEBUG, ANDROID_LOG_WARN, ANDROID_LOG_ERROR}},  // unsigned compare
    };
    for (const auto& c : cases) {
        Capture cap(1, c.level, 0x40007000);
        logAllLevels();
        std::vector<int> got;
        for (auto& r : cap.records(Sink::Android)) got.push_back(r.priority);
        EXPECT_EQ(c.prios, got) << "sDetailsLevel " << c.level;
    }
}

TEST(Facade, DebugMaskNeedsTheModuleGroupAndAChannel) {
    struct Case {
        uint32_t mask;
        bool cpuCtrl, cam3;
    } cases[] = {
            {0x40007000, true, false},   {0x00107000, false, true}, {0x40107000, true, true},
            {0x40000000, false, false},  // no channel bit
            {0x40001000, true, false},   {0x40004000, true, false},  {0x00100800, false, false},
            {0x00007000, false, false},  {0x40008000, false, false},
    };
    for (const auto& c : cases) {
        Capture cap(1, 5, c.mask);
        QRN_LOGD("[%s] cpu", "f");
        QRN_LOGD_M(kCam3, "Cam3CPUCtrl_util", "[%s] cam3", "f");
        QRN_LOGW_M(kCam3, "Cam3CPUCtrl_util", "[%s] warn ignores the mask", "f");
        std::vector<std::string> t = cap.texts(Sink::Android);
        std::vector<std::string> want;
        if (c.cpuCtrl) want.push_back("[f] cpu");
        if (c.cam3) want.push_back("[f] cam3");
        want.push_back("[f] warn ignores the mask");
        EXPECT_EQ(want, t) << std::hex << "mask 0x" << c.mask;
    }
}

TEST(Facade, UnifiedLoggerBufferIsBoundedButTheLengthIsNot) {
    Capture cap(2, 5, 0x40007000);
    std::string big(1500, 'a');
    QRN_LOGW("%s", big.c_str());
    std::string exact(1023, 'b');
    QRN_LOGW("%s", exact.c_str());
    std::string over(1024, 'c');
    QRN_LOGW("%s", over.c_str());
    std::vector<qrntest::Record> r = cap.records(Sink::ULog);
    ASSERT_EQ(3u, r.size());
    EXPECT_EQ(1023u, r[0].held);
    EXPECT_EQ(1500, r[0].length);
    EXPECT_EQ(std::string(1023, 'a'), r[0].text);
    EXPECT_EQ(1023u, r[1].held);
    EXPECT_EQ(1023, r[1].length);
    EXPECT_EQ(1023u, r[2].held);
    EXPECT_EQ(1024, r[2].length);
}

TEST(Facade, ErrorSuffixOnlyInTheAndroidLog) {
    Capture cap(3, 0, 0);
    logError();
    std::vector<qrntest::Record> r = cap.records();
    ASSERT_EQ(2u, r.size());
    EXPECT_EQ("[logError] Open File Node Error (logError){#" + std::to_string(errorLine) +
                      ":tests/logging/facade_test.cpp}",
              r[0].text);
    EXPECT_EQ("[logError] Open File Node Error", r[1].text);
    EXPECT_EQ(1, r[1].level);
}

TEST(Facade, SinkArgumentsAreEvaluatedOncePerEnabledSink) {
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
    QRN_LOGD("[%s] after exit", __FUNCTION__);
}

TEST(Facade, FunctionScopeTraceOrder) {
    Capture cap(1, 5, 0x40007000);
    scoped(false);
    std::vector<qrntest::Record> r = cap.records();
    ASSERT_EQ(6u, r.size());
    EXPECT_EQ(Sink::TraceBegin, r[0].sink);
    EXPECT_EQ("CpuCtrl::init", r[0].text);
    EXPECT_EQ("[scoped] +", r[1].text);
    EXPECT_EQ("[scoped] body", r[2].text);
    EXPECT_EQ("[scoped] after exit", r[3].text);
    EXPECT_EQ("[scoped] -", r[4].text);
    EXPECT_EQ(Sink::TraceEnd, r[5].sink);

    cap.clear();
    scoped(true);  // "-" where the code says, once; the section ends at scope end
    std::vector<std::string> t = cap.texts(Sink::Android);
    EXPECT_EQ((std::vector<std::string>{"[scoped] +", "[scoped] body", "[scoped] -", "[scoped] after exit"}), t);
    EXPECT_EQ(Sink::TraceEnd, cap.records().back().sink);
}

TEST(Facade, TraceSectionsOnlyWithTheCameraTagButLinesStillFollowTheirGate) {
    Capture cap(1, 5, 0x40007000, /*cameraTrace=*/false);
    scoped(false);
    EXPECT_TRUE(cap.sectionsBegun().empty());
    EXPECT_EQ(0u, cap.sectionsEnded());
    EXPECT_EQ(4u, cap.records(Sink::Android).size());

    Capture quiet(1, 4, 0x40007000, /*cameraTrace=*/true);
    scoped(false);
    EXPECT_EQ(std::vector<std::string>{"CpuCtrl::init"}, quiet.sectionsBegun());
    EXPECT_EQ(1u, quiet.sectionsEnded());
    EXPECT_TRUE(quiet.records(Sink::Android).empty());
}

// --- the "file_cache" form ---

std::atomic<int> gAsked[128];
std::atomic<int> gAllow{1};
int testLogHook(const char* tag, int level) {
    EXPECT_STREQ("file_cache", tag);
    if (level >= 0 && level < 128) ++gAsked[level];
    return gAllow.load();
}

class FileCacheForm : public ::testing::Test {
  protected:
    void SetUp() override {
        for (auto& a : gAsked) a = 0;
        gAllow = 1;
        qrncam::stdutils::setTestLogHook(&testLogHook);
    }
    void TearDown() override { qrncam::stdutils::setTestLogHook(nullptr); }
};

int fcErrorLine;
void fcError(const char* name) {
    fcErrorLine = __LINE__ + 1;
    FC_LOGE("Fail to open physical file <%s>", name);
}

TEST_F(FileCacheForm, InfoAndDebugNeedTheFlagBeforeAsking) {
    Capture cap(0, 0, 0);  // the unified logger's controls do not matter here
    int flag = 0;
    FC_LOGI(flag, "Initialize FileCache <%s>", "a");
    FC_LOGD(flag, "<%s> Write %d bytes to memory", "a", 4);
    EXPECT_EQ(0, gAsked[int{'I'}].load());
    EXPECT_EQ(0, gAsked[int{'D'}].load());
    EXPECT_TRUE(cap.records().empty());

    flag = 1;
    FC_LOGI(flag, "Initialize FileCache <%s>", "a");
    FC_LOGD(flag, "<%s> Write %d bytes to memory", "a", 4);
    EXPECT_EQ(1, gAsked[int{'I'}].load());
    EXPECT_EQ(1, gAsked[int{'D'}].load());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_INFO, "file_cache", "Initialize FileCache <a>"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, "file_cache", "<a> Write 4 bytes to memory"));
    EXPECT_TRUE(cap.records(Sink::ULog).empty());

    gAllow = 0;
    cap.clear();
    FC_LOGI(flag, "x");
    EXPECT_TRUE(cap.records().empty());
}

TEST_F(FileCacheForm, ErrorsAskTheSwitchAndCarryTheSuffix) {
    Capture cap(0, 0, 0);
    fcError("/data/dump.raw");
    EXPECT_EQ(1, gAsked[int{'E'}].load());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "file_cache",
                               "Fail to open physical file </data/dump.raw> (fcError){#" + std::to_string(fcErrorLine) +
                                       ":tests/logging/facade_test.cpp}"));
    gAllow = 0;
    cap.clear();
    fcError("x");
    EXPECT_TRUE(cap.records().empty());
    // The queue's fatal texts ignore every switch.
    FC_LOG_FATAL("lock mutex exception");
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "file_cache", "lock mutex exception"));
}

}  // namespace
