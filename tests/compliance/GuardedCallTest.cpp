// The guarded call: a call that answers, one that never does, one whose
// process dies, and a descriptor handed over from the child; the report's
// plain and TAP lines.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Guarded.h"
#include "Report.h"
#include "gtest/gtest.h"

using aovcompliance::CallResult;
using aovcompliance::GuardedCaller;

TEST(GuardedCall, AnswersWithTheCallsResultAndErrno) {
    GuardedCaller caller;
    const CallResult ok = caller.run(5000, []() -> long { return 42; });
    ASSERT_EQ(ok.status, CallResult::Status::kReturned);
    EXPECT_EQ(ok.value, 42);

    const CallResult failed = caller.run(5000, []() -> long { return ::close(-1); });
    ASSERT_TRUE(failed.failed());
    EXPECT_EQ(failed.error, EBADF);
    EXPECT_EQ(aovcompliance::errnoName(failed.error), "EBADF");
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
