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

#include "Record.h"

namespace session {

namespace fs = std::filesystem;
namespace qs = qrnsession;
using Clock = std::chrono::steady_clock;
using ULogger = NSCam::Utils::ULog::ULogger;

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

// The camera controller's typical use, from creation to destruction.
void cameraControllerSession(Recorder& rec) {
    constexpr int kId = 1;
    Recorder::Acting acting(kId);
    const auto kind = qs::ControllerKind::Cam3CPUCtrl;
    Utils::Cam3CPUCtrl* cam = Utils::Cam3CPUCtrl::createInstance();
    rec.controller(kId, kind, "create", 0);
    cam->init();
    rec.controller(kId, kind, "init", 1);
    const bool camPerf = cam->enterCameraPerf();
    const bool perfMode = cam->cpuPerformanceMode(3000);
    const bool boost = cam->enterCPUBoost(2000);
    const bool noTempa = cam->enterNoTempa();
    const bool preferIdle = cam->enablePreferIdle();  // off unless vendor.cam3dev.cpupreferidle is set
    cam->exitNoTempa();
    cam->exitCPUBoost();
    cam->exitCameraPerf();
    cam->uninit();
    rec.controller(kId, kind, "uninit", 0);
    cam->destroyInstance();
    rec.controller(kId, kind, "destroy", 0);
    rec.fact("Cam3CPUCtrl: enterCameraPerf " + yesNo(camPerf) + ", cpuPerformanceMode(3000) " + yesNo(perfMode) +
             ", enterCPUBoost(2000) " + yesNo(boost) + ", enterNoTempa " + yesNo(noTempa) + ", enablePreferIdle " +
             yesNo(preferIdle));
}

// A CpuCtrl session: fixed and ranged requests, boost, prefer-idle and a
// new timeout.
void cpuControllerSession(Recorder& rec) {
    constexpr int kId = 2;
    Recorder::Acting acting(kId);
    const auto kind = qs::ControllerKind::CpuCtrl;
    CpuCtrl* cpu = CpuCtrl::createInstance();
    rec.controller(kId, kind, "create", 0);
    cpu->init();
    rec.controller(kId, kind, "init", 1);
    CpuCtrl::CPU_CTRL_INFO fixed = {4, 2000000, 4, 1500000, 2};
    const bool cpuFixed = cpu->enable(fixed);
    CpuCtrl::CPU_CTRL_RANGE_INFO range = {2, 2, 4, 4, 1200000, 800000, -1, 1800000, 0};
    const bool cpuRange = cpu->enable(range);
    const bool cpuBoost = cpu->enableBoost(1);
    const bool cpuIdle = cpu->enablePreferIdle();
    const bool cpuReset = cpu->resetTimeout(5);
    cpu->uninit();
    rec.controller(kId, kind, "uninit", 0);
    cpu->destroyInstance();
    rec.controller(kId, kind, "destroy", 0);
    rec.fact("CpuCtrl: enable(fixed) " + yesNo(cpuFixed) + ", enable(range) " + yesNo(cpuRange) + ", enableBoost(1) " +
             yesNo(cpuBoost) + ", enablePreferIdle " + yesNo(cpuIdle) + ", resetTimeout(5) " + yesNo(cpuReset));
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

    rec->mark("phase", "camera controller session (Cam3CPUCtrl)");
    cameraControllerSession(*rec);
    rec->mark("phase", "CPU controller session (CpuCtrl)");
    cpuControllerSession(*rec);
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
