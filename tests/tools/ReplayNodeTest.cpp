// The replaying driver of aov-sim --replay in process: it answers in the
// recorded order, writes only the areas the recording kept, refuses a cut
// recording, and stops at the first request that is not the recorded one;
// events come at the recorded pace divided by the speed.

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "BoundedWait.h"
#include "Options.h"
#include "ReplayNode.h"
#include "ReplayPlan.h"
#include "aovsession/SessionBuilder.h"
#include "kelo_aov.h"

namespace {

// A digest as the tools print it.
std::string digestText(const void* data, size_t size) {
    char hex[17];
    std::snprintf(hex, sizeof(hex), "%016llx",
                  static_cast<unsigned long long>(aovrec::digest(data, size)));
    return hex;
}

using aovsimtool::ReplayDivergence;
using aovsimtool::ReplayNode;

constexpr int kFd = 7;  // the recorded process's descriptor of the node

struct StartRecord {
    uint8_t bytes[AOV_START_RECORD_SIZE] = {};
    explicit StartRecord(int32_t aovMode) {
        std::memcpy(bytes + AOV_START_AOV_MODE, &aovMode, sizeof(aovMode));
        const int32_t rate = 10;
        std::memcpy(bytes + AOV_START_FRAME_RATE, &rate, sizeof(rate));
    }
};

aov_sensor_list sensorList(int32_t id) {
    aov_sensor_list list{};
    list.count = 1;
    list.sensor_ids[0] = id;
    return list;
}

// A dequeue record as a process sends it: zero but for the ten addresses.
aov_event_query dequeueSent(uint8_t* event) {
    aov_event_query query{};
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        aov_query_set_area(&query, s, event + aov_event_sections[s].data_offset);
    }
    return query;
}

// A recording composed in memory.
class Composed {
  public:
    Composed() : fd_(::memfd_create("replay-test", MFD_CLOEXEC)) {
        builder_ = std::make_unique<aovrec::SessionBuilder>(fd_, aovrec::ContentMode::kWritten,
                                                            aovrec::Compression::kZstd);
    }
    ~Composed() { ::close(fd_); }
    aovrec::SessionBuilder& b() { return *builder_; }

    std::vector<uint8_t> bytes() {
        EXPECT_TRUE(builder_->ok());
        std::vector<uint8_t> out(static_cast<size_t>(::lseek(fd_, 0, SEEK_END)));
        EXPECT_EQ(::pread(fd_, out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));
        return out;
    }

  private:
    int fd_;
    std::unique_ptr<aovrec::SessionBuilder> builder_;
};

std::shared_ptr<ReplayNode> load(std::vector<uint8_t>& bytes, std::string* problem,
                                 double speed = 0) {
    auto* data = &bytes;
    return ReplayNode::load(
        [data](std::string*) -> std::unique_ptr<aovrec::ByteSource> {
            return std::make_unique<aovrec::MemorySource>(data->data(), data->size());
        },
        speed, problem);
}

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    const int limit_ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(aovtest::kWaitLimit).count());
    return ::poll(&p, 1, limit_ms) == 1 && (p.revents & POLLIN) != 0;
}

bool readableNow(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
}

// The words and areas of one recorded event: section 1 kept 100 bytes,
// section 4 kept 200; the recorder's addresses are another process's.
struct RecordedEvent {
    aov_event_query back{};
    std::vector<uint8_t> s1 = std::vector<uint8_t>(100, 0x11);
    std::vector<uint8_t> s4 = std::vector<uint8_t>(200, 0x44);
    RecordedEvent() {
        for (uint32_t i = 0; i < 6; ++i) {
            back.header[i] = 100 + i;
        }
        back.s1_info = 100;
        back.s4_info[0] = 200;
        back.s4_addr = reinterpret_cast<void*>(0x1234);
    }
    void record(aovrec::SessionBuilder& b, uint8_t* otherBuffer) {
        const aov_event_query sent = dequeueSent(otherBuffer);
        const aovrec::SessionBuilder::Area areas[] = {{1, s1.data(), 100}, {4, s4.data(), 200}};
        b.ioctl(kFd, AOV_IOC_DEQUEUE_EVENT, &sent, sizeof(sent), 0, &back, sizeof(back), areas, 2);
    }
};

