// Asynchronous file dumping: the one-worker job queue, the file cache that
// collects blocks in memory under a process-wide budget, and the flush job
// that writes them out on the queue's worker.
#define LOG_TAG "file_cache"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <IFileCache.h>
#include <JobQueue.h>
#include <SysLog.h>
#include <cutils/properties.h>

#include "FileCacheInternal.h"
#include "FileCacheObserve.h"
#include "Locking.h"

#include <climits>
#include <list>
#include <new>
#include <vector>

using android::Mutex;
using qrncam::UniqueLock;

namespace NSCam {

// ---------------------------------------------------------------------------
// JobQueue<void (), 0>

namespace {
constexpr uint32_t kStateStopped = 0;
constexpr uint32_t kStateAccepting = 2;
// new state = min(current, target): the state can only fall.
constexpr uint32_t kStateTransition[3][3] = {{0, 0, 0}, {0, 1, 1}, {0, 1, 2}};

// fork(). A child gets a copy of every queue but not its worker thread, and
// a child of a multithreaded process cannot safely start threads. So in the
// child each queue is stopped: it accepts no job (a file cache dropped there
// is then written by the thread that drops it), and its destructor returns
// at once instead of waiting for a worker that does not exist. The jobs it
// came with are the parent's, which runs them; the child never does, and
// releases them when the queue goes (a flush then gives its memory back).
//
// Every live queue is registered for the fork handlers, which hold the
// queues' locks across the fork. The registry also points at the job each
// worker is running, so that in a child, where the worker's stack is gone,
// that job is still reachable memory rather than a leak.
struct QueueEntry {
    void* queue;
    void (*prepare)(void*);  // before fork: take the queue's lock
    void (*parent)(void*);   // after, in the parent: release it
    void (*child)(void*);    // after, in the child: stop the queue
    std::atomic<void*> running{nullptr};
};

struct QueueRegistry {
    std::mutex lock;
    std::list<QueueEntry> queues GUARDED_BY(lock);  // stable addresses: workers keep theirs
};

// The fork handlers take the registry's lock and every queue's before the
// fork and release them after it, in the parent and in the child: the locks
// are held across functions, which the analysis cannot follow, so it is off
// for these three.
QueueRegistry& queueRegistry();
void forkPrepare() NO_THREAD_SAFETY_ANALYSIS {
    QueueRegistry& qr = queueRegistry();
    qr.lock.lock();
    for (const QueueEntry& e : qr.queues)
        if (e.queue != nullptr) e.prepare(e.queue);
}
void forkParent() NO_THREAD_SAFETY_ANALYSIS {
    QueueRegistry& qr = queueRegistry();
    for (const QueueEntry& e : qr.queues)
        if (e.queue != nullptr) e.parent(e.queue);
    qr.lock.unlock();
}
void forkChild() NO_THREAD_SAFETY_ANALYSIS {
    QueueRegistry& qr = queueRegistry();
    for (const QueueEntry& e : qr.queues)
        if (e.queue != nullptr) e.child(e.queue);
    qr.lock.unlock();
}

QueueRegistry& queueRegistry() {
    // Never destroyed: queues may unregister from exit handlers.
    static QueueRegistry* registry = [] {
        auto* r = new QueueRegistry;
        pthread_atfork(forkPrepare, forkParent, forkChild);
        return r;
    }();
    return *registry;
}

// A new queue's entry, with its fork handlers.
QueueEntry* addQueueEntry(void* queue, void (*prepare)(void*), void (*parent)(void*), void (*child)(void*)) {
    QueueRegistry& qr = queueRegistry();
    std::lock_guard<std::mutex> g(qr.lock);
    QueueEntry* entry = &qr.queues.emplace_back();
    entry->queue = queue;
    entry->prepare = prepare;
    entry->parent = parent;
    entry->child = child;
    return entry;
}

// In a child that inherited a running job, the entry stays as that job's
// only keeper (the worker that owned it is not in this process); it is just
// detached from the queue.
void removeQueueEntry(const void* queue) {
    QueueRegistry& qr = queueRegistry();
    std::lock_guard<std::mutex> g(qr.lock);
    for (auto it = qr.queues.begin(); it != qr.queues.end();) {
        if (it->queue != queue) {
            ++it;
        } else if (it->running.load(std::memory_order_relaxed) != nullptr) {
            it->queue = nullptr;
            ++it;
        } else {
            it = qr.queues.erase(it);
        }
    }
}
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
    // The queue's lock is held across the fork, as the registry's is (see
    // forkPrepare).
    QueueEntry* entry = addQueueEntry(
        this, [](void* q) NO_THREAD_SAFETY_ANALYSIS { static_cast<JobQueue*>(q)->mMutex.lock(); },
        [](void* q) NO_THREAD_SAFETY_ANALYSIS { static_cast<JobQueue*>(q)->mMutex.unlock(); },
        [](void* q) NO_THREAD_SAFETY_ANALYSIS {
            auto* self = static_cast<JobQueue*>(q);
            // The forking thread is the child's only thread and owns the
            // lock. The condition variables may count waiters that do not
            // exist here, so they start afresh. Unless the fork came from one
            // of the queue's own jobs, the worker stayed behind, and its
            // future would wait for it when released: it is left unreleased.
            new (&self->mJobCond) std::condition_variable();
            new (&self->mIdleCond) std::condition_variable();
            if (!pthread_equal(self->mWorkerTid.load(std::memory_order_relaxed), pthread_self()))
                new (&self->mWorker) std::future<void>();
            self->setStateLocked(kStateStopped);
            self->mMutex.unlock();
        });
    // std::launch::async: the worker always has a thread of its own. If the
    // thread cannot be created the exception leaves a static initialiser
    // and the runtime ends the process.
    std::atomic<void*>* running = &entry->running;
    mWorker = std::async(std::launch::async, [this, running] { workerLoop(running); });
}

template <JQPriority P>
void JobQueue<void(), P>::setStateLocked(uint32_t target) {
    mState = kStateTransition[mState][target];
}

// noexcept: a task run twice (or a job that throws) must end the process
// rather than be swallowed into the worker's future.
template <JQPriority P>
void JobQueue<void(), P>::workerLoop(std::atomic<void*>* running) noexcept {
    mWorkerTid.store(pthread_self(), std::memory_order_release);
    for (;;) {
        UniqueLock lock(mMutex);
        // Only a fork from inside a job stops the queue under a running
        // worker; the child's copy of it then takes no further job.
        if (mState == kStateStopped) break;
        if (mJobs.empty()) {
            mIdleCond.notify_all();
            // No predicate: a spurious wake-up just leads to a fresh check.
            mJobCond.wait(lock.get());
            continue;
        }
        std::shared_ptr<JobTask> job = templateOp<P, void>::dequeJobLocked(mJobs);
        if (!job) {
            setStateLocked(kStateStopped);
            mIdleCond.notify_all();
        }
        // Shown before the lock goes: a fork holds the lock, so the child
        // never sees a job that has left the deque but is not yet shown.
        running->store(job.get(), std::memory_order_relaxed);
        lock.unlock();
        if (!job || !job->task.valid()) break;
        job->task();
        running->store(nullptr, std::memory_order_relaxed);
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
    // future nobody reads. Short of memory, nothing is queued and the caller
    // gets an empty future, as for a stopped queue.
    std::shared_ptr<JobTask> task;
    try {
        task = std::make_shared<JobTask>(
            JobTask{result.first, priority, std::packaged_task<void()>([fn = std::move(job)]() noexcept { fn(); })});
    } catch (const std::bad_alloc&) {
        FC_LOGE("<%s> Fail to allocate job %u", mName, result.first);
        return result;
    }

    std::lock_guard<std::mutex> lock(mMutex);
    // A rejected task is destroyed unrun (breaking its promise); the caller
    // gets an empty future.
    if (mState != kStateAccepting) return result;
    try {
        mJobs.push_front(task);
    } catch (const std::bad_alloc&) {
        FC_LOGE("<%s> Fail to allocate job %u", mName, result.first);
        return result;
    }
    result.second = task->task.get_future().share();
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
        while (mState != kStateStopped) mIdleCond.wait(lock);
        lock.unlock();
    }
    if (mWorker.valid()) mWorker.wait();
    removeQueueEntry(this);
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

// The lock is held across fork(), so that a child never starts with a copy
// of it that another thread of the parent held (the handlers hold it across
// functions, which the analysis cannot follow).
Mutex* newCachedBytesLock() {
    Mutex* m = new Mutex;
    pthread_atfork([]() NO_THREAD_SAFETY_ANALYSIS { gCachedBytesLock->lock(); },
                   []() NO_THREAD_SAFETY_ANALYSIS { gCachedBytesLock->unlock(); },
                   []() NO_THREAD_SAFETY_ANALYSIS { gCachedBytesLock->unlock(); });
    return m;
}

// Gives written (or abandoned) bytes back to the budget.
void credit(const void* flush, unsigned int bytes) EXCLUDES(gCachedBytesLock) {
    (void)flush;  // names the flush to the host's note only
    Mutex::Autolock lock(gCachedBytesLock);
    gCachedBytes.store(gCachedBytes.load(std::memory_order_relaxed) - bytes, std::memory_order_relaxed);
    QRN_FILECACHE_NOTE(Credit, nullptr, flush, nullptr, bytes, gCachedBytes.load(std::memory_order_relaxed), 0, true);
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

// The flush of one cache: writes the chunks, then releases them (the blocks,
// their charge on the budget, the list and the name block).
struct FlushJob {
    void operator()(char* fileName, Chunks* chunks) const {
        // The count is taken as a signed 32-bit value, so the loops run only
        // for at least one chunk.
        const int n = chunks == nullptr ? 0 : static_cast<int>(chunks->size());
        char data[kPreviewBytes + 1];
        QRN_FILECACHE_NOTE(Begin, nullptr, chunks, fileName, 0, 0, 0, true);
        bool written = true;

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
                    written = false;
                }
            }
            // Chunks smaller than the stream's buffer reach the file only
            // here, and a full or broken storage fails them only here: data
            // lost at the close is reported as any short write is.
            if (fclose(fp) != 0) {
                FC_LOGE("<%s> write error!!!", fileName);
                written = false;
            }
        } else {
            FC_LOGE("Fail to open physical file <%s>", fileName == nullptr ? "" : fileName);
            written = false;
        }

        char name[kNameBlockSize];
        release(fileName, chunks, name);
        FC_LOGI(logEnabled(), "<%s> write done, (remain = %d KB)", name, static_cast<int>(cachedBytesUnlocked() >> 10));
        QRN_FILECACHE_NOTE(End, nullptr, chunks, name, 0, 0, 0, written);
        (void)written;  // read only by the host's note
    }

