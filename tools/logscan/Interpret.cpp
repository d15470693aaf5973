#include "Interpret.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <set>

namespace qrnscan {

namespace qs = qrnsession;
using qs::Evidence;
using qs::Nanos;
using qs::PowerOp;
using qs::Stamp;

const std::vector<std::string>& tags() {
    static const std::vector<std::string> kTags = {
        "QrnCam/CpuCtrl", "Cam3CPUCtrl_util", "file_cache", "ThermalInfo", "chatty", "init", "libc"};
    return kTags;
}

namespace {

constexpr const char* kCpuTag = "QrnCam/CpuCtrl";
constexpr const char* kCamTag = "Cam3CPUCtrl_util";
constexpr const char* kFileTag = "file_cache";
constexpr const char* kThermalTag = "ThermalInfo";
constexpr int32_t kTimeoutMax = qs::kScenarioTimeoutMax;

const std::vector<int32_t> kCameraPerfList = {0x01404300, 0x00000001, 0x01404100, 0x00000001};
const std::vector<int32_t> kBoostList = {0x00414000, 0x00000001};
const std::vector<int32_t> kNoTempaList = {0x02004000, 0x00000000};

enum class Tri : uint8_t { Unknown, No, Yes };

Nanos nanos(const qrnlog::Timestamp& t) {
    return t.sec * 1000000000 + t.nsec;
}

// A controller object as the log lets it be followed. Unknown values are
// -1 (users, enabled) or marked not known (handle, service).
struct Obj {
    int id = 0;
    qs::ControllerKind kind = qs::ControllerKind::CpuCtrl;
    size_t index = 0;  // into Session::controllers
    bool alive = true;
    int users = -1;
    int enabled = -1;
    int32_t handle = -1;
    bool handleKnown = false;
    Tri service = Tri::Unknown;
    // The camera controller's perf locks: the acquire each request holds
    // (an index into Session::perfCalls), -1 for none; -2 held, acquire
    // not in the log.
    int cameraPerf = -1, boost = -1, noTempa = -1;
};

// One operation of a controller on a thread, from its first line to its
// "[%s] -". Its lines only say what happened; which object it was is known
// once the lines have narrowed the candidates to one, so what it did is
// applied when the outermost operation of the thread ends.
struct Frame {
    std::string func;
    Nanos begin = 0;
    std::vector<Obj*> candidates;
    // Conditions the object must have met when the outermost operation began.
    std::vector<std::function<bool(const Obj&)>> tests;
    // What it did, in order, applied to the object (null when not known).
    std::vector<std::function<void(Obj*)>> effects;
    // What its lines said (per operation, nested ones too).
    bool noUser = false, nothingToDisable = false, noService = false, invalidHandle = false;
    std::optional<int32_t> registered;
    std::vector<int32_t> request;  // enable's values as logged
    bool range = false;
    // The handle the operation registered, for its own later calls when its
    // object is not known (shared by the effects of the outermost frame).
    std::shared_ptr<std::optional<int32_t>> opHandle = std::make_shared<std::optional<int32_t>>();
    // enableBoost's "modify CPU frequency" lines: one a cluster.
    std::shared_ptr<int32_t> clusters = std::make_shared<int32_t>(0);
    bool loadedService = false, noServiceLoaded = false;
};

struct CacheFlush {
    size_t cache = SIZE_MAX;  // index into Session::caches, SIZE_MAX when not known
    Nanos begin = 0;
    uint64_t bytes = 0;
    bool ok = true;
};

struct ThreadState {
    std::vector<Frame> cpu, cam;
    Nanos cpuCreate = qs::kNoTime, camCreate = qs::kNoTime;
    // A perf-lock request whose outcome the next line of the thread tells.
    int pendingAcquire = -1;
    std::string pendingRequest;
    Obj* pendingObj = nullptr;
    // The flush this thread (the file cache's worker) is writing.
    std::optional<CacheFlush> flush;
    // An ERROR line whose text continues on the next line.
    std::optional<qs::LogLine> split;
    // The object and name of the operation settled last on this thread.
    Obj* lastSettled = nullptr;
    std::string lastSettledFunc;
};

struct Proc {
    int pid = 0;
    qs::Session s;
    std::vector<std::unique_ptr<Obj>> objs;
    std::map<int, ThreadState> threads;
    std::map<std::string, std::vector<size_t>> openCaches;  // path: caches not yet dropped
    std::deque<size_t> queued;                              // caches dropped, their flush not yet begun
    std::map<std::string, std::set<char>> levels;           // the library's tags seen, with their levels
    bool firstLineSeen = false;
    bool startsWithCreate = false;
    bool ended = false;
    std::set<std::string> ambiguityNoted;
    // Perf-lock acquires granted and not yet released, by request.
    std::map<std::string, std::vector<int>> outstanding;
};

// "[func] rest": the tagged form's leading function name.
bool splitFunction(const std::string& text, std::string* func, std::string* rest) {
    if (text.size() < 3 || text[0] != '[') return false;
    const size_t close = text.find("] ");
    if (close == std::string::npos) {
        // "[createInstance] " may reach us without its blank.
        if (text.back() != ']') return false;
        *func = text.substr(1, text.size() - 2);
        rest->clear();
        return true;
    }
    *func = text.substr(1, close - 1);
    *rest = text.substr(close + 2);
    return func->find(' ') == std::string::npos;
}

// One number read from a text by a literal format.
#define SCAN1(text, format, a) (sscanf((text).c_str(), format, a) == 1)

}  // namespace

struct Interpreter::State {
    std::vector<std::unique_ptr<Proc>> procs;
    std::map<int, Proc*> live;  // pid: its current process session
    std::vector<std::string> gaps;
    Nanos lastTime = 0;

    Proc& proc(int pid, Nanos t) {
        auto it = live.find(pid);
        if (it != live.end() && !it->second->ended) return *it->second;
        auto p = std::make_unique<Proc>();
        p->pid = pid;
        p->s.start = t;
        p->s.end = t;
        p->s.processFor(pid).start = t;
        if (it != live.end())
            p->s.coverage.notes.push_back("pid " + std::to_string(pid) +
                                          " was used again by a new process: this session is that process");
        Proc* raw = p.get();
        procs.push_back(std::move(p));
        live[pid] = raw;
        return *raw;
    }

    // ---- controllers ----

    Obj* newObj(Proc& p, qs::ControllerKind kind, Stamp created, int tid) {
        auto o = std::make_unique<Obj>();
        int id = 1;
        for (const auto& other : p.objs) id = std::max(id, other->id + 1);
        o->id = id;
        o->kind = kind;
        o->users = created.known() ? 0 : -1;
        o->enabled = created.known() ? 0 : -1;
        o->handle = -1;
        o->handleKnown = created.known();
        o->index = p.s.controllers.size();
        qs::Controller c;
        c.id = id;
        c.pid = p.pid;
        c.kind = kind;
        if (created.known()) c.events.push_back({created, tid, "create", 0});
        p.s.controllers.push_back(c);
        p.objs.push_back(std::move(o));
        return p.objs.back().get();
    }

