#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qrnhost/testing.h>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

namespace qrnhost::testing {

using vendor::quarnel::hardware::power::V2_0::IPower;

namespace {

std::string name(const Service& service) {
    return service.descriptor + "/" + service.instance;
}

std::string ms(std::chrono::milliseconds timeout) {
    return std::to_string(timeout.count()) + " ms";
}

}  // namespace

Service powerService() {
    return Service{IPower::descriptor, "default"};
}

sp<power::SimPowerService> startPowerService(const power::Config& config) {
    return power::startDefaultService(config);
}

bool kill(const Service& service) {
    return hidl::declareServiceDead(service.descriptor, service.instance);
}

bool withdraw(const Service& service) {
    return hidl::withdrawService(service.descriptor, service.instance);
}

bool waitForDeathNotices(const Service& service, std::chrono::milliseconds timeout) {
    if (hidl::waitForDeathNotices(service.descriptor, service.instance, timeout)) return true;
    reportFailure("waitForDeathNotices(" + name(service) + "): its death notices were not all delivered within " +
                  ms(timeout) +
                  (hidl::onRuntimeThread() ? " (called on the runtime thread, which delivers them)"
                                           : " (is a serviceDied() still running?)"));
    return false;
}

bool waitForDumps(std::chrono::milliseconds timeout) {
    if (filecache::waitForFlushes(timeout)) return true;
    std::string files;
    for (const std::string& f : filecache::pendingFlushes()) files += (files.empty() ? "" : ", ") + f;
    reportFailure("waitForDumps(): the flushes of " + (files.empty() ? std::string("some dumps") : files) +
                  " were not over within " + ms(timeout) + " (is the file cache's worker held?)");
    return false;
}

size_t linkedRecipients(const Service& service) {
    sp<hidl::Connection> c = hidl::lookup(service.descriptor, service.instance);
    return c == nullptr ? 0 : c->linkedRecipients();
}

void makeLinkToDeathReturnFalse(const Service& service, Times times) {
    hidl::makeLinkToDeathReturnFalse(service.descriptor, service.instance, times);
}

void makeLinkToDeathFail(const Service& service, const Status& status, Times times) {
    hidl::makeLinkToDeathFail(service.descriptor, service.instance, status, times);
}

void clearLinkToDeathFaults(const Service& service) {
    hidl::clearLinkToDeathFaults(service.descriptor, service.instance);
}

Status transportFailure(const std::string& message) {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, message.c_str());
}

Status deadObject() {
    return Status::fromStatusT(::android::DEAD_OBJECT);
}

// ---------------------------------------------------------------------------
// Kernel nodes

namespace {

// A path the library never opens would stand in for nothing: the test's
// read would go to the real node, or nowhere, and fail far from the cause.
bool libraryNode(const std::string& fixedPath, const char* call) {
    const char* const nodes[] = {node::kMemInfo, node::kApTemperature, node::kThermalMode};
    std::string known;
    for (const char* n : nodes) {
        if (fixedPath == n) return true;
        known += std::string(known.empty() ? "" : ", ") + n;
    }
    reportFailure(std::string("KernelNodes::") + call + "(\"" + fixedPath +
                  "\"): the library never opens that path; the nodes it reads and writes are " + known);
    return false;
}

}  // namespace

KernelNodes::KernelNodes() = default;

KernelNodes::~KernelNodes() {
    for (const std::string& p : mRedirected) kernelfs::clear(p);
}

bool KernelNodes::set(const std::string& fixedPath, const std::string& contents) {
    if (!libraryNode(fixedPath, "set")) return false;
    const std::filesystem::path file = root() + fixedPath;
    std::filesystem::create_directories(file.parent_path());
    writeFile(file.string(), contents);
    kernelfs::redirect(fixedPath, file.string());
    mRedirected.push_back(fixedPath);
    return true;
}

bool KernelNodes::remove(const std::string& fixedPath) {
    if (!libraryNode(fixedPath, "remove")) return false;
    std::error_code ec;
    std::filesystem::remove(root() + fixedPath, ec);
    // Below a directory that is never made, so that a node the code writes
    // cannot be created by opening it either.
    kernelfs::redirect(fixedPath, root() + "/.missing" + fixedPath);
    mRedirected.push_back(fixedPath);
    return true;
}

std::string KernelNodes::contents(const std::string& fixedPath) const {
    return readFile(root() + fixedPath);
}

// ---------------------------------------------------------------------------
// A scenario in a child process

bool ChildEnd::aborted() const {
    return signal == SIGABRT;
}