// A recording of the node opened and one event dequeued; closed after it
// when `closed`.
std::vector<uint8_t> oneEvent(bool closed) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR, kFd);
    std::vector<uint8_t> other(sizeof(aov_event));
    RecordedEvent event;
    event.record(b, other.data());
    if (closed) {
        b.close(kFd, 0);
    }
    return recording.bytes();
}

class ReplayNodeTest : public ::testing::Test {
  protected:
    // open, START, SENSOR_ON refused, one event, SENSOR_OFF, STOP, close.
    void compose() {
        aovrec::SessionBuilder& b = recording_.b();
        b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
        b.advance(1000000);
        const StartRecord start(0);
        b.ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
        const aov_sensor_list on = sensorList(3);
        b.ioctl(kFd, AOV_IOC_SENSOR_ON, &on, sizeof(on), -EINVAL);
        b.advance(1000000);
        event_.record(b, other_.data());
        const aov_sensor_list off = sensorList(3);
        b.ioctl(kFd, AOV_IOC_SENSOR_OFF, &off, sizeof(off), 0);
        b.ioctl(kFd, AOV_IOC_STOP, nullptr, 0, 0);
        b.close(kFd, 0);
        bytes_ = recording_.bytes();
        std::string problem;
        node_ = load(bytes_, &problem);
        ASSERT_TRUE(node_) << problem;
        node_->setDivergenceHandler(
            [this](const ReplayDivergence& d) { divergences_.push_back(d); });
    }

    Composed recording_;
    RecordedEvent event_;
    std::vector<uint8_t> other_ = std::vector<uint8_t>(sizeof(aov_event));
    std::vector<uint8_t> bytes_;
    std::shared_ptr<ReplayNode> node_;
    std::vector<ReplayDivergence> divergences_;
};

TEST_F(ReplayNodeTest, AnswersEachRequestWithTheRecordedResultInOrder) {
    compose();
    const int fd = node_->open(O_RDWR);
    ASSERT_GE(fd, 0);
    // Another descriptor is not the node's: refused, and the node stays open.
    EXPECT_EQ(node_->ioctl(fd + 100, AOV_IOC_STOP, nullptr), -EBADF);
    EXPECT_EQ(node_->close(fd + 100), -EBADF);
    StartRecord start(0);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    EXPECT_FALSE(readableNow(fd)) << "readable before the recorded dequeue is next";
    aov_sensor_list on = sensorList(3);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, &on), -EINVAL);

    std::vector<uint8_t> event(sizeof(aov_event));
    aov_event_query query = dequeueSent(event.data());
    const aov_event_query sent = query;
    ASSERT_TRUE(readable(fd)) << "the recorded event never became ready";
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
    EXPECT_FALSE(readableNow(fd)) << "still readable after the only event";
    for (uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(query.header[i], 100 + i);
    }
    EXPECT_EQ(query.s4_info[0], 200u);
    EXPECT_EQ(query.s4_addr, sent.s4_addr) << "the caller's address was replaced";

    aov_sensor_list off = sensorList(3);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_OFF, &off), 0);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_STOP, nullptr), 0);
    EXPECT_TRUE(node_->finish());
    EXPECT_EQ(node_->close(fd), 0);
    EXPECT_TRUE(divergences_.empty());
    const aovsim::DriverStatus status = node_->status();
    EXPECT_EQ(status.stats.requests, 5u);
    EXPECT_EQ(status.stats.failed_requests, 1u);
    EXPECT_EQ(status.stats.dequeued, 1u);
    EXPECT_EQ(node_->progress().events, 1u);
    EXPECT_EQ(node_->progress().total, 1u);
}

