#include "Json.h"

#include <nlohmann/json.hpp>

#include "Checks.h"

namespace qrnsession {

using nlohmann::json;

namespace {

constexpr const char* kSchema = "qrncam-session/1";

json stamp(const Stamp& s) {
    return {{"ns", s.known() ? json(s.ns) : json(nullptr)}, {"how", evidenceName(s.how)}};
}
json stamp(const std::optional<Stamp>& s) {
    return s ? stamp(*s) : json(nullptr);
}
json time(Nanos ns) {
    return ns == kNoTime ? json(nullptr) : json(ns);
}
template <typename T>
json maybe(const std::optional<T>& v) {
    return v ? json(*v) : json(nullptr);
}

Evidence evidenceFrom(const std::string& s) {
    if (s == "seen") return Evidence::Seen;
    if (s == "inferred") return Evidence::Inferred;
    if (s == "unknown") return Evidence::Unknown;
    throw std::runtime_error("unknown evidence \"" + s + "\"");
}
Stamp stampFrom(const json& j) {
    Stamp s;
    s.ns = j.at("ns").is_null() ? kNoTime : j.at("ns").get<Nanos>();
    s.how = evidenceFrom(j.at("how").get<std::string>());
    return s;
}
std::optional<Stamp> maybeStamp(const json& j, const char* key) {
    if (!j.contains(key) || j.at(key).is_null()) return std::nullopt;
    return stampFrom(j.at(key));
}
Nanos timeFrom(const json& j, const char* key) {
    return !j.contains(key) || j.at(key).is_null() ? kNoTime : j.at(key).get<Nanos>();
}
template <typename T>
std::optional<T> maybeFrom(const json& j, const char* key) {
    if (!j.contains(key) || j.at(key).is_null()) return std::nullopt;
    return j.at(key).get<T>();
}

template <typename E>
E enumFrom(const std::string& name, const char* (*nameOf)(E), int count, const char* what) {
    for (int i = 0; i < count; ++i)
        if (name == nameOf(static_cast<E>(i))) return static_cast<E>(i);
    throw std::runtime_error(std::string("unknown ") + what + " \"" + name + "\"");
}
const char* perfOpName(PerfOp op) {
    return op == PerfOp::Acquire ? "acquire" : "release";
}
const char* sinkName(Sink s) {
    return s == Sink::Android ? "android" : "ulog";
}

}  // namespace

std::string toJson(const Session& s, int indent) {
    json j;
    j["schema"] = kSchema;
    j["source"] = s.source;
    j["clock"] = s.clock;
    j["start_ns"] = s.start;
    j["end_ns"] = s.end;
    j["processes"] = json::array();
    for (const Process& p : s.processes) {
        json threads = json::array();
        for (const Thread& t : p.threads) threads.push_back({{"tid", t.tid}, {"name", t.name}});
        j["processes"].push_back({{"pid", p.pid},
                                  {"name", p.name},
                                  {"start_ns", time(p.start)},
                                  {"end_ns", time(p.end)},
                                  {"ending", p.ending},
                                  {"threads", threads}});
    }
    j["controllers"] = json::array();
    for (const Controller& c : s.controllers) {
        json events = json::array();
        for (const ControllerEvent& e : c.events)
            events.push_back({{"at", stamp(e.at)}, {"tid", e.tid}, {"what", e.what}, {"users", e.users}});
        j["controllers"].push_back({{"id", c.id},
                                    {"pid", c.pid},
                                    {"kind", controllerKindName(c.kind)},
                                    {"ambiguous", c.ambiguous},
                                    {"events", events}});
    }
    j["power_calls"] = json::array();
    for (const PowerCall& c : s.powerCalls) {
        const size_t at = c.op == PowerOp::ConfigScenario ? 1 : 0;
        const char* code = c.args.size() > at ? powerCodeName(c.op, c.args[at]) : "";
        j["power_calls"].push_back({{"at", stamp(c.at)},
                                    {"pid", c.pid},
                                    {"tid", c.tid},
                                    {"controller", c.controller},
                                    {"op", powerOpName(c.op)},
                                    {"args", c.args},
                                    {"result", maybe(c.result)},
                                    {"transport_failed", c.transportFailed},
                                    {"unknown_args", c.unknownArgs},
                                    {"code", *code && c.argKnown(at) ? json(code) : json(nullptr)}});
    }
    j["perf_calls"] = json::array();
    for (const PerfCall& c : s.perfCalls) {
        j["perf_calls"].push_back({{"at", stamp(c.at)},
                                   {"pid", c.pid},
                                   {"tid", c.tid},
                                   {"controller", c.controller},
                                   {"op", perfOpName(c.op)},
                                   {"handle", c.handle},
                                   {"duration_ms", c.durationKnown ? json(c.duration) : json(nullptr)},
                                   {"list", c.list},
                                   {"result", maybe(c.result)},
                                   {"granted", c.wasGranted()},
                                   {"releases", c.releases}});
    }
    j["scenarios"] = json::array();
    for (const Scenario& sc : s.scenarios) {
        json spans = json::array();
        for (const EnabledSpan& e : sc.enabled)
            spans.push_back({{"begin", stamp(e.begin)},
                             {"end", stamp(e.end)},
                             {"timeout_ms", e.timeoutKnown ? json(e.timeoutMs) : json(nullptr)},
                             {"ended_by", spanEndName(e.endedBy)}});
        j["scenarios"].push_back({{"pid", sc.pid},
                                  {"handle", sc.handle},
                                  {"controller", sc.controller},
                                  {"registered", stamp(sc.registered)},
                                  {"unregistered", stamp(sc.unregistered)},
                                  {"calls", sc.calls},
                                  {"enabled", spans},
                                  {"left_registered", sc.leftRegistered()},
                                  {"left_enabled", sc.leftEnabled()},
                                  {"lost_with_service", sc.lostWithService},
                                  {"on_purpose", sc.onPurpose},
                                  {"why", sc.why}});
    }
    j["perf_locks"] = json::array();
    for (const PerfLock& l : s.perfLocks) {
        j["perf_locks"].push_back({{"pid", l.pid},
                                   {"handle", l.handle},
                                   {"controller", l.controller},
                                   {"request", l.request},
                                   {"acquired", stamp(l.acquired)},
                                   {"end", stamp(l.end)},
                                   {"ended_by", lockEndName(l.endedBy)},
                                   {"duration_ms", l.durationKnown ? json(l.durationMs) : json(nullptr)},
                                   {"list", l.list},
                                   {"refused", l.refused()}});
    }
    j["file_caches"] = json::array();
    for (const FileCache& fc : s.caches) {
        json refused = json::array();
        for (const auto& r : fc.refused) refused.push_back({{"at", stamp(r.at)}, {"tid", r.tid}, {"bytes", r.bytes}});
        const Flush& f = fc.flush;
        j["file_caches"].push_back({{"pid", fc.pid},
                                    {"path", fc.path},
                                    {"opened", stamp(fc.opened)},
                                    {"dropped", stamp(fc.dropped)},
                                    {"blocks", fc.blocks},
                                    {"bytes", fc.bytes},
                                    {"refused", refused},
                                    {"frames", fc.frames},
                                    {"flush",
                                     {{"queued", stamp(f.queued)},
                                      {"begin", stamp(f.begin)},
                                      {"end", stamp(f.end)},
                                      {"tid", f.tid},
                                      {"bytes", f.bytes},
                                      {"ok", maybe(f.ok)},
                                      {"verified", maybe(f.verified)},
                                      {"problem", f.problem}}}});
    }
    json points = json::array();
    for (const BudgetPoint& b : s.budget)
        points.push_back({{"ns", b.ns}, {"bytes", b.bytes}, {"how", evidenceName(b.how)}});
    j["budget"] = {{"limit", s.budgetLimit}, {"points", points}};
    j["log"] = json::array();
    for (const LogLine& l : s.log) {
        json line = {{"ns", l.ns},
                     {"pid", l.pid},
                     {"tid", l.tid},
                     {"uid", l.uid},
                     {"level", std::string(1, l.level)},
                     {"tag", l.tag},
                     {"text", l.text},
                     {"sink", sinkName(l.sink)},
                     {"module", l.module}};
        if (!l.function.empty()) line.update({{"function", l.function}, {"line", l.line}, {"file", l.file}});
        j["log"].push_back(std::move(line));
    }
    j["sections"] = json::array();
    for (const Section& sec : s.sections)
        j["sections"].push_back({{"pid", sec.pid},
                                 {"tid", sec.tid},
                                 {"name", sec.name},
                                 {"begin_ns", sec.begin},
                                 {"end_ns", time(sec.end)}});
    j["marks"] = json::array();
    for (const Mark& m : s.marks)
        j["marks"].push_back(
            {{"ns", m.ns}, {"pid", m.pid}, {"what", m.what}, {"detail", m.detail}, {"calls_before", m.callsBefore}});
    j["coverage"] = {{"inputs", s.coverage.inputs},
                     {"tag_levels", s.coverage.tagLevels},
                     {"gaps", s.coverage.gaps},
                     {"notes", s.coverage.notes}};
    j["findings"] = json::array();
    for (const Finding& f : findings(s))
        j["findings"].push_back({{"kind", f.kind},
                                 {"what", f.what},
                                 {"on_purpose", f.onPurpose},
                                 {"why", f.why},
                                 {"ns", time(f.ns)},
                                 {"pid", f.pid}});
    // Texts are bytes as logged: invalid UTF-8 is replaced rather than
    // refused, so that a log with such bytes still gives a document.
    return j.dump(indent, ' ', false, json::error_handler_t::replace);
}

bool fromJson(const std::string& text, Session& out, std::string* error) {
    try {
        const json j = json::parse(text);
        if (j.value("schema", "") != kSchema) throw std::runtime_error(std::string("not a ") + kSchema + " document");
        Session s;
        s.source = j.at("source").get<std::string>();
        s.clock = j.at("clock").get<std::string>();
        s.start = j.at("start_ns").get<Nanos>();
        s.end = j.at("end_ns").get<Nanos>();
        for (const json& p : j.at("processes")) {
            Process proc;
            proc.pid = p.at("pid");
            proc.name = p.at("name");
            proc.start = timeFrom(p, "start_ns");
            proc.end = timeFrom(p, "end_ns");
            proc.ending = p.at("ending");
            for (const json& t : p.at("threads")) proc.threads.push_back({t.at("tid"), t.at("name")});
            s.processes.push_back(std::move(proc));
        }
        for (const json& c : j.at("controllers")) {
            Controller ctrl;
            ctrl.id = c.at("id");
            ctrl.pid = c.at("pid");
            ctrl.kind = c.at("kind") == "CpuCtrl" ? ControllerKind::CpuCtrl : ControllerKind::Cam3CPUCtrl;
            ctrl.ambiguous = c.at("ambiguous");
            for (const json& e : c.at("events"))
                ctrl.events.push_back({stampFrom(e.at("at")), e.at("tid"), e.at("what"), e.at("users")});
            s.controllers.push_back(std::move(ctrl));
        }
        for (const json& c : j.at("power_calls")) {
            PowerCall call;
            call.at = stampFrom(c.at("at"));
            call.pid = c.at("pid");
            call.tid = c.at("tid");
            call.controller = c.at("controller");
            call.op = enumFrom<PowerOp>(c.at("op"), powerOpName, 6, "power operation");
            call.args = c.at("args").get<std::vector<int32_t>>();
            call.result = maybeFrom<int32_t>(c, "result");
            call.transportFailed = c.at("transport_failed");
            call.unknownArgs = c.at("unknown_args");
            s.powerCalls.push_back(std::move(call));
        }
        for (const json& c : j.at("perf_calls")) {
            PerfCall call;
            call.at = stampFrom(c.at("at"));
            call.pid = c.at("pid");
            call.tid = c.at("tid");
            call.controller = c.at("controller");
            call.op = enumFrom<PerfOp>(c.at("op"), perfOpName, 2, "perf-lock operation");
            call.handle = c.at("handle");
            call.durationKnown = !c.at("duration_ms").is_null();
            call.duration = call.durationKnown ? c.at("duration_ms").get<int32_t>() : 0;
            call.list = c.at("list").get<std::vector<int32_t>>();
            call.result = maybeFrom<int32_t>(c, "result");
            if (!call.result) call.granted = c.at("granted").get<bool>();
            call.releases = c.at("releases");
            s.perfCalls.push_back(std::move(call));
        }
        for (const json& c : j.at("file_caches")) {
            FileCache fc;
            fc.pid = c.at("pid");
            fc.path = c.at("path");
            fc.opened = maybeStamp(c, "opened");
            fc.dropped = maybeStamp(c, "dropped");
            fc.blocks = c.at("blocks");
            fc.bytes = c.at("bytes");
            for (const json& r : c.at("refused"))
                fc.refused.push_back({stampFrom(r.at("at")), r.at("tid"), r.at("bytes")});
            fc.frames = c.at("frames").get<std::vector<int>>();
            const json& f = c.at("flush");
            fc.flush.queued = maybeStamp(f, "queued");
            fc.flush.begin = maybeStamp(f, "begin");
            fc.flush.end = maybeStamp(f, "end");
            fc.flush.tid = f.at("tid");
            fc.flush.bytes = f.at("bytes");
            fc.flush.ok = maybeFrom<bool>(f, "ok");
            fc.flush.verified = maybeFrom<bool>(f, "verified");
            fc.flush.problem = f.at("problem");
            s.caches.push_back(std::move(fc));
        }
        s.budgetLimit = j.at("budget").at("limit");
        for (const json& b : j.at("budget").at("points"))
            s.budget.push_back({b.at("ns"), b.at("bytes"), evidenceFrom(b.at("how"))});
        for (const json& l : j.at("log")) {
            LogLine line;
            line.ns = l.at("ns");
            line.pid = l.at("pid");
            line.tid = l.at("tid");
            line.uid = l.at("uid");
            const std::string level = l.at("level");
            line.level = level.empty() ? '?' : level[0];
            line.tag = l.at("tag");
            line.text = l.at("text");
            line.sink = l.at("sink") == "ulog" ? Sink::ULog : Sink::Android;
            line.module = l.at("module");
            line.function = l.value("function", "");
            line.line = l.value("line", 0);
            line.file = l.value("file", "");
            s.log.push_back(std::move(line));
        }
        for (const json& sec : j.at("sections"))
            s.sections.push_back(
                {sec.at("pid"), sec.at("tid"), sec.at("name"), sec.at("begin_ns"), timeFrom(sec, "end_ns")});
        for (const json& m : j.at("marks"))
            s.marks.push_back({m.at("ns"), m.at("pid"), m.at("what"), m.at("detail"), m.at("calls_before")});
        const json& cov = j.at("coverage");
        s.coverage.inputs = cov.at("inputs").get<std::vector<std::string>>();
        s.coverage.tagLevels = cov.at("tag_levels").get<std::map<std::string, std::string>>();
        s.coverage.gaps = cov.at("gaps").get<std::vector<std::string>>();
        s.coverage.notes = cov.at("notes").get<std::vector<std::string>>();
        derive(s);
        out = std::move(s);
        return true;
    } catch (const std::exception& e) {
        if (error != nullptr) *error = e.what();
        return false;
    }
}

}  // namespace qrnsession
