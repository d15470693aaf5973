// CpuCtrl driven against the simulated power service: the calls it sends
// (from the service's journal), its results and its log lines.
#include <CpuCtrl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <cstddef>
#include <cstring>

#include "Capture.h"

namespace {

using namespace qrnhost::power;
using qrntest::Capture;
using qrntest::Sink;
using Lines = std::vector<std::string>;
using Info = CpuCtrl::CPU_CTRL_INFO;
using Range = CpuCtrl::CPU_CTRL_RANGE_INFO;

std::string ending(const std::string& text) {
    return text.size() < 2 ? text : text.substr(text.size() - 2);
}
bool isScopeLine(const std::string& text) {
    return ending(text) == " +" || ending(text) == " -";
}

class CpuCtrlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        startSim({1800000, 2400000});
        cap.clear();  // the creation lines of ctrl
    }
    void TearDown() override {
        if (ctrl) ctrl->destroyInstance();
        qrnhost::hidl::unregisterAll();
    }
    // An empty list makes a service that reports no cluster at all.
    void startSim(std::vector<int32_t> freqs) {
        Config c;
        c.clusterMaxFreq = freqs;
        c.cpufreqRoot = "/nonexistent";
        c.defaultClusters = 0;
        sim = startDefaultService(c);
    }
    // One more user; its "First user"/"More user" line is not of interest.
    void addUser() {
        ctrl->init();
        log();
    }
    // The service calls since the last take.
    Lines calls() {
        Lines out;
        for (const Call& c : sim->journal()) out.push_back(c.toString());
        sim->clearJournal();
        return out;
    }
    // The controller's lines since the last take ("D "/"W " + text); the
    // "+"/"-" scope lines only when asked for.
    Lines log(bool scope = false) {
        Lines out;
        for (const auto& r : cap.records(Sink::Android)) {
            if (r.tag == "QrnCam/CpuCtrl" && (scope || !isScopeLine(r.text)))
                out.push_back((r.priority == ANDROID_LOG_WARN ? "W " : "D ") + r.text);
        }
        cap.clear();
        return out;
    }
    Capture cap{1, 5, 0x40007000};
    sp<SimPowerService> sim;
    CpuCtrl* ctrl = CpuCtrl::createInstance();
};

TEST_F(CpuCtrlTest, EveryLeavingUserDisablesButOnlyTheLastUnregisters) {
    Info info{2, 2000, 4, 1000, 0};
    EXPECT_TRUE(ctrl->init());
    EXPECT_TRUE(ctrl->init());
    ASSERT_TRUE(ctrl->enable(info));
    log(), calls();
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ((Lines{"D [uninit] More user(1)"}), log());
    EXPECT_EQ((Lines{"disableScenario(1)"}), calls());
    ASSERT_TRUE(ctrl->enable(info));  // already withdrawn: nothing to disable first
    EXPECT_EQ("registerScenario() -> 2", calls().at(0));
    log();
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ((Lines{"disableScenario(2)", "unregisterScenario(2)", "disableScenario(2)"}), calls());
    EXPECT_EQ("D [uninit] Last user(0)", log().at(0));
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ((Lines{"W [uninit] No user(0)"}), log());
    EXPECT_TRUE(calls().empty());

    // A new session starts from no handle: the last user drops -1 as it is.
    EXPECT_TRUE(ctrl->init());
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ((Lines{"unregisterScenario(-1)", "disableScenario(-1)"}), calls());
    EXPECT_EQ((Lines{"D [init] First user(0)", "D [uninit] Last user(0)"}), log());

    CpuCtrl* other = CpuCtrl::createInstance();  // counts of its own
    ctrl->init();
    EXPECT_TRUE(other->uninit());
    EXPECT_EQ("W [uninit] No user(0)", log().back());
    other->destroyInstance();
    ctrl->uninit();
}