    // Frees every block and credits it, then the list and the name block,
    // leaving a copy of the name in name for the lines that follow.
    static void release(char* fileName, Chunks* chunks, char (&name)[kNameBlockSize]) {
        const int n = chunks == nullptr ? 0 : static_cast<int>(chunks->size());
        char data[kPreviewBytes + 1];
        for (int i = 0; i < n; ++i) {
            const std::pair<void*, unsigned int>& c = (*chunks)[i];
            FC_LOGD(logEnabled(), "<%s> free %d bytes (%d/%d)", preview(data, c.first, c.second),
                    static_cast<int>(c.second), i, n);
            free(c.first);
            credit(chunks, c.second);
        }
        if (chunks != nullptr) {
            chunks->clear();
            delete chunks;
        }
        copyName(name, fileName);
        free(fileName);
    }
};

// One cache's chunks on their way to storage. It owns them, with the name
// block, until its flush has run. Destroyed without having run (a job that
// the queue released unrun: accepted after its stop marker, or inherited by
// a child made by fork()), it gives the memory and the budget back without
// writing; in the process that posted it the data is then lost, which is
// reported as any failed write is.
class PendingFlush {
  public:
    PendingFlush(char* fileName, Chunks* chunks) : mPoster(getpid()), mFileName(fileName), mChunks(chunks) {}
    PendingFlush(const PendingFlush&) = delete;
    PendingFlush& operator=(const PendingFlush&) = delete;

