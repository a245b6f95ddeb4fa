// The checks' judgement against descriptors whose readiness and answers are
// known without a driver: a pipe with data (POLLIN), an empty one (quiet), one
// whose writer has gone (POLLHUP), and /dev/null (always readable). Every
// AOV request gets ENOTTY from them, the answer of a node that finds nothing
// to do; every wait here ends at once or finds nothing ever coming.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>

#include "MonitorWait.h"
#include "Suite.h"
#include "gtest/gtest.h"

namespace aovcompliance {
namespace {

class CheckerOnPipes : public ::testing::Test {
  protected:
    void SetUp() override {
        options_.timeout_ms = 5000;
        options_.event_timeout_ms = 1;  // nothing ever arrives on these
        text_ = nullptr;
        size_ = 0;
        seen_ = 0;
        out_ = ::open_memstream(&text_, &size_);
        report_ = std::make_unique<Report>(out_, Report::Format::kPlain, false, "");
        ctx_ = std::make_unique<Context>(options_, *report_);
        ASSERT_TRUE(ctx_->arena().map());
        ASSERT_EQ(::pipe2(ends_, O_CLOEXEC), 0);
    }
    void TearDown() override {
        ctx_.reset();
        report_.reset();
        std::fclose(out_);
        std::free(text_);
        for (int& fd : ends_) {
            if (fd >= 0) {
                ::close(fd);
            }
            fd = -1;
        }
    }

    // The node is the pipe's read end: `data` bytes waiting, the writer gone
    // or not.
    void pipeNode(bool data, bool hungUp) {
        if (data) {
            ASSERT_EQ(::write(ends_[1], "x", 1), 1);
        }
        if (hungUp) {
            ::close(ends_[1]);
            ends_[1] = -1;
        }
        ctx_->setFd(ends_[0]);
    }
    void nullNode() {
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ctx_->setFd(fd);
        null_ = fd;
    }
    std::string text() {
        std::fflush(out_);
        return std::string(text_, size_);
    }
    std::string takeText() {
        const std::string all = text();
        const std::string fresh = all.substr(seen_);
        seen_ = all.size();
        return fresh;
    }
    int closeNull() { return null_ >= 0 ? ::close(null_) : 0; }

    Options options_;
    char* text_ = nullptr;
    size_t size_ = 0;
    size_t seen_ = 0;
    std::FILE* out_ = nullptr;
    std::unique_ptr<Report> report_;
    std::unique_ptr<Context> ctx_;
    int ends_[2] = {-1, -1};
    int null_ = -1;
};

// The monitor's wait retries only a wait a signal interrupted: one that found
// nothing returns 0 even when errno still holds an earlier call's EINTR.
TEST_F(CheckerOnPipes, AMonitorWaitReturnsWhatTheWaitFoundWhateverErrnoHeldBefore) {
    const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(epfd, 0);
    ASSERT_EQ(aovsimtool::armAsMonitor(epfd, ends_[0]), 0);
    // In a guarded child, as the checks wait: a wait that retries forever is cut off.
    const CallResult quiet = ctx_->guard().run(2000, [epfd]() -> long {
        errno = EINTR;
        return aovsimtool::waitAsMonitor(epfd, 0);
    });
    EXPECT_EQ(quiet.status, CallResult::Status::kReturned)
        << "a wait with nothing ready did not return";
    EXPECT_EQ(quiet.value, 0);

    ASSERT_EQ(::write(ends_[1], "x", 1), 1);
    EXPECT_EQ(aovsimtool::waitAsMonitor(epfd, 0), EPOLLIN);
    ::close(epfd);
}

// A file epoll cannot watch is an error, not a quiet node; and the monitor's
// own epoll descriptor may be descriptor 0 (run with standard input closed).
TEST_F(CheckerOnPipes, AMonitorOnAFileEpollRefusesFailsAndOneOnDescriptorZeroWorks) {
    const std::string path = ::testing::TempDir() + "monitor_plain_" + std::to_string(::getpid());
    const int plain = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(plain, 0);
    errno = 0;
    EXPECT_EQ(aovsimtool::pollAsMonitor(plain, 0), -1);
    EXPECT_EQ(errno, EPERM);
    ::close(plain);
    ::unlink(path.c_str());

    ASSERT_EQ(::write(ends_[1], "x", 1), 1);
    const int input = ::dup(STDIN_FILENO);
    ASSERT_GE(input, 0);
    ::close(STDIN_FILENO);
    const long found = aovsimtool::pollAsMonitor(ends_[0], 0);
    ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
    EXPECT_EQ(found, EPOLLIN);
}

TEST_F(CheckerOnPipes, BeforeStartAndAfterStopAnyWakingBitIsReadinessAndIsNamed) {
    pipeNode(false, false);
    notReadableBeforeStartCheck(*ctx_);
    EXPECT_EQ(takeText(), "readiness: not readable before START: OK\n");

    ASSERT_EQ(::write(ends_[1], "x", 1), 1);
    nothingAfterStopCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "readiness: nothing after STOP: FAIL (expected no readiness for 300 ms after STOP, "
              "got POLLIN: the library no longer dequeues, so a monitor would spin)\n");
}

TEST_F(CheckerOnPipes, AHangUpWithoutInputCountsAsReadinessBeforeStart) {
    pipeNode(false, true);
    notReadableBeforeStartCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "readiness: not readable before START: FAIL (expected no readiness, got POLLHUP: "
              "a monitor would spin, as the library dequeues only once started)\n");
    EXPECT_EQ(report_->totals().failed, 1);
}

