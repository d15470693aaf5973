// A test program run by testing_main, as a user's would be, for
// harness_test to read: some of its tests leave things behind or fail on
// purpose. It is not a test of the suite itself.
#include <Cam3CPUCtrl.h>
#include <gtest/gtest.h>

#include <qrnhost/testing.h>

namespace {

namespace qt = qrnhost::testing;
using Ctrl = Utils::Cam3CPUCtrl;

TEST(Watched, LeavesTheCameraPerfLockHeld) {
    Ctrl* ctrl = Ctrl::createInstance();
    EXPECT_TRUE(ctrl->enterCameraPerf());
    ctrl->destroyInstance();  // without exitCameraPerf()
}

TEST(Watched, SetsAPropertyAndARefusal) {
    property_set(qt::prop::kCameraPerf, "0");
    qrnhost::perf::refuseNext(2);
}

TEST(Watched, StartsOnAFreshPlatform) {
    EXPECT_TRUE(property_get_bool(qt::prop::kCameraPerf, true));
    Ctrl* ctrl = Ctrl::createInstance();
    EXPECT_TRUE(ctrl->enterCameraPerf());
    EXPECT_TRUE(ctrl->exitCameraPerf());
    ctrl->destroyInstance();
}

TEST(Watched, LeavesALockOnPurpose) {
    Ctrl* ctrl = Ctrl::createInstance();
    EXPECT_TRUE(ctrl->enterNoTempa());
    qt::leaveOnPurpose(qt::Left::PerfLock, "enterNoTempa");
    ctrl->destroyInstance();
}

TEST(Watched, WaitsForALineNeverLogged) {
    qt::Capture cap;
    cap.holdAt("never");
    cap.waitUntilHeld(std::chrono::milliseconds(20));
}

TEST(Watched, FailsAndShowsWhatHappened) {
    auto sim = qt::startPowerService();
    Ctrl* ctrl = Ctrl::createInstance();
    ctrl->init();
    ctrl->enterNoTempa();
    qt::leaveOnPurpose(qt::Left::PerfLock);
    ADD_FAILURE() << "on purpose";
    ctrl->uninit();
    ctrl->destroyInstance();
}

}  // namespace
