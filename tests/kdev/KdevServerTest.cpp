// The driver served through a FUSE file in this process: the kernel copies a
// request's record by its code's size field, the server writes the event's
// data areas into the caller's memory, the node's readiness reaches epoll,
// and the node stays exclusive.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BoundedWait.h"
#include "FuseSandbox.h"
#include "KdevServer.h"
#include "OpenDescriptors.h"
#include "ProcessMemory.h"
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
        serveWith(0, aovkdev::ServerFaults());
    }

    // Serves a fresh driver with `bugs` and opens the node.
    void serveWith(aovsim::DriverBugs bugs, const aovkdev::ServerFaults& faults) {
        auto trace = std::make_shared<aovsim::Trace>();
        trace->setSink([this](aovsim::TraceSource, const std::string& line) {
            std::lock_guard<std::mutex> guard(traced_.mutex);
            traced_.lines.push_back(line);
            traced_.added.notify_all();
        });
        aovsim::DriverConfig config;
        config.timer = false;  // events only when a test queues them
        driver_ = std::make_shared<aovsim::SimDriver>(AOV_DEVICE_NODE, config,
                                                      aovsim::FaultConfig(), trace);
        driver_->setBugs(bugs);
        server_ = std::make_unique<aovkdev::KdevServer>(driver_, trace, "test", faults);
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
            serve_result_ = server_->serve();
            done.set_value();
        });
        fd_ = ::open(server_->nodePath().c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd_, 0) << std::strerror(errno);
    }

    // Ends the server of SetUp and serves one with `bugs` instead.
    void restart(aovsim::DriverBugs bugs,
                 const aovkdev::ServerFaults& faults = aovkdev::ServerFaults()) {
        TearDown();
        if (!HasFailure()) {
            serveWith(bugs, faults);
        }
    }

    // Serves a node whose empty dequeue waits for the next event, at most
    // `waitMs` (0: the server's default), and starts a session on it.
    void startWithBlockingDequeue(int waitMs = 0) {
        aovkdev::ServerFaults faults;
        if (waitMs > 0) {
            faults.empty_dequeue_wait_ms = waitMs;
        }
        restart(static_cast<aovsim::DriverBugs>(aovsim::DriverBug::kBlockEmptyDequeue), faults);
        if (!HasFailure()) {
            startSession();
        }
    }

    // Waits, with a limit, for the driver's trace to hold `times` lines containing `text`.
    bool traced(const std::string& text, long times = 1) {
        std::unique_lock<std::mutex> lock(traced_.mutex);
        return traced_.added.wait_for(lock, aovtest::kWaitLimit, [&] {
            return std::count_if(traced_.lines.begin(), traced_.lines.end(),
                                 [&](const std::string& line) {
                                     return line.find(text) != std::string::npos;
                                 }) >= times;
        });
    }

    void TearDown() override {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
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
            EXPECT_EQ(serve_result_, 0) << "a server stopped from outside ends its serve with 0";
        }
        // Answers what a bug left unanswered: a caller still waiting returns.
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

    // Sends `request` on another thread; its errno, or 0 for a success, is
    // what elsewhereEnded() gives.
    void sendElsewhere(unsigned long request, void* arg) {
        const int fd = fd_;
        elsewhere_ = std::async(std::launch::async, [fd, request, arg] {
            return ::ioctl(fd, request, arg) == -1 ? errno : 0;
        });
    }
    // Whether the request sent elsewhere ended within the limit; its errno in `err`.
    bool elsewhereEnded(int* err) {
        if (elsewhere_.wait_for(aovtest::kWaitLimit) != std::future_status::ready) {
            return false;
        }
        *err = elsewhere_.get();
        return true;
    }

    // A request made on another thread; declared first, so that it is waited
    // for last, after TearDown has answered it.
    std::future<int> elsewhere_;
    aovtest::MountSandbox sandbox_;
    std::string dir_;
    struct {
        std::mutex mutex;
        std::condition_variable added;
        std::vector<std::string> lines;
    } traced_;
    std::shared_ptr<aovsim::SimDriver> driver_;
    std::unique_ptr<aovkdev::KdevServer> server_;
    std::thread serving_;
    std::future<void> served_;
    int serve_result_ = -1;
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

