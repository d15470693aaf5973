// Cost of a log line whose gate is closed, beside a bare three-load gate,
// and of a line that reaches the unified logger.
#include <benchmark/benchmark.h>

#define LOG_TAG "QrnCam/CpuCtrl"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCpuCtrl
#include <SysLog.h>

namespace {

using ULogger = NSCam::Utils::ULog::ULogger;

struct Quiet : ULogger {
    int64_t total = 0;
    void logNormal(uint32_t, const char*, int32_t, const char* text, int64_t length) override {
        total += length;
        benchmark::DoNotOptimize(text);
    }
};

// The floor: three plain loads and compares of the same controls, with
// nothing else.
void BM_BareThreeLoadGate(benchmark::State& state) {
    ULogger::sDetailsLevel = 4;
    ULogger::sNormalDetailsMask = 0x40007000;
    int64_t passed = 0;
    for (auto _ : state) {
        benchmark::ClobberMemory();  // force fresh loads, as the facade makes
        if (ULogger::sDetailsLevel >= 5u && (ULogger::sNormalDetailsMask & 0x40000000u) &&
            (ULogger::sNormalDetailsMask & 0x7000u)) {
            ++passed;
            benchmark::DoNotOptimize(passed);
        }
    }
}
BENCHMARK(BM_BareThreeLoadGate);

void BM_DebugLineGateClosed(benchmark::State& state) {
    ULogger::sMode = 3;
    ULogger::sDetailsLevel = 4;  // DEBUG off
    ULogger::sNormalDetailsMask = 0x40007000;
    int value = 42;
    for (auto _ : state) {
        benchmark::ClobberMemory();
        QRN_LOGD("[%s] mPowerHalHandle:(%d)", "enable", value);
    }
}
BENCHMARK(BM_DebugLineGateClosed);

void BM_DebugLineToUnifiedLogger(benchmark::State& state) {
    Quiet q;
    ULogger* saved = ULogger::sULogger;
    ULogger::sULogger = &q;
    ULogger::sMode = 2;
    ULogger::sDetailsLevel = 5;
    ULogger::sNormalDetailsMask = 0x40007000;
    int value = 42;
    for (auto _ : state) {
        QRN_LOGD("[%s] mPowerHalHandle:(%d)", "enable", value);
    }
    ULogger::sULogger = saved;
    ULogger::sMode = 1;
    benchmark::DoNotOptimize(q.total);
}
BENCHMARK(BM_DebugLineToUnifiedLogger);

}  // namespace

BENCHMARK_MAIN();
