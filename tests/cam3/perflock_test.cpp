// The three perf-lock pairs, against the simulated perf-lock library that the
// controller opens at run time.
#include <chrono>
#include <thread>

#include "Cam3Fixture.h"

namespace cam3test {
namespace {

std::vector<std::string> perfJournal() {
    std::vector<std::string> out;
    for (const auto& c : qrnhost::perf::journal()) out.push_back(c.toString());
    return out;
}

TEST_F(Cam3Test, EachPairHoldsOneLockAndGivesItBack) {
    Owned c;
    EXPECT_TRUE(c->exitCameraPerf());  // nothing held: nothing released
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    for (int i = 0; i < 2; ++i) {  // the second enter of each asks for nothing
        EXPECT_TRUE(c->enterCameraPerf());
        EXPECT_TRUE(c->enterCPUBoost(3000 + i));
        EXPECT_TRUE(c->enterNoTempa());
    }
    EXPECT_EQ(3u, qrnhost::perf::held().size());
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(c->exitCameraPerf());
        EXPECT_TRUE(c->exitCPUBoost());
        EXPECT_TRUE(c->exitNoTempa());
    }
    EXPECT_EQ((Strings{"perf_lock_acq(0, 0, {0x01404300, 0x00000001, 0x01404100, 0x00000001}, 4) = 1",
                       "perf_lock_acq(0, 3000, {0x00414000, 0x00000001}, 2) = 2",
                       "perf_lock_acq(0, 0, {0x02004000, 0x00000000}, 2) = 3", "perf_lock_rel(1) = 0",
                       "perf_lock_rel(2) = 0", "perf_lock_rel(3) = 0"}),
              perfJournal());
    EXPECT_EQ("", qrnhost::perf::report());
}

TEST_F(Cam3Test, RefusedLocksLeaveTheStateUnchanged) {
    Capture cap;
    Owned c;
    qrnhost::perf::setRefuseAll(true);
    EXPECT_FALSE(c->enterCameraPerf());
    EXPECT_FALSE(c->enterCPUBoost(100));
    EXPECT_FALSE(c->enterNoTempa());
    for (const char* text : {"[enterCameraPerf] failed to lock perf, invalid handle:0",
                             "[enterCPUBoost] failed to lock cpu boost, invalid handle:0",
                             "[enterNoTempa] failed to lock cpu No Tempa, invalid handle:0"})
        EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, text)) << text;
    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_TRUE(qrnhost::perf::calls(qrnhost::perf::Op::Release).empty());
    // Nothing was recorded as held, so the next enter asks again, afresh.
    qrnhost::perf::setRefuseAll(false);
    EXPECT_TRUE(c->enterCameraPerf());
    EXPECT_EQ(0, qrnhost::perf::journal().back().handle);
    EXPECT_TRUE(c->exitCameraPerf());
}

TEST_F(Cam3Test, CameraPerfSwitchedOffByItsProperty) {
    Owned c;
    Capture cap;
    property_set("vendor.cam3dev.idleprefer.enable", "false");
    EXPECT_FALSE(c->enterCameraPerf());
    EXPECT_TRUE(qrnhost::perf::journal().empty());
    EXPECT_EQ(Strings{"[enterCameraPerf] failed to lock perf, invalid handle:0"}, cap.texts(Sink::Android, kTag));
}

TEST_F(Cam3Test, AnExpiredBoostIsStillTrustedUntilExit) {
    Owned c;
    ASSERT_TRUE(c->enterCPUBoost(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_TRUE(qrnhost::perf::held().empty());  // the simulator let it run out
    EXPECT_TRUE(c->enterCPUBoost(5000));         // no new request
    EXPECT_TRUE(c->exitCPUBoost());              // the release is still sent
    EXPECT_EQ((Strings{"perf_lock_acq(0, 20, {0x00414000, 0x00000001}, 2) = 1", "perf_lock_rel(1) = -1"}),
              perfJournal());
}

TEST_F(Cam3Test, AFullSessionLeavesNothingBehind) {
    property_set("vendor.cam3dev.cpupreferidle", "true");
    Owned c;
    ASSERT_TRUE(c->init());
    EXPECT_TRUE(c->enterCameraPerf() && c->enterCPUBoost(0) && c->enterNoTempa());
    EXPECT_TRUE(c->enablePreferIdle() && c->cpuPerformanceMode(0));
    EXPECT_FALSE(sim->active().empty());
    EXPECT_TRUE(c->exitNoTempa() && c->exitCPUBoost() && c->exitCameraPerf());
    EXPECT_TRUE(c->uninit());
    c.destroy();
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
    EXPECT_EQ("", qrnhost::perf::report());
    EXPECT_EQ(0u, linkedRecipients());
}

}  // namespace
}  // namespace cam3test
