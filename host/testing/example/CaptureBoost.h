// A stage of a capture pipeline that raises CPU performance while a capture
// session runs: camera perf mode for the session, the power service's
// performance mode, and a CPU boost for each burst of captures. It degrades
// instead of failing: without the power service or a perf lock the session
// runs at normal speed, and each burst asks again for what is missing.
#pragma once

#include <Cam3CPUCtrl.h>

class CaptureBoost {
  public:
    CaptureBoost();
    ~CaptureBoost();
    CaptureBoost(const CaptureBoost&) = delete;
    CaptureBoost& operator=(const CaptureBoost&) = delete;

    void start();
    // Boosts the CPUs for durationMs; false when not started.
    bool burst(int durationMs);
    void stop();

    bool perfLocked() const { return mPerfLocked; }
    bool perfMode() const { return mPerfMode; }

  private:
    Utils::Cam3CPUCtrl* mCtrl;
    bool mRunning = false;
    bool mPerfLocked = false;
    bool mPerfMode = false;
};
