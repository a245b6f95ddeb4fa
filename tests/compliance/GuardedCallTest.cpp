// The guarded call: a call that answers, one that never does, one whose
// process dies, a descriptor handed over from the child, and closes that run
// in a child, one of them blocking; a wait that signals interrupt; the
// report's plain and TAP lines.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "BoundedWait.h"
#include "Guarded.h"
#include "OpenDescriptors.h"
#include "Report.h"
#include "gtest/gtest.h"

using aovsimtool::CallResult;
using aovsimtool::GuardedCaller;

TEST(GuardedCall, AnswersWithTheCallsResultAndErrno) {
    GuardedCaller caller;
    const CallResult ok = caller.run(5000, []() -> long { return 42; });
    ASSERT_EQ(ok.status, CallResult::Status::kReturned);
    EXPECT_EQ(ok.value, 42);
    EXPECT_EQ(ok.error, 0);
    EXPECT_EQ(ok.passed_fd, -1) << "no descriptor asked for, none handed over";

    // A call that succeeds with errno left over from an inner failure: the
    // errno belongs to failures only.
    const CallResult zero = caller.run(5000, []() -> long {
        errno = EAGAIN;
        return 0;
    });
    ASSERT_EQ(zero.status, CallResult::Status::kReturned);
    EXPECT_EQ(zero.value, 0);
    EXPECT_EQ(zero.error, 0);

    const CallResult failed = caller.run(5000, []() -> long { return ::close(-1); });
    ASSERT_TRUE(failed.failed());
    EXPECT_EQ(failed.error, EBADF);
    EXPECT_EQ(aovsimtool::errnoName(failed.error), "EBADF");
}

TEST(GuardedCall, ACallThatNeverReturnsIsGivenUpAfterTheLimit) {
    GuardedCaller caller;
    int blocker[2];
    ASSERT_EQ(::pipe(blocker), 0);
    const int readEnd = blocker[0];
    // Nobody ever writes: the read blocks for good.
    const CallResult r = caller.run(200, [readEnd]() -> long {
        char byte;
        return ::read(readEnd, &byte, 1);
    });
    EXPECT_EQ(r.status, CallResult::Status::kTimedOut);
    EXPECT_EQ(caller.abandoned(), 1);
    ::close(blocker[0]);
    ::close(blocker[1]);
}

void noteSignal(int) {}

