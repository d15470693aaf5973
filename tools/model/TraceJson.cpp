#include "TraceJson.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace qrnsession {

using nlohmann::json;

namespace {

// Microseconds with the nanoseconds kept as a fraction.
json micros(Nanos ns) {
    const Nanos whole = ns / 1000;
    return static_cast<double>(whole) + static_cast<double>(ns % 1000) / 1000.0;
}

class Writer {
  public:
    void add(json e) { mEvents.push_back(std::move(e)); }
    // Names first, then everything in time order; events of equal time
    // keep the order they were added in (a thread's ends and begins).
    std::string text() {
        std::stable_sort(mEvents.begin(), mEvents.end(), [](const json& a, const json& b) {
            const bool am = a.at("ph") == "M", bm = b.at("ph") == "M";
            if (am || bm) return am && !bm;
            return a.at("ts").get<double>() < b.at("ts").get<double>();
        });
        std::string out = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
        for (size_t i = 0; i < mEvents.size(); ++i) {
            out += mEvents[i].dump(-1, ' ', false, json::error_handler_t::replace);
            out += i + 1 < mEvents.size() ? ",\n" : "\n";
        }
        return out + "]}\n";
    }

  private:
    std::vector<json> mEvents;
};

json event(const char* ph, Nanos ns, int pid, int tid) {
    return {{"ph", ph}, {"ts", micros(ns)}, {"pid", pid}, {"tid", tid}};
}

std::string spanName(const EnabledSpan& e) {
    if (!e.timeoutKnown) return "enabled, timeout not in the log";
    if (e.timeoutMs > 0 && e.timeoutMs < kScenarioTimeoutMax) return "enabled, " + std::to_string(e.timeoutMs) + " ms";
    return e.timeoutMs == kScenarioTimeoutMax ? "enabled, no time limit" : "enabled";
}

std::string listText(const std::vector<int32_t>& list) {
    std::string out;
    for (int32_t v : list) {
        char buf[16];
        snprintf(buf, sizeof buf, "%s0x%08x", out.empty() ? "" : " ", static_cast<unsigned>(v));
        out += buf;
    }
    return out;
}

}  // namespace