// A listing of the served directory shows what it holds, whatever size of
// buffer the reader asks with.
TEST_F(KdevServerTest, TheDirectoryListsTheNodeAndTheStatusFile) {
    DIR* dir = ::opendir(dir_.c_str());
    ASSERT_NE(dir, nullptr) << std::strerror(errno);
    std::multiset<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        names.insert(entry->d_name);
    }
    ::closedir(dir);
    EXPECT_EQ(names,
              (std::multiset<std::string>{".", "..", aovkdev::kNodeName, aovkdev::kStatusName}));
}

// The status file is a plain file: a program that polls it (a monitor that
// waits on every file it reads) is answered at once, readable. The poll runs
// in a child that holds nothing of this process's: a poll the server never
// answers holds its caller until the server's connection goes, which ending
// the server (in this process) then does.
TEST_F(KdevServerTest, TheStatusFileIsReadableAtOnceWhenPolled) {
    const std::string status = dir_ + "/" + aovkdev::kStatusName;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        ::syscall(SYS_close_range, 3U, ~0U, 0U);
        const int fd = ::open(status.c_str(), O_RDONLY | O_CLOEXEC);
        pollfd p{fd, POLLIN, 0};
        const bool readable = fd >= 0 && ::poll(&p, 1, 0) == 1 &&
                              (p.revents & (POLLIN | POLLERR | POLLHUP)) == POLLIN;
        ::_exit(readable ? 0 : 1);
    }
    int wait_status = 0;
    if (!aovtest::exitedWithin(child, &wait_status, std::chrono::seconds(10))) {
        TearDown();
        EXPECT_TRUE(aovtest::exitedWithin(child, &wait_status)) << "the poller outlived the server";
        FAIL() << "a poll of " << status << " was not answered within 10 s";
    }
    EXPECT_TRUE(WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 0)
        << "a poll of " << status << " did not find it readable, and only readable";
}

aov_event_query queryInto(aov_event* event) {
    aov_event_query query{};
    query.s1_addr = event->s1_data;
    query.s2_addr = event->s2_data;
    query.s3_addr = event->s3_data;
    query.s4_addr = event->s4_data;
    query.s5_addr = event->s5_data;
    return query;
}

TEST_F(KdevServerTest, ABlockingEmptyDequeueReturnsWithTheNextEventOrAtTheEndOfItsWait) {
    startWithBlockingDequeue();
    ASSERT_FALSE(HasFailure());
    auto event = std::make_unique<aov_event>();
    aov_event_query query = queryInto(event.get());
    sendElsewhere(AOV_IOC_DEQUEUE_EVENT, &query);
    ASSERT_TRUE(traced("waits for the next event")) << "the empty dequeue did not wait";
    driver_->produceEvent();
    int err = -1;
    ASSERT_TRUE(elsewhereEnded(&err))
        << "the waiting dequeue did not return when an event was queued";
    EXPECT_EQ(err, 0);
    EXPECT_EQ(query.header[0], 1u);

    // With nothing coming, the wait ends with EAGAIN.
    startWithBlockingDequeue(20);
    ASSERT_FALSE(HasFailure());
    sendElsewhere(AOV_IOC_DEQUEUE_EVENT, &query);
    ASSERT_TRUE(elsewhereEnded(&err))
        << "the waiting dequeue did not give up at the end of its wait";
    EXPECT_EQ(err, EAGAIN);
}

// Two dequeues wait on an empty queue and one event wakes both: the first
// to wait takes it, the other goes on waiting for the next event rather than
// returning EAGAIN before its wait is over.
TEST_F(KdevServerTest, OfTwoWaitingDequeuesOneEventAnswersTheFirstAndTheOtherWaitsForTheNext) {
    startWithBlockingDequeue(3600 * 1000);
    ASSERT_FALSE(HasFailure());
    auto firstEvent = std::make_unique<aov_event>();
    auto secondEvent = std::make_unique<aov_event>();
    aov_event_query first = queryInto(firstEvent.get());
    aov_event_query second = queryInto(secondEvent.get());
    const int fd = fd_;
    std::future<int> firstEnded = std::async(std::launch::async, [fd, &first] {
        return ::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &first) == -1 ? errno : 0;
    });
    if (!traced("waits for the next event")) {
        TearDown();
        FAIL() << "the first empty dequeue did not wait";
    }
    sendElsewhere(AOV_IOC_DEQUEUE_EVENT, &second);
    if (!traced("waits for the next event", 2)) {
        TearDown();
        FAIL() << "the second empty dequeue did not wait";
    }
    driver_->produceEvent();
    if (firstEnded.wait_for(aovtest::kWaitLimit) != std::future_status::ready) {
        TearDown();
        FAIL() << "the first waiting dequeue did not return with the event";
    }
    EXPECT_EQ(firstEnded.get(), 0);
    EXPECT_EQ(first.header[0], 1u);
    driver_->produceEvent();
    int err = -1;
    ASSERT_TRUE(elsewhereEnded(&err))
        << "the second waiting dequeue did not return with the next event";
    EXPECT_EQ(err, 0);
    EXPECT_EQ(second.header[0], 2u);
}