TEST_F(CpuCtrlTest, FixedRequestSetsEachValueAsMinimumAndMaximum) {
    addUser();
    Info info{2, 2000, 4, -1000, 3};
    ASSERT_TRUE(ctrl->enable(info));
    EXPECT_EQ((Lines{"registerScenario() -> 1", "configScenario(1, 1, 0, 4, 0, 0)", "configScenario(1, 1, 1, 2, 0, 0)",
                     "configScenario(1, 2, 0, 4, 0, 0)", "configScenario(1, 2, 1, 2, 0, 0)",
                     "configScenario(1, 3, 0, -1000, 0, 0)", "configScenario(1, 3, 1, 2000, 0, 0)",
                     "configScenario(1, 4, 0, -1000, 0, 0)", "configScenario(1, 4, 1, 2000, 0, 0)",
                     "enableScenario(1, 3000)"}),
              calls());
    EXPECT_EQ((Lines{"D [enable] big(2/2000),little(4/-1000),timeout(3)", "D [enable] mPowerHalHandle:(1)"}), log());
    for (int timeout : {0, -5}) {
        info.timeout = timeout;
        ASSERT_TRUE(ctrl->enable(info));
        Lines c = calls();
        EXPECT_EQ("disableScenario(" + std::to_string(timeout ? 2 : 1) + ")", c.front());  // previous one withdrawn
        EXPECT_EQ("enableScenario(" + std::to_string(timeout ? 3 : 2) + ", 0)", c.back()) << timeout;
    }
}

TEST_F(CpuCtrlTest, RangeRequestSendsOnlyPairsWithoutNegativeMembers) {
    addUser();
    Range full{1, 2, 3, 4, 500, 600, 700, 800, 2};
    ASSERT_TRUE(ctrl->enable(full));
    EXPECT_EQ(
        (Lines{"registerScenario() -> 1", "configScenario(1, 1, 0, 2, 0, 0)", "configScenario(1, 1, 1, 1, 0, 0)",
               "configScenario(1, 2, 0, 4, 0, 0)", "configScenario(1, 2, 1, 3, 0, 0)",
               "configScenario(1, 3, 0, 600, 0, 0)", "configScenario(1, 3, 1, 500, 0, 0)",
               "configScenario(1, 4, 0, 800, 0, 0)", "configScenario(1, 4, 1, 700, 0, 0)", "enableScenario(1, 2000)"}),
        calls());
    EXPECT_EQ((Lines{"D [enable] MIN CORE:big/little(1/2), MAX CORE:big/little(3/4)",
                     "D [enable] MIN FREQ:big/little(500/700), MAX FREQ:big/little(600/800)", "D [enable] timeout(2)",
                     "D [enable] mPowerHalHandle:(1)", "D [enable] CMD_SET_CPU_CORE_BIG_LITTLE_MIN",
                     "D [enable] CMD_SET_CPU_CORE_BIG_LITTLE_MAX", "D [enable] CMD_SET_CPU_FREQ_BIG_LITTLE_MIN",
                     "D [enable] CMD_SET_CPU_FREQ_BIG_LITTLE_MAX"}),
              log());

    // One negative member, big or little, drops its whole pair.
    Range partial{-1, 2, 3, -4, -1, 1000, 700, 800, 1};
    ASSERT_TRUE(ctrl->enable(partial));
    EXPECT_EQ((Lines{"disableScenario(1)", "registerScenario() -> 2", "configScenario(2, 4, 0, 800, 0, 0)",
                     "configScenario(2, 4, 1, 700, 0, 0)", "enableScenario(2, 1000)"}),
              calls());
    Range none{-1, -1, -1, -1, -1, -1, -1, -1, 0};
    ASSERT_TRUE(ctrl->enable(none));
    EXPECT_EQ((Lines{"disableScenario(2)", "registerScenario() -> 3", "enableScenario(3, 0)"}), calls());
}

TEST_F(CpuCtrlTest, DisableKeepsTheScenarioAndResetTimeoutBringsItBack) {
    addUser();
    EXPECT_FALSE(ctrl->resetTimeout(1));
    EXPECT_EQ((Lines{"W [resetTimeout] mPowerHalHandle is invalid !!!"}), log());
    ctrl->cpuPerformanceMode(0);
    calls(), log();
    EXPECT_TRUE(ctrl->disable());
    EXPECT_TRUE(ctrl->disable());
    EXPECT_EQ((Lines{"disableScenario(1)"}), calls());
    EXPECT_EQ((Lines{"D [disable] Not thing to disable"}), log());
    EXPECT_TRUE(ctrl->resetTimeout(0));
    EXPECT_TRUE(ctrl->resetTimeout(2));
    EXPECT_EQ((Lines{"enableScenario(1, 268435455)", "enableScenario(1, 2000)"}), calls());
    ASSERT_EQ(1u, sim->active().size());

    // The object still counts scenario 1 as withdrawn, so the next request
    // does not disable it: it stays in force beside the new one.
    ctrl->enablePreferIdle();
    EXPECT_EQ("registerScenario() -> 2", calls().at(0));
    EXPECT_EQ(2u, sim->active().size());
}

