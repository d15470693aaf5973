// The device-log reader on a soak test's log: a generated logcat of 1 GiB
// (QRNCAM_LOGREAD_BENCH_MIB changes it) written as threadtime, mostly lines
// of other processes and tags as on a device, the library's lines and
// logd's and init's notices sprinkled through. It is read keeping the
// session's tags, against `grep -c -F Cam3CPUCtrl_util` over the same file
// in the same run, and the reader's peak memory is reported beside grep's;
// the same file read keeping every line shows what skipping the others saves.
// The file is written under the build directory and removed at the end.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Interpret.h"
#include "LogRead.h"

extern char** environ;

namespace {

const std::string kPath = std::string(QRNCAM_BENCH_DATA_DIR) + "/logread_bench.log";
int64_t gBytes = int64_t{1} << 30;
uint64_t gCam3Lines = 0;
uint64_t gKeptLines = 0;

struct Rng {
    uint64_t s = 0x9e3779b97f4a7c15ull;
    uint32_t next() {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(s >> 33);
    }
    uint32_t below(uint32_t n) { return next() % n; }
};

// Lines of everyone else: tags of a camera device's busy log.
const char* const kOtherTags[] = {"ActivityManager",
                                  "SurfaceFlinger",
                                  "CameraService",
                                  "CamX",
                                  "CHIUSECASE",
                                  "BufferQueueProducer",
                                  "libc",
                                  "audio_hw_primary",
                                  "WifiHAL",
                                  "Looper",
                                  "System.err",
                                  "AndroidRuntime",
                                  "hwservicemanager",
                                  "lowmemorykiller",
                                  "BatteryService",
                                  "InputDispatcher",
                                  "chre",
                                  "wpa_supplicant",
                                  "NetworkStats",
                                  "vendor.qti.camera",
                                  "ThermalEngine",
                                  "PowerHalExt",
                                  "ZslProcessor",
                                  "MediaCodec"};
const char kWords[] =
    "the quick capture request frame number buffer handle stream configured session opened returned result "
    "metadata pipeline node port output input request timeout latency dropped queued dequeued fence signaled "
    "allocation heap ion dmabuf surface layer vsync composition client display mode power hint cpu cluster ";

// The library's lines, as a camera session logs them over and over: the
// camera controller made, used and given back, refused dumps, a thermal
// error, and logd folding lines. One after another, on one thread, so that
// the session's reader can follow them.
struct LibraryLine {
    const char* tag;
    char priority;
    const char* text;
};
const LibraryLine kLibrary[] = {
    {"Cam3CPUCtrl_util", 'D', "[createInstance] "},
    {"Cam3CPUCtrl_util", 'D', "[Cam3CPUCtrlImp] "},
    {"Cam3CPUCtrl_util", 'D', "[init] +"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] +"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] Loaded power HAL service +"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] Loaded power HAL service -"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] -"},
    {"Cam3CPUCtrl_util", 'D', "[init] First user"},
    {"Cam3CPUCtrl_util", 'D', "[init] -"},
    {"Cam3CPUCtrl_util", 'D', "[enterCameraPerf] enable camera idle prefer"},
    {"Cam3CPUCtrl_util", 'D', "[enterCameraPerf] enter camera perf mode"},
    {"Cam3CPUCtrl_util", 'D', "[cpuPerformanceMode] +"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] +"},
    {"Cam3CPUCtrl_util", 'D', "[__initPowerHAL] -"},
    {"Cam3CPUCtrl_util", 'D', "[cpuPerformanceMode] mPowerHalHandle:(@)"},
    {"Cam3CPUCtrl_util", 'D', "[cpuPerformanceMode] -"},
    {"file_cache", 'E',
     "</data/vendor/camera/dump_@.raw> Storage size exceed 1023MB/1024MB (write){#91:utils/sys/FileCache}"},
    {"ThermalInfo", 'E',
     "[getSystemThermalValue] Open File Node Error (getSystemThermalValue){#81:utils/sys/ThermalInfo}"},
    {"chatty", 'I', "uid=1047(cameraserver) HwBinder:3182_2 identical @ lines"},
    {"Cam3CPUCtrl_util", 'D', "[exitCameraPerf] exit camera perf mode"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] +"},
    {"Cam3CPUCtrl_util", 'D', "[disable] +"},
    {"Cam3CPUCtrl_util", 'D', "[disable] -"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] Last user(0)"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] -"},
    {"Cam3CPUCtrl_util", 'D', "[destroyInstance] +"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] +"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] No user(0)"},
    {"Cam3CPUCtrl_util", 'D', "[uninit] -"},
    {"Cam3CPUCtrl_util", 'D', "[~Cam3CPUCtrlImp] "},
    {"Cam3CPUCtrl_util", 'D', "[destroyInstance] -"},
};

