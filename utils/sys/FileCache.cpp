// Asynchronous file dumping: the one-worker job queue, the file cache that
// collects blocks in memory under a process-wide budget, and the flush job
// that writes them out on the queue's worker.
#define LOG_TAG "file_cache"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <IFileCache.h>
#include <JobQueue.h>
#include <SysLog.h>
#include <cutils/properties.h>

#include "FileCacheInternal.h"

namespace NSCam {

// ---------------------------------------------------------------------------
// JobQueue<void (), 0>

namespace {
constexpr uint32_t kStateStopped = 0;
constexpr uint32_t kStateAccepting = 2;
// new state = min(current, target): the state can only fall.
constexpr uint32_t kStateTransition[3][3] = {{0, 0, 0}, {0, 1, 1}, {0, 1, 2}};
}  // namespace

template <JQPriority P>
template <typename Unused>
std::shared_ptr<typename JobQueue<void(), P>::JobTask>
JobQueue<void(), P>::templateOp<JQPriority(0), Unused>::dequeJobLocked(std::deque<std::shared_ptr<JobTask>>& jobs) {
    std::shared_ptr<JobTask> job = std::move(jobs.back());
    jobs.pop_back();
    return job;
}

template <JQPriority P>
JobQueue<void(), P>::JobQueue(const char* name) : mName(name), mWorkerTid(0), mState(kStateAccepting), mJobCounter(0) {
    // std::launch::async: the worker always has a thread of its own. If the
    // thread cannot be created the exception leaves a static initialiser
    // and the runtime ends the process.
    mWorker = std::async(std::launch::async, [this] { workerLoop(); });
}

template <JQPriority P>
void JobQueue<void(), P>::setStateLocked(uint32_t target) {
    mState = kStateTransition[mState][target];
}

// noexcept: a task run twice (or a job that throws) must end the process
// rather than be swallowed into the worker's future.
template <JQPriority P>
void JobQueue<void(), P>::workerLoop() noexcept {
    mWorkerTid.store(pthread_self(), std::memory_order_release);
    for (;;) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (mJobs.empty()) {
            mIdleCond.notify_all();
            // No predicate: a spurious wake-up just leads to a fresh check.
            mJobCond.wait(lock);
            continue;
        }
        std::shared_ptr<JobTask> job = templateOp<P, void>::dequeJobLocked(mJobs);
        if (!job) {
            setStateLocked(kStateStopped);
            mIdleCond.notify_all();
        }
        lock.unlock();
        if (!job || !job->task.valid()) break;
        job->task();
    }
    std::lock_guard<std::mutex> lock(mMutex);
    setStateLocked(kStateStopped);
    mIdleCond.notify_all();
}

template <JQPriority P>
std::pair<uint32_t, std::shared_future<void>> JobQueue<void(), P>::addJob(std::function<void()> job, int priority) {
    std::pair<uint32_t, std::shared_future<void>> result(++mJobCounter, std::shared_future<void>());
    if (!job) return result;

    // Built before the lock is taken. The wrapper is noexcept so that a job
    // that throws ends the process instead of parking the exception in a
    // future nobody reads.
    std::shared_ptr<JobTask> task = std::make_shared<JobTask>(
        JobTask{result.first, priority, std::packaged_task<void()>([fn = std::move(job)]() noexcept { fn(); })});

    std::lock_guard<std::mutex> lock(mMutex);
    // A rejected task is destroyed unrun (breaking its promise); the caller
    // gets an empty future.
    if (mState != kStateAccepting) return result;
    result.second = task->task.get_future().share();
    mJobs.push_front(std::move(task));
    mJobCond.notify_one();
    return result;
}

template <JQPriority P>
JobQueue<void(), P>::~JobQueue() {
    pthread_t tid = pthread_self();
    pthread_t worker = mWorkerTid.load(std::memory_order_acquire);
    if (worker != 0 && worker == tid) {
        // Only a diagnosis: the wait below never ends in the worker's own
        // thread, and that hang is the intended outcome.
        FC_LOG_FATAL(
            "NSCam::JobQueue: fatal: cannot delete JobQueue instance in its own thread. JobQueue's "
            "caller=%s, tid=%ld, caller's tid=%ld",
            mName, static_cast<long>(worker), static_cast<long>(tid));
    }
    std::unique_lock<std::mutex> lock(mMutex, std::defer_lock);
    if (!JobQueueStatic::lock(lock)) FC_LOG_FATAL("lock mutex exception");
    // The state is left alone: jobs posted until the worker takes the marker
    // are accepted but land in front of it and never run.
    mJobs.push_front(std::shared_ptr<JobTask>());
    mJobCond.notify_one();
    if (lock.owns_lock()) {
        // Waiting for the stop before the future keeps a destructor running
        // on the worker's own thread blocked, as intended, instead of letting
        // the runtime report a self-join and end the process.
        mIdleCond.wait(lock, [this] { return mState == kStateStopped; });
        lock.unlock();
    }
    if (mWorker.valid()) mWorker.wait();
}