TEST_F(ReplayNodeTest, WritesOnlyTheAreasTheRecordingKept) {
    compose();
    const int fd = node_->open(O_RDWR);
    StartRecord start(0);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    aov_sensor_list on = sensorList(3);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, &on), -EINVAL);
    std::vector<uint8_t> event(sizeof(aov_event), 0xEE);
    aov_event_query query = dequeueSent(event.data());
    ASSERT_TRUE(readable(fd));
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);

    const aov_section_desc& s1 = aov_event_sections[0];
    const aov_section_desc& s4 = aov_event_sections[3];
    EXPECT_EQ(std::memcmp(event.data() + s1.data_offset, event_.s1.data(), 100), 0);
    EXPECT_EQ(std::memcmp(event.data() + s4.data_offset, event_.s4.data(), 200), 0);
    // Behind the kept bytes, and in every other area, the buffer is as it was.
    EXPECT_EQ(event[s1.data_offset + 100], 0xEE);
    EXPECT_EQ(event[s4.data_offset + 200], 0xEE);
    for (size_t s : {1, 2, 4, 5, 6, 7, 8, 9}) {
        const aov_section_desc& section = aov_event_sections[s];
        for (size_t at = 0; at < section.data_size; at += 97) {
            ASSERT_EQ(event[section.data_offset + at], 0xEE) << "section " << s + 1;
        }
    }
    // The areas' digests, as aov-rec dump prints the recorded ones.
    EXPECT_EQ(node_->lastAreaDigests(event.data()), "s1 100 " + digestText(event_.s1.data(), 100) +
                                                        ", s4 200 " +
                                                        digestText(event_.s4.data(), 200));
}

TEST_F(ReplayNodeTest, ARequestWaitsForTheDequeueTheRecordingHasBeforeIt) {
    compose();
    const int fd = node_->open(O_RDWR);
    StartRecord start(0);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    aov_sensor_list on = sensorList(3);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, &on), -EINVAL);
    // SENSOR_OFF from another thread, before the recorded event is taken.
    auto off = std::async(std::launch::async, [this, fd] {
        aov_sensor_list list = sensorList(3);
        return node_->ioctl(fd, AOV_IOC_SENSOR_OFF, &list);
    });
    std::vector<uint8_t> event(sizeof(aov_event));
    aov_event_query query = dequeueSent(event.data());
    ASSERT_TRUE(readable(fd));
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
    ASSERT_EQ(off.wait_for(aovtest::kWaitLimit), std::future_status::ready)
        << "SENSOR_OFF was not answered after the dequeue";
    EXPECT_EQ(off.get(), 0);
    EXPECT_TRUE(divergences_.empty()) << divergences_[0].library;
}

TEST_F(ReplayNodeTest, AStartWithOtherBytesIsTheFirstDivergence) {
    compose();
    const int fd = node_->open(O_RDWR);
    StartRecord start(2);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), -EPROTO);
    ASSERT_EQ(divergences_.size(), 1u);
    const ReplayDivergence& d = divergences_[0];
    EXPECT_EQ(d.request, 2u);
    EXPECT_EQ(d.record, 1u);
    EXPECT_NE(d.library.find("START "), std::string::npos) << d.library;
    EXPECT_NE(d.library.find("aov_mode 2"), std::string::npos) << d.library;
    EXPECT_NE(d.recorded.find("aov_mode 0"), std::string::npos) << d.recorded;
    // Nothing is answered from the recording after it, and it is said once.
    aov_sensor_list on = sensorList(3);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, &on), -EPROTO);
    EXPECT_FALSE(node_->finish());
    EXPECT_EQ(divergences_.size(), 1u);
}

TEST_F(ReplayNodeTest, OtherIdsOrARequestTheRecordingLacksDiverge) {
    compose();
    const int fd = node_->open(O_RDWR);
    StartRecord start(0);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    aov_sensor_list on = sensorList(4);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, &on), -EPROTO);
    ASSERT_EQ(divergences_.size(), 1u);
    EXPECT_NE(divergences_[0].library.find("SENSOR_ON count 1 ids [4]"), std::string::npos)
        << divergences_[0].library;
    EXPECT_NE(divergences_[0].recorded.find("SENSOR_ON count 1 ids [3]"), std::string::npos)
        << divergences_[0].recorded;
    // The library's third call on the node; the recording's third record.
    EXPECT_EQ(divergences_[0].request, 3u);
    EXPECT_EQ(divergences_[0].record, 2u);
}

