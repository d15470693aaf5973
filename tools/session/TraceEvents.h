// The session's trace in the trace-event JSON format that trace viewers open
// as it is (Perfetto's UI, Chrome's about:tracing). Events are written as
// they happen, one JSON object a line, to a part file; the parent process
// adds what only it sees (the flushes that end after the session's process)
// and writes the whole file.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace session {

// Wall-clock microseconds: the one clock both processes and file times share.
int64_t nowMicros();
int64_t toMicros(std::chrono::steady_clock::time_point t);
std::string jsonString(const std::string& s);

// The name of a power-service command or query code, as the library's log
// gives it ("CMD_SET_CPU_PERF_MODE"), or "" for an unknown code.
const char* powerCodeName(qrnhost::power::Op op, int32_t code);
// A journal entry with its code named: "configScenario(2, 5, 1, 0, 0, 0)
// CMD_SET_CPU_PERF_MODE".
std::string describe(const qrnhost::power::Call& call);

class TraceEvents {
  public:
    // Starts a part file (truncated). False if it cannot be written.
    bool open(const std::string& path);
    bool isOpen() const { return mOpen.load(std::memory_order_relaxed); }
    // Closes the part file; false if anything could not be written.
    bool close();

    void section(bool begin, const std::string& name, int tid);
    void log(char level, const std::string& tag, const std::string& text, int tid);
    void counter(const std::string& name, double value);
    void threadName(int tid, const std::string& name);
    // The power service's scenarios (register to unregister, enabled spans
    // inside) and the perf locks (acquire to release or run-out), as async
    // slices. What is still held at endMicros ends there.
    void powerAndPerf(const std::vector<qrnhost::power::Call>& power, const std::vector<qrnhost::perf::Call>& perf,
                      int64_t endMicros);

  private:
    void emit(const std::string& object);

    std::mutex mLock;
    std::atomic<bool> mOpen{false};  // a hint for callers; mOut decides, under mLock
    FILE* mOut = nullptr;            // guarded by mLock
    bool mFailed = false;            // guarded by mLock
    int mPid = 0;                    // set by open()
};

// Writes the viewer's file: the part file's events plus extra ones (JSON
// objects), truncating path. False if it cannot be written.
bool writeTraceFile(const std::string& path, const std::string& partPath, const std::vector<std::string>& extra);

// The part file's events and the extra ones, as the inside of a JSON array.
std::string readEvents(const std::string& partPath, const std::vector<std::string>& extra);
// Writes the report page with data (a JSON object) in it, truncating path.
bool writeReport(const std::string& path, const std::string& data);

}  // namespace session
