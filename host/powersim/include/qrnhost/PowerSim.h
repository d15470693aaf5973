// A simulated vendor power service for host builds. It keeps a scenario table
// that applies the command codes of vendor.quarnel.hardware.power@2.0, answers
// the system queries from the host's cpufreq policies, journals every call,
// can fail calls in transport on demand, and reports the scenarios that are
// still registered or enabled.
#pragma once

#include <PowerScenario.h>  // the codes it interprets, for readers of its journal
#include <qrnhost/locking.h>
#include <stdint.h>
#include <sys/types.h>

#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qrnhost::power {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Status;
using vendor::quarnel::hardware::power::V2_0::IPower;

enum class Op {
    QuerySystemInfo,
    RegisterScenario,
    ConfigScenario,
    UnregisterScenario,
    EnableScenario,
    DisableScenario
};
const char* opName(Op op);

struct Call {
    uint64_t seq = 0;  // 1, 2, ... in arrival order
    Op op = Op::QuerySystemInfo;
    std::vector<int32_t> args;     // as passed, in order
    int32_t result = 0;            // value returned (0 for void calls)
    bool transportFailed = false;  // failed by injection
    pid_t tid = 0;                 // calling thread
    std::chrono::steady_clock::time_point when;
    std::string toString() const;  // "configScenario(3, 1, 0, 4, 0, 0)"
};

struct Settings {
    // Per cluster index: -1 where the scenario does not set the value.
    std::map<int32_t, int32_t> coreMin, coreMax, freqMin, freqMax;
    bool perfMode = false;
    bool preferIdle = false;
    bool camPreferIdle = false;
    int32_t preferIdleParam = -1;
    std::vector<std::array<int32_t, 5>> unknown;  // cmd, p1..p4 of commands the service does not know
};

struct Scenario {
    int32_t handle = -1;
    Settings settings;
    std::vector<std::array<int32_t, 5>> commands;  // every configScenario, in order
    bool enabled = false;                          // enabled and not yet disabled (timeouts aside)
    int32_t timeoutMs = 0;                         // of the last enableScenario
    std::chrono::steady_clock::time_point enabledAt;
    bool expired(std::chrono::steady_clock::time_point now) const;
    bool active(std::chrono::steady_clock::time_point now) const { return enabled && !expired(now); }
    std::string describe() const;  // one line for reports
};

struct Config {
    // Top frequency of each cluster (its count is the cluster count). Empty:
    // read the host's cpufreq policies under cpufreqRoot; if there are none,
    // use defaultClusters clusters at defaultMaxFreq.
    std::vector<int32_t> clusterMaxFreq;
    std::string cpufreqRoot = "/sys/devices/system/cpu/cpufreq";
    int32_t defaultClusters = 2;
    int32_t defaultMaxFreq = 2000000;  // kHz, the unit of cpufreq
    int32_t firstHandle = 1;
};

// Reads cpuinfo_max_freq of each policyN directory under root, in N order.
std::vector<int32_t> readCpufreqPolicies(const std::string& root);

class SimPowerService : public IPower {
  public:
    explicit SimPowerService(const Config& config = Config());
    ~SimPowerService() override;

    // IPower
    Return<int32_t> querySystemInfo(int32_t cmd, int32_t param) override;
    Return<int32_t> registerScenario() override;
    Return<void> configScenario(int32_t handle, int32_t cmd, int32_t p1, int32_t p2, int32_t p3, int32_t p4) override;
    Return<void> unregisterScenario(int32_t handle) override;
    Return<void> enableScenario(int32_t handle, int32_t timeout) override;
    Return<void> disableScenario(int32_t handle) override;

    // The next `count` calls of op fail in transport (FAILED_TRANSACTION) and
    // change nothing.
    void injectTransportFailure(Op op, int count = 1);
    // The same with a status of the test's choice, for instance one with a
    // message: Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "...").
    // Failures queued for one op are used in the order they were queued.
    void injectTransportFailure(Op op, const Status& status, int count = 1);

    std::vector<Call> journal() const;
    // Receives each call when it is complete, on the calling thread, before
    // the call returns to its caller (an empty function removes it). It must
    // not call the service.
    void setObserver(std::function<void(const Call&)> observer);
    void clearJournal();
    // Journal entries of one operation only.
    std::vector<Call> calls(Op op) const;

    // Scenarios still registered (enabled or not), in handle order.
    std::vector<Scenario> registered() const;
    // Scenarios enabled now (enabled and their timeout not run out).
    std::vector<Scenario> active() const;
    // Human-readable report of what is still registered or enabled.
    std::string report() const;

    const std::vector<int32_t>& clusterMaxFreq() const { return mClusterMaxFreq; }

  private:
    Call& journalLocked(Op op, std::vector<int32_t> args) QRNHOST_REQUIRES(mLock);
    bool takeFailureLocked(Op op, Status* status) QRNHOST_REQUIRES(mLock);

    mutable std::mutex mLock;
    std::vector<int32_t> mClusterMaxFreq;  // set once by the constructor
    int32_t mNextHandle QRNHOST_GUARDED_BY(mLock);
    std::map<int32_t, Scenario> mScenarios QRNHOST_GUARDED_BY(mLock);
    std::vector<Call> mJournal QRNHOST_GUARDED_BY(mLock);
    std::map<Op, std::deque<Status>> mFailures QRNHOST_GUARDED_BY(mLock);
    std::function<void(const Call&)> mObserver QRNHOST_GUARDED_BY(mLock);
};

// The simulator behind a service object (what a registration holds), or
// null when that object is not a simulator.
sp<SimPowerService> simulatorOf(const sp<::android::hidl::base::V1_0::IBase>& service);
// The simulators registered now (under any instance name), with their names.
std::vector<std::pair<std::string, sp<SimPowerService>>> registeredSimulators();

// Creates a simulator and registers it as the "default" vendor power service.
sp<SimPowerService> startDefaultService(const Config& config = Config());
// Declares the "default" service dead (see qrnhost::hidl::declareServiceDead).
bool killDefaultService();

}  // namespace qrnhost::power
