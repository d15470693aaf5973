// CpuCtrl driven against the simulated power service: the calls it sends
// (from the service's journal), its results and its log lines.
#include <CpuCtrl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <cstring>
#include <functional>

#include "Capture.h"

namespace {

using namespace qrnhost::power;
using qrntest::Sink;
using Info = CpuCtrl::CPU_CTRL_INFO;
using Range = CpuCtrl::CPU_CTRL_RANGE_INFO;

bool isScopeLine(const std::string& t) {
    return t.size() > 2 && t[t.size() - 2] == ' ' && strchr("+-", t.back());
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
    void startSim(std::vector<int32_t> freqs) {  // empty: a service with no cluster
        Config c;
        c.clusterMaxFreq = freqs;
        c.cpufreqRoot = "/nonexistent";
        c.defaultClusters = 0;
        sim = startDefaultService(c);
    }
    // Service calls since the last take, "; "-separated.
    std::string calls() {
        std::string out;
        for (const Call& c : sim->journal()) out += (out.empty() ? "" : "; ") + c.toString();
        sim->clearJournal();
        return out;
    }
    // The controller's lines since the last take, without the scope lines;
    // warnings marked "W ".
    std::string logs() {
        std::string out;
        for (const auto& r : cap.records(Sink::Android))
            if (r.tag == "QrnCam/CpuCtrl" && !isScopeLine(r.text))
                out += (out.empty() ? "" : " | ") + std::string(r.priority == ANDROID_LOG_WARN ? "W " : "") + r.text;
        cap.clear();
        return out;
    }
    qrntest::Capture cap{1, 5, 0x40007000};
    sp<SimPowerService> sim;
    CpuCtrl* ctrl = CpuCtrl::createInstance();
};

TEST_F(CpuCtrlTest, EveryLeavingUserDisablesButOnlyTheLastUnregisters) {
    Info info{2, 2000, 4, 1000, 0};
    EXPECT_TRUE(ctrl->init() && ctrl->init());
    EXPECT_EQ("[init] First user(0) | [init] More user(1)", logs());
    ctrl->enable(info), calls(), logs();
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ("disableScenario(1)", calls());
    EXPECT_EQ("[uninit] More user(1)", logs());
    ctrl->enable(info), calls(), logs();  // already withdrawn, so registered at once
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ("disableScenario(2); unregisterScenario(2); disableScenario(2)", calls());
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ("[uninit] Last user(0) | W [uninit] No user(0)", logs());
    EXPECT_EQ("", calls());

    ctrl->init(), ctrl->uninit();  // no scenario in this session: -1 is dropped as it is
    EXPECT_EQ("unregisterScenario(-1); disableScenario(-1)", calls());
    CpuCtrl* other = CpuCtrl::createInstance();  // with a count of its own
    ctrl->init(), other->uninit();
    EXPECT_EQ(
        "[init] First user(0) | [uninit] Last user(0) | [createInstance]  | [CpuCtrlImp]  | [init] First user(0) | "
        "W [uninit] No user(0)",
        logs());
    other->destroyInstance();
    EXPECT_EQ("[~CpuCtrlImp] ", logs());
}

// One object through every request kind in turn; each row gives the calls
// it must send ("..." = only their end) and, where given, its lines.
TEST_F(CpuCtrlTest, EachRequestSendsItsScenarioAfterWithdrawingThePreviousOne) {
    Info fixed{2, 2000, 4, -1000, 3}, noTimeout{2, 2000, 4, 1000, -5};
    Range full{1, 2, 3, 4, 500, 600, 700, 800, 2}, partial{-1, 2, 3, -4, -1, 1000, 700, 800, 1};
    Range none{-1, -1, -1, -1, -1, -1, -1, -1, 0};
    struct Row {
        std::function<bool()> request;
        std::string calls, logs = {};
    } rows[] = {
        {[&] { return ctrl->enable(fixed); },
         "registerScenario() -> 1; configScenario(1, 1, 0, 4, 0, 0); configScenario(1, 1, 1, 2, 0, 0); "
         "configScenario(1, 2, 0, 4, 0, 0); configScenario(1, 2, 1, 2, 0, 0); configScenario(1, 3, 0, -1000, 0, 0); "
         "configScenario(1, 3, 1, 2000, 0, 0); configScenario(1, 4, 0, -1000, 0, 0); "
         "configScenario(1, 4, 1, 2000, 0, 0); enableScenario(1, 3000)",
         "[enable] big(2/2000),little(4/-1000),timeout(3) | [enable] mPowerHalHandle:(1)"},
        {[&] { return ctrl->enable(noTimeout); }, "...configScenario(2, 4, 1, 2000, 0, 0); enableScenario(2, 0)"},
        {[&] { return ctrl->enable(full); },
         "disableScenario(2); registerScenario() -> 3; configScenario(3, 1, 0, 2, 0, 0); "
         "configScenario(3, 1, 1, 1, 0, 0); configScenario(3, 2, 0, 4, 0, 0); configScenario(3, 2, 1, 3, 0, 0); "
         "configScenario(3, 3, 0, 600, 0, 0); configScenario(3, 3, 1, 500, 0, 0); configScenario(3, 4, 0, 800, 0, 0); "
         "configScenario(3, 4, 1, 700, 0, 0); enableScenario(3, 2000)",
         "[enable] MIN CORE:big/little(1/2), MAX CORE:big/little(3/4) | [enable] MIN FREQ:big/little(500/700), "
         "MAX FREQ:big/little(600/800) | [enable] timeout(2) | [enable] mPowerHalHandle:(3) | "
         "[enable] CMD_SET_CPU_CORE_BIG_LITTLE_MIN | [enable] CMD_SET_CPU_CORE_BIG_LITTLE_MAX | "
         "[enable] CMD_SET_CPU_FREQ_BIG_LITTLE_MIN | [enable] CMD_SET_CPU_FREQ_BIG_LITTLE_MAX"},
        {[&] { return ctrl->enable(partial); },
         "disableScenario(3); registerScenario() -> 4; configScenario(4, 4, 0, 800, 0, 0); "
         "configScenario(4, 4, 1, 700, 0, 0); enableScenario(4, 1000)"},
        {[&] { return ctrl->enable(none); }, "disableScenario(4); registerScenario() -> 5; enableScenario(5, 0)"},
        {[&] { return ctrl->enablePreferIdle(); },
         "disableScenario(5); registerScenario() -> 6; configScenario(6, 65, 1, 0, 0, 0); "
         "configScenario(6, 79, 100, 0, 0, 0); enableScenario(6, 0)",
         "[enablePreferIdle] mPowerHalHandle:(6) | [enablePreferIdle] mPowerHalHandle=6 Cmd=65,79"},
        {[&] { return ctrl->enableBoost(2); },
         "disableScenario(6); querySystemInfo(1, 0) -> 2; querySystemInfo(4, 0) -> 1800000; "
         "configScenario(6, 3, 0, 1800000, 0, 0); configScenario(6, 4, 0, 1800000, 0, 0); "
         "querySystemInfo(4, 1) -> 2400000; configScenario(6, 3, 1, 2400000, 0, 0); "
         "configScenario(6, 4, 1, 2400000, 0, 0); enableScenario(6, 2000)",
         "[enableBoost] modify CPU frequency: 1800000 | [enableBoost] modify CPU frequency: 2400000"},
        {[&] { return ctrl->enableBoost(0); }, "...; enableScenario(6, 0)"},
        {[&] { return ctrl->cpuPerformanceMode(5); },
         "disableScenario(6); registerScenario() -> 7; configScenario(7, 5, 1, 0, 0, 0); enableScenario(7, 5000)"},
        {[&] { return ctrl->cpuPerformanceMode(-1); }, "...; enableScenario(8, 268435455)"},
        {[&] { return ctrl->disable(); }, "disableScenario(8)"},
        {[&] { return ctrl->disable(); }, "", "[disable] Not thing to disable"},
        {[&] { return ctrl->resetTimeout(0); }, "enableScenario(8, 268435455)"},
        {[&] { return ctrl->resetTimeout(2); }, "enableScenario(8, 2000)"},
        // 8 is back on the service but still counted as withdrawn.
        {[&] { return ctrl->enable(none); }, "registerScenario() -> 9; enableScenario(9, 0)"},
    };
    ctrl->init(), logs();
    for (const Row& row : rows) {
        EXPECT_TRUE(row.request()) << row.calls;
        std::string got = calls(), lines = logs();
        if (row.calls.rfind("...", 0) == 0)
            EXPECT_EQ(row.calls.substr(3), got.substr(got.size() - std::min(got.size(), row.calls.size() - 3)));
        else
            EXPECT_EQ(row.calls, got);
        if (!row.logs.empty()) {
            EXPECT_EQ(row.logs, lines);
        }
    }

    // What stays on the service: every scenario but the last, withdrawn,
    // and the one that resetTimeout brought back.
    ctrl->uninit();
    EXPECT_EQ("disableScenario(9); unregisterScenario(9); disableScenario(9)", calls());
    std::vector<int32_t> left, active;
    for (const Scenario& s : sim->registered()) left.push_back(s.handle);
    for (const Scenario& s : sim->active()) active.push_back(s.handle);
    EXPECT_EQ((std::vector<int32_t>{1, 2, 3, 4, 5, 6, 7, 8}), left);
    EXPECT_EQ(std::vector<int32_t>{8}, active);

    // A boost before any request acts on handle -1; a service without
    // clusters gets no pins.
    startSim({});
    ctrl->init();
    EXPECT_TRUE(ctrl->enableBoost(0));
    EXPECT_EQ("querySystemInfo(1, 0) -> 0; enableScenario(-1, 0)", calls());
}

TEST_F(CpuCtrlTest, RequestsFailWithoutUserOrWithoutService) {
    Info info{1, 1, 1, 1, 0};
    Range range{1, 1, 1, 1, 1, 1, 1, 1, 0};
    auto requestAll = [&] {
        return std::vector<bool>{ctrl->enable(info),       ctrl->enable(range),         ctrl->enableBoost(1),
                                 ctrl->enablePreferIdle(), ctrl->cpuPerformanceMode(1), ctrl->resetTimeout(1),
                                 ctrl->disable()};
    };
    for (int session = 0; session < 2; ++session) {  // never used, then after its last user left
        EXPECT_EQ(std::vector<bool>(7, false), requestAll());
        EXPECT_EQ(
            "W [enable] No user | W [enable] No user | W [enableBoost] No user | W [enablePreferIdle] No user | "
            "W [cpuPerformanceMode] No user | W [resetTimeout] No user | W [disable] No user",
            logs());
        ctrl->init(), ctrl->enable(info), ctrl->uninit(), calls(), logs();
    }
    EXPECT_EQ("", calls());

    qrnhost::hidl::unregisterAll();
    EXPECT_TRUE(ctrl->init());
    // The boost is left out: it does not check the service.
    EXPECT_EQ((std::vector<bool>{false, false, false, false, false, true}),
              (std::vector<bool>{ctrl->enable(info), ctrl->enable(range), ctrl->enablePreferIdle(),
                                 ctrl->cpuPerformanceMode(1), ctrl->resetTimeout(1), ctrl->disable()}));
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ(
        "[init] First user(0) | [enable] big(1/1),little(1/1),timeout(0) | W [enable] mPowerHalService == NULL !!! | "
        "[enable] MIN CORE:big/little(1/1), MAX CORE:big/little(1/1) | "
        "[enable] MIN FREQ:big/little(1/1), MAX FREQ:big/little(1/1) | [enable] timeout(0) | "
        "W [enable] IPower::getService() == NULL !!! | W [enablePreferIdle] mPowerHalService == NULL !!! | "
        "W [cpuPerformanceMode] mPowerHalService == NULL !!! | W [resetTimeout] mPowerHalHandle is invalid !!! | "
        "[disable] Not thing to disable | [uninit] Last user(0)",
        logs());
}

TEST_F(CpuCtrlTest, TransportFailuresAreIgnoredUnlessAValueIsRead) {
    ctrl->init(), ctrl->init();
    sim->injectTransportFailure(Op::ConfigScenario, 3);
    sim->injectTransportFailure(Op::EnableScenario);
    EXPECT_TRUE(ctrl->cpuPerformanceMode(1) && ctrl->enableBoost(1));
    EXPECT_EQ(2u, sim->registered().at(0).commands.size());  // the two pins of cluster 1 got through
    EXPECT_EQ(1u, sim->active().size());
    killDefaultService();  // every call now fails in transport
    EXPECT_TRUE(ctrl->disable() && ctrl->resetTimeout(1) && ctrl->uninit() && ctrl->uninit());
    EXPECT_NE(std::string::npos, logs().find("[uninit] Last user(0)"));

    // Reading the value of a failed call ends the process, as on the device.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    startSim({1000});
    ctrl->init();
    EXPECT_DEATH(sim->injectTransportFailure(Op::RegisterScenario);
                 ctrl->enablePreferIdle(), "Attempted to retrieve value from failed HIDL call");
    EXPECT_DEATH(sim->injectTransportFailure(Op::QuerySystemInfo);
                 ctrl->enableBoost(0), "Attempted to retrieve value from failed HIDL call");
    EXPECT_DEATH(killDefaultService();
                 ctrl->cpuPerformanceMode(0), "Attempted to retrieve value from failed HIDL call");
}

TEST_F(CpuCtrlTest, OperationsRunInTheirTraceSectionsAndScopeLines) {
    Info info{1, 1, 1, 1, 0};
    ctrl->init(), ctrl->enable(info);
    ctrl->enableBoost(0);  // withdraws the request through a nested disable()
    ctrl->resetTimeout(0);
    ctrl->uninit();  // and so does the leaving user
    ctrl->destroyInstance();
    ctrl = nullptr;
    std::string seen;  // "{section" and "}" for the trace, and the scope lines, as written
    for (const auto& r : cap.records()) {
        if (r.sink == Sink::TraceBegin) seen += " {" + r.text;
        if (r.sink == Sink::TraceEnd) seen += " }";
        if (r.sink == Sink::Android && isScopeLine(r.text)) seen += " " + r.text;
    }
    EXPECT_EQ(
        " {CpuCtrl::init [init] + [init] - } {CpuCtrl::enable [enable] + [enable] - }"
        " {CpuCtrl::enableBoost [enableBoost] + {CpuCtrl::disable [disable] + [disable] - } [enableBoost] - }"
        " {CpuCtrl::resetTimeout [resetTimeout] + [resetTimeout] - }"
        " {CpuCtrl::uninit [uninit] + {CpuCtrl::disable [disable] + [disable] - } [uninit] - }"
        " [destroyInstance] + [destroyInstance] -",
        seen);
}

// Camera components built elsewhere call through the virtual table.
template <typename F>
ptrdiff_t slot(F f) {
    ptrdiff_t r[2];  // two-word member pointer: function part, adjustment
    static_assert(sizeof r == sizeof f);
    memcpy(r, &f, sizeof r);
#if defined(__aarch64__) || defined(__arm__)
    return (r[1] & 1) ? r[0] / static_cast<ptrdiff_t>(sizeof(void*)) : -1;
#else
    return (r[0] & 1) ? (r[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*)) : -1;
#endif
}

TEST(CpuCtrlAbi, VirtualOperationsKeepTheirSlots) {
    // Slots 0 and 1 hold the two destructor forms.
    EXPECT_EQ(
        (std::vector<ptrdiff_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}),
        (std::vector<ptrdiff_t>{slot(&CpuCtrl::destroyInstance), slot(&CpuCtrl::init), slot(&CpuCtrl::uninit),
                                slot(static_cast<bool (CpuCtrl::*)(Info&)>(&CpuCtrl::enable)),
                                slot(static_cast<bool (CpuCtrl::*)(Range&)>(&CpuCtrl::enable)),
                                slot(&CpuCtrl::enableBoost), slot(&CpuCtrl::enablePreferIdle), slot(&CpuCtrl::disable),
                                slot(&CpuCtrl::cpuPerformanceMode), slot(&CpuCtrl::resetTimeout)}));
}

}  // namespace