// A request a driver bug never answers holds its caller until the server
// ends, which answers it with EIO rather than leaving it to the unmount.
TEST_F(KdevServerTest, ARequestABugNeverAnswersIsAnsweredWithEioWhenTheServerEnds) {
    restart(static_cast<aovsim::DriverBugs>(aovsim::DriverBug::kHangSensorOff));
    ASSERT_FALSE(HasFailure());
    startSession();
    aov_sensor_list off{};
    off.count = 1;
    sendElsewhere(AOV_IOC_SENSOR_OFF, &off);
    ASSERT_TRUE(traced("SENSOR_OFF: never answered")) << "the SENSOR_OFF never reached the server";
    TearDown();
    int err = -1;
    ASSERT_TRUE(elsewhereEnded(&err)) << "the SENSOR_OFF was not answered when the server ended";
    EXPECT_EQ(err, EIO);
}

// A waiting dequeue is tried again when an event wakes the server or its wait
// ends, never in between: a wake-up the server left unconsumed would make it
// spin, trying the driver again and again for as long as it runs.
TEST_F(KdevServerTest, AWaitingDequeueIsTriedAgainOnlyWhenWokenOrAtTheEndOfItsWait) {
    startWithBlockingDequeue(200);
    ASSERT_FALSE(HasFailure());
    auto event = std::make_unique<aov_event>();
    aov_event_query query = queryInto(event.get());
    // The event wakes the server once; it is dequeued at once.
    driver_->produceEvent();
    ASSERT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), 0) << std::strerror(errno);
    const uint64_t before = driver_->stats().requests;
    sendElsewhere(AOV_IOC_DEQUEUE_EVENT, &query);
    int err = -1;
    ASSERT_TRUE(elsewhereEnded(&err))
        << "the waiting dequeue did not give up at the end of its wait";
    EXPECT_EQ(err, EAGAIN);
    // Its first try, and the one at the end of its wait.
    EXPECT_EQ(driver_->stats().requests - before, 2u);
}

TEST_F(KdevServerTest, AfterAFailedCopyWithPollerrAfterErrorPollReportsPollerrAndTheEventStays) {
    restart(static_cast<aovsim::DriverBugs>(aovsim::DriverBug::kPollerrAfterError));
    ASSERT_FALSE(HasFailure());
    startSession();
    driver_->produceEvent();
    auto event = std::make_unique<aov_event>();
    aov_event_query query = queryInto(event.get());
    void* unmapped = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unmapped, MAP_FAILED);
    query.s2_addr = unmapped;
    EXPECT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), -1);
    EXPECT_EQ(errno, EFAULT);
    ::munmap(unmapped, 4096);

    pollfd watched{fd_, POLLIN, 0};
    ASSERT_EQ(::poll(&watched, 1, 0), 1);
    EXPECT_EQ(watched.revents, POLLIN | POLLERR);
    query = queryInto(event.get());
    ASSERT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), 0) << std::strerror(errno);
    EXPECT_EQ(query.header[0], 1u);
    ASSERT_EQ(::poll(&watched, 1, 0), 1);
    EXPECT_EQ(watched.revents, POLLERR);
}

