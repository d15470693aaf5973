// The camera pipeline's CPU performance controller. One object may be shared
// by several users: init/uninit count them, and the power-service scenario is
// torn down only when the last user leaves. Prefer-idle and performance mode
// go to the vendor power service; camera perf mode, CPU boost and the
// No-Tempa lock go through the perf-lock client library, opened at run time.
//
// Create with createInstance(), give back with destroyInstance(); never
// delete an instance yourself.
//
// The vendor power service ("default") may be absent, may die, or may fail a
// call in transport. What each call then does, and logs (tag
// "Cam3CPUCtrl_util"), is this device's rule, kept on the host:
//  - init() binds the service if it is not bound and links the object to
//    its death. Absent: WARN "[__initPowerHAL] Couldn't load power HAL
//    service", and init() is true all the same. The link fails in
//    transport: ERROR "[__initPowerHAL] Transaction error in linking to
//    PowerHAL death: <status>"; it is refused: WARN "[__initPowerHAL] Unable
//    to link to PowerHAL death notifications"; either way the service is
//    used, and its death will go unnoticed.
//  - The service dies: WARN "[serviceDied] IPower hidl service died" (on the
//    HIDL runtime's thread); the binding and the scenario handle are
//    dropped, and the next request binds the service again.
//  - cpuPerformanceMode() and enablePreferIdle() first withdraw the request
//    in force, then bind the service if needed. Absent: WARN "[<call>]
//    mPowerHalService == NULL !!!" and false. registerScenario() failing in
//    transport ends the process (the platform's fatal "Attempted to
//    retrieve value from failed HIDL call: <status>"); so does a request
//    made after the service died but before its death notice arrived,
//    which finds the dead service still bound. configScenario() and
//    enableScenario() failing in transport are not checked: the call
//    returns true and logs nothing, and the scenario may be left
//    unconfigured or not enabled.
//  - uninit(), by the last user, disables and unregisters the scenario and
//    unlinks the death notification without checking: a failure is not
//    logged, and a scenario the service failed to unregister stays
//    registered there. uninit() is true.
//  - The perf-lock calls (enterCameraPerf(), enterCPUBoost(), enterNoTempa()
//    and their exits) do not use the power service. Without the perf-lock
//    library they are false; a refused lock: WARN "[<call>] failed to lock
//    ..., invalid handle:0" and false. No uninit(), disable or destructor
//    releases a perf lock: each enter needs its exit.
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

    // Runs uninit() once more (one user), then frees the object.
    virtual void destroyInstance() = 0;
    // Counts a user and binds the power service; always true.
    virtual bool init() = 0;
    // Releases a user; the last one withdraws the scenario. Always true.
    virtual bool uninit() = 0;
    // duration in ms, handed to the perf-lock library as it is.
    virtual bool enterCPUBoost(int duration) = 0;
    virtual bool exitCPUBoost() = 0;
    // A prefer-idle scenario; false without the property
    // "vendor.cam3dev.cpupreferidle" (default false), without a user or
    // without the service.
    virtual bool enablePreferIdle() = 0;
    // A performance-mode scenario; timeout in ms, 0 or less asks for no time
    // limit. False without a user or without the service.
    virtual bool cpuPerformanceMode(int timeout) = 0;
    // Camera perf mode, taken only while the property
    // "vendor.cam3dev.idleprefer.enable" (default true) is set.
    virtual bool enterCameraPerf() = 0;
    virtual bool exitCameraPerf() = 0;
    virtual bool enterNoTempa() = 0;
    virtual bool exitNoTempa() = 0;
};

}  // namespace Utils
