#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "aovbase/ThreadAnnotations.h"

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

    // Releases the mutex before the scope ends (to call out without it).
    void unlock() AOV_RELEASE() { lock_.unlock(); }

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
