// Runs the perf-lock loader in a process of its own (its state is
// process-wide): constructs controllers one after the other and prints what
// each construction did, for loader_test to check. Linked with the static
// library so that the only way to the perf-lock library is LD_LIBRARY_PATH.
#include <Cam3CPUCtrlImp.h>
#include <Capture.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>

namespace Utils {
struct Cam3CPUCtrlPeer {
    static bool hasAcq(const Cam3CPUCtrlImp* c) { return c->mPerfLockAcq != nullptr; }
    static bool hasRel(const Cam3CPUCtrlImp* c) { return c->mPerfLockRel != nullptr; }
};
}  // namespace Utils

namespace {

std::atomic<int> gPerfDlopens{0};

bool perfLibMapped() {
    return qrntest::readFile("/proc/self/maps").find("libqrnperf_client_vendor.so") != std::string::npos;
}

// One captured line: level letter and text, newlines shown as \n.
void printLines(const qrntest::Capture& cap) {
    for (const auto& r : cap.records(qrntest::Sink::Android)) {
        if (r.tag != "Cam3CPUCtrl_util") continue;
        if (r.text == "[createInstance] " || r.text == "[Cam3CPUCtrlImp] ") continue;
        std::string text;
        for (char ch : r.text) text += ch == '\n' ? std::string("\\n") : std::string(1, ch);
        printf("  %c %s\n", r.priority == 3 ? 'D' : r.priority == 5 ? 'W' : '?', text.c_str());
    }
}

}  // namespace

// Counts the loader's attempts; everything else goes straight through.
extern "C" void* dlopen(const char* file, int mode) {
    using Fn = void* (*)(const char*, int);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "dlopen"));
    if (file != nullptr && strcmp(file, "libqrnperf_client_vendor.so") == 0) ++gPerfDlopens;
    return real(file, mode);
}

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 1;
    qrntest::Capture cap(1, 5, 0x00107000, false);
    for (int i = 1; i <= rounds; ++i) {
        cap.clear();
        const int before = gPerfDlopens.load();
        auto* c = static_cast<Utils::Cam3CPUCtrlImp*>(Utils::Cam3CPUCtrl::createInstance());
        printf("round %d dlopen=%d acq=%d rel=%d mapped=%d\n", i, gPerfDlopens.load() - before,
               Utils::Cam3CPUCtrlPeer::hasAcq(c), Utils::Cam3CPUCtrlPeer::hasRel(c), perfLibMapped());
        printLines(cap);
        if (i == rounds) {
            cap.clear();
            // One at a time: the order of the log lines is part of the report.
            const bool camera = c->enterCameraPerf();
            const bool boost = c->enterCPUBoost(10);
            const bool noTempa = c->enterNoTempa();
            const bool cameraOff = c->exitCameraPerf();
            const bool boostOff = c->exitCPUBoost();
            const bool noTempaOff = c->exitNoTempa();
            printf("ops %d %d %d %d %d %d\n", camera, boost, noTempa, cameraOff, boostOff, noTempaOff);
            printLines(cap);
        }
        c->destroyInstance();
    }
    fflush(stdout);
    return 0;
}
