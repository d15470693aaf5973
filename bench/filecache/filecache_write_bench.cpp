// write() of 64 KiB, 1 MiB and 16 MiB blocks against a bare malloc + memcpy
// of the same blocks into fresh memory. Every allocation of these sizes is
// made to come from fresh pages (fixed mmap threshold), so both sides pay the
// same page faults, which dominate the copy. All the work is on the calling
// thread, so its CPU time is the figure (the machine is shared).
// Also the caller's time for open + 64 writes of 1 MiB + drop, with the
// worker busy flushing 512 MiB ahead of it and with the worker idle; with
// fresh pages on both sides, the only difference is the busy worker.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <unistd.h>

#include <IFileCache.h>
#include <string>
#include <vector>

#include "FileCacheInternal.h"

namespace {

constexpr size_t kBatch = 64u << 20;  // bytes copied per iteration

const std::vector<char>& source() {
    static const std::vector<char> src = [] {
        std::vector<char> v(16u << 20);
        for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<char>(i * 131);
        return v;
    }();
    return src;
}

void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}

void BM_MallocMemcpy(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const char* src = source().data();
    std::vector<void*> blocks;
    blocks.reserve(kBatch / size);
    for (auto _ : state) {
        for (size_t done = 0; done < kBatch; done += size) {
            void* p = malloc(size);
            memcpy(p, src, size);
            blocks.push_back(p);
        }
        benchmark::ClobberMemory();
        state.PauseTiming();
        for (void* p : blocks) free(p);
        blocks.clear();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBatch));
}

void BM_FileCacheWrite(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const char* src = source().data();
    for (auto _ : state) {
        state.PauseTiming();
        android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open("/dev/null");
        state.ResumeTiming();
        for (size_t done = 0; done < kBatch; done += size)
            if (fc->write(src, static_cast<unsigned>(size)) < 0) state.SkipWithError("write refused");
        state.PauseTiming();
        fc.clear();  // flushed to /dev/null and freed by the worker
        drain();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBatch));
}

BENCHMARK(BM_MallocMemcpy)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileCacheWrite)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond);

constexpr size_t kMiB = 1u << 20;

const std::string& scratchPath() {
    static const std::string path = [] {
        const char* base = getenv("TMPDIR");
        return std::string(base && *base ? base : "/tmp") + "/qrncam-fc-wbench-" + std::to_string(getpid());
    }();
    return path;
}

android::sp<NSCam::IFileCache> filled(const char* path, size_t total, size_t block) {
    android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(path);
    for (size_t done = 0; done < total; done += block) fc->write(source().data(), static_cast<unsigned>(block));
    return fc;
}

// Caller-side time of open + 64 x 1 MiB writes + drop. Arg 1: a 512 MiB
// flush is queued just before and runs meanwhile; arg 0: the worker is idle.
void BM_CallerSide(benchmark::State& state) {
    const bool busy = state.range(0) != 0;
    const std::string ahead = scratchPath() + "-ahead";
    const std::string mine = scratchPath() + "-mine";
    int64_t overlapped = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (busy) filled(ahead.c_str(), 512 * kMiB, kMiB).clear();  // flush queued now
        state.ResumeTiming();
        {
            android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(mine.c_str());
            for (int i = 0; i < 64; ++i) fc->write(source().data(), static_cast<unsigned>(kMiB));
        }
        state.PauseTiming();
        // Still more than our own 64 MiB cached: the big flush was not done.
        if (busy && cachedBytesUnlocked() > 64 * kMiB) ++overlapped;
        drain();
        state.ResumeTiming();
    }
    state.counters["overlapped_iterations"] = static_cast<double>(overlapped);
    unlink(ahead.c_str());
    unlink(mine.c_str());
}
BENCHMARK(BM_CallerSide)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(12);

}  // namespace

int main(int argc, char** argv) {
    // Fresh pages for every block from 64 KiB up, on both sides.
    mallopt(M_MMAP_THRESHOLD, 32 << 10);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
