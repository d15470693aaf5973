// The file cache: its messages, the budget and its properties, files in
// write order, storage and allocation faults, racing writers, and dumps that
// are still queued at exit.
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <IFileCache.h>
#include <cutils/properties.h>
#include <qrncam/utils/TestLog.h>
#include <qrnhost/properties.h>
#include <atomic>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Capture.h"
#include "FileCacheInternal.h"

// Allocation interposer: every malloc/calloc of the linked objects comes
// here (-Wl,--wrap). A test arms one failure for a given size; the first
// matching call on any thread fails and disarms it.
extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t n, size_t size);
namespace {
std::atomic<size_t> gFailMallocSize{0};
std::atomic<size_t> gFailCallocSize{0};
}  // namespace
extern "C" void* __wrap_malloc(size_t size) {
    size_t armed = size;
    if (size != 0 && gFailMallocSize.compare_exchange_strong(armed, 0)) return nullptr;
    return __real_malloc(size);
}
extern "C" void* __wrap_calloc(size_t n, size_t size) {
    size_t armed = n * size;
    if (armed != 0 && gFailCallocSize.compare_exchange_strong(armed, 0)) return nullptr;
    return __real_calloc(n, size);
}

namespace {

using android::sp;
using NSCam::IFileCache;
using qrntest::Capture;
using qrntest::Sink;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr const char* kLogProp = "vendor.debug.file_cache.log";
constexpr const char* kSizeProp = "vendor.debug.file_cache.storage_size";

// Waits until every flush queued so far has run.
void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}
uint64_t cached() {
    return gCachedBytes.load();
}
std::string bytes(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i % 23);
    return s;
}
int put(const sp<IFileCache>& fc, const std::string& s) {
    return fc->write(s.data(), static_cast<unsigned>(s.size()));
}
// ERROR lines carry " (function){#line:utils/sys/FileCache.cpp}".
std::string withSuffix(const std::string& textRegex, const std::string& function) {
    return textRegex + " \\(" + function + "\\)\\{#[0-9]+:utils/sys/FileCache\\.cpp\\}";
}

class FileCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qrnhost::properties::reset();
        drain();
        mStart = cached();
    }
    void TearDown() override {
        drain();
        qrnhost::properties::reset();
        qrncam::stdutils::setTestLogHook(nullptr);
        gFailMallocSize = 0;
        gFailCallocSize = 0;
    }
    // A fresh cache with the budget set to start + extra bytes.
    void limitTo(uint64_t extra) { property_set(kSizeProp, std::to_string(mStart + extra).c_str()); }

    qrntest::TempDir mDir;
    uint64_t mStart = 0;
};

TEST_F(FileCacheTest, BlocksReachTheFileInWriteOrderAndTheBudgetComesBack) {
    std::string a = bytes(100, 'a'), b = bytes(70000, 'b'), c = bytes(3, 'c');
    {
        sp<IFileCache> fc = IFileCache::open(mDir.file("three").c_str());
        ASSERT_NE(nullptr, fc.get());
        EXPECT_EQ(100, put(fc, a));
        EXPECT_EQ(70000, put(fc, b));
        EXPECT_EQ(3, put(fc, c));
        EXPECT_EQ(mStart + 70103, cached());
        drain();
        // Nothing touches storage while the cache is alive.
        struct stat st;
        EXPECT_NE(0, stat(mDir.file("three").c_str(), &st));
    }
    drain();
    EXPECT_EQ(a + b + c, qrntest::readFile(mDir.file("three")));
    EXPECT_EQ(mStart, cached());
}

TEST_F(FileCacheTest, EmptyCachesAndZeroSizedBlocksLeaveEmptyOrUnchangedFiles) {
    qrntest::writeFile(mDir.file("old"), "previous content");
    IFileCache::open(mDir.file("old").c_str());  // dropped at once: truncates
    {
        sp<IFileCache> fc = IFileCache::open(mDir.file("zero").c_str());
        EXPECT_EQ(0, fc->write("x", 0));
        EXPECT_EQ(mStart, cached());
        EXPECT_EQ(2, put(fc, "ok"));
        EXPECT_EQ(0, fc->write(nullptr, 0));
    }
    drain();
    EXPECT_EQ("", qrntest::readFile(mDir.file("old")));
    EXPECT_EQ("ok", qrntest::readFile(mDir.file("zero")));
    EXPECT_EQ(mStart, cached());
}

