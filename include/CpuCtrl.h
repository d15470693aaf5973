// CPU controller: turns a camera component's request for CPU resources (core
// counts, frequencies, a boost, a prefer-idle hint, the performance mode) into
// a scenario on the vendor power service.
//
// Usage: createInstance(), init() once per user, requests, uninit() once per
// user, destroyInstance(). Every request fails while no user is registered.
// Each object is independent; createInstance() is not a singleton.
//
// Camera components built elsewhere call through the virtual table, so the
// order of the virtual operations and the layout of the two records are
// fixed and must not change.
//
// The vendor power service ("default") may be absent, may die, or may fail a
// call in transport. What each call then does, and logs (tag
// "QrnCam/CpuCtrl"), is this device's rule, kept on the host:
//  - init() looks the service up again on every call and keeps what it
//    finds, null included; it logs nothing about it and is true.
//  - The object does not link to the service's death: it never learns of
//    it. Until an init() finds a new service, every request that registers
//    a scenario (both enable(), enablePreferIdle(), cpuPerformanceMode())
//    or asks the service a value (enableBoost()) on a dead service ends the
//    process, as does any registerScenario() or querySystemInfo() that
//    fails in transport (the platform's fatal "Attempted to retrieve value
//    from failed HIDL call: <status>").
//  - No service: the registering requests log WARN "[<call>]
//    mPowerHalService == NULL !!!" (the ranged enable(): "[enable]
//    IPower::getService() == NULL !!!") and are false; enableBoost(),
//    resetTimeout() and disable() of a registered scenario log ERROR
//    "[<call>] mPowerHalService == NULL !!!" and are false.
//  - configScenario(), enableScenario() and disableScenario() failing in
//    transport are not checked: the call returns true and logs nothing.
//  - uninit() withdraws the current request for every leaving user; the
//    last one also unregisters the scenario, unchecked: a scenario the
//    service failed to unregister stays registered there, silently.
//  - A request without a user: WARN "[<call>] No user" and false.
#pragma once

class CpuCtrl {
  public:
    // One value per cluster; each becomes both the minimum and the maximum.
    struct CPU_CTRL_INFO {
        int bigCore;
        int bigFreq;
        int littleCore;
        int littleFreq;
        int timeout;  // seconds; <= 0 means none
    };

    // Minimum/maximum per cluster. A pair (big, little) with a negative
    // member is left alone.
    struct CPU_CTRL_RANGE_INFO {
        int bigCoreMin;
        int littleCoreMin;
        int bigCoreMax;
        int littleCoreMax;
        int bigFreqMin;
        int littleFreqMin;
        int bigFreqMax;
        int littleFreqMax;
        int timeout;  // seconds; <= 0 means none
    };

    // A new, independent controller owned by the caller; give it back with
    // destroyInstance().
    static CpuCtrl* createInstance();

    virtual ~CpuCtrl();
    virtual void destroyInstance() = 0;
    // Registers one user and looks up the power service. Always true.
    virtual bool init() = 0;
    // Releases one user; the last one also drops the scenario. Always true.
    virtual bool uninit() = 0;
    // The requests below first withdraw the previous one. They return false
    // when there is no user or no service.
    virtual bool enable(CPU_CTRL_INFO& info) = 0;
    virtual bool enable(CPU_CTRL_RANGE_INFO& info) = 0;
    // Pins every cluster at its top frequency on the current scenario.
    virtual bool enableBoost(int timeoutSeconds) = 0;
    virtual bool enablePreferIdle() = 0;
    // Withdraws the current scenario, keeping it registered.
    virtual bool disable() = 0;
    virtual bool cpuPerformanceMode(int timeoutSeconds) = 0;
    // Enables the current scenario again with a new timeout.
    virtual bool resetTimeout(int timeoutSeconds) = 0;

  protected:
    CpuCtrl() = default;
    CpuCtrl(const CpuCtrl&) = delete;
    CpuCtrl& operator=(const CpuCtrl&) = delete;
};
