// Event delivery: monitor registration, the words and data areas each event
// carries, the delivery traces, and delivery from a monitor thread while the
// device starts and stops.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>

#include "BoundedWait.h"
#include "DeviceTestSupport.h"
#include "PlatformMocks.h"

namespace aovtest {
namespace {

using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::StrictMock;

constexpr char kImageCallbackProp[] = "vendor.aovstream.image_callback";
constexpr char kDebugDeviceProp[] = "vendor.aovstream.debug_device";

using AOVDeviceEventTest = DeviceTest;
using AOVDeviceThreadTest = DeviceTest;

TEST_F(AOVDeviceEventTest, SetMonitorMovesTheRegistration) {
    AOVDevice device(kTestNode);
    EventObserver* observer = &device;
    StrictMock<MockEventMonitor> first;
    StrictMock<MockEventMonitor> second;
    {
        InSequence order;
        EXPECT_CALL(first, addObserver(observer, -1));
        EXPECT_CALL(first, removeObserver(observer, -1));
        EXPECT_CALL(first, addObserver(observer, -1));
        EXPECT_CALL(first, removeObserver(observer, -1));
        EXPECT_CALL(second, addObserver(observer, -1));
        EXPECT_CALL(second, removeObserver(observer, -1));
    }
    EXPECT_EQ(0, device.setMonitor(nullptr));
    EXPECT_EQ(0, device.setMonitor(&first));
    EXPECT_EQ(0, device.setMonitor(&first));
    EXPECT_EQ(0, device.setMonitor(&second));
    EXPECT_EQ(0, device.setMonitor(nullptr));
    EXPECT_EQ(0, device.setMonitor(nullptr));
}

struct ContentRow {
    const char* name;
    int32_t mode;
    const char* imageCallback;
    bool contentFlag;
    bool sections1to5;  // info words of sections 1 to 5 copied
    bool imageWords;    // word 3 of sections 4 and 5 passed on
    bool sections6to10;
};

void PrintTo(const ContentRow& row, std::ostream* out) {
    *out << row.name;
}

class AOVDeviceContentTest : public DeviceTest, public ::testing::WithParamInterface<ContentRow> {};

TEST_P(AOVDeviceContentTest, CopiesTheWordsThatTheModeAndFlagsSelect) {
    const ContentRow& row = GetParam();
    aovhost::ScopedProperty imageCallback(kImageCallbackProp, row.imageCallback);
    ProbedDevice d;
    const aov_event_query words = makeEventWords(3, row.contentFlag);
    driver_->setEvent(words, 0x5A);
    const aov_event* event = d.start(row.mode);
    ASSERT_NE(nullptr, event);

    auto expected = [](bool copied, uint32_t word) { return copied ? word : 0u; };
    EXPECT_EQ(0u, event->word0);
    EXPECT_EQ(0, std::memcmp(words.header, event->header, sizeof(words.header)));
    EXPECT_EQ(expected(row.sections1to5, words.s1_info), event->s1_info);
    EXPECT_EQ(expected(row.sections1to5, words.s2_info), event->s2_info);
    EXPECT_EQ(expected(row.sections1to5, words.s3_info), event->s3_info);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(expected(row.sections1to5, words.s4_info[i]), event->s4_info[i]);
        EXPECT_EQ(expected(row.sections1to5, words.s5_info[i]), event->s5_info[i]);
    }
    EXPECT_EQ(expected(row.imageWords, words.s4_info[3]), event->s4_info[3]);
    EXPECT_EQ(expected(row.imageWords, words.s5_info[3]), event->s5_info[3]);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(expected(row.sections6to10, words.s6_info[i]), event->s6_info[i]);
    }
    EXPECT_EQ(expected(row.sections6to10, words.s7_info), event->s7_info);
    EXPECT_EQ(expected(row.sections6to10, words.s8_info), event->s8_info);
    EXPECT_EQ(expected(row.sections6to10, words.s9_info), event->s9_info);
    EXPECT_EQ(expected(row.sections6to10, words.s10_info), event->s10_info);

    // The driver wrote every data area in place, up to the end of the buffer.
    const uint8_t* areas[][2] = {
        {event->s1_data, std::end(event->s1_data)}, {event->s2_data, std::end(event->s2_data)},
        {event->s3_data, std::end(event->s3_data)}, {event->s4_data, std::end(event->s4_data)},
        {event->s5_data, std::end(event->s5_data)}, {event->s6_data, std::end(event->s6_data)},
        {event->s7_data, std::end(event->s7_data)}, {event->s8_data, std::end(event->s8_data)},
        {event->s9_data, std::end(event->s9_data)}, {event->s10_data, std::end(event->s10_data)},
    };
    for (const auto& area : areas) {
        EXPECT_EQ(0x5A, area[0][0]);
        EXPECT_EQ(0x5A, area[1][-1]);
    }
    EXPECT_EQ(0, d.device.stopDevice());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AOVDeviceContentTest,
    ::testing::Values(
        // mode, image_callback, header[5] -> sections 1-5, word 3, sections 6-10
        ContentRow{"Mode0Content", 0, "1", true, true, true, false},
        ContentRow{"Mode0NoContent", 0, "1", false, false, false, false},
        ContentRow{"Mode0ContentNoImage", 0, "0", true, true, false, false},
        ContentRow{"Mode1NoContentNoImage", 1, "0", false, true, false, false},
        ContentRow{"Mode1NoContent", 1, "1", false, true, true, false},
        ContentRow{"Mode2NoContentNoImage", 2, "0", false, true, true, true}),
    [](const ::testing::TestParamInfo<ContentRow>& info) { return std::string(info.param.name); });

