// The three perf-lock pairs, against the simulated perf-lock library that the
// controller opens at run time.
#include <chrono>
#include <thread>

#include "Cam3Fixture.h"

namespace cam3test {
namespace {

using qrnhost::perf::Call;
using PerfOp = qrnhost::perf::Op;
using Ints = std::vector<int32_t>;

const Ints kCameraList = {0x01404300, 1, 0x01404100, 1};
const Ints kBoostList = {0x00414000, 1};
const Ints kNoTempaList = {0x02004000, 0};

TEST_F(Cam3Test, EachPairTakesOneLockAndGivesItBack) {
    Capture cap;
    Owned c;
    EXPECT_TRUE(c->enterCameraPerf());
    EXPECT_TRUE(c->enterCameraPerf());  // already on: no second request
    EXPECT_TRUE(c->enterCPUBoost(3000));
    EXPECT_TRUE(c->enterCPUBoost(10));
    EXPECT_TRUE(c->enterNoTempa());
    EXPECT_TRUE(c->enterNoTempa());

    std::vector<Call> acq = qrnhost::perf::calls(PerfOp::Acquire);
    ASSERT_EQ(3u, acq.size());
    EXPECT_EQ(0, acq[0].handle);
    EXPECT_EQ(0, acq[0].duration);
    EXPECT_EQ(4, acq[0].numArgs);
    EXPECT_EQ(kCameraList, acq[0].list);
    EXPECT_EQ(0, acq[1].handle);
    EXPECT_EQ(3000, acq[1].duration);  // passed through unchanged
    EXPECT_EQ(2, acq[1].numArgs);
    EXPECT_EQ(kBoostList, acq[1].list);
    EXPECT_EQ(0, acq[2].duration);
    EXPECT_EQ(kNoTempaList, acq[2].list);
    EXPECT_EQ(3u, qrnhost::perf::held().size());

    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_TRUE(c->exitCameraPerf());  // nothing held any more: no release
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    std::vector<Call> rel = qrnhost::perf::calls(PerfOp::Release);
    ASSERT_EQ(3u, rel.size());
    EXPECT_EQ((Ints{acq[0].result, acq[1].result, acq[2].result}), (Ints{rel[0].handle, rel[1].handle, rel[2].handle}));
    EXPECT_EQ("", qrnhost::perf::report());

    for (const char* text :
         {"[enterCameraPerf] enable camera idle prefer", "[enterCameraPerf] enter camera perf mode",
          "[enterCPUBoost] enter CPU boost", "[enterNoTempa] ", "[enterNoTempa] enter CPU No TEMPA",
          "[exitCameraPerf] exit camera perf mode", "[exitCPUBoost] exit cpu boost", "[exitNoTempa] exit cpu NO TEMPA"})
        EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, kTag, text)) << text;
}

TEST_F(Cam3Test, ExitWithoutEnterReleasesNothing) {
    Owned c;
    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_TRUE(qrnhost::perf::journal().empty());
}

TEST_F(Cam3Test, RefusedLocksLeaveTheStateUnchanged) {
    Capture cap;
    Owned c;
    qrnhost::perf::setRefuseAll(true);
    EXPECT_FALSE(c->enterCameraPerf());
    EXPECT_FALSE(c->enterCPUBoost(100));
    EXPECT_FALSE(c->enterNoTempa());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[enterCameraPerf] failed to lock perf, invalid handle:0"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[enterCPUBoost] failed to lock cpu boost, invalid handle:0"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[enterNoTempa] failed to lock cpu No Tempa, invalid handle:0"));
    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_TRUE(qrnhost::perf::calls(PerfOp::Release).empty());

    // Nothing was recorded as held, so each enter asks again.
    qrnhost::perf::setRefuseAll(false);
    EXPECT_TRUE(c->enterCameraPerf());
    EXPECT_TRUE(c->enterCPUBoost(100));
    EXPECT_TRUE(c->enterNoTempa());
    EXPECT_EQ(6u, qrnhost::perf::calls(PerfOp::Acquire).size());
    EXPECT_EQ(0, qrnhost::perf::calls(PerfOp::Acquire)[3].handle);
    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_EQ("", qrnhost::perf::report());
}

TEST_F(Cam3Test, CameraPerfSwitchedOffByItsProperty) {
    Capture cap;
    Owned c;
    property_set("vendor.cam3dev.idleprefer.enable", "false");
    EXPECT_FALSE(c->enterCameraPerf());
    EXPECT_TRUE(qrnhost::perf::journal().empty());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[enterCameraPerf] failed to lock perf, invalid handle:0"));
    EXPECT_FALSE(cap.hasAndroid(ANDROID_LOG_DEBUG, kTag, "[enterCameraPerf] enable camera idle prefer"));
}

TEST_F(Cam3Test, AnExpiredBoostIsStillTrustedUntilExit) {
    Owned c;
    ASSERT_TRUE(c->enterCPUBoost(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_TRUE(qrnhost::perf::held().empty());  // the simulator let it run out
    EXPECT_TRUE(c->enterCPUBoost(5000));
    EXPECT_EQ(1u, qrnhost::perf::calls(PerfOp::Acquire).size());
    EXPECT_TRUE(c->exitCPUBoost());  // released though gone: the release is still sent
    EXPECT_EQ(1u, qrnhost::perf::calls(PerfOp::Release).size());
    EXPECT_TRUE(c->enterCPUBoost(5000));
    EXPECT_EQ(2u, qrnhost::perf::calls(PerfOp::Acquire).size());
    EXPECT_TRUE(c->exitCPUBoost());
}

TEST_F(Cam3Test, AFullSessionLeavesNothingBehind) {
    property_set("vendor.cam3dev.cpupreferidle", "true");
    Owned c;
    ASSERT_TRUE(c->init());
    EXPECT_TRUE(c->enterCameraPerf());
    EXPECT_TRUE(c->enterCPUBoost(0));
    EXPECT_TRUE(c->enterNoTempa());
    EXPECT_TRUE(c->enablePreferIdle());
    EXPECT_TRUE(c->cpuPerformanceMode(0));
    EXPECT_FALSE(sim->active().empty());
    EXPECT_TRUE(c->exitNoTempa());
    EXPECT_TRUE(c->exitCPUBoost());
    EXPECT_TRUE(c->exitCameraPerf());
    EXPECT_TRUE(c->uninit());
    c.destroy();
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
    EXPECT_EQ("", qrnhost::perf::report());
    EXPECT_EQ(0u, linkedRecipients());
}

}  // namespace
}  // namespace cam3test