TEST_F(KdevServerTest, WithWakePollinWaitersOnlyAnEpollArmedLaterIsNeverWokenButOneArmedAtOnceIs) {
    for (const bool bug : {false, true}) {
        SCOPED_TRACE(bug ? "wake-pollin-waiters-only" : "clean");
        restart(bug ? static_cast<aovsim::DriverBugs>(aovsim::DriverBug::kWakePollinWaitersOnly)
                    : 0);
        ASSERT_FALSE(HasFailure());
        startSession();
        // As the library's monitor registers: no events, then EPOLLIN.
        const int later = ::epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        ASSERT_EQ(::epoll_ctl(later, EPOLL_CTL_ADD, fd_, &event), 0);
        event.events = EPOLLIN;
        ASSERT_EQ(::epoll_ctl(later, EPOLL_CTL_MOD, fd_, &event), 0);
        // The server notifies before produceEvent returns: no wait is needed.
        driver_->produceEvent();
        EXPECT_EQ(::epoll_wait(later, &event, 1, 0), bug ? 0 : 1);
        ::close(later);

        auto buffer = std::make_unique<aov_event>();
        aov_event_query query = queryInto(buffer.get());
        ASSERT_EQ(::ioctl(fd_, AOV_IOC_DEQUEUE_EVENT, &query), 0) << std::strerror(errno);
        const int atOnce = ::epoll_create1(EPOLL_CLOEXEC);
        event.events = EPOLLIN;
        ASSERT_EQ(::epoll_ctl(atOnce, EPOLL_CTL_ADD, fd_, &event), 0);
        EXPECT_EQ(::epoll_wait(atOnce, &event, 1, 0), 0);
        driver_->produceEvent();
        EXPECT_EQ(::epoll_wait(atOnce, &event, 1, 0), 1);
        ::close(atOnce);
    }
}

// What a user sees of the mount: a directory holding the node and its status
// file, listed once each; every other use is refused with the usual errno.
// Looked at from a child that holds nothing of this process's, as the status
// poll is: a request the server never answers holds its caller until the
// server's connection goes. The child exits with the number of the first step
// that went wrong.
int firstWrongStep(const std::string& dir, const std::string& node) {
    const std::string status = dir + "/" + aovkdev::kStatusName;
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || (st.st_mode & 07777) != 0755 ||
        st.st_nlink != 2) {
        return 1;
    }
    if (::stat(node.c_str(), &st) != 0 || st.st_mode != (S_IFREG | 0666)) {
        return 2;
    }
    if (::stat(status.c_str(), &st) != 0 || st.st_mode != (S_IFREG | 0444)) {
        return 3;
    }
    if (::stat((dir + "/absent").c_str(), &st) != -1 || errno != ENOENT) {
        return 4;
    }
    // Bounded: a listing whose offsets do not advance would never end.
    DIR* listing = ::opendir(dir.c_str());
    if (listing == nullptr) {
        return 5;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(listing)) {
        names.emplace_back(entry->d_name);
        if (names.size() > 16) {
            break;
        }
    }
    ::closedir(listing);
    std::sort(names.begin(), names.end());
    if (names != std::vector<std::string>{".", "..", aovkdev::kNodeName, "status"}) {
        return 6;
    }
    if (::open(status.c_str(), O_WRONLY | O_CLOEXEC) != -1 || errno != EACCES) {
        return 7;
    }
    const int statusFd = ::open(status.c_str(), O_RDONLY | O_CLOEXEC);
    if (statusFd < 0 || ::ioctl(statusFd, AOV_IOC_ULPOSC3_ON, nullptr) != -1 || errno != ENOTTY) {
        return 8;
    }
    // Read from any offset: the rest of the same text, nothing from its end on.
    char whole[4096];
    char rest[4096];
    const ssize_t length = ::pread(statusFd, whole, sizeof(whole), 0);
    if (length < 8 || ::pread(statusFd, rest, sizeof(rest), 7) != length - 7 ||
        std::memcmp(whole + 7, rest, static_cast<size_t>(length - 7)) != 0 ||
        ::pread(statusFd, rest, 3, 0) != 3 || std::memcmp(whole, rest, 3) != 0 ||
        ::pread(statusFd, rest, sizeof(rest), length) != 0 ||
        ::pread(statusFd, rest, sizeof(rest), length + 100) != 0) {
        return 9;
    }
    if (::close(statusFd) != 0) {
        return 10;
    }
    return 0;
}