TEST_F(FileCacheTest, CachesForOneNameFlushInTheOrderTheyAreDropped) {
    sp<IFileCache> first = IFileCache::open(mDir.file("same").c_str());
    sp<IFileCache> second = IFileCache::open(mDir.file("same").c_str());
    put(second, "second");
    put(first, "first, longer than the second");
    first.clear();
    second.clear();
    drain();
    EXPECT_EQ("second", qrntest::readFile(mDir.file("same")));
}

TEST_F(FileCacheTest, LongNamesAreCutTo255Characters) {
    std::string full = mDir.path() + "/" + std::string(250, 'n') + "TAIL";
    ASSERT_GT(full.size(), 255u);
    std::string cut = full.substr(0, 255);
    {
        sp<IFileCache> fc = IFileCache::open(full.c_str());
        put(fc, "data");
    }
    drain();
    EXPECT_EQ("data", qrntest::readFile(cut));
    struct stat st;
    EXPECT_NE(0, stat(full.c_str(), &st));
}

TEST_F(FileCacheTest, BudgetAllowsReachingTheLimitExactlyAndRefusesMore) {
    Capture cap;
    constexpr uint64_t kMiB = 1 << 20;
    ASSERT_LT(mStart, kMiB);  // so the message's MB figures are predictable
    limitTo(3 * kMiB - mStart - 100);
    sp<IFileCache> fc = IFileCache::open(mDir.file("budget").c_str());
    std::string two = bytes(2 * kMiB, 'x');
    EXPECT_EQ(static_cast<int>(2 * kMiB), put(fc, two));
    std::string rest = bytes(kMiB - 100 - mStart, 'y');
    EXPECT_EQ(static_cast<int>(rest.size()), put(fc, rest));  // exactly at the limit
    EXPECT_EQ(-1, put(fc, "z"));
    EXPECT_EQ(3 * kMiB - 100, cached());
    // The totals are shown in MB: what is cached without the refused block,
    // and the limit.
    EXPECT_THAT(
        cap.texts(Sink::Android, "file_cache"),
        ElementsAre(MatchesRegex(withSuffix("<" + mDir.file("budget") + "> Storage size exceed 2MB/2MB", "write"))));
    fc.clear();
    drain();
    EXPECT_EQ(mStart, cached());
    EXPECT_EQ(two + rest, qrntest::readFile(mDir.file("budget")));
}

TEST_F(FileCacheTest, EveryNewCacheReloadsTheLimitForTheWholeProcess) {
    limitTo(1000);
    sp<IFileCache> early = IFileCache::open(mDir.file("early").c_str());
    EXPECT_EQ(-1, put(early, bytes(1001, 'a')));
    limitTo(5000);
    EXPECT_EQ(-1, put(early, bytes(1001, 'a')));  // not read again until a new cache
    sp<IFileCache> late = IFileCache::open(mDir.file("late").c_str());
    EXPECT_EQ(1001, put(early, bytes(1001, 'a')));
    EXPECT_EQ(1001, put(late, bytes(1001, 'b')));
}

TEST_F(FileCacheTest, NegativeLimitLiftsTheBudget) {
    // Pretend almost the whole default budget is in use.
    constexpr uint64_t kBusy = (1ull << 30) - 10;
    pthread_mutex_lock(gCachedBytesLock);
    gCachedBytes += kBusy;
    pthread_mutex_unlock(gCachedBytesLock);
    sp<IFileCache> fc = IFileCache::open(mDir.file("neg").c_str());
    int withDefault = put(fc, bytes(100, 'a'));
    property_set(kSizeProp, "-1");
    sp<IFileCache> fc2 = IFileCache::open(mDir.file("neg2").c_str());
    int withNegative = put(fc, bytes(100, 'a'));
    pthread_mutex_lock(gCachedBytesLock);
    gCachedBytes -= kBusy;
    pthread_mutex_unlock(gCachedBytesLock);
    EXPECT_EQ(-1, withDefault);
    EXPECT_EQ(100, withNegative);
}

