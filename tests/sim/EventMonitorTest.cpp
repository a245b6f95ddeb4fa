// The epoll event monitor: registration rules, notification on a readable
// descriptor, no notification of an observer once its removal returned, and
// back-off instead of spinning on a descriptor that a notification left
// signalled without getting anywhere.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "EventObserver.h"
#include "aovsim/EpollEventMonitor.h"

namespace {

using aovsim::BackoffPolicy;
using aovsim::EpollEventMonitor;
using aovsim::MonitorStats;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A deadline for things that happen at once when the monitor works; a broken
// monitor fails here instead of hanging the run (well inside ctest's limit).
constexpr auto kDeadline = std::chrono::seconds(30);

enum class Descriptor {
    kEventfd,     // readable while items are pending, one item consumed per read
    kHungUpPipe,  // the writer is gone: hung up for good, nothing to consume
};

// An observer on its own descriptor. Items signalled with signal() make the
// eventfd readable until as many are consumed. A notification consumes one
// item (progress) unless `skips` says otherwise for its index (0-based): then
// it returns without consuming, as the device does while its event buffer is
// being prepared.
class TestObserver : public EventObserver {
  public:
    explicit TestObserver(Descriptor kind = Descriptor::kEventfd) {
        if (kind == Descriptor::kEventfd) {
            fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
        } else {
            int ends[2];
            EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
            ::close(ends[1]);
            fd_ = ends[0];
        }
    }
    ~TestObserver() override { ::close(fd_); }

    int setMonitor(EventMonitor*) override { return 0; }
    const std::string& getEventName() override { return name_; }
    int getEventFD() override { return fd_; }
    int getEventType() override { return 2; }
    void notifyEvent(int event, int verbosity) override {
        times.push_back(Clock::now());
        last_event_ = event;
        last_verbosity_ = verbosity;
        if (onNotify) {
            onNotify();
        }
        if (!(skips && skips(count_))) {
            consume();
        }
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++count_;
        }
        counted_.notify_all();
    }

    void signal(int items = 1) {
        const uint64_t n = static_cast<uint64_t>(items);
        ASSERT_EQ(::write(fd_, &n, sizeof(n)), static_cast<ssize_t>(sizeof(n)));
    }
    void consume() {
        uint64_t value;
        if (::read(fd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) {
            ++consumed_;
        }
    }
    bool readable() const {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }
    // Waits until `n` notifications have finished; fails, saying how many
    // came, when they did not.
    ::testing::AssertionResult waitForCount(int n) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (counted_.wait_for(lock, kDeadline, [this, n] { return count_ >= n; })) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "only " << count_ << " of " << n << " notifications arrived within "
               << kDeadline.count() << " s";
    }
    int count() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return count_;
    }

    std::function<void()> onNotify;
    std::function<bool(int)> skips;
    std::atomic<uint64_t> consumed_{0};
    std::atomic<int> last_event_{0};
    std::atomic<int> last_verbosity_{-1};
    // Written on the monitor thread; read once the observer has been removed.
    std::vector<Clock::time_point> times;

  private:
    int fd_ = -1;
    std::string name_ = "test";
    mutable std::mutex mutex_;
    std::condition_variable counted_;
    int count_ = 0;
};

std::function<bool(int)> always() {
    return [](int) { return true; };
}
std::function<bool(int)> first(int n) {
    return [n](int index) { return index < n; };
}

EpollEventMonitor::ProgressProbe progressOf(const TestObserver& observer) {
    return [&observer] { return observer.consumed_.load(); };
}

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
    busy.skips = always();
    ASSERT_EQ(monitor.addObserver(&busy, -1), 0);
    busy.signal();
    ASSERT_TRUE(busy.waitForCount(3));
    ASSERT_EQ(monitor.removeObserver(&busy, -1), 0);
    const int countAtRemoval = busy.count();

    // A second observer's notification proves the monitor went on running.
    TestObserver other;
    ASSERT_EQ(monitor.addObserver(&other, -1), 0);
    other.signal();
    ASSERT_TRUE(other.waitForCount(1));
    EXPECT_EQ(busy.count(), countAtRemoval);
    EXPECT_EQ(monitor.removeObserver(&other, -1), 0);
    // Notified on its own descriptor, with the monitor's verbosity.
    EXPECT_EQ(other.count(), 1);
    EXPECT_EQ(other.last_event_ & EPOLLIN, EPOLLIN);
    EXPECT_EQ(other.last_verbosity_, 3);
    EXPECT_EQ(monitor.notifications(), static_cast<uint64_t>(countAtRemoval + 1));
}