    ~PendingFlush() {
        if (mFileName == nullptr && mChunks == nullptr) return;
        if (mPoster == getpid()) FC_LOGE("<%s> write error!!!", mFileName == nullptr ? "" : mFileName);
        const Chunks* flush = mChunks;
        char name[kNameBlockSize];
        FlushJob::release(mFileName, mChunks, name);
        QRN_FILECACHE_NOTE(Discard, nullptr, flush, name, 0, 0, 0, false);
        (void)flush;
    }

    void run() {
        char* fileName = mFileName;
        Chunks* chunks = mChunks;
        mFileName = nullptr;
        mChunks = nullptr;
        FlushJob()(fileName, chunks);
    }

  private:
    const pid_t mPoster;
    char* mFileName;
    Chunks* mChunks;
};

}  // namespace

// Static initialisation, in this order: the byte-count lock, then the queue
// (which starts its worker). The queue's destructor is registered as an exit
// handler as soon as it is built, so flushes still queued at exit or unload
// reach storage before the process ends.
Mutex* gCachedBytesLock = newCachedBytesLock();
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
    // Out of memory for the object (or the reference count behind it), the
    // caller gets no cache rather than an exception.
    try {
        return new FileCache(fileName);
    } catch (const std::bad_alloc&) {
        FC_LOGE("<%s> Fail to create FileCache", fileName);
        return nullptr;
    }
}

}  // namespace NSCam