TEST_F(CpuCtrlTest, BoostPinsEveryClusterOnTheCurrentScenario) {
    addUser();
    ASSERT_TRUE(ctrl->enableBoost(0));  // before any request: handle -1
    EXPECT_EQ((Lines{"querySystemInfo(1, 0) -> 2", "querySystemInfo(4, 0) -> 1800000",
                     "configScenario(-1, 3, 0, 1800000, 0, 0)", "configScenario(-1, 4, 0, 1800000, 0, 0)",
                     "querySystemInfo(4, 1) -> 2400000", "configScenario(-1, 3, 1, 2400000, 0, 0)",
                     "configScenario(-1, 4, 1, 2400000, 0, 0)", "enableScenario(-1, 0)"}),
              calls());
    EXPECT_EQ((Lines{"D [enableBoost] modify CPU frequency: 1800000", "D [enableBoost] modify CPU frequency: 2400000"}),
              log());

    ctrl->enablePreferIdle();
    calls();
    ASSERT_TRUE(ctrl->enableBoost(2));
    Lines c = calls();
    EXPECT_EQ("disableScenario(1)", c.front());
    EXPECT_EQ("configScenario(1, 4, 1, 2400000, 0, 0)", c.at(c.size() - 2));
    EXPECT_EQ("enableScenario(1, 2000)", c.back());
    ASSERT_EQ(1u, sim->active().size());
    EXPECT_TRUE(sim->active()[0].settings.preferIdle);  // pins added to the prefer-idle scenario
    EXPECT_EQ(1800000, sim->active()[0].settings.freqMin.at(0));

    startSim({});
    ctrl->init();
    ASSERT_TRUE(ctrl->enableBoost(0));
    EXPECT_EQ((Lines{"disableScenario(1)", "querySystemInfo(1, 0) -> 0", "enableScenario(1, 0)"}), calls());
}

TEST_F(CpuCtrlTest, PreferIdleAndPerformanceModeRegisterFixedScenarios) {
    addUser();
    ASSERT_TRUE(ctrl->enablePreferIdle());
    EXPECT_EQ((Lines{"registerScenario() -> 1", "configScenario(1, 65, 1, 0, 0, 0)",
                     "configScenario(1, 79, 100, 0, 0, 0)", "enableScenario(1, 0)"}),
              calls());
    EXPECT_EQ((Lines{"D [enablePreferIdle] mPowerHalHandle:(1)", "D [enablePreferIdle] mPowerHalHandle=1 Cmd=65,79"}),
              log());
    ASSERT_TRUE(ctrl->enablePreferIdle());
    EXPECT_EQ("disableScenario(1)", calls().front());
    EXPECT_EQ(2u, sim->registered().size());

    ASSERT_TRUE(ctrl->cpuPerformanceMode(5));
    EXPECT_EQ((Lines{"disableScenario(2)", "registerScenario() -> 3", "configScenario(3, 5, 1, 0, 0, 0)",
                     "enableScenario(3, 5000)"}),
              calls());
    ASSERT_TRUE(ctrl->cpuPerformanceMode(-1));
    EXPECT_EQ("enableScenario(4, 268435455)", calls().back());
}

TEST_F(CpuCtrlTest, RequestsWithoutUserFailAndSendNothing) {
    Info info{1, 1, 1, 1, 0};
    Range range{1, 1, 1, 1, 1, 1, 1, 1, 0};
    auto requestAll = [&] {
        return ctrl->enable(info) || ctrl->enable(range) || ctrl->enableBoost(1) || ctrl->enablePreferIdle() ||
               ctrl->disable() || ctrl->cpuPerformanceMode(1) || ctrl->resetTimeout(1);
    };
    for (int session = 0; session < 2; ++session) {  // never used, then after its last user left
        EXPECT_FALSE(requestAll());
        EXPECT_EQ((Lines{"W [enable] No user", "W [enable] No user", "W [enableBoost] No user",
                         "W [enablePreferIdle] No user", "W [disable] No user", "W [cpuPerformanceMode] No user",
                         "W [resetTimeout] No user"}),
                  log());
        ctrl->init();
        ctrl->enable(info);
        ctrl->uninit();
        calls(), log();
    }
    EXPECT_TRUE(calls().empty());
}

