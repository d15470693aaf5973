// The camera CPU controller against the simulated power service and
// perf-lock library: user counting, binding, requests, perf locks, and the
// controller's life as its own death recipient. The lifetime cases are meant
// to run under ASan/UBSan and TSan with the real libutils.
#include <Cam3CPUCtrlImp.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/testing.h>
#include <memory>
#include <optional>
#include <thread>

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using qt::Capture;
using Strings = std::vector<std::string>;

// Gives the controller back when the test ends, unless the test did (reset()).
// Held as the implementation for disable(), which is not on the interface.
struct Owned : std::unique_ptr<Utils::Cam3CPUCtrlImp, void (*)(Utils::Cam3CPUCtrl*)> {
    Owned()
        : unique_ptr(static_cast<Utils::Cam3CPUCtrlImp*>(Utils::Cam3CPUCtrl::createInstance()),
                     [](Utils::Cam3CPUCtrl* p) { p->destroyInstance(); }) {}
};

class Cam3Test : public ::testing::Test {
  protected:
    void SetUp() override {
        sim = qrnhost::power::startDefaultService();
        // The perf-lock library is loaded once per process, by the first
        // controller. Loaded here, every scenario starts alike whichever runs
        // first; the loader's own lines are the loader test's.
        Utils::Cam3CPUCtrl::createInstance()->destroyInstance();
    }
    void TearDown() override { ctrl.reset(), qrnhost::testing::reset(); }

    // The steps of the scenarios in golden/: every call of the controller,
    // perf locks refused, and the service coming, going and refusing links.
    qt::Script script(qt::Transcript& t) {
        qt::Script s(t);
        s.on("createInstance", [&] { ctrl.emplace(); })
            .on("destroyInstance", [&] { ctrl.reset(); })
            .on("init", [&] { return (*ctrl)->init(); })
            .on("uninit", [&] { return (*ctrl)->uninit(); })
            .on("disable", [&] { return (*ctrl)->disable(); })
            .on("enablePreferIdle", [&] { return (*ctrl)->enablePreferIdle(); })
            .on("cpuPerformanceMode", [&](const qt::Args& a) { return (*ctrl)->cpuPerformanceMode(int(a[0])); })
            .on("enterCameraPerf", [&] { return (*ctrl)->enterCameraPerf(); })
            .on("exitCameraPerf", [&] { return (*ctrl)->exitCameraPerf(); })
            .on("enterCPUBoost", [&](const qt::Args& a) { return (*ctrl)->enterCPUBoost(int(a[0])); })
            .on("exitCPUBoost", [&] { return (*ctrl)->exitCPUBoost(); })
            .on("enterNoTempa", [&] { return (*ctrl)->enterNoTempa(); })
            .on("exitNoTempa", [&] { return (*ctrl)->exitNoTempa(); })
            .on("perf locks refused", [](const qt::Args& a) { qrnhost::perf::setRefuseAll(a[0] != 0); })
            .on("no service", [] { qrnhost::hidl::unregisterAll(); })
            .on("the service is registered", [&] { t.replaceSim(sim = qrnhost::power::startDefaultService()); })
            .on("the service dies", [] { qrnhost::power::killDefaultService(), qrnhost::hidl::waitForRuntimeIdle(); })
            .on("linkToDeath refuses", [] { qt::makeLinkToDeathReturnFalse(qt::powerService()); })
            .on("linkToDeath fails",
                [] { qt::makeLinkToDeathFail(qt::powerService(), qt::transportFailure("binder gone")); })
            .on("linked recipients", [] { return qt::linkedRecipients(qt::powerService()); })
            .on("left on the service", [&] { return sim->report(); })
            .on("perf locks held", [] { return qrnhost::perf::report(); });
        return s;
    }
    ::android::sp<qrnhost::power::SimPowerService> sim;
    std::optional<Owned> ctrl;
};

// A whole session, both sinks and the trace on: requests without a user,
// perf locks refused, held, held again and released, the properties that
// switch requests off, two users through the power-service requests, and
// what is left behind (nothing).
TEST_F(Cam3Test, SessionTranscript) {
    Capture cap(3, 5, 0x00107000);
    qt::Transcript t(cap, sim);
    QRN_RUN_SCRIPT(script(t), "session");
}

// The binding: no service at init, one that appears late, each new one
// after a death bound and linked by whichever call comes next; then an
// object destroyed with two users left, whose death notice must no longer
// reach it; last, links that are refused or fail.
TEST_F(Cam3Test, BindingTranscript) {
    Capture cap(1, 5, 0x00107000, false);
    qt::Transcript t(cap, nullptr);
    QRN_RUN_SCRIPT(script(t), "binding");
}

TEST_F(Cam3Test, DestroyDuringServiceDiedDefersTheDestructor) {
    Capture cap;
    cap.holdAt("[serviceDied] IPower hidl service died");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    cap.waitUntilHeld();  // the runtime holds the promoted recipient now
    c.reset();
    EXPECT_FALSE(cap.hasAndroid(ANDROID_LOG_DEBUG, "Cam3CPUCtrl_util", "[~Cam3CPUCtrlImp] "));
    cap.release();  // serviceDied returns and lets go of the last reference
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, "Cam3CPUCtrl_util", "[~Cam3CPUCtrlImp] "));
}

TEST_F(Cam3Test, DeathBetweenTheTwoLockedSectionsOfARequest) {
    // disable() writes its "+" line in the gap where the request has let
    // go of its lock.
    Capture cap;
    cap.holdAt("[disable] +");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(0));
    bool result = false;
    std::thread caller([&] { result = c->cpuPerformanceMode(50); });
    cap.waitUntilHeld();
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    qrnhost::hidl::waitForRuntimeIdle();  // serviceDied has run
    auto next = qrnhost::power::startDefaultService();
    cap.release();
    caller.join();
    EXPECT_TRUE(result);
    Strings calls;
    for (const auto& call : next->journal()) calls.push_back(call.toString());
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 50)"}), calls);
    EXPECT_EQ(1u, qt::linkedRecipients(qt::powerService()));
}

}  // namespace
