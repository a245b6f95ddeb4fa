// The driver served through a FUSE file in this process: the kernel copies a
// request's record by its code's size field, the server writes the event's
// data areas into the caller's memory, the node's readiness reaches epoll,
// and the node stays exclusive.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "BoundedWait.h"
#include "FuseSandbox.h"
#include "KdevServer.h"
#include "aovsim/EventContent.h"
#include "kelo_aov.h"

namespace {

struct Seen {
    std::mutex mutex;
    std::vector<aovkdev::RequestSeen> requests;
};

class KdevServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-kdev-test");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
        auto trace = std::make_shared<aovsim::Trace>();
        aovsim::DriverConfig config;
        config.timer = false;  // events only when a test queues them
        driver_ = std::make_shared<aovsim::SimDriver>(AOV_DEVICE_NODE, config,
                                                      aovsim::FaultConfig(), trace);
        server_ = std::make_unique<aovkdev::KdevServer>(driver_, trace, "test");
        server_->setRequestObserver([this](const aovkdev::RequestSeen& request) {
            std::lock_guard<std::mutex> guard(seen_.mutex);
            seen_.requests.push_back(request);
        });
        std::string problem;
        if (!server_->mount(dir_, &problem)) {
            FAIL() << "cannot mount FUSE: " << problem;
        }
        std::promise<void> served;
        served_ = served.get_future();
        serving_ = std::thread([this, done = std::move(served)]() mutable {
            server_->serve();
            done.set_value();
        });
        fd_ = ::open(server_->nodePath().c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd_, 0) << std::strerror(errno);
    }

    void TearDown() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (serving_.joinable()) {
            server_->stop();
            if (served_.wait_for(aovtest::kWaitLimit) != std::future_status::ready) {
                // The server still runs on this fixture's objects: end the run here.
                std::fprintf(stderr, "the FUSE server did not stop within %lld s\n",
                             static_cast<long long>(aovtest::kWaitLimit.count()));
                std::_Exit(1);
            }
            serving_.join();
        }
        server_.reset();
    }

    aovkdev::RequestSeen lastSeen() {
        std::lock_guard<std::mutex> guard(seen_.mutex);
        return seen_.requests.empty() ? aovkdev::RequestSeen() : seen_.requests.back();
    }

    void startSession() {
        alignas(8) aov_start_record record = {};
        const int32_t rate = 10;
        std::memcpy(record + AOV_START_FRAME_RATE, &rate, sizeof(rate));
        ASSERT_EQ(::ioctl(fd_, AOV_IOC_START, record), 0) << std::strerror(errno);
    }

    // Waits for the node to be readable, as the library's monitor does.
    bool readable(int timeoutMs) {
        const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN;
        ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd_, &event);
        const int ready = ::epoll_wait(epoll, &event, 1, timeoutMs);
        ::close(epoll);
        return ready == 1 && (event.events & EPOLLIN) != 0;
    }

    aovtest::MountSandbox sandbox_;
    std::string dir_;
    std::shared_ptr<aovsim::SimDriver> driver_;
    std::unique_ptr<aovkdev::KdevServer> server_;
    std::thread serving_;
    std::future<void> served_;
    Seen seen_;
    int fd_ = -1;
};

TEST_F(KdevServerTest, TheCodeSizeFieldDecidesHowManyBytesCrossTheBoundary) {
    alignas(8) uint8_t buffer[256];
    std::memset(buffer, 0xAB, sizeof(buffer));

    // START's own code carries the whole record in.
    startSession();
    EXPECT_EQ(lastSeen().request, static_cast<unsigned>(AOV_IOC_START));
    EXPECT_EQ(lastSeen().in_bytes, sizeof(aov_start_record));
    EXPECT_EQ(lastSeen().out_bytes, 0u);

    // The same request number with a 4-byte size field: only 4 bytes reach
    // the server, and the driver does not know the code.
    const unsigned shortStart = _IOW('H', 0, int32_t);
    EXPECT_EQ(::ioctl(fd_, shortStart, buffer), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(lastSeen().request, shortStart);
    EXPECT_EQ(lastSeen().in_bytes, 4u);

    // A read code: nothing goes in, and at most its size comes out; the
    // caller's bytes beyond it stay as they were.
    const unsigned shortDequeue = _IOR('H', 3, uint64_t);
    EXPECT_EQ(::ioctl(fd_, shortDequeue, buffer), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(lastSeen().in_bytes, 0u);
    EXPECT_EQ(lastSeen().out_bytes, 8u);
    EXPECT_EQ(buffer[8], 0xAB);

    // No size: no copy either way; the caller's pid comes along.
    EXPECT_EQ(::ioctl(fd_, AOV_IOC_ULPOSC3_ON, nullptr), 0);
    EXPECT_EQ(lastSeen().in_bytes, 0u);
    EXPECT_EQ(lastSeen().out_bytes, 0u);
    EXPECT_EQ(lastSeen().pid, ::getpid());
}

TEST_F(KdevServerTest, DequeueWritesTheEventIntoTheCallersAreasAndReadinessFollowsTheQueue) {
    startSession();
    EXPECT_FALSE(readable(0));
    driver_->produceEvent();
    ASSERT_TRUE(readable(static_cast<int>(aovtest::kWaitLimit.count() * 1000)))
        << "the node did not become readable when an event was queued";

    auto event = std::make_unique<aov_event>();
    aov_event_query query{};
    query.s1_addr = event->s1_data;
    query.s2_addr = event->s2_data;
    query.s3_addr = event->s3_data;
    query.s4_addr = event->s4_data;
    query.s5_addr = event->s5_data;
    ASSERT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), 0) << std::strerror(errno);
    EXPECT_EQ(query.header[0], 1u);
    EXPECT_EQ(query.s1_info, sizeof(event->s1_data));
    const auto* bytes = reinterpret_cast<const uint8_t*>(event.get());
    for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        EXPECT_TRUE(aovsim::sectionContentMatches(bytes + section.data_offset, section.data_size, 1,
                                                  static_cast<uint32_t>(s + 1)))
            << "section " << s + 1;
    }
    EXPECT_FALSE(readable(0));

    // An area the caller cannot have written to: the copy faults and the
    // event is gone, as with a driver's failed copy to user space.
    void* unmapped = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unmapped, MAP_FAILED);
    driver_->produceEvent();
    query.s3_addr = unmapped;
    EXPECT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(driver_->stats().lost_on_failure, 1u);
    ::munmap(unmapped, 4096);
}

TEST_F(KdevServerTest, ASecondOpenIsRefusedUntilTheFirstIsClosed) {
    EXPECT_EQ(::open(server_->nodePath().c_str(), O_RDWR | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(::close(fd_), 0);
    fd_ = -1;
    // The release travels to the server ahead of the next open.
    fd_ = ::open(server_->nodePath().c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_GE(fd_, 0) << std::strerror(errno);
}

}  // namespace