// A request past the recording's last: nothing recorded to compare it with,
// and the position is the recording's end.
TEST(ReplayNodeInput, ARequestPastTheRecordingsEndDivergesAgainstNoMoreRequests) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR, kFd);
    const StartRecord start(0);
    b.ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;
    const int fd = node->open(O_RDWR);
    ASSERT_GE(fd, 0);
    StartRecord library(0);
    ASSERT_EQ(node->ioctl(fd, AOV_IOC_START, library.bytes), 0);
    EXPECT_TRUE(node->finish()) << "nothing left unsent";
    EXPECT_EQ(node->ioctl(fd, AOV_IOC_STOP, nullptr), -EPROTO);
    EXPECT_EQ(node->ioctl(fd, AOV_IOC_STOP, nullptr), -EPROTO) << "every later request too";
    ReplayDivergence d;
    ASSERT_TRUE(node->diverged(&d));
    EXPECT_EQ(d.request, 3u);
    EXPECT_EQ(d.record, 2u);
    EXPECT_EQ(d.library, "STOP");
    EXPECT_EQ(d.recorded, "(no more requests)");
    EXPECT_FALSE(node->finish());
    EXPECT_EQ(node->close(fd), 0);
}

TEST_F(ReplayNodeTest, RequestsTheLibraryNeverSentDivergeAtTheEnd) {
    compose();
    const int fd = node_->open(O_RDWR);
    StartRecord start(0);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    // A close before the recording's end is answered as a close; the
    // requests it skipped stay unsent.
    EXPECT_EQ(node_->close(fd), 0);
    EXPECT_FALSE(node_->finish());
    ASSERT_EQ(divergences_.size(), 1u);
    EXPECT_EQ(divergences_[0].library, "(no more requests)");
    EXPECT_NE(divergences_[0].recorded.find("SENSOR_ON"), std::string::npos);
    EXPECT_EQ(divergences_[0].request, 3u);
    EXPECT_EQ(divergences_[0].record, 2u);
}

TEST_F(ReplayNodeTest, AnOpenWithAnotherAccessModeIsADivergence) {
    compose();
    EXPECT_EQ(node_->open(O_RDONLY), -EPROTO);
    ASSERT_EQ(divergences_.size(), 1u);
    EXPECT_EQ(divergences_[0].library, "open (flags 0x0)");
    EXPECT_EQ(divergences_[0].recorded, "open /dev/kelo_aov");
}

TEST_F(ReplayNodeTest, ANullRecordWhereTheRecordingHasOneIsADivergence) {
    compose();
    const int fd = node_->open(O_RDWR);
    ASSERT_GE(fd, 0);
    StartRecord start(0);
    ASSERT_EQ(node_->ioctl(fd, AOV_IOC_START, start.bytes), 0);
    EXPECT_EQ(node_->ioctl(fd, AOV_IOC_SENSOR_ON, nullptr), -EPROTO);
    ASSERT_EQ(divergences_.size(), 1u);
    EXPECT_EQ(divergences_[0].library, "SENSOR_ON (no record)");
    EXPECT_NE(divergences_[0].recorded.find("SENSOR_ON count 1 ids [3]"), std::string::npos)
        << divergences_[0].recorded;
}

