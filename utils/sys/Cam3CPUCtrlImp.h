// The implementation class of Utils::Cam3CPUCtrl, visible to white-box tests
// of the static library only.
#pragma once

#include <Cam3CPUCtrl.h>
#include <hidl/HidlSupport.h>
#include <pthread.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <SysLog.h>
#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <atomic>

namespace Utils {

class Cam3CPUCtrlImp : public Cam3CPUCtrl, public ::android::hardware::hidl_death_recipient {
  public:
    Cam3CPUCtrlImp();
    ~Cam3CPUCtrlImp() override;

    void destroyInstance() override;
    bool init() override;
    bool uninit() override;
    bool enterCPUBoost(int duration) override;
    bool exitCPUBoost() override;
    bool enablePreferIdle() override;
    bool cpuPerformanceMode(int timeout) override;
    bool enterCameraPerf() override;
    bool exitCameraPerf() override;
    bool enterNoTempa() override;
    bool exitNoTempa() override;

    virtual bool disable();
    void serviceDied(uint64_t cookie, const ::android::wp<::android::hidl::base::V1_0::IBase>& who) override;

    void __initPowerHAL();

  private:
    friend struct Cam3CPUCtrlPeer;  // white-box tests

    // The common start of enablePreferIdle and cpuPerformanceMode. Returns
    // true with mLock held and a scenario handle ready; false (lock released,
    // closing line written) when there is no user or no service.
    bool beginRequestLocked(const char* function, ::qrncam::log::ScopedFunctionTrace& scope);

    // Serialises init, uninit, serviceDied, disable and the power-service
    // requests; released around their nested disable().
    pthread_mutex_t mLock;
    // Guarded by mLock for every change (atomic increment and decrement);
    // being atomic, it may also be read without it.
    std::atomic<int32_t> mUserCount;
    int32_t mEnabled;         // Guarded by mLock.
    int32_t mPowerHalHandle;  // Guarded by mLock.
    // Guarded by mLock; cleared by serviceDied on the runtime thread.
    ::android::sp<::vendor::quarnel::hardware::power::V2_0::IPower> mPowerHalService;
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
    // Guarded by mLock. Set by destroyInstance: from then on the object must
    // not be named as a strong reference (see uninit).
    bool mDestroying;
};

}  // namespace Utils