std::string ChildEnd::describe() const {
    std::string out;
    if (timedOut)
        out = "still running at the deadline (killed)";
    else if (exited)
        out = "exited with status " + std::to_string(exitStatus);
    else if (signal != 0)
        out = "ended by signal " + std::to_string(signal) + " (" + sigdescr_np(signal) + ")";
    else
        out = "could not be started";
    if (output.empty()) return out + ", no output";
    // The end of the output says why a process ended: its last 20 lines.
    size_t start = 0;
    int lines = 0;
    for (size_t i = output.size() - 1; i-- > 0;) {
        if (output[i] == '\n' && ++lines == 20) {
            start = i + 1;
            break;
        }
    }
    return out + (start == 0 ? "; its output:\n" : "; its output ends with:\n") + output.substr(start);
}

namespace {

[[noreturn]] void runChild(const std::function<void()>& scenario, int out) {
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    close(out);
    setFailureReporter(nullptr);  // the parent's test is not here to fail
    try {
        scenario();
    } catch (const std::exception& e) {
        fprintf(stderr, "runInChild: the scenario threw: %s\n", e.what());
        abort();
    } catch (...) {
        fprintf(stderr, "runInChild: the scenario threw\n");
        abort();
    }
    fflush(nullptr);
    _exit(0);  // no exit handlers: they belong to the parent's program
}

}  // namespace

ChildEnd runInChild(const std::function<void()>& scenario, std::chrono::milliseconds timeout) {
    ChildEnd end;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        reportFailure(std::string("runInChild(): no pipe: ") + strerror(errno));  // NOLINT(concurrency-mt-unsafe)
        return end;
    }
    fflush(nullptr);  // nothing buffered here is written twice
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        runChild(scenario, fds[1]);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        reportFailure(std::string("runInChild(): fork failed: ") + strerror(errno));  // NOLINT(concurrency-mt-unsafe)
        return end;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buf[4096];
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fds[0], POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&p, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            ::kill(pid, SIGKILL);
            end.timedOut = true;
            break;
        }
        const ssize_t n = read(fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        end.output.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!end.timedOut && WIFEXITED(status)) {
        end.exited = true;
        end.exitStatus = WEXITSTATUS(status);
    } else if (!end.timedOut && WIFSIGNALED(status)) {
        end.signal = WTERMSIG(status);
    }
    return end;
}

// ---------------------------------------------------------------------------
// What a test leaves behind

namespace {

struct Watch {
    std::mutex lock;
    std::map<std::string, std::string> baseline QRNHOST_GUARDED_BY(lock);
    std::vector<Leftover> foundByReset QRNHOST_GUARDED_BY(lock);
    std::vector<std::pair<Left, std::string>> allowed QRNHOST_GUARDED_BY(lock);
    // The journals that reset() wiped since markClean(), by title.
    std::vector<std::pair<std::string, std::vector<std::string>>> journals QRNHOST_GUARDED_BY(lock);
};

Watch& watch() {
    static auto* w = new Watch;  // tests may end in exit handlers
    return *w;
}

std::map<std::string, std::string> properties() {
    std::map<std::string, std::string> all;
    // An empty value reads as unset.
    property_list(
        [](const char* key, const char* value, void* cookie) {
            if (*value != '\0') (*static_cast<std::map<std::string, std::string>*>(cookie))[key] = value;
        },
        &all);
    return all;
}

// The library's three perf-lock lists, so that a lock left held names the
// call that took it.
std::string perfLockOrigin(const perf::Lock& l) {
    const std::vector<int32_t> cameraPerf = {0x01404300, 0x00000001, 0x01404100, 0x00000001};
    if (l.list == cameraPerf) return " (camera perf mode: enterCameraPerf)";
    if (l.list.size() == 2 && l.list[0] == 0x00414000) return " (CPU boost: enterCPUBoost)";
    if (l.list.size() == 2 && l.list[0] == 0x02004000) return " (No-Tempa: enterNoTempa)";
    return "";
}

// Scenarios, perf locks, death recipients and dumps held now.
std::vector<Leftover> heldNow() {
    std::vector<Leftover> out;
    for (const auto& [instance, sim] : power::registeredSimulators())
        for (const power::Scenario& s : sim->registered())
            out.push_back({Left::Scenario, "power service \"" + instance + "\": " + s.describe()});
    for (const perf::Lock& l : perf::held()) out.push_back({Left::PerfLock, l.describe() + perfLockOrigin(l)});
    for (const sp<hidl::Connection>& c : hidl::registered()) {
        const size_t n = c->linkedRecipients();
        if (n != 0)
            out.push_back(
                {Left::DeathRecipient, std::to_string(n) + " linked to " + c->descriptor() + "/" + c->instance()});
    }
    for (const std::string& f : filecache::openCaches())
        out.push_back({Left::Dump, f + ": its cache is still open (the file is written once its last reference goes)"});
    for (const std::string& f : filecache::pendingFlushes()) out.push_back({Left::Dump, f + ": its flush is not over"});
    return out;
}

}  // namespace

