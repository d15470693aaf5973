// Bounded stress runs, meant for the sanitizer builds (tools/test.sh stress):
// racing writers against a small budget, exit with dumps pending, a power
// service that dies and comes back under busy controllers, and the
// perf-lock library present, partial or absent under concurrent
// construction. QRNCAM_STRESS_SCALE (default 1) multiplies the rounds.
//
// The cases that must end a process run this binary again as a child, with
// QRNCAM_STRESS_CHILD set and a filter naming one StressChild case.
#include <Cam3CPUCtrl.h>
#include <CpuCtrl.h>
#include <IFileCache.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/properties.h>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <qrnhost/capture.h>
#include "FileCacheInternal.h"

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using android::sp;
using NSCam::IFileCache;

int scale() {
    const char* s = getenv("QRNCAM_STRESS_SCALE");
    int v = s != nullptr ? atoi(s) : 1;
    return v > 0 ? v : 1;
}

bool isChild() {
    return getenv("QRNCAM_STRESS_CHILD") != nullptr;
}

void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}

// Counts the file cache's refusals by their text, so that thousands of them
// do not flood the output.
std::atomic<long> gStorageRefusals{0};
void countingLogger(const struct __android_logger_data* data, const char* message) {
    if (data->priority >= ANDROID_LOG_ERROR && strstr(message, "> Storage size exceed ") != nullptr) ++gStorageRefusals;
}

// The block of cache c, index b: its bytes name it, so a block out of place
// or of another cache does not verify.
std::string block(uint32_t seed, size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((seed * 131 + i * 7) & 0xFF);
    return s;
}

TEST(Stress, RacingWritersAgainstASmallBudgetKeepEveryFileWhole) {
    __android_log_set_logger(&countingLogger);
    qrnhost::properties::reset();
    drain();
    const uint64_t start = cachedBytesUnlocked();
    qt::TempDir dir;
    const uint64_t limit = start + (4 << 20);
    property_set("vendor.debug.file_cache.storage_size", std::to_string(limit).c_str());
    constexpr int kThreads = 8, kCaches = 3;
    const int rounds = 12 * scale();
    std::atomic<bool> done{false}, over{false};
    std::thread watcher([&] {
        while (!done) over = over || cachedBytesUnlocked() > limit;
    });
    // What each file must hold: the blocks its writes accepted, in order.
    std::vector<std::vector<std::string>> expected(kThreads * rounds * kCaches);
    std::atomic<long> refused{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            std::mt19937 rng(t);
            for (int r = 0; r < rounds; ++r) {
                std::vector<sp<IFileCache>> caches;
                for (int c = 0; c < kCaches; ++c) {
                    const int id = (t * rounds + r) * kCaches + c;
                    caches.push_back(IFileCache::open(dir.file(std::to_string(id)).c_str()));
                    for (int b = 0; b < 1 + static_cast<int>(rng() % 6); ++b) {
                        const std::string data = block(id * 8 + b, 1 + rng() % (256 << 10));
                        if (caches.back()->write(data.data(), static_cast<unsigned>(data.size())) < 0)
                            ++refused;
                        else
                            expected[id].push_back(data);
                    }
                }
            }
        });
    for (auto& w : writers) w.join();
    drain();
    done = true;
    watcher.join();
    EXPECT_FALSE(over.load());
    EXPECT_EQ(start, cachedBytesUnlocked());
    EXPECT_EQ(refused.load(), gStorageRefusals.load());
    __android_log_set_logger(&__android_log_stderr_logger);
    EXPECT_GT(refused.load(), 0) << "the budget was never reached";
    uint64_t bytes = 0, blocks = 0;
    for (size_t id = 0; id < expected.size(); ++id) {
        std::string whole;
        for (const std::string& b : expected[id]) whole += b, ++blocks;
        ASSERT_TRUE(whole == qt::readFile(dir.file(std::to_string(id)))) << "file " << id;
        bytes += whole.size();
    }
    printf("racing writers: %zu caches, %llu blocks and %llu bytes verified, %ld writes refused by the budget\n",
           expected.size(), static_cast<unsigned long long>(blocks), static_cast<unsigned long long>(bytes),
           refused.load());
}

TEST(Stress, ExitWithDumpsPendingWritesEveryByte) {
    for (int round = 0; round < 3 * scale(); ++round)
        ASSERT_EQ("", qrntest::exitDumpProblem(QRNCAM_FILECACHE_CHILD)) << "round " << round;
    printf("exit with dumps pending: %d exits, 6000000 bytes each, all on storage\n", 3 * scale());
}

// Runs one StressChild case in a child process of its own.
qrntest::ChildResult runStressChild(const std::string& name, std::vector<std::string> env = {}) {
    env.push_back("QRNCAM_STRESS_CHILD=1");
    return qrntest::runChild({"/proc/self/exe", "--gtest_filter=StressChild." + name}, env);
}

