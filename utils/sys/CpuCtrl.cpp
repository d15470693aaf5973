// CPU controller: each request becomes a scenario on the vendor power
// service, for as long as at least one user is registered.
#define LOG_TAG "QrnCam/CpuCtrl"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCpuCtrl

#include "CpuCtrlImp.h"
#include "Locking.h"
#include "PowerScenario.h"

#include <SysLog.h>

#include <new>

using ::android::hardware::Return;
using ::qrncam::OperationLock;
using namespace ::vendor::quarnel::hardware::power::V2_0;

namespace {

// configScenario, unregisterScenario, enableScenario and disableScenario
// return nothing we use, and their transport failures are deliberately not
// acted upon: marking the status as looked at keeps the runtime from ending
// the process over an unchecked failed call.
inline void ignoreResult(const Return<void>& ret) {
    (void)ret.isOk();
}

// Seconds to the service's milliseconds. Computed with wrap-around so that an
// absurd caller value gives some value instead of undefined behaviour; the
// service bounds it.
inline int32_t toMillis(int seconds) {
    return static_cast<int32_t>(static_cast<uint32_t>(seconds) * 1000u);
}

}  // namespace

CpuCtrl::~CpuCtrl() = default;

CpuCtrl* CpuCtrl::createInstance() {
    QRN_LOGD("[%s] ", __FUNCTION__);
    // Out of memory the caller gets no object rather than an exception.
    CpuCtrl* ctrl = new (std::nothrow) CpuCtrlImp();
    if (ctrl == nullptr) QRN_LOGE("[%s] Fail to allocate CpuCtrlImp", __FUNCTION__);
    return ctrl;
}

CpuCtrlImp::CpuCtrlImp() {
    // mLock is initialised first, as a member, with default attributes.
    QRN_LOGD("[%s] ", __FUNCTION__);
    mUser.store(0, std::memory_order_relaxed);
    mEnabled = 0;
    mPowerHalHandle = -1;
    mPowerHalService = nullptr;
    // mCpuCtrlInfo and mCpuCtrlRangeInfo are written only by the requests.
}

// Sends nothing to the service: whatever is still registered or enabled
// stays so. Callers are expected to uninit first. mLock goes last, with the
// members.
CpuCtrlImp::~CpuCtrlImp() {
    mPowerHalService = nullptr;
    QRN_LOGD("[%s] ", __FUNCTION__);
}

void CpuCtrlImp::destroyInstance() {
    QRN_LOGD("[%s] +", __FUNCTION__);
    delete this;
    // Uses nothing of the object any more.
    QRN_LOGD("[%s] -", __FUNCTION__);
}

bool CpuCtrlImp::init() {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::init");
    // The lookup is done on every init, outside the lock and before the user
    // count is looked at; a null result is reported only by the requests that
    // need the service. The reference itself is replaced under the lock, as
    // every other use of it is.
    ::android::sp<IPower> service = IPower::getService("default", false);
    OperationLock lock(mLock, scope);
    mPowerHalService = service;
    const int32_t users = mUser.load(std::memory_order_relaxed);
    if (users == 0) {
        QRN_LOGD("[%s] First user(%d)", __FUNCTION__, users);
        mEnabled = 0;
        mPowerHalHandle = -1;
    } else {
        QRN_LOGD("[%s] More user(%d)", __FUNCTION__, users);
    }
    mUser.fetch_add(1, std::memory_order_release);
    return true;
}

bool CpuCtrlImp::uninit() {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::uninit");
    OperationLock lock(mLock, scope);
    int32_t users = mUser.load(std::memory_order_relaxed);
    if (users <= 0) {
        QRN_LOGW("[%s] No user(%d)", __FUNCTION__, users);
        return true;
    }
    // Every leaving user withdraws the current scenario, not only the last:
    // a remaining user that still wants CPU resources has to ask again, and
    // callers rely on a leaving user not leaving its request in force.
    withdrawLocked();

    users = mUser.fetch_sub(1, std::memory_order_release) - 1;
    if (users != 0) {
        QRN_LOGD("[%s] More user(%d)", __FUNCTION__, users);
    } else {
        QRN_LOGD("[%s] Last user(%d)", __FUNCTION__, users);
        if (mPowerHalService != nullptr) {
            // Unregister before disable, and the handle even when it is -1:
            // the service has always seen this order from the last user and
            // copes with it, so it is kept as it is.
            ignoreResult(mPowerHalService->unregisterScenario(mPowerHalHandle));
            ignoreResult(mPowerHalService->disableScenario(mPowerHalHandle));
            mPowerHalHandle = -1;
        }
    }
    return true;
}

bool CpuCtrlImp::hasUserLocked(const char* function) {
    if (mUser.load(std::memory_order_relaxed) > 0) return true;
    QRN_LOGW("[%s] No user", function);
    return false;
}

void CpuCtrlImp::withdrawLocked() {
    // The lock is let go even when nothing is enabled: the check and what
    // follows it are two locked sections either way.
    const bool enabled = mEnabled != 0;
    mLock.unlock();
    if (enabled) disable();
    mLock.lock();
}

