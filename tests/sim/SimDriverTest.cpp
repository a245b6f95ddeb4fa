// The emulated AOV driver: the requests it refuses, the readiness of its
// descriptor, and what a dequeue writes. Events are produced by hand (no
// frame timer). Sessions as the library runs them, injected failures and the
// timer are covered by the end-to-end runs of aov-sim.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "aov_event.h"
#include "aovsim/EventContent.h"
#include "aovsim/SimDriver.h"
#include "kelo_aov.h"

namespace {

using namespace aovsim;

struct StartRecord {
    uint8_t bytes[AOV_START_RECORD_SIZE] = {};
    StartRecord(int32_t sensorId, int32_t frameRate, int32_t aovMode = 0) {
        put(AOV_START_SENSOR_ID, sensorId);
        put(AOV_START_SCENARIO, 7);
        put(AOV_START_FRAME_RATE, frameRate);
        put(AOV_START_AOV_MODE, aovMode);
        put(0x24, 320);
        put(0x28, 240);
        put(0x30, 160);
        put(0x34, 120);
    }
    void put(size_t offset, int32_t value) { std::memcpy(bytes + offset, &value, 4); }
};

// An event buffer laid out as the library's, with every byte preset.
struct EventBuffer {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(kEventBufferSize, 0xEE);
    aov_event* event() { return reinterpret_cast<aov_event*>(bytes.data()); }
    aov_event_query query() {
        aov_event_query q;
        std::memset(&q, 0, sizeof(q));
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            aov_query_set_area(&q, s, bytes.data() + aov_event_sections[s].data_offset);
        }
        return q;
    }
};

bool untouched(const void* area, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(area);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0xEE; });
}

class SimDriverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        params_.timer = false;
        makeDriver();
    }

    void makeDriver(DriverBugs bugs = 0) {
        driver_.reset();
        driver_ = std::make_unique<SimDriver>(AOV_DEVICE_NODE, params_, FaultConfig(),
                                              std::make_shared<Trace>());
        driver_->setBugs(bugs);
        fd_ = driver_->open(O_RDWR);
        ASSERT_GE(fd_, 0);
    }

    int start(int32_t frameRate = 10, int32_t aovMode = 0) {
        StartRecord record(3, frameRate, aovMode);
        return driver_->ioctl(fd_, AOV_IOC_START, record.bytes);
    }
    // Dequeues into buffer_; `query` receives the record.
    int dequeue(aov_event_query& query) {
        query = buffer_.query();
        return driver_->ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query);
    }
    bool readable() {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }

    DriverConfig params_;
    std::unique_ptr<SimDriver> driver_;
    EventBuffer buffer_;
    int fd_ = -1;
};

TEST_F(SimDriverTest, RefusesRequestsThatDoNotFitTheSessionState) {
    StartRecord record(0, 10);
    struct Case {
        const char* what;
        bool started;
        unsigned int code;
        void* arg;
        int expected;
    };
    uint8_t big[216] = {};
    aov_sensor_list list{};
    const Case cases[] = {
        {"dequeue before start", false, AOV_IOC_DEQUEUE_EVENT, big, -EINVAL},
        {"second start", true, AOV_IOC_START, record.bytes, -EBUSY},
        {"unused request number", false, _IO('H', 5), nullptr, -ENOTTY},
        {"start with another size", false, _IOW('H', 0, uint8_t[208]), big, -ENOTTY},
        {"start without argument", false, AOV_IOC_START, nullptr, -EFAULT},
        {"sensor list with count 0", true, AOV_IOC_SENSOR_ON, &list, -EINVAL},
        {"dequeue with nothing pending", true, AOV_IOC_DEQUEUE_EVENT, big, -EAGAIN},
        {"stop without a session", false, AOV_IOC_STOP, nullptr, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        makeDriver();
        if (c.started) {
            ASSERT_EQ(start(), 0);
        }
        EXPECT_EQ(driver_->ioctl(fd_, c.code, c.arg), c.expected);
        EXPECT_EQ(driver_->stats().failed_requests, c.expected < 0 ? 1u : 0u);
    }
    list.count = 65;
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_SENSOR_OFF, &list), -EINVAL);
    EXPECT_EQ(driver_->ioctl(fd_ + 100, AOV_IOC_STOP, nullptr), -EBADF);
    EXPECT_EQ(driver_->open(O_RDWR), -EBUSY);
    makeDriver();
    EXPECT_EQ(start(0), -EINVAL);
    EXPECT_FALSE(driver_->started());

    // A content event dequeued into a record without data-area addresses is
    // refused, and stays queued.
    makeDriver();
    ASSERT_EQ(start(), 0);
    driver_->produceEvent();
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, big), -EFAULT);
    EXPECT_EQ(driver_->stats().failed_requests, 1u);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, big), -EFAULT);
}

