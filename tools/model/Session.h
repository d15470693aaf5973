// One camera session as the tools see it, whoever saw it: a host session
// fills it from the simulators' journals and the library's notes, a device
// log fills it from the library's lines. Every view (the logcat-style log,
// the text timeline, the trace file, the page, the JSON document) and every
// check (what was left held, scope lines without a partner, errors) works on
// this model alone.
//
// The model says how it knows what it holds: each call and each point in
// time is seen (in a simulator's journal, or in a line of the log that says
// so), inferred (it follows from the library's fixed call order given what
// was seen), or unknown (it may have happened; the source cannot tell).
#pragma once

#include <stdint.h>

#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qrnsession {

// Nanoseconds on the session's clock: since the epoch for wall-clock
// sources, since boot for a monotonic device log.
using Nanos = int64_t;
constexpr Nanos kNoTime = std::numeric_limits<Nanos>::min();

// The wall clock now, as the session's times count it.
Nanos wallClockNow();
// An Android log priority as logcat's letter: V D I W E F, '?' for another.
char priorityLetter(int priority);

enum class Evidence : uint8_t { Seen, Inferred, Unknown };
const char* evidenceName(Evidence e);  // "seen", "inferred", "unknown"

// A moment something happened, and how it is known. A moment that did not
// happen (as far as the source shows) is an empty optional<Stamp>; one that
// may have happened at an unknown time is {kNoTime, Unknown}.
struct Stamp {
    Nanos ns = kNoTime;
    Evidence how = Evidence::Seen;
    bool known() const { return ns != kNoTime; }
};

struct Thread {
    int tid = 0;
    std::string name;
};

struct Process {
    int pid = 0;
    std::string name;
    Nanos start = kNoTime;
    Nanos end = kNoTime;  // kNoTime: still running when the source ended
    std::string ending;   // "exited 0", "killed by signal 9", ... ("" when unknown)
    std::vector<Thread> threads;
};

enum class Sink : uint8_t { Android, ULog };

struct LogLine {
    Nanos ns = 0;
    int pid = 0;
    int tid = 0;
    int uid = -1;      // -1 when the source does not say
    char level = 'D';  // V D I W E F
    std::string tag;
    std::string text;  // as logged, the error suffix included
    Sink sink = Sink::Android;
    uint32_t module = 0;  // unified logger lines: the module id
    // An ERROR line's suffix " (function){#line:path}", when it has one.
    std::string function;
    int line = 0;
    std::string file;
};
// Fills function, line and file from an ERROR line's text; false when the
// text ends in no suffix.
bool parseErrorSuffix(LogLine& line);

struct Section {
    int pid = 0;
    int tid = 0;
    std::string name;
    Nanos begin = 0;
    Nanos end = kNoTime;  // kNoTime: never ended
};

enum class ControllerKind : uint8_t { CpuCtrl, Cam3CPUCtrl };
const char* controllerKindName(ControllerKind k);

struct ControllerEvent {
    Stamp at;
    int tid = 0;
    // "create", "destroy", "init", "uninit", "uninit without a user",
    // "bound", "no service", "service died", "unlinked"
    std::string what;
    int users = -1;  // the count of users after the event, -1 when unknown
};

struct Controller {
    int id = 0;  // 1, 2, ... in the order they were created
    int pid = 0;
    ControllerKind kind = ControllerKind::CpuCtrl;
    std::vector<ControllerEvent> events;
    // The source cannot tell this object's calls from another's of its
    // class: what is attributed to it may belong to a sibling.
    bool ambiguous = false;
    std::optional<Stamp> created() const;
    std::optional<Stamp> destroyed() const;
    int users() const;  // after its last event (-1 when unknown)
};

enum class PowerOp : uint8_t {
    QuerySystemInfo,
    RegisterScenario,
    ConfigScenario,
    UnregisterScenario,
    EnableScenario,
    DisableScenario
};
const char* powerOpName(PowerOp op);
// The name of a configScenario command or querySystemInfo code as the
// library's log gives it ("CMD_SET_CPU_PERF_MODE"), or "" for another.
const char* powerCodeName(PowerOp op, int32_t code);
// The timeout the library passes when a request asks for none.
constexpr int32_t kScenarioTimeoutMax = 0x0FFFFFFF;

struct PowerCall {
    Stamp at;
    int pid = 0;
    int tid = 0;
    int controller = 0;  // 0: not known
    PowerOp op = PowerOp::QuerySystemInfo;
    std::vector<int32_t> args;
    std::optional<int32_t> result;  // registerScenario, querySystemInfo
    bool transportFailed = false;
    uint32_t unknownArgs = 0;  // bit i: args[i] is not known (the log does not show it)
    bool argKnown(size_t i) const { return i >= 32 || (unknownArgs & (1u << i)) == 0; }
    std::string describe() const;  // "configScenario(2, 5, 1, 0, 0, 0)  CMD_SET_CPU_PERF_MODE", "?" for an unknown
};

enum class PerfOp : uint8_t { Acquire, Release };

struct PerfCall {
    Stamp at;
    int pid = 0;
    int tid = 0;
    int controller = 0;
    PerfOp op = PerfOp::Acquire;
    int32_t handle = 0;    // the handle argument
    int32_t duration = 0;  // Acquire, ms
    bool durationKnown = true;
    std::vector<int32_t> list;
    // Acquire: the lock's handle, 0 when refused; unknown when the source
    // shows only whether it was granted.
    std::optional<int32_t> result;
    std::optional<bool> granted;  // Acquire, when result is unknown
    // Release: the acquire (an index into Session::perfCalls) it ends, when
    // the source pairs them by call order rather than by handle.
    int releases = -1;
    bool wasGranted() const { return result ? *result != 0 : granted.value_or(false); }
    std::string describe() const;  // "perf_lock_acq(0, 3000, {0x00414000, 0x1}, 2) = 1", "?" for an unknown
};
// "camera perf", "CPU boost", "No-Tempa" for the camera controller's lists,
// "" for another.
std::string perfRequestName(const std::vector<int32_t>& list);