TEST_F(AOVDeviceEventTest, WordsPersistUntilAnEventRewritesThem) {
    ProbedDevice d;
    const aov_event_query first = makeEventWords(1, true);
    driver_->setEvent(first, 1);
    aov_event* event = d.start();
    ASSERT_NE(nullptr, event);

    // No content: only the header changes.
    const aov_event_query second = makeEventWords(2, false);
    driver_->setEvent(second, 2);
    d.device.notifyEvent(0, 0);
    EXPECT_EQ(2, d.calls);
    EXPECT_EQ(event, d.last);
    EXPECT_EQ(0, std::memcmp(second.header, event->header, sizeof(second.header)));
    EXPECT_EQ(first.s1_info, event->s1_info);
    EXPECT_EQ(first.s4_info[3], event->s4_info[3]);
    EXPECT_EQ(first.s5_info[0], event->s5_info[0]);
    EXPECT_EQ(2, event->s3_data[0]);

    // A failed dequeue leaves the buffer alone and reaches no callback.
    logs_.clear();
    driver_->setEvent(makeEventWords(3, true), 3);
    driver_->queueResult(AOV_IOC_DEQUEUE_EVENT, -EIO);
    d.device.notifyEvent(0, 0);
    EXPECT_EQ(2, d.calls);
    EXPECT_EQ(0, std::memcmp(second.header, event->header, sizeof(second.header)));
    EXPECT_EQ(first.s1_info, event->s1_info);
    expectErrorLine(logs_, kDeviceHeaderPath, "queryEvent", "failed to query evice event: -5");
    expectErrorLine(logs_, kDeviceHeaderPath, "notifyEvent", "failed to query event: -5");
    EXPECT_EQ(2u, errors(logs_).size());
    EXPECT_EQ(0, d.device.stopDevice());
}

TEST_F(AOVDeviceEventTest, DeliveryTracesFollowTheDebugSwitchAndTheVerbosity) {
    struct Row {
        const char* debugDevice;
        int verbosity;
        bool started;
        bool callback;
        std::vector<std::string> lines;
    };
    const std::string callbackIn = "[notifyEvent] notify event callback+";
    const std::string callbackOut = "[notifyEvent] notify event callback-";
    const std::vector<Row> rows = {
        {"0", 0, false, true, {}},
        {"0", 1, false, true, {kNotStarted}},
        {"1", 0, false, true, {kNotStarted}},
        {"0", 0, true, true, {}},
        {"0", 1, true, true, {callbackIn, callbackOut}},
        {"1",
         0,
         true,
         true,
         {"[queryEvent] Dequeue event+", "[queryEvent] Dequeue event-", callbackIn, callbackOut}},
        // Without a callback the event is still taken from the driver.
        {"0", 0, true, false, {"[notifyEvent] null notify event callback"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows.data()));
        aovhost::ScopedProperty debug(kDebugDeviceProp, row.debugDevice);
        ProbedDevice d;
        driver_->clearRequests();
        if (row.started) {
            d.start();
        }
        if (!row.callback) {
            d.device.callback_ = nullptr;
        }
        EXPECT_EQ(row.lines, tracesOf([&] { d.device.notifyEvent(0, row.verbosity); }));
        EXPECT_EQ(row.lines.size(), logs_.debugLines().size());
        EXPECT_THAT(errors(logs_), IsEmpty());
        EXPECT_EQ(row.started ? 2u : 0u, driver_->count(AOV_IOC_DEQUEUE_EVENT));
        EXPECT_EQ(row.started ? (row.callback ? 2 : 1) : 0, d.calls);
        EXPECT_EQ(0, d.device.stopDevice());
    }
}

// Stands in for the system layer's monitor: waits on the device descriptor
// (the fake driver's eventfd) and, per signal, delivers one notification at a
// time. The main thread signals and waits until every signal was handled,
// which is what keeps stopDevice away from a running notification.
class MonitorThread {
  public:
    MonitorThread(AOVDevice& device, int fd)
        : device_(device), fd_(fd), thread_("the monitor thread", [this] { run(); }) {}
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
    // Signals once without waiting; the notification may overlap what the caller does next.
    void signalAsync() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++raised_;
        }
        signal();
    }
    ::testing::AssertionResult waitAllHandled() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (handled_cv_.wait_for(lock, kWaitLimit, [&] { return handled_ >= raised_; })) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "only " << handled_ << " of " << raised_ << " signals handled within "
               << kWaitLimit.count() << " s";
    }
    ::testing::AssertionResult signalAndWait() {
        signalAsync();
        return waitAllHandled();
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
    BoundedThread thread_;
};

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
            ASSERT_TRUE(retryUntil([&] {
                return monitor.signalAndWait() && deliveredSoFar() != before;
            })) << "no event delivered within "
                << kWaitLimit.count() << " s of start " << cycle + 1;
            ASSERT_EQ(0, device.stopDevice());

            const int stopped = deliveredSoFar();
            ASSERT_TRUE(monitor.signalAndWait());
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
