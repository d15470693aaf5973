// Takes and gives back a camera perf lock, which works only when the library
// has found the perf-lock library, and prints where that library was found.
#include <Cam3CPUCtrl.h>
#include <dlfcn.h>
#include <stdio.h>

int main() {
    Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
    const bool locked = ctrl->enterCameraPerf();
    ctrl->exitCameraPerf();
    ctrl->destroyInstance();
    void* perf = dlopen("libqrnperf_client_vendor.so", RTLD_NOW | RTLD_NOLOAD);
    Dl_info info{};
    if (!locked || perf == nullptr || dladdr(dlsym(perf, "perf_lock_acq"), &info) == 0) {
        fprintf(stderr, "consumer: no perf lock\n");
        return 1;
    }
    printf("%s\n", info.dli_fname);
    return 0;
}