template class JobQueue<void(), JQPriority(0)>;
template struct JobQueue<void(), JQPriority(0)>::templateOp<JQPriority(0), void>;

}  // namespace NSCam

// ---------------------------------------------------------------------------
// Process-wide state. The atomics are only ever used relaxed: they compile to
// the plain loads and stores the budget needs, and make the unlocked reads by
// log lines and constructors well defined.

std::atomic<uint64_t> gCachedBytes{0};
std::atomic<int32_t> gFileCacheLog{0};
std::atomic<int64_t> gStorageLimit{1073741824};

namespace {

pthread_mutex_t* newCachedBytesLock() {
    pthread_mutex_t* m = new pthread_mutex_t;
    pthread_mutex_init(m, nullptr);
    return m;
}

constexpr size_t kNameBlockSize = 256;
constexpr int64_t kDefaultStorageSize = 1073741824;
// How many bytes of a chunk its DEBUG lines show.
constexpr size_t kPreviewBytes = 32;

bool logEnabled() {
    return gFileCacheLog.load(std::memory_order_relaxed) != 0;
}

// A printable rendering of at most the chunk's own bytes, for the DEBUG
// lines that show a chunk's data where a name would be.
const char* preview(char (&out)[kPreviewBytes + 1], const void* data, unsigned int length) {
    size_t n = data == nullptr ? 0 : (length < kPreviewBytes ? length : kPreviewBytes);
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < n; ++i) out[i] = isprint(p[i]) ? static_cast<char>(p[i]) : '.';
    out[n] = '\0';
    return out;
}

void copyName(char (&out)[kNameBlockSize], const char* name) {
    if (name == nullptr) {
        out[0] = '\0';
        return;
    }
    strncpy(out, name, kNameBlockSize - 1);
    out[kNameBlockSize - 1] = '\0';
}

using Chunks = std::vector<std::pair<void*, unsigned int>>;

struct FlushJob {
    void operator()(char* fileName, Chunks* chunks) const {
        // The count is taken as a signed 32-bit value, so the loops run only
        // for at least one chunk.
        const int n = chunks == nullptr ? 0 : static_cast<int>(chunks->size());
        char data[kPreviewBytes + 1];

        FILE* fp = fileName == nullptr ? nullptr : fopen(fileName, "wb");
        if (fp != nullptr) {
            for (int i = 0; i < n; ++i) {
                const std::pair<void*, unsigned int>& c = (*chunks)[i];
                FC_LOGD(logEnabled(), "<%s> write %d bytes to file (%d/%d)", preview(data, c.first, c.second),
                        static_cast<int>(c.second), i, n);
                // A short write is reported and the next chunk written all
                // the same; nothing is retried.
                if (fwrite(c.first, 1, c.second, fp) != c.second) {
                    FC_LOGE("<%s> write error!!!", fileName);
                }
            }
            fclose(fp);
        } else {
            FC_LOGE("Fail to open physical file <%s>", fileName == nullptr ? "" : fileName);
        }

        for (int i = 0; i < n; ++i) {
            const std::pair<void*, unsigned int>& c = (*chunks)[i];
            FC_LOGD(logEnabled(), "<%s> free %d bytes (%d/%d)", preview(data, c.first, c.second),
                    static_cast<int>(c.second), i, n);
            free(c.first);
            pthread_mutex_lock(gCachedBytesLock);
            gCachedBytes.store(gCachedBytes.load(std::memory_order_relaxed) - c.second, std::memory_order_relaxed);
            pthread_mutex_unlock(gCachedBytesLock);
        }
        if (chunks != nullptr) {
            chunks->clear();
            delete chunks;
        }

        // The name block goes before the last line, which prints a copy.
        char name[kNameBlockSize];
        copyName(name, fileName);
        free(fileName);
        FC_LOGI(logEnabled(), "<%s> write done, (remain = %d KB)", name,
                static_cast<int>(gCachedBytes.load(std::memory_order_relaxed) >> 10));
    }
};

}  // namespace

