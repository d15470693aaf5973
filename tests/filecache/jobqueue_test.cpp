// The one-worker job queue: ids, posting order, the draining destructor, the
// jobs lost after the stop marker, and the two fatal texts.
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <JobQueue.h>
#include <qrncam/utils/JobQueueStatic.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Capture.h"

using Queue = NSCam::JobQueue<void(), NSCam::JQPriority(0)>;
using qrntest::Capture;
using qrntest::Sink;

// The destructor's lock goes through this definition instead of the standard
// utilities' one. It locks as that one does; a test can run a callback while
// the destructor holds the lock, or make it report failure (having locked,
// so that the destructor's own unlock keeps the mutex balanced).
namespace {
std::atomic<void (*)()> gOnDestructorLocked{nullptr};
std::atomic<bool> gReportLockFailure{false};
}  // namespace

bool NSCam::JobQueueStatic::lock(std::unique_lock<std::mutex>& l) {
    try {
        l.lock();
    } catch (const std::system_error&) {
        return false;
    }
    if (void (*cb)() = gOnDestructorLocked.load()) cb();
    return !gReportLockFailure.load();
}

namespace {

// A one-shot gate a job can wait on.
struct Gate {
    std::promise<void> p;
    std::shared_future<void> f = p.get_future().share();
    void open() { p.set_value(); }
    void wait() const { f.wait(); }
};

struct HookGuard {
    ~HookGuard() {
        gOnDestructorLocked.store(nullptr);
        gReportLockFailure.store(false);
    }
};

TEST(JobQueue, IdsCountEveryCallAndJobsRunInPostingOrderOnOneWorker) {
    Queue q("T");
    std::vector<int> ran;  // touched only by the worker until the futures are ready
    std::set<std::thread::id> threads;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::shared_future<void>> futures;

    for (int i = 0; i < 200; ++i) {
        // The priority must not reorder anything.
        auto r = q.addJob(
            [&, i] {
                if (running.fetch_add(1) != 0) overlapped = true;
                ran.push_back(i);
                threads.insert(std::this_thread::get_id());
                running.fetch_sub(1);
            },
            (i * 7919) % 13 - 6);
        EXPECT_EQ(static_cast<uint32_t>(i + 1), r.first);
        ASSERT_TRUE(r.second.valid());
        futures.push_back(r.second);
    }
    auto empty = q.addJob(std::function<void()>(), 0);
    EXPECT_EQ(201u, empty.first);  // an empty job still uses up its id
    EXPECT_FALSE(empty.second.valid());
    auto next = q.addJob([] {}, 0);
    EXPECT_EQ(202u, next.first);

    for (auto& f : futures) f.get();
    next.second.get();
    std::vector<int> expected(200);
    for (int i = 0; i < 200; ++i) expected[i] = i;
    EXPECT_EQ(expected, ran);
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(1u, threads.size());
    EXPECT_NE(std::this_thread::get_id(), *threads.begin());
}

TEST(JobQueue, FutureIsReadyOnlyAfterTheJobReturned) {
    Queue q("T");
    int value = 0;  // written by the job, read after the future: no lock needed
    auto r = q.addJob(
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            value = 42;
        },
        0);
    r.second.get();
    EXPECT_EQ(42, value);
}

TEST(JobQueue, SeveralPostersKeepTheirOwnOrderAndGetUniqueIds) {
    constexpr int kPosters = 4, kJobs = 500;
    Queue q("T");
    std::vector<std::pair<int, int>> ran;  // (poster, sequence), worker only
    std::mutex idsLock;
    std::vector<uint32_t> ids;
    std::vector<std::shared_future<void>> futures;
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([&, p] {
            for (int s = 0; s < kJobs; ++s) {
                auto r = q.addJob([&ran, p, s] { ran.emplace_back(p, s); }, p);
                std::lock_guard<std::mutex> l(idsLock);
                ids.push_back(r.first);
                futures.push_back(r.second);
            }
        });
    }
    for (auto& t : posters) t.join();
    for (auto& f : futures) f.get();

    std::sort(ids.begin(), ids.end());
    for (int i = 0; i < kPosters * kJobs; ++i) ASSERT_EQ(static_cast<uint32_t>(i + 1), ids[i]);
    ASSERT_EQ(static_cast<size_t>(kPosters * kJobs), ran.size());
    std::vector<int> nextOf(kPosters, 0);
    for (auto& [p, s] : ran) {
        ASSERT_EQ(nextOf[p], s) << "poster " << p;
        ++nextOf[p];
    }
}