bool CpuCtrlImp::beginRequestLocked(const char* function) {
    if (!hasUserLocked(function)) return false;
    withdrawLocked();
    return true;
}

bool CpuCtrlImp::registerScenarioLocked(const char* function, const char* noService) {
    if (mPowerHalService == nullptr) {
        QRN_LOGW("[%s] %s", function, noService);
        return false;
    }
    // A new scenario on every request. The previous handle is overwritten
    // without being unregistered: only the last one is dropped, by the last
    // uninit. Callers depend on earlier scenarios staying known to the
    // service (they are disabled, not deleted).
    mPowerHalHandle = mPowerHalService->registerScenario();
    QRN_LOGD("[%s] mPowerHalHandle:(%d)", function, mPowerHalHandle);
    return true;
}

bool CpuCtrlImp::enable(CPU_CTRL_INFO& info) {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::enable");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    QRN_LOGD("[%s] big(%d/%d),little(%d/%d),timeout(%d)", __FUNCTION__, info.bigCore, info.bigFreq, info.littleCore,
             info.littleFreq, info.timeout);
    mCpuCtrlInfo = info;
    if (!registerScenarioLocked(__FUNCTION__, "mPowerHalService == NULL !!!")) return false;

    const CPU_CTRL_INFO& req = mCpuCtrlInfo;
    const int32_t h = mPowerHalHandle;
    // Each value is both minimum and maximum, little cluster before big.
    // Values go out unchecked; the service applies its own limits.
    ignoreResult(
        mPowerHalService->configScenario(h, CMD_SET_CPU_CORE_BIG_LITTLE_MIN, CLUSTER_LITTLE, req.littleCore, 0, 0));
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_CORE_BIG_LITTLE_MIN, CLUSTER_BIG, req.bigCore, 0, 0));
    ignoreResult(
        mPowerHalService->configScenario(h, CMD_SET_CPU_CORE_BIG_LITTLE_MAX, CLUSTER_LITTLE, req.littleCore, 0, 0));
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_CORE_BIG_LITTLE_MAX, CLUSTER_BIG, req.bigCore, 0, 0));
    ignoreResult(
        mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, CLUSTER_LITTLE, req.littleFreq, 0, 0));
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, CLUSTER_BIG, req.bigFreq, 0, 0));
    ignoreResult(
        mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MAX, CLUSTER_LITTLE, req.littleFreq, 0, 0));
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MAX, CLUSTER_BIG, req.bigFreq, 0, 0));
    ignoreResult(mPowerHalService->enableScenario(h, req.timeout > 0 ? toMillis(req.timeout) : 0));

    mEnabled = 1;
    return true;
}

bool CpuCtrlImp::enable(CPU_CTRL_RANGE_INFO& info) {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::enable");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    QRN_LOGD("[%s] MIN CORE:big/little(%d/%d), MAX CORE:big/little(%d/%d)", __FUNCTION__, info.bigCoreMin,
             info.littleCoreMin, info.bigCoreMax, info.littleCoreMax);
    // The values do not follow the labels (the "MIN FREQ" pair shows the big
    // cluster's minimum and maximum). Log readers and tools that parse this
    // line expect exactly this order, so it stays.
    QRN_LOGD("[%s] MIN FREQ:big/little(%d/%d), MAX FREQ:big/little(%d/%d)", __FUNCTION__, info.bigFreqMin,
             info.bigFreqMax, info.littleFreqMin, info.littleFreqMax);
    QRN_LOGD("[%s] timeout(%d)", __FUNCTION__, info.timeout);
    mCpuCtrlRangeInfo = info;
    if (!registerScenarioLocked(__FUNCTION__, "IPower::getService() == NULL !!!")) return false;

    const CPU_CTRL_RANGE_INFO& req = mCpuCtrlRangeInfo;
    const int32_t h = mPowerHalHandle;
    struct Pair {
        const char* name;
        int32_t cmd;
        int32_t big, little;
    };
    const Pair pairs[] = {
        {"CMD_SET_CPU_CORE_BIG_LITTLE_MIN", CMD_SET_CPU_CORE_BIG_LITTLE_MIN, req.bigCoreMin, req.littleCoreMin},
        {"CMD_SET_CPU_CORE_BIG_LITTLE_MAX", CMD_SET_CPU_CORE_BIG_LITTLE_MAX, req.bigCoreMax, req.littleCoreMax},
        {"CMD_SET_CPU_FREQ_BIG_LITTLE_MIN", CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, req.bigFreqMin, req.littleFreqMin},
        {"CMD_SET_CPU_FREQ_BIG_LITTLE_MAX", CMD_SET_CPU_FREQ_BIG_LITTLE_MAX, req.bigFreqMax, req.littleFreqMax},
    };
    for (const Pair& p : pairs) {
        // A negative member leaves the whole pair to whoever else sets it.
        if (p.big < 0 || p.little < 0) continue;
        QRN_LOGD("[%s] %s", __FUNCTION__, p.name);
        ignoreResult(mPowerHalService->configScenario(h, p.cmd, CLUSTER_LITTLE, p.little, 0, 0));
        ignoreResult(mPowerHalService->configScenario(h, p.cmd, CLUSTER_BIG, p.big, 0, 0));
    }
    ignoreResult(mPowerHalService->enableScenario(h, req.timeout >= 1 ? toMillis(req.timeout) : 0));

    mEnabled = 1;
    return true;
}

