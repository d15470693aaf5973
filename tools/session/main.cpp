// qrncam_session: a camera session on the host, end to end, against the
// simulated platform (vendor power service, perf-lock client library, kernel
// nodes under a temporary root). It prints the log in logcat style, a
// timeline of every power-service and perf-lock call and a closing report:
// what was left held (and whether on purpose), what was dumped, the peak of
// the dump budget, the flush rate, and every dump file verified byte for
// byte after the session's process has exited with dumps still pending.
//
// The session runs in a child process (this program started again with
// --child): the file cache's queue drains at process exit, and only a
// parent can look at the files after that exit.
#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <inttypes.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <Cam3CPUCtrl.h>
#include <CpuCtrl.h>
#include <IFileCache.h>
#include <MemoryInfo.h>
#include <ThermalInfo.h>
#include <qrncam/utils/ULog.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/kernelfs.h>
#include <qrnhost/properties.h>
#include <qrnhost/trace.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "FileCacheInternal.h"  // gCachedBytes, for the budget's peak
#include "TraceEvents.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using ULogger = NSCam::Utils::ULog::ULogger;

namespace {

struct Options {
    std::string outDir;
    bool keep = false;
    std::vector<std::string> props;
    uint32_t mode = 1;
    uint32_t level = 5;
    uint32_t mask = 0x40107000;
    int frames = 60;
    uint64_t frameSize = 12ull << 20;
    int framesPerFile = 10;
    int fps = 60;  // per capture thread
    int64_t budget = 200ll << 20;
    std::string traceFile;
    std::string reportFile;
    bool quietLog = false;
    bool child = false;
};

const char* kUsage =
    "usage: qrncam_session [options]\n"
    "Runs a camera session on the host against the simulated vendor power service,\n"
    "perf-lock library and kernel nodes, then reports what it did.\n"
    "\n"
    "  --out DIR           work in DIR (kept) instead of a fresh temporary directory\n"
    "  --keep              keep the temporary directory and the dump files\n"
    "  --prop KEY=VALUE    set a system property before the session (repeatable), e.g.\n"
    "                      --prop vendor.cam3dev.cpupreferidle=1\n"
    "  --mode N            unified logger sMode: bit 0 Android log, bits 1-3 unified logger (default 1)\n"
    "  --level N           sDetailsLevel: 5 shows DEBUG, 2 WARN, 1 only ERROR (default 5)\n"
    "  --mask N            sNormalDetailsMask (default 0x40107000: both controllers' DEBUG lines)\n"
    "  --frames N          frames in the capture burst, split over two threads (default 60)\n"
    "  --frame-size SIZE   bytes per frame, K/M/G suffixes allowed (default 12M)\n"
    "  --frames-per-file N frames dumped into one file (default 10)\n"
    "  --fps N             frames per second of each capture thread, 0 for no pacing (default 60)\n"
    "  --budget SIZE       file cache budget (vendor.debug.file_cache.storage_size, default 200M)\n"
    "  --trace FILE        write the session's trace to FILE (trace-event JSON: open it in\n"
    "                      ui.perfetto.dev or chrome://tracing; FILE is replaced)\n"
    "  --report FILE.html  write a page that shows the session: its timeline, the dump\n"
    "                      budget over time, the flushes and the files (self-contained)\n"
    "  --quiet-log         do not print log lines\n"
    "  --help              this text\n";

bool parseSize(const char* s, uint64_t* out) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s, &end, 0);
    if (end == s || errno) return false;
    uint64_t mul = 1;
    if (*end == 'K' || *end == 'k')
        mul = 1ull << 10, ++end;
    else if (*end == 'M' || *end == 'm')
        mul = 1ull << 20, ++end;
    else if (*end == 'G' || *end == 'g')
        mul = 1ull << 30, ++end;
    if (*end) return false;
    if (v > UINT64_MAX / mul) return false;
    *out = v * mul;
    return true;
}

