// The file cache's background side:
// - a flush of 1 MiB and 16 MiB blocks against plain fopen("wb") / one
//   fwrite per block / fclose of the same blocks to the same file;
// - a burst of dumps larger than the budget: peak of the cached bytes and
//   growth of RSS.
// The worker does the work here, so wall-clock time is the figure.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <IFileCache.h>
#include <cutils/properties.h>
#include <qrncam/utils/TestLog.h>
#include <qrnhost/properties.h>
#include <algorithm>
#include <string>
#include <vector>

#include "FileCacheInternal.h"

namespace {

constexpr size_t kMiB = 1u << 20;
constexpr size_t kFlushBytes = 64 * kMiB;

void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}

const std::string& scratch() {
    static const std::string path = [] {
        const char* base = getenv("TMPDIR");
        std::string p = std::string(base && *base ? base : "/tmp") + "/qrncam-fc-bench-" + std::to_string(getpid());
        return p;
    }();
    return path;
}

const std::vector<char>& source() {
    static const std::vector<char> src = [] {
        std::vector<char> v(16 * kMiB);
        for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<char>(i * 131);
        return v;
    }();
    return src;
}

android::sp<NSCam::IFileCache> filled(const char* path, size_t total, size_t block) {
    android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(path);
    for (size_t done = 0; done < total; done += block) fc->write(source().data(), static_cast<unsigned>(block));
    return fc;
}

// Registered first so that RSS growth is measured in a fresh process.
long rssKiB() {
    FILE* f = fopen("/proc/self/statm", "r");
    long size = 0, resident = 0;
    if (f) {
        if (fscanf(f, "%ld %ld", &size, &resident) != 2) resident = 0;
        fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// 512 MiB of dumps (32 caches of 16 x 1 MiB, dropped one after the other) as
// fast as the caller can, against a 64 MiB budget.
void BM_BurstOverBudget(benchmark::State& state) {
    const uint64_t budget = 64 * kMiB;
    property_set("vendor.debug.file_cache.storage_size", std::to_string(budget).c_str());
    // The refused writes would each log an error line; keep stderr quiet.
    qrncam::stdutils::setTestLogHook([](const char*, int) { return 0; });
    (void)source();
    drain();
    const long rssBefore = rssKiB();
    uint64_t peak = 0;
    long peakRss = rssBefore;
    int64_t accepted = 0, refused = 0;
    for (auto _ : state) {
        for (int c = 0; c < 32; ++c) {
            android::sp<NSCam::IFileCache> fc =
                NSCam::IFileCache::open((scratch() + "-burst" + std::to_string(c % 4)).c_str());
            for (int b = 0; b < 16; ++b) {
                if (fc->write(source().data(), static_cast<unsigned>(kMiB)) < 0)
                    ++refused;
                else
                    ++accepted;
                peak = std::max<uint64_t>(peak, cachedBytesUnlocked());
            }
            peakRss = std::max(peakRss, rssKiB());
        }
        drain();
    }
    state.counters["budget_MiB"] = static_cast<double>(budget / kMiB);
    state.counters["peak_cached_MiB"] = static_cast<double>(peak) / kMiB;
    state.counters["rss_growth_MiB"] = static_cast<double>(peakRss - rssBefore) / 1024;
    state.counters["accepted_MiB"] = static_cast<double>(accepted);
    state.counters["refused_writes"] = static_cast<double>(refused);
    if (peak > budget) state.SkipWithError("cached bytes went past the budget");
    for (int c = 0; c < 4; ++c) unlink((scratch() + "-burst" + std::to_string(c)).c_str());
    qrnhost::properties::clear("vendor.debug.file_cache.storage_size");
    qrncam::stdutils::setTestLogHook(nullptr);
}
BENCHMARK(BM_BurstOverBudget)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// Each iteration gets its blocks freshly copied, outside the timing, as a
// cache gets them from write(), so both sides start from the same state.
// Arg 1 also times freeing the blocks, which the flush job does too: that is
// where glibc hands the memory back to the kernel.
void BM_StdioWrite(benchmark::State& state) {
    const size_t block = static_cast<size_t>(state.range(0));
    const bool timeFree = state.range(1) != 0;
    std::vector<void*> blocks;
    for (auto _ : state) {
        state.PauseTiming();
        for (size_t done = 0; done < kFlushBytes; done += block)
            blocks.push_back(memcpy(malloc(block), source().data(), block));
        state.ResumeTiming();
        FILE* fp = fopen(scratch().c_str(), "wb");
        for (void* b : blocks)
            if (fwrite(b, 1, block, fp) != block) state.SkipWithError("short write");
        fclose(fp);
        if (!timeFree) state.PauseTiming();
        for (void* b : blocks) free(b);
        blocks.clear();
        if (!timeFree) state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFlushBytes));
    unlink(scratch().c_str());
}

// From dropping the cache to the flush job's end (the file written and
// closed, every block freed and credited).
void BM_FileCacheFlush(benchmark::State& state) {
    const size_t block = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        android::sp<NSCam::IFileCache> fc = filled(scratch().c_str(), kFlushBytes, block);
        state.ResumeTiming();
        fc.clear();
        drain();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFlushBytes));
    unlink(scratch().c_str());
}

BENCHMARK(BM_StdioWrite)->ArgsProduct({{1 << 20, 16 << 20}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FileCacheFlush)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