std::string renderTrace(const Session& s) {
    Writer w;
    // Names first: every process, and every thread that appears anywhere.
    std::set<std::pair<int, int>> threads;
    for (const Section& sec : s.sections) threads.insert({sec.pid, sec.tid});
    for (const LogLine& l : s.log) threads.insert({l.pid, l.tid});
    for (const PowerCall& c : s.powerCalls) threads.insert({c.pid, c.tid});
    for (const FileCache& fc : s.caches)
        if (fc.flush.tid != 0) threads.insert({fc.pid, fc.flush.tid});
    for (const Process& p : s.processes) {
        threads.insert({p.pid, p.pid});
        for (const Thread& t : p.threads) threads.insert({p.pid, t.tid});
    }
    std::set<int> pids;
    for (const auto& [pid, tid] : threads) pids.insert(pid);
    for (int pid : pids) {
        const Process* p = s.process(pid);
        const std::string name = p != nullptr && !p->name.empty() ? p->name : "process " + std::to_string(pid);
        w.add({{"ph", "M"}, {"pid", pid}, {"tid", pid}, {"name", "process_name"}, {"args", {{"name", name}}}});
    }
    for (const auto& [pid, tid] : threads) {
        std::string name = s.threadName(pid, tid);
        if (name.empty()) name = "thread " + std::to_string(tid);
        w.add({{"ph", "M"}, {"pid", pid}, {"tid", tid}, {"name", "thread_name"}, {"args", {{"name", name}}}});
    }

    // Sections, thread by thread in the order they nest, so that every
    // begin and end is in time order on its thread even where times are
    // equal. A section never ended still gets its end, where the source
    // ends, so that viewers do not stretch it over everything after it.
    std::map<std::pair<int, int>, std::vector<const Section*>> byThread;
    for (const Section& sec : s.sections) byThread[{sec.pid, sec.tid}].push_back(&sec);
    for (auto& [thread, sections] : byThread) {
        auto endOf = [&](const Section* sec) { return sec->end != kNoTime ? sec->end : s.end; };
        std::stable_sort(sections.begin(), sections.end(), [&](const Section* a, const Section* b) {
            return a->begin != b->begin ? a->begin < b->begin : endOf(a) > endOf(b);
        });
        std::vector<const Section*> open;
        auto close = [&] {
            const Section* sec = open.back();
            open.pop_back();
            json e = event("E", endOf(sec), sec->pid, sec->tid);
            e["cat"] = "camera";
            e["name"] = sec->name;
            if (sec->end == kNoTime) e["args"] = {{"never ended", true}};
            w.add(e);
        };
        for (const Section* sec : sections) {
            while (!open.empty() && endOf(open.back()) <= sec->begin) close();
            json b = event("B", sec->begin, sec->pid, sec->tid);
            b["cat"] = "camera";
            b["name"] = sec->name;
            w.add(b);
            open.push_back(sec);
        }
        while (!open.empty()) close();
    }

    // Controller objects from creation to destruction (or the end), with
    // what happened to their users.
    for (const Controller& c : s.controllers) {
        const auto created = c.created();
        if (!created || !created->known()) continue;
        const auto destroyed = c.destroyed();
        const std::string name = std::string(controllerKindName(c.kind)) + " #" + std::to_string(c.id);
        const std::string id = "controller " + std::to_string(c.pid) + "/" + std::to_string(c.id);
        json b = event("b", created->ns, c.pid, c.pid);
        b["cat"] = "controller";
        b["id"] = id;
        b["name"] = name;
        json events = json::array();
        for (const ControllerEvent& e : c.events)
            events.push_back(e.what + (e.users >= 0 ? " (users " + std::to_string(e.users) + ")" : ""));
        b["args"] = {{"events", events}, {"ambiguous", c.ambiguous}};
        w.add(b);
        json e = event("e", destroyed && destroyed->known() ? destroyed->ns : s.end, c.pid, c.pid);
        e["cat"] = "controller";
        e["id"] = id;
        e["name"] = name;
        if (c.users() > 0) e["args"] = {{"users left", c.users()}};
        w.add(e);
    }

    for (size_t i = 0; i < s.scenarios.size(); ++i) {
        const Scenario& sc = s.scenarios[i];
        if (!sc.registered.known()) continue;
        const std::string id = "scenario " + std::to_string(sc.pid) + "/" + std::to_string(i);
        const std::string name = "scenario " + std::to_string(sc.handle);
        auto async = [&](const char* ph, Nanos ns, const std::string& n, json args) {
            json e = event(ph, ns, sc.pid, sc.pid);
            e["cat"] = "power";
            e["id"] = id;
            e["name"] = n;
            if (!args.is_null()) e["args"] = std::move(args);
            w.add(std::move(e));
        };
        json args = {{"handle", sc.handle}, {"evidence", evidenceName(sc.registered.how)}};
        if (const Controller* c = s.controller(sc.controller))
            args["controller"] = std::string(controllerKindName(c->kind)) + " #" + std::to_string(c->id);
        async("b", sc.registered.ns, name, args);
        Nanos last = sc.registered.ns;
        for (const EnabledSpan& e : sc.enabled) {
            if (!e.begin.known()) continue;
            const Nanos end = e.end.known() ? e.end.ns : s.end;
            async("b", e.begin.ns, spanName(e), {{"timeout ms", e.timeoutMs}, {"ended by", spanEndName(e.endedBy)}});
            const bool stillOn = e.endedBy == SpanEnd::StillEnabled || e.endedBy == SpanEnd::ProcessEnded;
            async("e", end, spanName(e), stillOn ? json{{"left enabled", true}} : json(nullptr));
            last = std::max(last, end);
        }
        const bool left = sc.leftRegistered() || !sc.unregistered->known();
        const Nanos end = left ? std::max(last, s.end) : sc.unregistered->ns;
        json endArgs = nullptr;
        if (sc.leftRegistered()) endArgs = {{"left registered", true}, {"on purpose", sc.onPurpose}};
        async("e", end, name, endArgs);
    }
    for (const PowerCall& c : s.powerCalls) {
        if (c.op != PowerOp::ConfigScenario || !c.at.known()) continue;
        json e = event("i", c.at.ns, c.pid, c.tid);
        e["s"] = "t";
        e["cat"] = "power";
        e["name"] = c.describe();
        e["args"] = {{"evidence", evidenceName(c.at.how)}};
        w.add(e);
    }

    for (size_t i = 0; i < s.perfLocks.size(); ++i) {
        const PerfLock& l = s.perfLocks[i];
        if (!l.acquired.known()) continue;
        if (l.refused()) {
            json e = event("i", l.acquired.ns, l.pid, l.pid);
            e["s"] = "p";
            e["cat"] = "perf";
            e["name"] = lockName(l) + " refused";
            w.add(e);
            continue;
        }
        const std::string id = "perf lock " + std::to_string(l.pid) + "/" + std::to_string(i);
        const std::string name = lockName(l);
        json b = event("b", l.acquired.ns, l.pid, l.pid);
        b["cat"] = "perf";
        b["id"] = id;
        b["name"] = name;
        b["args"] = {{"duration ms", l.durationKnown ? json(l.durationMs) : json("not in the log")},
                     {"list", listText(l.list)},
                     {"ended by", lockEndName(l.endedBy)}};
        w.add(b);
        json e = event("e", l.end.known() ? l.end.ns : s.end, l.pid, l.pid);
        e["cat"] = "perf";
        e["id"] = id;
        e["name"] = name;
        if (l.leftHeld()) e["args"] = {{"left held", true}};
        w.add(e);
    }

    const int budgetPid = s.caches.empty() ? (s.processes.empty() ? 0 : s.processes.front().pid) : s.caches[0].pid;
    for (const BudgetPoint& b : s.budget) {
        json e = {{"ph", "C"}, {"ts", micros(b.ns)}, {"pid", budgetPid}, {"name", "dump budget charged"}};
        e["args"] = {{"bytes", b.bytes}};
        w.add(e);
    }
    for (const FileCache& fc : s.caches) {
        const std::string base = fc.path.substr(fc.path.rfind('/') + 1);
        for (const auto& r : fc.refused) {
            if (!r.at.known()) continue;
            json e = event("i", r.at.ns, fc.pid, r.tid != 0 ? r.tid : fc.pid);
            e["s"] = "t";
            e["cat"] = "dump";
            e["name"] = "refused " + base;
            e["args"] = {{"file", fc.path}, {"bytes", r.bytes}};
            w.add(e);
        }
        const Flush& f = fc.flush;
        const std::optional<Stamp>& from = f.begin ? f.begin : f.queued;
        if (!from || !from->known() || !f.end || !f.end->known()) continue;
        json x = event("X", from->ns, fc.pid, f.tid != 0 ? f.tid : fc.pid);
        x["dur"] = micros(f.end->ns - from->ns);
        x["cat"] = "dump";
        x["name"] = "flush " + base;
        x["args"] = {{"file", fc.path}, {"bytes", f.bytes}};
        if (f.ok) x["args"]["ok"] = *f.ok;
        if (f.verified) x["args"]["verified"] = *f.verified;
        w.add(x);
    }

    for (const LogLine& l : s.log) {
        json e = event("i", l.ns, l.pid, l.tid);
        e["s"] = "t";
        e["cat"] = "log";
        e["name"] = l.text;
        e["args"] = {{"level", std::string(1, l.level)}, {"tag", l.tag}};
        w.add(e);
    }
    for (const Mark& m : s.marks) {
        json e = event("i", m.ns, m.pid, m.pid);
        e["s"] = "p";
        e["cat"] = "session";
        e["name"] = m.what + (m.detail.empty() ? "" : ": " + m.detail);
        w.add(e);
    }
    return w.text();
}

}  // namespace qrnsession
