#include "aovsim/EpollEventMonitor.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "EventObserver.h"

namespace aovsim {

namespace {

constexpr uint64_t kWakeKey = 0;
constexpr int kMaxEvents = 8;
// One notification per arming: the descriptor is re-armed after each one.
constexpr uint32_t kArmedEvents = EPOLLIN | EPOLLONESHOT;

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "event monitor: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

// Readable, or in error or hung up: anything that would notify again.
bool signalled(int fd) {
    pollfd p{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&p, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && (p.revents & (POLLIN | POLLERR | POLLHUP)) != 0;
}

}  // namespace

std::chrono::milliseconds backoffDelay(const BackoffPolicy& policy, uint64_t stalls) {
    const std::chrono::milliseconds first = std::max(policy.first, std::chrono::milliseconds(1));
    const std::chrono::milliseconds longest = std::max(policy.longest, first);
    std::chrono::milliseconds delay = first;
    for (uint64_t i = 1; i < stalls && delay < longest; ++i) {
        delay *= 2;
    }
    return std::min(delay, longest);
}

EpollEventMonitor::EpollEventMonitor(int verbosity, BackoffPolicy backoff, ProgressProbe progress,
                                     TimelineHooks* timeline)
    : verbosity_(verbosity),
      backoff_(backoff),
      progress_(std::move(progress)),
      timeline_(timeline) {
    epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_fd_ < 0 || wake_fd_ < 0) {
        fatal("cannot create the monitor's descriptors");
    }
    epoll_event wake{};
    wake.events = EPOLLIN;
    wake.data.u64 = kWakeKey;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &wake) != 0) {
        fatal("cannot watch the wake descriptor");
    }
    thread_ = std::thread(&EpollEventMonitor::run, this);
}

EpollEventMonitor::~EpollEventMonitor() {
    {
        aov::MutexLock guard(mutex_);
        stopping_ = true;
    }
    const uint64_t one = 1;
    if (::write(wake_fd_, &one, sizeof(one)) != sizeof(one)) {
        fatal("cannot wake the monitor");
    }
    thread_.join();
    ::close(wake_fd_);
    ::close(epoll_fd_);
}

int EpollEventMonitor::addObserver(EventObserver* observer, int fd) {
    if (observer == nullptr) {
        return -EINVAL;
    }
    const int watched = fd == -1 ? observer->getEventFD() : fd;
    if (watched < 0) {
        return -EBADF;
    }
    aov::MutexLock guard(mutex_);
    for (const auto& entry : watches_) {
        if (entry.second.observer == observer) {
            return -EEXIST;
        }
    }
    const uint64_t key = next_key_++;
    epoll_event event{};
    event.events = kArmedEvents;
    event.data.u64 = key;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, watched, &event) != 0) {
        return -errno;
    }
    watches_.emplace(key, Watch{observer, watched, 0, true, Clock::time_point()});
    return 0;
}

int EpollEventMonitor::removeObserver(EventObserver* observer, int fd) {
    aov::MutexLock lock(mutex_);
    auto it = watches_.begin();
    while (it != watches_.end() &&
           !(it->second.observer == observer && (fd == -1 || it->second.fd == fd))) {
        ++it;
    }
    if (it == watches_.end()) {
        return -ENOENT;
    }
    // The descriptor may already be closed, in which case epoll dropped it itself.
    ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
    // A back-off still running for it ends with the entry.
    watches_.erase(it);
    // A notification already running finishes before the caller may tear the
    // observer down; from inside that notification there is nothing to wait for.
    if (std::this_thread::get_id() != thread_.get_id()) {
        while (busy_ == observer) {
            lock.wait(idle_);
        }
    }
    return 0;
}

uint64_t EpollEventMonitor::notifications() const {
    aov::MutexLock guard(mutex_);
    return stats_.notifications;
}