// An event recorded 1,000 s after the open: at speed 1 it is far off, at
// speed 1,000,000 it is due within a millisecond, at max at once.
TEST(ReplayNodePace, AnEventIsDueAtItsRecordedTimeDividedByTheSpeed) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR, kFd);
    b.advance(1000ull * 1000000000ull);
    std::vector<uint8_t> other(sizeof(aov_event));
    RecordedEvent event;
    event.record(b, other.data());
    std::vector<uint8_t> bytes = recording.bytes();
    for (const double speed : {1.0, 1e6, 0.0}) {
        std::string problem;
        std::shared_ptr<ReplayNode> node = load(bytes, &problem, speed);
        ASSERT_TRUE(node) << problem;
        const int fd = node->open(O_RDWR);
        ASSERT_GE(fd, 0);
        if (speed == 1.0) {
            EXPECT_FALSE(readableNow(fd)) << "an event 1,000 s off is ready at speed 1";
            EXPECT_GT(node->progress().seconds_left, 900.0);
        } else {
            EXPECT_TRUE(readable(fd)) << "the event was not ready at speed " << speed;
        }
        if (speed == 0.0) {
            // As fast as the library takes them: no estimate before the first event.
            EXPECT_EQ(node->progress().seconds_left, 0.0);
        }
        EXPECT_EQ(node->close(fd), 0);
        // Closed, the node waits for nothing: its events will never be taken.
        EXPECT_EQ(node->progress().seconds_left, 0.0) << "a closed node at speed " << speed;
    }
}

// aov-sim's driver line says what is replayed and at which pace: a speed
// below 1 slows the recording down, only no speed at all is "max".
TEST(ReplayNodePace, TheDriverLineNamesTheSpeedGiven) {
    std::vector<uint8_t> bytes = oneEvent(false);
    const std::pair<double, const char*> speeds[] = {
        {0.0, "max"}, {0.25, "0.25"}, {1.0, "1"}, {2.5, "2.5"}};
    for (const auto& [speed, shown] : speeds) {
        std::string problem;
        std::shared_ptr<ReplayNode> node = load(bytes, &problem, speed);
        ASSERT_TRUE(node) << problem;
        EXPECT_EQ(node->describe(),
                  std::string("1 request, 1 event, content written, speed ") + shown);
    }
}

TEST(ReplayNodeInput, ACutOrDamagedRecordingIsRefusedWithOneLine) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR, kFd);
    const StartRecord start(0);
    b.ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
    std::vector<uint8_t> whole = recording.bytes();
    std::string problem;
    ASSERT_TRUE(load(whole, &problem)) << problem;

    std::vector<uint8_t> cut(whole.begin(), whole.end() - 10);
    EXPECT_FALSE(load(cut, &problem));
    EXPECT_NE(problem.find("cut off"), std::string::npos) << problem;
    EXPECT_EQ(problem.find('\n'), std::string::npos);

    std::vector<uint8_t> damaged = whole;
    damaged[damaged.size() - 3] ^= 0x40;
    EXPECT_FALSE(load(damaged, &problem));
    EXPECT_FALSE(problem.empty());

    std::vector<uint8_t> text(100, 'x');
    EXPECT_FALSE(load(text, &problem));
    EXPECT_FALSE(problem.empty());

    EXPECT_FALSE(ReplayNode::loadFile("/nonexistent/aov.rec", 0, &problem));
    EXPECT_EQ(problem.rfind("/nonexistent/aov.rec: ", 0), 0u) << problem;
}

TEST(ReplayNodeInput, ARecordingWithoutAnOpenOfTheNodeIsRefused) {
    Composed recording;
    const StartRecord start(0);
    recording.b().ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    EXPECT_FALSE(load(bytes, &problem));
    EXPECT_NE(problem.find("no successful open"), std::string::npos) << problem;
}

// aov-sim --node checks the node before the library opens it: an open closed
// without a request, and an O_PATH one to bind it, recorded ahead of the
// session's own open.
TEST(ReplayNodeProbes, OpensClosedWithoutARequestBeforeTheSessionAreSkipped) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, 3);
    b.close(3, 0);
    b.open(AOV_DEVICE_NODE, O_PATH | O_CLOEXEC, 3);
    b.open(AOV_DEVICE_NODE, O_WRONLY | O_CREAT | O_CLOEXEC, 5);
    b.close(5, 0);
    b.close(3, 0);
    b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
    const StartRecord start(0);
    b.ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
    b.ioctl(kFd, AOV_IOC_STOP, nullptr, 0, -EIO);
    b.close(kFd, 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;

    const int fd = node->open(O_RDWR);
    ASSERT_GE(fd, 0);
    StartRecord library(0);
    EXPECT_EQ(node->ioctl(fd, AOV_IOC_START, library.bytes), 0);
    EXPECT_EQ(node->ioctl(fd, AOV_IOC_STOP, nullptr), -EIO);
    EXPECT_FALSE(node->diverged(nullptr));
    EXPECT_EQ(node->close(fd), 0);
}

