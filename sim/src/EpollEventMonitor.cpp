#include "aovsim/EpollEventMonitor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "EventObserver.h"

namespace aovsim {

namespace {

constexpr uint64_t kWakeKey = 0;
constexpr int kMaxEvents = 8;

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "event monitor: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

}  // namespace

EpollEventMonitor::EpollEventMonitor(int verbosity) : verbosity_(verbosity) {
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
        std::lock_guard<std::mutex> guard(mutex_);
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
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& entry : watches_) {
        if (entry.second.observer == observer) {
            return -EEXIST;
        }
    }
    const uint64_t key = next_key_++;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = key;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, watched, &event) != 0) {
        return -errno;
    }
    watches_.emplace(key, Watch{observer, watched});
    return 0;
}

int EpollEventMonitor::removeObserver(EventObserver* observer, int fd) {
    std::unique_lock<std::mutex> lock(mutex_);
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
    watches_.erase(it);
    // A notification already running finishes before the caller may tear the
    // observer down; from inside that notification there is nothing to wait for.
    if (std::this_thread::get_id() != thread_.get_id()) {
        idle_.wait(lock, [this, observer] { return busy_ != observer; });
    }
    return 0;
}

uint64_t EpollEventMonitor::notifications() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return notifications_;
}

void EpollEventMonitor::run() {
    epoll_event events[kMaxEvents];
    for (;;) {
        const int count = ::epoll_wait(epoll_fd_, events, kMaxEvents, -1);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            fatal("epoll_wait failed");
        }
        for (int i = 0; i < count; ++i) {
            EventObserver* observer = nullptr;
            {
                std::lock_guard<std::mutex> guard(mutex_);
                if (stopping_) {
                    return;
                }
                // An observer removed since epoll_wait returned is skipped.
                // epoll_event is packed: copy the key out rather than bind a
                // reference to a misaligned member.
                const uint64_t key = events[i].data.u64;
                auto it = watches_.find(key);
                if (key == kWakeKey || it == watches_.end()) {
                    continue;
                }
                observer = it->second.observer;
                busy_ = observer;
            }
            observer->notifyEvent(static_cast<int>(events[i].events), verbosity_);
            {
                std::lock_guard<std::mutex> guard(mutex_);
                busy_ = nullptr;
                ++notifications_;
            }
            idle_.notify_all();
        }
    }
}

}  // namespace aovsim
