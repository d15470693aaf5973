// A test that forgets to give back the camera perf lock. Run by testing_main
// it must fail, naming the lock; the package check reads its output.
#include <gtest/gtest.h>

#include "capture_stage.h"

TEST(Leaky, ForgetsTheCameraPerfLock) {
    Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
    EXPECT_TRUE(ctrl->enterCameraPerf());
    ctrl->destroyInstance();  // without exitCameraPerf()
}