// ---- derived from the calls (derive()) ----

enum class SpanEnd : uint8_t {
    Disabled,
    Reenabled,
    Unregistered,
    TimedOut,
    StillEnabled,
    ProcessEnded,
    ServiceDied,
    Unknown
};
const char* spanEndName(SpanEnd e);

struct EnabledSpan {
    Stamp begin;
    Stamp end;  // when it ended, or the session's end for one still enabled
    int32_t timeoutMs = 0;
    bool timeoutKnown = true;
    SpanEnd endedBy = SpanEnd::StillEnabled;
};

struct Scenario {
    int pid = 0;
    int32_t handle = -1;
    int controller = 0;
    Stamp registered;
    std::optional<Stamp> unregistered;
    std::vector<size_t> calls;  // indexes into Session::powerCalls, in order
    std::vector<EnabledSpan> enabled;
    bool lostWithService = false;  // the service died while it was registered
    bool leftRegistered() const { return !unregistered.has_value(); }
    // Still enabled when the source ended or its process did.
    bool leftEnabled() const {
        return !enabled.empty() &&
               (enabled.back().endedBy == SpanEnd::StillEnabled || enabled.back().endedBy == SpanEnd::ProcessEnded);
    }
    // Left registered on purpose, and why (filled by derive()).
    bool onPurpose = false;
    std::string why;
};

// Unknown: neither released nor known to have run out (its duration is not
// in the source).
enum class LockEnd : uint8_t { Released, RanOut, Held, ProcessEnded, Unknown };
const char* lockEndName(LockEnd e);

struct PerfLock;
// "perf lock 3 (camera perf)", or "perf lock (CPU boost)" when its handle is
// not known.
std::string lockName(const PerfLock& l);

struct PerfLock {
    int pid = 0;
    int32_t handle = 0;  // 0: refused; -1: granted, its handle not known
    int controller = 0;
    std::string request;  // perfRequestName of its list
    Stamp acquired;
    Stamp end;  // released, ran out, or the session's end
    LockEnd endedBy = LockEnd::Held;
    int32_t durationMs = 0;
    bool durationKnown = true;
    std::vector<int32_t> list;
    bool refused() const { return handle == 0; }
    // Still held when the source or its process ended, or may be (never
    // released, and its duration unknown).
    bool leftHeld() const {
        return endedBy == LockEnd::Held || endedBy == LockEnd::ProcessEnded || endedBy == LockEnd::Unknown;
    }
};

// ---- the file cache ----

struct Flush {
    std::optional<Stamp> queued, begin, end;
    int tid = 0;  // the thread that wrote it
    uint64_t bytes = 0;
    std::optional<bool> ok;        // every block reached the file (unknown: not said)
    std::optional<bool> verified;  // the file compared with what was written (host sessions)
    std::string problem;           // why it did not verify
};

struct FileCache {
    int pid = 0;
    std::string path;
    std::optional<Stamp> opened, dropped;
    int blocks = 0;  // accepted by write
    uint64_t bytes = 0;
    struct Refusal {
        Stamp at;
        int tid = 0;
        uint64_t bytes = 0;  // the block's size
    };
    std::vector<Refusal> refused;
    Flush flush;
    std::vector<int> frames;  // host sessions: the frames written, for verification
};

struct BudgetPoint {
    Nanos ns = 0;
    uint64_t bytes = 0;  // charged to the budget after this moment
    Evidence how = Evidence::Seen;
};

struct Mark {
    Nanos ns = 0;
    int pid = 0;
    // "exit", "phase", "gap", "service died" (the power service: what it
    // held ends there), ...
    std::string what;
    std::string detail;
    // How many of the session's power calls came before it, where the
    // source gives that order (times of equal value cannot).
    int64_t callsBefore = -1;
};

// What a device log covered (empty for a host session).
struct Coverage {
    std::vector<std::string> inputs;
    std::map<std::string, std::string> tagLevels;  // tag: the level letters seen, "DIWE"
    std::vector<std::string> gaps;                 // where lines are missing, in words
    std::vector<std::string> notes;                // what the log could not show, in words
};

struct Session {
    std::string source;              // "host session", or the inputs of a device log
    std::string clock = "realtime";  // or "monotonic"
    Nanos start = 0, end = 0;
    std::vector<Process> processes;
    std::vector<Controller> controllers;
    std::vector<PowerCall> powerCalls;
    std::vector<PerfCall> perfCalls;
    std::vector<FileCache> caches;
    int64_t budgetLimit = -1;  // -1 when unknown
    std::vector<BudgetPoint> budget;
    std::vector<LogLine> log;
    std::vector<Section> sections;
    std::vector<Mark> marks;
    Coverage coverage;
    // Derived from the calls by derive().
    std::vector<Scenario> scenarios;
    std::vector<PerfLock> perfLocks;

    const Process* process(int pid) const;
    Process& processFor(int pid);  // adds it when new
    std::string threadName(int pid, int tid) const;
    void nameThread(int pid, int tid, const std::string& name);
    const Controller* controller(int id) const;
};

// Rebuilds scenarios and perfLocks from the calls, ends what the source's
// end (or a process's) leaves open, and says which leftovers are on purpose.
void derive(Session& s);

// "12.345 ms" style offsets from the session's start.
std::string offset(const Session& s, Nanos ns);

}  // namespace qrnsession