// A slower stream: only every n-th tick queues an event, and its sequence
// is the tick's.
TEST_F(SimDriverTest, WithEventEveryOnlyEveryNthTickQueuesAnEvent) {
    params_.event_every = 3;
    makeDriver();
    ASSERT_EQ(start(), 0);
    driver_->produceEvent();
    driver_->produceEvent();
    EXPECT_FALSE(readable());
    EXPECT_EQ(driver_->stats().produced, 0u);
    driver_->produceEvent();
    EXPECT_TRUE(readable());
    aov_event_query query;
    ASSERT_EQ(dequeue(query), 0);
    EXPECT_EQ(query.header[0], 3u);
    for (int i = 0; i < 3; ++i) {
        driver_->produceEvent();
    }
    EXPECT_EQ(driver_->stats().produced, 2u);
    ASSERT_EQ(dequeue(query), 0);
    EXPECT_EQ(query.header[0], 6u);
    EXPECT_FALSE(readable());
}

TEST_F(SimDriverTest, DescriptorIsReadableExactlyWhileEventsArePending) {
    params_.queue_depth = 2;
    makeDriver();
    driver_->produceEvent();  // ignored without a session
    ASSERT_EQ(start(), 0);
    EXPECT_FALSE(readable());
    for (int i = 0; i < 3; ++i) {
        driver_->produceEvent();  // the third overwrites the first
    }
    EXPECT_TRUE(readable());
    aov_event_query query;
    ASSERT_EQ(dequeue(query), 0);
    EXPECT_EQ(query.header[0], 2u);
    EXPECT_EQ(query.header[4], 1u);  // overruns so far
    EXPECT_TRUE(readable());
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(dequeue(query), 0);
    const auto after = std::chrono::steady_clock::now();
    EXPECT_EQ(query.header[0], 3u);
    EXPECT_FALSE(readable());
    // The mark times the request that handed the event out; a failed one leaves it.
    const DequeueMark mark = driver_->lastDequeue();
    EXPECT_LE(mark.produced_at, before);
    EXPECT_LE(before, mark.dequeue_began);
    EXPECT_LE(mark.dequeue_began, mark.dequeue_ended);
    EXPECT_LE(mark.dequeue_ended, after);
    EXPECT_EQ(dequeue(query), -EAGAIN);
    EXPECT_EQ(driver_->lastDequeue().sequence, 3u);
    EXPECT_EQ(driver_->lastDequeue().dequeue_began, mark.dequeue_began);

    // A stop discards what is pending.
    driver_->produceEvent();
    EXPECT_TRUE(readable());
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);
    EXPECT_FALSE(readable());
    EXPECT_EQ(driver_->stats().discarded_at_stop, 1u);
}