// Opens the status file as another user, in a child that holds nothing of
// this process's; its exit status says whether the open succeeded.
int openedAsNobody(const std::string& status) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
        return 2;
    }
    const int fd = ::open(status.c_str(), O_RDONLY | O_CLOEXEC);
    return fd >= 0 && ::close(fd) == 0 ? 0 : 1;
}

TEST_F(KdevServerTest, TheMountIsADirectoryOfTheNodeAndItsStatusFileAndRefusesOtherUses) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        ::syscall(SYS_close_range, 3U, ~0U, 0U);
        ::_exit(firstWrongStep(dir_, server_->nodePath()));
    }
    int wait_status = 0;
    if (!aovtest::exitedWithin(child, &wait_status, std::chrono::seconds(10))) {
        TearDown();
        EXPECT_TRUE(aovtest::exitedWithin(child, &wait_status)) << "the child outlived the server";
        FAIL() << "a request on the mount was not answered within 10 s";
    }
    const char* const steps[] = {"",
                                 "the mount point is a directory, 0755, two links",
                                 "the node is a regular file, 0666",
                                 "the status file is a regular file, 0444",
                                 "an absent name is ENOENT",
                                 "the directory opens",
                                 "the listing is ., .., the node and status, once each",
                                 "the status file refuses a write open with EACCES",
                                 "the status file refuses an ioctl with ENOTTY",
                                 "the status file reads the same text from any offset",
                                 "the status file closes with 0"};
    ASSERT_TRUE(WIFEXITED(wait_status));
    const int step = WEXITSTATUS(wait_status);
    EXPECT_EQ(step, 0) << "wrong: " << (step > 0 && step < 11 ? steps[step] : "?");

    // A server run as root serves every user, as a device node does.
    if (::geteuid() == 0) {
        const pid_t other = ::fork();
        ASSERT_GE(other, 0) << std::strerror(errno);
        if (other == 0) {
            ::syscall(SYS_close_range, 3U, ~0U, 0U);
            ::_exit(openedAsNobody(dir_ + "/" + aovkdev::kStatusName));
        }
        if (!aovtest::exitedWithin(other, &wait_status, std::chrono::seconds(10))) {
            TearDown();
            EXPECT_TRUE(aovtest::exitedWithin(other, &wait_status))
                << "the child outlived the server";
            FAIL() << "an open by another user was not answered within 10 s";
        }
        EXPECT_TRUE(WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 0)
            << "another user cannot open the status file of a server run as root";
    }

    // The node is no file to read.
    char buffer[8];
    EXPECT_EQ(::read(fd_, buffer, sizeof(buffer)), -1);
    EXPECT_EQ(errno, EINVAL);

    // A mount point that cannot be mounted on is refused with its name.
    aovkdev::KdevServer other(driver_, std::make_shared<aovsim::Trace>(), "other",
                              aovkdev::ServerFaults());
    std::string problem;
    // A server that never mounted, or failed to, has nothing to serve. Its
    // stop is asked for first: a serve that wrongly ran would end at once.
    other.stop();
    EXPECT_EQ(other.serve(), -ENOTCONN);
    EXPECT_FALSE(other.mount(dir_ + "_absent", &problem));
    EXPECT_EQ(problem, "cannot mount a FUSE file system on " + dir_ + "_absent");
    EXPECT_EQ(other.serve(), -ENOTCONN);
}

void noteSignal(int) {}

