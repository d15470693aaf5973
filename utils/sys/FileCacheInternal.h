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
extern pthread_mutex_t* gCachedBytesLock;
// Budget and log switch, reloaded from properties by every constructor.
extern std::atomic<int64_t> gStorageLimit;
extern std::atomic<int32_t> gFileCacheLog;
extern NSCam::JobQueue<void(), NSCam::JQPriority(0)> gFileCacheQueue;
