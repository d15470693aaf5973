// A simulated perf-lock client library for host builds. The same shared
// library that the camera controller opens at run time also exports a small
// host API, so that tests and host programs see the locks it has granted:
// a journal of every call, the locks still held, and a switch that refuses
// locks on demand.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#define QRNHOST_PERF_API __attribute__((visibility("default")))

// The client library's two entry points, as the device's library has them.
extern "C" {
QRNHOST_PERF_API int32_t perf_lock_acq(int32_t handle, int32_t duration, int32_t* list, int32_t numArgs);
QRNHOST_PERF_API int32_t perf_lock_rel(int32_t handle);
}

namespace qrnhost::perf {

enum class Op { Acquire, Release };

struct QRNHOST_PERF_API Call {
    uint64_t seq = 0;  // 1, 2, ... in arrival order
    Op op = Op::Acquire;
    int32_t handle = 0;                          // handle argument
    int32_t duration = 0;                        // Acquire: duration in ms
    std::vector<int32_t> list;                   // Acquire: the list as passed (numArgs entries)
    int32_t numArgs = 0;                         // Acquire
    int32_t result = 0;                          // value returned
    pid_t tid = 0;                               // calling thread
    std::chrono::steady_clock::time_point when;  // arrival, on the same clock as the power journal
    std::string toString() const;                // "perf_lock_acq(0, 3000, {0x00414000, 0x1}, 2) = 1"
};

struct QRNHOST_PERF_API Lock {
    int32_t handle = 0;
    int32_t duration = 0;  // ms; 0 = until released
    std::vector<int32_t> list;
    std::chrono::steady_clock::time_point acquiredAt;
    bool expired(std::chrono::steady_clock::time_point now) const;
    std::string describe() const;
};

// Every call made so far (since the last reset), in order.
QRNHOST_PERF_API std::vector<Call> journal();
QRNHOST_PERF_API std::vector<Call> calls(Op op);

// Locks granted, not released and not run out, in handle order.
QRNHOST_PERF_API std::vector<Lock> held();
// Human-readable report of the locks still held ("" when none).
QRNHOST_PERF_API std::string report();

// The next `count` acquisitions are refused (they return 0 and change nothing).
QRNHOST_PERF_API void refuseNext(int count = 1);
// Refuse every acquisition until switched off again.
QRNHOST_PERF_API void setRefuseAll(bool refuse);

// Receives each call when it is complete, on the calling thread, before the
// call returns (an empty function removes it). It must not call the library.
QRNHOST_PERF_API void setObserver(std::function<void(const Call&)> observer);

// Forgets every lock, the journal and the refusals; handles start at 1 again.
QRNHOST_PERF_API void reset();

}  // namespace qrnhost::perf
