// aov-compliance against aov-kdev: a clean run reports every check of the
// table once and its exact totals; checks that cannot run say SKIP and the
// exit code says so; a driver that goes away ends the run with one line; a
// node that stays readable leaves the checks that depend on readiness
// skipped, not failed; a session that never started is sent no dequeue; and
// the TAP of a clean, a failing and a stopped run is read by a real TAP
// consumer (Perl's prove) without a parse error. A millisecond count that is
// not one is refused before any node is opened.

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CheckTable.h"
#include "KdevInstance.h"
#include "gtest/gtest.h"
#include "kelo_aov.h"

namespace {

using aovcompliancetest::hasLine;
using aovcompliancetest::KdevNode;
using aovcompliancetest::lastLine;

// "category: check" -> the verdict word of each check line.
std::map<std::string, std::string> verdicts(const std::string& output) {
    std::map<std::string, std::string> found;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        for (const char* word : {"OK", "FAIL", "WARN", "SKIP"}) {
            const std::string mark = std::string(": ") + word;
            const size_t at = line.find(mark);
            if (at != std::string::npos &&
                (at + mark.size() == line.size() || line[at + mark.size()] == ' ')) {
                const std::string key = line.substr(0, at);
                found[key] += found.count(key) > 0 ? std::string("+") + word : word;
                break;
            }
        }
    }
    return found;
}

std::string key(const aovcompliance::CheckEntry& check) {
    return std::string(aovcompliance::categoryName(check.category)) + ": " + check.name;
}

TEST_F(KdevNode, ACleanRunReportsEveryCheckOnceAndItsExactTotals) {
    start("");
    const ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 0) << run.output;
    const auto found = verdicts(run.output);
    EXPECT_EQ(found.size(), aovcompliance::kCheckCount) << run.output;
    for (size_t i = 0; i < aovcompliance::kCheckCount; ++i) {
        const auto it = found.find(key(aovcompliance::checkTable()[i]));
        ASSERT_NE(it, found.end()) << key(aovcompliance::checkTable()[i]) << "\n" << run.output;
        EXPECT_EQ(it->second, "OK") << it->first;
    }
    EXPECT_EQ(lastLine(run.output), "aov-compliance: 38 passed, 0 failed, 0 warnings, 0 skipped");
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: nothing pending returns promptly: OK (drained until empty: "
                        "returned EAGAIN in "))
        << run.output;
}

TEST_F(KdevNode, ChecksThatCannotRunSaySkipAndTheExitCodeIsFour) {
    // Events arrive, but none carries content: nothing tells whether the
    // driver refuses an unwritable area.
    start("", "no-content.json");
    const ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 4) << run.output;
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: pending event dequeued into the library's layout: OK (no event "
                        "carried content)"))
        << run.output;
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: writes stay inside the areas: OK (on an event without "
                        "content)"))
        << run.output;
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: faulting area refused with EFAULT: SKIP (no event carried "
                        "content)"))
        << run.output;
    EXPECT_EQ(lastLine(run.output), "aov-compliance: 37 passed, 0 failed, 0 warnings, 1 skipped")
        << run.output;
    EXPECT_EQ(verdicts(run.output).size(), aovcompliance::kCheckCount) << run.output;
}

TEST_F(KdevNode, OneCategoryCountsOnlyItsOwnChecksInTheTotalsAndTheExitCode) {
    // The skipped check is a dequeue check: the requests alone all pass.
    start("", "no-content.json");
    const ProcessResult requests = check({"--only", "requests"});
    EXPECT_EQ(requests.exit_code, 0) << requests.output;
    EXPECT_EQ(lastLine(requests.output),
              "aov-compliance: 19 passed, 0 failed, 0 warnings, 0 skipped");
    const ProcessResult dequeue = check({"--only", "dequeue"});
    EXPECT_EQ(dequeue.exit_code, 4) << dequeue.output;
    EXPECT_EQ(lastLine(dequeue.output),
              "aov-compliance: 5 passed, 0 failed, 0 warnings, 1 skipped");
}