// A number that carried requests and is reused for a probe: the probe is
// still one, and the session after it replays.
TEST(ReplayNodeProbes, AProbeOnANumberAnEarlierSessionUsedIsSkipped) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    const StartRecord start(0);
    for (int session = 0; session < 2; ++session) {
        b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
        b.ioctl(kFd, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
        b.ioctl(kFd, AOV_IOC_STOP, nullptr, 0, 0);
        b.close(kFd, 0);
        if (session == 0) {
            b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
            b.close(kFd, 0);
        }
    }
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;
    for (int session = 0; session < 2; ++session) {
        SCOPED_TRACE(session);
        const int fd = node->open(O_RDWR);
        ASSERT_GE(fd, 0);
        StartRecord library(0);
        EXPECT_EQ(node->ioctl(fd, AOV_IOC_START, library.bytes), 0);
        EXPECT_EQ(node->ioctl(fd, AOV_IOC_STOP, nullptr), 0);
        EXPECT_EQ(node->close(fd), 0);
    }
    EXPECT_FALSE(node->diverged(nullptr));
    EXPECT_TRUE(node->finish());
}

// With no open after it, a descriptor closed without a request is the
// library's own session (a start that was never sent), not a probe.
TEST(ReplayNodeProbes, ARequestlessOpenWithNoLaterOpenIsTheLibrarys) {
    Composed recording;
    recording.b().open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
    recording.b().close(kFd, 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;

    const int fd = node->open(O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_FALSE(node->diverged(nullptr));
    EXPECT_EQ(node->close(fd), 0);
}

// Descriptor 0 is a descriptor like any other: a recorded process that had
// closed its stdin got the node as 0, and a replay run with stdin closed gets
// its timer as 0.
TEST(ReplayNodeProbes, DescriptorZeroIsANodesDescriptorLikeAnyOther) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, 0);  // a probe on 0
    b.close(0, 0);
    b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, 0);
    const StartRecord start(0);
    b.ioctl(0, AOV_IOC_START, start.bytes, sizeof(start.bytes), 0);
    b.advance(1000ull * 1000000000ull);
    std::vector<uint8_t> other(sizeof(aov_event));
    RecordedEvent event;
    event.record(b, other.data());
    b.close(0, 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem, 1.0);
    ASSERT_TRUE(node) << problem;

    // stdin closed for the replay's descriptor, given back however the test ends.
    struct StdinAside {
        int saved = ::dup(0);
        StdinAside() { ::close(0); }
        ~StdinAside() {
            ::dup2(saved, 0);
            ::close(saved);
        }
    } aside;
    ASSERT_GE(aside.saved, 0) << std::strerror(errno);
    const int fd = node->open(O_RDWR);
    ASSERT_EQ(fd, 0) << "the replay's descriptor is not the lowest free one";
    StartRecord library(0);
    EXPECT_EQ(node->ioctl(fd, AOV_IOC_START, library.bytes), 0);
    EXPECT_FALSE(node->diverged(nullptr));
    EXPECT_GT(node->progress().seconds_left, 900.0)
        << "no time left shown for an event 1,000 s off";
    EXPECT_EQ(node->close(fd), 0);
}

}  // namespace

namespace {

using aovsimtool::Options;
using aovsimtool::ParseOutcome;

ParseOutcome parse(std::vector<std::string> args, Options* options, std::string* message) {
    args.insert(args.begin(), "aov-sim");
    std::vector<const char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }
    return aovsimtool::parseOptions(static_cast<int>(argv.size()), argv.data(), options, message);
}