// A waiting dequeue ends early when its caller takes a signal (EINTR), and
// when the server ends (EIO); it is never left for the connection's end.
TEST_F(KdevServerTest, AWaitingDequeueEndsWithEintrOnASignalAndWithEioWhenTheServerEnds) {
    startWithBlockingDequeue(600000);
    ASSERT_FALSE(HasFailure());
    struct sigaction note {};
    note.sa_handler = noteSignal;
    sigemptyset(&note.sa_mask);
    struct sigaction old {};
    ASSERT_EQ(::sigaction(SIGUSR1, &note, &old), 0);
    auto event = std::make_unique<aov_event>();
    aov_event_query query = queryInto(event.get());
    const int fd = fd_;
    std::promise<pthread_t> caller;
    std::future<pthread_t> callerId = caller.get_future();
    elsewhere_ = std::async(std::launch::async, [fd, &query, &caller] {
        caller.set_value(::pthread_self());
        return ::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &query) == -1 ? errno : 0;
    });
    ASSERT_TRUE(traced("waits for the next event")) << "the empty dequeue did not wait";
    ::pthread_kill(callerId.get(), SIGUSR1);
    const bool interrupted = elsewhere_.wait_for(aovtest::kWaitLimit) == std::future_status::ready;
    if (!interrupted) {
        TearDown();  // answers it, so that the caller can be joined
    }
    ::sigaction(SIGUSR1, &old, nullptr);
    ASSERT_TRUE(interrupted) << "the waiting dequeue did not return when its caller took a signal";
    EXPECT_EQ(elsewhere_.get(), EINTR);

    // Cleared before the second dequeue is sent: its line may come at once.
    {
        std::lock_guard<std::mutex> guard(traced_.mutex);
        traced_.lines.clear();
    }
    sendElsewhere(AOV_IOC_DEQUEUE_EVENT, &query);
    ASSERT_TRUE(traced("waits for the next event")) << "the second empty dequeue did not wait";
    TearDown();
    int err = -1;
    ASSERT_TRUE(elsewhereEnded(&err)) << "the waiting dequeue did not return when the server ended";
    EXPECT_EQ(err, EIO);
}

// The copies to and from a caller's memory: all of a range or -EFAULT, the
// bytes before an unmapped page moved, nothing read through a null address.
TEST(ProcessMemoryTest, CopiesAWholeRangeOrFaultsAtTheFirstUnmappedByte) {
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    auto* mapped = static_cast<uint8_t*>(
        ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(mapped, MAP_FAILED) << std::strerror(errno);
    ASSERT_EQ(::munmap(mapped + page, page), 0);
    uint8_t* const edge = mapped + page - 8;  // the last 8 mapped bytes
    const pid_t self = ::getpid();
    aovkdev::ProcessMemory memory(self);
    // A producer fills exactly the bytes asked for.
    const auto fill = [](size_t size) {
        return [size](uint8_t* bytes) {
            for (size_t i = 0; i < size; ++i) {
                bytes[i] = static_cast<uint8_t>(0xA0 + i);
            }
        };
    };

    EXPECT_EQ(memory.write(edge, 8, fill(8)), 0);
    uint8_t read[16] = {};
    EXPECT_EQ(aovkdev::readProcessMemory(self, edge, read, 8), 0);
    for (uint8_t i = 0; i < 8; ++i) {
        EXPECT_EQ(read[i], 0xA0 + i) << "byte " << int(i);
    }

    std::memset(edge, 0, 8);
    EXPECT_EQ(memory.write(edge, 16, fill(16)), -EFAULT);
    EXPECT_EQ(edge[0], 0xA0) << "the mapped part is written before the fault";
    EXPECT_EQ(edge[7], 0xA7);
    EXPECT_EQ(aovkdev::readProcessMemory(self, edge, read, 16), -EFAULT);
    EXPECT_EQ(aovkdev::readProcessMemory(self, nullptr, read, 1), -EFAULT);
    EXPECT_EQ(memory.write(nullptr, 1, fill(1)), -EFAULT);
    ::munmap(mapped, page);
}

}  // namespace

// A server started with standard input closed gets descriptor 0 for its own
// use; ending it closes that one too, and leaves no other open.
TEST(KdevServerDescriptors, AServerStartedWithDescriptorZeroFreeClosesItWhenItEnds) {
    auto trace = std::make_shared<aovsim::Trace>();
    aovsim::DriverConfig config;
    config.timer = false;
    auto driver =
        std::make_shared<aovsim::SimDriver>(AOV_DEVICE_NODE, config, aovsim::FaultConfig(), trace);
    const int input = ::dup(STDIN_FILENO);
    ASSERT_GE(input, 0);
    ::close(STDIN_FILENO);
    const int before = aovtest::openDescriptors();
    { aovkdev::KdevServer server(driver, trace, "test", aovkdev::ServerFaults()); }
    const int zeroFlags = ::fcntl(STDIN_FILENO, F_GETFD);
    const int after = aovtest::openDescriptors();
    ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
    EXPECT_EQ(zeroFlags, -1) << "descriptor 0 was left open";
    EXPECT_EQ(after, before) << "descriptors left open by the ended server";
}
