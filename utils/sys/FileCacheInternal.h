// Process-wide state of the file cache, for white-box tests that link the
// static archive. None of it is exported from the shared library.
#pragma once

#include <stdint.h>
#include <utils/Mutex.h>

#include <IFileCache.h>
#include <JobQueue.h>
#include <atomic>

// gCachedBytesLock (declared with FileCache, whose lock comes first) guards
// gCachedBytes: the bytes accepted by write() and not yet released by a flush
// job. Changed only under the lock, so that a write's check and charge are
// one step.
extern std::atomic<uint64_t> gCachedBytes GUARDED_BY(gCachedBytesLock);
// The budget as log lines, tests and host programs show it: read without the
// lock, so by the time it is shown it may have changed.
inline uint64_t cachedBytesUnlocked() NO_THREAD_SAFETY_ANALYSIS {
    return gCachedBytes.load(std::memory_order_relaxed);
}
// Budget and log switch, reloaded from properties by every constructor. No
// lock: each is one atomic value, stored and loaded whole.
extern std::atomic<int64_t> gStorageLimit;
extern std::atomic<int32_t> gFileCacheLog;
// Guarded by its own lock.
extern NSCam::JobQueue<void(), NSCam::JQPriority(0)> gFileCacheQueue;
