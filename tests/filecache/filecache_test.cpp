// The file cache: files in write order and their log lines, storage and
// allocation faults, the budget under racing writers, and dumps still queued
// at exit.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <IFileCache.h>
#include <cutils/properties.h>
#include <qrnhost/properties.h>
#include <thread>

#include "AllocFault.h"
#include "Capture.h"
#include "FileCacheInternal.h"

namespace {

using android::sp;
using NSCam::IFileCache;

void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}
int put(const sp<IFileCache>& fc, const std::string& s) {
    return fc->write(s.data(), static_cast<unsigned>(s.size()));
}
// An ERROR line: the text, then " (function){#line:utils/sys/FileCache.cpp}".
::testing::Matcher<std::string> error(const std::string& text, const std::string& function) {
    return ::testing::MatchesRegex(text + " \\(" + function + "\\)\\{#[0-9]+:utils/sys/FileCache\\.cpp\\}");
}

class FileCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qrnhost::properties::reset();
        drain();
        mStart = gCachedBytes.load();
    }
    void TearDown() override { drain(); }
    std::vector<std::string> lines() const { return mCap.texts(qrntest::Sink::Android, "file_cache"); }
    std::string file(const std::string& name) const { return mDir.file(name); }

    qrntest::TempDir mDir;
    qrntest::Capture mCap;
    uint64_t mStart = 0;
};

TEST_F(FileCacheTest, FilesHoldTheirBlocksInWriteOrderOnlyOnceDropped) {
    property_set("vendor.debug.file_cache.log", "1");
    const std::string name = file("three"), odd("\x01\x02xy\n", 5), big(100, 'A');
    // The name block holds 255 characters: a longer name is cut, never overrun.
    const std::string longName = mDir.path() + "/" + std::string(250, 'n') + "TAIL";
    qrntest::writeFile(name, std::string(200, 'o'));
    {
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        put(fc, "abc"), fc->write(nullptr, 0), put(fc, odd), put(fc, big);
        put(IFileCache::open(longName.c_str()), "cut");
        drain();
        EXPECT_EQ(std::string(200, 'o'), qrntest::readFile(name));  // nothing reaches storage while alive
    }
    drain();
    EXPECT_EQ("abc" + odd + big, qrntest::readFile(name));  // replaces the old, longer content
    EXPECT_EQ("cut", qrntest::readFile(longName.substr(0, 255)));
    // Chunk data shows as a bounded, printable preview of the chunk's own
    // bytes; the lines written as the object goes use a copy of the name.
    EXPECT_THAT(lines(),
                ::testing::IsSupersetOf(std::vector<std::string>{
                    "<abc> write 3 bytes to file (0/4)", "<..xy.> write 5 bytes to file (2/4)",
                    "<" + big.substr(0, 32) + "> free 100 bytes (3/4)", "<" + name + "> Dealloc of FileCache"}));
    EXPECT_THAT(lines(), ::testing::Contains(::testing::StartsWith("<" + name + "> write done, (remain = ")));
}

TEST_F(FileCacheTest, FaultsAreLoggedAndEveryBlockIsCreditedUnlessItsAllocationFailed) {
    const std::string missing = file("no/such/dir"), nomem = file("nomem");
    property_set("vendor.debug.file_cache.storage_size", "-1");  // compared unsigned: lifts the budget
    EXPECT_EQ(nullptr, IFileCache::open(nullptr).get());
    // A failed block keeps its charge for good.
    constexpr size_t kOdd = 123457;
    const std::string odd(kOdd, 'x');
    sp<IFileCache> fc = IFileCache::open(nomem.c_str());
    {
        qrntest::AllocFault fault(1);  // the block's own allocation
        EXPECT_EQ(-1, put(fc, odd));
        EXPECT_EQ(kOdd, fault.failedMallocSize());
    }
    // Blocks the int result cannot report are refused before any charge.
    char byte = 0;
    EXPECT_EQ(-1, fc->write(&byte, 0x80000000u));
    EXPECT_EQ(-1, fc->write(&byte, 0xFFFFFFFFu));
    // Storage faults. Blocks larger than the stream buffer go straight to the
    // device; small ones fail only when the file is closed.
    put(IFileCache::open(missing.c_str()), std::string(5000, 'a'));
    fc = IFileCache::open("/dev/full");
    put(fc, std::string(64 << 10, 'a')), put(fc, std::string(128 << 10, 'b'));
    fc = IFileCache::open("/dev/full");
    put(fc, std::string(100, 'c')), put(fc, std::string(100, 'd'));
    fc.clear();
    drain();
    EXPECT_EQ(mStart + kOdd, gCachedBytes.load());
    auto worker = [](const std::string& text) { return error(text, "operator\\(\\)"); };
    EXPECT_THAT(lines(),
                ::testing::ElementsAre(
                    error("File name is NULL\n", "open"), error("<" + nomem + "> Fail to allocate memory", "write"),
                    error("<" + nomem + "> Write size 2147483648 exceeds 2147483647 bytes", "write"),
                    error("<" + nomem + "> Write size 4294967295 exceeds 2147483647 bytes", "write"),
                    worker("Fail to open physical file <" + missing + ">"), worker("</dev/full> write error!!!"),
                    worker("</dev/full> write error!!!"), worker("</dev/full> write error!!!")));
}