Gate* gDrainGate;
TEST(JobQueue, DestructorRunsEveryJobQueuedBeforeIt) {
    HookGuard guard;
    Gate gate;
    gDrainGate = &gate;
    // The first job holds the worker until the destructor has the lock, so
    // all the others are still queued when it begins.
    gOnDestructorLocked.store([] { gDrainGate->open(); });
    std::atomic<int> ran{0};
    {
        Queue q("T");
        (void)q.addJob([&] { gate.wait(); }, 0);
        for (int i = 0; i < 50; ++i)
            (void)q.addJob(
                [&] {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    ++ran;
                },
                0);
        EXPECT_EQ(0, ran.load());
    }
    EXPECT_EQ(50, ran.load());
}

std::atomic<bool> gDestructorLocked{false};
TEST(JobQueue, JobPostedAfterTheStopMarkerIsAcceptedButNeverRuns) {
    HookGuard guard;
    gDestructorLocked = false;
    auto* q = new Queue("T");
    Gate started, release;
    (void)q->addJob(
        [&] {
            started.open();
            release.wait();
        },
        0);
    started.wait();
    gOnDestructorLocked.store([] { gDestructorLocked = true; });
    std::thread destroyer([q] { delete q; });
    for (int i = 0; i < 5000 && !gDestructorLocked; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(gDestructorLocked.load());

    // Blocks until the destructor has queued the marker and let go of the
    // lock; the worker is still held by the first job, so the marker is
    // still queued and the queue still accepts.
    std::atomic<bool> lateRan{false};
    auto late = q->addJob([&] { lateRan = true; }, 0);
    EXPECT_TRUE(late.second.valid());
    release.open();
    destroyer.join();

    EXPECT_FALSE(lateRan.load());
    try {
        late.second.get();
        ADD_FAILURE() << "the late job's future became ready";
    } catch (const std::future_error& e) {
        EXPECT_EQ(std::future_errc::broken_promise, e.code());
    }
}

TEST(JobQueue, LockFailureIsReportedAndTheQueueStillDrains) {
    HookGuard guard;
    Capture cap;
    gReportLockFailure = true;
    std::atomic<int> ran{0};
    {
        Queue q("T");
        for (int i = 0; i < 10; ++i) (void)q.addJob([&] { ++ran; }, 0);
    }
    EXPECT_EQ(10, ran.load());
    // Written unconditionally, without the error suffix.
    EXPECT_EQ(std::vector<std::string>{"lock mutex exception"}, cap.texts(Sink::Android, "file_cache"));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "file_cache", "lock mutex exception"));
}

TEST(JobQueue, DestroyingTheQueueFromItsOwnJobLogsTheFatalTextAndNeverReturns) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[0]);
        close(fds[1]);
        execl(QRNCAM_FILECACHE_CHILD, QRNCAM_FILECACHE_CHILD, "selfdestroy", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);

    const std::regex fatal(
        "NSCam::JobQueue: fatal: cannot delete JobQueue instance in its own thread\\. JobQueue's caller=Child, "
        "tid=(-?\\d+), caller's tid=\\1");
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!std::regex_search(out, fatal) && std::chrono::steady_clock::now() < deadline) {
        pollfd p{fds[0], POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            char buf[1024];
            ssize_t n = read(fds[0], buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
        }
    }
    // Give a call that wrongly returns time to say so.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    pollfd p{fds[0], POLLIN, 0};
    while (poll(&p, 1, 0) > 0) {
        char buf[1024];
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    int status = 0;
    pid_t alive = waitpid(pid, &status, WNOHANG);
    kill(pid, SIGKILL);
    if (alive == 0) waitpid(pid, &status, 0);
    close(fds[0]);

    EXPECT_TRUE(std::regex_search(out, fatal)) << out;
    EXPECT_EQ(0, alive) << "the child ended by itself: " << out;
    EXPECT_EQ(std::string::npos, out.find("returned")) << out;
}

}  // namespace