// Static initialisation, in this order: the byte-count lock, then the queue
// (which starts its worker). The queue's destructor is registered as an exit
// handler as soon as it is built, so flushes still queued at exit or unload
// reach storage before the process ends.
pthread_mutex_t* gCachedBytesLock = newCachedBytesLock();
NSCam::JobQueue<void(), NSCam::JQPriority(0)> gFileCacheQueue("UT");

// ---------------------------------------------------------------------------
// IFileCache / FileCache

namespace NSCam {

IFileCache::~IFileCache() {}

android::sp<IFileCache> IFileCache::open(const char* fileName) {
    if (fileName == nullptr) {
        FC_LOGE("File name is NULL\n");
        return nullptr;
    }
    return new FileCache(fileName);
}

}  // namespace NSCam

FileCache::FileCache(const char* fileName) : mFileName(nullptr), mChunks(nullptr) {
    pthread_mutex_init(&mLock, nullptr);
    // Every new cache reloads both for the whole process.
    gFileCacheLog.store(property_get_int32("vendor.debug.file_cache.log", 0), std::memory_order_relaxed);
    gStorageLimit.store(property_get_int64("vendor.debug.file_cache.storage_size", kDefaultStorageSize),
                        std::memory_order_relaxed);
    FC_LOGI(logEnabled(), "Initialize FileCache <%s>", fileName);

    mFileName = static_cast<char*>(calloc(1, kNameBlockSize));
    if (mFileName == nullptr) {
        FC_LOGE("<%s> calloc fail", fileName);
        return;
    }
    strncpy(mFileName, fileName, kNameBlockSize - 1);
    mChunks = new Chunks();
}

FileCache::~FileCache() {
    // The job may free the name before the line below is written.
    char name[kNameBlockSize];
    copyName(name, mFileName);
    // Without a name block there is no file to flush into and no blocks.
    if (mChunks != nullptr) writeToFile(mFileName, mChunks);
    FC_LOGI(logEnabled(), "<%s> Dealloc of FileCache", name);
    pthread_mutex_destroy(&mLock);
}

void FileCache::onFirstRef() {}

int FileCache::write(const void* data, unsigned int size) {
    if (mChunks == nullptr) return -1;

    int result;
    pthread_mutex_lock(&mLock);
    pthread_mutex_lock(gCachedBytesLock);
    // The check and the charge share one critical section, so racing writers
    // cannot overrun the budget. The limit is compared unsigned: a negative
    // one lifts the budget altogether.
    const uint64_t limit = static_cast<uint64_t>(gStorageLimit.load(std::memory_order_relaxed));
    const uint64_t cached = gCachedBytes.load(std::memory_order_relaxed);
    if (cached + size > limit) {
        pthread_mutex_unlock(gCachedBytesLock);
        FC_LOGE("<%s> Storage size exceed %uMB/%uMB", mFileName,
                static_cast<unsigned>(gCachedBytes.load(std::memory_order_relaxed) >> 20),
                static_cast<unsigned>(gStorageLimit.load(std::memory_order_relaxed) >> 20));
        result = -1;
    } else {
        gCachedBytes.store(cached + size, std::memory_order_relaxed);
        pthread_mutex_unlock(gCachedBytesLock);

        void* block = malloc(size);
        if (block == nullptr) {
            // The charge is not taken back: that would mean the global lock
            // again on a path that only runs when memory is already short,
            // so the budget shrinks by size for the rest of the process.
            FC_LOGE("<%s> Fail to allocate memory", mFileName);
            result = -1;
        } else {
            if (size != 0) memcpy(block, data, size);
            FC_LOGD(logEnabled(), "<%s> Write %d bytes to memory", mFileName, static_cast<int>(size));
            mChunks->push_back(std::make_pair(block, size));
            result = static_cast<int>(size);
        }
    }
    pthread_mutex_unlock(&mLock);
    return result;
}

void writeToFile(char* fileName, std::vector<std::pair<void*, unsigned int>>* chunks) {
    std::function<void()> job = std::bind(FlushJob(), fileName, chunks);
    // The future is dropped: nobody waits for a flush.
    (void)gFileCacheQueue.addJob(std::move(job), 0);
}