MonitorStats EpollEventMonitor::stats() const {
    aov::MutexLock guard(mutex_);
    return stats_;
}

bool EpollEventMonitor::currentNotification(NotificationTimes* times) const {
    if (std::this_thread::get_id() != thread_.get_id() || !notifying_) {
        return false;
    }
    *times = current_;
    return true;
}

void EpollEventMonitor::arm(uint64_t key, const Watch& watch) {
    epoll_event event{};
    event.events = kArmedEvents;
    event.data.u64 = key;
    // Fails only for a descriptor closed while still watched; epoll has
    // dropped it then, and nothing is left to notify.
    ::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, watch.fd, &event);
}

int EpollEventMonitor::rearmDueLocked(Clock::time_point now) {
    Clock::duration next = Clock::duration::max();
    for (auto& entry : watches_) {
        Watch& watch = entry.second;
        if (watch.armed) {
            continue;
        }
        if (watch.rearm_at <= now) {
            watch.armed = true;
            arm(entry.first, watch);
        } else {
            next = std::min(next, watch.rearm_at - now);
        }
    }
    if (next == Clock::duration::max()) {
        return -1;
    }
    // Rounded up: waking early would only find nothing due.
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next).count();
    return static_cast<int>(std::min<decltype(ms)>(ms, 1000 * 1000));
}

void EpollEventMonitor::afterNotification(uint64_t key, bool stillSignalled, bool progressed) {
    ++stats_.notifications;
    auto it = watches_.find(key);
    if (it == watches_.end()) {
        return;  // removed from inside its notification
    }
    Watch& watch = it->second;
    if (!stillSignalled || progressed) {
        watch.stalls = 0;
        arm(key, watch);
        return;
    }
    ++watch.stalls;
    ++stats_.stalls;
    const std::chrono::milliseconds delay = backoffDelay(backoff_, watch.stalls);
    stats_.longest_backoff = std::max(stats_.longest_backoff, delay);
    watch.armed = false;
    watch.rearm_at = Clock::now() + delay;
}

void EpollEventMonitor::run() {
    epoll_event events[kMaxEvents];
    int timeout = -1;
    for (;;) {
        const int count = ::epoll_wait(epoll_fd_, events, kMaxEvents, timeout);
        if (count < 0 && errno != EINTR) {
            fatal("epoll_wait failed");
        }
        current_.woke = Clock::now();
        if (timeline_ != nullptr && count > 0) {
            timeline_->monitorWoke(current_.woke);
        }
        {
            aov::MutexLock guard(mutex_);
            ++stats_.wakeups;
        }
        for (int i = 0; i < count; ++i) {
            // epoll_event is packed: copy the key out rather than bind a
            // reference to a misaligned member.
            const uint64_t key = events[i].data.u64;
            EventObserver* observer = nullptr;
            int fd = -1;
            {
                aov::MutexLock guard(mutex_);
                if (stopping_) {
                    return;
                }
                // An observer removed since epoll_wait returned is skipped.
                auto it = watches_.find(key);
                if (key == kWakeKey || it == watches_.end()) {
                    continue;
                }
                observer = it->second.observer;
                fd = it->second.fd;
                busy_ = observer;
            }
            const uint64_t before = progress_ ? progress_() : 0;
            current_.notified = Clock::now();
            notifying_ = true;
            observer->notifyEvent(static_cast<int>(events[i].events), verbosity_);
            notifying_ = false;
            const bool progressed = progress_ && progress_() != before;
            // The descriptor stays open while busy_ holds its observer.
            const bool stillSignalled = signalled(fd);
            {
                aov::MutexLock guard(mutex_);
                busy_ = nullptr;
                afterNotification(key, stillSignalled, progressed);
            }
            idle_.notify_all();
        }
        aov::MutexLock guard(mutex_);
        if (stopping_) {
            return;
        }
        timeout = rearmDueLocked(Clock::now());
    }
}

}  // namespace aovsim