    std::vector<Obj*> aliveOf(Proc& p, qs::ControllerKind kind) {
        std::vector<Obj*> out;
        for (auto& o : p.objs)
            if (o->alive && o->kind == kind) out.push_back(o.get());
        return out;
    }

    // Candidates for an operation: the live objects of the class; one made
    // before the log began stands in when there is none.
    std::vector<Obj*> candidates(Proc& p, qs::ControllerKind kind, int tid, Nanos t) {
        std::vector<Obj*> c = aliveOf(p, kind);
        if (c.empty()) {
            c.push_back(newObj(p, kind, Stamp{qs::kNoTime, Evidence::Unknown}, tid));
            p.s.coverage.notes.push_back(std::string("a ") + qs::controllerKindName(kind) + " object at " +
                                         qs::offset(p.s, t) + " was made before the log began");
        }
        return c;
    }

    void event(Proc& p, Obj* o, Stamp at, int tid, const std::string& what) {
        if (o == nullptr) return;
        p.s.controllers[o->index].events.push_back({at, tid, what, o->users});
    }

    void markAmbiguous(Proc& p, const std::vector<Obj*>& objs, const std::string& what, Nanos t) {
        for (Obj* o : objs) {
            p.s.controllers[o->index].ambiguous = true;
            // One of them changed: none of their states is known any more.
            o->users = -1;
            o->enabled = -1;
            o->handleKnown = false;
            o->service = Tri::Unknown;
        }
        const std::string kind = qs::controllerKindName(objs.front()->kind);
        if (p.ambiguityNoted.insert(kind).second)
            p.s.coverage.notes.push_back(std::to_string(objs.size()) + " " + kind + " objects live at " +
                                         qs::offset(p.s, t) + " (first at " + what +
                                         ") cannot be told apart in the log: their calls are not attributed to "
                                         "either, and their state is unknown from there on");
    }

    PowerOp op(const char* name) {
        for (int i = 0; i < 6; ++i)
            if (strcmp(name, qs::powerOpName(static_cast<PowerOp>(i))) == 0) return static_cast<PowerOp>(i);
        return PowerOp::QuerySystemInfo;
    }

    // A power-service call the object made; args marked unknown where the
    // log does not give them.
    size_t call(Proc& p, Obj* o, int tid, Stamp at, PowerOp what, std::vector<int32_t> args, uint32_t unknown = 0,
                std::optional<int32_t> result = std::nullopt) {
        qs::PowerCall c;
        c.at = at;
        c.pid = p.pid;
        c.tid = tid;
        c.controller = o != nullptr ? o->id : 0;
        c.op = what;
        c.args = std::move(args);
        c.unknownArgs = unknown;
        c.result = result;
        p.s.powerCalls.push_back(std::move(c));
        return p.s.powerCalls.size() - 1;
    }

    // The handle argument of a call on the object's current scenario: its
    // own, or, for an object not known, the one its operation registered.
    std::pair<int32_t, uint32_t> handleOf(const Obj* o, const std::optional<int32_t>& registered) {
        if (o != nullptr && o->handleKnown) return {o->handle, 0};
        if (o == nullptr && registered) return {*registered, 0};
        return {-1, 1};
    }

    // The outermost operation of a thread ended: settle its object, then
    // apply what it did.
    void settle(Proc& p, Frame& f, int tid) {
        std::vector<Obj*> fit;
        for (Obj* o : f.candidates) {
            bool ok = true;
            for (auto& test : f.tests) ok = ok && test(*o);
            if (ok) fit.push_back(o);
        }
        Obj* o = nullptr;
        if (fit.size() == 1) {
            o = fit.front();
        } else if (f.candidates.size() > 1) {
            markAmbiguous(p, fit.empty() ? f.candidates : fit, "[" + f.func + "]", f.begin);
        }
        for (auto& e : f.effects) e(o);
        ThreadState& th = p.threads[tid];
        th.lastSettled = o;
        th.lastSettledFunc = f.func;
    }

    // ---- what both controllers log alike ----

    // Made and destroyed: true when the line was one of these.
    bool lifeLine(Proc& p, ThreadState& th, qs::ControllerKind kind, int tid, const std::string& func,
                  const std::string& rest, Nanos t) {
        const bool cpu = kind == qs::ControllerKind::CpuCtrl;
        const std::string imp = cpu ? "CpuCtrlImp" : "Cam3CPUCtrlImp";
        Nanos& made = cpu ? th.cpuCreate : th.camCreate;
        if (func == "createInstance" && rest.empty()) {
            made = t;
        } else if (func == imp && rest.empty()) {
            newObj(p, kind, Stamp{made != qs::kNoTime ? made : t, Evidence::Seen}, tid);
            made = qs::kNoTime;
        } else if (func == "~" + imp) {
            std::vector<Obj*> c = aliveOf(p, kind);
            // The camera controller's destructor runs one uninit just
            // before, on this thread: that one's object.
            if (!cpu && c.size() > 1 && th.lastSettledFunc == "uninit" && th.lastSettled != nullptr &&
                th.lastSettled->alive && th.lastSettled->kind == kind)
                c = {th.lastSettled};
            if (c.size() == 1) {
                c.front()->alive = false;
                event(p, c.front(), Stamp{t, Evidence::Seen}, tid, "destroy");
            } else if (c.size() > 1) {
                markAmbiguous(p, c, "[" + func + "]", t);
            }
        } else {
            return func == "destroyInstance";
        }
        return true;
    }

    // The operation a line belongs to: a "+" line begins one (null is
    // returned); any other line belongs to the innermost open one of its
    // function (null when its "+" is not in the log).
    Frame* frameOf(Proc& p, std::vector<Frame>& stack, qs::ControllerKind kind, int tid, const std::string& func,
                   const std::string& rest, Nanos t) {
        if (rest == "+") {
            Frame f;
            f.func = func;
            f.begin = t;
            if (stack.empty()) f.candidates = candidates(p, kind, tid, t);
            stack.push_back(std::move(f));
            return nullptr;
        }
        auto it = std::find_if(stack.rbegin(), stack.rend(), [&](const Frame& f) { return f.func == func; });
        return it == stack.rend() ? nullptr : &*it;
    }

    // Ends f and whatever was left open inside it; the outermost operation
    // of the thread ended is settled.
    void close(Proc& p, std::vector<Frame>& stack, Frame& f, int tid) {
        while (!stack.empty()) {
            const bool done = &stack.back() == &f;
            if (stack.size() == 1) {
                Frame outer = std::move(stack.back());
                stack.pop_back();
                settle(p, outer, tid);
                return;
            }
            stack.pop_back();
            if (done) return;
        }
    }

