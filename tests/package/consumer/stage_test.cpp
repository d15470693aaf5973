// The capture stage against the installed harness, as a new user writes it
// from the headers: run by testing_main, each test starts on a fresh
// platform and must give back all it takes.
#include <gtest/gtest.h>
#include <qrnhost/testing.h>

#include "capture_stage.h"

namespace {

namespace qt = qrnhost::testing;

TEST(CaptureStage, ASessionHoldsPerformanceAndGivesItBack) {
    auto sim = qt::startPowerService();
    qt::TempDir dir;
    CaptureStage stage(dir.path());
    ASSERT_TRUE(stage.start());
    EXPECT_EQ(1u, sim->active().size());
    EXPECT_EQ(1u, qrnhost::perf::held().size());
    stage.stop();
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
    EXPECT_EQ("", qrnhost::perf::report());
}

TEST(CaptureStage, DumpedFramesAreCompleteOnceTheDumpsAreWaitedFor) {
    qt::TempDir dir;
    CaptureStage stage(dir.path());
    const std::string frame(1 << 20, 'f');
    ASSERT_TRUE(stage.dump("a.raw", frame));
    ASSERT_TRUE(stage.dump("b.raw", frame));
    ASSERT_TRUE(qt::waitForDumps());
    EXPECT_EQ(frame, qt::readFile(dir.file("a.raw")));
    EXPECT_EQ(frame, qt::readFile(dir.file("b.raw")));
}

TEST(CaptureStage, TheBudgetPropertyRefusesAFrameThatDoesNotFit) {
    qt::TempDir dir;
    property_set(qt::prop::kFileCacheBudget, "1024");
    CaptureStage stage(dir.path());
    qt::Capture cap;
    EXPECT_FALSE(stage.dump("big.raw", std::string(2048, 'b')));
    EXPECT_EQ(1u, cap.texts(qt::Sink::Android, "file_cache").size());
    qt::reset();  // the property too
}

TEST(CaptureStage, TheTemperatureComesFromTheThermalNode) {
    qt::KernelNodes nodes;
    ASSERT_TRUE(nodes.set(qt::node::kApTemperature, "452\n"));
    EXPECT_EQ(452, CaptureStage(nodes.root()).temperature());
    nodes.remove(qt::node::kApTemperature);
    EXPECT_EQ(-2, CaptureStage(nodes.root()).temperature());
}

}  // namespace
