// Cost of getFreeMemorySize against the bound of the same work done as
// cheaply as the kernel allows: one open, one read() of /proc/meminfo into a
// stack buffer, a hand parse of the three fields and one close. Most of
// either is the kernel generating the text; the difference is stdio and the
// line-by-line scan. The program prints the ratios of the medians at the
// end, of CPU time (the figure to judge by on a shared machine, where wall
// time also counts waiting for a core) and of wall time.
#include <MemoryInfo.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

// The value after the key at the start of a line, or -1.
int64_t fieldAt(const char* p, const char* end) {
    while (p < end && (*p == ' ' || *p == ':')) ++p;
    int64_t v = 0;
    bool any = false;
    for (; p < end && *p >= '0' && *p <= '9'; ++p, any = true) v = v * 10 + (*p - '0');
    return any ? v : -1;
}

int64_t freeBytesBySingleRead() {
    char buf[8192];
    int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, buf, sizeof buf);
    close(fd);
    if (n <= 0) return -1;
    const char* end = buf + n;
    int64_t memFree = -1, buffers = -1, cached = -1;
    for (const char* line = buf; line < end;) {
        size_t left = static_cast<size_t>(end - line);
        if (left > 7 && memcmp(line, "MemFree", 7) == 0) {
            memFree = fieldAt(line + 7, end);
        } else if (left > 7 && memcmp(line, "Buffers", 7) == 0) {
            buffers = fieldAt(line + 7, end);
        } else if (left > 6 && memcmp(line, "Cached", 6) == 0) {
            cached = fieldAt(line + 6, end);
        }
        const char* nl = static_cast<const char*>(memchr(line, '\n', left));
        line = nl ? nl + 1 : end;
    }
    if (memFree < 0 || buffers < 0 || cached < 0) return -1;
    return (memFree + buffers + cached) * 1024;
}

void BM_SingleReadHandParse(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(freeBytesBySingleRead());
}

void BM_GetFreeMemorySize(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(NSCam::NSMemoryInfo::getFreeMemorySize());
}

void BM_GetSystemTotalMemorySize(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(NSCam::NSMemoryInfo::getSystemTotalMemorySize());
}

BENCHMARK(BM_SingleReadHandParse)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(BM_GetFreeMemorySize)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(BM_GetSystemTotalMemorySize)->Repetitions(7)->ReportAggregatesOnly(true);

// Keeps the medians for the ratio printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
                medians[r.run_name.function_name] = {r.GetAdjustedCPUTime(), r.GetAdjustedRealTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    struct Times {
        double cpu, real;
    };
    std::map<std::string, Times> medians;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // Both ways must agree on what they read before their costs are compared.
    int64_t a = freeBytesBySingleRead(), b = NSCam::NSMemoryInfo::getFreeMemorySize();
    if (a <= 0 || b <= 0) {
        fprintf(stderr, "cannot read /proc/meminfo (%lld, %lld)\n", static_cast<long long>(a),
                static_cast<long long>(b));
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto base = reporter.medians.find("BM_SingleReadHandParse");
    for (const char* name : {"BM_GetFreeMemorySize", "BM_GetSystemTotalMemorySize"}) {
        auto it = reporter.medians.find(name);
        if (base == reporter.medians.end() || it == reporter.medians.end()) continue;
        printf("%s / BM_SingleReadHandParse, medians: CPU %.3f, wall %.3f (goal <= 1.45)\n", name,
               it->second.cpu / base->second.cpu, it->second.real / base->second.real);
    }
    benchmark::Shutdown();
    return 0;
}