bool parseU32(const char* s, uint32_t* out) {
    char* end = nullptr;
    errno = 0;
    unsigned long v = strtoul(s, &end, 0);
    if (end == s || *end || errno || v > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

// Returns 0 to go on, or the exit status.
int parseOptions(int argc, char** argv, Options* o) {
    enum {
        kOut = 1,
        kKeep,
        kProp,
        kMode,
        kLevel,
        kMask,
        kFrames,
        kFrameSize,
        kPerFile,
        kFps,
        kBudget,
        kTrace,
        kReport,
        kQuiet,
        kHelp,
        kChild
    };
    static const struct option longOpts[] = {{"out", required_argument, nullptr, kOut},
                                             {"keep", no_argument, nullptr, kKeep},
                                             {"prop", required_argument, nullptr, kProp},
                                             {"mode", required_argument, nullptr, kMode},
                                             {"level", required_argument, nullptr, kLevel},
                                             {"mask", required_argument, nullptr, kMask},
                                             {"frames", required_argument, nullptr, kFrames},
                                             {"frame-size", required_argument, nullptr, kFrameSize},
                                             {"frames-per-file", required_argument, nullptr, kPerFile},
                                             {"fps", required_argument, nullptr, kFps},
                                             {"budget", required_argument, nullptr, kBudget},
                                             {"trace", required_argument, nullptr, kTrace},
                                             {"report", required_argument, nullptr, kReport},
                                             {"quiet-log", no_argument, nullptr, kQuiet},
                                             {"help", no_argument, nullptr, kHelp},
                                             {"child", no_argument, nullptr, kChild},
                                             {nullptr, 0, nullptr, 0}};
    opterr = 0;
    int c;
    auto bad = [&](const char* what, const char* value) {
        fprintf(stderr, "qrncam_session: invalid %s: '%s'\n(see --help)\n", what, value ? value : "");
        return 2;
    };
    while ((c = getopt_long(argc, argv, "", longOpts, nullptr)) != -1) {
        uint64_t size = 0;
        uint32_t u = 0;
        switch (c) {
            case kOut:
                o->outDir = optarg;
                o->keep = true;
                break;
            case kKeep: o->keep = true; break;
            case kProp:
                // Tried on this process's own store: what it refuses, the
                // session's would refuse too.
                if (!qrnhost::properties::setFromAssignment(optarg))
                    return bad("--prop (want KEY=VALUE, a key that is not blank, a value of at most 91 characters)",
                               optarg);
                o->props.emplace_back(optarg);
                break;
            case kMode:
                if (!parseU32(optarg, &o->mode)) return bad("--mode", optarg);
                break;
            case kLevel:
                if (!parseU32(optarg, &o->level)) return bad("--level", optarg);
                break;
            case kMask:
                if (!parseU32(optarg, &o->mask)) return bad("--mask", optarg);
                break;
            case kFrames:
                if (!parseU32(optarg, &u) || u < 1 || u > 100000) return bad("--frames (1 to 100000)", optarg);
                o->frames = static_cast<int>(u);
                break;
            case kFrameSize:
                if (!parseSize(optarg, &size) || size < 8 || size > (1ull << 31) - 1)
                    return bad("--frame-size (8 bytes to 2G-1)", optarg);
                o->frameSize = size;
                break;
            case kPerFile:
                if (!parseU32(optarg, &u) || u < 1) return bad("--frames-per-file", optarg);
                o->framesPerFile = static_cast<int>(u);
                break;
            case kFps:
                if (!parseU32(optarg, &u) || u > 1000) return bad("--fps (0 to 1000)", optarg);
                o->fps = static_cast<int>(u);
                break;
            case kBudget:
                if (!parseSize(optarg, &size) || size > static_cast<uint64_t>(INT64_MAX))
                    return bad("--budget", optarg);
                o->budget = static_cast<int64_t>(size);
                break;
            case kTrace: o->traceFile = optarg; break;
            case kReport: o->reportFile = optarg; break;
            case kQuiet: o->quietLog = true; break;
            case kHelp: fputs(kUsage, stdout); return -1;
            case kChild: o->child = true; break;
            default:
                fprintf(stderr, "qrncam_session: unknown or incomplete option '%s'\n(see --help)\n", argv[optind - 1]);
                return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "qrncam_session: unexpected argument '%s'\n(see --help)\n", argv[optind]);
        return 2;
    }
    return 0;
}

// ---- output in logcat style ----

std::mutex gOutLock;
bool gQuietLog = false;
session::TraceEvents gTrace;  // open only with --trace

int tid() {
    return static_cast<int>(syscall(SYS_gettid));
}

std::string stamp() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%02d-%02d %02d:%02d:%02d.%03d", tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
             tm.tm_sec, static_cast<int>(ts.tv_nsec / 1000000));
    return buf;
}

char priorityLetter(int p) {
    switch (p) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        default: return '?';
    }
}

void printLine(char letter, const char* tag, const std::string& text) {
    if (gQuietLog) return;
    std::string t = text;
    while (!t.empty() && t.back() == '\n') t.pop_back();
    std::lock_guard<std::mutex> g(gOutLock);
    printf("%s %5d %5d %c %s: %s\n", stamp().c_str(), static_cast<int>(getpid()), tid(), letter, tag, t.c_str());
}

void androidLogger(const struct __android_logger_data* data, const char* message) {
    printLine(priorityLetter(data->priority), data->tag ? data->tag : "", message ? message : "");
    gTrace.log(priorityLetter(data->priority), data->tag ? data->tag : "", message ? message : "", tid());
}

