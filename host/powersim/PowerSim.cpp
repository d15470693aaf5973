#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace qrnhost::power {

using namespace vendor::quarnel::hardware::power::V2_0;
using ::android::hidl::base::V1_0::IBase;

const char* opName(Op op) {
    switch (op) {
        case Op::QuerySystemInfo: return "querySystemInfo";
        case Op::RegisterScenario: return "registerScenario";
        case Op::ConfigScenario: return "configScenario";
        case Op::UnregisterScenario: return "unregisterScenario";
        case Op::EnableScenario: return "enableScenario";
        case Op::DisableScenario: return "disableScenario";
    }
    return "?";
}

std::string Call::toString() const {
    std::ostringstream out;
    out << opName(op) << "(";
    for (size_t i = 0; i < args.size(); ++i) out << (i ? ", " : "") << args[i];
    out << ")";
    if (transportFailed)
        out << " -> transport failure";
    else if (op == Op::QuerySystemInfo || op == Op::RegisterScenario)
        out << " -> " << result;
    return out.str();
}

bool Scenario::expired(std::chrono::steady_clock::time_point now) const {
    // A timeout of 0 keeps the scenario until it is disabled.
    return enabled && timeoutMs > 0 && now - enabledAt >= std::chrono::milliseconds(timeoutMs);
}

std::string Scenario::describe() const {
    std::ostringstream out;
    auto now = std::chrono::steady_clock::now();
    out << "scenario " << handle << ": " << (active(now) ? "enabled" : expired(now) ? "timed out" : "registered");
    if (enabled) out << " (timeout " << timeoutMs << " ms)";
    out << ", " << commands.size() << " command" << (commands.size() == 1 ? "" : "s");
    for (const auto& c : commands)
        out << " [" << c[0] << ":" << c[1] << "," << c[2] << (c[3] || c[4] ? "," + std::to_string(c[3]) : "") << "]";
    return out.str();
}

std::vector<int32_t> readCpufreqPolicies(const std::string& root) {
    std::vector<std::pair<long, int32_t>> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(root, ec)) {
        std::string name = entry.path().filename().string();
        if (name.compare(0, 6, "policy") != 0) continue;
        char* end = nullptr;
        long n = strtol(name.c_str() + 6, &end, 10);
        if (end == name.c_str() + 6 || *end) continue;
        std::ifstream f(entry.path() / "cpuinfo_max_freq");
        long long freq = 0;
        if (f >> freq && freq > 0 && freq <= INT32_MAX) found.emplace_back(n, static_cast<int32_t>(freq));
    }
    std::sort(found.begin(), found.end());
    std::vector<int32_t> out;
    out.reserve(found.size());
    for (auto& p : found) out.push_back(p.second);
    return out;
}

namespace {

// Every simulator alive, by its service object's address: how a registered
// service is known to be one (the host builds tests without RTTI too).
struct Simulators {
    std::mutex lock;
    std::set<const IBase*> alive QRNHOST_GUARDED_BY(lock);
};

Simulators& simulators() {
    static auto* s = new Simulators;  // simulators may outlive static destruction
    return *s;
}

}  // namespace

SimPowerService::SimPowerService(const Config& config) : mNextHandle(config.firstHandle) {
    mClusterMaxFreq = config.clusterMaxFreq;
    if (mClusterMaxFreq.empty()) mClusterMaxFreq = readCpufreqPolicies(config.cpufreqRoot);
    if (mClusterMaxFreq.empty())
        mClusterMaxFreq.assign(static_cast<size_t>(std::max(0, config.defaultClusters)), config.defaultMaxFreq);
    Simulators& all = simulators();
    std::lock_guard<std::mutex> g(all.lock);
    all.alive.insert(static_cast<const IBase*>(this));
}

SimPowerService::~SimPowerService() {
    Simulators& all = simulators();
    std::lock_guard<std::mutex> g(all.lock);
    all.alive.erase(static_cast<const IBase*>(this));
}

