// The one implementation of CpuCtrl. Private to the library; white-box tests
// include it to look at the user count and the handle.
#pragma once

#include <CpuCtrl.h>
#include <pthread.h>
#include <stdint.h>
#include <utils/StrongPointer.h>

#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <atomic>

namespace qrncam::log {
class ScopedFunctionTrace;
}

class CpuCtrlImp : public CpuCtrl {
  public:
    using IPower = ::vendor::quarnel::hardware::power::V2_0::IPower;

    CpuCtrlImp();
    ~CpuCtrlImp() override;

    void destroyInstance() override;
    bool init() override;
    bool uninit() override;
    bool enable(CPU_CTRL_INFO& info) override;
    bool enable(CPU_CTRL_RANGE_INFO& info) override;
    bool enableBoost(int timeoutSeconds) override;
    bool enablePreferIdle() override;
    bool disable() override;
    bool cpuPerformanceMode(int timeoutSeconds) override;
    bool resetTimeout(int timeoutSeconds) override;

  private:
    friend struct CpuCtrlImpPeer;  // white-box tests

    // The start shared by every request: the user check, then the previous
    // scenario withdrawn through the own disable() with the lock released
    // around it. Returns with mLock held and true, or with the lock released,
    // the scope closed and false when there is no user.
    bool beginRequest(const char* function, ::qrncam::log::ScopedFunctionTrace& scope);
    // Closes the scope line under the lock, then unlocks.
    void endRequest(::qrncam::log::ScopedFunctionTrace& scope);

    // Serialises init, uninit, disable and the requests; released around a
    // request's nested disable().
    pthread_mutex_t mLock;
    // Changed only by atomic add/subtract of 1 with release ordering, and
    // only with mLock held; being atomic, it can also be read without the lock.
    std::atomic<int32_t> mUser;
    int32_t mEnabled;                        // Guarded by mLock.
    int32_t mPowerHalHandle;                 // Guarded by mLock.
    ::android::sp<IPower> mPowerHalService;  // Guarded by mLock.
    CPU_CTRL_INFO mCpuCtrlInfo;              // Guarded by mLock.
    CPU_CTRL_RANGE_INFO mCpuCtrlRangeInfo;   // Guarded by mLock.
};

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t), "mUser must stay a plain 32-bit count in memory");