TEST_F(SimDriverTest, DequeueWritesWordsAndAreasWithinTheirBounds) {
    for (int32_t mode : {0, AOV_MODE_FULL_CONTENT}) {
        SCOPED_TRACE(mode);
        makeDriver();
        buffer_ = EventBuffer();
        ASSERT_EQ(start(10, mode), 0);
        driver_->produceEvent();
        aov_event_query query;
        ASSERT_EQ(dequeue(query), 0);

        const uint32_t header[6] = {1, 3, 100, 7, 0, 1};
        EXPECT_EQ(0, std::memcmp(query.header, header, sizeof(header)));
        const uint32_t s4[4] = {aov_event_sections[3].data_size, 320, 240, 1};
        EXPECT_EQ(0, std::memcmp(query.s4_info, s4, sizeof(s4)));
        EXPECT_EQ(query.s6_info[0],
                  mode == AOV_MODE_FULL_CONTENT ? aov_event_sections[5].data_size : 0u);
        EXPECT_EQ(query.s1_addr, buffer_.event()->s1_data);  // addresses come back unchanged

        const int written =
            mode == AOV_MODE_FULL_CONTENT ? AOV_SECTION_COUNT : AOV_BASIC_SECTION_COUNT;
        for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
            const uint8_t* area = buffer_.bytes.data() + aov_event_sections[s].data_offset;
            const uint32_t size = aov_event_sections[s].data_size;
            EXPECT_EQ(sectionContentMatches(area, size, 1, s + 1), s < written)
                << "section " << s + 1;
            if (s >= written) {
                EXPECT_TRUE(untouched(area, size)) << "section " << s + 1;
            }
        }
        // The word slots sit right behind each area: writing past an area would hit them.
        const aov_event* e = buffer_.event();
        const std::pair<const void*, size_t> slots[] = {
            {&e->word0, 4},   {e->header, 24},  {&e->s1_info, 4}, {&e->s2_info, 4},
            {&e->s3_info, 4}, {e->s4_info, 16}, {e->s5_info, 16}, {e->s6_info, 20},
            {&e->s7_info, 4}, {&e->s8_info, 4}, {&e->s9_info, 4}, {&e->s10_info, 4}};
        for (const auto& slot : slots) {
            EXPECT_TRUE(untouched(slot.first, slot.second));
        }
    }
}

// Memory whose every write faults, as an unmapped area does.
class FaultingMemory final : public UserMemory {
  public:
    int write(void*, size_t, const Producer&) override { return -EFAULT; }
};

TEST_F(SimDriverTest, ACloseAnswersWhatItsFlushAnswersAndItsReleaseDecidesTheNextOpen) {
    struct Case {
        const char* what;
        DriverBugs bugs;
        bool started;
        int closed;         // what the close returns
        bool reopens;       // whether the next open gets a descriptor
        bool session_left;  // whether the session outlives the close
    };
    const Case cases[] = {
        {"clean, idle", 0, false, 0, true, false},
        {"clean, started", 0, true, 0, true, false},
        {"flush-busy, idle", static_cast<DriverBugs>(DriverBug::kFlushBusy), false, 0, true, false},
        // The release happens whatever the flush said.
        {"flush-busy, started", static_cast<DriverBugs>(DriverBug::kFlushBusy), true, -EBUSY, true,
         false},
        {"busy-after-started-close, idle",
         static_cast<DriverBugs>(DriverBug::kBusyAfterStartedClose), false, 0, true, false},
        {"busy-after-started-close, started",
         static_cast<DriverBugs>(DriverBug::kBusyAfterStartedClose), true, 0, false, false},
        {"keep-session-on-close, started", static_cast<DriverBugs>(DriverBug::kKeepSessionOnClose),
         true, 0, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        makeDriver(c.bugs);
        if (c.started) {
            ASSERT_EQ(start(), 0);
        }
        EXPECT_EQ(driver_->close(fd_), c.closed);
        EXPECT_EQ(driver_->started(), c.session_left);
        const int reopened = driver_->open(O_RDWR);
        if (c.reopens) {
            EXPECT_GE(reopened, 0);
        } else {
            EXPECT_EQ(reopened, -EBUSY);
        }
    }
}

TEST_F(SimDriverTest, WithDequeueKeepsEventEveryDequeueHandsOutTheOldestEventUntilStop) {
    makeDriver(static_cast<DriverBugs>(DriverBug::kDequeueKeepsEvent));
    ASSERT_EQ(start(), 0);
    driver_->produceEvent();
    driver_->produceEvent();
    aov_event_query query;
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(dequeue(query), 0);
        EXPECT_EQ(query.header[0], 1u);
        EXPECT_TRUE(readable());
    }
    EXPECT_EQ(driver_->stats().dequeued, 3u);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);
    EXPECT_FALSE(readable());
    EXPECT_EQ(driver_->stats().discarded_at_stop, 2u);
}