sp<SimPowerService> simulatorOf(const sp<IBase>& service) {
    if (service == nullptr) return nullptr;
    Simulators& all = simulators();
    std::lock_guard<std::mutex> g(all.lock);
    // The caller's reference keeps the object alive while it is looked at.
    if (all.alive.count(service.get()) == 0) return nullptr;
    return static_cast<SimPowerService*>(static_cast<IPower*>(service.get()));
}

std::vector<std::pair<std::string, sp<SimPowerService>>> registeredSimulators() {
    std::vector<std::pair<std::string, sp<SimPowerService>>> out;
    for (const sp<qrnhost::hidl::Connection>& c : qrnhost::hidl::registered()) {
        sp<SimPowerService> sim = simulatorOf(c->service());
        if (sim != nullptr) out.emplace_back(c->instance(), sim);
    }
    return out;
}

namespace {

// Shows a call to the observer once it is complete (its result set), as
// the operation returns and still under the service's lock, so that calls
// are seen one at a time and in the journal's order.
struct ObserveAtReturn {
    const std::function<void(const Call&)>& observer;
    const Call& call;
    ~ObserveAtReturn() {
        if (observer) observer(call);
    }
};

}  // namespace

void SimPowerService::setObserver(std::function<void(const Call&)> observer) {
    std::lock_guard<std::mutex> g(mLock);
    mObserver = std::move(observer);
}

Call& SimPowerService::journalLocked(Op op, std::vector<int32_t> args) {
    Call c;
    c.seq = mJournal.size() + 1;
    c.op = op;
    c.args = std::move(args);
    c.tid = static_cast<pid_t>(syscall(SYS_gettid));
    c.when = std::chrono::steady_clock::now();
    mJournal.push_back(std::move(c));
    return mJournal.back();
}

bool SimPowerService::takeFailureLocked(Op op, Status* status) {
    auto it = mFailures.find(op);
    if (it == mFailures.end() || it->second.empty()) return false;
    *status = it->second.front();
    it->second.pop_front();
    return true;
}

Return<int32_t> SimPowerService::querySystemInfo(int32_t cmd, int32_t param) {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::QuerySystemInfo, {cmd, param});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::QuerySystemInfo, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    int32_t v = -1;
    if (cmd == SYSINFO_CLUSTER_NUM) {
        v = static_cast<int32_t>(mClusterMaxFreq.size());
    } else if (cmd == SYSINFO_CLUSTER_FREQ_MAX) {
        if (param >= 0 && static_cast<size_t>(param) < mClusterMaxFreq.size()) v = mClusterMaxFreq[param];
    }
    c.result = v;
    return v;
}

Return<int32_t> SimPowerService::registerScenario() {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::RegisterScenario, {});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::RegisterScenario, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    int32_t h = mNextHandle++;
    mScenarios[h].handle = h;
    c.result = h;
    return h;
}

Return<void> SimPowerService::configScenario(int32_t handle, int32_t cmd, int32_t p1, int32_t p2, int32_t p3,
                                             int32_t p4) {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::ConfigScenario, {handle, cmd, p1, p2, p3, p4});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::ConfigScenario, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    auto it = mScenarios.find(handle);
    if (it == mScenarios.end()) {
        c.result = -1;  // no such scenario: ignored, as the service does
        return ::android::hardware::Void();
    }
    Scenario& s = it->second;
    s.commands.push_back({cmd, p1, p2, p3, p4});
    Settings& st = s.settings;
    switch (cmd) {
        case CMD_SET_CPU_CORE_BIG_LITTLE_MIN: st.coreMin[p1] = p2; break;
        case CMD_SET_CPU_CORE_BIG_LITTLE_MAX: st.coreMax[p1] = p2; break;
        case CMD_SET_CPU_FREQ_BIG_LITTLE_MIN: st.freqMin[p1] = p2; break;
        case CMD_SET_CPU_FREQ_BIG_LITTLE_MAX: st.freqMax[p1] = p2; break;
        case CMD_SET_CPU_PERF_MODE: st.perfMode = p1 != 0; break;
        case CMD_SET_PREFER_IDLE: st.preferIdle = p1 != 0; break;
        case CMD_SET_CAM_PREFER_IDLE: st.camPreferIdle = p1 != 0; break;
        case CMD_SET_PREFER_IDLE_PARAM: st.preferIdleParam = p1; break;
        default: st.unknown.push_back({cmd, p1, p2, p3, p4}); break;
    }
    return ::android::hardware::Void();
}

