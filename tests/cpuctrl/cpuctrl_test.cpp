// CpuCtrl driven against the simulated power service: the calls it sends
// (from the service's journal), its results and its log lines.
#include <CpuCtrl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <algorithm>
#include <cstring>
#include <functional>
#include <regex>
#include <thread>
#include <tuple>

#include "Capture.h"

namespace {

using namespace qrnhost::power;
using qrntest::Sink;
using Info = CpuCtrl::CPU_CTRL_INFO;
using Range = CpuCtrl::CPU_CTRL_RANGE_INFO;

class CpuCtrlTest : public ::testing::Test {
  protected:
    void SetUp() override { startSim({1800000, 2400000}), cap.clear(); }  // cleared of the creation lines of ctrl
    void TearDown() override { ctrl->destroyInstance(), qrnhost::hidl::unregisterAll(); }
    // No clusters given: a service that reports none.
    void startSim(std::vector<int32_t> freqs) { sim = startDefaultService({freqs, "/nonexistent", 0}); }
    // Service calls since the last take, "; "-separated, without the
    // "Scenario" and "SystemInfo" of their names; configScenario's last two
    // parameters are shown only where they are not 0.
    std::string calls() {
        std::string out;
        for (const Call& c : sim->journal())
            out += (out.empty() ? "" : "; ") +
                   std::regex_replace(c.toString(), std::regex("Scenario|SystemInfo|, 0, 0(?=\\)$)"), "");
        sim->clearJournal();
        return out;
    }
    // The controller's lines of at least minPriority since the last take,
    // without the "[f] +" and "[f] -" scope lines; warnings marked "W ",
    // errors "E " and shown without the suffix that names the source line.
    std::string logs(int minPriority = ANDROID_LOG_DEBUG) {
        std::string out;
        for (const auto& r : cap.records(Sink::Android)) {
            if (r.tag != "QrnCam/CpuCtrl" || r.text.rfind("] ") + 3 == r.text.size() || r.priority < minPriority)
                continue;
            const char* mark = r.priority == ANDROID_LOG_WARN ? "W " : r.priority == ANDROID_LOG_ERROR ? "E " : "";
            out += std::string(out.empty() ? "" : " | ") + mark +
                   std::regex_replace(r.text, std::regex(" \\(\\w+\\)\\{#[0-9]+:utils/sys/CpuCtrl\\.cpp\\}$"), "");
        }
        cap.clear();
        return out;
    }
    qrntest::Capture cap{1, 5, 0x40007000};
    sp<SimPowerService> sim;
    CpuCtrl* ctrl = CpuCtrl::createInstance();
    Info info{2, 2000, 4, -1000, 3};
    Range range{1, 2, 3, 4, 5, 6, 7, 8, 2};
};

// One object with two users through every request kind in turn, then the
// users leaving; each row gives the calls it must send ("..." = only their
// end) and, where given, its lines.
TEST_F(CpuCtrlTest, RequestsAndLeavingUsersDriveTheScenarios) {
    Range partial{-1, 2, 3, -4, 500, -1, 700, 800, 0};
    std::tuple<std::function<bool()>, std::string, std::string> rows[] = {
        {[&] { return ctrl->enable(info); },
         "register() -> 1; config(1, 1, 0, 4); config(1, 1, 1, 2); config(1, 2, 0, 4); config(1, 2, 1, 2); "
         "config(1, 3, 0, -1000); config(1, 3, 1, 2000); config(1, 4, 0, -1000); config(1, 4, 1, 2000); "
         "enable(1, 3000)",
         "[enable] big(2/2000),little(4/-1000),timeout(3) | [enable] mPowerHalHandle:(1)"},
        {[&] { return info.timeout = -5, ctrl->enable(info); }, "...; enable(2, 0)", ""},
        // The previous request is withdrawn, not dropped, before the next one.
        {[&] { return ctrl->enable(range); },
         "disable(2); register() -> 3; config(3, 1, 0, 2); config(3, 1, 1, 1); config(3, 2, 0, 4); config(3, 2, 1, 3); "
         "config(3, 3, 0, 6); config(3, 3, 1, 5); config(3, 4, 0, 8); config(3, 4, 1, 7); enable(3, 2000)",
         ""},
        // A negative big or little value leaves its pair out.
        {[&] { return ctrl->enable(partial); },
         "disable(3); register() -> 4; config(4, 4, 0, 800); config(4, 4, 1, 700); enable(4, 0)",
         "[enable] MIN CORE:big/little(-1/2), MAX CORE:big/little(3/-4) | "
         "[enable] MIN FREQ:big/little(500/700), MAX FREQ:big/little(-1/800) | [enable] timeout(0) | "
         "[enable] mPowerHalHandle:(4) | [enable] CMD_SET_CPU_FREQ_BIG_LITTLE_MAX"},
        {[&] { return ctrl->enablePreferIdle(); },
         "disable(4); register() -> 5; config(5, 65, 1, 0); config(5, 79, 100, 0); enable(5, 0)",
         "[enablePreferIdle] mPowerHalHandle:(5) | [enablePreferIdle] mPowerHalHandle=5 Cmd=65,79"},
        // The boost pins every cluster's top frequency on the current scenario.
        {[&] { return ctrl->enableBoost(2); },
         "disable(5); query(1, 0) -> 2; query(4, 0) -> 1800000; config(5, 3, 0, 1800000); config(5, 4, 0, 1800000); "
         "query(4, 1) -> 2400000; config(5, 3, 1, 2400000); config(5, 4, 1, 2400000); enable(5, 2000)",
         "[enableBoost] modify CPU frequency: 1800000 | [enableBoost] modify CPU frequency: 2400000"},
        {[&] { return ctrl->cpuPerformanceMode(5); },
         "disable(5); register() -> 6; config(6, 5, 1, 0); enable(6, 5000)", ""},
        {[&] { return ctrl->cpuPerformanceMode(-1); }, "...; enable(7, 268435455)", ""},
        {[&] { return ctrl->disable(); }, "disable(7)", ""},
        {[&] { return ctrl->disable(); }, "", "[disable] Not thing to disable"},
        {[&] { return ctrl->resetTimeout(2); }, "enable(7, 2000)", ""},
        {[&] { return ctrl->resetTimeout(0); }, "enable(7, 268435455)", ""},
        // 7 is back on the service but still counted as withdrawn.
        {[&] { return ctrl->cpuPerformanceMode(1); }, "register() -> 8; config(8, 5, 1, 0); enable(8, 1000)", ""},
        {[&] { return ctrl->uninit(); }, "disable(8)", "[uninit] More user(1)"},
        {[&] { return ctrl->enableBoost(0); }, "...; enable(8, 0)", ""},
        {[&] { return ctrl->uninit(); }, "disable(8); unregister(8); disable(8)", "[uninit] Last user(0)"},
        {[&] { return ctrl->uninit(); }, "", "W [uninit] No user(0)"},
    };
    EXPECT_TRUE(ctrl->init() && ctrl->init());
    EXPECT_EQ("[init] First user(0) | [init] More user(1)", logs());
    for (const auto& [request, wantCalls, wantLogs] : rows) {
        EXPECT_TRUE(request()) << wantCalls;
        std::string got = calls(), lines = logs(), want = wantCalls;
        if (want.rfind("...", 0) == 0) want.erase(0, 3), got.erase(0, got.size() - std::min(got.size(), want.size()));
        EXPECT_EQ(want, got);
        EXPECT_EQ(wantLogs.empty() ? lines : wantLogs, lines);  // rows without lines leave them open
    }
    // What stays on the service ("+": enabled): every scenario but the last,
    // withdrawn, and the one that resetTimeout brought back.
    std::string left;
    for (const Scenario& s : sim->registered()) left += std::to_string(s.handle) + (s.enabled ? "+ " : " ");
    EXPECT_EQ("1 2 3 4 5 6 7+ ", left);

    // A boost before any request acts on handle -1, which the last user
    // drops as it is; a service without clusters gets no pins.
    startSim({});
    EXPECT_TRUE(ctrl->init() && ctrl->enableBoost(0) && ctrl->uninit());
    EXPECT_EQ("query(1, 0) -> 0; enable(-1, 0); unregister(-1); disable(-1)", calls());
}

TEST_F(CpuCtrlTest, RequestsFailWithoutUserOrWithoutService) {
    for (int session = 0; session < 2; ++session) {  // never used, then after its last user left
        for (bool ok : {ctrl->enable(info), ctrl->enable(range), ctrl->enableBoost(1), ctrl->enablePreferIdle(),
                        ctrl->cpuPerformanceMode(1), ctrl->resetTimeout(1), ctrl->disable()})
            EXPECT_FALSE(ok);
        EXPECT_EQ("", calls());
        EXPECT_EQ(
            "W [enable] No user | W [enable] No user | W [enableBoost] No user | W [enablePreferIdle] No user | "
            "W [cpuPerformanceMode] No user | W [resetTimeout] No user | W [disable] No user",
            logs());
        ctrl->init(), ctrl->enable(info), ctrl->uninit(), calls(), logs();
    }
    // The boost is left out: it does not check the service. The last user
    // must not use the missing one either.
    qrnhost::hidl::unregisterAll(), ctrl->init();
    for (bool ok : {ctrl->enable(info), ctrl->enable(range), ctrl->enablePreferIdle(), ctrl->cpuPerformanceMode(1),
                    ctrl->resetTimeout(1)})
        EXPECT_FALSE(ok);
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ(
        "W [enable] mPowerHalService == NULL !!! | W [enable] IPower::getService() == NULL !!! | "
        "W [enablePreferIdle] mPowerHalService == NULL !!! | W [cpuPerformanceMode] mPowerHalService == NULL !!! | "
        "W [resetTimeout] mPowerHalHandle is invalid !!!",
        logs(ANDROID_LOG_WARN));
}

// A user's scenario outlives the service when a later init finds none: the
// operations that work on the held handle fail with an ERROR line instead
// of calling through the missing service, and the users can still leave.
TEST_F(CpuCtrlTest, AServiceGoneByALaterInitFailsTheOperationsOnItsHandle) {
    EXPECT_TRUE(ctrl->init() && ctrl->enable(info));
    qrnhost::hidl::unregisterAll();
    EXPECT_TRUE(ctrl->init());
    calls(), logs();
    EXPECT_FALSE(ctrl->disable());
    EXPECT_FALSE(ctrl->resetTimeout(1));
    EXPECT_FALSE(ctrl->enableBoost(1));
    EXPECT_TRUE(ctrl->uninit() && ctrl->uninit());
    EXPECT_EQ(
        "E [disable] mPowerHalService == NULL !!! | E [resetTimeout] mPowerHalService == NULL !!! | "
        "E [disable] mPowerHalService == NULL !!! | E [enableBoost] mPowerHalService == NULL !!! | "
        "E [disable] mPowerHalService == NULL !!! | [uninit] More user(1) | "
        "E [disable] mPowerHalService == NULL !!! | [uninit] Last user(0)",
        logs());
    // A boost right after an init without a service fails the same way.
    EXPECT_TRUE(ctrl->init());
    EXPECT_FALSE(ctrl->enableBoost(0));
    EXPECT_TRUE(ctrl->uninit());
    EXPECT_EQ("[init] First user(0) | E [enableBoost] mPowerHalService == NULL !!! | [uninit] Last user(0)", logs());
    EXPECT_EQ("", calls());
}

// Calls whose result is not used may fail in transport without ending the
// process, up to the last user's unregistering on a dead service.
TEST_F(CpuCtrlTest, TransportFailuresOfCallsWithoutAValueAreIgnored) {
    sim->injectTransportFailure(Op::ConfigScenario, 3), sim->injectTransportFailure(Op::EnableScenario);
    EXPECT_TRUE(ctrl->init() && ctrl->init() && ctrl->cpuPerformanceMode(1) && ctrl->enableBoost(1));
    killDefaultService();
    EXPECT_TRUE(ctrl->disable() && ctrl->resetTimeout(1) && ctrl->uninit() && ctrl->uninit());
    EXPECT_NE(std::string::npos, logs().find("[uninit] Last user(0)"));
}

using CpuCtrlDeathTest = CpuCtrlTest;
TEST_F(CpuCtrlDeathTest, TransportFailureOfRegisterScenarioEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ctrl->init(), sim->injectTransportFailure(Op::RegisterScenario);
    EXPECT_DEATH(ctrl->enablePreferIdle(), "Attempted to retrieve value from failed HIDL call");
}

// The boost (as every request) and the leaving user withdraw the previous
// request through a nested disable(), inside their own section. Every
// section is named "CpuCtrl::<operation>" ("." below).
TEST_F(CpuCtrlTest, OperationsRunInTheirTraceSections) {
    ctrl->init(), ctrl->enable(info), ctrl->enableBoost(0), ctrl->resetTimeout(0), ctrl->uninit();
    std::string seen;
    for (const auto& r : cap.records())
        seen += r.sink == Sink::TraceBegin ? r.text + "(" : r.sink == Sink::TraceEnd ? ")" : "";
    EXPECT_EQ(".init().enable().enableBoost(.disable()).resetTimeout().uninit(.disable())",
              std::regex_replace(seen, std::regex("CpuCtrl::"), "."));
}

// Users come and go on one object from several threads while requesting.
// Replayed, the journal must read as the calls of one serialised controller:
// the calls of one operation follow each other from one thread, and each
// carries the handle the controller holds.
TEST_F(CpuCtrlTest, UsersAndRequestsFromSeveralThreadsStayConsistent) {
    std::function<bool()> requests[] = {
        [&] { return ctrl->enable(info); },          [&] { return ctrl->enable(range); },
        [&] { return ctrl->enableBoost(1); },        [&] { return ctrl->enablePreferIdle(); },
        [&] { return ctrl->cpuPerformanceMode(1); }, [&] { return ctrl->disable(); },
        [&] { return ctrl->resetTimeout(1), true; },  // false while no scenario is registered
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {  // each thread through its own order of requests
            for (unsigned r = 0; r < 100; ++r)
                EXPECT_TRUE(ctrl->init() && requests[(r + t) % 7]() && requests[(r * 3 + t) % 7]() && ctrl->uninit());
        });
    // A deadlock around the nested disable() hangs here, until ctest's timeout.
    for (auto& t : threads) t.join();

    std::vector<Call> j = sim->journal();
    int32_t current = -1;
    for (size_t i = 0; i < j.size() && !HasFailure(); ++i) {
        Op prev = i ? j[i - 1].op : Op::EnableScenario;  // enable and disable end an operation
        bool continues = prev != Op::EnableScenario && prev != Op::DisableScenario;
        EXPECT_TRUE(!continues || j[i - 1].tid == j[i].tid) << j[i].toString() << " at " << i;
        if (j[i].op == Op::RegisterScenario) current = j[i].result;
        if (j[i].op == Op::RegisterScenario || j[i].op == Op::QuerySystemInfo) continue;
        EXPECT_EQ(current, j[i].args.at(0)) << j[i].toString() << " at " << i;
        // Only the boost may enable -1; resetTimeout and disable() check it.
        EXPECT_TRUE(continues || j[i].op == Op::UnregisterScenario || current != -1) << j[i].toString() << " at " << i;
        if (prev == Op::UnregisterScenario) current = -1;
    }
    std::vector<std::string> lines = cap.texts(Sink::Android, "QrnCam/CpuCtrl");
    auto dropped = static_cast<long>(sim->calls(Op::UnregisterScenario).size());
    EXPECT_EQ(dropped, std::count(lines.begin(), lines.end(), "[uninit] Last user(0)"));
    EXPECT_EQ(dropped, std::count(lines.begin(), lines.end(), "[init] First user(0)"));
    // The count is back to exactly none, and the lock is free.
    cap.clear(), ctrl->disable(), ctrl->init();
    EXPECT_EQ("W [disable] No user | [init] First user(0)", logs());
}

// Camera components built elsewhere call through the virtual table. A member
// pointer to a virtual holds its byte offset in the table (odd-marked on some
// targets).
TEST(CpuCtrlAbi, VirtualOperationsKeepTheirSlots) {
    auto slot = [](auto f) {
        ptrdiff_t w[2];
        memcpy(w, &f, sizeof w);
        return (w[0] & ~1) / static_cast<ptrdiff_t>(sizeof(void*));
    };
    ptrdiff_t next = 2;  // after the two destructor forms
    for (ptrdiff_t s : {slot(&CpuCtrl::destroyInstance), slot(&CpuCtrl::init), slot(&CpuCtrl::uninit),
                        slot(static_cast<bool (CpuCtrl::*)(Info&)>(&CpuCtrl::enable)),
                        slot(static_cast<bool (CpuCtrl::*)(Range&)>(&CpuCtrl::enable)), slot(&CpuCtrl::enableBoost),
                        slot(&CpuCtrl::enablePreferIdle), slot(&CpuCtrl::disable), slot(&CpuCtrl::cpuPerformanceMode),
                        slot(&CpuCtrl::resetTimeout)})
        EXPECT_EQ(next++, s);
}

}  // namespace
