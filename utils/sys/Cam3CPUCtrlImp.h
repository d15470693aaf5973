// The implementation class of Utils::Cam3CPUCtrl, visible to white-box tests
// of the static library only.
#pragma once

#include <Cam3CPUCtrl.h>
#include <hidl/HidlSupport.h>
#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <atomic>

namespace Utils {

class Cam3CPUCtrlImp : public Cam3CPUCtrl, public ::android::hardware::hidl_death_recipient {
  public:
    Cam3CPUCtrlImp();
    ~Cam3CPUCtrlImp() override;

    void destroyInstance() override EXCLUDES(mLock);
    bool init() override EXCLUDES(mLock);
    bool uninit() override EXCLUDES(mLock);
    bool enterCPUBoost(int duration) override;
    bool exitCPUBoost() override;
    bool enablePreferIdle() override EXCLUDES(mLock);
    bool cpuPerformanceMode(int timeout) override EXCLUDES(mLock);
    bool enterCameraPerf() override;
    bool exitCameraPerf() override;
    bool enterNoTempa() override;
    bool exitNoTempa() override;

    virtual bool disable() EXCLUDES(mLock);
    void serviceDied(uint64_t cookie, const ::android::wp<::android::hidl::base::V1_0::IBase>& who) override
        EXCLUDES(mLock);

    // Binds the power service when it is not bound.
    void __initPowerHAL() REQUIRES(mLock);

  private:
    friend struct Cam3CPUCtrlPeer;  // white-box tests

    // False, with "[%s] No user" for function, while nobody has called init.
    bool hasUserLocked(const char* function) REQUIRES(mLock);
    // Withdraws the scenario in force through the object's own disable(),
    // which takes mLock itself: the lock is released around that call, so
    // serviceDied or another caller may come in between, and held again
    // after it.
    void withdrawLocked() REQUIRES(mLock);
    // The start shared by enablePreferIdle and cpuPerformanceMode: the user
    // check, the scenario in force withdrawn, the service bound and a
    // scenario handle ready. False when there is no user or no service.
    bool beginRequestLocked(const char* function) REQUIRES(mLock);
    // From here on the object is not named as a strong reference (see
    // uninit); the destructor's first step.
    void markDestroying() EXCLUDES(mLock);

    // Serialises init, uninit, serviceDied, disable and the power-service
    // requests; released around their nested disable().
    ::android::Mutex mLock;
    // Changed by atomic increment and decrement, with mLock held.
    std::atomic<int32_t> mUserCount GUARDED_BY(mLock);
    int32_t mEnabled GUARDED_BY(mLock);
    int32_t mPowerHalHandle GUARDED_BY(mLock);
    // Cleared by serviceDied on the runtime thread.
    ::android::sp<::vendor::quarnel::hardware::power::V2_0::IPower> mPowerHalService GUARDED_BY(mLock);
    // Written by the constructor only; kept so that the object keeps its
    // layout for code built against it.
    int32_t mReserved[14];
    // Set by the constructor and never changed: read without a lock.
    PerfLockAcqFn mPerfLockAcq;
    PerfLockRelFn mPerfLockRel;
    // The perf-lock state. No lock: the caller must not run an enter and its
    // exit on two threads at once. Adjacent: exitCameraPerf clears the first
    // two together.
    int32_t mCameraPerfOn;
    int32_t mCameraPerfHandle;
    int32_t mCpuBoostHandle;
    int32_t mNoTempaHandle;
    // Set by the destructor: from then on the object must not be named as a
    // strong reference (see uninit).
    bool mDestroying GUARDED_BY(mLock);
};

}  // namespace Utils
