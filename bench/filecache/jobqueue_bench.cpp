// Completed jobs per second from 1 and 2 posting threads and idle
// post-to-run latency (median, p99) of NSCam::JobQueue, beside
// - RefQueue: a minimal queue of the same design (deque of shared tasks
//   with an id, a priority and a packaged_task, one mutex, one condition
//   variable, one worker), the floor this design can reach;
// - Asio's thread_pool(1) with post: a peer that promises neither ids nor
//   futures, so it makes fewer allocations per job, and signals its worker
//   after unlocking where this design signals under the lock.
#include <benchmark/benchmark.h>

#include <JobQueue.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

template <bool kNotifyUnderLock>
class RefQueue {
  public:
    RefQueue() : mWorker([this] { run(); }) {}
    ~RefQueue() {
        {
            std::lock_guard<std::mutex> l(mMutex);
            mJobs.push_front(nullptr);
            mCond.notify_one();
        }
        mWorker.join();
    }
    std::pair<uint32_t, std::shared_future<void>> addJob(std::function<void()> job, int priority) {
        uint32_t id = ++mCounter;
        auto task = std::make_shared<Task>(Task{id, priority, std::packaged_task<void()>(std::move(job))});
        std::unique_lock<std::mutex> l(mMutex);
        std::shared_future<void> f = task->task.get_future().share();
        mJobs.push_front(std::move(task));
        if (kNotifyUnderLock) {
            mCond.notify_one();
        } else {
            l.unlock();
            mCond.notify_one();
        }
        return {id, f};
    }

  private:
    struct Task {
        uint32_t id;
        int priority;
        std::packaged_task<void()> task;
    };
    void run() {
        for (;;) {
            std::unique_lock<std::mutex> l(mMutex);
            if (mJobs.empty()) {
                mCond.wait(l);
                continue;
            }
            std::shared_ptr<Task> t = std::move(mJobs.back());
            mJobs.pop_back();
            l.unlock();
            if (!t) return;
            t->task();
        }
    }
    std::mutex mMutex;
    std::condition_variable mCond;
    std::deque<std::shared_ptr<Task>> mJobs;
    std::atomic<uint32_t> mCounter{0};
    std::thread mWorker;
};

struct JQ {
    NSCam::JobQueue<void(), NSCam::JQPriority(0)> q{"bench"};
    void post(std::function<void()> f) { (void)q.addJob(std::move(f), 0); }
};
template <bool kNotifyUnderLock>
struct RefT {
    RefQueue<kNotifyUnderLock> q;
    void post(std::function<void()> f) { (void)q.addJob(std::move(f), 0); }
};
using Ref = RefT<true>;
// Not the design: the same queue signalling after unlocking, to show what the
// wake-up under the lock costs (the woken worker first blocks on the mutex).
using RefNotifyAfterUnlock = RefT<false>;
struct Asio {
    boost::asio::thread_pool pool{1};
    void post(std::function<void()> f) { boost::asio::post(pool, std::move(f)); }
    ~Asio() { pool.join(); }
};

constexpr int kBatch = 20000;

// Each iteration posts kBatch trivial jobs, split between the posting
// threads, and waits until the worker has run them all.
template <typename Q>
void BM_Throughput(benchmark::State& state) {
    const int posters = static_cast<int>(state.range(0));
    Q q;
    std::atomic<int> remaining{0};
    for (auto _ : state) {
        remaining = kBatch;
        std::promise<void> done;
        std::future<void> finished = done.get_future();
        auto job = [&] {
            if (remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) done.set_value();
        };
        std::vector<std::thread> threads;
        for (int p = 1; p < posters; ++p)
            threads.emplace_back([&] {
                for (int i = 0; i < kBatch / posters; ++i) q.post(job);
            });
        for (int i = 0; i < kBatch - (posters - 1) * (kBatch / posters); ++i) q.post(job);
        for (auto& t : threads) t.join();
        finished.wait();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// One job at a time to an idle worker: the time from just before the post
// to the start of the job. The worker is given time to fall asleep between
// samples, so every sample includes its wake-up.
template <typename Q>
void BM_IdleLatency(benchmark::State& state) {
    Q q;
    std::vector<double> us;
    for (auto _ : state) {
        std::promise<Clock::time_point> ran;
        std::future<Clock::time_point> at = ran.get_future();
        Clock::time_point posted = Clock::now();
        q.post([&ran] { ran.set_value(Clock::now()); });
        Clock::time_point start = at.get();
        us.push_back(std::chrono::duration<double, std::micro>(start - posted).count());
        state.PauseTiming();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        state.ResumeTiming();
    }
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
}

BENCHMARK_TEMPLATE(BM_Throughput, JQ)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Throughput, Ref)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Throughput, Asio)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_IdleLatency, JQ)->Iterations(5000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_IdleLatency, Ref)->Iterations(5000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_IdleLatency, RefNotifyAfterUnlock)
    ->Iterations(5000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_IdleLatency, Asio)->Iterations(5000)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