Return<void> SimPowerService::unregisterScenario(int32_t handle) {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::UnregisterScenario, {handle});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::UnregisterScenario, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    // Unregistering drops the scenario's settings, enabled or not.
    c.result = mScenarios.erase(handle) ? 0 : -1;
    return ::android::hardware::Void();
}

Return<void> SimPowerService::enableScenario(int32_t handle, int32_t timeout) {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::EnableScenario, {handle, timeout});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::EnableScenario, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    auto it = mScenarios.find(handle);
    if (it == mScenarios.end()) {
        c.result = -1;
        return ::android::hardware::Void();
    }
    it->second.enabled = true;
    it->second.timeoutMs = timeout;
    it->second.enabledAt = c.when;
    return ::android::hardware::Void();
}

Return<void> SimPowerService::disableScenario(int32_t handle) {
    std::lock_guard<std::mutex> g(mLock);
    Call& c = journalLocked(Op::DisableScenario, {handle});
    const ObserveAtReturn observed{mObserver, c};
    Status failure;
    if (takeFailureLocked(Op::DisableScenario, &failure)) {
        c.transportFailed = true;
        return failure;
    }
    auto it = mScenarios.find(handle);
    if (it == mScenarios.end()) {
        c.result = -1;
        return ::android::hardware::Void();
    }
    it->second.enabled = false;
    return ::android::hardware::Void();
}

void SimPowerService::injectTransportFailure(Op op, int count) {
    injectTransportFailure(op, Status::fromStatusT(::android::FAILED_TRANSACTION), count);
}

void SimPowerService::injectTransportFailure(Op op, const Status& status, int count) {
    std::lock_guard<std::mutex> g(mLock);
    for (int i = 0; i < count; ++i) mFailures[op].push_back(status);
}

std::vector<Call> SimPowerService::journal() const {
    std::lock_guard<std::mutex> g(mLock);
    return mJournal;
}

void SimPowerService::clearJournal() {
    std::lock_guard<std::mutex> g(mLock);
    mJournal.clear();
}

std::vector<Call> SimPowerService::calls(Op op) const {
    std::lock_guard<std::mutex> g(mLock);
    std::vector<Call> out;
    for (const Call& c : mJournal)
        if (c.op == op) out.push_back(c);
    return out;
}

std::vector<Scenario> SimPowerService::registered() const {
    std::lock_guard<std::mutex> g(mLock);
    std::vector<Scenario> out;
    for (const auto& e : mScenarios) out.push_back(e.second);
    return out;
}

std::vector<Scenario> SimPowerService::active() const {
    std::lock_guard<std::mutex> g(mLock);
    auto now = std::chrono::steady_clock::now();
    std::vector<Scenario> out;
    for (const auto& e : mScenarios)
        if (e.second.active(now)) out.push_back(e.second);
    return out;
}

std::string SimPowerService::report() const {
    std::vector<Scenario> all = registered();
    std::ostringstream out;
    if (all.empty()) {
        out << "no scenario registered\n";
        return out.str();
    }
    for (const Scenario& s : all) out << s.describe() << "\n";
    return out.str();
}

sp<SimPowerService> startDefaultService(const Config& config) {
    sp<SimPowerService> s = new SimPowerService(config);
    if (s->registerAsService("default") != ::android::OK) return nullptr;
    return s;
}

bool killDefaultService() {
    return qrnhost::hidl::declareServiceDead(IPower::descriptor, "default");
}

}  // namespace qrnhost::power