void generate(uint64_t bytes) {
    FILE* f = fopen(kPath.c_str(), "w");
    if (f == nullptr) {
        perror(kPath.c_str());
        exit(1);
    }
    static char buffer[1 << 20];
    setvbuf(f, buffer, _IOFBF, sizeof buffer);
    Rng rng;
    uint64_t written = 0;
    uint64_t ms = 8ull * 3600 * 1000;  // 08:00 on the 24th of November
    const size_t words = sizeof kWords - 1;
    size_t next = 0;  // the library's next line
    while (written < bytes) {
        ms += rng.below(4);
        const uint64_t s = ms / 1000;
        char line[512];
        int n = snprintf(line, sizeof line, "11-%02u %02u:%02u:%02u.%03u ", static_cast<unsigned>(24 + s / 86400 % 5),
                         static_cast<unsigned>(s / 3600 % 24), static_cast<unsigned>(s / 60 % 60),
                         static_cast<unsigned>(s % 60), static_cast<unsigned>(ms % 1000));
        if (rng.below(150) == 0) {
            const LibraryLine& l = kLibrary[next++ % (sizeof kLibrary / sizeof kLibrary[0])];
            n += snprintf(line + n, sizeof line - n, "%5u %5u %c %-8s: ", 3182u, 3190u, l.priority, l.tag);
            std::string text = l.text;  // each @ stands for a number
            for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at)) {
                text.replace(at, 1, std::to_string(rng.below(100000)));
            }
            n += snprintf(line + n, sizeof line - n, "%s", text.c_str());
            if (strcmp(l.tag, "Cam3CPUCtrl_util") == 0) ++gCam3Lines;
            ++gKeptLines;
        } else {
            const uint32_t pid = 500 + rng.below(60) * 97;
            n += snprintf(line + n, sizeof line - n, "%5u %5u %c %-8s: ", pid, pid + rng.below(30),
                          "VDIWE"[rng.below(5)], kOtherTags[rng.below(sizeof kOtherTags / sizeof kOtherTags[0])]);
            const size_t len = 20 + rng.below(140);
            const size_t from = rng.below(static_cast<uint32_t>(words - len));
            memcpy(line + n, kWords + from, len);
            n += static_cast<int>(len);
        }
        line[n++] = '\n';
        fwrite(line, 1, static_cast<size_t>(n), f);
        written += static_cast<uint64_t>(n);
    }
    if (fclose(f) != 0) {
        perror(kPath.c_str());
        exit(1);
    }
}

// The process's peak resident memory since the last reset, in MiB.
void resetPeak() {
    FILE* f = fopen("/proc/self/clear_refs", "w");
    if (f != nullptr) {
        fputs("5", f);
        fclose(f);
    }
}
double peakMiB() {
    FILE* f = fopen("/proc/self/status", "r");
    char line[256];
    long kib = 0;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        if (sscanf(line, "VmHWM: %ld kB", &kib) == 1) break;
    }
    if (f != nullptr) fclose(f);
    return static_cast<double>(kib) / 1024;
}

