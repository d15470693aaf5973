// A camera engineer's capture stage, as it would be written against the
// installed package: a performance session on the camera controller, frames
// dumped through the file cache, and the temperature read before a burst.
#pragma once

#include <Cam3CPUCtrl.h>

#include <string>

class CaptureStage {
  public:
    explicit CaptureStage(std::string dumpDir);
    ~CaptureStage();
    CaptureStage(const CaptureStage&) = delete;
    CaptureStage& operator=(const CaptureStage&) = delete;

    // Performance mode and camera perf mode for the session.
    bool start();
    // Dumps one frame to <dumpDir>/<name>; false when the budget is full.
    bool dump(const std::string& name, const std::string& frame);
    // The processor's temperature, or -2 without the node.
    int temperature() const;
    void stop();

  private:
    const std::string mDumpDir;
    Utils::Cam3CPUCtrl* mCtrl;
    bool mRunning = false;
};
