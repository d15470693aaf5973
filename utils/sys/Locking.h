// Locking in the library, checked by the compiler.
//
// Clang's -Wthread-safety (on in the clang builds: the device and tidy lanes)
// checks every lock: a field names the lock that guards it (GUARDED_BY), a
// function the locks it needs held (REQUIRES) or must not hold (EXCLUDES),
// and the file cache states the order of its two locks (ACQUIRED_BEFORE).
// The annotations come with libutils' android::Mutex, a wrapper of exactly
// one pthread_mutex_t, so the objects keep the layout they had with the plain
// mutex; std::mutex carries them in libc++ when
// _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS is defined, as those builds do.
// A function whose name ends in "Locked" is called with the lock held.
#pragma once

#include <SysLog.h>
#include <pthread.h>
#include <utils/Mutex.h>

#include <mutex>

namespace qrncam {

// android::Mutex keeps the layout of the pthread_mutex_t it replaces.
static_assert(sizeof(android::Mutex) == sizeof(pthread_mutex_t), "android::Mutex is one pthread_mutex_t");
static_assert(alignof(android::Mutex) == alignof(pthread_mutex_t), "android::Mutex is one pthread_mutex_t");

// The lock of one controller operation (CpuCtrl, Cam3CPUCtrl). Holds the
// object's mLock from construction to the end of the operation and writes
// the operation's closing "[%s] -" line just before releasing it, whichever
// way the operation returns: a failing operation logs its reason and
// returns, and this is its one way out.
class SCOPED_CAPABILITY OperationLock {
  public:
    OperationLock(android::Mutex& lock, log::ScopedFunctionTrace& scope) ACQUIRE(lock) : mLock(lock), mScope(scope) {
        mLock.lock();
    }
    ~OperationLock() RELEASE() {
        mScope.exit();
        mLock.unlock();
    }
    OperationLock(const OperationLock&) = delete;
    OperationLock& operator=(const OperationLock&) = delete;

  private:
    android::Mutex& mLock;
    log::ScopedFunctionTrace& mScope;
};

// std::unique_lock, which a condition variable needs, as the analysis sees
// it: the standard one carries no annotations (it can be moved, which the
// analysis cannot follow), so a function that holds one would seem to hold
// nothing. Waits are loops that test their condition in the function itself,
// where the analysis sees the lock held: a predicate handed to the condition
// variable would be called from the C++ library, unchecked.
class SCOPED_CAPABILITY UniqueLock {
  public:
    explicit UniqueLock(std::mutex& mutex) ACQUIRE(mutex) : mLock(mutex) {}
    ~UniqueLock() RELEASE() {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void lock() ACQUIRE() { mLock.lock(); }
    void unlock() RELEASE() { mLock.unlock(); }
    // For condition variables' waits, which give the lock back before they
    // return.
    std::unique_lock<std::mutex>& get() { return mLock; }

  private:
    std::unique_lock<std::mutex> mLock;
};

}  // namespace qrncam
