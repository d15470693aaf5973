// The file cache: files in write order, the budget and its properties, the
// log lines, storage and allocation faults, racing writers, and dumps still
// queued at exit.
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <IFileCache.h>
#include <cutils/properties.h>
#include <qrncam/utils/TestLog.h>
#include <qrnhost/properties.h>
#include <thread>

#include "Capture.h"
#include "FileCacheInternal.h"

// Allocation interposer (-Wl,--wrap): a test arms one failure of a given
// size; the first matching call fails and disarms it.
extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t n, size_t size);
static std::atomic<size_t> gFailMalloc{0}, gFailCalloc{0};
extern "C" void* __wrap_malloc(size_t size) {
    size_t armed = size;
    return size != 0 && gFailMalloc.compare_exchange_strong(armed, 0) ? nullptr : __real_malloc(size);
}
extern "C" void* __wrap_calloc(size_t n, size_t size) {
    size_t armed = n * size;
    return armed != 0 && gFailCalloc.compare_exchange_strong(armed, 0) ? nullptr : __real_calloc(n, size);
}

namespace {

using android::sp;
using NSCam::IFileCache;
using qrntest::readFile;
using qrntest::Sink;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

uint64_t cached() {
    return gCachedBytes.load();
}
void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}
std::string bytes(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i % 23);
    return s;
}
int put(const sp<IFileCache>& fc, const std::string& s) {
    return fc->write(s.data(), static_cast<unsigned>(s.size()));
}
bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}
// An ERROR line: the text, then " (function){#line:utils/sys/FileCache.cpp}".
::testing::Matcher<std::string> error(const std::string& text, const std::string& function) {
    return MatchesRegex(text + " \\(" + function + "\\)\\{#[0-9]+:utils/sys/FileCache\\.cpp\\}");
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
    }
    std::vector<std::string> lines() const { return mCap.texts(Sink::Android, "file_cache"); }
    std::string file(const std::string& name) const { return mDir.file(name); }

    qrntest::TempDir mDir;
    qrntest::Capture mCap;
    uint64_t mStart = 0;
};

TEST_F(FileCacheTest, FilesHoldTheirBlocksInWriteOrderOnlyOnceDropped) {
    std::string a = bytes(100, 'a'), b = bytes(70000, 'b');
    qrntest::writeFile(file("empty"), "old content");
    IFileCache::open(file("empty").c_str());  // dropped at once: truncates
    std::string longName = mDir.path() + "/" + std::string(250, 'n') + "TAIL";
    sp<IFileCache> second = IFileCache::open(file("same").c_str());
    {
        sp<IFileCache> fc = IFileCache::open(file("three").c_str());
        sp<IFileCache> first = IFileCache::open(file("same").c_str());
        sp<IFileCache> cut = IFileCache::open(longName.c_str());
        EXPECT_EQ(100, put(fc, a));
        EXPECT_EQ(70000, put(fc, b));
        EXPECT_EQ(0, fc->write(nullptr, 0));  // charges nothing, writes nothing
        EXPECT_EQ(3, put(fc, "end"));
        EXPECT_EQ(mStart + 70103, cached());
        put(first, "first, dropped first");
        put(second, "second");
        put(cut, "cut");
        drain();
        EXPECT_FALSE(exists(file("three")));  // nothing reaches storage while alive
    }
    second.clear();
    drain();
    EXPECT_EQ(a + b + "end", readFile(file("three")));
    EXPECT_EQ("", readFile(file("empty")));
    EXPECT_EQ("second", readFile(file("same")));  // flushed last, with "wb"
    EXPECT_EQ("cut", readFile(longName.substr(0, 255)));
    EXPECT_EQ(mStart, cached());
    EXPECT_TRUE(lines().empty());
}

