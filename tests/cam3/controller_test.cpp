// The camera CPU controller against the simulated power service and
// perf-lock library: user counting, binding, requests, perf locks, and the
// controller's life as its own death recipient. The lifetime cases are meant
// to run under ASan/UBSan and TSan with the real libutils.
#include <Cam3CPUCtrlImp.h>
#include <Capture.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/properties.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

namespace {

using qrntest::Capture;
using Strings = std::vector<std::string>;

// Gives the controller back when the test ends, unless the test did (reset()).
// Held as the implementation for disable(), which is not on the interface.
struct Owned : std::unique_ptr<Utils::Cam3CPUCtrlImp, void (*)(Utils::Cam3CPUCtrl*)> {
    Owned()
        : unique_ptr(static_cast<Utils::Cam3CPUCtrlImp*>(Utils::Cam3CPUCtrl::createInstance()),
                     [](Utils::Cam3CPUCtrl* p) { p->destroyInstance(); }) {}
};

// Death recipients linked to the "default" power service now.
size_t linkedRecipients() {
    auto c = qrnhost::hidl::lookup(vendor::quarnel::hardware::power::V2_0::IPower::descriptor, "default");
    return c == nullptr ? 0 : c->linkedRecipients();
}

// A simulator's journal as text.
template <typename Calls>
Strings text(const Calls& calls) {
    Strings out;
    for (const auto& c : calls) out.push_back(c.toString());
    return out;
}

size_t countAndroid(const Capture& cap, const std::string& text) {
    Strings t = cap.texts(qrntest::Sink::Android, "Cam3CPUCtrl_util");
    return std::count(t.begin(), t.end(), text);
}

class Cam3Test : public ::testing::Test {
  protected:
    void SetUp() override { sim = qrnhost::power::startDefaultService(); }
    void TearDown() override {
        qrnhost::hidl::unregisterAll();
        qrnhost::perf::reset();
        qrnhost::properties::reset();
    }
    ::android::sp<qrnhost::power::SimPowerService> sim;
};

TEST_F(Cam3Test, ASessionCountsUsersHoldsLocksRunsScenariosAndLeavesNothingBehind) {
    Capture cap;
    Owned c;
    EXPECT_FALSE(c->cpuPerformanceMode(10));
    EXPECT_TRUE(c->uninit());                                                   // only logs
    EXPECT_TRUE(c->exitCameraPerf() && c->exitCPUBoost() && c->exitNoTempa());  // nothing held
    qrnhost::perf::setRefuseAll(true);
    EXPECT_EQ((std::vector<bool>{false, false, false}),
              (std::vector<bool>{c->enterCameraPerf(), c->enterCPUBoost(100), c->enterNoTempa()}));
    EXPECT_TRUE(c->exitCameraPerf() && c->exitCPUBoost() && c->exitNoTempa());
    EXPECT_TRUE(qrnhost::perf::calls(qrnhost::perf::Op::Release).empty());
    // Nothing was recorded as held, so each enter asks afresh; the second
    // enter of each asks for nothing.
    qrnhost::perf::reset();
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(c->enterCameraPerf() && c->enterCPUBoost(3000 + i) && c->enterNoTempa());
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(c->exitCameraPerf() && c->exitCPUBoost() && c->exitNoTempa());
    EXPECT_EQ((Strings{"perf_lock_acq(0, 0, {0x01404300, 0x00000001, 0x01404100, 0x00000001}, 4) = 1",
                       "perf_lock_acq(0, 3000, {0x00414000, 0x00000001}, 2) = 2",
                       "perf_lock_acq(0, 0, {0x02004000, 0x00000000}, 2) = 3", "perf_lock_rel(1) = 0",
                       "perf_lock_rel(2) = 0", "perf_lock_rel(3) = 0"}),
              text(qrnhost::perf::journal()));
    // Switched off by its property, camera perf mode asks for nothing.
    property_set("vendor.cam3dev.idleprefer.enable", "false");
    EXPECT_FALSE(c->enterCameraPerf());
    EXPECT_EQ(6u, qrnhost::perf::journal().size());

    EXPECT_TRUE(c->init() && c->init());  // the binding is kept, not linked again
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->disable() && c->cpuPerformanceMode(2000));  // nothing to disable yet
    // Prefer-idle is off by default: refused, and the mode in force is left alone.
    EXPECT_FALSE(c->enablePreferIdle());
    property_set("vendor.cam3dev.cpupreferidle", "1");
    EXPECT_TRUE(c->enablePreferIdle());
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 2000)",
                       "disableScenario(1)", "unregisterScenario(1)", "registerScenario() -> 2",
                       "configScenario(2, 73, 1, 0, 0, 0)", "enableScenario(2, 0)"}),
              text(sim->journal()));
    // No time limit, however it is asked for.
    for (int timeout : {0, -5, 1}) EXPECT_TRUE(c->cpuPerformanceMode(timeout));
    std::vector<int32_t> timeouts;
    for (const auto& e : sim->calls(qrnhost::power::Op::EnableScenario)) timeouts.push_back(e.args[1]);
    EXPECT_EQ((std::vector<int32_t>{2000, 0, 268435455, 268435455, 1}), timeouts);
    sim->clearJournal();
    // Each uninit goes through disable, which gives the handle back.
    EXPECT_TRUE(c->uninit());
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->uninit());
    EXPECT_EQ((Strings{"disableScenario(5)", "unregisterScenario(5)"}), text(sim->journal()));
    EXPECT_EQ(0u, linkedRecipients());
    for (const char* text : {"[uninit] No user(0)", "[init] First user", "[init] More user(1)", "[uninit] More user(1)",
                             "[uninit] Last user(0)", "[enterCPUBoost] failed to lock cpu boost, invalid handle:0",
                             "[enterNoTempa] failed to lock cpu No Tempa, invalid handle:0"})
        EXPECT_EQ(1u, countAndroid(cap, text)) << text;
    // Once refused, once switched off.
    EXPECT_EQ(2u, countAndroid(cap, "[enterCameraPerf] failed to lock perf, invalid handle:0"));
    c.reset();
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
    EXPECT_EQ("", qrnhost::perf::report());
}