TEST_F(CheckerOnPipes, TheDrainJudgesInputWithNothingToDequeueAndHangUps) {
    pipeNode(false, false);
    Drain drain = notReadableOnceDrainedCheck(*ctx_);
    EXPECT_EQ(drain.end, Drain::End::kEmpty);
    EXPECT_EQ(takeText(), "readiness: not readable once drained: OK\n");
    emptyDequeueCheck(*ctx_, drain);
    const std::string line = takeText();
    EXPECT_EQ(line.rfind("dequeue: nothing pending returns promptly: OK (drained until empty: "
                         "returned ENOTTY in ",
                         0),
              0u)
        << line;
}

TEST_F(CheckerOnPipes, InputThatNoDequeueTakesFailsTheDrainAndSkipsTheFaultingChecks) {
    pipeNode(true, false);
    const Drain drain = notReadableOnceDrainedCheck(*ctx_);
    EXPECT_EQ(drain.end, Drain::End::kReadableEmpty);
    EXPECT_EQ(drain.empty.error, ENOTTY);
    EXPECT_EQ(takeText(),
              "readiness: not readable once drained: FAIL (expected no readiness with nothing to "
              "dequeue, got POLLIN while a dequeue returned ENOTTY: the monitor would call the "
              "library again and again)\n");
    emptyDequeueCheck(*ctx_, drain);
    EXPECT_EQ(takeText().rfind("dequeue: nothing pending returns promptly: OK (drained until "
                               "empty: returned ENOTTY in ",
                               0),
              0u);
    faultingAreaChecks(*ctx_, drain);
    EXPECT_EQ(takeText(),
              "dequeue: faulting area refused with EFAULT: SKIP (readiness does not say when an "
              "event is pending (after: not readable once drained))\n"
              "dequeue: works after a faulting area: SKIP (readiness does not say when an event "
              "is pending (after: not readable once drained))\n");
}

TEST_F(CheckerOnPipes, AHangUpAfterTheDrainIsAFailureNamingTheBit) {
    pipeNode(false, true);
    const Drain drain = notReadableOnceDrainedCheck(*ctx_);
    EXPECT_EQ(drain.end, Drain::End::kEmpty);
    EXPECT_EQ(takeText(),
              "readiness: not readable once drained: FAIL (expected no readiness with nothing to "
              "dequeue, got POLLHUP: the monitor hears of it every time it waits, and would call "
              "the library again and again)\n");
    // Without an event the faulting checks cannot run; the hang-up is named.
    faultingAreaChecks(*ctx_, drain);
    EXPECT_EQ(takeText(),
              "dequeue: faulting area refused with EFAULT: SKIP (the node signalled POLLHUP "
              "instead of an event)\n"
              "dequeue: works after a faulting area: SKIP (the node signalled POLLHUP instead of "
              "an event)\n");
}