TEST_F(FileCacheTest, BudgetIsReloadedByEveryNewCacheAndComparedUnsigned) {
    constexpr uint64_t kMiB = 1 << 20;
    const uint64_t limit = mStart + 3 * kMiB;
    property_set("vendor.debug.file_cache.storage_size", std::to_string(limit).c_str());
    sp<IFileCache> fc = IFileCache::open(file("budget").c_str());
    EXPECT_EQ(static_cast<int>(2 * kMiB), put(fc, bytes(2 * kMiB, 'x')));
    EXPECT_EQ(-1, put(fc, bytes(2 * kMiB, 'x')));
    EXPECT_EQ(static_cast<int>(kMiB), put(fc, bytes(kMiB, 'y')));  // exactly full
    EXPECT_EQ(-1, put(fc, "z"));
    // The message shows what is cached without the refused block, then the limit, in MB.
    auto exceed = [&](uint64_t total) {
        return error("<" + file("budget") + "> Storage size exceed " + std::to_string(total >> 20) + "MB/" +
                         std::to_string(limit >> 20) + "MB",
                     "write");
    };
    EXPECT_THAT(lines(), ElementsAre(exceed(mStart + 2 * kMiB), exceed(limit)));

    property_set("vendor.debug.file_cache.storage_size", std::to_string(limit + 1).c_str());
    EXPECT_EQ(-1, put(fc, "z"));  // not read again until a new cache is made
    IFileCache::open(file("other").c_str());
    EXPECT_EQ(1, put(fc, "z"));

    // Near the default budget, a negative limit lifts it altogether.
    qrnhost::properties::reset();
    IFileCache::open(file("other").c_str());
    const uint64_t busy = (1ull << 30) - cached();
    gCachedBytes += busy;
    int withDefault = put(fc, bytes(100, 'a'));
    property_set("vendor.debug.file_cache.storage_size", "-1");
    IFileCache::open(file("other").c_str());
    int withNegative = put(fc, bytes(100, 'a'));
    gCachedBytes -= busy;
    EXPECT_EQ(-1, withDefault);
    EXPECT_EQ(100, withNegative);
}

TEST_F(FileCacheTest, LogFlagSwitchesTheInfoAndDebugLines) {
    static std::atomic<int> asked;
    asked = 0;
    qrncam::stdutils::setTestLogHook([](const char*, int) { return ++asked, 1; });
    put(IFileCache::open(file("quiet").c_str()), "abc");
    drain();
    EXPECT_EQ(0, asked.load());  // the flag is tested before qrncam_testLog

    property_set("vendor.debug.file_cache.log", "1");
    const std::string name = file("logged"), preview = bytes(100, 'A').substr(0, 32);
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        put(fc, "abc");
        put(fc, std::string("\x01\x02xy\n", 5));
        put(fc, bytes(100, 'A'));
    }
    drain();
    // The Dealloc line races with the flush by design: each thread's lines
    // are checked in their own order.
    const int me = static_cast<int>(syscall(SYS_gettid)), I = ANDROID_LOG_INFO, D = ANDROID_LOG_DEBUG;
    std::vector<std::pair<int, std::string>> caller, worker;
    for (auto& x : mCap.records(Sink::Android)) (x.tid == me ? caller : worker).emplace_back(x.priority, x.text);
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{{I, "Initialize FileCache <" + name + ">"},
                                                        {D, "<" + name + "> Write 3 bytes to memory"},
                                                        {D, "<" + name + "> Write 5 bytes to memory"},
                                                        {D, "<" + name + "> Write 100 bytes to memory"},
                                                        {I, "<" + name + "> Dealloc of FileCache"}}),
              caller);
    // Chunk data shows in the name slot as a bounded printable preview.
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{
                  {D, "<abc> write 3 bytes to file (0/3)"},
                  {D, "<..xy.> write 5 bytes to file (1/3)"},
                  {D, "<" + preview + "> write 100 bytes to file (2/3)"},
                  {D, "<abc> free 3 bytes (0/3)"},
                  {D, "<..xy.> free 5 bytes (1/3)"},
                  {D, "<" + preview + "> free 100 bytes (2/3)"},
                  {I, "<" + name + "> write done, (remain = " + std::to_string(mStart >> 10) + " KB)"}}),
              worker);
}

TEST_F(FileCacheTest, NullNameAndErrorSwitch) {
    qrncam::stdutils::setTestLogHook([](const char*, int level) { return level == 'E' ? 0 : 1; });
    EXPECT_EQ(nullptr, IFileCache::open(nullptr).get());
    EXPECT_TRUE(lines().empty());
    qrncam::stdutils::setTestLogHook(nullptr);
    EXPECT_EQ(nullptr, IFileCache::open(nullptr).get());
    EXPECT_THAT(lines(), ElementsAre(error("File name is NULL\n", "open")));
}

