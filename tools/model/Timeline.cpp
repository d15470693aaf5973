#include "Timeline.h"

#include <stdio.h>

#include <algorithm>

namespace qrnsession {

namespace {

struct Row {
    Nanos ns;
    int pid, tid;
    std::string what;
    Evidence how;
};

}  // namespace

std::string renderTimeline(const Session& s) {
    std::vector<Row> rows;
    auto add = [&](const Stamp& at, int pid, int tid, std::string what) {
        rows.push_back({at.known() ? at.ns : kNoTime, pid, tid, std::move(what), at.how});
    };
    for (const Controller& c : s.controllers) {
        const std::string name = std::string(controllerKindName(c.kind)) + " #" + std::to_string(c.id);
        for (const ControllerEvent& e : c.events)
            add(e.at, c.pid, e.tid,
                "ctrl   " + name + " " + e.what + (e.users >= 0 ? " (users " + std::to_string(e.users) + ")" : ""));
    }
    for (const PowerCall& c : s.powerCalls) add(c.at, c.pid, c.tid, "power  " + c.describe());
    for (const PerfCall& c : s.perfCalls) add(c.at, c.pid, c.tid, "perf   " + c.describe());
    // Ends no call marks: a timeout or a duration running out.
    for (const Scenario& sc : s.scenarios)
        for (const EnabledSpan& e : sc.enabled)
            if (e.endedBy == SpanEnd::TimedOut)
                add(Stamp{e.end.ns, Evidence::Inferred}, sc.pid, 0,
                    "power  scenario " + std::to_string(sc.handle) + " timed out after " + std::to_string(e.timeoutMs) +
                        " ms");
    for (const PerfLock& l : s.perfLocks)
        if (l.endedBy == LockEnd::RanOut)
            add(Stamp{l.end.ns, Evidence::Inferred}, l.pid, 0,
                "perf   lock " + std::to_string(l.handle) + " ran out after " + std::to_string(l.durationMs) + " ms");
    for (const FileCache& fc : s.caches) {
        std::string what = "dump   <" + fc.path + "> ";
        if (fc.dropped)
            add(*fc.dropped, fc.pid, 0,
                what + "dropped: " + std::to_string(fc.blocks) + " blocks, " + std::to_string(fc.bytes) + " bytes" +
                    (fc.refused.empty() ? "" : ", " + std::to_string(fc.refused.size()) + " refused by the budget"));
        if (fc.flush.begin) add(*fc.flush.begin, fc.pid, fc.flush.tid, what + "flush begins");
        if (fc.flush.end) {
            std::string result = !fc.flush.ok ? "" : *fc.flush.ok ? ", written" : ", FAILED to write";
            if (fc.flush.verified) result += *fc.flush.verified ? ", verified" : ", NOT verified: " + fc.flush.problem;
            add(*fc.flush.end, fc.pid, fc.flush.tid,
                what.append("flush ends: ").append(std::to_string(fc.flush.bytes)).append(" bytes").append(result));
        }
    }
    for (const Mark& m : s.marks)
        add(Stamp{m.ns, Evidence::Seen}, m.pid, 0, "mark   " + m.what + (m.detail.empty() ? "" : ": " + m.detail));
    // Unknown times last; the rest in time order, ties in insertion order.
    std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        if ((a.ns == kNoTime) != (b.ns == kNoTime)) return b.ns == kNoTime;
        return a.ns < b.ns;
    });
    const bool manyProcesses = s.processes.size() > 1;
    std::string out;
    for (const Row& r : rows) {
        char head[64];
        if (r.ns == kNoTime)
            snprintf(head, sizeof head, "%14s", "time unknown");
        else
            snprintf(head, sizeof head, "%+11.3f ms", static_cast<double>(r.ns - s.start) / 1e6);
        out += head;
        char who[32];
        const std::string tid = r.tid != 0 ? std::to_string(r.tid) : "-";
        if (manyProcesses)
            snprintf(who, sizeof who, "  %6d/%-6s", r.pid, tid.c_str());
        else
            snprintf(who, sizeof who, "  %6s", tid.c_str());
        out += who;
        out += "  " + r.what;
        if (r.how != Evidence::Seen) out += std::string("  (") + evidenceName(r.how) + ")";
        out += "\n";
    }
    return out;
}

std::string renderLeftHeld(const std::vector<Finding>& held) {
    if (held.empty()) return "nothing left held\n";
    std::string out;
    for (const Finding& f : held) {
        out += f.what + "\n";
        out += f.onPurpose ? "    on purpose: " + f.why + "\n" : "    UNINTENDED\n";
    }
    return out;
}

}  // namespace qrnsession
