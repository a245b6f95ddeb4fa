// The epoll event monitor: registration rules, notification on a readable
// descriptor, and no notification of an observer once its removal returned.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <string>

#include "EventObserver.h"
#include "aovsim/EpollEventMonitor.h"

namespace {

using aovsim::EpollEventMonitor;

// An observer with its own eventfd. Each notification runs `onNotify`; the
// promise is kept once `target` notifications have arrived.
class TestObserver : public EventObserver {
  public:
    TestObserver() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~TestObserver() override { ::close(fd_); }

    int setMonitor(EventMonitor*) override { return 0; }
    const std::string& getEventName() override { return name_; }
    int getEventFD() override { return fd_; }
    int getEventType() override { return 2; }
    void notifyEvent(int event, int verbosity) override {
        last_event_ = event;
        last_verbosity_ = verbosity;
        if (onNotify) {
            onNotify();
        }
        if (++count_ == target) {
            reached.set_value();
        }
    }

    void signal() {
        const uint64_t one = 1;
        ASSERT_EQ(::write(fd_, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    }
    void consume() {
        uint64_t value;
        (void)!::read(fd_, &value, sizeof(value));
    }

    std::function<void()> onNotify;
    int target = 1;
    std::promise<void> reached;
    std::atomic<int> count_{0};
    std::atomic<int> last_event_{0};
    std::atomic<int> last_verbosity_{-1};

  private:
    int fd_;
    std::string name_ = "test";
};

TEST(EpollEventMonitorTest, RegistrationRules) {
    EpollEventMonitor monitor;
    TestObserver observer;
    EXPECT_EQ(monitor.addObserver(nullptr, -1), -EINVAL);
    EXPECT_EQ(monitor.addObserver(&observer, -2), -EBADF);
    EXPECT_EQ(monitor.removeObserver(&observer, -1), -ENOENT);
    EXPECT_EQ(monitor.addObserver(&observer, -1), 0);
    EXPECT_EQ(monitor.addObserver(&observer, -1), -EEXIST);
    EXPECT_EQ(monitor.removeObserver(&observer, observer.getEventFD() + 1), -ENOENT);
    EXPECT_EQ(monitor.removeObserver(&observer, -1), 0);
    EXPECT_EQ(monitor.removeObserver(&observer, -1), -ENOENT);
}

TEST(EpollEventMonitorTest, NoNotificationOnceRemovalReturned) {
    EpollEventMonitor monitor(3);
    // Never consumes its event, so the monitor keeps notifying it.
    TestObserver busy;
    busy.target = 3;
    auto busyReached = busy.reached.get_future();
    ASSERT_EQ(monitor.addObserver(&busy, -1), 0);
    busy.signal();
    busyReached.wait();
    ASSERT_EQ(monitor.removeObserver(&busy, -1), 0);
    const int countAtRemoval = busy.count_;

    // A second observer's notification proves the monitor went on running.
    TestObserver other;
    other.onNotify = [&other] { other.consume(); };
    auto otherReached = other.reached.get_future();
    ASSERT_EQ(monitor.addObserver(&other, -1), 0);
    other.signal();
    otherReached.wait();
    EXPECT_EQ(busy.count_, countAtRemoval);
    EXPECT_EQ(monitor.removeObserver(&other, -1), 0);
    // Notified on its own descriptor, with the monitor's verbosity.
    EXPECT_EQ(other.count_, 1);
    EXPECT_EQ(other.last_event_ & EPOLLIN, EPOLLIN);
    EXPECT_EQ(other.last_verbosity_, 3);
    EXPECT_EQ(monitor.notifications(), static_cast<uint64_t>(countAtRemoval + 1));
}

TEST(EpollEventMonitorTest, ObserverMayRemoveItselfFromItsNotification) {
    EpollEventMonitor monitor;
    TestObserver observer;
    std::atomic<int> removal{1};
    observer.onNotify = [&] { removal = monitor.removeObserver(&observer, -1); };
    auto reached = observer.reached.get_future();
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    observer.signal();
    reached.wait();
    EXPECT_EQ(removal, 0);
}

}  // namespace