TEST_F(FileCacheTest, StorageFaultsAreLoggedAndEveryBlockIsStillCredited) {
    const std::string missing = file("no/such/dir");
    put(IFileCache::open(missing.c_str()), bytes(5000, 'a'));
    {
        // Blocks larger than the stream buffer go straight to the device.
        sp<IFileCache> full = IFileCache::open("/dev/full");
        put(full, bytes(64 << 10, 'a'));
        put(full, bytes(128 << 10, 'b'));
    }
    drain();
    EXPECT_EQ(mStart, cached());
    auto shortWrite = error("</dev/full> write error!!!", "operator\\(\\)");
    EXPECT_THAT(lines(), ElementsAre(error("Fail to open physical file <" + missing + ">", "operator\\(\\)"),
                                     shortWrite, shortWrite));
}

TEST_F(FileCacheTest, AllocationFailures) {
    // A failed block keeps its charge for good; the cache carries on.
    constexpr size_t kOdd = 123457;
    {
        sp<IFileCache> fc = IFileCache::open(file("nomem").c_str());
        put(fc, "before");
        gFailMalloc = kOdd;
        EXPECT_EQ(-1, put(fc, bytes(kOdd, 'x')));
        EXPECT_EQ(0u, gFailMalloc.load()) << "no allocation of that size was made";
        put(fc, "after");
    }
    // Without a name block the cache refuses writes and flushes nothing.
    gFailCalloc = 256;
    sp<IFileCache> noName = IFileCache::open(file("noname").c_str());
    ASSERT_NE(nullptr, noName.get());
    EXPECT_EQ(0u, gFailCalloc.load());
    EXPECT_EQ(-1, put(noName, "data"));
    noName.clear();
    drain();
    EXPECT_EQ("beforeafter", readFile(file("nomem")));
    EXPECT_FALSE(exists(file("noname")));
    EXPECT_EQ(mStart + kOdd, cached());
    EXPECT_THAT(lines(), ElementsAre(error("<" + file("nomem") + "> Fail to allocate memory", "write"),
                                     error("<" + file("noname") + "> calloc fail", "FileCache")));
}

TEST_F(FileCacheTest, RacingWritersNeverOverrunTheBudget) {
    const uint64_t limit = mStart + (4 << 20);
    property_set("vendor.debug.file_cache.storage_size", std::to_string(limit).c_str());
    qrncam::stdutils::setTestLogHook([](const char*, int) { return 0; });  // thousands of refusals
    // Nothing is credited until every writer is done, so the limit is reached.
    std::promise<void> hold;
    (void)gFileCacheQueue.addJob([f = hold.get_future().share()] { f.wait(); }, 0);
    std::atomic<bool> done{false}, over{false};
    std::atomic<uint64_t> accepted{0};
    std::thread watcher([&] {
        while (!done) over = over || cached() > limit, std::this_thread::yield();
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 6; ++t)
        writers.emplace_back([&, t] {
            const std::string block = bytes(48 << 10, static_cast<char>('a' + t));
            for (int c = 0; c < 4; ++c) {
                sp<IFileCache> fc = IFileCache::open(file(std::to_string(t * 4 + c)).c_str());
                for (int w = 0; w < 24; ++w) accepted += std::max(put(fc, block), 0);
            }
        });
    for (auto& w : writers) w.join();
    EXPECT_EQ(mStart + accepted, cached());
    EXPECT_LT(accepted.load(), 6u * 4 * 24 * (48 << 10));  // some were refused
    hold.set_value();
    drain();
    done = true;
    watcher.join();
    EXPECT_FALSE(over.load());
    EXPECT_EQ(mStart, cached());
    uint64_t onDisk = 0;
    for (int i = 0; i < 24; ++i) onDisk += readFile(file(std::to_string(i))).size();
    EXPECT_EQ(accepted.load(), onDisk);
}

TEST_F(FileCacheTest, DumpsStillQueuedAtExitReachStorageComplete) {
    qrntest::ChildResult r = qrntest::runChild({QRNCAM_FILECACHE_CHILD, "dump", mDir.path(), "5", "4", "300000"});
    ASSERT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    EXPECT_THAT(r.output, ::testing::HasSubstr("pending=6000000"));  // every block still cached at exit()
    for (int c = 0; c < 5; ++c) {
        std::string expected;
        for (int b = 0; b < 4; ++b)
            for (size_t i = 0; i < 300000; ++i) expected.push_back(static_cast<char>(c * 31 + b * 7 + i % 251));
        EXPECT_TRUE(expected == readFile(file("dump" + std::to_string(c) + ".bin"))) << "cache " << c;
    }
}

}  // namespace
