// The camera pipeline's CPU performance controller. One object may be shared
// by several users: init/uninit count them, and the power-service scenario is
// torn down only when the last user leaves. Prefer-idle and performance mode
// go to the vendor power service; camera perf mode, CPU boost and the
// No-Tempa lock go through the perf-lock client library, opened at run time.
//
// Create with createInstance(), give back with destroyInstance(); never
// delete an instance yourself.
#pragma once

#include <stdint.h>

namespace Utils {

// perf_lock_acq(handle, duration in ms, list of (resource, value) pairs,
// number of int32 entries in the list) -> lock handle, 0 when not granted.
typedef int32_t (*PerfLockAcqFn)(int32_t handle, int32_t duration, int32_t* list, int32_t numArgs);
// perf_lock_rel(handle); the result is not used.
typedef int32_t (*PerfLockRelFn)(int32_t handle);

class Cam3CPUCtrl {
  public:
    virtual ~Cam3CPUCtrl() {}

    // A new object on every call.
    static Cam3CPUCtrl* createInstance();

    virtual void destroyInstance() = 0;
    virtual bool init() = 0;
    virtual bool uninit() = 0;
    // duration in ms, handed to the perf-lock library as it is.
    virtual bool enterCPUBoost(int duration) = 0;
    virtual bool exitCPUBoost() = 0;
    virtual bool enablePreferIdle() = 0;
    // timeout in ms; 0 or less asks for no time limit.
    virtual bool cpuPerformanceMode(int timeout) = 0;
    virtual bool enterCameraPerf() = 0;
    virtual bool exitCameraPerf() = 0;
    virtual bool enterNoTempa() = 0;
    virtual bool exitNoTempa() = 0;
};

}  // namespace Utils