TEST_F(KdevNode, ADriverThatGoesAwayEndsTheRunWithOneLineAndTheTotals) {
    start("");
    node_.kill();  // the node stays, its server is gone: every call gets ENOTCONN
    ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 1) << run.output;
    EXPECT_EQ(run.output,
              "aov-compliance: stopped: the driver went away: O_RDWR open got ENOTCONN; later "
              "checks not run\n"
              "aov-compliance: 0 passed, 0 failed, 0 warnings, 0 skipped\n");
}

TEST_F(KdevNode, ADriverThatDiesMidRunIsNotReportedAsFailedChecks) {
    extra_ = {"--die-at-dequeue", "2"};
    start("");
    const ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 1) << run.output;
    EXPECT_EQ(run.output.find(": FAIL"), std::string::npos) << run.output;
    const size_t stop = run.output.find("\naov-compliance: stopped: the driver went away: ");
    ASSERT_NE(stop, std::string::npos) << run.output;
    // Only the totals follow the stop line.
    const size_t totals = run.output.find('\n', stop + 1);
    ASSERT_NE(totals, std::string::npos);
    EXPECT_EQ(run.output.find('\n', totals + 1), run.output.size() - 1) << run.output;
    EXPECT_NE(lastLine(run.output).find(" passed, 0 failed, 0 warnings, 0 skipped"),
              std::string::npos)
        << run.output;
}

TEST_F(KdevNode, ANodeReadableWithNothingPendingSkipsTheChecksThatNeedReadiness) {
    start("readable-after-drain");
    const ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 1) << run.output;
    EXPECT_TRUE(hasLine(run.output,
                        "readiness: not readable once drained: FAIL (expected no readiness with "
                        "nothing to dequeue, got POLLIN while a dequeue returned EAGAIN"))
        << run.output;
    const std::string why =
        ": SKIP (readiness does not say when an event is pending (after: not readable once "
        "drained))";
    EXPECT_TRUE(hasLine(run.output, "dequeue: faulting area refused with EFAULT" + why))
        << run.output;
    EXPECT_TRUE(hasLine(run.output, "dequeue: works after a faulting area" + why)) << run.output;
    // Its epoll watch is never armed with nothing pending.
    EXPECT_TRUE(hasLine(run.output,
                        "readiness: epoll readable (empty mask, then modified): SKIP (readable "
                        "with nothing to dequeue"))
        << run.output;
    // The dequeue that found nothing was an empty dequeue: it answered at once.
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: nothing pending returns promptly: OK (drained until empty: "
                        "returned EAGAIN in "))
        << run.output;
    EXPECT_EQ(lastLine(run.output), "aov-compliance: 34 passed, 1 failed, 0 warnings, 3 skipped");
}

// The DEQUEUE_EVENTs aov-kdev's driver track recorded ("request CODE ...").
int dequeuesInTrack(const std::string& path) {
    std::ifstream track(path);
    unsigned long code = 0;
    int dequeues = 0;
    std::string line;
    while (std::getline(track, line)) {
        if (std::sscanf(line.c_str(), " request %lu", &code) == 1 &&
            code == AOV_IOC_DEQUEUE_EVENT) {
            ++dequeues;
        }
    }
    return dequeues;
}

class DequeueTrack : public KdevNode {
  protected:
    // The checker's run against aov-kdev with `fault` (none when empty): the
    // DEQUEUE_EVENTs the driver's track recorded.
    int dequeuesSentWith(const char* fault) {
        char path[] = "/tmp/aov-track.XXXXXX";
        const int fd = ::mkstemp(path);
        EXPECT_GE(fd, 0);
        if (fd < 0) {
            return -1;
        }
        ::close(fd);
        extra_ = {"--timeline", path};
        start(fault);
        int dequeues = -1;
        if (!HasFatalFailure()) {
            const ProcessResult run = check();
            node_.kill();
            EXPECT_NE(run.exit_code, -1) << run.output;
            dequeues = dequeuesInTrack(path);
        }
        ::unlink(path);
        return dequeues;
    }
};

// A session that never started gets no dequeue at all, not even the empty
// one after STOP; the clean driver's track holds the event checks' dequeues.
TEST_F(DequeueTrack, ANodeWhoseStartFailsIsSentNoDequeue) {
    EXPECT_EQ(dequeuesSentWith("refuse-full-content"), 0);
}