TEST_F(CpuCtrlTest, NullServiceFailsTheRequestsThatRegister) {
    qrnhost::hidl::unregisterAll();
    EXPECT_TRUE(ctrl->init());
    Info info{1, 1, 1, 1, 0};
    Range range{1, 1, 1, 1, 1, 1, 1, 1, 0};
    EXPECT_FALSE(ctrl->enable(info));
    EXPECT_FALSE(ctrl->enable(range));
    EXPECT_FALSE(ctrl->enablePreferIdle());
    EXPECT_FALSE(ctrl->cpuPerformanceMode(1));
    EXPECT_FALSE(ctrl->resetTimeout(1));
    EXPECT_TRUE(ctrl->disable());
    EXPECT_TRUE(ctrl->uninit());  // last user: nothing to send to
    EXPECT_EQ(
        (Lines{"D [init] First user(0)", "D [enable] big(1/1),little(1/1),timeout(0)",
               "W [enable] mPowerHalService == NULL !!!",
               "D [enable] MIN CORE:big/little(1/1), MAX CORE:big/little(1/1)",
               "D [enable] MIN FREQ:big/little(1/1), MAX FREQ:big/little(1/1)", "D [enable] timeout(0)",
               "W [enable] IPower::getService() == NULL !!!", "W [enablePreferIdle] mPowerHalService == NULL !!!",
               "W [cpuPerformanceMode] mPowerHalService == NULL !!!", "W [resetTimeout] mPowerHalHandle is invalid !!!",
               "D [disable] Not thing to disable", "D [uninit] Last user(0)"}),
        log());
}

TEST_F(CpuCtrlTest, TransportFailuresOfCallsWithoutValueAreIgnored) {
    ctrl->init();
    ctrl->init();
    sim->injectTransportFailure(Op::ConfigScenario, 3);
    sim->injectTransportFailure(Op::EnableScenario);
    ASSERT_TRUE(ctrl->cpuPerformanceMode(1));
    ASSERT_TRUE(ctrl->enableBoost(1));                    // its disableScenario(1) goes through
    EXPECT_EQ(2u, sim->registered()[0].commands.size());  // the two boost pins of cluster 1 only
    EXPECT_EQ(1u, sim->active().size());

    // A dead service fails every call in transport; the controller carries on.
    qrnhost::power::killDefaultService();
    EXPECT_TRUE(ctrl->disable());
    EXPECT_TRUE(ctrl->resetTimeout(1));
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ("D [uninit] Last user(0)", log().back());
}

// A failed call whose value is read ends the process, as on the device.
TEST_F(CpuCtrlTest, TransportFailureOfACallWithValueEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ctrl->init();
    Info info{1, 1, 1, 1, 0};
    EXPECT_DEATH(
        {
            sim->injectTransportFailure(Op::RegisterScenario);
            ctrl->enable(info);
        },
        "Attempted to retrieve value from failed HIDL call");
    EXPECT_DEATH(
        {
            sim->injectTransportFailure(Op::QuerySystemInfo);
            ctrl->enableBoost(0);
        },
        "Attempted to retrieve value from failed HIDL call");
    EXPECT_DEATH(
        {
            qrnhost::power::killDefaultService();
            ctrl->enablePreferIdle();
        },
        "Attempted to retrieve value from failed HIDL call");
    ctrl->uninit();
}

TEST_F(CpuCtrlTest, OperationsRunInTheirTraceSectionsAndScopeLines) {
    Info info{1, 1, 1, 1, 0};
    ctrl->init();
    ctrl->enable(info);
    ctrl->enableBoost(0);  // withdraws the request through a nested disable()
    ctrl->resetTimeout(0);
    ctrl->uninit();  // and so does the leaving user
    ctrl->destroyInstance();
    ctrl = CpuCtrl::createInstance();
    std::string seen;  // "{section" and "}" for the trace, scope and instance lines as written
    for (const auto& r : cap.records()) {
        if (r.sink == Sink::TraceBegin) seen += " {" + r.text;
        if (r.sink == Sink::TraceEnd) seen += " }";
        if (r.sink == Sink::Android && (isScopeLine(r.text) || ending(r.text) == "] ")) seen += " " + r.text;
    }
    EXPECT_EQ(
        " {CpuCtrl::init [init] + [init] - } {CpuCtrl::enable [enable] + [enable] - }"
        " {CpuCtrl::enableBoost [enableBoost] + {CpuCtrl::disable [disable] + [disable] - } [enableBoost] - }"
        " {CpuCtrl::resetTimeout [resetTimeout] + [resetTimeout] - }"
        " {CpuCtrl::uninit [uninit] + {CpuCtrl::disable [disable] + [disable] - } [uninit] - }"
        " [destroyInstance] + [~CpuCtrlImp]  [destroyInstance] - [createInstance]  [CpuCtrlImp] ",
        seen);
}

