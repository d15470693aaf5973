// The one-worker job queue: ids, posting order, the draining destructor, the
// job lost after the stop marker, and the two fatal texts.
#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <JobQueue.h>
#include <algorithm>
#include <atomic>
#include <regex>
#include <set>
#include <thread>

#include "Capture.h"

using Queue = NSCam::JobQueue<void(), NSCam::JQPriority(0)>;

// The destructor locks through this definition, which takes precedence over
// the standard utilities' copy. It locks as that one does; a test can run a
// hook while the destructor holds the lock, or make it report failure after
// locking (the destructor then still releases what it owns).
namespace {
std::atomic<void (*)()> gOnLocked{nullptr};
std::atomic<bool> gReportFailure{false};
}  // namespace
bool NSCam::JobQueueStatic::lock(std::unique_lock<std::mutex>& l) {
    l.lock();
    if (void (*hook)() = gOnLocked.exchange(nullptr)) hook();
    return !gReportFailure.exchange(false);
}

namespace {

TEST(JobQueue, IdsAndOrderFromOneAndFromSeveralPosters) {
    Queue q("T");
    std::vector<std::pair<int, int>> ran;  // (poster, sequence); worker only until the futures are ready
    std::set<std::thread::id> workers;
    std::vector<std::shared_future<void>> futures;
    for (int s = 0; s < 100; ++s) {
        auto r = q.addJob([&, s] { ran.emplace_back(0, s), workers.insert(std::this_thread::get_id()); }, 7 - s % 13);
        EXPECT_EQ(static_cast<uint32_t>(s + 1), r.first);
        futures.push_back(r.second);
    }
    auto empty = q.addJob(nullptr, 0);
    EXPECT_EQ(101u, empty.first);  // an empty job still uses up its id
    EXPECT_FALSE(empty.second.valid());

    std::mutex lock;
    std::vector<uint32_t> ids;
    std::vector<std::thread> posters;
    for (int p = 1; p <= 3; ++p)
        posters.emplace_back([&, p] {
            for (int s = 0; s < 300; ++s) {
                auto r = q.addJob([&, p, s] { ran.emplace_back(p, s), workers.insert(std::this_thread::get_id()); }, p);
                std::lock_guard<std::mutex> l(lock);
                ids.push_back(r.first);
                futures.push_back(r.second);
            }
        });
    for (auto& t : posters) t.join();
    for (auto& f : futures) f.get();

    std::sort(ids.begin(), ids.end());
    for (size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(102 + i, ids[i]);
    ASSERT_EQ(1000u, ran.size());
    std::vector<int> next(4, 0);
    for (auto& [p, s] : ran) ASSERT_EQ(next[p]++, s) << "poster " << p;
    ASSERT_EQ(1u, workers.size());
    EXPECT_NE(std::this_thread::get_id(), *workers.begin());
}

std::promise<void>* gLocked;
TEST(JobQueue, DestructorRunsWhatWasQueuedBeforeItAndDropsWhatCameAfter) {
    auto* q = new Queue("T");
    std::promise<void> started, release;
    (void)q->addJob([&] { started.set_value(), release.get_future().wait(); }, 0);
    started.get_future().wait();
    std::atomic<int> ran{0};
    for (int i = 0; i < 20; ++i) (void)q->addJob([&] { ++ran; }, 0);

    // The worker is held by the first job; the destructor queues the marker
    // under the lock, so a post that waited for the lock lands after it.
    std::promise<void> locked;
    gLocked = &locked;
    gOnLocked = [] { gLocked->set_value(); };
    std::thread destroyer([q] { delete q; });
    locked.get_future().wait();
    std::atomic<bool> lateRan{false};
    auto late = q->addJob([&] { lateRan = true; }, 0);
    EXPECT_TRUE(late.second.valid());  // still accepted: the worker has not taken the marker
    release.set_value();
    destroyer.join();

    EXPECT_EQ(20, ran.load());
    EXPECT_FALSE(lateRan.load());
    try {
        late.second.get();
        ADD_FAILURE() << "the late job's future became ready";
    } catch (const std::future_error& e) {
        EXPECT_EQ(std::future_errc::broken_promise, e.code());
    }
}

TEST(JobQueue, LockFailureIsLoggedAndTheQueueStillDrains) {
    qrntest::Capture cap;
    std::atomic<int> ran{0};
    gReportFailure = true;
    {
        Queue q("T");
        for (int i = 0; i < 10; ++i) (void)q.addJob([&] { ++ran; }, 0);
    }
    EXPECT_EQ(10, ran.load());
    // Written unconditionally, without the error suffix.
    EXPECT_EQ(std::vector<std::string>{"lock mutex exception"}, cap.texts(qrntest::Sink::Android, "file_cache"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "file_cache", "lock mutex exception"));
}

TEST(JobQueue, DestroyedFromItsOwnJobLogsTheFatalTextAndNeverReturns) {
    // The child exits 0 if the destructor ever returns; timeout kills it
    // (and itself, with SIGKILL) otherwise.
    qrntest::ChildResult r =
        qrntest::runChild({"/usr/bin/timeout", "-s", "KILL", "3", QRNCAM_FILECACHE_CHILD, "selfdestroy"});
    EXPECT_TRUE(WIFSIGNALED(r.status) && WTERMSIG(r.status) == SIGKILL) << r.status << r.output;
    EXPECT_TRUE(std::regex_search(
        r.output, std::regex("NSCam::JobQueue: fatal: cannot delete JobQueue instance in its own thread\\. "
                             "JobQueue's caller=Child, tid=(\\d+), caller's tid=\\1")))
        << r.output;
}

}  // namespace
