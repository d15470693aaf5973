// A job queue with one worker thread. Callers post void() jobs from any
// thread; the worker runs them one at a time, outside the queue's lock, in
// the order the ordering policy gives (policy 0: the order of posting).
//
// Only JobQueue<void (), (JQPriority)0> exists, instantiated inside
// libqrncam_sysutils; callers use that exported copy.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <qrncam/utils/JobQueueStatic.h>
#include <utils/Mutex.h>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

// What mMutex guards, for clang's -Wthread-safety. The analysis knows
// std::mutex as a lock only in libc++ built with
// _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS (as the library's clang builds
// are); anywhere else the annotation would itself draw a warning, so it is
// left out there.
#if defined(__clang__) && defined(_LIBCPP_VERSION) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define NSCAM_JOBQUEUE_GUARDED_BY(x) GUARDED_BY(x)
#define NSCAM_JOBQUEUE_REQUIRES(x) REQUIRES(x)
#define NSCAM_JOBQUEUE_EXCLUDES(x) EXCLUDES(x)
#else
#define NSCAM_JOBQUEUE_GUARDED_BY(x)
#define NSCAM_JOBQUEUE_REQUIRES(x)
#define NSCAM_JOBQUEUE_EXCLUDES(x)
#endif

namespace NSCam {

// Ordering policy of a JobQueue. Policy 0 is first in, first out; the
// priority given to addJob is kept with the job but not read.
enum JQPriority : int {
    eJQPriority_FIFO = 0,
};

template <typename Sig, JQPriority P>
class JobQueue;

template <JQPriority P>
class JobQueue<void(), P> {
  public:
    struct JobTask {
        uint32_t id;
        int priority;
        std::packaged_task<void()> task;
    };

    // Picks the next job; the caller holds mMutex. The second parameter only
    // lets a policy be specialised inside the class.
    template <JQPriority Q, typename Unused>
    struct templateOp;

    template <typename Unused>
    struct templateOp<JQPriority(0), Unused> {
        // Jobs enter at the front, so the back holds the oldest one.
        static std::shared_ptr<JobTask> dequeJobLocked(std::deque<std::shared_ptr<JobTask>>& jobs);
    };

    // name is kept as a pointer, not copied: it must outlive the queue.
    explicit JobQueue(const char* name);
    // Runs every job queued before it began, then stops the worker. Jobs
    // accepted after the stop marker are released without running.
    virtual ~JobQueue();

    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    // Returns the job's id and a future that becomes ready once the job has
    // run. The future is empty when nothing was queued (empty job, or the
    // queue has stopped); the id is used up either way.
    std::pair<uint32_t, std::shared_future<void>> addJob(std::function<void()> job, int priority)
        NSCAM_JOBQUEUE_EXCLUDES(mMutex);

  private:
    // running points at where the worker shows the job it is running.
    void workerLoop(std::atomic<void*>* running) noexcept NSCAM_JOBQUEUE_EXCLUDES(mMutex);
    void setStateLocked(uint32_t target) NSCAM_JOBQUEUE_REQUIRES(mMutex);

    const char* mName;
    // front: newest; empty pointer: stop marker
    std::deque<std::shared_ptr<JobTask>> mJobs NSCAM_JOBQUEUE_GUARDED_BY(mMutex);
    std::condition_variable mJobCond;
    std::condition_variable mIdleCond;
    std::mutex mMutex;
    std::atomic<pthread_t> mWorkerTid;
    uint32_t mState NSCAM_JOBQUEUE_GUARDED_BY(mMutex);  // 2: accepting, 0: stopped; it only ever falls
    std::future<void> mWorker;
    std::atomic<uint32_t> mJobCounter;
};

extern template class JobQueue<void(), JQPriority(0)>;

}  // namespace NSCam

#undef NSCAM_JOBQUEUE_GUARDED_BY
#undef NSCAM_JOBQUEUE_REQUIRES
#undef NSCAM_JOBQUEUE_EXCLUDES
