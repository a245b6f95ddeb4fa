#pragma once

#include <pthread.h>

#include "aovbase/ThreadAnnotations.h"

namespace aov {

// A pthread mutex that the analysis knows as a lock, for code that cannot use
// std::mutex: it is constant-initialised (usable before any constructor has
// run, as a preloaded library's globals are) and can be initialised afresh in
// a forked child. Condition variables wait on native().
class AOV_CAPABILITY("mutex") PosixMutex {
  public:
    constexpr PosixMutex() = default;
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;

    void lock() AOV_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() AOV_RELEASE() { pthread_mutex_unlock(&mutex_); }
    // Tells the analysis that the lock is held where it cannot see it taken.
    void assertHeld() const AOV_ASSERT_CAPABILITY(this) {}
    // For pthread_cond_wait and pthread_cond_timedwait, with the lock held.
    pthread_mutex_t* native() AOV_REQUIRES(this) { return &mutex_; }
    // A forked child's fresh, unlocked mutex, whatever state the parent's
    // threads left it in.
    void reinitialise() AOV_NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_init(&mutex_, nullptr); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace aov