TEST(EpollEventMonitorTest, ObserverMayRemoveItselfFromItsNotification) {
    // Nothing waits for a notification that removed its own observer: the
    // monitor's thread must end before the observer goes.
    TestObserver observer;
    EpollEventMonitor monitor;
    std::atomic<int> removal{1};
    observer.onNotify = [&] { removal = monitor.removeObserver(&observer, -1); };
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    observer.signal();
    ASSERT_TRUE(observer.waitForCount(1));
    EXPECT_EQ(removal, 0);
}

TEST(EpollEventMonitorTest, BackoffDelayDoublesUpToItsBound) {
    const BackoffPolicy policy{milliseconds(3), milliseconds(20)};
    EXPECT_EQ(aovsim::backoffDelay(policy, 1), milliseconds(3));
    EXPECT_EQ(aovsim::backoffDelay(policy, 2), milliseconds(6));
    EXPECT_EQ(aovsim::backoffDelay(policy, 3), milliseconds(12));
    EXPECT_EQ(aovsim::backoffDelay(policy, 4), milliseconds(20));
    EXPECT_EQ(aovsim::backoffDelay(policy, UINT64_MAX), milliseconds(20));
    // No zero wait, which would be a spin, and no bound below the first wait.
    EXPECT_EQ(aovsim::backoffDelay({milliseconds(0), milliseconds(0)}, 5), milliseconds(1));
    EXPECT_EQ(aovsim::backoffDelay({milliseconds(8), milliseconds(2)}, 3), milliseconds(8));
}

struct StuckCase {
    const char* name;
    Descriptor kind;
};

void PrintTo(const StuckCase& c, std::ostream* out) {
    *out << c.name;
}

class StuckDescriptor : public ::testing::TestWithParam<StuckCase> {};