    // init's and uninit's user counts ("First user", or with its count);
    // lastUser makes the calls of the last user's release. True when the
    // line was one of these.
    bool usersLine(Proc& p, Frame& top, int tid, const std::string& func, const std::string& rest, Nanos t,
                   bool initForgetsService,
                   const std::function<void(Obj*, Stamp, const std::optional<int32_t>&)>& lastUser) {
        const Stamp seen{t, Evidence::Seen};
        int n = 0;
        if (func == "init") {
            const bool first = rest == "First user" || SCAN1(rest, "First user(%d)", &n);
            if (!first && !SCAN1(rest, "More user(%d)", &n)) return false;
            const int before = first ? 0 : n;
            top.tests.push_back([before](const Obj& o) { return o.users < 0 || o.users == before; });
            top.effects.push_back([this, &p, before, first, initForgetsService, tid, seen](Obj* o) {
                if (o == nullptr) return;
                o->users = before + 1;
                // CpuCtrl looks the service up at every init, and whether it
                // was found is not logged.
                if (initForgetsService) o->service = Tri::Unknown;
                if (first) o->enabled = 0, o->handle = -1, o->handleKnown = true;
                event(p, o, seen, tid, "init");
            });
            return true;
        }
        if (func != "uninit") return false;
        if (SCAN1(rest, "No user(%d)", &n)) {
            top.tests.push_back([](const Obj& o) { return o.users <= 0; });
            top.effects.push_back([this, &p, tid, seen](Obj* o) { event(p, o, seen, tid, "uninit without a user"); });
            return true;
        }
        if (!SCAN1(rest, "More user(%d)", &n) && !SCAN1(rest, "Last user(%d)", &n)) return false;
        const bool last = n == 0;
        top.tests.push_back([n](const Obj& o) { return o.users < 0 || o.users == n + 1; });
        top.effects.push_back([this, &p, n, last, tid, seen, lastUser, opHandle = top.opHandle](Obj* o) {
            if (o != nullptr) o->users = n;
            event(p, o, seen, tid, "uninit");
            if (!last) return;
            // Only a service known to be there, or possibly there, is told.
            const Tri service = o != nullptr ? o->service : Tri::Unknown;
            if (service == Tri::No) return;
            lastUser(o, Stamp{seen.ns, service == Tri::Yes ? Evidence::Inferred : Evidence::Unknown}, *opHandle);
        });
        return true;
    }

    // ---- the CPU controller ----