// Reads the file keeping the session's tags, or every line (the figure of
// what skipping lines of other tags saves).
void readLog(benchmark::State& state, bool sessionTags) {
    uint64_t cam3 = 0, kept = 0;
    double peak = 0;
    for (auto _ : state) {
        resetPeak();
        qrnlog::ReaderOptions options;
        if (sessionTags) options.tags = qrnlog::sessionTags();
        qrnlog::Reader reader(options);
        reader.addPath(kPath);
        qrnlog::Item item;
        cam3 = kept = 0;
        while (reader.next(item)) {
            if (item.kind != qrnlog::ItemKind::Entry) continue;
            ++kept;
            if (item.entry.tag == "Cam3CPUCtrl_util") ++cam3;
        }
        peak = peakMiB();
    }
    if (cam3 != gCam3Lines || (sessionTags && kept != gKeptLines)) {
        state.SkipWithError("the reader did not find every line of the session's tags");
    }
    state.counters["peak_rss_MiB"] = peak;
    state.counters["lines_kept"] = static_cast<double>(kept);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * gBytes);
}

void BM_ReadSessionTags(benchmark::State& state) {
    readLog(state, true);
}
void BM_ReadEveryTag(benchmark::State& state) {
    readLog(state, false);
}

// The whole of qrncam_logscan's work: the file read keeping its tags, and
// every process session the library's lines make, reconstructed.
void BM_ScanSessions(benchmark::State& state) {
    double peak = 0;
    size_t calls = 0;
    for (auto _ : state) {
        resetPeak();
        qrnlog::ReaderOptions options;
        options.tags = qrnscan::tags();
        qrnlog::Reader reader(options);
        reader.addPath(kPath);
        qrnscan::Interpreter interpreter;
        qrnlog::Item item;
        while (reader.next(item)) interpreter.add(item);
        const std::vector<qrnsession::Session> sessions = interpreter.finish(reader.inputs());
        calls = 0;
        for (const auto& s : sessions) calls += s.powerCalls.size() + s.perfCalls.size();
        peak = peakMiB();
    }
    // Each pass of the session's lines registers, configures, enables,
    // disables and unregisters one scenario and takes and gives back one
    // perf lock.
    if (calls < gCam3Lines / 30) state.SkipWithError("the sessions were not reconstructed");
    state.counters["peak_rss_MiB"] = peak;
    state.counters["calls"] = static_cast<double>(calls);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * gBytes);
}

void BM_GrepCount(benchmark::State& state) {
    uint64_t count = 0;
    double peak = 0;
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        const char* argv[] = {"grep", "-c", "-F", "Cam3CPUCtrl_util", kPath.c_str(), nullptr};
        pid_t pid = 0;
        const int err = posix_spawnp(&pid, "grep", &actions, nullptr, const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        char out[64] = {};
        const ssize_t n = err == 0 ? read(fds[0], out, sizeof out - 1) : -1;
        close(fds[0]);
        int status = 0;
        struct rusage usage {};
        if (err != 0 || wait4(pid, &status, 0, &usage) != pid || n <= 0) {
            state.SkipWithError("grep did not run");
            return;
        }
        count = strtoull(out, nullptr, 10);
        peak = static_cast<double>(usage.ru_maxrss) / 1024;
    }
    if (count != gCam3Lines) state.SkipWithError("grep counted other lines than were written");
    state.counters["peak_rss_MiB"] = peak;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * gBytes);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const char* mib = getenv("QRNCAM_LOGREAD_BENCH_MIB");
    if (mib != nullptr) gBytes = atoll(mib) << 20;
    for (auto* b : {benchmark::RegisterBenchmark("BM_ReadSessionTags", BM_ReadSessionTags),
                    benchmark::RegisterBenchmark("BM_ReadEveryTag", BM_ReadEveryTag),
                    benchmark::RegisterBenchmark("BM_ScanSessions", BM_ScanSessions),
                    benchmark::RegisterBenchmark("BM_GrepCount", BM_GrepCount)}) {
        b->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    }
    generate(static_cast<uint64_t>(gBytes));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    unlink(kPath.c_str());
    return 0;
}