// mLock is initialised first, as a member, with default attributes, and goes
// last.
FileCache::FileCache(const char* fileName) : mFileName(nullptr), mChunks(nullptr) {
    // Every new cache reloads both for the whole process.
    gFileCacheLog.store(property_get_int32("vendor.debug.file_cache.log", 0), std::memory_order_relaxed);
    gStorageLimit.store(property_get_int64("vendor.debug.file_cache.storage_size", kDefaultStorageSize),
                        std::memory_order_relaxed);
    FC_LOGI(logEnabled(), "Initialize FileCache <%s>", fileName);
    QRN_FILECACHE_NOTE(Open, this, nullptr, fileName, 0, 0, 0, true);

    mFileName = static_cast<char*>(calloc(1, kNameBlockSize));
    if (mFileName == nullptr) {
        FC_LOGE("<%s> calloc fail", fileName);
        return;
    }
    strncpy(mFileName, fileName, kNameBlockSize - 1);
    // Without a chunk list the object is in the state of a failed name
    // block: it takes no data and flushes nothing.
    mChunks = new (std::nothrow) Chunks();
    if (mChunks == nullptr) {
        FC_LOGE("<%s> Fail to allocate chunk list", fileName);
        free(mFileName);
        mFileName = nullptr;
    }
}

FileCache::~FileCache() {
    // The job may free the name before the line below is written.
    char name[kNameBlockSize];
    copyName(name, mFileName);
    // Without a name block there is no file to flush into and no blocks.
    QRN_FILECACHE_NOTE(Drop, this, mChunks, name, 0, 0, 0, mChunks != nullptr);
    if (mChunks != nullptr) writeToFile(mFileName, mChunks);
    FC_LOGI(logEnabled(), "<%s> Dealloc of FileCache", name);
}

void FileCache::onFirstRef() {}

int FileCache::write(const void* data, unsigned int size) {
    if (mChunks == nullptr) return -1;
    // The result is the size as an int: a block it cannot report is refused
    // before anything is charged.
    if (size > static_cast<unsigned int>(INT_MAX)) {
        FC_LOGE("<%s> Write size %u exceeds %d bytes", mFileName, size, INT_MAX);
        return -1;
    }

    Mutex::Autolock lock(mLock);
    bool charged;
    {
        // The check and the charge share one critical section, so racing
        // writers cannot overrun the budget. The limit is compared unsigned:
        // a negative one lifts the budget altogether.
        Mutex::Autolock budget(gCachedBytesLock);
        const uint64_t limit = static_cast<uint64_t>(gStorageLimit.load(std::memory_order_relaxed));
        const uint64_t cached = gCachedBytes.load(std::memory_order_relaxed);
        charged = cached + size <= limit;
        if (charged) {
            gCachedBytes.store(cached + size, std::memory_order_relaxed);
            QRN_FILECACHE_NOTE(Write, this, nullptr, mFileName, size, cached + size, static_cast<int64_t>(limit), true);
        } else {
            QRN_FILECACHE_NOTE(Refuse, this, nullptr, mFileName, size, cached, static_cast<int64_t>(limit), false);
        }
    }
    if (!charged) {
        FC_LOGE("<%s> Storage size exceed %uMB/%uMB", mFileName, static_cast<unsigned>(cachedBytesUnlocked() >> 20),
                static_cast<unsigned>(gStorageLimit.load(std::memory_order_relaxed) >> 20));
        return -1;
    }

    void* block = malloc(size);
    if (block == nullptr) {
        // The charge is not taken back: that would mean the global lock
        // again on a path that only runs when memory is already short, so
        // the budget shrinks by size for the rest of the process.
        FC_LOGE("<%s> Fail to allocate memory", mFileName);
        return -1;
    }
    if (size != 0) memcpy(block, data, size);
    FC_LOGD(logEnabled(), "<%s> Write %d bytes to memory", mFileName, static_cast<int>(size));
    // A block the list has no room for is not kept, so neither its memory
    // nor its charge is.
    try {
        mChunks->push_back(std::make_pair(block, size));
    } catch (const std::bad_alloc&) {
        free(block);
        credit(nullptr, size);
        FC_LOGE("<%s> Fail to allocate memory", mFileName);
        return -1;
    }
    return static_cast<int>(size);
}

void writeToFile(char* fileName, std::vector<std::pair<void*, unsigned int>>* chunks) {
#if defined(QRNCAM_HOST_OBSERVE)
    uint64_t bytes = 0;
    if (chunks != nullptr)
        for (const auto& c : *chunks) bytes += c.second;
    QRN_FILECACHE_NOTE(Queue, nullptr, chunks, fileName, bytes, 0, 0, true);
#endif
    std::shared_ptr<PendingFlush> flush;
    try {
        flush = std::make_shared<PendingFlush>(fileName, chunks);
        std::function<void()> job = std::bind(&PendingFlush::run, flush);
        // The future is dropped: nobody waits for a flush.
        if (gFileCacheQueue.addJob(std::move(job), 0).second.valid()) return;
    } catch (const std::bad_alloc&) {
    }
    // Not queued (no memory for the job, or a stopped queue: at exit, or in
    // a child made by fork()): the file is written here, on the caller's
    // thread, rather than lost.
    if (flush != nullptr)
        flush->run();
    else
        FlushJob()(fileName, chunks);
}
