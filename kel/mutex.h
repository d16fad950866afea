#pragma once

#include <mutex>

/// Thread-safety annotations: clang checks them with -Wthread-safety, other compilers ignore them.
#if defined(__clang__)
#define KEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KEL_THREAD_ANNOTATION(x)
#endif
#define KEL_GUARDED_BY(mutex) KEL_THREAD_ANNOTATION(guarded_by(mutex))
#define KEL_REQUIRES(mutex) KEL_THREAD_ANNOTATION(requires_capability(mutex))

/// The framework's mutex. Recursive: a handler that holds a database mutex may call functions that take it
/// again.
class KEL_THREAD_ANNOTATION(capability("mutex")) KelMutex {
  public:
    void lock() KEL_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    void unlock() KEL_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
    bool try_lock() KEL_THREAD_ANNOTATION(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
    std::recursive_mutex mutex_;
};

/// Holds a KelMutex for a scope.
class KEL_THREAD_ANNOTATION(scoped_lockable) KelLock {
  public:
    explicit KelLock(KelMutex& mutex) KEL_THREAD_ANNOTATION(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~KelLock() KEL_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
    KelLock(const KelLock&) = delete;
    KelLock& operator=(const KelLock&) = delete;

  private:
    KelMutex& mutex_;
};
