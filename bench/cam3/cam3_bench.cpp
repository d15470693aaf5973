// What the camera controller adds on top of the services it drives, each
// beside a baseline that makes the same calls directly:
//  - a CPU boost enter/exit pair against perf_lock_acq/perf_lock_rel;
//  - a performance-mode request (disable and unregister the scenario before,
//    register, configure, enable) against the same five power-service calls
//    on a proxy;
//  - createInstance/destroyInstance once the perf-lock library is loaded,
//    against allocating and freeing a death recipient of the same size.
// Logging is off (sMode 0), as in a release camera session.
#include <Cam3CPUCtrl.h>
#include <benchmark/benchmark.h>
#include <qrncam/utils/ULog.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>

namespace {

using ::android::sp;
using NSCam::Utils::ULog::ULogger;
using vendor::quarnel::hardware::power::V2_0::IPower;

// The simulators journal every call; they are emptied at the same rate in
// the baseline and in the measured loop so that both pay the same.
constexpr int kResetEvery = 4096;

void quiet() {
    ULogger::sMode = 0;
    ULogger::sDetailsLevel = 0;
}

void BM_DirectPerfLockPair(benchmark::State& state) {
    quiet();
    qrnhost::perf::reset();
    int n = 0;
    for (auto _ : state) {
        int32_t list[2] = {0x00414000, 1};
        int32_t h = perf_lock_acq(0, 0, list, 2);
        benchmark::DoNotOptimize(perf_lock_rel(h));
        if (++n % kResetEvery == 0) qrnhost::perf::reset();
    }
}
BENCHMARK(BM_DirectPerfLockPair);

void BM_CpuBoostPair(benchmark::State& state) {
    quiet();
    qrnhost::perf::reset();
    Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(c->enterCPUBoost(0));
        benchmark::DoNotOptimize(c->exitCPUBoost());
        if (++n % kResetEvery == 0) qrnhost::perf::reset();
    }
    c->destroyInstance();
}
BENCHMARK(BM_CpuBoostPair);

void BM_DirectScenarioCalls(benchmark::State& state) {
    quiet();
    sp<qrnhost::power::SimPowerService> sim = qrnhost::power::startDefaultService();
    sp<IPower> svc = IPower::getService("default", false);
    int32_t h = svc->registerScenario();
    int n = 0;
    for (auto _ : state) {
        (void)svc->disableScenario(h).isOk();
        (void)svc->unregisterScenario(h).isOk();
        h = svc->registerScenario();
        (void)svc->configScenario(h, 5, 1, 0, 0, 0).isOk();
        (void)svc->enableScenario(h, 1000).isOk();
        if (++n % kResetEvery == 0) sim->clearJournal();
    }
    (void)svc->unregisterScenario(h).isOk();
    svc = nullptr;
    qrnhost::hidl::unregisterAll();
}
BENCHMARK(BM_DirectScenarioCalls);

void BM_PerformanceModeRequest(benchmark::State& state) {
    quiet();
    sp<qrnhost::power::SimPowerService> sim = qrnhost::power::startDefaultService();
    Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
    c->init();
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(c->cpuPerformanceMode(1000));
        if (++n % kResetEvery == 0) sim->clearJournal();
    }
    c->uninit();
    c->destroyInstance();
    qrnhost::hidl::unregisterAll();
}
BENCHMARK(BM_PerformanceModeRequest);

struct SameSizeRecipient : public ::android::hardware::hidl_death_recipient {
    char body[128] = {};
    void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {}
};

void BM_NewRecipient(benchmark::State& state) {
    for (auto _ : state) {
        sp<SameSizeRecipient> r = new SameSizeRecipient;
        benchmark::DoNotOptimize(r.get());
    }
}
BENCHMARK(BM_NewRecipient);

void BM_CreateDestroy(benchmark::State& state) {
    quiet();
    Utils::Cam3CPUCtrl::createInstance()->destroyInstance();  // loads the perf-lock library
    for (auto _ : state) {
        Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
        benchmark::DoNotOptimize(c);
        c->destroyInstance();
    }
}
BENCHMARK(BM_CreateDestroy);

}  // namespace

BENCHMARK_MAIN();
