// The simulated perf-lock client library. Built as
// "libqrnperf_client_vendor.so"; test builds compile it twice more with one
// entry point left out, to drive the loader's failure paths.
#include <qrnhost/PerfSim.h>
#include <qrnhost/locking.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <mutex>

namespace qrnhost::perf {
namespace {

using Clock = std::chrono::steady_clock;

struct State {
    std::mutex lock;
    int32_t nextHandle QRNHOST_GUARDED_BY(lock) = 1;
    std::map<int32_t, Lock> locks QRNHOST_GUARDED_BY(lock);
    std::vector<Call> journal QRNHOST_GUARDED_BY(lock);
    int refuseCount QRNHOST_GUARDED_BY(lock) = 0;
    bool refuseAll QRNHOST_GUARDED_BY(lock) = false;
    std::function<void(const Call&)> observer QRNHOST_GUARDED_BY(lock);

    void dropExpiredLocked(Clock::time_point now) QRNHOST_REQUIRES(lock) {
        for (auto it = locks.begin(); it != locks.end();) {
            if (it->second.expired(now))
                it = locks.erase(it);
            else
                ++it;
        }
    }

    Call& record(Op op, int32_t handle) QRNHOST_REQUIRES(lock) {
        Call c;
        c.seq = journal.size() + 1;
        c.when = std::chrono::steady_clock::now();
        c.op = op;
        c.handle = handle;
        c.tid = static_cast<pid_t>(syscall(SYS_gettid));
        journal.push_back(std::move(c));
        return journal.back();
    }
};

// Never destroyed: the controller may take or release locks from exit
// handlers or other libraries' destructors.
State& state() {
    static State* s = new State;
    return *s;
}

std::string hex(int32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", static_cast<uint32_t>(v));
    return buf;
}

std::string listText(const std::vector<int32_t>& list) {
    std::string s = "{";
    for (size_t i = 0; i < list.size(); ++i) s += (i ? ", " : "") + hex(list[i]);
    return s + "}";
}

}  // namespace

bool Lock::expired(Clock::time_point now) const {
    return duration > 0 && now - acquiredAt >= std::chrono::milliseconds(duration);
}

std::string Lock::describe() const {
    std::string s = "lock " + std::to_string(handle) + " " + listText(list);
    s += duration > 0 ? " for " + std::to_string(duration) + " ms" : " until released";
    return s;
}

std::string Call::toString() const {
    if (op == Op::Release) return "perf_lock_rel(" + std::to_string(handle) + ") = " + std::to_string(result);
    return "perf_lock_acq(" + std::to_string(handle) + ", " + std::to_string(duration) + ", " + listText(list) + ", " +
           std::to_string(numArgs) + ") = " + std::to_string(result);
}

std::vector<Call> journal() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    return s.journal;
}

std::vector<Call> calls(Op op) {
    std::vector<Call> out;
    for (Call& c : journal())
        if (c.op == op) out.push_back(std::move(c));
    return out;
}

std::vector<Lock> held() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.dropExpiredLocked(Clock::now());
    std::vector<Lock> out;
    for (const auto& [h, l] : s.locks) out.push_back(l);
    return out;
}

std::string report() {
    std::string r;
    for (const Lock& l : held()) r += l.describe() + "\n";
    return r;
}

void refuseNext(int count) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.refuseCount += count;
}

void setRefuseAll(bool refuse) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.refuseAll = refuse;
}

void setObserver(std::function<void(const Call&)> observer) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.observer = std::move(observer);
}

void reset() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.nextHandle = 1;
    s.locks.clear();
    s.journal.clear();
    s.refuseCount = 0;
    s.refuseAll = false;
}

}  // namespace qrnhost::perf

using qrnhost::perf::Op;
using qrnhost::perf::state;

#ifndef QRNPERF_OMIT_ACQ
// A non-zero handle that names a lock still held updates that lock in place
// and returns the same handle; any other handle asks for a new lock. A
// malformed list (odd or empty, or no pointer) is refused like a busy
// resource: the result is 0.
extern "C" int32_t perf_lock_acq(int32_t handle, int32_t duration, int32_t* list, int32_t numArgs) {
    auto& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    const auto now = std::chrono::steady_clock::now();
    s.dropExpiredLocked(now);
    auto& call = s.record(Op::Acquire, handle);
    call.duration = duration;
    call.numArgs = numArgs;
    if (list != nullptr && numArgs > 0) call.list.assign(list, list + numArgs);

    bool refuse = list == nullptr || numArgs <= 0 || numArgs % 2 != 0 || duration < 0 || s.refuseAll;
    if (!refuse && s.refuseCount > 0) {
        --s.refuseCount;
        refuse = true;
    }
    if (refuse) {
        call.result = 0;
        if (s.observer) s.observer(call);
        return 0;
    }
    int32_t granted = handle;
    if (handle == 0 || s.locks.count(handle) == 0) granted = s.nextHandle++;
    qrnhost::perf::Lock& l = s.locks[granted];
    l.handle = granted;
    l.duration = duration;
    l.list = call.list;
    l.acquiredAt = now;
    call.result = granted;
    if (s.observer) s.observer(call);
    return granted;
}
#endif

#ifndef QRNPERF_OMIT_REL
// 0 when the handle named a lock still held, -1 otherwise (unknown, already
// released or run out).
extern "C" int32_t perf_lock_rel(int32_t handle) {
    auto& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.dropExpiredLocked(std::chrono::steady_clock::now());
    auto& call = s.record(Op::Release, handle);
    call.result = s.locks.erase(handle) ? 0 : -1;
    if (s.observer) s.observer(call);
    return call.result;
}
#endif
