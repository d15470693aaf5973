#include "Run.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <Cam3CPUCtrl.h>
#include <CpuCtrl.h>
#include <IFileCache.h>
#include <MemoryInfo.h>
#include <ThermalInfo.h>
#include <cutils/properties.h>
#include <qrncam/utils/ULog.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/kernelfs.h>
#include <qrnhost/properties.h>
#include <qrnhost/trace.h>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>
#include <type_traits>

#include "Record.h"

namespace session {

namespace fs = std::filesystem;
namespace qs = qrnsession;
using Clock = std::chrono::steady_clock;
using ULogger = NSCam::Utils::ULog::ULogger;
using vendor::quarnel::hardware::power::V2_0::IPower;

namespace {

int gettid() {
    return static_cast<int>(syscall(SYS_gettid));
}

std::string yesNo(bool b) {
    return b ? "true" : "false";
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

// A controller object as the session drives it: its calls are recorded as
// its own, and so is its life (with the users it has).
template <typename C>
class Driven {
  public:
    Driven(Recorder& rec, int id) : mRec(rec), mId(id) {
        Recorder::Acting acting(mId);
        mCtrl = C::createInstance();
        mRec.controller(mId, kind(), "create", 0);
    }
    // Runs f on the object as this controller's call.
    template <typename F>
    auto operator()(F f) {
        Recorder::Acting acting(mId);
        return f(mCtrl);
    }
    void init() {
        (*this)([](C* c) { return c->init(); });
        mRec.controller(mId, kind(), "init", ++mUsers);
    }
    void uninit() {
        (*this)([](C* c) { return c->uninit(); });
        const bool had = mUsers > 0;
        if (had) --mUsers;
        mRec.controller(mId, kind(), had ? "uninit" : "uninit without a user", mUsers);
    }
    void destroy() {
        (*this)([](C* c) {
            c->destroyInstance();
            return true;
        });
        // The camera controller's destructor releases one user itself.
        if (kind() == qs::ControllerKind::Cam3CPUCtrl && mUsers > 0) --mUsers;
        mRec.controller(mId, kind(), "destroy", mUsers);
    }

  private:
    static qs::ControllerKind kind() {
        return std::is_same_v<C, CpuCtrl> ? qs::ControllerKind::CpuCtrl : qs::ControllerKind::Cam3CPUCtrl;
    }
    Recorder& mRec;
    int mId;
    C* mCtrl = nullptr;
    int mUsers = 0;
};
using Cam = Driven<Utils::Cam3CPUCtrl>;
using Cpu = Driven<CpuCtrl>;

// The camera controller's typical use, from creation to destruction.
void cameraControllerSession(Recorder& rec) {
    Cam cam(rec, 1);
    cam.init();
    const bool camPerf = cam([](auto* c) { return c->enterCameraPerf(); });
    const bool perfMode = cam([](auto* c) { return c->cpuPerformanceMode(3000); });
    const bool boost = cam([](auto* c) { return c->enterCPUBoost(2000); });
    const bool noTempa = cam([](auto* c) { return c->enterNoTempa(); });
    // Off unless vendor.cam3dev.cpupreferidle is set.
    const bool preferIdle = cam([](auto* c) { return c->enablePreferIdle(); });
    cam([](auto* c) { return c->exitNoTempa() && c->exitCPUBoost() && c->exitCameraPerf(); });
    cam.uninit();
    cam.destroy();
    rec.fact("Cam3CPUCtrl: enterCameraPerf " + yesNo(camPerf) + ", cpuPerformanceMode(3000) " + yesNo(perfMode) +
             ", enterCPUBoost(2000) " + yesNo(boost) + ", enterNoTempa " + yesNo(noTempa) + ", enablePreferIdle " +
             yesNo(preferIdle));
}

// A CpuCtrl session: fixed and ranged requests, boost, prefer-idle and a
// new timeout.
void cpuControllerSession(Recorder& rec) {
    Cpu cpu(rec, 2);
    cpu.init();
    CpuCtrl::CPU_CTRL_INFO fixed = {4, 2000000, 4, 1500000, 2};
    const bool cpuFixed = cpu([&](CpuCtrl* c) { return c->enable(fixed); });
    CpuCtrl::CPU_CTRL_RANGE_INFO range = {2, 2, 4, 4, 1200000, 800000, -1, 1800000, 0};
    const bool cpuRange = cpu([&](CpuCtrl* c) { return c->enable(range); });
    const bool cpuBoost = cpu([](CpuCtrl* c) { return c->enableBoost(1); });
    const bool cpuIdle = cpu([](CpuCtrl* c) { return c->enablePreferIdle(); });
    const bool cpuReset = cpu([](CpuCtrl* c) { return c->resetTimeout(5); });
    cpu.uninit();
    cpu.destroy();
    rec.fact("CpuCtrl: enable(fixed) " + yesNo(cpuFixed) + ", enable(range) " + yesNo(cpuRange) + ", enableBoost(1) " +
             yesNo(cpuBoost) + ", enablePreferIdle " + yesNo(cpuIdle) + ", resetTimeout(5) " + yesNo(cpuReset));
}

// Two objects of each class alive at once, one of them with two users:
// what their calls are cannot always be told apart in their lines.
void twoOfEach(Recorder& rec) {
    Cam a(rec, 1), b(rec, 2);
    a.init();
    b.init();
    b.init();
    a([](auto* c) { return c->cpuPerformanceMode(500); });
    b([](auto* c) { return c->enterCameraPerf(); });
    a([](auto* c) { return c->enterCPUBoost(1000); });
    b([](auto* c) { return c->exitCameraPerf(); });
    a([](auto* c) { return c->exitCPUBoost(); });
    b([](auto* c) { return c->cpuPerformanceMode(0); });
    a.uninit();
    b.uninit();
    b.uninit();
    a.destroy();
    b.destroy();
    Cpu c(rec, 3), d(rec, 4);
    c.init();
    d.init();
    CpuCtrl::CPU_CTRL_INFO fixed = {2, 1000000, 2, 900000, 0};
    c([&](CpuCtrl* ctrl) { return ctrl->enable(fixed); });
    d([](CpuCtrl* ctrl) { return ctrl->cpuPerformanceMode(2); });
    c([](CpuCtrl* ctrl) { return ctrl->disable(); });
    c([](CpuCtrl* ctrl) { return ctrl->disable(); });  // nothing left to disable
    c.uninit();
    d.uninit();
    c.destroy();
    d.destroy();
    rec.fact("two objects of each class, used at once");
}

// The power service dies while both controllers hold scenarios on it, and
// a new one is registered; each controller then works with the new one.
void serviceDeath(Recorder& rec, android::sp<qrnhost::power::SimPowerService>& sim) {
    Cam cam(rec, 1);
    Cpu cpu(rec, 2);
    cam.init();
    cpu.init();
    cam([](auto* c) { return c->cpuPerformanceMode(1000); });
    CpuCtrl::CPU_CTRL_INFO fixed = {4, 2000000, 4, 1500000, 0};
    cpu([&](CpuCtrl* c) { return c->enable(fixed); });
    rec.mark("service died", "the vendor power service is killed");
    qrnhost::power::killDefaultService();
    qrnhost::hidl::waitForDeathNotices(IPower::descriptor, "default");
    sim = qrnhost::power::startDefaultService();
    rec.observe(sim);
    // The camera controller binds the new service by itself; CpuCtrl looks
    // it up at its next init.
    cam([](auto* c) { return c->cpuPerformanceMode(2000); });
    cpu.init();
    cpu([](CpuCtrl* c) { return c->cpuPerformanceMode(1); });
    cam.uninit();
    cam.destroy();
    cpu.uninit();
    cpu.uninit();
    cpu.destroy();
    rec.fact("the power service died once and came back");
}

// The perf-lock library refuses some locks.
void refusedLocks(Recorder& rec) {
    Cam cam(rec, 1);
    cam.init();
    qrnhost::perf::refuseNext(1);
    const bool first = cam([](auto* c) { return c->enterCameraPerf(); });
    const bool second = cam([](auto* c) { return c->enterCameraPerf(); });
    qrnhost::perf::refuseNext(1);
    const bool boost = cam([](auto* c) { return c->enterCPUBoost(500); });
    const bool noTempa = cam([](auto* c) { return c->enterNoTempa(); });
    cam([](auto* c) { return c->exitNoTempa() && c->exitCPUBoost() && c->exitCameraPerf(); });
    cam.uninit();
    cam.destroy();
    rec.fact("perf locks refused: enterCameraPerf " + yesNo(first) + ", again " + yesNo(second) +
             ", enterCPUBoost(500) " + yesNo(boost) + ", enterNoTempa " + yesNo(noTempa));
}

void systemInformation(Recorder& rec, const std::string& root) {
    const int64_t freeBytes = NSCam::NSMemoryInfo::getFreeMemorySize();
    const int64_t totalBytes = NSCam::NSMemoryInfo::getSystemTotalMemorySize();
    const bool lowRam = NSCam::NSMemoryInfo::isLowRamDevice(8.0f);
    const int thermal = NSCam::NSThermalInfo::getSystemThermalValue();
    const int modeResult = NSCam::NSThermalInfo::setThermalMode(1);
    std::string modeNode;
    std::getline(std::ifstream(root + "/proc/driver/cl_apu_status"), modeNode);
    rec.fact("free memory " + std::to_string(freeBytes) + " bytes, total " + std::to_string(totalBytes) +
             " bytes (low-RAM below 8 GiB: " + (lowRam ? "yes" : "no") + ")");
    rec.fact("AP temperature " + std::to_string(thermal) + " (node value, unscaled); thermal mode 1: result " +
             std::to_string(modeResult) + ", node now holds \"" + modeNode + "\"");
}

// Two capture threads at their frame rate, each dumping its frames into
// files of framesPerFile frames against the budget.
void captureBurst(Recorder& rec, const Options& o, const std::string& dumpDir) {
    auto capture = [&](int thread) {
        rec.thread(gettid(), "capture " + std::to_string(thread));
        // A camera delivers frames at its frame rate, not as fast as memory
        // can be copied; the flush worker gets the gaps.
        const auto period = o.fps > 0 ? std::chrono::microseconds(1000000 / o.fps) : std::chrono::microseconds(0);
        auto next = Clock::now();
        std::vector<uint64_t> frame(o.frameSize / 8 + 1);
        const int mine = o.frames / 2 + (thread == 0 ? o.frames % 2 : 0);
        const int base = thread == 0 ? 0 : o.frames / 2 + o.frames % 2;
        for (int start = 0; start < mine; start += o.framesPerFile) {
            char name[64];
            snprintf(name, sizeof name, "/t%d_frames%04d.raw", thread, base + start);
            const std::string path = dumpDir + name;
            std::vector<int> written;
            android::sp<NSCam::IFileCache> cache = NSCam::IFileCache::open(path.c_str());
            for (int k = start; k < std::min(mine, start + o.framesPerFile); ++k) {
                std::this_thread::sleep_until(next);
                next += period;
                const int index = base + k;
                fillFrame(frame, static_cast<uint64_t>(index));
                if (cache->write(frame.data(), static_cast<unsigned int>(o.frameSize)) == static_cast<int>(o.frameSize))
                    written.push_back(index);
            }
            cache.clear();  // the flush job takes over from here
            rec.dump(path, written);
        }
    };
    std::thread a(capture, 0), b(capture, 1);
    a.join();
    b.join();
}

// Names the platform's own threads by their system names; threads the
// session started itself without a name keep the program's, and are left
// to the reader.
void nameOtherThreads(Recorder& rec) {
    std::string own;
    std::getline(std::ifstream("/proc/self/comm"), own);
    for (const auto& e : fs::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(e.path() / "comm"), comm);
        const int t = atoi(e.path().filename().c_str());
        if (t != gettid() && comm != own) rec.thread(t, comm);
    }
}

}  // namespace

void fillFrame(std::vector<uint64_t>& buf, uint64_t frame) {
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = (frame << 40) ^ (i * 0x9E3779B97F4A7C15ull) ^ 0xC0FFEE;
}

int runSession(const Options& o, const std::string& dir) {
    std::string error;
    Recorder* rec = Recorder::start(dir + "/" + kRecordFile, &error);
    if (rec == nullptr) {
        fprintf(stderr, "qrncam_session: %s\n", error.c_str());
        return 3;
    }
    ULogger::sMode = o.mode;
    ULogger::sDetailsLevel = o.level;
    ULogger::sNormalDetailsMask = o.mask;
    rec->thread(gettid(), "session");

    property_set("vendor.debug.file_cache.storage_size", std::to_string(o.budget).c_str());
    // The camera tag on, as debug.atrace.tags.enableflags=0x400 does on a
    // device, so the library's sections are seen; they also reach the
    // kernel's trace marker when there is one.
    property_set(qrnhost::trace::kTagsProperty, "0x400");
    for (const auto& p : o.props) {
        if (!qrnhost::properties::setFromAssignment(p)) {
            fprintf(stderr, "qrncam_session: property refused: '%s'\n", p.c_str());
            return 2;
        }
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
    rec->observe(sim);

    if (o.scenario == "two-of-each") {
        rec->mark("phase", "two objects of each controller class");
        twoOfEach(*rec);
    } else if (o.scenario == "service-death") {
        rec->mark("phase", "the power service dies and comes back");
        serviceDeath(*rec, sim);
    } else if (o.scenario == "refused-locks") {
        rec->mark("phase", "perf locks refused");
        refusedLocks(*rec);
    } else {
        rec->mark("phase", "camera controller session (Cam3CPUCtrl)");
        cameraControllerSession(*rec);
        rec->mark("phase", "CPU controller session (CpuCtrl)");
        cpuControllerSession(*rec);
    }
    rec->mark("phase", "memory and thermal");
    systemInformation(*rec, root);
    // The capture burst comes last: the process exits as soon as the last
    // cache is dropped, with its flush (and maybe others) still queued.
    rec->mark("phase", "capture burst (FileCache)");
    captureBurst(*rec, o, dumpDir);

    nameOtherThreads(*rec);
    // Which dumps were still pending is read from the record: the flushes
    // that end after this mark.
    rec->mark("exit", "");
    if (!rec->end()) {
        fprintf(stderr, "qrncam_session: cannot write %s/%s (is the directory full?)\n", dir.c_str(), kRecordFile);
        qrnhost::hidl::unregisterAll();
        exit(3);
    }
    qrnhost::hidl::unregisterAll();
    exit(0);  // pending flush jobs run in the queue's exit handler, and are recorded
}

}  // namespace session