TEST_F(CheckerOnPipes, NoEventMeansSkipsNotFailures) {
    pipeNode(false, false);
    EXPECT_EQ(pollReadableCheck(*ctx_), Events::kNone);
    EXPECT_EQ(takeText(),
              "readiness: poll readable with an event pending: SKIP (no event within 1 ms of "
              "START: events need a streaming sensor (on a device, start the sensor first))\n");
    Drain drain;
    drain.end = Drain::End::kEmpty;
    faultingAreaChecks(*ctx_, drain);
    EXPECT_EQ(takeText(),
              "dequeue: faulting area refused with EFAULT: SKIP (no further event within 1 ms)\n"
              "dequeue: works after a faulting area: SKIP (no further event within 1 ms)\n");
    EXPECT_EQ(report_->totals().failed, 0);
    EXPECT_EQ(report_->totals().skipped, 3);
}

// The epoll check judges only a watch armed with nothing pending: input that
// no dequeue takes never lets it arm so, and a watch that waited for nothing
// that came proves nothing either way.
TEST_F(CheckerOnPipes, EpollJudgesOnlyAWatchArmedWithNothingPending) {
    pipeNode(true, false);
    epollReadableCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "readiness: epoll readable (empty mask, then modified): SKIP (readable with nothing "
              "to dequeue: a wake-up cannot be told from it (see not readable once drained))\n");

    CheckerOnPipes::TearDown();
    CheckerOnPipes::SetUp();
    pipeNode(false, false);
    epollReadableCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "readiness: epoll readable (empty mask, then modified): SKIP (no event within 1 ms "
              "of the watch armed with nothing pending)\n");

    CheckerOnPipes::TearDown();
    CheckerOnPipes::SetUp();
    pipeNode(false, true);
    epollReadableCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "readiness: epoll readable (empty mask, then modified): SKIP (the node signalled "
              "POLLHUP with nothing to dequeue when the watch was armed (see not readable once "
              "drained))\n")
        << "a hang-up at the arm is no event to drain";
}

TEST_F(CheckerOnPipes, AQueueThatNeverDrainedIsJudgedAfterStopOrSkipped) {
    pipeNode(false, false);
    Drain storm;
    storm.end = Drain::End::kStorm;
    emptyDequeueCheck(*ctx_, storm);
    EXPECT_EQ(takeText(), "") << "left for after STOP";
    emptyDequeueAfterStopCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "dequeue: nothing pending returns promptly: SKIP (the queue never drained, and the "
              "node was not quiet after STOP)\n");

    CheckerOnPipes::TearDown();
    CheckerOnPipes::SetUp();
    pipeNode(false, false);
    nothingAfterStopCheck(*ctx_);
    EXPECT_EQ(takeText(), "readiness: nothing after STOP: OK\n");
    emptyDequeueAfterStopCheck(*ctx_);
    EXPECT_EQ(takeText().rfind("dequeue: nothing pending returns promptly: OK (stream stopped "
                               "first: returned ENOTTY in ",
                               0),
              0u);
    emptyDequeueAfterStopCheck(*ctx_);
    EXPECT_EQ(takeText(), "") << "decided once";
}