TEST_F(DequeueTrack, TheCleanDriversTrackHoldsTheEventChecksDequeues) {
    EXPECT_GT(dequeuesSentWith(""), 1);
}

TEST_F(KdevNode, ANodeThatNeverSignalsSkipsTheEventChecksSayingWhy) {
    start("no-readiness");
    const ProcessResult run = check({"--event-timeout-ms", "500"});
    EXPECT_EQ(run.exit_code, 1) << run.output;
    EXPECT_TRUE(hasLine(run.output,
                        "readiness: poll readable with an event pending: FAIL (expected POLLIN "
                        "within 500 ms, got 0 while a dequeue returned an event"))
        << run.output;
    const auto found = verdicts(run.output);
    for (const char* check :
         {"dequeue: pending event dequeued into the library's layout",
          "dequeue: writes stay inside the areas",
          "dequeue: record's padding and addresses untouched",
          "readiness: epoll readable (empty mask, then modified)",
          "readiness: not readable once drained", "dequeue: nothing pending returns promptly",
          "dequeue: faulting area refused with EFAULT", "dequeue: works after a faulting area"}) {
        EXPECT_TRUE(
            hasLine(run.output, std::string(check) + ": SKIP (the node does not signal readiness)"))
            << check << "\n"
            << run.output;
    }
    EXPECT_EQ(found.size(), aovcompliance::kCheckCount) << run.output;
    EXPECT_EQ(lastLine(run.output), "aov-compliance: 28 passed, 1 failed, 0 warnings, 9 skipped");
}

// With nothing more to come, a dequeue that waits for the next event runs
// into the request limit: a warning naming the limit, and the run goes on.
TEST_F(KdevNode, AnEmptyDequeueThatOutlastsTheLimitIsAWarningNamingTheLimit) {
    start("block-empty-dequeue", "three-events.json");
    const ProcessResult run = check({"--timeout-ms", "500", "--event-timeout-ms", "500"});
    EXPECT_TRUE(hasLine(run.output,
                        "dequeue: nothing pending returns promptly: WARN (expected an answer "
                        "within 500 ms, got none: the dequeue blocks with nothing pending; a "
                        "monitor that misreads readiness would stall)"))
        << run.output;
    EXPECT_EQ(verdicts(run.output).size(), aovcompliance::kCheckCount) << run.output;
}

// The TAP of one run, written to a file that prove reads through `cat`.
class ProveReadsTheTap : public KdevNode {
  protected:
    // `shown`: -v for every line, --directives for the SKIP lines only.
    ProcessResult prove(const std::string& fault, const char* scenario = nullptr,
                        const char* shown = "-v") {
        start(fault, scenario);
        const ProcessResult run = check({"--tap"});
        const std::string file = node_.dir() + ".tap";
        std::ofstream(file) << run.output;
        ProcessResult read = runProcess(AOV_PROVE_PATH, {shown, "-e", "cat", file});
        std::printf("prove:\n%s", read.output.c_str());
        ::unlink(file.c_str());
        EXPECT_EQ(read.output.find("Parse errors"), std::string::npos) << read.output;
        EXPECT_NE(read.output.find("Tests="), std::string::npos) << read.output;
        return read;
    }
};

TEST_F(ProveReadsTheTap, ACleanRunPasses) {
    const ProcessResult read = prove("");
    EXPECT_EQ(read.exit_code, 0) << read.output;
    EXPECT_NE(read.output.find("Result: PASS"), std::string::npos) << read.output;
}

TEST_F(ProveReadsTheTap, ASkippedCheckIsReadAsASkipDirective) {
    const ProcessResult read = prove("", "no-content.json", "--directives");
    EXPECT_EQ(read.exit_code, 0) << read.output;
    EXPECT_NE(read.output.find("\nok 28 - dequeue: faulting area refused with EFAULT # SKIP no "
                               "event carried content\nok\n"),
              std::string::npos)
        << read.output;
    EXPECT_NE(read.output.find("Result: PASS"), std::string::npos) << read.output;
}

