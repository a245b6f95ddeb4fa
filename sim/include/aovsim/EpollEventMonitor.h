#pragma once

// An EventMonitor on one thread with epoll: when a watched descriptor is
// readable it calls the observer's notifyEvent, one notification at a time.
// removeObserver returns only once no notification of that observer is
// running (unless called from inside one), so a caller may stop the device
// right after detaching it.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

#include "EventMonitor.h"

namespace aovsim {

class EpollEventMonitor final : public EventMonitor {
  public:
    // `verbosity` is passed to every notifyEvent.
    explicit EpollEventMonitor(int verbosity = 0);
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

  private:
    struct Watch {
        EventObserver* observer;
        int fd;
    };

    void run();

    const int verbosity_;
    int epoll_fd_ = -1;
    int wake_fd_ = -1;

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::map<uint64_t, Watch> watches_;  // by epoll key; key 0 is the wake descriptor
    uint64_t next_key_ = 1;
    EventObserver* busy_ = nullptr;  // observer whose notification is running
    uint64_t notifications_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace aovsim