// The progress line is shown at once and cleared when it goes, each time
// flushed: on a terminal nothing else would push it out.
TEST(ReplayProgressLine, ShowsTheCountAtOnceAndClearsItsLineWhenDestroyed) {
    std::vector<uint8_t> bytes = oneEvent(true);
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0) << std::strerror(errno);
    FILE* out = ::fdopen(fds[1], "w");
    ASSERT_NE(out, nullptr) << std::strerror(errno);
    std::string text;
    // Reads until `done` holds of the text, or nothing more comes within the limit.
    const auto readUntil = [&](const std::function<bool()>& done) {
        char chunk[256];
        while (!done() && readable(fds[0])) {
            const ssize_t n = ::read(fds[0], chunk, sizeof(chunk));
            if (n <= 0) {
                return false;
            }
            text.append(chunk, static_cast<size_t>(n));
        }
        return done();
    };
    const std::string clear = "\r\033[K";
    {
        aovsimtool::ReplayProgressLine progress(*node, out);
        EXPECT_TRUE(readUntil([&] { return text.find("replay: 0 of 1 events, ") == 4; }))
            << "no progress line: " << text;
    }
    EXPECT_TRUE(readUntil([&] {
        return text.size() >= clear.size() &&
               text.compare(text.size() - clear.size(), clear.size(), clear) == 0;
    })) << "the line was not cleared: "
        << text;
    std::fclose(out);
    ::close(fds[0]);
}

TEST(ReplayOptions, SpeedIsMaxOrAPositiveFactorAndNeedsAReplay) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--replay", "a.rec"}, &o, &message), ParseOutcome::kRun) << message;
    EXPECT_TRUE(o.replay_given);
    EXPECT_EQ(o.replay_path, "a.rec");
    EXPECT_EQ(o.replay_speed, 1);
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "max"}, &o, &message), ParseOutcome::kRun);
    EXPECT_EQ(o.replay_speed, 0);
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "2.5"}, &o, &message), ParseOutcome::kRun);
    EXPECT_EQ(o.replay_speed, 2.5);
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "1000000"}, &o, &message), ParseOutcome::kRun);
    EXPECT_EQ(o.replay_speed, 1000000);

    const std::vector<std::vector<std::string>> bad = {
        {"--replay", "a.rec", "--speed", "0"},
        {"--replay", "a.rec", "--speed", "-1"},
        {"--replay", "a.rec", "--speed", "fast"},
        {"--replay", "a.rec", "--speed", "1e9"},
        {"--replay", "a.rec", "--speed", "1000001"},
        {"--speed", "max"},
        {"--replay", ""},
        {"--replay", "a.rec", "--kernel", "fuse"},
        {"--replay", "a.rec", "--kernel", "fuse", "--kdev", "/tmp"}};
    for (const auto& args : bad) {
        Options refused;
        EXPECT_EQ(parse(args, &refused, &message), ParseOutcome::kError) << args.back();
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        EXPECT_TRUE(message.rfind("--speed", 0) == 0 || message.rfind("--replay", 0) == 0)
            << message;
    }
}

// The plan counts the events the library gets (successful dequeues) and the
// recorded time from the open to the last of them.
TEST(ReplayPlan, CountsTheDeliveredEventsAndTheTimeToTheLastOfThem) {
    Composed recording;
    aovrec::SessionBuilder& b = recording.b();
    b.advance(7000000000ull);  // before the open: not part of the span
    b.open(AOV_DEVICE_NODE, O_RDWR, kFd);
    std::vector<uint8_t> other(sizeof(aov_event));
    RecordedEvent event;
    b.advance(2000000000ull);
    event.record(b, other.data());
    b.advance(500000000ull);
    const aov_event_query sent = dequeueSent(other.data());
    b.ioctl(kFd, AOV_IOC_DEQUEUE_EVENT, &sent, sizeof(sent), -EAGAIN);
    b.advance(1000000000ull);
    event.record(b, other.data());
    b.advance(4000000000ull);
    b.ioctl(kFd, AOV_IOC_DEQUEUE_EVENT, &sent, sizeof(sent), -EAGAIN);
    b.close(kFd, 0);
    std::vector<uint8_t> bytes = recording.bytes();
    std::string problem;
    std::shared_ptr<ReplayNode> node = load(bytes, &problem);
    ASSERT_TRUE(node) << problem;
    EXPECT_EQ(node->plan().events, 2u);
    EXPECT_NEAR(node->plan().span_s, 3.5, 1e-6);
}

