// Runs the perf-lock loader in a process of its own (its state is
// process-wide): constructs two controllers one after the other, prints what
// each construction did, then the results of the six operations, for
// loader_test to check. Linked with the static library so that the only way
// to the perf-lock library is LD_LIBRARY_PATH.
#include <Cam3CPUCtrlImp.h>
#include <dlfcn.h>
#include <qrnhost/capture.h>
#include <stdio.h>
#include <string.h>

static int gPerfDlopens = 0;

// Counts the loader's attempts; everything else goes straight through.
extern "C" void* dlopen(const char* file, int mode) {
    using Fn = void* (*)(const char*, int);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "dlopen"));
    if (file != nullptr && strcmp(file, "libqrnperf_client_vendor.so") == 0) ++gPerfDlopens;
    return real(file, mode);
}

namespace qt = qrnhost::testing;

namespace Utils {
struct Cam3CPUCtrlPeer {
    static void run() {
        qt::Capture cap(1, 5, 0x00107000, false);
        for (int round = 1; round <= 2; ++round) {
            cap.clear();
            const int before = gPerfDlopens;
            auto* c = static_cast<Cam3CPUCtrlImp*>(Cam3CPUCtrl::createInstance());
            const bool mapped =
                qt::readFile("/proc/self/maps").find("libqrnperf_client_vendor.so") != std::string::npos;
            printf("round %d dlopen=%d acq=%d rel=%d mapped=%d\n", round, gPerfDlopens - before,
                   c->mPerfLockAcq != nullptr, c->mPerfLockRel != nullptr, mapped);
            // What the loader logged, as a transcript shows it.
            for (const auto& r : cap.records(qt::Sink::Android))
                if (r.text != "[createInstance] " && r.text != "[Cam3CPUCtrlImp] ")
                    printf("  %s\n", qt::describe(r).c_str());
            if (round == 2) {
                // Without the library the enters must decline, not call through a stale pointer.
                const bool r[] = {c->enterCameraPerf(), c->enterCPUBoost(10), c->enterNoTempa(),
                                  c->exitCameraPerf(),  c->exitCPUBoost(),    c->exitNoTempa()};
                printf("ops %d %d %d %d %d %d\n", r[0], r[1], r[2], r[3], r[4], r[5]);
            }
            c->destroyInstance();
        }
    }
};
}  // namespace Utils

int main() {
    Utils::Cam3CPUCtrlPeer::run();
}
