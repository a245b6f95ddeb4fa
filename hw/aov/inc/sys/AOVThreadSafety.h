#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Locking rules that the compiler checks. Under clang with -Wthread-safety a
// member marked AOV_GUARDED_BY(m) may only be touched while m is held, and a
// function marked AOV_REQUIRES(m) only called with it held; other compilers
// see nothing. The analysis knows only annotated types, whatever standard
// library is in use, so shared state is locked through aov::Mutex and
// aov::MutexLock below rather than std::mutex and its locks.
#if defined(__clang__)
#define AOV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define AOV_THREAD_ANNOTATION(x)
#endif

#define AOV_CAPABILITY(name) AOV_THREAD_ANNOTATION(capability(name))
#define AOV_SCOPED_CAPABILITY AOV_THREAD_ANNOTATION(scoped_lockable)
#define AOV_GUARDED_BY(m) AOV_THREAD_ANNOTATION(guarded_by(m))
#define AOV_REQUIRES(...) AOV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define AOV_EXCLUDES(...) AOV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define AOV_ACQUIRE(...) AOV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define AOV_RELEASE(...) AOV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace aov {

// A std::mutex that the analysis knows as a lock.
class AOV_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() AOV_ACQUIRE() { mutex_.lock(); }
    void unlock() AOV_RELEASE() { mutex_.unlock(); }

  private:
    friend class MutexLock;
    std::mutex mutex_;
};

// Holds a Mutex for its scope, as std::unique_lock does, and waits on
// condition variables with it. A wait releases the mutex and holds it again
// before it returns; the caller loops on its own condition, which the
// analysis then sees read under the lock.
class AOV_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) AOV_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~MutexLock() AOV_RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void wait(std::condition_variable& cv) { cv.wait(lock_); }
    // False when the deadline passed before a notification.
    template <class Clock, class Duration>
    bool waitUntil(std::condition_variable& cv,
                   const std::chrono::time_point<Clock, Duration>& deadline) {
        return cv.wait_until(lock_, deadline) == std::cv_status::no_timeout;
    }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace aov