TEST(ReplayOptions, TheRecordingsOwnEventCountAndAWaitThatCoversItsPaceAreTaken) {
    const aovsimtool::ReplayPlan plan{3, 10.0};
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "0.5"}, &o, &message), ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions(plan, &o, &message)) << message;
    EXPECT_EQ(o.events, 3);
    EXPECT_GE(o.timeout, 10.0 / 0.5 + aovsimtool::kReplaySlackSeconds);

    Options fast;
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "max", "--events", "2"}, &fast, &message),
              ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions(plan, &fast, &message)) << message;
    EXPECT_EQ(fast.events, 2);
    EXPECT_EQ(fast.timeout, 0) << "at max speed the wait stays derived from the count";

    Options timed;
    ASSERT_EQ(parse({"--replay", "a.rec", "--speed", "2", "--timeout", "60"}, &timed, &message),
              ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions(plan, &timed, &message)) << message;
    EXPECT_EQ(timed.timeout, 60) << "a long enough --timeout is kept";

    // At each limit: every event the recording holds, a --timeout of exactly
    // the wait, a wait of exactly the longest timeout.
    Options all;
    ASSERT_EQ(parse({"--replay", "a.rec", "--events", "3", "--speed", "0.5", "--timeout", "30"},
                    &all, &message),
              ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions(plan, &all, &message)) << message;
    EXPECT_EQ(all.events, 3);
    EXPECT_EQ(all.timeout, 30);
    Options longest;
    ASSERT_EQ(parse({"--replay", "a.rec"}, &longest, &message), ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions({3, 69116.0}, &longest, &message)) << message;
    EXPECT_EQ(longest.timeout, aovsimtool::kMaxSeconds);

    // A run for a duration keeps its own count and needs no longer wait.
    Options timedRun;
    ASSERT_EQ(
        parse({"--replay", "a.rec", "--duration", "0.5", "--timeout", "1"}, &timedRun, &message),
        ParseOutcome::kRun);
    ASSERT_TRUE(aovsimtool::fitReplayOptions(plan, &timedRun, &message)) << message;
    EXPECT_EQ(timedRun.events, 5);
    EXPECT_EQ(timedRun.timeout, 1);
}

TEST(ReplayOptions, WhatTheRecordingCannotGiveIsRefusedWithOneLine) {
    const aovsimtool::ReplayPlan plan{3, 10.0};
    struct Case {
        std::vector<std::string> args;
        std::string line;
    };
    const std::vector<Case> cases = {
        {{"--replay", "a.rec", "--events", "5"}, "--events 5: the recording holds 3 events"},
        {{"--replay", "a.rec", "--speed", "1e-9"},
         "--speed 1e-09: the recording's 10.000 s would take 10000000000 s, more than 86400 s; "
         "use a speed of at least 0.000144684 or max"},
        {{"--replay", "a.rec", "--speed", "0.0001"},
         "--speed 0.0001: the recording's 10.000 s would take 100000 s, more than 86400 s; use a "
         "speed of at least 0.000144684 or max"},
        {{"--replay", "a.rec", "--speed", "0.5", "--timeout", "10"},
         "--timeout 10: the recording takes 20.0 s at speed 0.5; give at least 30.0"},
        {{"--replay", "a.rec", "--speed", "0.5", "--timeout", "29.999"},
         "--timeout 29.999: the recording takes 20.0 s at speed 0.5; give at least 30.0"},
    };
    for (const Case& c : cases) {
        Options o;
        std::string message;
        ASSERT_EQ(parse(c.args, &o, &message), ParseOutcome::kRun) << message;
        std::string line;
        EXPECT_FALSE(aovsimtool::fitReplayOptions(plan, &o, &line));
        EXPECT_EQ(line, c.line);
    }
}

}  // namespace