const char* leftName(Left kind) {
    switch (kind) {
        case Left::Scenario: return "scenario";
        case Left::PerfLock: return "perf lock";
        case Left::DeathRecipient: return "death recipient";
        case Left::Dump: return "dump";
        case Left::Property: return "property";
    }
    return "?";
}

void markClean() {
    std::map<std::string, std::string> now = properties();
    Watch& w = watch();
    std::lock_guard<std::mutex> g(w.lock);
    w.baseline = std::move(now);
    w.foundByReset.clear();
    w.allowed.clear();
    w.journals.clear();
}

void leaveOnPurpose(Left kind, const std::string& containing) {
    Watch& w = watch();
    std::lock_guard<std::mutex> g(w.lock);
    w.allowed.emplace_back(kind, containing);
}

std::vector<Leftover> leftovers() {
    std::vector<Leftover> found = heldNow();
    const std::map<std::string, std::string> now = properties();
    std::vector<std::pair<Left, std::string>> allowed;
    {
        Watch& w = watch();
        std::lock_guard<std::mutex> g(w.lock);
        for (const auto& [key, value] : now) {
            const auto before = w.baseline.find(key);
            if (before != w.baseline.end() && before->second == value) continue;
            std::string what = key;
            what += "=" + value;
            what += before == w.baseline.end() ? " (was unset)" : " (was " + before->second + ")";
            found.push_back({Left::Property, what});
        }
        for (const Leftover& l : w.foundByReset) found.push_back({l.kind, l.what + ", until reset() took it away"});
        allowed = w.allowed;
    }
    std::stable_sort(found.begin(), found.end(), [](const Leftover& a, const Leftover& b) { return a.kind < b.kind; });
    auto declared = [&allowed](const Leftover& l) {
        return std::any_of(allowed.begin(), allowed.end(), [&l](const auto& a) {
            return a.first == l.kind && (a.second.empty() || l.what.find(a.second) != std::string::npos);
        });
    };
    found.erase(std::remove_if(found.begin(), found.end(), declared), found.end());
    return found;
}

// ---------------------------------------------------------------------------
// What happened, for a failed test

namespace {

template <typename T, typename F>
void tail(std::string& out, const std::string& title, const std::vector<T>& items, size_t limit, F line) {
    if (items.empty()) return;
    const size_t from = items.size() > limit ? items.size() - limit : 0;
    out += "--- " + title + ": " + (from == 0 ? "all " : "the last " + std::to_string(limit) + " of ") +
           std::to_string(items.size()) + " ---\n";
    for (size_t i = from; i < items.size(); ++i) out += line(items[i]) + "\n";
}

}  // namespace

namespace {

// The journals of the power simulators registered now and of the perf-lock
// library, by title, as text.
std::vector<std::pair<std::string, std::vector<std::string>>> journals() {
    std::vector<std::pair<std::string, std::vector<std::string>>> out;
    auto lines = [](const auto& calls) {
        std::vector<std::string> l;
        l.reserve(calls.size());
        for (const auto& c : calls) l.push_back(c.toString());
        return l;
    };
    for (const auto& [instance, sim] : power::registeredSimulators())
        out.emplace_back("calls on power service \"" + instance + "\"", lines(sim->journal()));
    out.emplace_back("calls on the perf-lock library", lines(perf::journal()));
    return out;
}

}  // namespace

std::string whatHappened(const Capture* capture, size_t limit) {
    std::string out;
    if (capture != nullptr) {
        const size_t dropped = capture->dropped();
        tail(out, "captured" + (dropped == 0 ? std::string() : " (" + std::to_string(dropped) + " older ones let go)"),
             capture->records(), limit, [](const Record& r) { return describe(r); });
    }
    std::vector<std::pair<std::string, std::vector<std::string>>> all;
    {
        Watch& w = watch();
        std::lock_guard<std::mutex> g(w.lock);
        all = w.journals;
    }
    for (auto& j : journals()) all.push_back(std::move(j));
    for (const auto& [title, lines] : all) tail(out, title, lines, limit, [](const std::string& l) { return l; });
    return out;
}

void reset() {
    // The flushes of caches already dropped are on their way, not held.
    waitForDumps(kDefaultWait);
    std::vector<Leftover> held = heldNow();
    std::vector<std::pair<std::string, std::vector<std::string>>> wiped = journals();
    {
        Watch& w = watch();
        std::lock_guard<std::mutex> g(w.lock);
        w.foundByReset.insert(w.foundByReset.end(), held.begin(), held.end());
        for (auto& [title, lines] : wiped)
            if (!lines.empty()) w.journals.emplace_back(title + " before reset()", std::move(lines));
    }
    if (!hidl::unregisterAll(kDefaultWait))
        reportFailure("reset(): the death notices of the services it took away were not all delivered within " +
                      ms(kDefaultWait) + " (is a serviceDied() still running?)");
    perf::reset();
    properties::reset();
    kernelfs::reset();
}

}  // namespace qrnhost::testing