TEST_F(FileCacheTest, LogFlagSwitchesInfoAndDebugLinesWithTheirTexts) {
    static std::atomic<int> asked;
    asked = 0;
    qrncam::stdutils::setTestLogHook([](const char*, int) {
        ++asked;
        return 1;
    });
    std::string name = mDir.file("logged");
    {
        Capture cap;
        {
            sp<IFileCache> fc = IFileCache::open(name.c_str());
            put(fc, "abc");
        }
        drain();
        EXPECT_TRUE(cap.texts(Sink::Android, "file_cache").empty());
        EXPECT_EQ(0, asked.load());  // the flag is tested first
    }

    property_set(kLogProp, "1");
    Capture cap;
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        put(fc, "abc");
        put(fc, std::string("\x01\x02xy\n", 5));
        put(fc, bytes(100, 'A'));
    }
    drain();
    // The destructor's line may come before, between or after the flush's
    // lines: each thread's lines are checked in their own order.
    const int me = static_cast<int>(syscall(SYS_gettid));
    std::vector<std::pair<int, std::string>> caller, worker;
    for (auto& x : cap.records(Sink::Android))
        if (x.tag == "file_cache") (x.tid == me ? caller : worker).emplace_back(x.priority, x.text);
    // Chunk data shows in the name slot as a bounded printable preview.
    std::string preview = bytes(100, 'A').substr(0, 32);
    const int I = ANDROID_LOG_INFO, D = ANDROID_LOG_DEBUG;
    std::vector<std::pair<int, std::string>> expectedCaller = {
        {I, "Initialize FileCache <" + name + ">"},    {D, "<" + name + "> Write 3 bytes to memory"},
        {D, "<" + name + "> Write 5 bytes to memory"}, {D, "<" + name + "> Write 100 bytes to memory"},
        {I, "<" + name + "> Dealloc of FileCache"},
    };
    std::vector<std::pair<int, std::string>> expectedWorker = {
        {D, "<abc> write 3 bytes to file (0/3)"},
        {D, "<..xy.> write 5 bytes to file (1/3)"},
        {D, "<" + preview + "> write 100 bytes to file (2/3)"},
        {D, "<abc> free 3 bytes (0/3)"},
        {D, "<..xy.> free 5 bytes (1/3)"},
        {D, "<" + preview + "> free 100 bytes (2/3)"},
        {I, "<" + name + "> write done, (remain = " + std::to_string(mStart >> 10) + " KB)"},
    };
    EXPECT_EQ(expectedCaller, caller);
    EXPECT_EQ(expectedWorker, worker);
    EXPECT_GT(asked.load(), 0);
}

TEST_F(FileCacheTest, ErrorLinesFollowTheTestLogSwitch) {
    qrncam::stdutils::setTestLogHook([](const char*, int level) { return level == 'E' ? 0 : 1; });
    Capture cap;
    EXPECT_EQ(nullptr, IFileCache::open(nullptr).get());
    EXPECT_TRUE(cap.texts(Sink::Android, "file_cache").empty());
    qrncam::stdutils::setTestLogHook(nullptr);
    EXPECT_EQ(nullptr, IFileCache::open(nullptr).get());
    EXPECT_THAT(cap.texts(Sink::Android, "file_cache"),
                ElementsAre(MatchesRegex(withSuffix("File name is NULL\n", "open"))));
}

TEST_F(FileCacheTest, UnopenableFileLogsAndStillFreesEveryBlock) {
    Capture cap;
    std::string name = mDir.file("missing/dir/file");
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        put(fc, bytes(5000, 'a'));
        put(fc, bytes(7000, 'b'));
        EXPECT_EQ(mStart + 12000, cached());
    }
    drain();
    EXPECT_EQ(mStart, cached());
    EXPECT_THAT(cap.texts(Sink::Android, "file_cache"),
                ElementsAre(MatchesRegex(withSuffix("Fail to open physical file <" + name + ">", "operator\\(\\)"))));
}

TEST_F(FileCacheTest, ShortWritesAreLoggedPerBlockAndTheRestStillRuns) {
    Capture cap;
    {
        sp<IFileCache> fc = IFileCache::open("/dev/full");
        // Blocks larger than the stream buffer go straight to the device.
        put(fc, bytes(64 << 10, 'a'));
        put(fc, bytes(128 << 10, 'b'));
    }
    drain();
    EXPECT_EQ(mStart, cached());
    std::string line = withSuffix("</dev/full> write error!!!", "operator\\(\\)");
    EXPECT_THAT(cap.texts(Sink::Android, "file_cache"), ElementsAre(MatchesRegex(line), MatchesRegex(line)));
}