// Every notification that leaves the descriptor signalled with no progress is
// followed by a wait of at least its back-off before the next one.
TEST_P(StuckDescriptor, EachNotificationWithoutProgressIsFollowedByAGrowingBoundedWait) {
    const BackoffPolicy policy{milliseconds(1), milliseconds(4)};
    TestObserver observer(GetParam().kind);
    observer.skips = always();
    EpollEventMonitor monitor(0, policy, progressOf(observer));
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    if (GetParam().kind == Descriptor::kEventfd) {
        observer.signal();
    }
    ASSERT_TRUE(observer.waitForCount(6));
    ASSERT_EQ(monitor.removeObserver(&observer, -1), 0);

    const MonitorStats stats = monitor.stats();
    const int notified = observer.count();
    EXPECT_EQ(stats.notifications, static_cast<uint64_t>(notified));
    // Each one backed off; the last may have been cut short by the removal.
    EXPECT_GE(stats.stalls + 1, stats.notifications);
    EXPECT_LE(stats.stalls, stats.notifications);
    EXPECT_EQ(stats.longest_backoff, milliseconds(4));
    // One wake-up for each notification and at most one for each back-off's end.
    EXPECT_LE(stats.wakeups, 2 * stats.notifications + 1);
    ASSERT_EQ(observer.times.size(), static_cast<size_t>(notified));
    for (size_t i = 1; i < observer.times.size(); ++i) {
        EXPECT_GE(observer.times[i] - observer.times[i - 1], aovsim::backoffDelay(policy, i))
            << "between notifications " << i << " and " << i + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(EpollEventMonitorTest, StuckDescriptor,
                         ::testing::Values(StuckCase{"ReadableEventfd", Descriptor::kEventfd},
                                           StuckCase{"HungUpPipe", Descriptor::kHungUpPipe}),
                         [](const ::testing::TestParamInfo<StuckCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(EpollEventMonitorTest, BacklogIsDeliveredBackToBackWhileEachNotificationProgresses) {
    TestObserver observer;
    EpollEventMonitor monitor(0, BackoffPolicy(), progressOf(observer));
    observer.signal(5);
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    ASSERT_TRUE(observer.waitForCount(5));
    ASSERT_EQ(monitor.removeObserver(&observer, -1), 0);
    EXPECT_EQ(observer.consumed_, 5u);
    EXPECT_FALSE(observer.readable());
    EXPECT_EQ(monitor.stats().notifications, 5u);
    EXPECT_EQ(monitor.stats().stalls, 0u);
}

TEST(EpollEventMonitorTest, EachNotificationSeesItsOwnWakeAndEntryTimes) {
    TestObserver observer;
    EpollEventMonitor monitor(0, BackoffPolicy(), progressOf(observer));
    // Written on the monitor thread; read once the observer has been removed.
    std::vector<aovsim::NotificationTimes> seen;
    observer.onNotify = [&] {
        aovsim::NotificationTimes times;
        if (monitor.currentNotification(&times)) {
            seen.push_back(times);
        }
    };
    observer.signal(3);
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    ASSERT_TRUE(observer.waitForCount(3));
    ASSERT_EQ(monitor.removeObserver(&observer, -1), 0);
    aovsim::NotificationTimes outside;
    EXPECT_FALSE(monitor.currentNotification(&outside));
    ASSERT_EQ(seen.size(), 3u);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_LE(seen[i].woke, seen[i].notified) << i;
        EXPECT_LE(seen[i].notified, observer.times[i]) << i;
        if (i > 0) {
            // A backlog: each notification follows a wake-up of its own.
            EXPECT_LE(observer.times[i - 1], seen[i].woke) << i;
        }
    }
}

TEST(EpollEventMonitorTest, WithoutAProbeASignalledDescriptorAlwaysBacksOff) {
    TestObserver observer;
    EpollEventMonitor monitor(0, BackoffPolicy{milliseconds(1), milliseconds(2)});
    observer.signal(3);
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    ASSERT_TRUE(observer.waitForCount(3));
    ASSERT_EQ(monitor.removeObserver(&observer, -1), 0);
    EXPECT_EQ(observer.consumed_, 3u);
    // The last notification left it quiet.
    EXPECT_EQ(monitor.stats().stalls, 2u);
}

// As a session start whose first notifications come before the event buffer
// exists: the streak of stalls ends with the first progress, and a later
// stall starts again from the shortest wait.
TEST(EpollEventMonitorTest, StalledObserverRecoversAndItsNextStallStartsShort) {
    TestObserver observer;
    // Three stalls, four events delivered, one stall, one event delivered.
    observer.skips = [](int index) { return index < 3 || index == 7; };
    EpollEventMonitor monitor(0, BackoffPolicy{milliseconds(1), milliseconds(64)},
                              progressOf(observer));
    observer.signal(4);
    ASSERT_EQ(monitor.addObserver(&observer, -1), 0);
    ASSERT_TRUE(observer.waitForCount(7));
    EXPECT_EQ(observer.consumed_, 4u);
    observer.signal();
    ASSERT_TRUE(observer.waitForCount(9));
    ASSERT_EQ(monitor.removeObserver(&observer, -1), 0);
    EXPECT_EQ(observer.consumed_, 5u);
    EXPECT_FALSE(observer.readable());
    EXPECT_EQ(monitor.stats().notifications, 9u);
    EXPECT_EQ(monitor.stats().stalls, 4u);
    // 1, 2 and 4 ms, then 1 ms again: a streak carried over would have waited 8.
    EXPECT_EQ(monitor.stats().longest_backoff, milliseconds(4));
}

TEST(EpollEventMonitorTest, RemovalReAddingAndStopDoNotWaitForABackOff) {
    const BackoffPolicy anHour{std::chrono::hours(1), std::chrono::hours(1)};
    TestObserver observer;
    observer.skips = first(1);
    auto monitor = std::make_unique<EpollEventMonitor>(0, anHour, progressOf(observer));
    observer.signal();
    ASSERT_EQ(monitor->addObserver(&observer, -1), 0);
    // The first notification does not consume: an hour's back-off starts.
    // Notifications run one after another, so once a second observer has been
    // notified the monitor is done with the first one's.
    ASSERT_TRUE(observer.waitForCount(1));
    TestObserver witness;
    witness.signal();
    ASSERT_EQ(monitor->addObserver(&witness, -1), 0);
    ASSERT_TRUE(witness.waitForCount(1));
    ASSERT_EQ(monitor->stats().stalls, 1u);
    ASSERT_EQ(monitor->removeObserver(&observer, -1), 0);
    // Watched afresh, it is notified at once and consumes.
    ASSERT_EQ(monitor->addObserver(&observer, -1), 0);
    ASSERT_TRUE(observer.waitForCount(2));
    EXPECT_EQ(observer.consumed_, 1u);

    // Stopping the monitor in the middle of another hour's back-off returns.
    TestObserver stuck;
    stuck.skips = always();
    ASSERT_EQ(monitor->addObserver(&stuck, -1), 0);
    stuck.signal();
    ASSERT_TRUE(stuck.waitForCount(1));
    auto stopped = std::async(std::launch::async, [&monitor] { monitor.reset(); });
    if (stopped.wait_for(kDeadline) != std::future_status::ready) {
        // The stop still runs and uses the monitor: nothing can be torn down.
        std::fprintf(stderr, "stopping the monitor did not return within %lld s\n",
                     static_cast<long long>(kDeadline.count()));
        std::_Exit(1);
    }
}

}  // namespace
