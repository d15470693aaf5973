// The one implementation of CpuCtrl, private to the library.
#pragma once

#include <CpuCtrl.h>
#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <atomic>

class CpuCtrlImp : public CpuCtrl {
  public:
    using IPower = ::vendor::quarnel::hardware::power::V2_0::IPower;

    CpuCtrlImp();
    ~CpuCtrlImp() override;

    void destroyInstance() override;
    bool init() override EXCLUDES(mLock);
    bool uninit() override EXCLUDES(mLock);
    bool enable(CPU_CTRL_INFO& info) override EXCLUDES(mLock);
    bool enable(CPU_CTRL_RANGE_INFO& info) override EXCLUDES(mLock);
    bool enableBoost(int timeoutSeconds) override EXCLUDES(mLock);
    bool enablePreferIdle() override EXCLUDES(mLock);
    bool disable() override EXCLUDES(mLock);
    bool cpuPerformanceMode(int timeoutSeconds) override EXCLUDES(mLock);
    bool resetTimeout(int timeoutSeconds) override EXCLUDES(mLock);

  private:
    // False, with "[%s] No user" for function, while nobody has called init.
    bool hasUserLocked(const char* function) REQUIRES(mLock);
    // Withdraws the scenario in force through the object's own disable(),
    // which takes mLock itself: the lock is released around that call, so
    // another thread may come in between, and held again after it.
    void withdrawLocked() REQUIRES(mLock);
    // The start shared by every request: the user check, then the previous
    // scenario withdrawn. False when there is no user.
    bool beginRequestLocked(const char* function) REQUIRES(mLock);
    // The new scenario of enable, enablePreferIdle and cpuPerformanceMode.
    // False, with the warning "[%s] " noService, when init found no service.
    bool registerScenarioLocked(const char* function, const char* noService) REQUIRES(mLock);

    // Serialises init, uninit, disable and the requests; released around a
    // request's nested disable().
    ::android::Mutex mLock;
    // Changed only by atomic add/subtract of 1 with release ordering, and
    // only with mLock held.
    std::atomic<int32_t> mUser GUARDED_BY(mLock);
    int32_t mEnabled GUARDED_BY(mLock);
    int32_t mPowerHalHandle GUARDED_BY(mLock);
    ::android::sp<IPower> mPowerHalService GUARDED_BY(mLock);
    CPU_CTRL_INFO mCpuCtrlInfo GUARDED_BY(mLock);
    CPU_CTRL_RANGE_INFO mCpuCtrlRangeInfo GUARDED_BY(mLock);
};

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t), "mUser must stay a plain 32-bit count in memory");
