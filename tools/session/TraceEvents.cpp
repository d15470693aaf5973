#include "TraceEvents.h"

#include <time.h>
#include <unistd.h>

#include <PowerScenario.h>
#include <algorithm>
#include <fstream>
#include <map>

namespace session {

using vendor::quarnel::hardware::power::V2_0::SCENARIO_TIMEOUT_MAX;
namespace p2 = vendor::quarnel::hardware::power::V2_0;

int64_t nowMicros() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t toMicros(std::chrono::steady_clock::time_point t) {
    // The journals keep steady times; the offset to the wall clock is taken
    // once, so that every converted time keeps its order.
    static const int64_t offset = nowMicros() - std::chrono::duration_cast<std::chrono::microseconds>(
                                                    std::chrono::steady_clock::now().time_since_epoch())
                                                    .count();
    return offset + std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

const char* powerCodeName(qrnhost::power::Op op, int32_t code) {
    if (op == qrnhost::power::Op::QuerySystemInfo) {
        switch (code) {
            case p2::SYSINFO_CLUSTER_NUM: return "SYSINFO_CLUSTER_NUM";
            case p2::SYSINFO_CLUSTER_FREQ_MAX: return "SYSINFO_CLUSTER_FREQ_MAX";
            default: return "";
        }
    }
    if (op != qrnhost::power::Op::ConfigScenario) return "";
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

std::string describe(const qrnhost::power::Call& call) {
    std::string text = call.toString();
    // The code is the second argument of configScenario, the first of a query.
    const size_t at = call.op == qrnhost::power::Op::ConfigScenario ? 1 : 0;
    if (call.args.size() > at) {
        const char* name = powerCodeName(call.op, call.args[at]);
        if (*name != '\0') text += std::string("  ") + name;
    }
    return text;
}

bool TraceEvents::open(const std::string& path) {
    std::lock_guard<std::mutex> g(mLock);
    mOut = fopen(path.c_str(), "w");
    mPid = static_cast<int>(getpid());
    mOpen = mOut != nullptr;
    return mOut != nullptr;
}

bool TraceEvents::close() {
    std::lock_guard<std::mutex> g(mLock);
    if (mOut == nullptr) return false;
    const bool ok = fclose(mOut) == 0 && !mFailed;
    mOut = nullptr;
    mOpen = false;
    return ok;
}

void TraceEvents::emit(const std::string& object) {
    std::lock_guard<std::mutex> g(mLock);
    if (mOut != nullptr && fprintf(mOut, "%s\n", object.c_str()) < 0) mFailed = true;
}

namespace {
std::string common(const char* ph, int64_t ts, int pid) {
    return std::string("\"ph\":\"") + ph + "\",\"ts\":" + std::to_string(ts) + ",\"pid\":" + std::to_string(pid);
}
}  // namespace

void TraceEvents::section(bool begin, const std::string& name, int tid) {
    if (!isOpen()) return;
    std::string o = "{" + common(begin ? "B" : "E", nowMicros(), mPid) + ",\"tid\":" + std::to_string(tid);
    if (begin) o += ",\"cat\":\"camera\",\"name\":" + jsonString(name);
    emit(o + "}");
}

void TraceEvents::log(char level, const std::string& tag, const std::string& text, int tid) {
    if (!isOpen()) return;
    emit("{" + common("i", nowMicros(), mPid) + ",\"tid\":" + std::to_string(tid) +
         ",\"s\":\"t\",\"cat\":\"log\",\"name\":" + jsonString(text) + ",\"args\":{\"level\":\"" +
         std::string(1, level) + "\",\"tag\":" + jsonString(tag) + "}}");
}

void TraceEvents::counter(const std::string& name, double value) {
    if (!isOpen()) return;
    emit("{" + common("C", nowMicros(), mPid) + ",\"name\":" + jsonString(name) +
         ",\"args\":{\"bytes\":" + std::to_string(static_cast<int64_t>(value)) + "}}");
}

void TraceEvents::threadName(int tid, const std::string& name) {
    if (!isOpen()) return;
    emit("{\"ph\":\"M\",\"pid\":" + std::to_string(mPid) + ",\"tid\":" + std::to_string(tid) +
         ",\"name\":\"thread_name\",\"args\":{\"name\":" + jsonString(name) + "}}");
}

void TraceEvents::powerAndPerf(const std::vector<qrnhost::power::Call>& power,
                               const std::vector<qrnhost::perf::Call>& perf, int64_t endMicros) {
    if (!isOpen()) return;
    auto async = [&](const char* ph, const char* cat, const std::string& id, const std::string& name, int64_t ts,
                     const std::string& args) {
        std::string o = "{" + common(ph, ts, mPid) + ",\"tid\":" + std::to_string(mPid) + ",\"cat\":\"" + cat +
                        "\",\"id\":" + jsonString(id) + ",\"name\":" + jsonString(name);
        if (!args.empty()) o += ",\"args\":{" + args + "}";
        emit(o + "}");
    };
    using qrnhost::power::Op;
    // Per handle: when it was registered, and the enabled span open in it.
    struct Open {
        int64_t enabledAt = -1;
        int64_t expires = INT64_MAX;  // a timed enable ends by itself
        std::string enabledName;
    };
    std::map<int32_t, Open> scenarios;
    auto id = [](int32_t h) { return "scenario " + std::to_string(h); };
    auto endEnabled = [&](int32_t h, Open& s, int64_t at) {
        if (s.enabledAt < 0) return;
        async("e", "power", id(h), s.enabledName, std::min(at, s.expires), "");
        s.enabledAt = -1;
    };
    for (const auto& c : power) {
        if (c.transportFailed) continue;
        const int64_t ts = toMicros(c.when);
        const int32_t h = c.op == Op::RegisterScenario ? c.result : (c.args.empty() ? -1 : c.args[0]);
        if (c.op == Op::RegisterScenario) {
            scenarios[h] = Open();
            async("b", "power", id(h), id(h), ts, "");
            continue;
        }
        auto it = scenarios.find(h);
        if (it == scenarios.end()) continue;  // a handle the service never gave
        Open& s = it->second;
        if (c.op == Op::EnableScenario) {
            endEnabled(h, s, ts);
            const int32_t timeout = c.args.size() > 1 ? c.args[1] : 0;
            const bool timed = timeout > 0 && timeout < SCENARIO_TIMEOUT_MAX;
            s.enabledAt = ts;
            s.expires = timed ? ts + int64_t{timeout} * 1000 : INT64_MAX;
            s.enabledName = timed ? "enabled, " + std::to_string(timeout) + " ms" : "enabled";
            async("b", "power", id(h), s.enabledName, ts, "");
        } else if (c.op == Op::DisableScenario) {
            endEnabled(h, s, ts);
        } else if (c.op == Op::UnregisterScenario) {
            endEnabled(h, s, ts);
            async("e", "power", id(h), id(h), ts, "");
            scenarios.erase(it);
        } else if (c.op == Op::ConfigScenario) {
            // On the calling thread: what each request asked the service for.
            emit("{" + common("i", ts, mPid) + ",\"tid\":" + std::to_string(c.tid) +
                 ",\"s\":\"t\",\"cat\":\"power\",\"name\":" + jsonString(describe(c)) + "}");
        }
    }
    for (auto& [h, s] : scenarios) {
        endEnabled(h, s, endMicros);
        async("e", "power", id(h), id(h), endMicros, "\"left registered\":true");
    }

    // Perf locks: granted handles, to their release or their run-out.
    std::map<int32_t, std::pair<int64_t, std::string>> locks;  // handle: expiry, name
    auto lockId = [](int32_t h) { return "perf lock " + std::to_string(h); };
    for (const auto& c : perf) {
        const int64_t ts = toMicros(c.when);
        if (c.op == qrnhost::perf::Op::Acquire) {
            if (c.result <= 0) continue;  // refused
            std::string list;
            for (int32_t v : c.list) {
                char buf[16];
                snprintf(buf, sizeof buf, "%s0x%08x", list.empty() ? "" : " ", static_cast<unsigned>(v));
                list += buf;
            }
            const int64_t expiry = c.duration > 0 ? ts + int64_t{c.duration} * 1000 : INT64_MAX;
            locks[c.result] = {expiry, lockId(c.result)};
            async("b", "perf", lockId(c.result), lockId(c.result), ts,
                  "\"duration ms\":" + std::to_string(c.duration) + ",\"list\":" + jsonString(list));
        } else {
            auto it = locks.find(c.handle);
            if (it == locks.end()) continue;
            async("e", "perf", it->second.second, it->second.second, std::min(ts, it->second.first), "");
            locks.erase(it);
        }
    }
    for (auto& [h, l] : locks) async("e", "perf", l.second, l.second, std::min(endMicros, l.first), "");
}

std::string readEvents(const std::string& partPath, const std::vector<std::string>& extra) {
    std::ifstream part(partPath);
    std::string out;
    auto add = [&](const std::string& object) {
        if (object.empty()) return;
        out += (out.empty() ? "" : ",\n") + object;
    };
    for (std::string line; std::getline(part, line);) add(line);
    for (const std::string& e : extra) add(e);
    return out;
}

bool writeTraceFile(const std::string& path, const std::string& partPath, const std::vector<std::string>& extra) {
    std::ofstream out(path, std::ios::trunc);
    out << "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n" << readEvents(partPath, extra) << "\n]}\n";
    out.close();
    return static_cast<bool>(out);
}

extern const char* const kReportHtml;

bool writeReport(const std::string& path, const std::string& data) {
    // Inside a script element "</" could end it early; JSON reads "<\/" the same.
    std::string safe;
    for (size_t i = 0; i < data.size(); ++i) {
        safe += data[i];
        if (data[i] == '<' && i + 1 < data.size() && data[i + 1] == '/') safe += '\\';
    }
    std::string page = kReportHtml;
    const size_t at = page.find("@DATA@");
    if (at == std::string::npos) return false;
    page.replace(at, 6, safe);
    std::ofstream out(path, std::ios::trunc);
    out << page;
    out.close();
    return static_cast<bool>(out);
}

}  // namespace session