TEST_F(CpuCtrlTest, OnlyEarlierScenariosOfASessionAreLeftRegistered) {
    Info info{2, 2000, 4, 1000, 0};
    Range range{1, 2, 3, 4, 500, 600, 700, 800, 0};
    for (int session = 0; session < 2; ++session) {
        ctrl->init();
        ctrl->init();
        ctrl->enable(info);
        ctrl->enable(range);
        ctrl->enablePreferIdle();
        ctrl->enableBoost(1);
        ctrl->cpuPerformanceMode(0);
        ctrl->uninit();
        ctrl->uninit();
    }
    // Each session leaves its earlier scenarios registered but withdrawn;
    // the last one (performance mode, 4 and 8) is dropped.
    std::vector<int32_t> left;
    for (const Scenario& s : sim->registered()) left.push_back(s.handle);
    EXPECT_EQ((std::vector<int32_t>{1, 2, 3, 5, 6, 7}), left);
    EXPECT_TRUE(sim->active().empty()) << sim->report();
}

// Camera components built elsewhere call through the virtual table and
// fill the records by offset.
template <typename F>
ptrdiff_t vtableSlot(F f) {
    struct {
        ptrdiff_t ptr, adj;
    } r;
    static_assert(sizeof r == sizeof f, "two-word member pointer");
    memcpy(&r, &f, sizeof r);
#if defined(__aarch64__) || defined(__arm__)
    return (r.adj & 1) ? r.ptr / static_cast<ptrdiff_t>(sizeof(void*)) : -1;  // virtual bit in adj
#else
    return (r.ptr & 1) ? (r.ptr - 1) / static_cast<ptrdiff_t>(sizeof(void*)) : -1;
#endif
}

TEST(CpuCtrlAbi, VirtualSlotsAndRecordLayoutStayFixed) {
    // Slots 0 and 1 are the two destructor forms.
    EXPECT_EQ(2, vtableSlot(&CpuCtrl::destroyInstance));
    EXPECT_EQ(3, vtableSlot(&CpuCtrl::init));
    EXPECT_EQ(4, vtableSlot(&CpuCtrl::uninit));
    EXPECT_EQ(5, vtableSlot(static_cast<bool (CpuCtrl::*)(Info&)>(&CpuCtrl::enable)));
    EXPECT_EQ(6, vtableSlot(static_cast<bool (CpuCtrl::*)(Range&)>(&CpuCtrl::enable)));
    EXPECT_EQ(7, vtableSlot(&CpuCtrl::enableBoost));
    EXPECT_EQ(8, vtableSlot(&CpuCtrl::enablePreferIdle));
    EXPECT_EQ(9, vtableSlot(&CpuCtrl::disable));
    EXPECT_EQ(10, vtableSlot(&CpuCtrl::cpuPerformanceMode));
    EXPECT_EQ(11, vtableSlot(&CpuCtrl::resetTimeout));

    EXPECT_EQ(20u, sizeof(Info));
    EXPECT_EQ((std::vector<size_t>{0, 4, 8, 12, 16}),
              (std::vector<size_t>{offsetof(Info, bigCore), offsetof(Info, bigFreq), offsetof(Info, littleCore),
                                   offsetof(Info, littleFreq), offsetof(Info, timeout)}));
    EXPECT_EQ(36u, sizeof(Range));
    EXPECT_EQ((std::vector<size_t>{0, 4, 8, 12, 16, 20, 24, 28, 32}),
              (std::vector<size_t>{
                  offsetof(Range, bigCoreMin), offsetof(Range, littleCoreMin), offsetof(Range, bigCoreMax),
                  offsetof(Range, littleCoreMax), offsetof(Range, bigFreqMin), offsetof(Range, littleFreqMin),
                  offsetof(Range, bigFreqMax), offsetof(Range, littleFreqMax), offsetof(Range, timeout)}));
}

}  // namespace