    void cpuLine(Proc& p, int tid, char level, const std::string& func, const std::string& rest, Nanos t) {
        ThreadState& th = p.threads[tid];
        const Stamp seen{t, Evidence::Seen};
        const Stamp inferred{t, Evidence::Inferred};
        const auto kind = qs::ControllerKind::CpuCtrl;
        if (lifeLine(p, th, kind, tid, func, rest, t)) return;
        std::vector<Frame>& stack = th.cpu;
        Frame* found = frameOf(p, stack, kind, tid, func, rest, t);
        if (found == nullptr) return;
        Frame& f = *found;
        Frame& top = stack.front();
        int n = 0;
        if (rest == "-") {
            finishCpu(p, stack, f, top, tid, t);
            return;
        }
        // The last user unregisters, then disables, the handle even when
        // it is -1.
        auto lastUser = [this, &p, tid](Obj* o, Stamp at, const std::optional<int32_t>& registered) {
            const auto [h, unknown] = handleOf(o, registered);
            call(p, o, tid, at, PowerOp::UnregisterScenario, {h}, unknown);
            call(p, o, tid, at, PowerOp::DisableScenario, {h}, unknown);
            if (o != nullptr) o->handle = -1, o->handleKnown = at.how == Evidence::Inferred;
        };
        if (usersLine(p, top, tid, func, rest, t, true, lastUser)) {
        } else if (rest == "No user") {
            f.noUser = true;
            top.tests.push_back([](const Obj& o) { return o.users <= 0; });
        } else if (func == "disable" && rest == "Not thing to disable") {
            f.nothingToDisable = true;
        } else if (rest == "mPowerHalService == NULL !!!" || rest == "IPower::getService() == NULL !!!") {
            f.noService = true;
            top.effects.push_back([](Obj* o) {
                if (o != nullptr) o->service = Tri::No;
            });
        } else if (func == "resetTimeout" && rest == "mPowerHalHandle is invalid !!!") {
            f.invalidHandle = true;
        } else if (SCAN1(rest, "mPowerHalHandle:(%d)", &n)) {
            f.registered = n;
            const int32_t h = n;
            top.effects.push_back([this, &p, h, tid, seen, opHandle = top.opHandle](Obj* o) {
                call(p, o, tid, seen, PowerOp::RegisterScenario, {}, 0, h);
                *opHandle = h;
                if (o != nullptr) o->handle = h, o->handleKnown = true, o->service = Tri::Yes;
            });
        } else if (func == "enable") {
            int v[4];
            if (sscanf(rest.c_str(), "big(%d/%d),little(%d/%d),timeout(%d)", &v[0], &v[1], &v[2], &v[3], &n) == 5) {
                f.request = {v[0], v[1], v[2], v[3], n};
            } else if (sscanf(rest.c_str(), "MIN CORE:big/little(%d/%d), MAX CORE:big/little(%d/%d)", &v[0], &v[1],
                              &v[2], &v[3]) == 4) {
                f.range = true;
                f.request = {v[0], v[1], v[2], v[3]};  // bigCoreMin, littleCoreMin, bigCoreMax, littleCoreMax
            } else if (sscanf(rest.c_str(), "MIN FREQ:big/little(%d/%d), MAX FREQ:big/little(%d/%d)", &v[0], &v[1],
                              &v[2], &v[3]) == 4) {
                // The values do not follow the labels: bigFreqMin, bigFreqMax,
                // littleFreqMin, littleFreqMax.
                f.request.insert(f.request.end(), {v[0], v[1], v[2], v[3]});
            } else if (SCAN1(rest, "timeout(%d)", &n)) {
                f.request.push_back(n);
            } else if (rest.rfind("CMD_SET_CPU_", 0) == 0 && f.request.size() == 9) {
                // bigCoreMin littleCoreMin bigCoreMax littleCoreMax bigFreqMin bigFreqMax littleFreqMin littleFreqMax
                const std::vector<int32_t>& r = f.request;
                int32_t cmd = 0, big = 0, little = 0;
                if (rest == "CMD_SET_CPU_CORE_BIG_LITTLE_MIN") cmd = 1, big = r[0], little = r[1];
                if (rest == "CMD_SET_CPU_CORE_BIG_LITTLE_MAX") cmd = 2, big = r[2], little = r[3];
                if (rest == "CMD_SET_CPU_FREQ_BIG_LITTLE_MIN") cmd = 3, big = r[4], little = r[6];
                if (rest == "CMD_SET_CPU_FREQ_BIG_LITTLE_MAX") cmd = 4, big = r[5], little = r[7];
                if (cmd != 0) {
                    top.effects.push_back([this, &p, cmd, big, little, tid, inferred, opHandle = top.opHandle](Obj* o) {
                        const auto [h, unknown] = handleOf(o, *opHandle);
                        call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, cmd, 0, little, 0, 0}, unknown);
                        call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, cmd, 1, big, 0, 0}, unknown);
                    });
                }
            }
        } else if (func == "enableBoost" && SCAN1(rest, "modify CPU frequency: %d", &n)) {
            if (*f.clusters == 0) {
                // The cluster count is known once every cluster's line is in.
                top.effects.push_back([this, &p, count = f.clusters, tid, inferred](Obj* o) {
                    call(p, o, tid, inferred, PowerOp::QuerySystemInfo, {1, 0}, 0, *count);
                });
            }
            const int32_t i = (*f.clusters)++, freq = n;
            top.effects.push_back([this, &p, i, freq, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::QuerySystemInfo, {4, i}, 0, freq);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 3, i, freq, 0, 0}, unknown);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 4, i, freq, 0, 0}, unknown);
            });
        } else if (func == "enablePreferIdle" && rest.rfind("mPowerHalHandle=", 0) == 0) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 65, 1, 0, 0, 0}, unknown);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 79, 100, 0, 0, 0}, unknown);
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, 0}, unknown);
                if (o != nullptr) o->enabled = 1;
            });
        }
        (void)level;
    }

    void finishCpu(Proc& p, std::vector<Frame>& stack, Frame& f, Frame& top, int tid, Nanos t) {
        const Stamp inferred{t, Evidence::Inferred};
        const bool proceeded = !f.noUser && !f.noService && !f.invalidHandle;
        if (f.func != "init" && f.func != "uninit" && !f.noUser)
            top.tests.push_back([](const Obj& o) { return o.users != 0 && o.users > -2; });
        if (f.func == "disable" && !f.noUser && !f.nothingToDisable && !f.noService) {
            // It was enabled: the scenario is withdrawn, the handle kept.
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                if (unknown != 0 || h != -1) call(p, o, tid, inferred, PowerOp::DisableScenario, {h}, unknown);
                if (o != nullptr) o->enabled = 0;
            });
        } else if (f.func == "enable" && proceeded && f.registered) {
            std::vector<int32_t> r = f.request;
            const bool range = f.range;
            top.effects.push_back([this, &p, r, range, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                if (!range && r.size() == 5) {
                    // Each value is both the minimum and the maximum, little
                    // cluster before big: bigCore, bigFreq, littleCore, littleFreq.
                    const int32_t values[4][2] = {{r[2], r[0]}, {r[2], r[0]}, {r[3], r[1]}, {r[3], r[1]}};
                    for (int32_t cmd = 1; cmd <= 4; ++cmd) {
                        call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, cmd, 0, values[cmd - 1][0], 0, 0},
                             unknown);
                        call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, cmd, 1, values[cmd - 1][1], 0, 0},
                             unknown);
                    }
                    call(p, o, tid, inferred, PowerOp::EnableScenario, {h, r[4] > 0 ? r[4] * 1000 : 0}, unknown);
                } else if (range && r.size() == 9) {
                    call(p, o, tid, inferred, PowerOp::EnableScenario, {h, r[8] >= 1 ? r[8] * 1000 : 0}, unknown);
                } else {
                    call(p, o, tid, inferred, PowerOp::EnableScenario, {h, 0}, unknown | 2);
                }
                if (o != nullptr) o->enabled = 1;
            });
        } else if (f.func == "enableBoost" && proceeded) {
            if (*f.clusters == 0) {
                top.effects.push_back([this, &p, tid, inferred](Obj* o) {
                    call(p, o, tid, inferred, PowerOp::QuerySystemInfo, {1, 0}, 0, 0);
                });
            }
            // The boost adds to the current scenario; its timeout is not logged.
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, 0}, unknown | 2);
                if (o != nullptr) o->enabled = 1;
            });
        } else if (f.func == "cpuPerformanceMode" && proceeded && f.registered) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 5, 1, 0, 0, 0}, unknown);
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, kTimeoutMax}, unknown | 2);
                if (o != nullptr) o->enabled = 1;
            });
        } else if (f.func == "resetTimeout" && proceeded) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, kTimeoutMax}, unknown | 2);
            });
        }
        close(p, stack, f, tid);
    }

    // ---- the camera controller ----

    void camLine(Proc& p, int tid, char level, const std::string& func, const std::string& rest, Nanos t) {
        ThreadState& th = p.threads[tid];
        const Stamp seen{t, Evidence::Seen};
        const Stamp inferred{t, Evidence::Inferred};
        const auto kind = qs::ControllerKind::Cam3CPUCtrl;
        resolvePendingAcquire(p, th, func, rest, level);
        if (lifeLine(p, th, kind, tid, func, rest, t)) return;
        if (func == "loadPerfAPI") {
            if (level == 'W')
                p.s.coverage.notes.push_back("the perf-lock library could not be loaded at " + qs::offset(p.s, t) +
                                             ": perf-lock requests of objects made then fail without a line");
            return;
        }
        if (func == "serviceDied") {
            // Each linked object hears it; the service is gone for all.
            bool first = true;
            for (const qs::Mark& m : p.s.marks)
                if (m.what == "service died" && t - m.ns < 100000000) first = false;
            if (first)
                p.s.marks.push_back({t, p.pid, "service died", "the vendor power service died",
                                     static_cast<int64_t>(p.s.powerCalls.size())});
            for (Obj* o : aliveOf(p, kind)) {
                if (o->service != Tri::Yes) continue;
                o->service = Tri::No;
                o->handle = -1;
                o->handleKnown = true;
                event(p, o, seen, tid, "service died");
            }
            return;
        }
        if (func == "enterCameraPerf" || func == "exitCameraPerf" || func == "enterCPUBoost" ||
            func == "exitCPUBoost" || func == "enterNoTempa" || func == "exitNoTempa") {
            perfLine(p, th, tid, func, rest, t);
            return;
        }
        if (func == "enablePreferIdle" && rest == "CPU prefer idle is disabled") return;
        std::vector<Frame>& stack = th.cam;
        Frame* found = frameOf(p, stack, kind, tid, func, rest, t);
        if (found == nullptr) return;
        Frame& f = *found;
        Frame& top = stack.front();
        int n = 0;
        if (rest == "-") {
            finishCam(p, stack, f, top, tid, t);
            return;
        }
        // The last user disables, then unregisters, a real handle only; then
        // the death notification is unlinked, and the service stays bound.
        auto lastUser = [this, &p, tid](Obj* o, Stamp at, const std::optional<int32_t>& registered) {
            const auto [h, unknown] = handleOf(o, registered);
            if (unknown != 0 || h != -1) {
                call(p, o, tid, at, PowerOp::DisableScenario, {h}, unknown);
                call(p, o, tid, at, PowerOp::UnregisterScenario, {h}, unknown);
            }
            event(p, o, at, tid, "unlinked");
            if (o != nullptr) o->handle = -1, o->handleKnown = at.how == Evidence::Inferred;
        };
        if (usersLine(p, top, tid, func, rest, t, false, lastUser)) {
        } else if (func == "__initPowerHAL") {
            if (rest == "Loaded power HAL service +") {
                f.loadedService = true;
            } else if (rest == "Couldn't load power HAL service") {
                f.noServiceLoaded = true;
                top.effects.push_back([this, &p, tid, seen](Obj* o) {
                    if (o != nullptr) o->service = Tri::No;
                    event(p, o, seen, tid, "no service");
                });
            } else if (rest.rfind("Transaction error in linking", 0) == 0 ||
                       rest == "Unable to link to PowerHAL death notifications") {
                top.effects.push_back(
                    [this, &p, tid, seen](Obj* o) { event(p, o, seen, tid, "bound, its death not linked"); });
            }
        } else if (rest == "No user") {
            f.noUser = true;
            top.tests.push_back([](const Obj& o) { return o.users <= 0; });
        } else if (func == "disable" && rest == "Not thing to disable") {
            f.nothingToDisable = true;
        } else if (rest == "mPowerHalService == NULL !!!") {
            f.noService = true;
        } else if (SCAN1(rest, "mPowerHalHandle:(%d)", &n)) {
            f.registered = n;
            const int32_t h = n;
            top.effects.push_back([this, &p, h, tid, seen, opHandle = top.opHandle](Obj* o) {
                call(p, o, tid, seen, PowerOp::RegisterScenario, {}, 0, h);
                *opHandle = h;
                if (o != nullptr) o->handle = h, o->handleKnown = true;
            });
        } else if (func == "enablePreferIdle" && rest.rfind("mPowerHalHandle=", 0) == 0) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 73, 1, 0, 0, 0}, unknown);
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, 0}, unknown);
                if (o != nullptr) o->enabled = 1;
            });
        }
    }

    void finishCam(Proc& p, std::vector<Frame>& stack, Frame& f, Frame& top, int tid, Nanos t) {
        const Stamp inferred{t, Evidence::Inferred};
        const Stamp seen{t, Evidence::Seen};
        if (f.func == "__initPowerHAL" && f.loadedService && !f.noServiceLoaded) {
            top.effects.push_back([this, &p, tid, seen](Obj* o) {
                if (o != nullptr) o->service = Tri::Yes;
                event(p, o, seen, tid, "bound");
            });
        }
        if ((f.func == "enablePreferIdle" || f.func == "cpuPerformanceMode" || f.func == "disable") && !f.noUser)
            top.tests.push_back([](const Obj& o) { return o.users != 0; });
        if (f.func == "disable" && !f.noUser && !f.nothingToDisable) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                if (unknown != 0 || h != -1) {
                    call(p, o, tid, inferred, PowerOp::DisableScenario, {h}, unknown);
                    call(p, o, tid, inferred, PowerOp::UnregisterScenario, {h}, unknown);
                }
                if (o != nullptr) o->handle = -1, o->handleKnown = true, o->enabled = 0;
            });
        } else if (f.func == "cpuPerformanceMode" && !f.noUser && !f.noService) {
            top.effects.push_back([this, &p, tid, inferred, opHandle = top.opHandle](Obj* o) {
                const auto [h, unknown] = handleOf(o, *opHandle);
                call(p, o, tid, inferred, PowerOp::ConfigScenario, {h, 5, 1, 0, 0, 0}, unknown);
                // The timeout is the caller's (or the longest), and not logged.
                call(p, o, tid, inferred, PowerOp::EnableScenario, {h, kTimeoutMax}, unknown | 2);
                if (o != nullptr) o->enabled = 1;
            });
        }
        close(p, stack, f, tid);
    }

    // The camera controller's perf locks: enter and exit pairs without a
    // lock or scope lines. The object is the one holding (or not holding)
    // the request, where the live objects allow telling.
    Obj* perfObject(Proc& p, const std::string& what, int Obj::*held, bool holding, Nanos t) {
        std::vector<Obj*> c = aliveOf(p, qs::ControllerKind::Cam3CPUCtrl);
        if (c.empty()) return candidates(p, qs::ControllerKind::Cam3CPUCtrl, 0, t).front();
        std::vector<Obj*> fit;
        for (Obj* o : c)
            if ((o->*held != -1) == holding) fit.push_back(o);
        if (fit.size() == 1) return fit.front();
        if (c.size() == 1) return c.front();
        markAmbiguous(p, c, "[" + what + "]", t);
        return nullptr;
    }

    void acquire(Proc& p, ThreadState& th, Obj* o, int tid, Nanos t, const std::vector<int32_t>& list, int32_t duration,
                 bool durationKnown, const std::string& request) {
        qs::PerfCall c;
        c.at = {t, Evidence::Inferred};
        c.pid = p.pid;
        c.tid = tid;
        c.controller = o != nullptr ? o->id : 0;
        c.op = qs::PerfOp::Acquire;
        c.handle = 0;
        c.duration = duration;
        c.durationKnown = durationKnown;
        c.list = list;
        p.s.perfCalls.push_back(c);
        th.pendingAcquire = static_cast<int>(p.s.perfCalls.size() - 1);
        th.pendingRequest = request;
        th.pendingObj = o;
    }

    // The line after a perf-lock request tells whether it was granted: a
    // WARN line of refusal, or anything else (the WARN would come at once).
    void resolvePendingAcquire(Proc& p, ThreadState& th, const std::string& func, const std::string& rest, char level) {
        if (th.pendingAcquire < 0) return;
        if (func == th.pendingRequest && rest == "enter camera perf mode") return;  // granted, said below
        qs::PerfCall& c = p.s.perfCalls[static_cast<size_t>(th.pendingAcquire)];
        int handle = 0;
        const bool refused =
            level == 'W' && func == th.pendingRequest && SCAN1(rest.substr(rest.find(':') + 1), "%d", &handle);
        c.granted = !refused;
        if (refused) c.result = handle;
        if (!refused) p.outstanding[qs::perfRequestName(c.list)].push_back(th.pendingAcquire);
        if (!refused && th.pendingObj != nullptr) {
            Obj* o = th.pendingObj;
            (th.pendingRequest == "enterCameraPerf" ? o->cameraPerf
             : th.pendingRequest == "enterCPUBoost" ? o->boost
                                                    : o->noTempa) = th.pendingAcquire;
        }
        th.pendingAcquire = -1;
        th.pendingObj = nullptr;
    }

    void release(Proc& p, Obj* o, int Obj::*held, const std::string& request, int tid, Nanos t) {
        qs::PerfCall c;
        c.at = {t, Evidence::Inferred};
        c.pid = p.pid;
        c.tid = tid;
        c.controller = o != nullptr ? o->id : 0;
        c.op = qs::PerfOp::Release;
        c.releases = o != nullptr ? o->*held : -1;
        auto& outstanding = p.outstanding[request];
        // An object not known still releases the request's lock when only
        // one is held in the process.
        if (c.releases < 0 && o == nullptr && outstanding.size() == 1) c.releases = outstanding.front();
        if (c.releases >= 0) {
            c.handle = p.s.perfCalls[static_cast<size_t>(c.releases)].result.value_or(0);
            outstanding.erase(std::remove(outstanding.begin(), outstanding.end(), c.releases), outstanding.end());
            for (auto& other : p.objs)
                if (other.get()->*held == c.releases) other.get()->*held = -1;
        }
        p.s.perfCalls.push_back(c);
        if (o != nullptr) o->*held = -1;
    }

    void perfLine(Proc& p, ThreadState& th, int tid, const std::string& func, const std::string& rest, Nanos t) {
        if (func == "enterCameraPerf" && rest == "enable camera idle prefer") {
            Obj* o = perfObject(p, func, &Obj::cameraPerf, false, t);
            const int32_t handle = 0;  // the object's own, 0 unless a lock is still held
            acquire(p, th, o, tid, t, kCameraPerfList, 0, true, func);
            p.s.perfCalls.back().handle = handle;
        } else if (func == "enterCameraPerf" && rest == "enter camera perf mode") {
            if (th.pendingAcquire >= 0 && th.pendingRequest == func) {
                p.s.perfCalls[static_cast<size_t>(th.pendingAcquire)].granted = true;
                p.outstanding["camera perf"].push_back(th.pendingAcquire);
                if (th.pendingObj != nullptr) th.pendingObj->cameraPerf = th.pendingAcquire;
                th.pendingAcquire = -1;
                th.pendingObj = nullptr;
            }
        } else if (func == "exitCameraPerf" && rest == "exit camera perf mode") {
            release(p, perfObject(p, func, &Obj::cameraPerf, true, t), &Obj::cameraPerf, "camera perf", tid, t);
        } else if (func == "enterCPUBoost" && rest == "enter CPU boost") {
            // The duration is the caller's argument, and not logged.
            acquire(p, th, perfObject(p, func, &Obj::boost, false, t), tid, t, kBoostList, 0, false, func);
        } else if (func == "exitCPUBoost" && rest == "exit cpu boost") {
            release(p, perfObject(p, func, &Obj::boost, true, t), &Obj::boost, "CPU boost", tid, t);
        } else if (func == "enterNoTempa" && rest == "enter CPU No TEMPA") {
            acquire(p, th, perfObject(p, func, &Obj::noTempa, false, t), tid, t, kNoTempaList, 0, true, func);
        } else if (func == "exitNoTempa" && rest == "exit cpu NO TEMPA") {
            release(p, perfObject(p, func, &Obj::noTempa, true, t), &Obj::noTempa, "No-Tempa", tid, t);
        }
    }

    // ---- the file cache ----

    // "<path> text": the path of a file cache line.
    static bool splitPath(const std::string& text, std::string* path, std::string* rest) {
        if (text.empty() || text[0] != '<') return false;
        const size_t close = text.find("> ");
        if (close == std::string::npos) return false;
        *path = text.substr(1, close - 1);
        *rest = text.substr(close + 2);
        return true;
    }

    size_t cacheNamed(Proc& p, const std::string& path, Nanos t, bool create) {
        auto& open = p.openCaches[path];
        if (open.size() == 1) return open.front();
        if (open.size() > 1) {
            if (p.ambiguityNoted.insert("cache " + path).second)
                p.s.coverage.notes.push_back(std::to_string(open.size()) + " file caches for <" + path + "> open at " +
                                             qs::offset(p.s, t) +
                                             " cannot be told apart: their blocks are counted with the last one");
            return open.back();
        }
        if (!create) return SIZE_MAX;
        // A cache opened before the log began, or while its log was off:
        // whether and when it was dropped and written is not known either.
        qs::FileCache fc;
        fc.pid = p.pid;
        fc.path = path;
        fc.opened = Stamp{qs::kNoTime, Evidence::Unknown};
        fc.dropped = Stamp{qs::kNoTime, Evidence::Unknown};
        fc.flush.end = Stamp{qs::kNoTime, Evidence::Unknown};
        p.s.caches.push_back(fc);
        open.push_back(p.s.caches.size() - 1);
        return open.back();
    }

    void fileLine(Proc& p, int tid, char level, const std::string& text, Nanos t) {
        ThreadState& th = p.threads[tid];
        const Stamp seen{t, Evidence::Seen};
        std::string path, rest;
        int n = 0, i = 0, count = 0;
        unsigned used = 0, limit = 0;
        if (text.rfind("Initialize FileCache <", 0) == 0 && text.back() == '>') {
            path = text.substr(22, text.size() - 23);
            qs::FileCache fc;
            fc.pid = p.pid;
            fc.path = path;
            fc.opened = seen;
            p.s.caches.push_back(fc);
            p.openCaches[path].push_back(p.s.caches.size() - 1);
            return;
        }
        if (!splitPath(text, &path, &rest)) return;
        if (SCAN1(rest, "Write %d bytes to memory", &n)) {
            qs::FileCache& fc = p.s.caches[cacheNamed(p, path, t, true)];
            ++fc.blocks;
            fc.bytes += static_cast<uint64_t>(n);
        } else if (sscanf(rest.c_str(), "Storage size exceed %uMB/%uMB", &used, &limit) == 2) {
            qs::FileCache& fc = p.s.caches[cacheNamed(p, path, t, true)];
            fc.refused.push_back({seen, tid, 0});  // the block's size is not logged
            // The limit to the MB: the budget's own value is given in whole
            // MB only, so it is not drawn from these lines.
            if (p.s.budgetLimit < 0) p.s.budgetLimit = int64_t{limit} << 20;
        } else if (rest == "Dealloc of FileCache") {
            const size_t c = cacheNamed(p, path, t, true);
            qs::FileCache& fc = p.s.caches[c];
            fc.dropped = seen;
            auto& open = p.openCaches[path];
            open.erase(std::find(open.begin(), open.end(), c));
            if (fc.flush.end && fc.flush.end->known()) {
                fc.flush.queued = seen;  // written already: its flush came first
            } else {
                fc.flush.end.reset();  // to be seen in its flush's lines
                p.queued.push_back(c);
            }
        } else if (sscanf(rest.c_str(), "write %d bytes to file (%d/%d)", &n, &i, &count) == 3) {
            // The text before shows the block's bytes, not the file's name:
            // the flush is the next one queued, as the worker runs them in
            // the order the caches were dropped.
            if (i == 0 || !th.flush) startFlush(p, th, tid, t);
            th.flush->bytes += static_cast<uint64_t>(n);
        } else if (sscanf(rest.c_str(), "free %d bytes (%d/%d)", &n, &i, &count) == 3) {
            if (!th.flush) startFlush(p, th, tid, t);
        } else if (rest.rfind("write done, (remain = ", 0) == 0 && SCAN1(rest, "write done, (remain = %d KB)", &n)) {
            if (!th.flush) startFlush(p, th, tid, t);
            // The budget as the flush left it, to the KB: the one value of
            // it the log states (charges and credits of other threads come
            // in any order around these lines).
            p.s.budget.push_back({t, static_cast<uint64_t>(n) << 10, Evidence::Seen});
            endFlush(p, th, path, t);
        } else if (level == 'E' && (rest.rfind("write error!!!", 0) == 0)) {
            if (th.flush) th.flush->ok = false;
        }
    }

    // The worker writes each flush from its first "write ... to file" line
    // to "write done"; which cache it was is known only from that last
    // line's name (the others show the blocks' bytes).
    void startFlush(Proc& p, ThreadState& th, int tid, Nanos t) {
        CacheFlush f;
        f.begin = t;
        th.flush = f;
        p.s.nameThread(p.pid, tid, "FileCache worker");
    }

    void endFlush(Proc& p, ThreadState& th, const std::string& path, Nanos t) {
        CacheFlush f = *th.flush;
        th.flush.reset();
        // The first cache of that name dropped and not yet written: the
        // worker takes them in the order they were dropped. Its "Dealloc"
        // line may come after the flush itself (it is logged once the job is
        // queued), so a cache of that name still open is the one.
        auto it = std::find_if(p.queued.begin(), p.queued.end(), [&](size_t c) { return p.s.caches[c].path == path; });
        if (it != p.queued.end()) {
            f.cache = *it;
            p.queued.erase(it);
        } else if (!p.openCaches[path].empty()) {
            f.cache = p.openCaches[path].front();
        } else {
            qs::FileCache fc;  // opened before the log began, or while its log was off
            fc.pid = p.pid;
            fc.path = path;
            fc.opened = Stamp{qs::kNoTime, Evidence::Unknown};
            fc.dropped = Stamp{qs::kNoTime, Evidence::Unknown};
            p.s.caches.push_back(fc);
            f.cache = p.s.caches.size() - 1;
        }
        qs::Flush& flush = p.s.caches[f.cache].flush;
        flush.begin = Stamp{f.begin, Evidence::Seen};
        flush.end = Stamp{t, Evidence::Seen};
        flush.bytes = f.bytes;
        flush.ok = f.ok;
        if (p.s.caches[f.cache].dropped) flush.queued = p.s.caches[f.cache].dropped;
    }

    // ---- everything else ----

    void initLine(const qrnlog::Entry& e, Nanos t) {
        // "Service 'NAME' (pid N) exited with status S" / "killed by signal S"
        const std::string text(e.message);
        const size_t at = text.find("(pid ");
        if (text.rfind("Service '", 0) != 0 || at == std::string::npos) return;
        const int pid = atoi(text.c_str() + at + 5);
        auto it = live.find(pid);
        if (it == live.end()) return;
        Proc& p = *it->second;
        const size_t tail = text.find(") ", at);
        qs::Process& proc = p.s.processFor(pid);
        // A fatal signal's line may have ended it already; init says how.
        if (!p.ended) proc.end = t;
        proc.ending = tail == std::string::npos ? "ended" : text.substr(tail + 2);
        proc.name = text.substr(9, text.find('\'', 9) - 9);
        p.ended = true;
        p.s.end = std::max(p.s.end, t);
    }

    void chattyLine(const qrnlog::Entry& e, Nanos t) {
        auto it = live.find(e.pid);
        if (it == live.end()) return;
        Proc& p = *it->second;
        const std::string text(e.message);
        if (text.find(" identical ") != std::string::npos || text.find(" expire ") != std::string::npos)
            p.s.coverage.gaps.push_back("logd at " + qs::offset(p.s, t) + ": " + text);
    }

    void libcLine(const qrnlog::Entry& e, Nanos t) {
        auto it = live.find(e.pid);
        if (it == live.end() || it->second->ended) return;
        const std::string text(e.message);
        if (text.rfind("Fatal signal ", 0) != 0) return;
        Proc& p = *it->second;
        qs::Process& proc = p.s.processFor(e.pid);
        proc.end = t;
        proc.ending = text.substr(0, text.find(','));
        p.ended = true;
        p.s.end = std::max(p.s.end, t);
    }

    void entry(const qrnlog::Item& item) {
        const qrnlog::Entry& e = item.entry;
        const Nanos t = nanos(e.time);
        lastTime = std::max(lastTime, t);
        const std::string tag(e.tag);
        if (tag == "init") return initLine(e, t);
        if (tag == "chatty") return chattyLine(e, t);
        if (tag == "libc") return libcLine(e, t);
        if (tag != kCpuTag && tag != kCamTag && tag != kFileTag && tag != kThermalTag) return;
        Proc& p = proc(e.pid, t);
        ThreadState& th = p.threads[e.tid];
        const char level = qs::priorityLetter(e.priority);
        qs::LogLine line;
        line.ns = t;
        line.pid = e.pid;
        line.tid = e.tid;
        line.uid = e.uid;
        line.level = level;
        line.tag = tag;
        line.text = std::string(e.message);
        // A message holding a newline comes as several lines: an ERROR line
        // whose suffix is on the next one is one message.
        if (th.split) {
            qs::LogLine first = std::move(*th.split);
            th.split.reset();
            if (e.continuation && first.tag == tag && first.level == level) {
                first.text += "\n" + line.text;
                return accept(p, first);
            }
            accept(p, first);
        }
        if (level == 'E' && (tag == kFileTag || tag == kThermalTag || tag == kCamTag || tag == kCpuTag)) {
            qs::LogLine probe = line;
            if (!qs::parseErrorSuffix(probe) && tag == kFileTag && line.text.find("JobQueue") == std::string::npos &&
                line.text != "lock mutex exception") {
                th.split = line;
                return;
            }
        }
        accept(p, line);
    }

    void accept(Proc& p, qs::LogLine line) {
        const Nanos t = line.ns;
        if (!p.firstLineSeen) {
            p.firstLineSeen = true;
            p.startsWithCreate = line.text == "[createInstance] ";
        }
        p.levels[line.tag].insert(line.level);
        if (line.level == 'E') qs::parseErrorSuffix(line);
        p.s.end = std::max(p.s.end, t);
        std::string text = line.text;
        // Trailing newlines are part of some formats, not of what they say.
        while (!text.empty() && text.back() == '\n') text.pop_back();
        const int tid = line.tid;
        const char level = line.level;
        const std::string tag = line.tag;
        p.s.log.push_back(std::move(line));
        std::string func, rest;
        if (tag == kFileTag) return fileLine(p, tid, level, text, t);
        if (!splitFunction(text, &func, &rest)) return;
        if (tag == kCpuTag) return cpuLine(p, tid, level, func, rest, t);
        if (tag == kCamTag) return camLine(p, tid, level, func, rest, t);
    }

    void coverage(Proc& p, const std::vector<qrnlog::InputInfo>& inputs) {
        qs::Coverage& c = p.s.coverage;
        for (const auto& in : inputs) {
            std::string what = in.name + " (" + (in.error.empty() ? qrnlog::describe(in.layout) : in.error) + ")";
            c.inputs.push_back(what);
        }
        for (const auto& [tag, levels] : p.levels) c.tagLevels[tag] = std::string(levels.begin(), levels.end());
        c.gaps.insert(c.gaps.end(), gaps.begin(), gaps.end());
        auto has = [&](const char* tag, char level) {
            auto it = p.levels.find(tag);
            return it != p.levels.end() && it->second.count(level) != 0;
        };
        for (const auto& [tag, bit] :
             {std::pair<const char*, const char*>{kCpuTag, "0x40000000"}, {kCamTag, "0x00100000"}}) {
            if (!p.levels.count(tag) || has(tag, 'D')) continue;
            c.notes.push_back(std::string("no DEBUG lines of ") + tag +
                              ": its objects, users, scenarios and perf locks cannot be followed (they need the "
                              "unified logger's details level at 5 or more and its mask with " +
                              bit + " and one of 0x7000)");
        }
        if (p.levels.count(kFileTag) && !has(kFileTag, 'I') && !has(kFileTag, 'D'))
            c.notes.push_back(
                "no INFO or DEBUG lines of file_cache: caches opened, blocks written and flushes cannot be seen, only "
                "refusals and errors (setprop vendor.debug.file_cache.log 1 makes them visible)");
        if (!p.startsWithCreate && p.levels.count(kCpuTag) + p.levels.count(kCamTag) != 0)
            c.notes.push_back(
                "the process's log does not begin with the creation of a controller: what was made or "
                "held before its first line cannot be seen");
        if (!p.ended)
            c.notes.push_back(
                "the log does not say how the process ended; what it held is shown as at its "
                "last line");
    }
};