bool CpuCtrlImp::disable() {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::disable");
    OperationLock lock(mLock, scope);
    if (!hasUserLocked(__FUNCTION__)) return false;
    if (mEnabled != 0) {
        // The scenario stays registered so that resetTimeout and the boost
        // can bring it back; only the last uninit drops it. A later init
        // may have found no service while the handle was still held: then
        // the scenario cannot be reached, and stays recorded as enabled. (So
        // do resetTimeout and the boost, which also use the service without
        // looking it up: an ERROR line and false, never a null reference.)
        if (mPowerHalHandle != -1) {
            if (mPowerHalService == nullptr) {
                QRN_LOGE("[%s] mPowerHalService == NULL !!!", __FUNCTION__);
                return false;
            }
            ignoreResult(mPowerHalService->disableScenario(mPowerHalHandle));
        }
        mEnabled = 0;
    } else {
        QRN_LOGD("[%s] Not thing to disable", __FUNCTION__);
    }
    return true;
}

bool CpuCtrlImp::resetTimeout(int timeoutSeconds) {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::resetTimeout");
    OperationLock lock(mLock, scope);
    if (!hasUserLocked(__FUNCTION__)) return false;
    // The user check and the work are two locked sections.
    mLock.unlock();
    mLock.lock();
    if (mPowerHalHandle == -1) {
        QRN_LOGW("[%s] mPowerHalHandle is invalid !!!", __FUNCTION__);
        return false;
    }
    if (mPowerHalService == nullptr) {
        QRN_LOGE("[%s] mPowerHalService == NULL !!!", __FUNCTION__);
        return false;
    }
    // mEnabled is left alone, so after disable() this brings the scenario
    // back on the service while the object still counts it as withdrawn.
    // Callers use this to re-arm a withdrawn scenario for a while without
    // the next request or uninit taking it down again first.
    ignoreResult(mPowerHalService->enableScenario(
        mPowerHalHandle, timeoutSeconds >= 1 ? toMillis(timeoutSeconds) : SCENARIO_TIMEOUT_MAX));
    return true;
}

bool CpuCtrlImp::enableBoost(int timeoutSeconds) {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::enableBoost");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    // The boost adds its pins to whatever scenario is current, -1 included:
    // callers boost on top of the request they made just before, after an
    // init that found the service.
    if (mPowerHalService == nullptr) {
        QRN_LOGE("[%s] mPowerHalService == NULL !!!", __FUNCTION__);
        return false;
    }
    const int32_t h = mPowerHalHandle;
    int32_t clusters = mPowerHalService->querySystemInfo(SYSINFO_CLUSTER_NUM, 0);
    for (int32_t i = 0; i < clusters; ++i) {
        int32_t freq = mPowerHalService->querySystemInfo(SYSINFO_CLUSTER_FREQ_MAX, i);
        ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, i, freq, 0, 0));
        ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_FREQ_BIG_LITTLE_MAX, i, freq, 0, 0));
        QRN_LOGD("[%s] modify CPU frequency: %d", __FUNCTION__, freq);
    }
    ignoreResult(mPowerHalService->enableScenario(h, timeoutSeconds > 0 ? toMillis(timeoutSeconds) : 0));

    mEnabled = 1;
    return true;
}

bool CpuCtrlImp::enablePreferIdle() {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::enablePreferIdle");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    if (!registerScenarioLocked(__FUNCTION__, "mPowerHalService == NULL !!!")) return false;
    QRN_LOGD("[%s] mPowerHalHandle=%d Cmd=%d,%d", __FUNCTION__, mPowerHalHandle, CMD_SET_PREFER_IDLE,
             CMD_SET_PREFER_IDLE_PARAM);
    const int32_t h = mPowerHalHandle;
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_PREFER_IDLE, 1, 0, 0, 0));
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_PREFER_IDLE_PARAM, 100, 0, 0, 0));
    // The hint has no timeout of its own.
    ignoreResult(mPowerHalService->enableScenario(h, 0));

    mEnabled = 1;
    return true;
}

bool CpuCtrlImp::cpuPerformanceMode(int timeoutSeconds) {
    QRN_FUNCTION_SCOPE(scope, "CpuCtrl::cpuPerformanceMode");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    if (!registerScenarioLocked(__FUNCTION__, "mPowerHalService == NULL !!!")) return false;
    const int32_t h = mPowerHalHandle;
    ignoreResult(mPowerHalService->configScenario(h, CMD_SET_CPU_PERF_MODE, 1, 0, 0, 0));
    // Without a timeout the mode lasts as long as the service allows, unlike
    // the boost whose fallback is 0.
    ignoreResult(
        mPowerHalService->enableScenario(h, timeoutSeconds > 0 ? toMillis(timeoutSeconds) : SCENARIO_TIMEOUT_MAX));

    mEnabled = 1;
    return true;
}