TEST_F(FileCacheTest, FailedBlockAllocationReturnsMinusOneAndKeepsTheCharge) {
    Capture cap;
    constexpr size_t kOdd = 123457;  // a size nothing else allocates
    std::string name = mDir.file("nomem");
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        put(fc, "before");
        gFailMallocSize = kOdd;
        EXPECT_EQ(-1, put(fc, bytes(kOdd, 'x')));
        EXPECT_EQ(0u, gFailMallocSize.load()) << "the allocation was not attempted";
        put(fc, "after");
    }
    drain();
    EXPECT_EQ("beforeafter", qrntest::readFile(name));
    EXPECT_EQ(mStart + kOdd, cached());
    EXPECT_THAT(cap.texts(Sink::Android, "file_cache"),
                ElementsAre(MatchesRegex(withSuffix("<" + name + "> Fail to allocate memory", "write"))));
}

TEST_F(FileCacheTest, CacheWithoutANameBlockRefusesWritesAndFlushesNothing) {
    Capture cap;
    std::string name = mDir.file("noname");
    gFailCallocSize = 256;
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        ASSERT_NE(nullptr, fc.get());
        EXPECT_EQ(0u, gFailCallocSize.load());
        EXPECT_EQ(-1, put(fc, "data"));
        EXPECT_EQ(mStart, cached());
    }
    drain();
    struct stat st;
    EXPECT_NE(0, stat(name.c_str(), &st));
    EXPECT_THAT(cap.texts(Sink::Android, "file_cache"),
                ElementsAre(MatchesRegex(withSuffix("<" + name + "> calloc fail", "FileCache"))));
}

TEST_F(FileCacheTest, RacingWritersNeverOverrunTheBudget) {
    constexpr uint64_t kLimit = 4 << 20;
    constexpr int kThreads = 6, kCachesPerThread = 4, kWrites = 24;
    constexpr unsigned kBlock = 48 << 10;
    limitTo(kLimit);
    // Keep the worker from crediting anything until every writer is done, so
    // the limit really is reached.
    std::promise<void> hold;
    std::shared_future<void> held = hold.get_future().share();
    (void)gFileCacheQueue.addJob([held] { held.wait(); }, 0);

    std::atomic<bool> done{false}, over{false};
    std::atomic<uint64_t> accepted{0};
    std::atomic<int> refused{0};
    std::thread watcher([&] {
        while (!done) {
            if (cached() > mStart + kLimit) over = true;
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            std::string block = bytes(kBlock, static_cast<char>('a' + t));
            for (int c = 0; c < kCachesPerThread; ++c) {
                sp<IFileCache> fc =
                    IFileCache::open(mDir.file("race" + std::to_string(t) + "_" + std::to_string(c)).c_str());
                for (int w = 0; w < kWrites; ++w) {
                    int n = put(fc, block);
                    if (n < 0)
                        ++refused;
                    else
                        accepted += static_cast<uint64_t>(n);
                }
            }
        });
    }
    for (auto& w : writers) w.join();
    EXPECT_LE(cached(), mStart + kLimit);
    EXPECT_EQ(mStart + accepted, cached());
    hold.set_value();
    drain();
    done = true;
    watcher.join();
    EXPECT_FALSE(over.load());
    EXPECT_GT(refused.load(), 0);
    EXPECT_EQ(mStart, cached());
    uint64_t onDisk = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCachesPerThread; ++c)
            onDisk += qrntest::readFile(mDir.file("race" + std::to_string(t) + "_" + std::to_string(c))).size();
    EXPECT_EQ(accepted.load(), onDisk);
}

TEST_F(FileCacheTest, DumpsStillQueuedAtExitReachStorageComplete) {
    constexpr int kCaches = 5, kBlocks = 4;
    constexpr size_t kSize = 300000;
    qrntest::ChildResult r = qrntest::runChild({QRNCAM_FILECACHE_CHILD, "dump", mDir.path(), std::to_string(kCaches),
                                                std::to_string(kBlocks), std::to_string(kSize)});
    ASSERT_TRUE(WIFEXITED(r.status)) << r.output;
    ASSERT_EQ(0, WEXITSTATUS(r.status)) << r.output;
    // The child called exit with every block still cached.
    EXPECT_NE(std::string::npos, r.output.find("pending=" + std::to_string(kCaches * kBlocks * kSize))) << r.output;
    for (int c = 0; c < kCaches; ++c) {
        std::string expected;
        for (int b = 0; b < kBlocks; ++b)
            for (size_t i = 0; i < kSize; ++i) expected.push_back(static_cast<char>(c * 31 + b * 7 + i % 251));
        EXPECT_TRUE(expected == qrntest::readFile(mDir.file("dump" + std::to_string(c) + ".bin"))) << "cache " << c;
    }
}

}  // namespace
