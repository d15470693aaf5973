// Utils::Cam3CPUCtrl: the camera's CPU performance controller, and the loader
// of the perf-lock client library that it uses.
//
// Lifetime. The object is its own death recipient, and the HIDL runtime
// names recipients by strong reference: linking turns `this` into a
// temporary strong pointer, and the runtime promotes its weak link before
// calling serviceDied. So that neither can delete the object behind its
// owner's back, the object holds one strong reference to itself from
// construction, on behalf of its creator; destroyInstance gives that
// reference back and the destructor runs when the last strong reference
// goes (at once, or when a serviceDied already under way returns). After
// that the runtime's weak link no longer promotes.
#define LOG_TAG "Cam3CPUCtrl_util"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCam3CPUCtrl

#include "Cam3CPUCtrlImp.h"
#include "Locking.h"
#include "PowerScenario.h"

#include <SysLog.h>
#include <cutils/properties.h>
#include <dlfcn.h>

#include <mutex>
#include <new>

using ::android::Mutex;
using ::android::wp;
using ::android::hardware::Return;
using ::android::hidl::base::V1_0::IBase;
using ::qrncam::OperationLock;
using ::vendor::quarnel::hardware::power::V2_0::CMD_SET_CAM_PREFER_IDLE;
using ::vendor::quarnel::hardware::power::V2_0::CMD_SET_CPU_PERF_MODE;
using ::vendor::quarnel::hardware::power::V2_0::IPower;
using ::vendor::quarnel::hardware::power::V2_0::SCENARIO_TIMEOUT_MAX;