Interpreter::Interpreter() : mState(std::make_unique<State>()) {}
Interpreter::~Interpreter() = default;

void Interpreter::add(const qrnlog::Item& item) {
    State& st = *mState;
    switch (item.kind) {
        case qrnlog::ItemKind::Entry: st.entry(item); break;
        case qrnlog::ItemKind::Gap:
            st.gaps.push_back("between rotated files: nothing is known of what was logged between " +
                              std::to_string(item.before.sec) + " and " + std::to_string(item.time.sec) + " (seconds)");
            break;
        case qrnlog::ItemKind::Truncated:
            st.gaps.push_back("an input ends inside a line: its last line may be cut");
            break;
        case qrnlog::ItemKind::Unreadable:
            st.gaps.push_back(std::to_string(item.count) + " unreadable lines, the first: " + std::string(item.text));
            break;
        case qrnlog::ItemKind::TimeBackwards:
            st.gaps.push_back("time steps back in an input: the lines after are placed by their own times");
            break;
        default: break;
    }
}

std::vector<qs::Session> Interpreter::finish(const std::vector<qrnlog::InputInfo>& inputs) {
    State& st = *mState;
    std::vector<qs::Session> out;
    for (auto& pp : st.procs) {
        Proc& p = *pp;
        // Lines still held back, and perf-lock requests whose outcome no
        // later line told: the WARN of a refusal comes at once, so none came.
        for (auto& [tid, th] : p.threads) {
            if (th.split) st.accept(p, *th.split), th.split.reset();
            if (th.pendingAcquire >= 0) st.resolvePendingAcquire(p, th, "", "", 'D');
            // Operations the log left open: what their lines said still counts.
            while (!th.cpu.empty()) {
                Frame outer = std::move(th.cpu.front());
                th.cpu.clear();
                st.settle(p, outer, tid);
            }
            while (!th.cam.empty()) {
                Frame outer = std::move(th.cam.front());
                th.cam.clear();
                st.settle(p, outer, tid);
            }
        }
        // Calls in time order (operations of several threads end in any
        // order); a release keeps pointing at its acquire.
        std::stable_sort(p.s.powerCalls.begin(), p.s.powerCalls.end(),
                         [](const qs::PowerCall& a, const qs::PowerCall& b) { return a.at.ns < b.at.ns; });
        std::vector<size_t> order(p.s.perfCalls.size());
        for (size_t i = 0; i < order.size(); ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return p.s.perfCalls[a].at.ns < p.s.perfCalls[b].at.ns; });
        std::vector<size_t> where(order.size());
        std::vector<qs::PerfCall> sorted;
        for (size_t i = 0; i < order.size(); ++i) where[order[i]] = i, sorted.push_back(p.s.perfCalls[order[i]]);
        for (auto& c : sorted)
            if (c.releases >= 0) c.releases = static_cast<int>(where[static_cast<size_t>(c.releases)]);
        p.s.perfCalls = std::move(sorted);
        for (auto& c : p.s.controllers)
            std::stable_sort(
                c.events.begin(), c.events.end(),
                [](const qs::ControllerEvent& a, const qs::ControllerEvent& b) { return a.at.ns < b.at.ns; });
        qs::Process& proc = p.s.processFor(p.pid);
        if (proc.name.empty()) proc.name = "process " + std::to_string(p.pid);
        p.s.clock = "realtime";
        for (const auto& in : inputs)
            if (in.layout.time == qrnlog::TimeStyle::Monotonic) p.s.clock = "monotonic";
        std::string names;
        for (const auto& in : inputs) names += (names.empty() ? "" : ", ") + in.name;
        p.s.source = "device log: " + names;
        st.coverage(p, inputs);
        qs::derive(p.s);
        out.push_back(std::move(p.s));
    }
    return out;
}

}  // namespace qrnscan