// The unified logger's lines, in the same style, marked as such.
struct SessionULogger : ULogger {
    void logNormal(uint32_t module, const char* tag, int32_t level, const char* text, int64_t length) override {
        char letter = level <= 1 ? 'E' : level <= 2 ? 'W' : 'D';
        std::string t(text ? text : "");
        if (length > static_cast<int64_t>(t.size())) t += " [cut at 1023 of " + std::to_string(length) + "]";
        char mod[16];
        snprintf(mod, sizeof mod, "%08" PRIx32, module);
        const std::string fullTag = std::string("ulog/") + (tag ? tag : "") + "[" + mod + "]";
        printLine(letter, fullTag.c_str(), t);
        gTrace.log(letter, fullTag, t, tid());
    }
};

void section(const char* title) {
    std::lock_guard<std::mutex> g(gOutLock);
    printf("\n== %s ==\n", title);
    fflush(stdout);
}

// ---- the capture burst ----

// Deterministic frame content, so the parent can check every byte.
void fillFrame(std::vector<uint64_t>& buf, uint64_t frame) {
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = (frame << 40) ^ (i * 0x9E3779B97F4A7C15ull) ^ 0xC0FFEE;
}

struct DumpFile {
    std::string path;
    std::vector<int> frames;  // frames accepted by write, in order
    int refused = 0;          // frames refused (budget)
    double dropped = 0;       // CLOCK_REALTIME seconds when its last reference went
};

struct BurstResult {
    std::vector<DumpFile> files;
    uint64_t bytesAccepted = 0;
    int framesRefused = 0;
    uint64_t peakCached = 0;
};

double realtimeNow() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

