// Lock annotations of the host platform, for clang's -Wthread-safety.
//
// The platform's state is guarded by std::mutex. The analysis knows
// std::mutex as a lock in libc++ built with
// _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS, as this tree's clang builds are
// (the device and tidy lanes), and there it checks that every field marked
// QRNHOST_GUARDED_BY is touched only with its lock held. Anywhere else these
// expand to nothing, so that a program built with another C++ library and
// -Wthread-safety gets no warning from the platform's headers.
#pragma once

#include <mutex>

#if defined(__clang__) && defined(_LIBCPP_VERSION) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define QRNHOST_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define QRNHOST_THREAD_ANNOTATION_(x)
#endif

#define QRNHOST_GUARDED_BY(x) QRNHOST_THREAD_ANNOTATION_(guarded_by(x))
#define QRNHOST_REQUIRES(...) QRNHOST_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define QRNHOST_EXCLUDES(...) QRNHOST_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
#define QRNHOST_ACQUIRE(...) QRNHOST_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define QRNHOST_RELEASE(...) QRNHOST_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define QRNHOST_SCOPED_CAPABILITY QRNHOST_THREAD_ANNOTATION_(scoped_lockable)
// For a lock taken in one function and let go in another (fork handlers).
#define QRNHOST_NO_THREAD_SAFETY_ANALYSIS QRNHOST_THREAD_ANNOTATION_(no_thread_safety_analysis)

namespace qrnhost {

// std::unique_lock, which a condition variable needs, as the analysis sees
// it: the standard one carries no annotations (it can be moved, which the
// analysis cannot follow), so a function holding one would seem to hold
// nothing. Waits are loops that test their condition in the function itself,
// where the analysis sees the lock held: a predicate handed to the condition
// variable would be called from the C++ library, unchecked.
class QRNHOST_SCOPED_CAPABILITY UniqueLock {
  public:
    explicit UniqueLock(std::mutex& mutex) QRNHOST_ACQUIRE(mutex) : mLock(mutex) {}
    ~UniqueLock() QRNHOST_RELEASE() {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void lock() QRNHOST_ACQUIRE() { mLock.lock(); }
    void unlock() QRNHOST_RELEASE() { mLock.unlock(); }
    // For condition variables' waits.
    std::unique_lock<std::mutex>& get() { return mLock; }

  private:
    std::unique_lock<std::mutex> mLock;
};

}  // namespace qrnhost
