// The file cache: files in write order and their log lines, storage and
// allocation faults, the budget under racing writers, and dumps still queued
// at exit.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <IFileCache.h>
#include <cutils/properties.h>
#include <qrnhost/properties.h>
#include <atomic>
#include <filesystem>
#include <future>
#include <map>
#include <thread>

#include <qrnhost/allocfault.h>
#include <qrnhost/filecache.h>
#include <qrnhost/transcript.h>
#include "FileCacheInternal.h"

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using android::sp;
using NSCam::IFileCache;

void drain() {
    gFileCacheQueue.addJob([] {}, 0).second.wait();
}
// Runs what while the worker is held, then lets it flush: a destructor's
// own lines then come before the flush's, as they do on a busy queue.
template <typename F>
void withWorkerHeld(F what) {
    std::promise<void> held, release;
    gFileCacheQueue.addJob(
        [&] {
            held.set_value();
            release.get_future().wait();
        },
        0);
    held.get_future().wait();
    what();
    release.set_value();
    drain();
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
        mStart = cachedBytesUnlocked();
    }
    void TearDown() override { mCaches.clear(), drain(), qrnhost::properties::reset(); }
    std::vector<std::string> lines() const { return mCap.texts(qt::Sink::Android, "file_cache"); }
    std::string file(const std::string& name) const { return mDir.file(name); }

    qt::Script script(qt::Transcript& t);

    qt::TempDir mDir;
    qt::Capture mCap;
    uint64_t mStart = 0, mFiller = 0;
    std::map<std::string, sp<IFileCache>> mCaches;
};

// The steps of the scenarios in golden/: caches opened by a key (on the
// file of that name in the test's directory, or on the file given), written
// and dropped while the worker is held, so that a destructor's lines come
// before its flush's, as on a busy queue.
qt::Script FileCacheTest::script(qt::Transcript& t) {
    t.replace(mDir.path(), "$DIR");
    qt::Script s(t);
    s.on("open",
         [&](const qt::Args& a) {
             sp<IFileCache>& fc = mCaches[a.text(0)];
             const std::string name = a.size() < 2 ? a.text(0) : a.text(1);
             fc = IFileCache::open(name == "nullptr" ? nullptr : name[0] == '/' ? name.c_str() : file(name).c_str());
             return fc == nullptr ? "null" : "a cache";
         })
        .on("write",  // TEXT, or N bytes of BYTE, or nothing (a null pointer)
            [&](const qt::Args& a) {
                const std::string data = a.size() == 3 ? std::string(a[1], char(a[2])) : a.size() == 2 ? a.text(1) : "";
                return mCaches[a.text(0)]->write(a.size() == 1 ? nullptr : data.data(), unsigned(data.size()));
            })
        .on("write beyond int", [&](const qt::Args& a) { return mCaches[a.text(0)]->write("x", unsigned(a[1])); })
        .on("write failing its allocation",
            [&](const qt::Args& a) {
                const std::string data(a[1], 'x');
                qt::AllocFault fault(1);
                return put(mCaches[a.text(0)], data);
            })
        .on("drop",
            [&](const qt::Args& a) {
                withWorkerHeld([&] {
                    for (size_t i = 0; i < a.size(); ++i) mCaches.erase(a.text(i));
                });
            })
        .on("drain", [] { drain(); })
        .on("files", [&] { t.files(mDir.path()); })
        .on("charged", [&] { return cachedBytesUnlocked() - mStart; })
        .on("charge all of the budget but",
            [&](const qt::Args& a) {
                android::Mutex::Autolock lock(gCachedBytesLock);
                mFiller = property_get_int64("vendor.debug.file_cache.storage_size", 0) - a[0] - gCachedBytes;
                gCachedBytes += mFiller;
            })
        .on("release the charge", [&] {
            android::Mutex::Autolock lock(gCachedBytesLock);
            gCachedBytes -= mFiller;
        });
    return s;
}

// Caches flushed with the log switch on: the blocks in write order, a file
// that keeps its old content while its cache lives, two caches for one
// name, and the budget that another cache holds all along (300000 bytes,
// 292 KB in the "remain" lines).
TEST_F(FileCacheTest, FlushTranscript) {
    // Failed allocations of earlier tests stay charged for good; they would
    // shift every "remain" line.
    {
        android::Mutex::Autolock lock(gCachedBytesLock);
        gCachedBytes = mStart = 0;
    }
    qt::writeFile(file("three"), std::string(200, 'o'));
    qt::Transcript t(mCap, nullptr);
    // What the host platform is told, in its place among the log lines: the
    // budget after each charge and credit, and each flush from queue to end.
    namespace fc = qrnhost::filecache;
    std::map<const void*, int> flushes;  // by the note's flush pointer: 1, 2, ... in queue order
    const int observer = fc::addObserver([&](const fc::Note& n) {
        std::string line = std::string("filecache ") + fc::eventName(n.event);
        if (n.flush != nullptr) {
            if (n.event == fc::Event::Drop) flushes[n.flush] = static_cast<int>(flushes.size()) + 1;
            line += " #" + std::to_string(flushes[n.flush]);
        }
        if (n.name != nullptr) line += std::string(" <") + n.name + ">";
        if (n.event != fc::Event::Open && n.event != fc::Event::Drop && n.event != fc::Event::Begin &&
            n.event != fc::Event::End)
            line += " " + std::to_string(n.bytes) + " bytes";
        if (n.event == fc::Event::Write || n.event == fc::Event::Refuse || n.event == fc::Event::Credit)
            line += ", charged " + std::to_string(n.charged);
        if (n.event == fc::Event::End) line += n.ok ? ", ok" : ", failed";
        t.note(line);
    });
    QRN_RUN_SCRIPT(script(t), "flush");
    fc::removeObserver(observer);
    EXPECT_EQ(0u, fc::charged());

    // The name block holds 255 characters: a name of 255 is kept whole, one
    // character more is cut, never overrun.
    const std::string whole = mDir.path() + "/" + std::string(255 - mDir.path().size() - 1, 'w');
    const std::string cut = mDir.path() + "/" + std::string(256 - mDir.path().size() - 1, 'c');
    put(IFileCache::open(whole.c_str()), "whole");
    put(IFileCache::open(cut.c_str()), "cut");
    drain();
    EXPECT_EQ("whole", qt::readFile(whole));
    EXPECT_EQ("cut", qt::readFile(cut.substr(0, 255)));
    EXPECT_FALSE(std::filesystem::exists(cut));
}

