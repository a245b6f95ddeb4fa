#pragma once

// An EventMonitor on one thread with epoll: when a watched descriptor is
// readable it calls the observer's notifyEvent, one notification at a time.
// removeObserver returns only once no notification of that observer is
// running (unless called from inside one), so a caller may stop the device
// right after detaching it.
//
// A notification need not consume what made the descriptor readable: the
// device returns without dequeuing while its event buffer is still being
// prepared, and after a failed dequeue. Each descriptor is therefore armed
// for one notification at a time. After a notification the monitor looks at
// the descriptor again: quiet, or still signalled while the owner's progress
// counter moved (a backlog being worked off), and it is re-armed at once;
// still signalled with no progress, and it is re-armed only after a back-off
// that doubles with each such notification in a row, up to a bound. The
// monitor thread thus sleeps instead of spinning on a descriptor nobody
// drains, and picks the work up again within the bound once it can be done.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>

#include "EventMonitor.h"
#include "aovbase/Mutex.h"
#include "aovsim/TimelineHooks.h"

namespace aovsim {

struct BackoffPolicy {
    // Wait after the first notification that got nowhere (at least 1 ms).
    std::chrono::milliseconds first{1};
    // Longest wait; also how late work that became possible may be picked up.
    std::chrono::milliseconds longest{32};
};

// The wait before re-arming after the `stalls`-th notification in a row that
// left the descriptor signalled with no progress (stalls >= 1).
std::chrono::milliseconds backoffDelay(const BackoffPolicy& policy, uint64_t stalls);

struct MonitorStats {
    uint64_t wakeups = 0;        // returns from epoll_wait: a descriptor, a due re-arm, the stop
    uint64_t notifications = 0;  // notifyEvent calls
    uint64_t stalls = 0;         // notifications followed by a back-off
    std::chrono::milliseconds longest_backoff{0};
};

// When the notification running now began: the return from the wait that
// found its descriptor readable, and the call of notifyEvent.
struct NotificationTimes {
    std::chrono::steady_clock::time_point woke;
    std::chrono::steady_clock::time_point notified;
};

class EpollEventMonitor final : public EventMonitor {
  public:
    // A counter that moves whenever a notification got somewhere (say, the
    // number of events that reached their consumer). It is read on the
    // monitor thread before and after each notification.
    using ProgressProbe = std::function<uint64_t()>;

    // `verbosity` is passed to every notifyEvent. Without a probe, every
    // notification that leaves its descriptor signalled counts as no progress.
    // `timeline`, when given, hears of every return from the wait.
    explicit EpollEventMonitor(int verbosity = 0, BackoffPolicy backoff = BackoffPolicy(),
                               ProgressProbe progress = ProgressProbe(),
                               TimelineHooks* timeline = nullptr);
    // Stops the thread; observers still attached are dropped without notice.
    ~EpollEventMonitor() override;
    EpollEventMonitor(const EpollEventMonitor&) = delete;
    EpollEventMonitor& operator=(const EpollEventMonitor&) = delete;

    // fd -1: the observer's own getEventFD(). 0, or -EINVAL (null observer),
    // -EBADF (no descriptor), -EEXIST (already watched), or epoll's -errno.
    int addObserver(EventObserver* observer, int fd) override;
    // 0, or -ENOENT when the observer is not watched (or not on that fd).
    int removeObserver(EventObserver* observer, int fd) override;

    uint64_t notifications() const;
    MonitorStats stats() const;
    // From inside a notification (that is, on the monitor thread): its times,
    // and true. Elsewhere false, `times` untouched.
    bool currentNotification(NotificationTimes* times) const;

  private:
    using Clock = std::chrono::steady_clock;

    struct Watch {
        EventObserver* observer;
        int fd;
        uint64_t stalls = 0;  // notifications in a row that got nowhere
        bool armed = true;    // false: waiting for rearm_at
        Clock::time_point rearm_at{};
    };

    void run();
    void arm(uint64_t key, const Watch& watch);
    // Re-arms the watches whose back-off is over; returns the epoll_wait
    // timeout until the next one is due, or -1 when none waits.
    int rearmDueLocked(Clock::time_point now) AOV_REQUIRES(mutex_);
    void afterNotification(uint64_t key, bool signalled, bool progressed) AOV_REQUIRES(mutex_);

    const int verbosity_;
    const BackoffPolicy backoff_;
    const ProgressProbe progress_;
    TimelineHooks* const timeline_;
    int epoll_fd_ = -1;
    int wake_fd_ = -1;

    mutable aov::Mutex mutex_;
    std::condition_variable idle_;
    // by epoll key; key 0 is the wake descriptor
    std::map<uint64_t, Watch> watches_ AOV_GUARDED_BY(mutex_);
    uint64_t next_key_ AOV_GUARDED_BY(mutex_) = 1;
    // observer whose notification is running
    EventObserver* busy_ AOV_GUARDED_BY(mutex_) = nullptr;
    MonitorStats stats_ AOV_GUARDED_BY(mutex_);
    bool stopping_ AOV_GUARDED_BY(mutex_) = false;
    // Touched only on the monitor thread: two clock reads per notification.
    bool notifying_ = false;
    NotificationTimes current_;
    std::thread thread_;
};

}  // namespace aovsim