BurstResult captureBurst(const Options& o, const std::string& dumpDir) {
    BurstResult res;
    std::atomic<bool> done{false};
    std::atomic<uint64_t> peak{0};
    // Samples the budget in use while the burst runs: the peak printed is
    // the highest value seen.
    std::thread monitor([&] {
        gTrace.threadName(tid(), "budget monitor");
        uint64_t last = UINT64_MAX;
        while (!done.load()) {
            uint64_t v = gCachedBytes;
            if (v != last) gTrace.counter("dump budget charged", static_cast<double>(v)), last = v;
            if (v > peak.load()) peak.store(v);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    std::mutex resLock;
    auto worker = [&](int thread) {
        gTrace.threadName(tid(), "capture " + std::to_string(thread));
        // A camera delivers frames at its frame rate, not as fast as memory
        // can be copied; the flush worker gets the gaps.
        auto period = o.fps > 0 ? std::chrono::microseconds(1000000 / o.fps) : std::chrono::microseconds(0);
        auto next = Clock::now();
        std::vector<uint64_t> frame(o.frameSize / 8 + 1);
        int mine = o.frames / 2 + (thread == 0 ? o.frames % 2 : 0);
        int base = thread == 0 ? 0 : o.frames / 2 + o.frames % 2;
        for (int start = 0; start < mine; start += o.framesPerFile) {
            DumpFile f;
            char name[64];
            snprintf(name, sizeof name, "/t%d_frames%04d.raw", thread, base + start);
            f.path = dumpDir + name;
            android::sp<NSCam::IFileCache> cache = NSCam::IFileCache::open(f.path.c_str());
            for (int k = start; k < std::min(mine, start + o.framesPerFile); ++k) {
                int index = base + k;
                std::this_thread::sleep_until(next);
                next += period;
                fillFrame(frame, static_cast<uint64_t>(index));
                int n = cache->write(frame.data(), static_cast<unsigned int>(o.frameSize));
                if (n == static_cast<int>(o.frameSize))
                    f.frames.push_back(index);
                else
                    ++f.refused;
            }
            f.dropped = realtimeNow();
            cache.clear();  // the flush job takes over from here
            std::lock_guard<std::mutex> g(resLock);
            res.bytesAccepted += f.frames.size() * o.frameSize;
            res.framesRefused += f.refused;
            res.files.push_back(std::move(f));
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    done = true;
    monitor.join();
    res.peakCached = std::max<uint64_t>(peak.load(), gCachedBytes);
    std::sort(res.files.begin(), res.files.end(),
              [](const DumpFile& x, const DumpFile& y) { return x.dropped < y.dropped; });
    return res;
}

// ---- the timeline ----

struct Event {
    Clock::time_point when;
    std::string what;
};

std::vector<Event> timeline(const android::sp<qrnhost::power::SimPowerService>& sim) {
    std::vector<Event> ev;
    for (const auto& c : sim->journal()) ev.push_back({c.when, "power  " + session::describe(c)});
    for (const auto& c : qrnhost::perf::journal()) ev.push_back({c.when, "perf   " + c.toString()});
    std::stable_sort(ev.begin(), ev.end(), [](const Event& a, const Event& b) { return a.when < b.when; });
    return ev;
}

void writeKernelNodes(const std::string& root) {
    fs::create_directories(root + "/proc/qrntz");
    fs::create_directories(root + "/proc/driver");
    std::ofstream(root + "/proc/meminfo") << "MemTotal:        7812500 kB\n"
                                             "MemFree:          812340 kB\n"
                                             "MemAvailable:    3311200 kB\n"
                                             "Buffers:           60412 kB\n"
                                             "Cached:          2210304 kB\n"
                                             "SwapCached:         1024 kB\n";
    std::ofstream(root + "/proc/qrntz/qrntsAP") << "45210\n";
    std::ofstream(root + "/proc/driver/cl_apu_status") << "";
}

// ---- the session (child process) ----

int runSession(const Options& o, const std::string& dir) {
    gQuietLog = o.quietLog;
    __android_log_set_logger(&androidLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    static SessionULogger ulogger;
    ULogger::sULogger = &ulogger;
    ULogger::sMode = o.mode;
    ULogger::sDetailsLevel = o.level;
    ULogger::sNormalDetailsMask = o.mask;

    property_set("vendor.debug.file_cache.storage_size", std::to_string(o.budget).c_str());
    for (const auto& p : o.props) {
        if (!qrnhost::properties::setFromAssignment(p)) {
            fprintf(stderr, "qrncam_session: property refused: '%s'\n", p.c_str());
            return 2;
        }
    }
    if (!o.traceFile.empty() || !o.reportFile.empty()) {
        // The camera tag on, as debug.atrace.tags.enableflags=0x400 does on a
        // device; the sections go to the kernel's trace marker when there is
        // one, and to the trace file.
        property_set(qrnhost::trace::kTagsProperty, "0x400");
        if (!gTrace.open(dir + "/trace.part")) {
            fprintf(stderr, "qrncam_session: cannot write %s/trace.part\n", dir.c_str());
            return 2;
        }
        qrnhost::trace::setObserver([](const qrnhost::trace::Event& e) { gTrace.section(e.begin, e.name, e.tid); });
        gTrace.threadName(tid(), "session");
    }
    qrnhost::trace::resetSetup();

    const std::string root = dir + "/kernel";
    writeKernelNodes(root);
    setenv(qrnhost::kernelfs::kRootEnv, root.c_str(), 1);
    const std::string dumpDir = dir + "/dumps";
    fs::create_directories(dumpDir);

    android::sp<qrnhost::power::SimPowerService> sim = qrnhost::power::startDefaultService();
    if (sim == nullptr) {
        fprintf(stderr, "qrncam_session: cannot register the simulated power service\n");
        return 1;
    }

    // The dump worker's thread, asked while the queue is idle, so that the
    // parent can put the flushes that end after this process on it.
    int workerTid = 0;
    gFileCacheQueue.addJob([&workerTid] { workerTid = tid(); }, 0).second.wait();
    gTrace.threadName(workerTid, "FileCache worker");

    section("camera controller session (Cam3CPUCtrl)");
    Utils::Cam3CPUCtrl* cam = Utils::Cam3CPUCtrl::createInstance();
    cam->init();
    bool camPerf = cam->enterCameraPerf();
    bool perfMode = cam->cpuPerformanceMode(3000);
    bool boost = cam->enterCPUBoost(2000);
    bool noTempa = cam->enterNoTempa();
    bool preferIdle = cam->enablePreferIdle();  // off unless vendor.cam3dev.cpupreferidle is set
    cam->exitNoTempa();
    cam->exitCPUBoost();
    cam->exitCameraPerf();
    cam->uninit();
    cam->destroyInstance();

    section("CPU controller session (CpuCtrl)");
    std::vector<int32_t> cpuHandles;
    auto lastRegistered = [&] {
        auto calls = sim->calls(qrnhost::power::Op::RegisterScenario);
        return calls.empty() ? -1 : calls.back().result;
    };
    size_t registersBefore = sim->calls(qrnhost::power::Op::RegisterScenario).size();
    CpuCtrl* cpu = CpuCtrl::createInstance();
    cpu->init();
    CpuCtrl::CPU_CTRL_INFO fixed = {4, 2000000, 4, 1500000, 2};
    bool cpuFixed = cpu->enable(fixed);
    CpuCtrl::CPU_CTRL_RANGE_INFO range = {2, 2, 4, 4, 1200000, 800000, -1, 1800000, 0};
    bool cpuRange = cpu->enable(range);
    bool cpuBoost = cpu->enableBoost(1);
    bool cpuIdle = cpu->enablePreferIdle();
    bool cpuReset = cpu->resetTimeout(5);
    int32_t lastCpuHandle = lastRegistered();
    cpu->uninit();
    cpu->destroyInstance();
    auto regs = sim->calls(qrnhost::power::Op::RegisterScenario);
    for (size_t i = registersBefore; i < regs.size(); ++i) cpuHandles.push_back(regs[i].result);

    section("memory and thermal");
    int64_t freeBytes = NSCam::NSMemoryInfo::getFreeMemorySize();
    int64_t totalBytes = NSCam::NSMemoryInfo::getSystemTotalMemorySize();
    bool lowRam = NSCam::NSMemoryInfo::isLowRamDevice(8.0f);
    int thermal = NSCam::NSThermalInfo::getSystemThermalValue();
    int modeResult = NSCam::NSThermalInfo::setThermalMode(1);
    std::string modeNode;
    std::getline(std::ifstream(root + "/proc/driver/cl_apu_status"), modeNode);
    printf("free memory      %" PRId64 " bytes\n", freeBytes);
    printf("total memory     %" PRId64 " bytes (low-RAM below 8 GiB: %s)\n", totalBytes, lowRam ? "yes" : "no");
    printf("AP temperature   %d (node value, unscaled)\n", thermal);
    printf("thermal mode 1   result %d, node now holds \"%s\"\n", modeResult, modeNode.c_str());

    section("timeline of power-service and perf-lock calls");
    Clock::time_point t0 = Clock::now();
    std::vector<Event> ev = timeline(sim);
    if (!ev.empty()) t0 = ev.front().when;
    for (const auto& e : ev)
        printf("%+10.3f ms  %s\n", std::chrono::duration<double, std::milli>(e.when - t0).count(), e.what.c_str());

    section("left held");
    int unintended = 0;
    std::vector<qrnhost::power::Scenario> left = sim->registered();
    if (left.empty()) printf("power service: no scenario registered\n");
    for (const auto& s : left) {
        bool cpuOwned = std::find(cpuHandles.begin(), cpuHandles.end(), s.handle) != cpuHandles.end();
        bool onPurpose = cpuOwned && s.handle != lastCpuHandle;
        if (!onPurpose) ++unintended;
        printf("power service: %s\n    %s\n", s.describe().c_str(),
               onPurpose ? "on purpose: CpuCtrl keeps each earlier scenario registered; only the last one is "
                           "unregistered when its last user leaves"
                         : "UNINTENDED");
    }
    std::vector<qrnhost::perf::Lock> locks = qrnhost::perf::held();
    if (locks.empty()) printf("perf-lock library: no lock held\n");
    for (const auto& l : locks) {
        ++unintended;
        printf("perf-lock library: %s\n    UNINTENDED\n", l.describe().c_str());
    }

    section("results");
    printf(
        "Cam3CPUCtrl: enterCameraPerf %d, cpuPerformanceMode %d, enterCPUBoost %d, enterNoTempa %d, "
        "enablePreferIdle %d\n",
        camPerf, perfMode, boost, noTempa, preferIdle);
    printf("CpuCtrl: enable(fixed) %d, enable(range) %d, enableBoost %d, enablePreferIdle %d, resetTimeout %d\n",
           cpuFixed, cpuRange, cpuBoost, cpuIdle, cpuReset);

    // The capture burst comes last: the process exits as soon as the last
    // cache is dropped, with its flush (and maybe others) still queued.
    section("capture burst (FileCache)");
    Clock::time_point burstStart = Clock::now();
    BurstResult burst = captureBurst(o, dumpDir);
    double burstSeconds = std::chrono::duration<double>(Clock::now() - burstStart).count();
    int pending = 0;
    for (const auto& f : burst.files) {
        struct stat st;
        uint64_t want = f.frames.size() * o.frameSize;
        if (stat(f.path.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_size) != want) ++pending;
    }
    printf("%zu dump files, %d not yet complete as the session exits\n", burst.files.size(), pending);

    if (gTrace.isOpen()) {
        gTrace.powerAndPerf(sim->journal(), qrnhost::perf::journal(), session::nowMicros());
        // Threads not named above (the platform's own) keep their system name.
        for (const auto& e : fs::directory_iterator("/proc/self/task")) {
            std::string comm;
            std::getline(std::ifstream(e.path() / "comm"), comm);
            const int t = atoi(e.path().filename().c_str());
            if (t != tid() && t != workerTid) gTrace.threadName(t, comm);
        }
        qrnhost::trace::setObserver(nullptr);
        if (!gTrace.close()) {
            fprintf(stderr, "qrncam_session: cannot write %s/trace.part\n", dir.c_str());
            exit(3);
        }
    }

    // What the parent needs for its report; the dumps are still being
    // written when this process exits.
    std::ofstream sum(dir + "/session.txt");
    sum << "pid " << getpid() << "\n"
        << "worker_tid " << workerTid << "\n"
        << "frame_size " << o.frameSize << "\n"
        << "bytes_accepted " << burst.bytesAccepted << "\n"
        << "frames_refused " << burst.framesRefused << "\n"
        << "peak_cached " << burst.peakCached << "\n"
        << "budget " << o.budget << "\n"
        << "burst_seconds " << burstSeconds << "\n"
        << "pending_at_exit " << pending << "\n"
        << "exit_time " << std::fixed << realtimeNow() << "\n"
        << "charged_at_exit " << gCachedBytes.load() << "\n"
        << "unintended " << unintended << "\n"
        << "scenarios_left " << left.size() << "\n"
        << "locks_left " << locks.size() << "\n";
    for (const auto& f : burst.files) {
        sum << "file " << f.path << " " << std::fixed << f.dropped << " " << f.refused;
        for (int fr : f.frames) sum << " " << fr;
        sum << "\n";
    }
    sum << "end\n";  // a summary cut short by a full disk lacks this line
    sum.close();
    fflush(stdout);
    if (!sum) {
        fprintf(stderr, "qrncam_session: cannot write %s/session.txt (is the directory full?)\n", dir.c_str());
        qrnhost::hidl::unregisterAll();
        exit(3);
    }
    qrnhost::hidl::unregisterAll();
    exit(0);  // pending flush jobs run in the queue's exit handler
}

// ---- the parent: verify and report ----

struct Summary {
    bool complete = false;  // the closing "end" line was read
    std::map<std::string, std::string> kv;
    struct File {
        std::string path;
        double dropped = 0;
        int refused = 0;
        std::vector<int> frames;
    };
    std::vector<File> files;
};

Summary readSummary(const std::string& path) {
    Summary s;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string key;
        ls >> key;
        if (key == "end") {
            s.complete = true;
        } else if (key == "file") {
            Summary::File f;
            ls >> f.path >> f.dropped >> f.refused;
            int fr;
            while (ls >> fr) f.frames.push_back(fr);
            s.files.push_back(std::move(f));
        } else {
            std::string v;
            ls >> v;
            s.kv[key] = v;
        }
    }
    return s;
}

double fileMtime(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

// Compares the file with the frames it should hold; "" when equal.
std::string verifyFile(const Summary::File& f, uint64_t frameSize) {
    FILE* in = fopen(f.path.c_str(), "rb");
    if (!in) return "missing";
    std::vector<uint64_t> want(frameSize / 8 + 1);
    std::vector<char> got(frameSize);
    std::string problem;
    for (int fr : f.frames) {
        fillFrame(want, static_cast<uint64_t>(fr));
        if (fread(got.data(), 1, frameSize, in) != frameSize) {
            problem = "short at frame " + std::to_string(fr);
            break;
        }
        if (memcmp(got.data(), want.data(), frameSize) != 0) {
            problem = "content differs in frame " + std::to_string(fr);
            break;
        }
    }
    if (problem.empty() && fgetc(in) != EOF) problem = "longer than its frames";
    fclose(in);
    return problem;
}

std::string human(double bytes) {
    char buf[32];
    if (bytes >= (1 << 30))
        snprintf(buf, sizeof buf, "%.2f GiB", bytes / (1 << 30));
    else
        snprintf(buf, sizeof buf, "%.1f MiB", bytes / (1 << 20));
    return buf;
}

int report(const std::string& dir, const Options& o, int childStatus) {
    section("closing report");
    if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0) {
        printf("the session process failed (status 0x%x)\n", childStatus);
        return 1;
    }
    Summary s = readSummary(dir + "/session.txt");
    // Every number the report uses, checked before any is used: a summary
    // cut short (a full disk) or edited by hand is a clear failure.
    std::map<std::string, double> n;
    for (const char* key : {"pid", "worker_tid", "frame_size", "unintended", "peak_cached", "budget"}) {
        const std::string& text = s.kv[key];
        char* end = nullptr;
        const double v = text.empty() ? 0 : strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || v < 0) s.complete = false;
        n[key] = v;
    }
    if (!s.complete) {
        printf("the session's summary %s/session.txt is missing or incomplete (is the directory full?)\n", dir.c_str());
        return 1;
    }
    const auto frameSize = static_cast<uint64_t>(n["frame_size"]);
    int verified = 0, bad = 0;
    uint64_t bytesOnDisk = 0;
    // The queue flushes one file at a time in drop order: a flush starts
    // when its cache was dropped or when the one before it ended, whichever
    // is later, and ends at its file's last modification.
    double busy = 0, previousEnd = 0;
    std::vector<std::string> flushes;   // trace events, on the dump worker's thread
    std::vector<std::string> fileRows;  // the report's table
    for (const auto& f : s.files) {
        std::string problem = verifyFile(f, frameSize);
        if (problem.empty()) {
            ++verified;
            bytesOnDisk += f.frames.size() * frameSize;
        } else {
            ++bad;
        }
        double end = fileMtime(f.path);
        double start = std::max(f.dropped, previousEnd);
        if (end > start) busy += end - start;
        previousEnd = std::max(previousEnd, end);
        fileRows.push_back("{\"path\":" + session::jsonString(f.path) +
                           ",\"frames\":" + std::to_string(f.frames.size()) +
                           ",\"bytes\":" + std::to_string(f.frames.size() * frameSize) + ",\"verified\":" +
                           (problem.empty() ? "true" : "false") + ",\"problem\":" + session::jsonString(problem) + "}");
        flushes.push_back("{\"ph\":\"X\",\"cat\":\"dump\",\"name\":" +
                          session::jsonString("flush " + fs::path(f.path).filename().string()) +
                          ",\"ts\":" + std::to_string(static_cast<int64_t>(start * 1e6)) +
                          ",\"dur\":" + std::to_string(static_cast<int64_t>(std::max(0.0, end - start) * 1e6)) +
                          ",\"pid\":" + s.kv["pid"] + ",\"tid\":" + s.kv["worker_tid"] + ",\"args\":{\"file\":" +
                          session::jsonString(f.path) + ",\"bytes\":" + std::to_string(f.frames.size() * frameSize) +
                          ",\"verified\":" + (problem.empty() ? "true" : "false") + "}}");
        printf("  %-32s %2zu frames%s  %s\n", fs::path(f.path).filename().c_str(), f.frames.size(),
               f.refused ? (" (" + std::to_string(f.refused) + " refused: budget)").c_str() : "",
               problem.empty() ? "verified" : ("FAILED: " + problem).c_str());
    }
    const int unintended = static_cast<int>(n["unintended"]);
    printf("\nscenarios left registered: %s (unintended: %d)\n", s.kv["scenarios_left"].c_str(), unintended);
    printf("perf locks left held:      %s\n", s.kv["locks_left"].c_str());
    printf("bytes dumped:              %s in %zu files (%s frames refused by the budget)\n",
           human(static_cast<double>(bytesOnDisk)).c_str(), s.files.size(), s.kv["frames_refused"].c_str());
    printf("peak of the cache budget:  %s of %s\n", human(n["peak_cached"]).c_str(), human(n["budget"]).c_str());
    if (busy > 0)
        printf("flush throughput:          %s/s (%.0f ms of flushing)\n",
               human(static_cast<double>(bytesOnDisk) / busy).c_str(), busy * 1000);
    printf(
        "files verified:            %d of %zu, byte for byte, after the session exited with %s of them "
        "still pending\n",
        verified, s.files.size(), s.kv["pending_at_exit"].c_str());
    // The budget after the session's process: each flush that ended later
    // gave its bytes back.
    {
        std::vector<std::pair<double, uint64_t>> later;
        const double exitTime = atof(s.kv["exit_time"].c_str());
        for (const auto& f : s.files) {
            const double end = fileMtime(f.path);
            if (end > exitTime) later.emplace_back(end, f.frames.size() * frameSize);
        }
        std::sort(later.begin(), later.end());
        uint64_t charged = strtoull(s.kv["charged_at_exit"].c_str(), nullptr, 10);
        for (const auto& [end, bytes] : later) {
            charged -= std::min(charged, bytes);
            flushes.push_back("{\"ph\":\"C\",\"name\":\"dump budget charged\",\"ts\":" +
                              std::to_string(static_cast<int64_t>(end * 1e6)) + ",\"pid\":" + s.kv["pid"] +
                              ",\"args\":{\"bytes\":" + std::to_string(charged) + "}}");
        }
    }
    if (!o.traceFile.empty()) {
        if (!session::writeTraceFile(o.traceFile, dir + "/trace.part", flushes)) {
            printf("cannot write the trace file %s\n", o.traceFile.c_str());
            return 1;
        }
        printf("trace:                     %s (open it in ui.perfetto.dev or chrome://tracing)\n", o.traceFile.c_str());
    }
    if (!o.reportFile.empty()) {
        std::string files;
        for (const std::string& f : fileRows) files += (files.empty() ? "" : ",") + f;
        const std::string data = "{\"budget\":" + s.kv["budget"] + ",\"files\":[" + files + "],\"events\":[" +
                                 session::readEvents(dir + "/trace.part", flushes) + "]}";
        if (!session::writeReport(o.reportFile, data)) {
            printf("cannot write the report %s\n", o.reportFile.c_str());
            return 1;
        }
        printf("report:                    %s (open it in a browser)\n", o.reportFile.c_str());
    }
    return bad == 0 && unintended == 0 ? 0 : 1;
}

// The child's pid while it runs, for the parent's signal handler.
volatile sig_atomic_t gChild = 0;
volatile sig_atomic_t gSignal = 0;

// Ctrl-C or a kill of the parent ends the session: the child is told too
// (a terminal's Ctrl-C reaches it anyway), and the parent cleans up once
// it has gone.
void onSignal(int sig) {
    gSignal = sig;
    if (gChild > 0) kill(gChild, sig);
}

// One session per directory: a second one would mix its dumps and summary
// with the first's. Held until the process ends.
bool lockDirectory(const std::string& dir) {
    const std::string path = dir + "/.qrncam_session.lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "qrncam_session: cannot create %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        fprintf(stderr, "qrncam_session: %s is in use by another session; give each session its own --out\n",
                dir.c_str());
        close(fd);
        return false;
    }
    return true;  // fd stays open: the lock lasts as long as the process
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int rc = parseOptions(argc, argv, &o);
    if (rc == -1) return 0;
    if (rc != 0) return rc;

    if (o.child) return runSession(o, o.outDir);

    // A start-up property file that cannot be used would silently change
    // nothing: refuse to run instead.
    const char* propertyFile = getenv(qrnhost::properties::kFileEnv);
    if (propertyFile != nullptr && *propertyFile != '\0') {
        int line = 0;
        if (qrnhost::properties::loadFile(propertyFile, &line) < 0) {
            if (line > 0)
                fprintf(stderr, "qrncam_session: %s:%d: expected key=value (file named by %s)\n", propertyFile, line,
                        qrnhost::properties::kFileEnv);
            else
                fprintf(stderr, "qrncam_session: %s names %s, which is not a readable file\n",
                        qrnhost::properties::kFileEnv, propertyFile);
            return 2;
        }
    }

    // Checked before the session starts, so that an hour's run does not end
    // with nowhere to put its trace.
    if (!o.traceFile.empty()) {
        FILE* f = fopen(o.traceFile.c_str(), "w");
        if (f == nullptr) {
            fprintf(stderr, "qrncam_session: cannot write the trace file %s: %s\n", o.traceFile.c_str(),
                    strerror(errno));
            return 2;
        }
        fclose(f);
    }

    std::string dir = o.outDir;
    if (dir.empty()) {
        const char* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qrncam-session-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data())) {
            fprintf(stderr, "qrncam_session: cannot create a temporary directory: %s\n", strerror(errno));
            return 1;
        }
        dir = buf.data();
    } else {
        std::error_code ec;
        fs::create_directories(dir, ec);
        if (ec) {
            fprintf(stderr, "qrncam_session: cannot create %s: %s\n", dir.c_str(), ec.message().c_str());
            return 1;
        }
    }
    // Removes the temporary directory unless the user wants it kept.
    auto finish = [&](int rc) {
        if (o.keep) {
            printf("kept:                      %s\n", dir.c_str());
        } else {
            std::error_code ec;
            fs::remove_all(dir, ec);
        }
        return rc;
    };
    if (!lockDirectory(dir)) return o.keep ? 1 : finish(1);
    printf("qrncam_session: working in %s\n", dir.c_str());
    fflush(stdout);

    std::vector<std::string> args = {"/proc/self/exe", "--child", "--out", dir};
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--out") {  // replaced above
            ++i;
            continue;
        }
        if (a.rfind("--out=", 0) == 0) continue;
        args.push_back(a);
    }
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return finish(1);
    }
    if (pid == 0) {
        std::vector<char*> av;
        av.reserve(args.size() + 1);
        for (auto& a : args) av.push_back(const_cast<char*>(a.c_str()));
        av.push_back(nullptr);
        execv(av[0], av.data());
        perror("execv");
        _exit(127);
    }
    gChild = pid;
    if (gSignal != 0) kill(pid, gSignal);  // came before gChild was set
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gChild = 0;
    if (gSignal != 0) {
        const int sig = gSignal;
        fprintf(stderr, "qrncam_session: stopped by signal %d\n", sig);
        finish(1);
        signal(sig, SIG_DFL);
        raise(sig);  // the status the caller expects of a stopped program
        return 128 + sig;
    }
    return finish(report(dir, o, status));
}