// Every fault a caller can meet, with the log switch off: what each call
// returns, what is logged, and what stays charged.
TEST_F(FileCacheTest, FaultsTranscript) {
    qt::Transcript t(mCap, nullptr);
    QRN_RUN_SCRIPT(script(t), "faults");
}

// Memory running out at any allocation of open, write or the drop of a
// cache, on four threads at once: each is a clean, reported failure of that
// call (null, -1) or, for the drop, a flush on the caller's thread. No
// exception leaves the library, no lock stays held (the next write on the
// cache and the other threads go through), the file holds exactly the
// blocks that were accepted, and the budget is back where it was but for
// the blocks whose own allocation failed, which keep their charge.
TEST_F(FileCacheTest, AllocationFailuresAnywhereInOpenWriteAndDropFailCleanly) {
    if (!qt::AllocFault::available()) GTEST_SKIP() << "operator new cannot be made to fail here";
    const std::string first = "first", second = "second!";
    std::atomic<bool> openFailed{false}, cacheUnusable{false}, blockFailed{false}, appendFailed{false},
        dropFailed{false};
    std::atomic<uint64_t> kept{0};
    auto sweep = [&](int t) {
        for (long n = 1;; ++n) {
            const std::string name = file(std::to_string(t) + "-" + std::to_string(n));
            qt::AllocFault fault(n);
            sp<IFileCache> fc = IFileCache::open(name.c_str());
            const int w1 = fc != nullptr ? put(fc, first) : 0;
            const int w2 = fc != nullptr ? put(fc, second) : 0;
            fc.clear();
            const bool fired = fault.fired();
            const size_t failedMalloc = fault.failedMallocSize();
            fault.disarm();
            drain();
            SCOPED_TRACE(name);

            const bool opened = w1 != 0;
            const bool unusable = opened && w1 == -1 && w2 == -1;
            EXPECT_TRUE(!opened || w1 == -1 || w1 == int(first.size())) << w1;
            EXPECT_TRUE(!opened || w2 == -1 || w2 == int(second.size())) << w2;
            if (failedMalloc == first.size() || failedMalloc == second.size()) kept += failedMalloc;
            const std::string want = (w1 > 0 ? first : "") + (w2 > 0 ? second : "");
            EXPECT_EQ(opened && !unusable, access(name.c_str(), F_OK) == 0);
            EXPECT_EQ(want, qt::readFile(name));
            if (!opened || w1 == -1 || w2 == -1) {  // a failed call says so, with the file's name
                EXPECT_THAT(lines(), ::testing::Contains(::testing::HasSubstr("<" + name + ">")));
            }
            openFailed = openFailed || !opened, cacheUnusable = cacheUnusable || unusable;
            const bool writeFailed = !unusable && (w1 == -1 || w2 == -1);
            blockFailed = blockFailed || (writeFailed && failedMalloc != 0);
            appendFailed = appendFailed || (writeFailed && failedMalloc == 0);
            dropFailed = dropFailed || (fired && w1 > 0 && w2 > 0);
            if (!fired || HasFailure()) break;
        }
    };
    std::thread threads[] = {std::thread(sweep, 0), std::thread(sweep, 1), std::thread(sweep, 2),
                             std::thread(sweep, 3)};
    for (auto& t : threads) t.join();
    EXPECT_EQ(mStart + kept, cachedBytesUnlocked());
    EXPECT_TRUE(openFailed && cacheUnusable && blockFailed && appendFailed && dropFailed);
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
            for (int w = 0; w < 64; ++w)
                accepted += std::max(put(fc, block), 0), over = over || cachedBytesUnlocked() > limit;
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
    EXPECT_EQ(mStart, cachedBytesUnlocked());
}

// A child made by fork() must neither hang in exit() on a worker it does not
// have nor write the parent's queued dumps a second time; its own dump is
// written, by the thread that drops it.
TEST(FileCacheChildTest, AForkedChildExitsAndLeavesTheParentsDumpsToIt) {
    qt::TempDir dir;
    qrntest::ChildResult r = qrntest::runChild({QRNCAM_FILECACHE_CHILD, "fork", dir.path()});
    ASSERT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ("parent " + std::to_string(c), qt::readFile(dir.file("parent" + std::to_string(c) + ".bin")));
    EXPECT_EQ("child", qt::readFile(dir.file("child.bin")));
}

}  // namespace