// Memory running out at any allocation of open, write or the drop of a
// cache: each is a clean, reported failure of that call (null, -1) or, for
// the drop, a flush on the caller's thread. No exception leaves the library,
// no lock stays held (the next write on the cache goes through), the file
// holds exactly the blocks that were accepted, and the budget is back where
// it was but for a block whose own allocation failed, which keeps its charge.
TEST_F(FileCacheTest, AllocationFailuresAnywhereInOpenWriteAndDropFailCleanly) {
    if (!qrntest::AllocFault::available()) GTEST_SKIP() << "operator new cannot be made to fail here";
    const std::string first = "first", second = "second!";
    bool openFailed = false, cacheUnusable = false, blockFailed = false, appendFailed = false, dropFailed = false;
    long n = 1;
    for (;; ++n) {
        const std::string name = file(std::to_string(n));
        const uint64_t before = gCachedBytes.load();
        mCap.clear();
        qrntest::AllocFault fault(n);
        sp<IFileCache> fc = IFileCache::open(name.c_str());
        const int w1 = fc != nullptr ? put(fc, first) : 0;
        const int w2 = fc != nullptr ? put(fc, second) : 0;
        fc.clear();
        const bool fired = fault.fired();
        const size_t failedMalloc = fault.failedMallocSize();
        fault.disarm();
        drain();
        SCOPED_TRACE("allocation " + std::to_string(n));

        const bool opened = w1 != 0;
        const bool unusable = opened && w1 == -1 && w2 == -1;
        EXPECT_TRUE(!opened || w1 == -1 || w1 == int(first.size())) << w1;
        EXPECT_TRUE(!opened || w2 == -1 || w2 == int(second.size())) << w2;
        EXPECT_EQ(before + (failedMalloc == first.size() || failedMalloc == second.size() ? failedMalloc : 0),
                  gCachedBytes.load());
        const std::string want = (w1 > 0 ? first : "") + (w2 > 0 ? second : "");
        EXPECT_EQ(opened && !unusable, access(name.c_str(), F_OK) == 0);
        EXPECT_EQ(want, qrntest::readFile(name));
        if (!opened || w1 == -1 || w2 == -1) {  // a failed call says so, with the file's name
            EXPECT_THAT(lines(), ::testing::Contains(::testing::HasSubstr("<" + name + ">")));
        }
        openFailed |= !opened, cacheUnusable |= unusable;
        const bool writeFailed = !unusable && (w1 == -1 || w2 == -1);
        blockFailed |= writeFailed && failedMalloc != 0, appendFailed |= writeFailed && failedMalloc == 0;
        dropFailed |= fired && w1 > 0 && w2 > 0;
        if (!fired || HasFailure()) break;
    }
    EXPECT_TRUE(openFailed && cacheUnusable && blockFailed && appendFailed && dropFailed) << "after " << n;
}

TEST_F(FileCacheTest, RacingWritersFillTheBudgetExactlyAndNeverOverrunIt) {
    constexpr unsigned kBlock = 48 << 10;
    const uint64_t limit = mStart + 85 * kBlock;
    property_set("vendor.debug.file_cache.storage_size", std::to_string(limit).c_str());
    // Nothing is credited until every writer is done, so the limit is reached.
    std::promise<void> hold;
    (void)gFileCacheQueue.addJob([f = hold.get_future().share()] { f.wait(); }, 0);
    std::atomic<bool> over{false};
    std::atomic<uint64_t> accepted{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < 8; ++t)
        writers.emplace_back([&, t] {
            const std::string block(kBlock, static_cast<char>('a' + t));
            sp<IFileCache> fc = IFileCache::open(file(std::to_string(t)).c_str());
            for (int w = 0; w < 64; ++w) accepted += std::max(put(fc, block), 0), over = over || gCachedBytes > limit;
        });
    for (auto& w : writers) w.join();
    EXPECT_FALSE(over.load());
    EXPECT_EQ(limit, mStart + accepted);
    // Every refusal came with the cache full: what is cached without the
    // refused block, then the limit, in MB.
    const std::string mb = std::to_string(limit >> 20) + "MB";
    EXPECT_THAT(lines(),
                ::testing::Each(error("<" + file("[0-9]") + "> Storage size exceed " + mb + "/" + mb, "write")));
    hold.set_value();
    drain();
    EXPECT_EQ(mStart, gCachedBytes.load());
}

TEST(FileCacheChildTest, DumpsStillQueuedAtExitReachStorageComplete) {
    qrntest::TempDir dir;
    qrntest::ChildResult r = qrntest::runChild({QRNCAM_FILECACHE_CHILD, "dump", dir.path()});
    ASSERT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    for (int c = 0; c < 5; ++c) {
        std::string expected;
        for (int b = 0; b < 4; ++b) expected += std::string(300000, static_cast<char>('A' + c * 4 + b));
        EXPECT_TRUE(expected == qrntest::readFile(dir.file("dump" + std::to_string(c) + ".bin"))) << "cache " << c;
    }
}

// A child made by fork() must neither hang in exit() on a worker it does not
// have nor write the parent's queued dumps a second time; its own dump is
// written, by the thread that drops it.
TEST(FileCacheChildTest, AForkedChildExitsAndLeavesTheParentsDumpsToIt) {
    qrntest::TempDir dir;
    qrntest::ChildResult r = qrntest::runChild({QRNCAM_FILECACHE_CHILD, "fork", dir.path()});
    ASSERT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ("parent " + std::to_string(c), qrntest::readFile(dir.file("parent" + std::to_string(c) + ".bin")));
    EXPECT_EQ("child", qrntest::readFile(dir.file("child.bin")));
}

}  // namespace
