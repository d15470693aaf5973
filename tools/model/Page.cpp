#include "Page.h"

#include <stdio.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Checks.h"

namespace qrnsession {

using nlohmann::json;

extern const char* const kPageHtml;  // page.html, compiled in

namespace {

std::string mib(double bytes) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.1f MiB", bytes / (1 << 20));
    return buf;
}

// A duration as the page shows it: microseconds, milliseconds or seconds.
std::string ms(double micros) {
    char buf[32];
    if (micros < 1000)
        snprintf(buf, sizeof buf, "%.0f \xC2\xB5s", micros);
    else if (micros < 1e6)
        snprintf(buf, sizeof buf, "%.*f ms", micros < 1e4 ? 2 : 1, micros / 1000);
    else
        snprintf(buf, sizeof buf, "%.2f s", micros / 1e6);
    return buf;
}

}  // namespace

std::string pageData(const Session& s, const std::string& title, const std::vector<std::string>& facts) {
    auto t = [&](Nanos ns) { return static_cast<double>(ns - s.start) / 1000.0; };
    const double end = t(s.end);
    json rows = json::array();
    json marks = json::array();
    auto bar = [&](double from, double to, const std::string& cls, const std::string& tip, bool left) {
        return json{{"from", from}, {"to", std::max(to, from)}, {"cls", cls}, {"title", tip}, {"left", left}};
    };

    for (const Controller& c : s.controllers) {
        const auto created = c.created();
        if (!created || !created->known()) continue;
        const auto destroyed = c.destroyed();
        const double to = destroyed && destroyed->known() ? t(destroyed->ns) : end;
        std::string tip = std::string(controllerKindName(c.kind)) + " #" + std::to_string(c.id) + ":";
        for (const ControllerEvent& e : c.events)
            if (e.at.known())
                tip += "\n" + ms(t(e.at.ns)) + "  " + e.what +
                       (e.users >= 0 ? " (users " + std::to_string(e.users) + ")" : "");
        const int users = c.users();
        json row = {{"label", std::string(controllerKindName(c.kind)) + " #" + std::to_string(c.id)},
                    {"kind", "controller"},
                    {"bars", json::array({bar(t(created->ns), to, "controller", tip, users > 0)})}};
        if (users > 0) row["note"] = std::to_string(users) + (users == 1 ? " user" : " users") + " left";
        rows.push_back(std::move(row));
    }
    for (const Scenario& sc : s.scenarios) {
        if (!sc.registered.known()) continue;
        std::string label = "scenario " + std::to_string(sc.handle);
        if (const Controller* c = s.controller(sc.controller))
            label += std::string(" (") + controllerKindName(c->kind) + " #" + std::to_string(c->id) + ")";
        const bool left = sc.leftRegistered() || !sc.unregistered->known();
        const double to = left ? end : t(sc.unregistered->ns);
        std::string tip = label + ": registered at " + ms(t(sc.registered.ns));
        tip += sc.leftRegistered() ? ", never unregistered" : ", unregistered at " + ms(to);
        for (size_t i : sc.calls) {
            const PowerCall& call = s.powerCalls[i];
            if (call.op == PowerOp::ConfigScenario) tip += "\n" + call.describe();
        }
        json bars = json::array({bar(t(sc.registered.ns), to, "scenario", tip, sc.leftRegistered())});
        for (const EnabledSpan& e : sc.enabled) {
            if (!e.begin.known()) continue;
            const double from = t(e.begin.ns), until = e.end.known() ? t(e.end.ns) : end;
            std::string span = "enabled " + ms(until - from);
            span += !e.timeoutKnown ? " (timeout not in the log)"
                    : e.timeoutMs > 0 && e.timeoutMs < kScenarioTimeoutMax
                        ? " (timeout " + std::to_string(e.timeoutMs) + " ms)"
                    : e.timeoutMs == kScenarioTimeoutMax ? " (no time limit)"
                                                         : "";
            span += std::string(", ") + spanEndName(e.endedBy);
            const bool stillOn = e.endedBy == SpanEnd::StillEnabled || e.endedBy == SpanEnd::ProcessEnded;
            bars.push_back(bar(from, until, "enabled", span, stillOn));
        }
        json row = {{"label", label}, {"kind", "scenario"}, {"bars", bars}};
        if (sc.leftRegistered())
            row["note"] = std::string(sc.leftEnabled() ? "left enabled" : "left registered") +
                          (sc.onPurpose ? " (on purpose)" : "");
        rows.push_back(std::move(row));
    }
    for (const PerfLock& l : s.perfLocks) {
        if (!l.acquired.known()) continue;
        const std::string label = lockName(l);
        if (l.refused()) {
            marks.push_back({{"t", t(l.acquired.ns)}, {"kind", "refused"}, {"text", label + " refused"}});
            continue;
        }
        const double to = l.end.known() ? t(l.end.ns) : end;
        std::string tip = label + ": " + ms(to - t(l.acquired.ns)) + ", " + lockEndName(l.endedBy) +
                          (!l.durationKnown   ? " (duration not in the log)"
                           : l.durationMs > 0 ? " (duration " + std::to_string(l.durationMs) + " ms)"
                                              : "");
        json row = {{"label", label},
                    {"kind", "lock"},
                    {"bars", json::array({bar(t(l.acquired.ns), to, "lock", tip, l.leftHeld())})}};
        if (l.leftHeld()) row["note"] = "left held";
        rows.push_back(std::move(row));
    }
    json flushes = json::array();
    json files = json::array();
    int refusedBlocks = 0;
    for (const FileCache& fc : s.caches) {
        const std::string base = fc.path.substr(fc.path.rfind('/') + 1);
        for (const auto& r : fc.refused) {
            ++refusedBlocks;
            if (r.at.known())
                marks.push_back({{"t", t(r.at.ns)},
                                 {"kind", "refused"},
                                 {"text", "budget refused " + std::to_string(r.bytes) + " bytes for " + base}});
        }
        const Flush& f = fc.flush;
        const std::optional<Stamp>& from = f.begin ? f.begin : f.queued;
        double took = -1;
        if (from && from->known() && f.end && f.end->known()) {
            took = t(f.end->ns) - t(from->ns);
            const bool bad = (f.ok && !*f.ok) || (f.verified && !*f.verified);
            flushes.push_back({{"from", t(from->ns)},
                               {"to", t(f.end->ns)},
                               {"cls", bad ? "flush bad" : "flush"},
                               {"title", base + ": " + mib(static_cast<double>(f.bytes)) + " in " + ms(took)},
                               {"left", false}});
        }
        std::string state = f.verified                ? (*f.verified ? "verified" : "FAILED: " + f.problem)
                            : f.ok                    ? (*f.ok ? "written" : "write FAILED")
                            : f.end && f.end->known() ? "written"
                            : f.end                   ? "not in the log"
                            : fc.dropped              ? "never written"
                                                      : "cache never dropped";
        files.push_back({{"path", fc.path},
                         {"blocks", fc.blocks},
                         {"bytes", fc.bytes},
                         {"refused", fc.refused.size()},
                         {"flush_us", took},
                         {"state", state},
                         {"ok", f.verified ? *f.verified
                                : f.ok     ? *f.ok
                                           : false}});
    }
    int warnings = 0, errors = 0;
    json log = json::array();
    for (const LogLine& l : s.log) {
        const std::string level(1, l.level);
        if (l.sink == Sink::Android && (l.level == 'W' || l.level == 'E' || l.level == 'F')) {
            (l.level == 'W' ? warnings : errors)++;
            marks.push_back(
                {{"t", t(l.ns)}, {"kind", l.level == 'W' ? "warn" : "error"}, {"text", l.tag + ": " + l.text}});
        }
        log.push_back({{"t", t(l.ns)},
                       {"pid", l.pid},
                       {"tid", l.tid},
                       {"level", level},
                       {"tag", l.sink == Sink::ULog ? "ulog/" + l.tag : l.tag},
                       {"text", l.text}});
    }
    for (const Mark& m : s.marks)
        marks.push_back({{"t", t(m.ns)}, {"kind", m.what}, {"text", m.what + ": " + m.detail}});
    json points = json::array();
    uint64_t peak = 0;
    for (const BudgetPoint& b : s.budget) {
        points.push_back({t(b.ns), b.bytes});
        peak = std::max(peak, b.bytes);
    }
    const std::vector<Finding> held = leftHeld(s);
    const int unintendedCount = unintended(held);
    int verified = 0;
    for (const FileCache& fc : s.caches) verified += fc.flush.verified.value_or(false) ? 1 : 0;
    std::vector<std::string> summary;
    summary.push_back(std::to_string(held.size()) + " left held (" + std::to_string(unintendedCount) + " unintended)");
    if (!s.caches.empty()) {
        std::string dumps = std::to_string(s.caches.size()) + " dump files";
        if (verified > 0 || std::any_of(s.caches.begin(), s.caches.end(),
                                        [](const FileCache& c) { return c.flush.verified.has_value(); }))
            dumps += ", " + std::to_string(verified) + " verified";
        summary.push_back(dumps);
    }
    if (refusedBlocks > 0) summary.push_back(std::to_string(refusedBlocks) + " blocks refused by the budget");
    if (s.budgetLimit >= 0 || !s.budget.empty())
        summary.push_back("budget " +
                          (s.budgetLimit >= 0 ? mib(static_cast<double>(s.budgetLimit)) : std::string("?")) +
                          ", peak " + mib(static_cast<double>(peak)));
    summary.push_back(std::to_string(warnings) + " warnings, " + std::to_string(errors) + " errors");
    summary.push_back(ms(end) + " in all");
    json leftList = json::array();
    for (const Finding& f : held) leftList.push_back({{"what", f.what}, {"on_purpose", f.onPurpose}, {"why", f.why}});
    json j = {{"title", title},     {"source", s.source}, {"span", end},
              {"summary", summary}, {"facts", facts},     {"rows", rows},
              {"flushes", flushes}, {"marks", marks},     {"budget", {{"limit", s.budgetLimit}, {"points", points}}},
              {"files", files},     {"left", leftList},   {"unintended", unintendedCount},
              {"log", log}};
    return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string renderPage(const Session& s, const std::string& title, const std::vector<std::string>& facts) {
    const std::string data = pageData(s, title, facts);
    // Inside a script element "</" could end it early; JSON reads "<\/" the same.
    std::string safe;
    safe.reserve(data.size());
    for (size_t i = 0; i < data.size(); ++i) {
        safe += data[i];
        if (data[i] == '<' && i + 1 < data.size() && data[i + 1] == '/') safe += '\\';
    }
    std::string page = kPageHtml;
    const size_t at = page.find("@DATA@");
    if (at != std::string::npos) page.replace(at, 6, safe);
    return page;
}

}  // namespace qrnsession