TEST_F(SimDriverTest, AFailedCopyWithPollerrAfterErrorKeepsTheEventAndPollerrLastsUntilStart) {
    for (const bool bug : {false, true}) {
        SCOPED_TRACE(bug ? "pollerr-after-error" : "clean");
        makeDriver(bug ? static_cast<DriverBugs>(DriverBug::kPollerrAfterError) : 0);
        ASSERT_EQ(start(), 0);
        driver_->produceEvent();
        EXPECT_EQ(driver_->pollMask(fd_), static_cast<unsigned>(POLLIN | POLLRDNORM));

        aov_event_query query = buffer_.query();
        FaultingMemory faulting;
        EXPECT_EQ(driver_->serve(fd_, AOV_IOC_DEQUEUE_EVENT, reinterpret_cast<uint8_t*>(&query),
                                 faulting),
                  -EFAULT);
        if (!bug) {
            EXPECT_EQ(driver_->pollMask(fd_), 0u);
            EXPECT_EQ(driver_->stats().lost_on_failure, 1u);
            continue;
        }
        // The event is still there, and POLLERR comes with it.
        EXPECT_EQ(driver_->pollMask(fd_), static_cast<unsigned>(POLLIN | POLLRDNORM | POLLERR));
        ASSERT_EQ(dequeue(query), 0);
        EXPECT_EQ(query.header[0], 1u);
        EXPECT_EQ(driver_->pollMask(fd_), static_cast<unsigned>(POLLERR));
        EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);
        EXPECT_EQ(driver_->pollMask(fd_), static_cast<unsigned>(POLLERR));
        ASSERT_EQ(start(), 0);
        EXPECT_EQ(driver_->pollMask(fd_), 0u);
    }
}

TEST_F(SimDriverTest, SessionBugsRefuseOnlyInTheStateTheyAreAbout) {
    // STOP with the ULPOSC3 clock off fails and the session runs on; with
    // the clock on it stops.
    makeDriver(static_cast<DriverBugs>(DriverBug::kStopNeedsUlposc3));
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);  // no session: nothing to reach
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), -EIO);
    EXPECT_TRUE(driver_->started());
    ASSERT_EQ(driver_->ioctl(fd_, AOV_IOC_ULPOSC3_ON, nullptr), 0);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);
    EXPECT_FALSE(driver_->started());

    // START after a STOP is refused until the node is opened again.
    makeDriver(static_cast<DriverBugs>(DriverBug::kStartOncePerOpen));
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(driver_->ioctl(fd_, AOV_IOC_STOP, nullptr), 0);
    EXPECT_EQ(start(), -EINVAL);
    ASSERT_EQ(driver_->close(fd_), 0);
    fd_ = driver_->open(O_RDWR);
    ASSERT_GE(fd_, 0);
    EXPECT_EQ(start(), 0);

    // Only opens for writing are refused.
    SimDriver readOnly(AOV_DEVICE_NODE, params_, FaultConfig(), std::make_shared<Trace>());
    readOnly.setBugs(static_cast<DriverBugs>(DriverBug::kRefuseRdwr));
    EXPECT_EQ(readOnly.open(O_RDWR), -EACCES);
    EXPECT_EQ(readOnly.open(O_WRONLY), -EACCES);
    EXPECT_GE(readOnly.open(O_RDONLY), 0);

    // A positive result still hands the event out.
    makeDriver(static_cast<DriverBugs>(DriverBug::kPositiveSuccess));
    EXPECT_EQ(start(), 1);
    driver_->produceEvent();
    aov_event_query query;
    EXPECT_EQ(dequeue(query), 1);
    EXPECT_EQ(query.header[0], 1u);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), -EAGAIN);

    // A null sensor list is taken for none; other null records are still refused.
    makeDriver(static_cast<DriverBugs>(DriverBug::kAcceptNullSensorList));
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_SENSOR_ON, nullptr), 0);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_SENSOR_OFF, nullptr), 0);
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_START, nullptr), -EFAULT);
    EXPECT_EQ(driver_->stats().failed_requests, 1u);
    makeDriver();
    EXPECT_EQ(driver_->ioctl(fd_, AOV_IOC_SENSOR_ON, nullptr), -EFAULT);

    // Only full-content events are refused by a driver of the basic sections.
    makeDriver(static_cast<DriverBugs>(DriverBug::kBasicSectionsOnly));
    ASSERT_EQ(start(10, 0), 0);
    driver_->produceEvent();
    EXPECT_EQ(dequeue(query), 0);
}

}  // namespace
