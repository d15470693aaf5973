#include "Session.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <PowerScenario.h>
#include <algorithm>
#include <set>

namespace qrnsession {

namespace p2 = vendor::quarnel::hardware::power::V2_0;
static_assert(kScenarioTimeoutMax == p2::SCENARIO_TIMEOUT_MAX, "one longest timeout");

Nanos wallClockNow() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<Nanos>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

char priorityLetter(int priority) {
    // ANDROID_LOG_VERBOSE (2) to ANDROID_LOG_FATAL (7).
    return priority >= 2 && priority <= 7 ? "VDIWEF"[priority - 2] : '?';
}

const char* evidenceName(Evidence e) {
    switch (e) {
        case Evidence::Seen: return "seen";
        case Evidence::Inferred: return "inferred";
        case Evidence::Unknown: return "unknown";
    }
    return "?";
}

const char* controllerKindName(ControllerKind k) {
    return k == ControllerKind::CpuCtrl ? "CpuCtrl" : "Cam3CPUCtrl";
}

const char* powerOpName(PowerOp op) {
    switch (op) {
        case PowerOp::QuerySystemInfo: return "querySystemInfo";
        case PowerOp::RegisterScenario: return "registerScenario";
        case PowerOp::ConfigScenario: return "configScenario";
        case PowerOp::UnregisterScenario: return "unregisterScenario";
        case PowerOp::EnableScenario: return "enableScenario";
        case PowerOp::DisableScenario: return "disableScenario";
    }
    return "?";
}

const char* powerCodeName(PowerOp op, int32_t code) {
    if (op == PowerOp::QuerySystemInfo) {
        switch (code) {
            case p2::SYSINFO_CLUSTER_NUM: return "SYSINFO_CLUSTER_NUM";
            case p2::SYSINFO_CLUSTER_FREQ_MAX: return "SYSINFO_CLUSTER_FREQ_MAX";
            default: return "";
        }
    }
    if (op != PowerOp::ConfigScenario) return "";
    switch (code) {
        case p2::CMD_SET_CPU_CORE_BIG_LITTLE_MIN: return "CMD_SET_CPU_CORE_BIG_LITTLE_MIN";
        case p2::CMD_SET_CPU_CORE_BIG_LITTLE_MAX: return "CMD_SET_CPU_CORE_BIG_LITTLE_MAX";
        case p2::CMD_SET_CPU_FREQ_BIG_LITTLE_MIN: return "CMD_SET_CPU_FREQ_BIG_LITTLE_MIN";
        case p2::CMD_SET_CPU_FREQ_BIG_LITTLE_MAX: return "CMD_SET_CPU_FREQ_BIG_LITTLE_MAX";
        case p2::CMD_SET_CPU_PERF_MODE: return "CMD_SET_CPU_PERF_MODE";
        case p2::CMD_SET_PREFER_IDLE: return "CMD_SET_PREFER_IDLE";
        case p2::CMD_SET_CAM_PREFER_IDLE: return "CMD_SET_CAM_PREFER_IDLE";
        case p2::CMD_SET_PREFER_IDLE_PARAM: return "CMD_SET_PREFER_IDLE_PARAM";
        default: return "";
    }
}

const char* spanEndName(SpanEnd e) {
    switch (e) {
        case SpanEnd::Disabled: return "disabled";
        case SpanEnd::Reenabled: return "enabled again";
        case SpanEnd::Unregistered: return "unregistered";
        case SpanEnd::TimedOut: return "timed out";
        case SpanEnd::StillEnabled: return "still enabled";
        case SpanEnd::ProcessEnded: return "process ended";
        case SpanEnd::ServiceDied: return "service died";
        case SpanEnd::Unknown: return "unknown";
    }
    return "?";
}

const char* lockEndName(LockEnd e) {
    switch (e) {
        case LockEnd::Released: return "released";
        case LockEnd::RanOut: return "ran out";
        case LockEnd::Held: return "held";
        case LockEnd::ProcessEnded: return "process ended";
        case LockEnd::Unknown: return "unknown";
    }
    return "?";
}

bool parseErrorSuffix(LogLine& line) {
    // " (function){#line:path}" at the very end; the path holds no '}'.
    const std::string& t = line.text;
    if (t.size() < 8 || t.back() != '}') return false;
    const size_t open = t.rfind("){#");
    if (open == std::string::npos) return false;
    const size_t paren = t.rfind(" (", open);
    const size_t colon = t.find(':', open + 3);
    if (paren == std::string::npos || colon == std::string::npos || colon > t.size() - 2) return false;
    char* end = nullptr;
    const long number = strtol(t.c_str() + open + 3, &end, 10);
    if (end != t.c_str() + colon || number < 0) return false;
    line.function = t.substr(paren + 2, open - paren - 2);
    line.line = static_cast<int>(number);
    line.file = t.substr(colon + 1, t.size() - colon - 2);
    return !line.function.empty() && line.function.find(' ') == std::string::npos;
}

std::string PowerCall::describe() const {
    std::string text = std::string(powerOpName(op)) + "(";
    for (size_t i = 0; i < args.size(); ++i) text += (i ? ", " : "") + (argKnown(i) ? std::to_string(args[i]) : "?");
    text += ")";
    if (transportFailed)
        text += " -> transport failure";
    else if (result)
        text += " -> " + std::to_string(*result);
    // The code is the second argument of configScenario, the first of a query.
    const size_t at = op == PowerOp::ConfigScenario ? 1 : 0;
    if (args.size() > at && argKnown(at)) {
        const char* name = powerCodeName(op, args[at]);
        if (*name != '\0') text += std::string("  ") + name;
    }
    return text;
}

namespace {
std::string hex(int32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", static_cast<uint32_t>(v));
    return buf;
}
}  // namespace

std::string PerfCall::describe() const {
    std::string r = result ? std::to_string(*result) : "?";
    if (!result && granted) r = *granted ? "granted" : "0";
    if (op == PerfOp::Release)
        return "perf_lock_rel(" + (result || releases < 0 ? std::to_string(handle) : "?") + ")" +
               (result ? " = " + r : "");
    std::string l = "{";
    for (size_t i = 0; i < list.size(); ++i) l += (i ? ", " : "") + hex(list[i]);
    return "perf_lock_acq(" + std::to_string(handle) + ", " + (durationKnown ? std::to_string(duration) : "?") + ", " +
           l + "}, " + std::to_string(list.size()) + ") = " + r;
}

std::string perfRequestName(const std::vector<int32_t>& list) {
    if (list.size() == 4 && list[0] == 0x01404300 && list[2] == 0x01404100) return "camera perf";
    if (list.size() == 2 && list[0] == 0x00414000) return "CPU boost";
    if (list.size() == 2 && list[0] == 0x02004000) return "No-Tempa";
    return "";
}

std::string lockName(const PerfLock& l) {
    return std::string("perf lock") + (l.handle > 0 ? " " + std::to_string(l.handle) : "") +
           (l.request.empty() ? "" : " (" + l.request + ")");
}

std::optional<Stamp> Controller::created() const {
    for (const auto& e : events)
        if (e.what == "create") return e.at;
    return std::nullopt;
}

std::optional<Stamp> Controller::destroyed() const {
    for (const auto& e : events)
        if (e.what == "destroy") return e.at;
    return std::nullopt;
}

int Controller::users() const {
    for (auto it = events.rbegin(); it != events.rend(); ++it)
        if (it->users >= 0) return it->users;
    return -1;
}

const Process* Session::process(int pid) const {
    for (const auto& p : processes)
        if (p.pid == pid) return &p;
    return nullptr;
}

Process& Session::processFor(int pid) {
    for (auto& p : processes)
        if (p.pid == pid) return p;
    processes.emplace_back();
    processes.back().pid = pid;
    return processes.back();
}

std::string Session::threadName(int pid, int tid) const {
    if (const Process* p = process(pid))
        for (const auto& t : p->threads)
            if (t.tid == tid) return t.name;
    return "";
}

void Session::nameThread(int pid, int tid, const std::string& name) {
    Process& p = processFor(pid);
    for (auto& t : p.threads) {
        if (t.tid == tid) {
            if (!name.empty()) t.name = name;
            return;
        }
    }
    p.threads.push_back({tid, name});
}

const Controller* Session::controller(int id) const {
    for (const auto& c : controllers)
        if (c.id == id) return &c;
    return nullptr;
}

namespace {

// Where the source stops seeing a process: its end, or the session's.
Nanos endOf(const Session& s, int pid) {
    const Process* p = s.process(pid);
    return p != nullptr && p->end != kNoTime ? p->end : s.end;
}

bool processEnded(const Session& s, int pid) {
    const Process* p = s.process(pid);
    return p != nullptr && p->end != kNoTime;
}

void closeSpan(EnabledSpan& span, Stamp at, SpanEnd why) {
    // A timed span that ran out before the call ended by itself.
    if (span.timeoutKnown && span.timeoutMs > 0 && span.begin.known() && at.known() &&
        span.begin.ns + int64_t{span.timeoutMs} * 1000000 <= at.ns) {
        span.end = {span.begin.ns + int64_t{span.timeoutMs} * 1000000, span.begin.how};
        span.endedBy = SpanEnd::TimedOut;
        return;
    }
    span.end = at;
    span.endedBy = why;
}

void deriveScenarios(Session& s) {
    s.scenarios.clear();
    // Open scenarios by (pid, handle): a handle is only unique in its process.
    std::map<std::pair<int, int32_t>, size_t> open;
    // A service that dies takes its scenarios with it.
    std::vector<const Mark*> deaths;
    for (const Mark& m : s.marks)
        if (m.what == "service died") deaths.push_back(&m);
    size_t nextDeath = 0;
    // A death comes before the call it precedes in the source's order, or by
    // time where no order is given.
    auto bury = [&](size_t call, Nanos before) {
        for (; nextDeath < deaths.size(); ++nextDeath) {
            const Mark& d = *deaths[nextDeath];
            if (d.callsBefore >= 0 ? static_cast<size_t>(d.callsBefore) > call : d.ns > before) break;
            const Mark& m = d;
            for (auto it = open.begin(); it != open.end();) {
                if (it->first.first != m.pid) {
                    ++it;
                    continue;
                }
                Scenario& sc = s.scenarios[it->second];
                sc.unregistered = Stamp{m.ns, Evidence::Inferred};
                sc.lostWithService = true;
                if (!sc.enabled.empty() && sc.enabled.back().endedBy == SpanEnd::StillEnabled)
                    closeSpan(sc.enabled.back(), Stamp{m.ns, Evidence::Inferred}, SpanEnd::ServiceDied);
                it = open.erase(it);
            }
        }
    };
    // Scenarios whose state a call with an unknown handle may have changed:
    // the span open then may have ended, the scenario may be unregistered.
    std::map<size_t, bool> maybeUnregistered;  // scenario: true
    std::map<size_t, size_t> maybeEnded;       // scenario: its span that may have ended
    for (size_t i = 0; i < s.powerCalls.size(); ++i) {
        const PowerCall& c = s.powerCalls[i];
        bury(i, c.at.known() ? c.at.ns : std::numeric_limits<Nanos>::min());
        if (c.transportFailed) continue;
        if (c.op == PowerOp::QuerySystemInfo) continue;
        if (c.op != PowerOp::RegisterScenario && !c.argKnown(0)) {
            if (c.op == PowerOp::ConfigScenario) continue;
            for (const auto& [key, index] : open) {
                if (key.first != c.pid) continue;
                Scenario& sc = s.scenarios[index];
                if (c.controller != 0 && sc.controller != 0 && sc.controller != c.controller) continue;
                if (!sc.enabled.empty() && sc.enabled.back().endedBy == SpanEnd::StillEnabled)
                    maybeEnded[index] = sc.enabled.size() - 1;
                if (c.op == PowerOp::UnregisterScenario) maybeUnregistered[index] = true;
            }
            continue;
        }
        if (c.op == PowerOp::RegisterScenario) {
            if (!c.result) continue;
            Scenario sc;
            sc.pid = c.pid;
            sc.handle = *c.result;
            sc.controller = c.controller;
            sc.registered = c.at;
            sc.calls.push_back(i);
            // A handle given again while still open (a service that came
            // back starts over): the old scenario ends with its service.
            auto it = open.find({c.pid, sc.handle});
            if (it != open.end()) {
                Scenario& old = s.scenarios[it->second];
                old.unregistered = Stamp{kNoTime, Evidence::Unknown};
                if (!old.enabled.empty() && old.enabled.back().endedBy == SpanEnd::StillEnabled)
                    closeSpan(old.enabled.back(), Stamp{kNoTime, Evidence::Unknown}, SpanEnd::Unknown);
            }
            open[{c.pid, sc.handle}] = s.scenarios.size();
            s.scenarios.push_back(std::move(sc));
            continue;
        }
        if (c.args.empty()) continue;
        auto it = open.find({c.pid, c.args[0]});
        if (it == open.end()) continue;  // a handle the service never gave (or -1)
        Scenario& sc = s.scenarios[it->second];
        sc.calls.push_back(i);
        maybeUnregistered.erase(it->second);  // it was still there
        const bool spanOpen = !sc.enabled.empty() && sc.enabled.back().endedBy == SpanEnd::StillEnabled;
        switch (c.op) {
            case PowerOp::EnableScenario: {
                if (spanOpen) closeSpan(sc.enabled.back(), c.at, SpanEnd::Reenabled);
                EnabledSpan span;
                span.begin = c.at;
                span.timeoutMs = c.args.size() > 1 ? c.args[1] : 0;
                span.timeoutKnown = c.argKnown(1);
                sc.enabled.push_back(span);
                break;
            }
            case PowerOp::DisableScenario:
                if (spanOpen) closeSpan(sc.enabled.back(), c.at, SpanEnd::Disabled);
                break;
            case PowerOp::UnregisterScenario:
                if (spanOpen) closeSpan(sc.enabled.back(), c.at, SpanEnd::Unregistered);
                sc.unregistered = c.at;
                open.erase(it);
                break;
            default: break;
        }
    }
    bury(s.powerCalls.size(), std::numeric_limits<Nanos>::max());
    for (const auto& [index, span] : maybeEnded) {
        EnabledSpan& e = s.scenarios[index].enabled[span];
        if (e.endedBy == SpanEnd::StillEnabled) e.end = {kNoTime, Evidence::Unknown}, e.endedBy = SpanEnd::Unknown;
    }
    for (const auto& [index, yes] : maybeUnregistered) {
        Scenario& sc = s.scenarios[index];
        if (yes && sc.leftRegistered()) sc.unregistered = Stamp{kNoTime, Evidence::Unknown};
    }
    // What is still open at the end of its process (or of the source).
    for (Scenario& sc : s.scenarios) {
        if (sc.enabled.empty() || sc.enabled.back().endedBy != SpanEnd::StillEnabled) continue;
        EnabledSpan& span = sc.enabled.back();
        const Nanos end = endOf(s, sc.pid);
        closeSpan(span, Stamp{end, span.begin.how},
                  processEnded(s, sc.pid) ? SpanEnd::ProcessEnded : SpanEnd::StillEnabled);
    }
    // CpuCtrl gives each request a scenario of its own and unregisters only
    // the last one, when its last user leaves: the earlier ones stay
    // registered by design.
    std::map<int, int32_t> lastHandle;  // controller: its last registered handle
    for (const Scenario& sc : s.scenarios)
        if (sc.controller != 0) lastHandle[sc.controller] = sc.handle;
    for (Scenario& sc : s.scenarios) {
        sc.onPurpose = false;
        sc.why.clear();
        if (!sc.leftRegistered()) continue;
        const Controller* owner = s.controller(sc.controller);
        if (owner != nullptr && owner->kind == ControllerKind::CpuCtrl && lastHandle[sc.controller] != sc.handle &&
            !sc.leftEnabled()) {
            sc.onPurpose = true;
            sc.why =
                "CpuCtrl keeps each earlier scenario registered; only the last one is unregistered when its last "
                "user leaves";
        }
    }
}

void derivePerfLocks(Session& s) {
    s.perfLocks.clear();
    std::map<std::pair<int, int32_t>, size_t> held;  // (pid, handle): its lock
    auto runOut = [](PerfLock& l, Nanos before) {
        if (!l.durationKnown || l.durationMs <= 0 || !l.acquired.known()) return false;
        const Nanos expiry = l.acquired.ns + int64_t{l.durationMs} * 1000000;
        if (expiry > before) return false;
        l.end = {expiry, l.acquired.how};
        l.endedBy = LockEnd::RanOut;
        return true;
    };
    std::map<size_t, size_t> byCall;  // acquire call: its lock, while held
    for (size_t i = 0; i < s.perfCalls.size(); ++i) {
        const PerfCall& c = s.perfCalls[i];
        if (c.op == PerfOp::Acquire) {
            PerfLock l;
            l.pid = c.pid;
            l.handle = c.result ? *c.result : c.wasGranted() ? -1 : 0;
            l.controller = c.controller;
            l.request = perfRequestName(c.list);
            l.acquired = c.at;
            l.durationMs = c.duration;
            l.durationKnown = c.durationKnown;
            l.list = c.list;
            if (l.refused()) {
                l.end = c.at;
                l.endedBy = LockEnd::Released;
                s.perfLocks.push_back(std::move(l));
                continue;
            }
            if (l.handle > 0) {
                auto it = held.find({c.pid, l.handle});
                if (it != held.end()) {  // the handle was given again: the old lock is gone
                    PerfLock& old = s.perfLocks[it->second];
                    if (!runOut(old, c.at.ns)) old.end = {kNoTime, Evidence::Unknown}, old.endedBy = LockEnd::Unknown;
                }
                held[{c.pid, l.handle}] = s.perfLocks.size();
            }
            byCall[i] = s.perfLocks.size();
            s.perfLocks.push_back(std::move(l));
            continue;
        }
        size_t index;
        if (c.releases >= 0) {
            auto it = byCall.find(static_cast<size_t>(c.releases));
            if (it == byCall.end()) continue;
            index = it->second;
        } else {
            auto it = held.find({c.pid, c.handle});
            if (it == held.end()) continue;
            index = it->second;
        }
        PerfLock& l = s.perfLocks[index];
        if (!runOut(l, c.at.ns)) {
            l.end = c.at;
            l.endedBy = LockEnd::Released;
        }
        held.erase({l.pid, l.handle});
        for (auto it = byCall.begin(); it != byCall.end(); ++it)
            if (it->second == index) {
                byCall.erase(it);
                break;
            }
    }
    for (const auto& [call, index] : byCall) {
        PerfLock& l = s.perfLocks[index];
        const Nanos end = endOf(s, l.pid);
        if (runOut(l, end)) continue;
        l.end = {end, l.acquired.how};
        l.endedBy = !l.durationKnown         ? LockEnd::Unknown
                    : processEnded(s, l.pid) ? LockEnd::ProcessEnded
                                             : LockEnd::Held;
    }
}

}  // namespace

void derive(Session& s) {
    deriveScenarios(s);
    derivePerfLocks(s);
}

std::string offset(const Session& s, Nanos ns) {
    if (ns == kNoTime) return "?";
    char buf[32];
    snprintf(buf, sizeof buf, "%+.3f ms", static_cast<double>(ns - s.start) / 1e6);
    return buf;
}

}  // namespace qrnsession
