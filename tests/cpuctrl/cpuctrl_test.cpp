// CpuCtrl against the simulated power service. What its callers and the
// service see (log lines of both sinks, trace sections, service calls, in
// order) is compared with the transcripts in golden/; the other cases are
// about threads and transport failures.
#include <CpuCtrl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/transcript.h>
#include <algorithm>
#include <functional>
#include <thread>

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using namespace qrnhost::power;
using qt::Sink;
using Info = CpuCtrl::CPU_CTRL_INFO;
using Range = CpuCtrl::CPU_CTRL_RANGE_INFO;

// A service whose clusters top out at 1.8 and 2.4 GHz, or with none.
sp<SimPowerService> startSim(std::vector<int32_t> freqs = {1800000, 2400000}) {
    return startDefaultService({std::move(freqs), "/nonexistent", 0});
}

// The scenarios of golden/: every call of CpuCtrl, and the service coming
// and going around them.
qt::Script script(qt::Transcript& t, CpuCtrl*& ctrl, sp<SimPowerService>& sim) {
    qt::Script s(t);
    s.on("createInstance", [&] { ctrl = CpuCtrl::createInstance(); })
        .on("destroyInstance", [&] { ctrl->destroyInstance(); })
        .on("init", [&] { return ctrl->init(); })
        .on("uninit", [&] { return ctrl->uninit(); })
        .on("enable",  // big cores and frequency, little ones, timeout; or four ranges and a timeout
            [&](const qt::Args& a) {
                if (a.size() == 5) {
                    Info info{int(a[0]), int(a[1]), int(a[2]), int(a[3]), int(a[4])};
                    return ctrl->enable(info);
                }
                Range r{int(a[0]), int(a[1]), int(a[2]), int(a[3]), int(a[4]),
                        int(a[5]), int(a[6]), int(a[7]), int(a[8])};
                return ctrl->enable(r);
            })
        .on("enablePreferIdle", [&] { return ctrl->enablePreferIdle(); })
        .on("enableBoost", [&](const qt::Args& a) { return ctrl->enableBoost(int(a[0])); })
        .on("cpuPerformanceMode", [&](const qt::Args& a) { return ctrl->cpuPerformanceMode(int(a[0])); })
        .on("resetTimeout", [&](const qt::Args& a) { return ctrl->resetTimeout(int(a[0])); })
        .on("disable", [&] { return ctrl->disable(); })
        .on("no service", [] { qrnhost::hidl::unregisterAll(); })
        .on("the service is registered", [&] { t.replaceSim(sim = startSim()); })
        .on("a service without clusters is registered", [&] { t.replaceSim(sim = startSim({})); })
        .on("left on the service", [&] {
            for (const Scenario& sc : sim->registered()) t.note("-> " + sc.describe());
        });
    return s;
}

class CpuCtrlTranscript : public ::testing::Test {
  protected:
    void TearDown() override { qrnhost::hidl::unregisterAll(); }
    sp<SimPowerService> sim = startSim();
    CpuCtrl* ctrl = nullptr;
};

// Two users through every kind of request, then leaving one by one; both
// sinks and the trace on.
TEST_F(CpuCtrlTranscript, TwoUsersThroughEveryRequest) {
    qt::Capture cap(3, 5, 0x40007000);
    qt::Transcript t(cap, sim);
    QRN_RUN_SCRIPT(script(t, ctrl, sim), "two-users");
}

// Requests without a user, without a service, and on a service that a
// later init no longer found; a boost before any request and on a service
// without clusters. Android log only.
TEST_F(CpuCtrlTranscript, RequestsWithoutUserOrService) {
    qt::Capture cap(1, 5, 0x40007000);
    qt::Transcript t(cap, sim);
    QRN_RUN_SCRIPT(script(t, ctrl, sim), "without-user-or-service");
}

class CpuCtrlTest : public ::testing::Test {
  protected:
    void TearDown() override { ctrl->destroyInstance(), qrnhost::hidl::unregisterAll(); }
    qt::Capture cap{1, 5, 0x40007000};
    sp<SimPowerService> sim = startSim();
    CpuCtrl* ctrl = CpuCtrl::createInstance();
    Info info{2, 2000, 4, -1000, 3};
    Range range{1, 2, 3, 4, 5, 6, 7, 8, 2};
};

// Calls whose result is not used may fail in transport without ending the
// process, up to the last user's unregistering on a dead service.
TEST_F(CpuCtrlTest, TransportFailuresOfCallsWithoutAValueAreIgnored) {
    sim->injectTransportFailure(Op::ConfigScenario, 3), sim->injectTransportFailure(Op::EnableScenario);
    EXPECT_TRUE(ctrl->init() && ctrl->init() && ctrl->cpuPerformanceMode(1) && ctrl->enableBoost(1));
    killDefaultService();
    EXPECT_TRUE(ctrl->disable() && ctrl->resetTimeout(1) && ctrl->uninit() && ctrl->uninit());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, "QrnCam/CpuCtrl", "[uninit] Last user(0)"));
}

using CpuCtrlDeathTest = CpuCtrlTest;
TEST_F(CpuCtrlDeathTest, TransportFailureOfRegisterScenarioEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ctrl->init(), sim->injectTransportFailure(Op::RegisterScenario);
    EXPECT_DEATH(ctrl->enablePreferIdle(), "Attempted to retrieve value from failed HIDL call");
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
    cap.clear();
    EXPECT_FALSE(ctrl->disable());
    EXPECT_TRUE(ctrl->init());
    EXPECT_EQ((std::vector<std::string>{"[disable] +", "[disable] No user", "[disable] -", "[init] +",
                                        "[init] First user(0)", "[init] -"}),
              cap.texts(Sink::Android, "QrnCam/CpuCtrl"));
}

}  // namespace
