#include "Checks.h"

#include <map>
#include <tuple>

namespace qrnsession {

std::vector<Finding> leftHeld(const Session& s) {
    std::vector<Finding> out;
    for (const Scenario& sc : s.scenarios) {
        if (!sc.leftRegistered() && !sc.leftEnabled()) continue;
        Finding f;
        f.kind = sc.leftEnabled() ? "left enabled" : "left registered";
        f.what = "scenario " + std::to_string(sc.handle);
        if (const Controller* c = s.controller(sc.controller))
            f.what += std::string(" of ") + controllerKindName(c->kind) + " #" + std::to_string(c->id);
        f.what += sc.leftEnabled() ? " still registered and enabled" : " still registered";
        f.onPurpose = sc.onPurpose;
        f.why = sc.why;
        f.ns = sc.registered.ns;
        f.pid = sc.pid;
        out.push_back(std::move(f));
    }
    for (const PerfLock& l : s.perfLocks) {
        if (l.refused() || !l.leftHeld()) continue;
        Finding f;
        f.kind = "perf lock held";
        f.what = lockName(l) + " never released";
        if (!l.durationKnown)
            f.what += " (its duration is not in the log: it may have run out)";
        else if (l.durationMs <= 0)
            f.what += " and without a duration";
        f.ns = l.acquired.ns;
        f.pid = l.pid;
        out.push_back(std::move(f));
    }
    for (const Controller& c : s.controllers) {
        const int users = c.users();
        if (users <= 0) continue;
        Finding f;
        f.kind = "users left";
        f.what = std::string(controllerKindName(c.kind)) + " #" + std::to_string(c.id) + ": " + std::to_string(users) +
                 (users == 1 ? " user" : " users") + " never called uninit";
        if (c.ambiguous) f.what += " (the log cannot tell this object from another of its class)";
        f.ns = c.events.empty() ? kNoTime : c.events.back().at.ns;
        f.pid = c.pid;
        out.push_back(std::move(f));
    }
    for (const FileCache& fc : s.caches) {
        Finding f;
        f.pid = fc.pid;
        if (!fc.dropped) {
            f.kind = "cache open";
            f.what = "file cache <" + fc.path + "> never dropped: " + std::to_string(fc.bytes) + " bytes held";
            f.ns = fc.opened ? fc.opened->ns : kNoTime;
        } else if (!fc.flush.end) {
            f.kind = "dump pending";
            f.what = "dump <" + fc.path + "> (" + std::to_string(fc.bytes) + " bytes) never written";
            f.ns = fc.dropped->ns;
        } else {
            continue;
        }
        out.push_back(std::move(f));
    }
    return out;
}

std::vector<Finding> unpairedScopes(const Session& s) {
    std::vector<Finding> out;
    // Open "+" lines per sink, process, thread and tag.
    using Key = std::tuple<int, int, int, std::string>;
    std::map<Key, std::vector<const LogLine*>> open;
    auto scope = [](const LogLine& l, char* sign) -> std::string {
        const std::string& t = l.text;
        if (t.size() < 5 || t[0] != '[' || t.compare(t.size() - 3, 2, "] ") != 0) return "";
        const char c = t.back();
        if (c != '+' && c != '-') return "";
        *sign = c;
        return t.substr(1, t.size() - 4);
    };
    for (const LogLine& l : s.log) {
        char sign = 0;
        const std::string function = scope(l, &sign);
        if (function.empty() || l.level != 'D') continue;
        auto& stack = open[{static_cast<int>(l.sink), l.pid, l.tid, l.tag}];
        if (sign == '+') {
            stack.push_back(&l);
            continue;
        }
        // A "-" closes the innermost open scope of its function.
        bool matched = false;
        for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
            if (scope(**it, &sign) != function) continue;
            stack.erase(std::next(it).base());
            matched = true;
            break;
        }
        if (!matched) {
            Finding f;
            f.kind = "scope unpaired";
            f.what = "\"" + l.text + "\" of " + l.tag + " on thread " + std::to_string(l.tid) + " without its \"+\"";
            f.ns = l.ns;
            f.pid = l.pid;
            out.push_back(std::move(f));
        }
    }
    for (const auto& [key, stack] : open) {
        for (const LogLine* l : stack) {
            Finding f;
            f.kind = "scope unpaired";
            f.what = "\"" + l->text + "\" of " + l->tag + " on thread " + std::to_string(l->tid) + " without its \"-\"";
            f.ns = l->ns;
            f.pid = l->pid;
            out.push_back(std::move(f));
        }
    }
    return out;
}

std::vector<Finding> problems(const Session& s) {
    std::vector<Finding> out;
    for (const LogLine& l : s.log) {
        if (l.level != 'W' && l.level != 'E' && l.level != 'F') continue;
        Finding f;
        f.kind = l.level == 'W' ? "warning" : "error";
        f.what = l.tag + ": " + l.text;
        if (!l.function.empty()) f.why = "in " + l.function + " at " + l.file + ":" + std::to_string(l.line);
        f.ns = l.ns;
        f.pid = l.pid;
        out.push_back(std::move(f));
    }
    return out;
}

std::vector<Finding> findings(const Session& s) {
    std::vector<Finding> out = leftHeld(s);
    for (auto& f : unpairedScopes(s)) out.push_back(std::move(f));
    for (auto& f : problems(s)) out.push_back(std::move(f));
    return out;
}

int unintended(const std::vector<Finding>& held) {
    int n = 0;
    for (const Finding& f : held)
        if (!f.onPurpose && f.kind != "scope unpaired" && f.kind != "warning" && f.kind != "error") ++n;
    return n;
}

}  // namespace qrnsession