TEST_F(ProveReadsTheTap, AFailingRunFailsOnTheCheckThatFailed) {
    const ProcessResult read = prove("overrun-area");
    EXPECT_NE(read.exit_code, 0) << read.output;
    const std::string check = " - dequeue: writes stay inside the areas";
    const size_t at = read.output.find(check);
    ASSERT_NE(at, std::string::npos) << read.output;
    const size_t begin = read.output.rfind('\n', at) + 1;
    const std::string failed = read.output.substr(begin, at - begin);
    ASSERT_EQ(failed.rfind("not ok ", 0), 0u) << read.output;
    EXPECT_NE(read.output.find("Failed test:  " + failed.substr(7) + "\n"), std::string::npos)
        << read.output;
}

TEST_F(ProveReadsTheTap, AStoppedRunBailsOut) {
    const ProcessResult read = prove("hang-sensor-off");
    EXPECT_NE(read.exit_code, 0) << read.output;
    EXPECT_NE(read.output.find("Further testing stopped: SENSOR_OFF with 64 ids never returned"),
              std::string::npos)
        << read.output;
}

// The timeouts are read as every tool reads a whole number: an optional sign,
// digits, within the range; anything else is one line and exit 2.
TEST(ComplianceOptions, AMillisecondCountThatIsNotOneInRangeIsRefusedWithOneLine) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"-5", "\"-5\" is out of range 1..600000"},
        {"", "expected a whole number, got \"\""},
        {"2s", "expected a whole number, got \"2s\""},
        {"99999999999999999999", "\"99999999999999999999\" is out of range 1..600000"},
    };
    for (const auto& [value, problem] : refused) {
        const ProcessResult run =
            runProcess(AOV_COMPLIANCE_PATH, {"-d", "/nonexistent", "--timeout-ms", value});
        EXPECT_EQ(run.exit_code, 2) << value;
        EXPECT_EQ(run.output, "aov-compliance: error: --timeout-ms: " + problem + "\n") << value;
    }
    // "+5" is 5: the run gets past it to the next option's problem.
    const ProcessResult plus =
        runProcess(AOV_COMPLIANCE_PATH, {"--event-timeout-ms", "+5", "--only", "none"});
    EXPECT_EQ(plus.exit_code, 2);
    EXPECT_EQ(plus.output.rfind("aov-compliance: error: --only: ", 0), 0u) << plus.output;
}

// Every other option is checked before anything runs: each case ends in one
// line and exit 2, or in the help and exit 0. "--only none" stands for a
// problem found after the option before it was taken.
TEST(ComplianceOptions, EachOptionIsTakenOrRefusedBeforeAnyCheckRuns) {
    const std::string unknown = "\" (open, requests, dequeue, readiness, lifecycle)\n";
    const struct {
        std::vector<std::string> args;
        int exit_code;
        std::string output;
    } cases[] = {
        {{"--event-timeout-ms", "0"},
         2,
         "aov-compliance: error: --event-timeout-ms: \"0\" is out of range 1..600000\n"},
        {{"--timeout-ms", "600000", "--event-timeout-ms", "1", "--only", "none"},
         2,
         "aov-compliance: error: --only: unknown category \"none" + unknown},
        {{"-v", "--tap", "--only", std::string(50, 'c')},
         2,
         "aov-compliance: error: --only: unknown category \"" + std::string(40, 'c') + unknown},
        {{"-d", ""}, 2, "aov-compliance: error: -d: the node path is empty\n"},
    };
    for (const auto& c : cases) {
        const ProcessResult run = runProcess(AOV_COMPLIANCE_PATH, c.args);
        EXPECT_EQ(run.exit_code, c.exit_code) << c.args[0];
        EXPECT_EQ(run.output, c.output) << c.args[0];
    }
    const ProcessResult help = runProcess(AOV_COMPLIANCE_PATH, {"--help", "--only", "none"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_EQ(help.output.rfind("Checks an AOV driver node", 0), 0u) << help.output;
    EXPECT_NE(help.output.find("--event-timeout-ms"), std::string::npos) << help.output;
}

}  // namespace
