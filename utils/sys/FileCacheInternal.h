// Process-wide state of the file cache, for white-box tests that link the
// static archive. None of it is exported from the shared library.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <JobQueue.h>
#include <atomic>

// Bytes accepted by write() and not yet released by a flush job. Changed only
// under *gCachedBytesLock; read without it by log lines.
extern std::atomic<uint64_t> gCachedBytes;
// Guards gCachedBytes. Taken after a cache's own mLock, never before it.
extern pthread_mutex_t* gCachedBytesLock;
// Budget and log switch, reloaded from properties by every constructor. No
// lock: each is one atomic value, stored and loaded whole.
extern std::atomic<int64_t> gStorageLimit;
extern std::atomic<int32_t> gFileCacheLog;
// Guarded by its own lock.
extern NSCam::JobQueue<void(), NSCam::JQPriority(0)> gFileCacheQueue;