// A drain still readable at its end: a storm only when it took events faster
// than a stream at START's rate (10 a second) could have made half of them.
TEST(DrainPace, AStillReadableDrainIsAStormOnlyWhenFasterThanTheStream) {
    DrainLog log{};
    log.end = DrainLog::kLimit;
    log.dequeues = 64;
    log.drain_us = 24000;
    EXPECT_FALSE(outranByStream(log)) << "64 events in 24 ms are no stream of 10 a second";
    log.drain_us = 3199999;
    EXPECT_FALSE(outranByStream(log)) << "32 events need 3.2 s at 10 a second";
    log.drain_us = 3200000;
    EXPECT_TRUE(outranByStream(log));
    log.dequeues = 7;
    log.drain_us = 1127000;
    EXPECT_TRUE(outranByStream(log)) << "a drain cut short by its time";
    log.drain_us = 300000;
    EXPECT_FALSE(outranByStream(log));

    // However slow, mostly the record of the dequeue before is the same
    // event again.
    log.drain_us = 1127000;
    log.repeats = 3;
    EXPECT_TRUE(mostlyRepeated(log)) << "half of the six that could repeat";
    EXPECT_TRUE(drainStormed(log));
    log.repeats = 2;
    EXPECT_FALSE(mostlyRepeated(log));
    EXPECT_FALSE(drainStormed(log));
    log.drain_us = 24000;
    EXPECT_TRUE(drainStormed(log)) << "too fast for the stream";
    log.dequeues = 1;
    log.repeats = 0;
    EXPECT_FALSE(mostlyRepeated(log)) << "a single dequeue repeats nothing";
}

// The drain and the step after it run in one child; what it saw is in the log.
TEST_F(CheckerOnPipes, TheDrainsLogSaysHowItEndedAndWhatTheStepAfterItGot) {
    pipeNode(false, false);
    CallResult r = ctx_->drainNode(64, Context::AfterDrain::kDequeue);
    const DrainLog& log = *ctx_->arena().drainLog();
    ASSERT_TRUE(r.returned());
    EXPECT_EQ(log.end, DrainLog::kNoPollin);
    EXPECT_EQ(log.dequeues, 0);
    EXPECT_EQ(log.revents, 0);
    EXPECT_EQ(log.value, -1) << "the dequeue after the drain";
    EXPECT_EQ(log.error, ENOTTY);
    EXPECT_EQ(r.error, ENOTTY);

    // Input no dequeue takes: the drain's dequeue fails, and nothing follows it.
    CheckerOnPipes::TearDown();
    CheckerOnPipes::SetUp();
    pipeNode(true, false);
    const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(epfd, 0);
    r = ctx_->drainNode(64, Context::AfterDrain::kArm, epfd);
    ASSERT_TRUE(r.returned());
    EXPECT_EQ(log.end, DrainLog::kDequeueFailed);
    EXPECT_EQ(log.dequeues, 1);
    EXPECT_EQ(log.revents & POLLIN, POLLIN);
    EXPECT_EQ(log.error, ENOTTY);
    epoll_event none{};
    EXPECT_EQ(::epoll_wait(epfd, &none, 1, 0), 0) << "no watch armed after a failed drain";

    // A drained node: the watch is armed in the same child and looked at.
    CheckerOnPipes::TearDown();
    CheckerOnPipes::SetUp();
    pipeNode(false, true);
    r = ctx_->drainNode(64, Context::AfterDrain::kArm, epfd);
    ASSERT_TRUE(r.returned());
    EXPECT_EQ(log.end, DrainLog::kNoPollin);
    EXPECT_EQ(log.revents, POLLHUP);
    EXPECT_EQ(log.armed, EPOLLHUP) << "the hang-up, seen at the arm";
    ::close(epfd);
}

TEST_F(CheckerOnPipes, RequestsThatMustSucceedOrBeRefusedAreJudgedByTheirAnswer) {
    nullNode();
    EXPECT_FALSE(ctx_->expectSuccess(CheckId::kStart, AOV_IOC_START, ctx_->arena().startRecord()));
    EXPECT_EQ(ctx_->lastError(), ENOTTY);
    ctx_->expectRefused(CheckId::kUnknownIo, _IO('H', 5), nullptr, ENOTTY);
    ctx_->expectRefused(CheckId::kSensorOnCountZero, AOV_IOC_SENSOR_ON, ctx_->arena().sensorList(0),
                        EINVAL);
    ctx_->expectRefused(CheckId::kDequeueWrongSize, _IOC(_IOC_READ, 'H', 3, 208), nullptr, EAGAIN,
                        "a note");
    EXPECT_EQ(takeText(),
              "requests: START: FAIL (expected 0, got ENOTTY)\n"
              "requests: unknown code _IO('H', 5) refused: OK\n"
              "requests: SENSOR_ON with count 0 refused: WARN (expected a negative result "
              "(EINVAL), got ENOTTY)\n"
              "requests: DEQUEUE_EVENT with size 208 refused: WARN (expected a negative result "
              "(EAGAIN), got ENOTTY: a note)\n");
    EXPECT_EQ(closeNull(), 0);
}

