#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "DeviceTestSupport.h"

namespace aovtest {
namespace {

using ::testing::AnyOf;
using ::testing::Each;
using ::testing::EndsWith;

// Stands in for the system layer's monitor: waits on the device descriptor
// (the fake driver's eventfd) and, per signal, delivers one notification at a
// time. The main thread signals and waits until every signal was handled,
// which is what keeps stopDevice away from a running notification.
class MonitorThread {
  public:
    MonitorThread(AOVDevice& device, int fd)
        : device_(device), fd_(fd), thread_([this] { run(); }) {}
    ~MonitorThread() {
        quit_.store(true, std::memory_order_release);
        signal();
        thread_.join();
    }

    // Raises one event on the descriptor.
    void signal() {
        const uint64_t one = 1;
        while (::write(fd_, &one, sizeof(one)) != sizeof(one)) {
        }
    }
    void signalAndWait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const uint64_t target = ++raised_;
        lock.unlock();
        signal();
        lock.lock();
        handled_cv_.wait(lock, [&] { return handled_ >= target; });
    }
    // Signals once without waiting; the notification may overlap what the caller does next.
    void signalAsync() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++raised_;
        }
        signal();
    }
    void waitAllHandled() {
        std::unique_lock<std::mutex> lock(mutex_);
        handled_cv_.wait(lock, [&] { return handled_ >= raised_; });
    }

  private:
    void run() {
        for (;;) {
            uint64_t signals = 0;
            if (::read(fd_, &signals, sizeof(signals)) != sizeof(signals)) {
                continue;
            }
            if (quit_.load(std::memory_order_acquire)) {
                return;
            }
            for (uint64_t i = 0; i < signals; ++i) {
                device_.notifyEvent(0, 0);
            }
            {
                std::lock_guard<std::mutex> guard(mutex_);
                handled_ += signals;
            }
            handled_cv_.notify_all();
        }
    }

    AOVDevice& device_;
    const int fd_;
    std::atomic<bool> quit_{false};
    std::mutex mutex_;
    std::condition_variable handled_cv_;
    uint64_t raised_ = 0;
    uint64_t handled_ = 0;
    std::thread thread_;
};

using AOVDeviceThreadTest = DeviceTest;

TEST_F(AOVDeviceThreadTest, MonitorDeliversWhileTheDeviceStartsAndStops) {
    AOVDevice device(kTestNode);
    const aov_event_query words = makeEventWords(9, true);
    driver_->setEvent(words, 0x33);

    std::mutex mutex;
    int delivered = 0;
    int wrongContent = 0;
    device.callback_ = [&](aov_event* event) {
        const bool ok = event->header[0] == words.header[0] && event->s1_info == words.s1_info &&
                        event->s10_data[sizeof(event->s10_data) - 1] == 0x33;
        std::lock_guard<std::mutex> guard(mutex);
        ++delivered;
        wrongContent += ok ? 0 : 1;
    };
    auto deliveredSoFar = [&] {
        std::lock_guard<std::mutex> guard(mutex);
        return delivered;
    };

    ASSERT_GE(device.getEventFD(), 0);
    {
        MonitorThread monitor(device, device.getEventFD());
        for (int cycle = 0; cycle < 20; ++cycle) {
            // This notification may run before, during or after the start.
            monitor.signalAsync();
            user_param param = makeParam(cycle % 3);
            ASSERT_EQ(0, device.startDevice(param));
            const int before = deliveredSoFar();
            // Until the buffer is ready, notifications end in "event_ is nullptr".
            do {
                monitor.signalAndWait();
            } while (deliveredSoFar() == before);
            monitor.waitAllHandled();
            ASSERT_EQ(0, device.stopDevice());

            const int stopped = deliveredSoFar();
            monitor.signalAndWait();
            EXPECT_EQ(stopped, deliveredSoFar());
        }
    }
    EXPECT_EQ(0, wrongContent);
    EXPECT_EQ(static_cast<size_t>(delivered), driver_->count(AOV_IOC_DEQUEUE_EVENT));
    EXPECT_THAT(errors(logs_), Each(AnyOf(EndsWith("ERROR: event_ is nullptr"),
                                          EndsWith("ERROR: failed to query event: -1"))));
}

}  // namespace
}  // namespace aovtest