// Signals reach the checker while it waits (a terminal resized, a timer):
// each interrupts the wait, which still ends at its limit. The call keeps
// signalling its caller until the caller is gone, so that the wait is
// certainly interrupted; the caller runs in a process of its own, so that a
// wait that never ends can be stopped from here.
TEST(GuardedCall, AWaitInterruptedBySignalsStillEndsAtItsLimit) {
    const pid_t caller = ::fork();
    ASSERT_GE(caller, 0);
    if (caller == 0) {
        struct sigaction note {};
        note.sa_handler = noteSignal;
        sigemptyset(&note.sa_mask);
        ::sigaction(SIGUSR1, &note, nullptr);
        GuardedCaller guarded;
        const pid_t self = ::getpid();
        const CallResult r = guarded.run(200, [self]() -> long {
            const timespec pause{0, 5 * 1000 * 1000};
            while (::getppid() == self) {
                ::kill(self, SIGUSR1);
                ::nanosleep(&pause, nullptr);
            }
            return 0;
        });
        ::_exit(r.status == CallResult::Status::kTimedOut ? 0 : 1);
    }
    int status = 0;
    if (!aovtest::exitedWithin(caller, &status, std::chrono::seconds(10))) {
        aovtest::killed(caller);
        FAIL() << "a wait interrupted by signals did not end within 10 s of its 200 ms limit";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the call was not reported as timed out (status " << status << ")";
}

TEST(GuardedCall, AChildThatDiesIsReportedNotWaitedFor) {
    GuardedCaller caller;
    const CallResult r = caller.run(5000, []() -> long {
        ::raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(r.status, CallResult::Status::kDied);
}

TEST(GuardedCall, ADescriptorOpenedInTheChildReachesTheParent) {
    GuardedCaller caller;
    const CallResult r = caller.run(
        5000, []() -> long { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }, true);
    ASSERT_EQ(r.status, CallResult::Status::kReturned);
    ASSERT_GE(r.passed_fd, 0);
    EXPECT_EQ(::write(r.passed_fd, "x", 1), 1);
    const CallResult closed = caller.close(5000, r.passed_fd);
    ASSERT_EQ(closed.status, CallResult::Status::kReturned);
    EXPECT_EQ(closed.value, 0);
    EXPECT_EQ(::fcntl(r.passed_fd, F_GETFD), -1) << "the parent's copy is closed too";
    EXPECT_EQ(closed.error, 0);
}

// Descriptor 0 is a descriptor like any other: a call whose answer is 0 hands
// it over (the child's standard input replaced by the file it opened).
TEST(GuardedCall, ADescriptorNumberedZeroInTheChildReachesTheParent) {
    GuardedCaller caller;
    const int file = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_GE(file, 0);
    const CallResult r = caller.run(
        5000, [file]() -> long { return ::dup2(file, 0); }, true);
    ASSERT_EQ(r.status, CallResult::Status::kReturned);
    EXPECT_EQ(r.value, 0);
    ASSERT_GE(r.passed_fd, 0) << "descriptor 0 was not handed over";
    struct stat mine {};
    struct stat passed {};
    ASSERT_EQ(::fstat(file, &mine), 0);
    ASSERT_EQ(::fstat(r.passed_fd, &passed), 0);
    EXPECT_EQ(passed.st_rdev, mine.st_rdev);
    ::close(r.passed_fd);
    ::close(file);
}

// The report's lines, plain and TAP, and what --only leaves out.
TEST(ComplianceReport, PlainAndTapLinesAndTotals) {
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = ::open_memstream(&text, &size);
    {
        aovcompliance::Report report(out, aovcompliance::Report::Format::kPlain, false, "");
        report.begin();
        report.check("open", "O_RDWR open", aovcompliance::Verdict::kOk);
        report.check("requests", "STOP", aovcompliance::Verdict::kFail, "expected 0, got EIO");
        report.check("dequeue", "x", aovcompliance::Verdict::kSkip, "no event");
        report.end();
    }
    std::fflush(out);
    EXPECT_EQ(std::string(text, size),
              "open: O_RDWR open: OK\n"
              "requests: STOP: FAIL (expected 0, got EIO)\n"
              "dequeue: x: SKIP (no event)\n"
              "aov-compliance: 1 passed, 1 failed, 0 warnings, 1 skipped\n");
    std::fclose(out);
    std::free(text);

    out = ::open_memstream(&text, &size);
    {
        aovcompliance::Report report(out, aovcompliance::Report::Format::kTap, false, "requests");
        report.begin();
        report.check("open", "O_RDWR open", aovcompliance::Verdict::kOk);
        report.check("requests", "STOP", aovcompliance::Verdict::kFail, "expected 0, got EIO");
        report.check("requests", "START", aovcompliance::Verdict::kWarn, "got 1");
        report.bail("STOP never returned");
    }
    std::fflush(out);
    EXPECT_EQ(std::string(text, size),
              "TAP version 13\n"
              "not ok 1 - requests: STOP # expected 0, got EIO\n"
              "ok 2 - requests: START # WARN got 1\n"
              "1..2\n"
              "Bail out! STOP never returned\n"
              "# aov-compliance: 0 passed, 1 failed, 1 warnings, 0 skipped\n");
    std::fclose(out);
    std::free(text);
}
// A skipped check keeps TAP's SKIP directive, the plan counts the checks
// shown, and the requests' notes come with -v only.
TEST(ComplianceReport, TapSkipsThePlanAndNotesOnlyWhenVerbose) {
    for (const bool verbose : {false, true}) {
        char* text = nullptr;
        size_t size = 0;
        std::FILE* out = ::open_memstream(&text, &size);
        {
            aovcompliance::Report report(out, aovcompliance::Report::Format::kTap, verbose, "");
            report.begin();
            report.check("open", "O_RDWR open", aovcompliance::Verdict::kOk);
            report.note("START -> 0 in 12 us");
            report.check("dequeue", "x", aovcompliance::Verdict::kSkip, "no event");
            report.end();
        }
        std::fflush(out);
        EXPECT_EQ(std::string(text, size),
                  std::string("TAP version 13\n"
                              "ok 1 - open: O_RDWR open\n") +
                      (verbose ? "# START -> 0 in 12 us\n" : "") +
                      "ok 2 - dequeue: x # SKIP no event\n"
                      "1..2\n"
                      "# aov-compliance: 1 passed, 0 failed, 0 warnings, 1 skipped\n");
        std::fclose(out);
        std::free(text);
    }
}

// A TCP socket whose peer never reads, with unsent data and SO_LINGER: its
// last close blocks until the linger time ends. A real close that does not
// return, without a driver.
class LingeringSocket : public ::testing::Test {
  protected:
    void SetUp() override {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(listener_, 0);
        const int small = 4096;
        ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        socklen_t length = sizeof(address);
        ASSERT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        ASSERT_EQ(::listen(listener_, 1), 0);
        address_ = address;
    }
    void TearDown() override {
        if (listener_ >= 0) {
            ::close(listener_);
        }
    }

    // Connects, fills the connection and sets a linger of 60 s; the socket,
    // or -1. Only system calls: it also runs in a guarded child.
    static long lingering(const sockaddr_in& address) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int small = 4096;
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        if (fd < 0 ||
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            return -1;
        }
        static char block[4096];
        while (::send(fd, block, sizeof(block), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
        const linger stay{1, 60};
        return ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &stay, sizeof(stay)) == 0 ? fd : -1;
    }

    int listener_ = -1;
    sockaddr_in address_{};
};

TEST_F(LingeringSocket, ACloseThatBlocksRunsInTheChildAndTheDescriptorLeavesTheParent) {
    GuardedCaller caller;
    const int fd = static_cast<int>(lingering(address_));
    ASSERT_GE(fd, 0);
    const CallResult closed = caller.close(300, fd);
    EXPECT_EQ(closed.status, CallResult::Status::kTimedOut);
    EXPECT_TRUE(closed.hung());
    EXPECT_EQ(caller.abandoned(), 1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "the descriptor is gone from the parent";
}

TEST_F(LingeringSocket, ACallWhoseProcessCannotCloseWhatItHeldIsACloseHang) {
    GuardedCaller caller;
    const sockaddr_in address = address_;
    // The call answers; the socket it leaves open lingers when its process
    // closes it on the way out.
    const CallResult r = caller.run(300, [address]() -> long { return lingering(address); });
    EXPECT_EQ(r.status, CallResult::Status::kCloseHung);
    EXPECT_GE(r.value, 0) << "the call's own answer is kept";
    EXPECT_TRUE(r.hung());
    EXPECT_FALSE(r.returned());
    EXPECT_EQ(caller.abandoned(), 1);
}

TEST(GuardedCall, ACloseInTheChildSharesTheParentsTableAndReportsItsError) {
    GuardedCaller caller;
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    const CallResult closed = caller.close(5000, pipeEnds[1]);
    ASSERT_EQ(closed.status, CallResult::Status::kReturned);
    EXPECT_EQ(closed.value, 0);
    // The write end was the only one: the parent's read end now sees the end.
    char byte;
    EXPECT_EQ(::read(pipeEnds[0], &byte, 1), 0);
    // A descriptor number that is open nowhere (the freed one would be reused
    // by the call's own socket).
    const CallResult again = caller.close(5000, 1 << 20);
    ASSERT_EQ(again.status, CallResult::Status::kReturned);
    EXPECT_EQ(again.value, -1);
    EXPECT_EQ(again.error, EBADF);
    ::close(pipeEnds[0]);
}

using aovtest::openDescriptors;

// A checker makes hundreds of guarded calls: none leaves a descriptor behind,
// whether it answered, failed or handed a descriptor over.
TEST(GuardedCall, NoCallLeavesADescriptorOpenInTheParent) {
    GuardedCaller caller;
    const int before = openDescriptors();
    ASSERT_GT(before, 0);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(caller.run(5000, []() -> long { return 0; }).status,
                  CallResult::Status::kReturned);
        EXPECT_TRUE(caller.run(5000, []() -> long { return ::close(-1); }).failed());
        const CallResult opened = caller.run(
            5000, []() -> long { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }, true);
        ASSERT_GE(opened.passed_fd, 0);
        EXPECT_EQ(caller.close(5000, opened.passed_fd).value, 0);
        EXPECT_EQ(caller.close(5000, 1 << 20).error, EBADF);
    }
    EXPECT_EQ(openDescriptors(), before);
}