// A pipe answers FIONREAD with 0: a success where one is expected passes, and
// where a refusal is expected it is the check's problem. Verbose, each answer
// is also noted.
TEST_F(CheckerOnPipes, ARequestThatSucceedsPassesOrFailsAsTheCheckExpectsAndIsNoted) {
    report_ = std::make_unique<Report>(out_, Report::Format::kPlain, true, "");
    ctx_ = std::make_unique<Context>(options_, *report_);
    ASSERT_TRUE(ctx_->arena().map());
    pipeNode(false, false);
    int waiting = -1;
    EXPECT_TRUE(ctx_->expectSuccess(CheckId::kStart, FIONREAD, &waiting));
    ctx_->expectRefused(CheckId::kUnknownIo, FIONREAD, &waiting, ENOTTY);
    const std::string text = takeText();
    const std::regex expected(
        "  START -> 0 in [0-9]+ us\n"
        "requests: START: OK\n"
        "  unknown code _IO\\('H', 5\\) refused -> 0 in [0-9]+ us\n"
        "requests: unknown code _IO\\('H', 5\\) refused: FAIL \\(expected a negative result "
        "\\(ENOTTY\\), got 0\\)\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(CheckerOnPipes, ANodeThatKnowsNoAovRequestStopsTheRunAtStop) {
    nullNode();
    stopWithoutStartCheck(*ctx_);
    EXPECT_EQ(takeText(), "");
    EXPECT_EQ(ctx_->stopReason(),
              "/dev/kelo_aov is not an AOV node: it answers STOP with ENOTTY, as a file that "
              "knows no AOV request does");
    EXPECT_EQ(closeNull(), 0);
}

// A STOP refused with anything but "no such request" is the driver's answer
// to judge, not a sign that the path is no AOV node.
TEST_F(CheckerOnPipes, AStopWithoutStartRefusedOtherwiseIsAWarning) {
    ctx_->setFd(1 << 20);  // open nowhere
    stopWithoutStartCheck(*ctx_);
    EXPECT_EQ(takeText(),
              "lifecycle: STOP without START: WARN (expected 0, got EBADF (the library logs "
              "\"failed to stop device\"))\n");
    EXPECT_FALSE(ctx_->stopped()) << ctx_->stopReason();
}

TEST_F(CheckerOnPipes, ALifecycleOnANodeThatRefusesStartSaysWhatFailedAtEachStep) {
    options_.node = "/dev/null";
    nullNode();
    lifecycleChecks(*ctx_);
    EXPECT_EQ(takeText(),
              "lifecycle: START twice: FAIL (expected the first START to succeed, got ENOTTY)\n"
              "lifecycle: close while started: OK\n"
              "lifecycle: reopen after close while started: OK\n"
              "lifecycle: second session works: FAIL (expected START to succeed, got ENOTTY)\n");
    EXPECT_EQ(::fcntl(null_, F_GETFD), -1) << "closed by the check, in a child";
    null_ = -1;
    ASSERT_GE(ctx_->fd(), 0) << "the reopened descriptor";
    const CallResult closed = ctx_->close(ctx_->fd());
    EXPECT_EQ(closed.value, 0);
    EXPECT_EQ(ctx_->fd(), -1);
}

TEST_F(CheckerOnPipes, WithoutADescriptorTheLifecycleChecksSayWhy) {
    lifecycleChecks(*ctx_);
    EXPECT_EQ(takeText(),
              "lifecycle: START twice: SKIP (the node is not open)\n"
              "lifecycle: close while started: SKIP (the node is not open)\n"
              "lifecycle: reopen after close while started: SKIP (the node is not open)\n"
              "lifecycle: second session works: SKIP (the node is not open)\n");
}

}  // namespace
}  // namespace aovcompliance