namespace Utils {

// ---------------------------------------------------------------------------
// Perf-lock client loader

// Controllers constructed on several threads at once would otherwise race on
// the three variables below during the first load.
static std::mutex gPerfLoadLock;
// Loaded once per process and never closed after success; any failure puts
// all three back to null so that the next caller retries from dlopen.
static void* gPerfLibHandle GUARDED_BY(gPerfLoadLock) = nullptr;
static PerfLockAcqFn gPerfLockAcq GUARDED_BY(gPerfLoadLock) = nullptr;
static PerfLockRelFn gPerfLockRel GUARDED_BY(gPerfLoadLock) = nullptr;

static void loadPerfAPI(PerfLockAcqFn& acq, PerfLockRelFn& rel) EXCLUDES(gPerfLoadLock) {
    std::lock_guard<std::mutex> guard(gPerfLoadLock);
    if (gPerfLibHandle == nullptr) {
        gPerfLibHandle = dlopen("libqrnperf_client_vendor.so", RTLD_NOW);
        if (gPerfLibHandle == nullptr) {
            // dlerror() clears the text it returns: read it once for both sinks.
            const char* err = dlerror();  // NOLINT(concurrency-mt-unsafe): loads are serialised by gPerfLoadLock
            QRN_LOGW("[%s] dlopen fail: %s\n", __FUNCTION__, err);
            return;
        }
        QRN_LOGD("[%s] load lib", __FUNCTION__);
    }
    if (gPerfLockAcq == nullptr) {
        gPerfLockAcq = reinterpret_cast<PerfLockAcqFn>(dlsym(gPerfLibHandle, "perf_lock_acq"));
        if (gPerfLockAcq == nullptr) {
            const char* err = dlerror();  // NOLINT(concurrency-mt-unsafe): loads are serialised by gPerfLoadLock
            QRN_LOGW("[%s] perfLockAcq error: %s\n", __FUNCTION__, err);
            dlclose(gPerfLibHandle);
            gPerfLibHandle = nullptr;
            return;
        }
        QRN_LOGD("[%s] load funcA", __FUNCTION__);
    }
    if (gPerfLockRel == nullptr) {
        gPerfLockRel = reinterpret_cast<PerfLockRelFn>(dlsym(gPerfLibHandle, "perf_lock_rel"));
        if (gPerfLockRel == nullptr) {
            const char* err = dlerror();  // NOLINT(concurrency-mt-unsafe): loads are serialised by gPerfLoadLock
            QRN_LOGW("[%s] perfLockRel error: %s\n", __FUNCTION__, err);
            dlclose(gPerfLibHandle);
            // The cached acquire entry points into the library just closed.
            gPerfLibHandle = nullptr;
            gPerfLockAcq = nullptr;
            return;
        }
        QRN_LOGD("[%s] load funcR", __FUNCTION__);
    }
    acq = gPerfLockAcq;
    rel = gPerfLockRel;
}

// ---------------------------------------------------------------------------
// Instance

// Names the reference that the object holds on its creator's behalf.
static const char kCreatorRef[] = "Cam3CPUCtrl creator";

Cam3CPUCtrl* Cam3CPUCtrl::createInstance() {
    QRN_LOGD("[%s] ", __FUNCTION__);
    // Out of memory the caller gets no object rather than an exception.
    Cam3CPUCtrl* ctrl = new (std::nothrow) Cam3CPUCtrlImp();
    if (ctrl == nullptr) QRN_LOGE("[%s] Fail to allocate Cam3CPUCtrlImp", __FUNCTION__);
    return ctrl;
}

// mLock is initialised first, as a member, with default attributes.
Cam3CPUCtrlImp::Cam3CPUCtrlImp() : mReserved{}, mDestroying(false) {
    mPerfLockAcq = nullptr;
    mPerfLockRel = nullptr;
    mCameraPerfOn = 0;
    mCameraPerfHandle = 0;
    mCpuBoostHandle = 0;
    mNoTempaHandle = 0;
    QRN_LOGD("[%s] ", __FUNCTION__);
    mUserCount = 0;
    mEnabled = 0;
    mPowerHalHandle = -1;
    mPowerHalService = nullptr;
    loadPerfAPI(mPerfLockAcq, mPerfLockRel);
    incStrong(kCreatorRef);
}

// mLock goes last, with the members.
Cam3CPUCtrlImp::~Cam3CPUCtrlImp() {
    markDestroying();
    // Releases one user, whatever the count: an object destroyed with users
    // left is freed all the same.
    uninit();
    mPowerHalService = nullptr;
    QRN_LOGD("[%s] ", __FUNCTION__);
}

void Cam3CPUCtrlImp::markDestroying() {
    Mutex::Autolock lock(mLock);
    mDestroying = true;
}

void Cam3CPUCtrlImp::destroyInstance() {
    QRN_LOGD("[%s] +", __FUNCTION__);
    {
        Mutex::Autolock lock(mLock);
        // The destructor's uninit releases the last user when one is left,
        // and the last user's uninit unlinks the death notification. The
        // destructor cannot name the object as a strong reference any more,
        // so the link is dropped here, while the creator's reference still
        // keeps it alive.
        if (mUserCount.load() == 1 && mPowerHalService != nullptr) {
            // A failed unlink (dead service) leaves nothing to undo.
            (void)mPowerHalService->unlinkToDeath(this).isOk();
        }
    }
    decStrong(kCreatorRef);
    // The object may be gone from here on.
    QRN_LOGD("[%s] -", __FUNCTION__);
}

bool Cam3CPUCtrlImp::init() {
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::init");
    // Bound under mLock: serviceDied and requests on other threads replace
    // mPowerHalService too.
    OperationLock lock(mLock, scope);
    __initPowerHAL();
    const int32_t users = mUserCount.load();
    if (users == 0) {
        QRN_LOGD("[%s] First user", __FUNCTION__);
        mEnabled = 0;
        mPowerHalHandle = -1;
    } else {
        QRN_LOGD("[%s] More user(%d)", __FUNCTION__, users);
    }
    mUserCount.fetch_add(1);
    return true;
}

bool Cam3CPUCtrlImp::uninit() {
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::uninit");
    OperationLock lock(mLock, scope);
    const int32_t users = mUserCount.load();
    if (users <= 0) {
        QRN_LOGD("[%s] No user(%d)", __FUNCTION__, users);
        return true;
    }
    withdrawLocked();
    const int32_t left = mUserCount.fetch_sub(1) - 1;
    if (left != 0) {
        QRN_LOGD("[%s] More user(%d)", __FUNCTION__, left);
    } else {
        QRN_LOGD("[%s] Last user(%d)", __FUNCTION__, left);
        if (mPowerHalService != nullptr) {
            if (mPowerHalHandle != -1) {
                // Settings withdrawn first, then the scenario deleted: the
                // service never deletes a scenario that is in force.
                (void)mPowerHalService->disableScenario(mPowerHalHandle).isOk();
                (void)mPowerHalService->unregisterScenario(mPowerHalHandle).isOk();
            }
            // The link belongs to the binding, not to a scenario: dropped even
            // when no handle was registered. The binding itself is kept. In the
            // destructor destroyInstance has already unlinked.
            if (!mDestroying) (void)mPowerHalService->unlinkToDeath(this).isOk();
            mPowerHalHandle = -1;
        }
    }
    return true;
}

void Cam3CPUCtrlImp::serviceDied(uint64_t /*cookie*/, const wp<IBase>& /*who*/) {
    QRN_LOGW("[%s] IPower hidl service died", __FUNCTION__);
    Mutex::Autolock lock(mLock);
    // Nothing is re-bound here: the next init or request binds the new
    // service. mEnabled stays, so the next disable only clears it.
    mPowerHalService = nullptr;
    mPowerHalHandle = -1;
}

// ---------------------------------------------------------------------------
// Prefer-idle, performance mode and disable (vendor power service)

bool Cam3CPUCtrlImp::hasUserLocked(const char* function) {
    if (mUserCount.load() > 0) return true;
    QRN_LOGW("[%s] No user", function);
    return false;
}

void Cam3CPUCtrlImp::withdrawLocked() {
    // Read before unlocking: requests on other threads write it under mLock.
    // The lock is let go even when nothing is enabled: the check and what
    // follows it are two locked sections either way.
    const bool enabled = mEnabled != 0;
    mLock.unlock();
    if (enabled) disable();
    mLock.lock();
}

bool Cam3CPUCtrlImp::beginRequestLocked(const char* function) {
    if (!hasUserLocked(function)) return false;
    // Each request runs on a fresh scenario: the one in force is withdrawn
    // and its handle given back first.
    withdrawLocked();
    __initPowerHAL();
    if (mPowerHalService == nullptr) {
        QRN_LOGW("[%s] mPowerHalService == NULL !!!", function);
        return false;
    }
    if (mPowerHalHandle == -1) {
        // A transport failure here ends the process, by the HIDL assertion.
        const int32_t handle = mPowerHalService->registerScenario();
        mPowerHalHandle = handle;
        QRN_LOGD("[%s] mPowerHalHandle:(%d)", function, mPowerHalHandle);
    }
    return true;
}

bool Cam3CPUCtrlImp::enablePreferIdle() {
    // Checked before anything else: switched off, the request in force is
    // left alone.
    if (!property_get_bool("vendor.cam3dev.cpupreferidle", false)) {
        QRN_LOGD("[%s] CPU prefer idle is disabled", __FUNCTION__);
        return false;
    }
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::enablePreferIdle");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    QRN_LOGD("[%s] mPowerHalHandle=%d Cmd=%d", __FUNCTION__, mPowerHalHandle, CMD_SET_CAM_PREFER_IDLE);
    // Fire and forget: a refused or failed request still counts as enabled.
    (void)mPowerHalService->configScenario(mPowerHalHandle, CMD_SET_CAM_PREFER_IDLE, 1, 0, 0, 0).isOk();
    (void)mPowerHalService->enableScenario(mPowerHalHandle, 0).isOk();
    mEnabled = 1;
    return true;
}

bool Cam3CPUCtrlImp::cpuPerformanceMode(int timeout) {
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::cpuPerformanceMode");
    OperationLock lock(mLock, scope);
    if (!beginRequestLocked(__FUNCTION__)) return false;
    // Fire and forget, as for prefer-idle. The timeout is in ms already; none
    // given means as long as the service allows.
    (void)mPowerHalService->configScenario(mPowerHalHandle, CMD_SET_CPU_PERF_MODE, 1, 0, 0, 0).isOk();
    (void)mPowerHalService->enableScenario(mPowerHalHandle, timeout >= 1 ? timeout : SCENARIO_TIMEOUT_MAX).isOk();
    mEnabled = 1;
    return true;
}

bool Cam3CPUCtrlImp::disable() {
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::disable");
    OperationLock lock(mLock, scope);
    if (!hasUserLocked(__FUNCTION__)) return false;
    if (mEnabled == 0) {
        // Kept word for word: logs are searched for this text.
        QRN_LOGD("[%s] Not thing to disable", __FUNCTION__);
        return true;
    }
    if (mPowerHalHandle != -1) {
        // No null check: a handle is only registered on a bound service, and
        // serviceDied clears both together.
        (void)mPowerHalService->disableScenario(mPowerHalHandle).isOk();
        (void)mPowerHalService->unregisterScenario(mPowerHalHandle).isOk();
        mPowerHalHandle = -1;
    }
    mEnabled = 0;
    return true;
}

// ---------------------------------------------------------------------------
// Perf locks. No lock here: the caller must not run an enter and its exit on
// two threads at once. None of them is released by uninit, disable or the
// destructor.

// The client library takes a non-const list but only reads it.
static const int32_t kCameraPerfList[] = {0x01404300, 0x00000001, 0x01404100, 0x00000001};

bool Cam3CPUCtrlImp::enterCameraPerf() {
    if (mCameraPerfOn == 1) return true;
    if (mPerfLockAcq == nullptr) return false;
    if (property_get_bool("vendor.cam3dev.idleprefer.enable", true)) {
        mCameraPerfHandle = mPerfLockAcq(mCameraPerfHandle, 0, const_cast<int32_t*>(kCameraPerfList), 4);
        QRN_LOGD("[%s] enable camera idle prefer", __FUNCTION__);
    }
    if (mCameraPerfHandle != 0) {
        QRN_LOGD("[%s] enter camera perf mode", __FUNCTION__);
        mCameraPerfOn = 1;
        return true;
    }
    QRN_LOGW("[%s] failed to lock perf, invalid handle:%d", __FUNCTION__, mCameraPerfHandle);
    return false;
}

bool Cam3CPUCtrlImp::exitCameraPerf() {
    if (mCameraPerfOn == 0) return true;
    if (mPerfLockRel == nullptr) return false;
    if (mCameraPerfHandle == 0) return false;
    mPerfLockRel(mCameraPerfHandle);
    QRN_LOGD("[%s] exit camera perf mode", __FUNCTION__);
    mCameraPerfOn = 0;
    mCameraPerfHandle = 0;
    return true;
}

bool Cam3CPUCtrlImp::enterCPUBoost(int duration) {
    // A held handle is trusted as it is, even after a timed lock has run out,
    // until exitCPUBoost clears it.
    if (mCpuBoostHandle != 0) return true;
    if (mPerfLockAcq == nullptr) return false;
    int32_t list[2] = {0x00414000, 0x00000001};
    mCpuBoostHandle = mPerfLockAcq(0, duration, list, 2);
    QRN_LOGD("[%s] enter CPU boost", __FUNCTION__);
    if (mCpuBoostHandle != 0) return true;
    QRN_LOGW("[%s] failed to lock cpu boost, invalid handle:%d", __FUNCTION__, mCpuBoostHandle);
    return false;
}

bool Cam3CPUCtrlImp::exitCPUBoost() {
    if (mCpuBoostHandle == 0) return true;
    if (mPerfLockRel == nullptr) return false;
    mPerfLockRel(mCpuBoostHandle);
    // Case and wording differ from the enter line; kept word for word, as
    // logs are searched for these texts.
    QRN_LOGD("[%s] exit cpu boost", __FUNCTION__);
    mCpuBoostHandle = 0;
    return true;
}

bool Cam3CPUCtrlImp::enterNoTempa() {
    QRN_LOGD("[%s] ", __FUNCTION__);
    if (mNoTempaHandle != 0) return true;
    if (mPerfLockAcq == nullptr) return false;
    int32_t list[2] = {0x02004000, 0x00000000};
    mNoTempaHandle = mPerfLockAcq(0, 0, list, 2);
    QRN_LOGD("[%s] enter CPU No TEMPA", __FUNCTION__);
    if (mNoTempaHandle != 0) return true;
    QRN_LOGW("[%s] failed to lock cpu No Tempa, invalid handle:%d", __FUNCTION__, mNoTempaHandle);
    return false;
}

bool Cam3CPUCtrlImp::exitNoTempa() {
    if (mNoTempaHandle == 0) return true;
    if (mPerfLockRel == nullptr) return false;
    mPerfLockRel(mNoTempaHandle);
    // Differs from the enter line on purpose, as for the CPU boost.
    QRN_LOGD("[%s] exit cpu NO TEMPA", __FUNCTION__);
    mNoTempaHandle = 0;
    return true;
}

// ---------------------------------------------------------------------------
// Power service binding.

void Cam3CPUCtrlImp::__initPowerHAL() {
    QRN_FUNCTION_SCOPE(scope, "Cam3CPUCtrl::__initPowerHAL");
    // An existing binding is never replaced.
    if (mPowerHalService != nullptr) return;
    QRN_LOGD("[%s] Loaded power HAL service +", __FUNCTION__);
    mPowerHalService = IPower::getService("default", false);
    QRN_LOGD("[%s] Loaded power HAL service -", __FUNCTION__);
    if (mPowerHalService == nullptr) {
        QRN_LOGW("[%s] Couldn't load power HAL service", __FUNCTION__);
        return;
    }
    // Either way the service stays bound; an unlinked death goes unnoticed.
    Return<bool> linked = mPowerHalService->linkToDeath(this, 0);
    if (!linked.isOk()) {
        QRN_LOGE("[%s] Transaction error in linking to PowerHAL death: %s", __FUNCTION__, linked.description().c_str());
    } else if (!static_cast<bool>(linked)) {
        QRN_LOGW("[%s] Unable to link to PowerHAL death notifications", __FUNCTION__);
    }
}

}  // namespace Utils
