#include "Record.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <qrncam/utils/ULog.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/filecache.h>
#include <qrnhost/trace.h>
#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

namespace session {

using nlohmann::json;
namespace qs = qrnsession;

namespace {

int gettid() {
    return static_cast<int>(syscall(SYS_gettid));
}

thread_local int tActing = 0;  // the controller this thread is driving

// The one recorder of the process. Never destroyed: exit handlers record.
Recorder* gRecorder = nullptr;
std::mutex* gWriteLock = new std::mutex;
std::atomic<bool> gFailed{false};

// A record's common head: kind, time, process and thread. The time is taken
// under the write lock by the caller, so the file is in time order.
json head(const char* kind) {
    return {{"k", kind}, {"pid", static_cast<int>(getpid())}, {"tid", gettid()}};
}

void androidLogger(const struct __android_logger_data* data, const char* message) {
    json r = head("log");
    r["level"] = std::string(1, qs::priorityLetter(data->priority));
    r["tag"] = data->tag != nullptr ? data->tag : "";
    r["text"] = message != nullptr ? message : "";
    r["uid"] = static_cast<int>(getuid());
    gRecorder->write(r.dump(-1, ' ', false, json::error_handler_t::replace));
}

// The unified logger's lines, as the library hands them over.
struct RecordingULogger : NSCam::Utils::ULog::ULogger {
    void logNormal(uint32_t module, const char* tag, int32_t level, const char* text, int64_t length) override {
        json r = head("ulog");
        r["level"] = std::string(1, level <= 1 ? 'E' : level <= 2 ? 'W' : level <= 4 ? 'I' : 'D');
        r["tag"] = tag != nullptr ? tag : "";
        r["text"] = text != nullptr ? text : "";
        r["module"] = module;
        r["length"] = length;
        gRecorder->write(r.dump(-1, ' ', false, json::error_handler_t::replace));
    }
};

uint64_t pointer(const void* p) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

}  // namespace

Recorder* Recorder::start(const std::string& path, std::string* error) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + path + ": " + strerror(errno);
        return nullptr;
    }
    gRecorder = new Recorder(fd);
    __android_log_set_logger(&androidLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    NSCam::Utils::ULog::ULogger::sULogger = new RecordingULogger;
    qrnhost::trace::setObserver([](const qrnhost::trace::Event& e) {
        json r = head(e.begin ? "section-begin" : "section-end");
        r["tid"] = e.tid;
        if (e.begin) r["name"] = e.name;
        gRecorder->write(r.dump());
    });
    qrnhost::perf::setObserver([](const qrnhost::perf::Call& c) {
        json r = head("perf");
        r["op"] = c.op == qrnhost::perf::Op::Acquire ? "acquire" : "release";
        r["handle"] = c.handle;
        r["duration"] = c.duration;
        r["list"] = c.list;
        r["result"] = c.result;
        r["ctrl"] = tActing;
        gRecorder->write(r.dump());
    });
    qrnhost::filecache::addObserver([](const qrnhost::filecache::Note& n) {
        json r = head("fc");
        r["event"] = qrnhost::filecache::eventName(n.event);
        r["cache"] = pointer(n.cache);
        r["flush"] = pointer(n.flush);
        r["name"] = n.name != nullptr ? n.name : "";
        r["bytes"] = n.bytes;
        r["charged"] = n.charged;
        r["limit"] = n.limit;
        r["ok"] = n.ok;
        gRecorder->write(r.dump(-1, ' ', false, json::error_handler_t::replace));
    });
    return gRecorder;
}