TEST_F(Cam3Test, AMissingOrDeadServiceIsBoundAndLinkedByTheNextCall) {
    property_set("vendor.cam3dev.cpupreferidle", "1");
    qrnhost::hidl::unregisterAll();
    Capture cap;
    Owned c;
    EXPECT_TRUE(c->init());  // still counts the user
    EXPECT_FALSE(c->cpuPerformanceMode(5));
    EXPECT_EQ(1u, countAndroid(cap, "[cpuPerformanceMode] mPowerHalService == NULL !!!"));
    // A service that appears late, and then each new one after a death, is
    // bound and linked by whichever call comes next.
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(i == 0 || qrnhost::power::killDefaultService());
        qrnhost::hidl::waitForRuntimeIdle();
        sim = qrnhost::power::startDefaultService();
        EXPECT_TRUE(i == 1 ? c->init() : i == 2 ? c->enablePreferIdle() : c->cpuPerformanceMode(100 + 100 * i)) << i;
        EXPECT_EQ(1u, linkedRecipients()) << i;
    }
    EXPECT_EQ(3u, countAndroid(cap, "[serviceDied] IPower hidl service died"));
    // mEnabled outlived the death without a handle: the request only cleared
    // it before registering anew.
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 400)"}),
              text(sim->journal()));
}

// A capture that stops the first thread writing a given unified-logger line
// until the test opens it.
struct Gate : Capture {
    explicit Gate(std::string line) : line(std::move(line)) {}
    void logNormal(uint32_t module, const char* tag, int32_t level, const char* text, int64_t length) override {
        Capture::logNormal(module, tag, level, text, length);
        if (line != text || seen.exchange(true)) return;
        held.set_value();
        opened.wait();
    }
    const std::string line;
    std::atomic<bool> seen{false};
    std::promise<void> held, open;
    std::shared_future<void> opened = open.get_future();
};

TEST_F(Cam3Test, DestroyingWithTwoUsersRunsOneUninitAndLeavesNoLiveRecipient) {
    Capture cap;
    Owned c;
    ASSERT_TRUE(c->init() && c->init() && c->cpuPerformanceMode(0));
    cap.clear();
    c.reset();
    EXPECT_EQ(1u, countAndroid(cap, "[uninit] +"));
    EXPECT_EQ(1u, countAndroid(cap, "[uninit] More user(1)"));
    EXPECT_EQ(1u, countAndroid(cap, "[~Cam3CPUCtrlImp] "));
    // The link is left with the proxy, but it must no longer reach the
    // object when the service dies.
    EXPECT_EQ(1u, linkedRecipients());
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(0u, countAndroid(cap, "[serviceDied] IPower hidl service died"));
}

TEST_F(Cam3Test, DestroyDuringServiceDiedDefersTheDestructor) {
    Gate gate("[serviceDied] IPower hidl service died");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    gate.held.get_future().wait();  // the runtime holds the promoted recipient now
    c.reset();
    EXPECT_EQ(0u, countAndroid(gate, "[~Cam3CPUCtrlImp] "));
    gate.open.set_value();  // serviceDied returns and lets go of the last reference
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1u, countAndroid(gate, "[~Cam3CPUCtrlImp] "));
}

TEST_F(Cam3Test, DeathBetweenTheTwoLockedSectionsOfARequest) {
    // disable() writes its "+" line in the gap where the request has let
    // go of its lock.
    Gate gate("[disable] +");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(0));
    bool result = false;
    std::thread caller([&] { result = c->cpuPerformanceMode(50); });
    gate.held.get_future().wait();
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    qrnhost::hidl::waitForRuntimeIdle();  // serviceDied has run
    auto next = qrnhost::power::startDefaultService();
    gate.open.set_value();
    caller.join();
    EXPECT_TRUE(result);
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 50)"}),
              text(next->journal()));
    EXPECT_EQ(1u, linkedRecipients());
}

TEST_F(Cam3Test, DeathsRacingUsersOnOtherThreads) {
    // Registering on a service that has just died ends the process by
    // design, so the racing callers stick to what tolerates a dead service:
    // counting users, binding and disabling. One user stays for the whole
    // run: the last uninit unlinks, and a death after that is not heard.
    // Only WARN and ERROR lines are kept, so the record stays small however
    // fast the threads go.
    Capture cap(3, 2, 0);
    Owned c;
    ASSERT_TRUE(c->init());
    std::atomic<bool> stop{false};
    // A user that stops early leaves its init unmatched, which the end notices.
    auto churn = [&] {
        while (!stop && c->init() && c->disable() && c->uninit())
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    };
    std::thread users[] = {std::thread(churn), std::thread(churn), std::thread(churn)};
    for (int i = 0; i < 50; ++i) {
        qrnhost::power::killDefaultService();
        qrnhost::power::startDefaultService();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (auto& t : users) t.join();
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_LT(0u, countAndroid(cap, "[serviceDied] IPower hidl service died"));
    // Every init was matched, whatever died in between: disable() refuses
    // only when no user is left.
    EXPECT_TRUE(c->disable());
    EXPECT_TRUE(c->uninit());
    EXPECT_FALSE(c->disable());
}

}  // namespace
