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
#include <cutils/properties.h>
#include <qrnhost/testing.h>
#include <qrnhost/trace.h>

#include "Support.h"

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
        {0x10, 5, 0x40007000, {}, 0},                                         // bits above 3 select nothing
        {1, 4, 0x40107000, {"[f] warn", "[f] error (logBothModules){#"}, 0},  // DEBUG needs 5
        {1, 2, 0x40107000, {"[f] warn", "[f] error (logBothModules){#"}, 0},  // WARN needs 2
        {1, 1, 0x40107000, {"[f] error (logBothModules){#"}, 0},
        {1, 0xFFFFFFFFu, 0x00107000, {"[f] warn", "[f] error (logBothModules){#", "[f] cam3"}, 0},
        {1, 5, 0x40000000, {"[f] warn", "[f] error (logBothModules){#"}, 0},  // group bit but no channel
        {1, 5, 0x40004000, {"[f] cpu", "[f] warn", "[f] error (logBothModules){#"}, 0},
        // The debug channels are 0x7000: 0x1000 is the lowest, 0x8000 and 0x0800 are none.
        {1, 5, 0x40001000, {"[f] cpu", "[f] warn", "[f] error (logBothModules){#"}, 0},
        {1, 5, 0x40008800, {"[f] warn", "[f] error (logBothModules){#"}, 0},
        // A module's group is its highest bit only: the bits beside it are others'.
        {1, 5, 0xA0207000, {"[f] warn", "[f] error (logBothModules){#"}, 0},
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
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::init");
    QRN_LOGD("[%s] body", __FUNCTION__);
    if (early) scope.exit();
}

// The switch of the "file_cache" form: says when it is asked, answers gAllow.
qt::Capture* gCap = nullptr;
bool gAllow = true;
int testLogHook(const char* tag, int level) {
    gCap->note(std::string("qrncam_testLog(") + tag + ", '" + static_cast<char>(level) + "') -> " +
               std::to_string(gAllow));
    return gAllow;
}

// Both forms of line, both sinks and the trace on: the order of the sinks
// and the levels, the suffix in the Android copy only, sections of a scope
// and the gates that leave them out, and the "file_cache" form, which asks
// its switch only once its own flag is set, and writes to the Android log
// only.
TEST(Facade, Transcript) {
    qt::Capture cap(3, 5, 0x40007000);
    qt::Transcript t(cap, nullptr);
    t.step("DEBUG, WARN, ERROR");
    QRN_LOGD("[%s] debug %d", "f", 1);
    QRN_LOGW("[%s] warn", "f");
    const int line = __LINE__ + 1;
    QRN_LOGE("[%s] Open File Node Error", __FUNCTION__);
    t.step("a scope, then one closed early");
    scoped(false);
    scoped(true);
    t.step("camera trace tag off");
    property_set(qrnhost::trace::kTagsProperty, "0");
    qrnhost::trace::resetSetup();
    scoped(false);
    t.step("camera trace tag on, details level 4");
    property_set(qrnhost::trace::kTagsProperty, "0x400");
    qrnhost::trace::resetSetup();
    NSCam::Utils::ULog::ULogger::sDetailsLevel = 4;
    scoped(false);

    gCap = &cap;
    qrncam::stdutils::setTestLogHook(&testLogHook);
    int flag = 0;
    auto fileCacheLines = [&] {
        FC_LOGI(flag, "Initialize FileCache <%s>", "a");
        FC_LOGD(flag, "<%s> Write %d bytes to memory", "a", 4);
        FC_LOGE("Fail to open physical file <%s>", "/d.raw");
        FC_LOG_FATAL("lock mutex exception");  // ignores every switch
    };
    t.step("file_cache form, flag 0");
    fileCacheLines();
    t.step("file_cache form, flag 1");
    flag = 1;
    fileCacheLines();
    t.step("file_cache form, flag 1, switched off");
    gAllow = false;
    fileCacheLines();
    qrncam::stdutils::setTestLogHook(nullptr);
    QRN_CHECK_TRANSCRIPT(t, "facade");
    // The transcript stands the line number in; the number is the caller's.
    EXPECT_TRUE(cap.hasAndroid(
        ANDROID_LOG_ERROR, "QrnCam/CpuCtrl",
        "[TestBody] Open File Node Error (TestBody){#" + std::to_string(line) + ":tests/logging/facade_test.cpp}"));
}

}  // namespace

namespace {
// A device build records paths from the top of the platform tree.
static_assert(std::string_view(qrncam::log::sourcePath("vendor/x/camera/utils/sys/FileCache.cpp")) ==
              "utils/sys/FileCache.cpp");
static_assert(std::string_view(qrncam::log::sourcePath("utils/sys/ThermalInfo.cpp")) == "utils/sys/ThermalInfo.cpp");
static_assert(std::string_view(qrncam::log::sourcePath("tests/a/myutils/b.cpp")) == "tests/a/myutils/b.cpp");
}  // namespace