void Recorder::write(const std::string& line) {
    // The time goes in last, under the lock, so the record is in time order.
    std::lock_guard<std::mutex> g(*gWriteLock);
    std::string out = line;
    out.pop_back();  // the closing brace
    out += ",\"ns\":" + std::to_string(qs::wallClockNow()) + "}\n";
    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
        const ssize_t n = ::write(mFd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            gFailed = true;
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void Recorder::observe(const android::sp<qrnhost::power::SimPowerService>& service) {
    service->setObserver([this](const qrnhost::power::Call& c) {
        json r = head("power");
        r["op"] = qrnhost::power::opName(c.op);
        r["args"] = c.args;
        r["result"] = c.result;
        r["failed"] = c.transportFailed;
        r["ctrl"] = tActing;
        write(r.dump());
    });
}

void Recorder::controller(int id, qs::ControllerKind kind, const std::string& what, int users) {
    json r = head("ctrl");
    r["id"] = id;
    r["kind"] = qs::controllerKindName(kind);
    r["what"] = what;
    r["users"] = users;
    write(r.dump());
}

void Recorder::thread(int tid, const std::string& name) {
    json r = head("thread");
    r["tid"] = tid;
    r["name"] = name;
    write(r.dump(-1, ' ', false, json::error_handler_t::replace));
}

void Recorder::dump(const std::string& path, const std::vector<int>& frames) {
    json r = head("dump");
    r["path"] = path;
    r["frames"] = frames;
    write(r.dump(-1, ' ', false, json::error_handler_t::replace));
}

void Recorder::mark(const std::string& what, const std::string& detail) {
    json r = head("mark");
    r["what"] = what;
    r["detail"] = detail;
    write(r.dump());
}

void Recorder::fact(const std::string& text) {
    json r = head("fact");
    r["text"] = text;
    write(r.dump(-1, ' ', false, json::error_handler_t::replace));
}

bool Recorder::end() {
    write(head("done").dump());
    return !gFailed.load();
}

Recorder::Acting::Acting(int controller) : mPrevious(tActing) {
    tActing = controller;
}

Recorder::Acting::~Acting() {
    tActing = mPrevious;
}

// ---- the reader ----

namespace {

qs::PowerOp powerOp(const std::string& name) {
    for (int i = 0; i < 6; ++i)
        if (name == qs::powerOpName(static_cast<qs::PowerOp>(i))) return static_cast<qs::PowerOp>(i);
    throw std::runtime_error("unknown power operation \"" + name + "\"");
}

struct Builder {
    Builder(qs::Session& session, std::vector<std::string>* f) : s(session), facts(f) {}
    qs::Session& s;
    std::vector<std::string>* facts;
    bool complete = false;
    std::map<std::pair<int, int>, std::vector<size_t>> openSections;  // (pid, tid): sections begun
    std::map<uint64_t, size_t> caches;                                // cache pointer: index
    std::map<uint64_t, size_t> flushes;                               // flush pointer: cache index

    qs::Controller& controller(int id, int pid) {
        for (auto& c : s.controllers)
            if (c.id == id && c.pid == pid) return c;
        s.controllers.emplace_back();
        s.controllers.back().id = id;
        s.controllers.back().pid = pid;
        return s.controllers.back();
    }

    size_t cacheFor(uint64_t flush, int pid, const std::string& name) {
        auto it = flushes.find(flush);
        if (it != flushes.end()) return it->second;
        // writeToFile called by itself: a flush without a cache of ours.
        s.caches.emplace_back();
        s.caches.back().pid = pid;
        s.caches.back().path = name;
        return flushes[flush] = s.caches.size() - 1;
    }

    void fileCache(const json& r, int pid, int tid, const qs::Stamp& at) {
        const std::string event = r.at("event");
        const uint64_t cache = r.at("cache"), flush = r.at("flush"), bytes = r.at("bytes");
        const std::string name = r.at("name");
        auto budget = [&] { s.budget.push_back({at.ns, r.at("charged").get<uint64_t>(), qs::Evidence::Seen}); };
        if (event == "open") {
            s.caches.emplace_back();
            s.caches.back().pid = pid;
            s.caches.back().path = name;
            s.caches.back().opened = at;
            caches[cache] = s.caches.size() - 1;
        } else if (event == "write" || event == "refuse") {
            s.budgetLimit = r.at("limit");
            auto it = caches.find(cache);
            if (it == caches.end()) return;
            qs::FileCache& fc = s.caches[it->second];
            if (event == "write") {
                ++fc.blocks;
                fc.bytes += bytes;
                budget();
            } else {
                fc.refused.push_back({at, tid, bytes});
            }
        } else if (event == "drop") {
            auto it = caches.find(cache);
            if (it == caches.end()) return;
            s.caches[it->second].dropped = at;
            if (flush != 0) flushes[flush] = it->second;
            caches.erase(it);
        } else if (event == "queue") {
            qs::Flush& f = s.caches[cacheFor(flush, pid, name)].flush;
            f.queued = at;
            f.bytes = bytes;
        } else if (event == "begin") {
            qs::Flush& f = s.caches[cacheFor(flush, pid, name)].flush;
            f.begin = at;
            f.tid = tid;
            if (s.threadName(pid, tid).empty()) s.nameThread(pid, tid, "FileCache worker");
        } else if (event == "credit") {
            budget();
        } else if (event == "end" || event == "discard") {
            qs::FileCache& fc = s.caches[cacheFor(flush, pid, name)];
            fc.flush.end = at;
            fc.flush.ok = event == "end" && r.at("ok").get<bool>();
            if (event == "discard") fc.flush.problem = "released without being written";
            flushes.erase(flush);
        }
    }

    void add(const json& r) {
        const std::string kind = r.at("k");
        const int pid = r.at("pid"), tid = r.at("tid");
        const int64_t ns = r.at("ns");
        const qs::Stamp at{ns, qs::Evidence::Seen};
        qs::Process& p = s.processFor(pid);
        if (p.start == qs::kNoTime) p.start = ns;
        if (kind == "log" || kind == "ulog") {
            qs::LogLine l;
            l.ns = ns;
            l.pid = pid;
            l.tid = tid;
            l.uid = r.value("uid", -1);
            const std::string level = r.at("level");
            l.level = level.empty() ? '?' : level[0];
            l.tag = r.at("tag");
            l.text = r.at("text");
            l.sink = kind == "log" ? qs::Sink::Android : qs::Sink::ULog;
            l.module = r.value("module", 0u);
            if (l.level == 'E' && l.sink == qs::Sink::Android) qs::parseErrorSuffix(l);
            s.log.push_back(std::move(l));
        } else if (kind == "section-begin") {
            openSections[{pid, tid}].push_back(s.sections.size());
            s.sections.push_back({pid, tid, r.at("name"), ns, qs::kNoTime});
        } else if (kind == "section-end") {
            auto& open = openSections[{pid, tid}];
            if (open.empty()) return;
            s.sections[open.back()].end = ns;
            open.pop_back();
        } else if (kind == "power") {
            qs::PowerCall c;
            c.at = at;
            c.pid = pid;
            c.tid = tid;
            c.controller = r.at("ctrl");
            c.op = powerOp(r.at("op"));
            c.args = r.at("args").get<std::vector<int32_t>>();
            if (c.op == qs::PowerOp::QuerySystemInfo || c.op == qs::PowerOp::RegisterScenario)
                c.result = r.at("result").get<int32_t>();
            c.transportFailed = r.at("failed");
            if (c.transportFailed) c.result.reset();
            s.powerCalls.push_back(std::move(c));
        } else if (kind == "perf") {
            qs::PerfCall c;
            c.at = at;
            c.pid = pid;
            c.tid = tid;
            c.controller = r.at("ctrl");
            c.op = r.at("op") == "acquire" ? qs::PerfOp::Acquire : qs::PerfOp::Release;
            c.handle = r.at("handle");
            c.duration = r.at("duration");
            c.list = r.at("list").get<std::vector<int32_t>>();
            c.result = r.at("result").get<int32_t>();
            s.perfCalls.push_back(std::move(c));
        } else if (kind == "fc") {
            fileCache(r, pid, tid, at);
        } else if (kind == "ctrl") {
            qs::Controller& c = controller(r.at("id"), pid);
            c.kind = r.at("kind") == "CpuCtrl" ? qs::ControllerKind::CpuCtrl : qs::ControllerKind::Cam3CPUCtrl;
            c.events.push_back({at, tid, r.at("what"), r.at("users")});
        } else if (kind == "thread") {
            s.nameThread(pid, r.at("tid"), r.at("name"));
        } else if (kind == "dump") {
            const std::string path = r.at("path");
            // The latest cache of that name: the session dumps each file once.
            for (auto it = s.caches.rbegin(); it != s.caches.rend(); ++it) {
                if (it->pid == pid && it->path == path) {
                    it->frames = r.at("frames").get<std::vector<int>>();
                    break;
                }
            }
        } else if (kind == "mark") {
            s.marks.push_back({ns, pid, r.at("what"), r.at("detail"), static_cast<int64_t>(s.powerCalls.size())});
        } else if (kind == "fact") {
            if (facts != nullptr) facts->push_back(r.at("text"));
        } else if (kind == "done") {
            complete = true;
        }
        if (ns > s.end) s.end = ns;
    }
};

}  // namespace

bool readRecord(const std::string& path, qs::Session& s, std::vector<std::string>* facts, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    Builder b(s, facts);
    std::string line;
    size_t number = 0;
    try {
        while (std::getline(in, line)) {
            ++number;
            if (in.eof()) throw std::runtime_error("the last line is cut short");
            const json r = json::parse(line);
            if (s.start == 0 || r.at("ns").get<int64_t>() < s.start) s.start = r.at("ns");
            b.add(r);
        }
    } catch (const std::exception& e) {
        *error = path + ":" + std::to_string(number) + ": " + e.what();
        return false;
    }
    if (!b.complete) {
        *error = path + " lacks the session's last word (was the disk full, or the process stopped?)";
        return false;
    }
    s.source = "host session";
    return true;
}

}  // namespace session