// Users on several threads init, request and uninit two shared controllers
// while the power service is killed and registered again. A request whose
// value-returning call meets the dead service ends the process by the
// transport assertion, as on a device; any other end is a fault.
TEST(Stress, ServiceChurnEndsOnlyByTheTransportAssertion) {
    int completed = 0, asserted = 0;
    for (int round = 0; round < 10 * scale(); ++round) {
        // From no death at all to several, a millisecond or two apart.
        qrntest::ChildResult r = runStressChild("ServiceChurn", {"QRNCAM_STRESS_KILLS=" + std::to_string(round % 4)});
        if (WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0 &&
            r.output.find("[  PASSED  ] 1 test") != std::string::npos) {
            ++completed;
        } else if (WIFSIGNALED(r.status) && WTERMSIG(r.status) == SIGABRT &&
                   r.output.find("Attempted to retrieve value from failed HIDL call") != std::string::npos) {
            ++asserted;
        } else {
            ADD_FAILURE() << "round " << round << " ended otherwise (status " << r.status << "):\n" << r.output;
            break;
        }
    }
    printf("service churn: %d rounds completed, %d ended by the transport assertion\n", completed, asserted);
}

TEST(StressChild, ServiceChurn) {
    if (!isChild()) GTEST_SKIP() << "runs as a child of ServiceChurnEndsOnlyByTheTransportAssertion";
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    property_set("vendor.cam3dev.cpupreferidle", "1");
    qrnhost::power::startDefaultService();
    const int kills = atoi(getenv("QRNCAM_STRESS_KILLS"));
    std::thread churn([kills] {
        for (int k = 0; k < kills; ++k) {
            usleep(1000 + 500 * k);
            qrnhost::power::killDefaultService();
            usleep(100);
            qrnhost::power::startDefaultService();
        }
    });
    // One controller of each kind shared by every user, as in a camera
    // process: the deaths race users of one object.
    Utils::Cam3CPUCtrl* cam = Utils::Cam3CPUCtrl::createInstance();
    CpuCtrl* cpu = CpuCtrl::createInstance();
    std::vector<std::thread> users;
    for (int t = 0; t < 4; ++t)
        users.emplace_back([t, cam, cpu] {
            CpuCtrl::CPU_CTRL_INFO info{2, 1000, 4, 800, 1};
            for (int i = 0; i < 40; ++i) {
                cam->init(), cpu->init();
                if ((i + t) % 2 == 0) {
                    cam->enablePreferIdle(), cpu->enable(info), cpu->enableBoost(1);
                } else {
                    cam->cpuPerformanceMode(5), cpu->cpuPerformanceMode(1), cpu->resetTimeout(0);
                }
                cam->uninit(), cpu->uninit();
            }
        });
    for (auto& u : users) u.join();
    churn.join();
    // Every init was matched, whatever died in between: with no user left,
    // requests are refused.
    EXPECT_FALSE(cam->cpuPerformanceMode(1));
    EXPECT_FALSE(cpu->disable());
    cam->destroyInstance(), cpu->destroyInstance();
    qrnhost::hidl::unregisterAll();
}

// The loader's state is process-wide, so each library variant gets a
// process; in it, controllers are constructed on eight threads at once and
// must all agree on whether perf locks are there.
TEST(Stress, PerfLockLibraryPresentPartialOrAbsentUnderConcurrentConstruction) {
    qt::TempDir empty;
    const std::pair<std::string, const char*> variants[] = {
        {QRN_PERF_DIR, "1"}, {QRN_PERF_NOREL_DIR, "0"}, {QRN_PERF_NOACQ_DIR, "0"}, {empty.path(), "0"}};
    for (const auto& [dir, present] : variants) {
        qrntest::ChildResult r = runStressChild(
            "ConcurrentConstruction", {"LD_LIBRARY_PATH=" + dir, std::string("QRNCAM_STRESS_PERF=") + present});
        EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0 &&
                    r.output.find("[  PASSED  ] 1 test") != std::string::npos)
            << dir << ":\n"
            << r.output;
    }
}

TEST(StressChild, ConcurrentConstruction) {
    if (!isChild())
        GTEST_SKIP() << "runs as a child of PerfLockLibraryPresentPartialOrAbsentUnderConcurrentConstruction";
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    const bool present = strcmp(getenv("QRNCAM_STRESS_PERF"), "1") == 0;
    for (int round = 0; round < 5 * scale(); ++round) {
        std::atomic<int> waiting{8}, agreed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&] {
                for (--waiting; waiting.load() > 0;) std::this_thread::yield();
                Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
                if (c->enterCPUBoost(10) == present && c->exitCPUBoost()) ++agreed;
                c->destroyInstance();
            });
        for (auto& t : threads) t.join();
        ASSERT_EQ(8, agreed.load()) << "round " << round;
    }
}

}  // namespace
