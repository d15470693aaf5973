// CaptureBoost against the host platform: a power service that dies in the
// middle of a session, and perf locks that are refused.
#include <gtest/gtest.h>
#include <qrnhost/testing.h>

#include "CaptureBoost.h"

namespace {

namespace qt = qrnhost::testing;
using qrnhost::power::Op;

// The scenarios a simulated service has enabled now, with performance mode on.
size_t perfModeScenarios(const qrnhost::power::SimPowerService& sim) {
    size_t n = 0;
    for (const auto& s : sim.active()) n += s.settings.perfMode ? 1 : 0;
    return n;
}

// testing_main resets the platform around each test, and fails one that
// leaves a scenario, a perf lock or a death link behind.
class CaptureBoostTest : public ::testing::Test {
  protected:
    void SetUp() override { sim = qt::startPowerService(); }

    qt::sp<qrnhost::power::SimPowerService> sim;
};

TEST_F(CaptureBoostTest, HoldsPerformanceForTheSessionAndGivesEverythingBack) {
    {
        CaptureBoost stage;
        stage.start();
        EXPECT_TRUE(stage.perfLocked());
        EXPECT_TRUE(stage.perfMode());
        EXPECT_EQ(1u, perfModeScenarios(*sim));
        EXPECT_TRUE(stage.burst(500));
        EXPECT_EQ(2u, qrnhost::perf::held().size());  // camera perf mode and the boost
        EXPECT_EQ(1u, perfModeScenarios(*sim));       // replaced, not added
        stage.stop();
        EXPECT_FALSE(stage.burst(500));
    }
    EXPECT_EQ("", qrnhost::perf::report());
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
}

// What the stage asks of the platform, in order: the power-service and
// perf-lock calls and any warning, compared with a transcript that was
// reviewed line by line (golden/session.txt).
TEST_F(CaptureBoostTest, ASessionAsksForTheseResourcesInThisOrder) {
    qt::Capture cap(1, 2, 0, false);  // the Android log, WARN and ERROR lines only; no trace
    qt::Transcript t(cap, sim);
    CaptureBoost stage;
    t.step("start");
    stage.start();
    t.step("burst(500)");
    stage.burst(500);
    t.step("stop");
    stage.stop();
    const std::string diff = t.compare(GOLDEN_DIR "/session.txt", "session.actual.txt");
    EXPECT_TRUE(diff.empty()) << diff;
}

TEST_F(CaptureBoostTest, CarriesOnThroughAPowerServiceThatDiesAndComesBack) {
    CaptureBoost stage;
    stage.start();
    ASSERT_TRUE(stage.perfMode());

    ASSERT_TRUE(qt::kill(qt::powerService()));
    // The controller must hear of the death before it is driven on: a call
    // that returns a value on a dead service ends the process, as on a
    // device.
    ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
    EXPECT_TRUE(stage.burst(100));  // perf locks do not need the service
    EXPECT_FALSE(stage.perfMode());

    auto restarted = qt::startPowerService();
    EXPECT_TRUE(stage.burst(100));
    EXPECT_TRUE(stage.perfMode());
    EXPECT_EQ(1u, perfModeScenarios(*restarted));
    stage.stop();
    EXPECT_TRUE(restarted->registered().empty()) << restarted->report();
    EXPECT_EQ("", qrnhost::perf::report());
}

TEST_F(CaptureBoostTest, ARefusedPerfLockIsAskedForAgainAndTheSessionRuns) {
    CaptureBoost stage;
    qrnhost::perf::refuseNext();
    stage.start();
    EXPECT_FALSE(stage.perfLocked());
    EXPECT_TRUE(stage.perfMode());
    EXPECT_TRUE(stage.burst(100));
    EXPECT_TRUE(stage.perfLocked());

    // Refused for good: bursts run unboosted, and nothing is left held.
    stage.stop();
    qrnhost::perf::setRefuseAll(true);
    stage.start();
    EXPECT_FALSE(stage.burst(100));
    EXPECT_FALSE(stage.perfLocked());
    stage.stop();
    EXPECT_TRUE(qrnhost::perf::held().empty());
}

TEST_F(CaptureBoostTest, AFailedTransactionOnTheServiceLeavesTheSessionRunning) {
    // The requests are fire-and-forget: a lost enable is not the stage's
    // failure, and the next burst puts performance mode back.
    sim->injectTransportFailure(Op::EnableScenario, qt::transportFailure("binder buffer full"));
    CaptureBoost stage;
    stage.start();
    EXPECT_TRUE(stage.perfMode());
    EXPECT_EQ(0u, perfModeScenarios(*sim));
    EXPECT_TRUE(stage.burst(100));
    EXPECT_EQ(1u, perfModeScenarios(*sim));
}

}  // namespace
