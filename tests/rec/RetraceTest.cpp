// aov-rec retrace against aov-kdev on a real FUSE node: every driver fault
// aov-kdev can make shows as a difference (or is listed as one a recorded
// session cannot show, with the reason); a request that never returns, a
// node that is missing or goes away, and a damaged file each end the run
// with one line and a clear exit, sending nothing the file did not allow.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ProcessRun.h"
#include "SessionFiles.h"
#include "aovsession/SessionBuilder.h"
#include "aovsim/DriverBugs.h"
#include "kelo_aov.h"

namespace {

using aovrectest::LoadedSession;
using aovrectest::loadSession;
using aovrectest::readText;
using aovrectest::rec;
using aovrectest::recordsIn;
using aovrectest::recordsThroughDequeue;
using aovrectest::sentCalls;
using aovrectest::SessionEdits;
using aovrectest::tempPath;
using aovrectest::writeSession;

// What retrace must print against a driver with one fault.
struct FaultCase {
    const char* fault;
    const char* shows;      // part of the line that reports it
    const char* also = "";  // more of the output, where the fault decides it
};

void PrintTo(const FaultCase& c, std::ostream* out) {
    *out << c.fault;
}

constexpr const char* kScript = AOV_REC_TEST_DATA "/three-full-events.json";
constexpr int kRequestLimitMs = 3000;
constexpr int kReadyLimitMs = 3000;

// One row a fault. A new fault of aov-kdev gets a row here, or one in
// kUnchangedBySession below.
const FaultCase kFaults[] = {
    {"overrun-area", "(outside the areas): DEQUEUE_EVENT: the driver wrote outside the data areas"},
    {"accept-unknown-code",
     "after the session (unknown request): ioctl 0x00004805: result 0: a driver refuses"},
    {"accept-wrong-size",
     "after the session (wrong size): ioctl 0x00084804: result 0: a driver refuses"},
    // No dequeue is sent to a node that never turns ready, and none is counted.
    {"no-readiness", "(readiness): DEQUEUE_EVENT: the node was not ready within 3000 ms",
     " requests, 0 dequeues), "},
    {"readable-after-drain",
     "after the session (empty queue): poll: the node is ready with no event pending"},
    {"events-after-stop", "(after STOP): STOP: the node is ready after STOP returned"},
    {"ignore-area-fault",
     "after the session (faulting area): DEQUEUE_EVENT: result 0 with every data area unwritable"},
    {"hang-sensor-off", "(result): SENSOR_OFF: did not return within 3000 ms",
     "aov-rec: SENSOR_OFF never returned; "},
    // A dequeue that waits for the next frame never finds the queue empty, or
    // times out when no frame comes: either way the empty-queue check shows it.
    {"block-empty-dequeue", "after the session (empty queue): DEQUEUE_EVENT: "},
    {"keep-session-on-close",
     "after the session (session after close): START: result -1 (Device or resource busy), "
     "recorded 0"},
    {"overrun-buffer",
     "(outside the areas): DEQUEUE_EVENT: the driver wrote past the end of the "
     "event buffer (64 of the"},
    {"hang-release", "(open): open: result -1 (Device or resource busy), recorded "},
    {"flush-busy",
     "after the session (faulting area): close: result -1 (Device or resource busy), expected 0"},
    {"wrong-errno",
     "after the session (unknown request): ioctl 0x00004805: result -1 (Invalid argument)"},
    {"positive-success", "(result): START: result 1, recorded 0"},
    {"refuse-full-content", "(result): START: result -1 (Invalid argument), recorded 0"},
    {"missing-ulposc3",
     "(result): ULPOSC3_ON: result -1 (Inappropriate ioctl for device), recorded 0"},
    {"refuse-sensor-id-0", "(result): SENSOR_ON: result -1 (Invalid argument), recorded 0"},
    {"stop-needs-ulposc3", "(result): STOP: result -1 (Input/output error), recorded 0"},
    {"busy-after-started-close",
     "after the session (session after close): open: result -1 (Device or resource busy)"},
    {"basic-sections-only", "(result): DEQUEUE_EVENT: result -1 (Invalid argument), recorded 0"},
    {"area-fault-eio",
     "after the session (faulting area): DEQUEUE_EVENT: result -1 (Input/output error) with "
     "every data area unwritable"},
    {"stuck-after-area-fault",
     "after the session (empty queue): DEQUEUE_EVENT: the queue was not empty after 64 "
     "dequeues"},
    {"readable-when-stopped", "(after STOP): STOP: the node is ready after STOP returned"},
    // The first call's process cannot close its copy of the node; the run
    // still ends by itself, with no copy left to close at its exit.
    {"hang-flush", "did not finish within 3000 ms: a FLUSH that never returns",
     "aov-rec: a FLUSH after "},
    // Refused by the driver, not missing: the session's first call differs.
    {"refuse-rdwr", "(open): open: result -1 (Permission denied), recorded "},
    {"leak-padding", "(words): DEQUEUE_EVENT: padding at 0x1c "},
    {"pollerr-after-error",
     "after the session (after a refused dequeue): poll: the node signals POLLERR after the "
     "faulting-area dequeue was refused"},
    // Shown by the monitor armed before the START of the driver checks,
    // whatever the session's own waits found already pending.
    {"wake-pollin-waiters-only",
     "after the session (monitor): epoll_wait: not woken within 3000 ms of START"},
    // The second dequeue hands out the first event again.
    {"dequeue-keeps-event", "(words): DEQUEUE_EVENT: header[0] 1, recorded 2",
     "difference after the session (empty queue): DEQUEUE_EVENT: the queue was not empty after "
     "64 dequeues"},
};

// Faults no retrace can show, each with the reason.
struct UnchangedFault {
    const char* fault;
    const char* reason;
};
const std::vector<UnchangedFault> kUnchangedBySession = {
    {"sensor-count-off-by-one",
     "the library's sessions send one sensor id a list; a list of 64 is never recorded"},
    {"lenient-sensor-count", "the library never sends a sensor list of count 0 or above 64"},
    {"refuse-idle-stop", "a recorded session sends STOP only after its START"},
    {"start-once-per-open", "a recorded session starts once on each open of the node"},
    {"accept-null-sensor-list",
     "through FUSE the kernel refuses a null sensor list before the driver sees it"},
};

std::vector<std::string> split(const std::string& text, const std::string& by) {
    std::vector<std::string> parts;
    size_t at = 0;
    for (size_t next; (next = text.find(by, at)) != std::string::npos; at = next + by.size()) {
        parts.push_back(text.substr(at, next - at));
    }
    parts.push_back(text.substr(at));
    return parts;
}

class RetraceAgainstKdev : public ::testing::Test {
  protected:
    // Each suite of the binary records again: the files go with the suite.
    static void TearDownTestSuite() {
        for (std::string* path : {&recording_, &streamed_}) {
            if (!path->empty()) {
                ::unlink(path->c_str());
            }
            path->clear();
        }
    }
    void SetUp() override {
        kdev_.enterOrSkip("aov-retrace");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = kdev_.dir();
        node_ = kdev_.node();
        if (recording_.empty() || streamed_.empty()) {
            record();
        }
    }
    void TearDown() override { kdev_.stop(); }

    // Two sessions of three events with all ten areas, recorded once for the
    // suite through aov-sim's own FUSE node. `recording_` holds the three
    // scripted events of kScript: a driver serving that script queues exactly
    // those, so nothing is overwritten however slowly a retrace runs, and
    // its differences are exact. `streamed_` holds the default driver's
    // events, made every frame: the faults that act on a stream of events
    // show only there, and a retrace that falls behind it sees overwritten
    // events as differences too.
    static void record() {
        for (const bool scripted : {true, false}) {
            const std::string path = tempPath(scripted ? "scripted.rec" : "streamed.rec");
            std::vector<std::string> args = {"record",  "-o",         path,         "--content",
                                             "written", "--",         AOV_SIM_PATH, "--kernel",
                                             "fuse",    "--events",   "3",          "--timeout",
                                             "10",      "--aov-mode", "2"};
            if (scripted) {
                args.insert(args.end(), {"--scenario", kScript});
            }
            const ProcessResult recorded = rec(args);
            ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
            (scripted ? recording_ : streamed_) = path;
        }
    }

    // aov-kdev serving the script the recording was made with.
    void startKdev() { kdev_.start({"--scenario", kScript}); }
    ProcessResult retrace(const std::string& file, const std::string& node) {
        return rec({"retrace", file, "-d", node, "--ready-timeout", std::to_string(kReadyLimitMs),
                    "--request-timeout", std::to_string(kRequestLimitMs)});
    }

    static std::string recording_, streamed_;
    aovrectest::ServedKdev kdev_;
    std::string dir_, node_;
};

std::string RetraceAgainstKdev::recording_;
std::string RetraceAgainstKdev::streamed_;

TEST_F(RetraceAgainstKdev, AGoodDriverShowsNoDifferenceAndPassesEveryDriverCheck) {
    startKdev();
    const ProcessResult same = retrace(recording_, node_);
    EXPECT_EQ(same.exit_code, 0) << same.output;
    // One line, every recorded call sent. Twelve checks: the state after
    // STOP, two refused codes, the faulting area and what it signals, two
    // opens, two STARTs, the monitor's arming and wake-up, the empty queue;
    // the empty queue is checked again for each event that came during the
    // drain, two at most of the script's three.
    const std::string head = "retrace: " + recording_ + " against " + node_ +
                             sentCalls(recording_, recordsIn(recording_));
    ASSERT_EQ(same.output.rfind(head, 0), 0u) << head << "\n" << same.output;
    const std::string rest = same.output.substr(head.size());
    const size_t checks = rest.find(" driver checks, 0 differences\n");
    ASSERT_NE(checks, std::string::npos) << same.output;
    EXPECT_EQ(checks + std::strlen(" driver checks, 0 differences\n"), rest.size()) << same.output;
    const int made = std::atoi(rest.substr(0, checks).c_str());
    EXPECT_GE(made, 12) << same.output;
    EXPECT_LE(made, 14) << same.output;
}

TEST_F(RetraceAgainstKdev, EveryFaultOfTheDriverIsInTheTableOrMarkedUnchangedWithAReason) {
    std::set<std::string> known;
    for (const FaultCase& c : kFaults) {
        EXPECT_TRUE(known.insert(c.fault).second) << c.fault << " has two rows";
    }
    for (const UnchangedFault& u : kUnchangedBySession) {
        EXPECT_TRUE(known.insert(u.fault).second)
            << u.fault << " has a row and is marked unchanged";
        EXPECT_GT(std::string(u.reason).size(), 20u) << u.fault << ": say why";
    }
    const std::vector<std::string> faults = split(aovsim::driverBugNames(), ", ");
    for (const std::string& fault : faults) {
        EXPECT_EQ(known.count(fault), 1u)
            << fault << " is a fault of aov-kdev that retrace is not tested against";
    }
    EXPECT_EQ(known.size(), faults.size()) << "a row names a fault aov-kdev does not have";
}

class RetraceFault : public RetraceAgainstKdev, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(RetraceFault, ShowsAsADifferenceAndTheRunEnds) {
    const FaultCase& c = GetParam();
    kdev_.start({"--fault", c.fault});
    // Against a request that never returns too, retrace ends by itself: only
    // its abandoned child stays in the driver until the server is stopped.
    const ProcessResult faulty = retrace(streamed_, node_);
    kdev_.stop();
    EXPECT_EQ(faulty.exit_code, 1) << faulty.output;
    EXPECT_NE(faulty.output.find(c.shows), std::string::npos) << faulty.output;
    EXPECT_NE(faulty.output.find(c.also), std::string::npos) << faulty.output;
    EXPECT_NE(faulty.output.find("retrace: " + streamed_ + " against " + node_), std::string::npos)
        << faulty.output;
    EXPECT_EQ(faulty.output.find(", 0 differences"), std::string::npos) << faulty.output;
}

INSTANTIATE_TEST_SUITE_P(AovRec, RetraceFault, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<FaultCase>& info) {
                             std::string name;
                             for (const char ch : std::string(info.param.fault)) {
                                 name += ch == '-' ? '_' : ch;
                             }
                             return name;
                         });

TEST_F(RetraceAgainstKdev, ANodeThatCannotBeOpenedOrGoesAwayIsSaidOnceWithExitThree) {
    const ProcessResult missing = retrace(recording_, dir_ + "/missing");
    EXPECT_EQ(missing.exit_code, 3) << missing.output;
    EXPECT_EQ(missing.output,
              "aov-rec: cannot open " + dir_ + "/missing: No such file or directory\n");
    // A directory is no node either; a node that refuses the open is a
    // difference, not this (refuse-rdwr among the faults).
    const ProcessResult directory = retrace(recording_, dir_);
    EXPECT_EQ(directory.exit_code, 3) << directory.output;
    EXPECT_EQ(directory.output, "aov-rec: cannot open " + dir_ + ": Is a directory\n");
    // A session whose process had the node as descriptor 0 is no different.
    const std::string atZero = tempPath("at-zero.rec");
    {
        const int fd = ::open(atZero.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
        b.open(AOV_DEVICE_NODE, O_RDWR, 0);
        b.ioctl(0, AOV_IOC_STOP, nullptr, 0, 0);
        b.close(0, 0);
        EXPECT_TRUE(b.ok());
        ::close(fd);
    }
    const ProcessResult zero = retrace(atZero, dir_ + "/missing");
    EXPECT_EQ(zero.exit_code, 3) << zero.output;
    EXPECT_EQ(zero.output,
              "aov-rec: cannot open " + dir_ + "/missing: No such file or directory\n");
    // A dequeue that failed, with no readiness seen before it, is sent at
    // once: the recorded session did not wait either (refused before START).
    // A wait that saw the node not ready is no readiness; after one that saw
    // it ready the node must be ready again, and here it is not.
    const std::string unwaited = tempPath("unwaited.rec");
    for (const uint32_t seen : {0u, static_cast<uint32_t>(POLLIN)}) {
        {
            const int fd = ::open(unwaited.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ASSERT_GE(fd, 0) << std::strerror(errno);
            aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
            const aov_event_query query{};
            b.open(AOV_DEVICE_NODE, O_RDWR, 3);
            b.poll(3, seen, seen != 0 ? 1 : 0);
            b.ioctl(3, AOV_IOC_DEQUEUE_EVENT, &query, sizeof(query), -EINVAL);
            b.close(3, 0);
            EXPECT_TRUE(b.ok());
            ::close(fd);
        }
        startKdev();
        const ProcessResult unwaitedSent = retrace(unwaited, node_);
        kdev_.stop();
        const std::string totals = "retrace: " + unwaited + " against " + node_;
        if (seen == 0) {
            EXPECT_EQ(unwaitedSent.exit_code, 0) << unwaitedSent.output;
            EXPECT_EQ(unwaitedSent.output,
                      totals +
                          ": 3 calls sent (1 requests, 1 dequeues), 3 driver checks, "
                          "0 differences\n");
        } else {
            EXPECT_EQ(unwaitedSent.exit_code, 1) << unwaitedSent.output;
            EXPECT_EQ(unwaitedSent.output,
                      "difference at record 2 (readiness): DEQUEUE_EVENT: the node was not ready "
                      "within 3000 ms (the recorded session saw it ready); dequeue not sent\n" +
                          totals +
                          ": 2 calls sent (0 requests, 0 dequeues), 3 driver checks, "
                          "1 differences\n");
        }
    }
    ::unlink(unwaited.c_str());
    // Against a node it is sent whole: the check after STOP, then the open and
    // the two refused requests of the checks (no START to repeat).
    startKdev();
    const ProcessResult zeroSent = retrace(atZero, node_);
    kdev_.stop();
    ::unlink(atZero.c_str());
    EXPECT_EQ(zeroSent.exit_code, 0) << zeroSent.output;
    EXPECT_EQ(zeroSent.output, "retrace: " + atZero + " against " + node_ +
                                   ": 3 calls sent (1 requests, 0 dequeues), 4 driver checks, 0 "
                                   "differences\n");

    // The server dies at the second dequeue: that dequeue was sent, nothing after it.
    kdev_.start({"--scenario", kScript, "--die-at-dequeue", "2"});
    const ProcessResult gone = retrace(recording_, node_);
    kdev_.stop();
    EXPECT_EQ(gone.exit_code, 3) << gone.output;
    EXPECT_NE(gone.output.find("aov-rec: " + node_ + " went away: DEQUEUE_EVENT got E"),
              std::string::npos)
        << gone.output;
    EXPECT_EQ(gone.output.find("not ready within"), std::string::npos) << gone.output;
    // The node going away is said once, not also as a difference.
    EXPECT_EQ(gone.output.find("difference at"), std::string::npos) << gone.output;
    EXPECT_NE(gone.output.find(" driver checks, 0 differences\n"), std::string::npos)
        << gone.output;
    EXPECT_EQ(gone.output.find("driver checks stop"), std::string::npos) << gone.output;
    const uint64_t through = recordsThroughDequeue(recording_, 2);
    ASSERT_GT(through, 0u);
    EXPECT_NE(gone.output.find("; " + std::to_string(recordsIn(recording_) - through) +
                               " records not sent\n"),
              std::string::npos)
        << gone.output;
    EXPECT_NE(gone.output.find(sentCalls(recording_, through) + "0 driver checks"),
              std::string::npos)
        << sentCalls(recording_, through) << "\n"
        << gone.output;
}

// An open the recorded session saw refused but the node grants is one
// difference; its descriptor is closed at once, so that the session's next
// open of the exclusive node is granted as recorded.
TEST_F(RetraceAgainstKdev, AnOpenRecordedAsRefusedButGrantedIsOneDifferenceAndIsClosedAtOnce) {
    const std::string refused = tempPath("refused-open.rec");
    {
        const int fd = ::open(refused.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
        b.open(AOV_DEVICE_NODE, O_RDWR, -EBUSY);
        b.open(AOV_DEVICE_NODE, O_RDWR, 3);
        b.ioctl(3, AOV_IOC_STOP, nullptr, 0, 0);
        b.close(3, 0);
        EXPECT_TRUE(b.ok());
        ::close(fd);
    }
    startKdev();
    const ProcessResult r = retrace(refused, node_);
    kdev_.stop();
    ::unlink(refused.c_str());
    EXPECT_EQ(r.exit_code, 1) << r.output;
    const std::string first = "difference at record 0 (open): open: result ";
    ASSERT_EQ(r.output.rfind(first, 0), 0u) << r.output;
    const size_t end = r.output.find('\n');
    const std::string recorded = ", recorded -1 (Device or resource busy)\n";
    ASSERT_GT(end, recorded.size()) << r.output;
    EXPECT_EQ(r.output.substr(end + 1 - recorded.size(), recorded.size()), recorded) << r.output;
    EXPECT_EQ(r.output.substr(end + 1), "retrace: " + refused + " against " + node_ +
                                            ": 4 calls sent (1 requests, 0 dequeues), 4 driver "
                                            "checks, 1 differences\n");
}

// The server dies at the first dequeue after the session's, the faulting-area
// check's: the run stops there and its totals count the checks made before it.
TEST_F(RetraceAgainstKdev, ANodeThatGoesAwayDuringTheDriverChecksStopsThemWithExitThree) {
    LoadedSession session;
    ASSERT_EQ(loadSession(recording_, &session), "");
    int dequeues = 0, stops = 0;
    for (const aovrec::Record& r : session.records) {
        if (r.type == aovrec::RecordType::kIoctl) {
            dequeues += r.request == AOV_IOC_DEQUEUE_EVENT ? 1 : 0;
            stops += r.request == AOV_IOC_STOP && r.call.result >= 0 ? 1 : 0;
        }
    }
    ASSERT_GT(dequeues, 0);
    ASSERT_GT(stops, 0);
    kdev_.start({"--scenario", kScript, "--die-at-dequeue", std::to_string(dequeues + 1)});
    const ProcessResult gone = retrace(recording_, node_);
    kdev_.stop();
    EXPECT_EQ(gone.exit_code, 3) << gone.output;
    EXPECT_NE(gone.output.find("aov-rec: " + node_ + " went away: DEQUEUE_EVENT got E"),
              std::string::npos)
        << gone.output;
    EXPECT_NE(gone.output.find("; the driver checks stop there\n"), std::string::npos)
        << gone.output;
    EXPECT_EQ(gone.output.find("records not sent"), std::string::npos) << gone.output;
    // Before it: a check after each STOP of the session, the open of the
    // checks, the two requests it must refuse and the session's START again.
    EXPECT_NE(gone.output.find("retrace: " + recording_ + " against " + node_ +
                               sentCalls(recording_, recordsIn(recording_)) +
                               std::to_string(stops + 4) + " driver checks, 0 differences\n"),
              std::string::npos)
        << gone.output;
}

// Against the recording's own script a fault's differences are exact: each
// is reported once and the run goes no further than it allows, and the
// totals count exactly the calls it sent. The driver checks are counted where
// the run ends before the queue is emptied (how many dequeues that takes
// depends on when the events come). A run that stops at a call counts the
// calls up to it and says how many records it did not send.
TEST_F(RetraceAgainstKdev, AgainstTheScriptEachFaultMakesExactlyItsDifferences) {
    struct Exact {
        const char* fault;
        int differences;
        int checks;          // -1: not pinned
        bool stops = false;  // the run ends at its difference
        // The totals' calls when the run sends fewer than its records hold.
        const char* sent = nullptr;
    };
    const Exact cases[] = {
        {"accept-unknown-code", 2, -1},
        {"wrong-errno", 2, -1},
        // START refused on the second open: nothing is waited for after it.
        {"keep-session-on-close", 1, 10},
        // The second open refused: no check needs it.
        {"busy-after-started-close", 1, 8},
        {"flush-busy", 1, -1},
        {"area-fault-eio", 1, -1},
        {"pollerr-after-error", 1, -1},
        {"readable-when-stopped", 1, -1},
        // Nine requests differ; START never matched, so no check needs it.
        {"positive-success", 9, 3},
        {"refuse-rdwr", 1, 0, true},
        {"refuse-sensor-id-0", 2, -1},
        {"stop-needs-ulposc3", 1, -1},
        // Two dequeues differ in their words and their first area each.
        {"dequeue-keeps-event", 5, -1},
        {"hang-sensor-off", 1, 0, true},
        {"hang-flush", 1, 0, true},
        // The release is answered after close returns: the next open is refused.
        {"hang-release", 1, 0, true},
        // The first dequeue is not sent; the node's readiness after the
        // session's is never seen, so no check needs it.
        {"wake-pollin-waiters-only", 7, 9, false, ": 12 calls sent (8 requests, 2 dequeues), "},
    };
    const uint64_t records = recordsIn(recording_);
    ASSERT_GT(records, 0u);
    for (const Exact& c : cases) {
        kdev_.start({"--scenario", kScript, "--fault", c.fault});
        const ProcessResult r = retrace(recording_, node_);
        kdev_.stop();
        EXPECT_EQ(r.exit_code, 1) << c.fault << "\n" << r.output;
        uint64_t through = records;
        if (c.stops) {
            const size_t at = r.output.find("difference at record ");
            ASSERT_NE(at, std::string::npos) << c.fault << "\n" << r.output;
            through = std::stoull(r.output.substr(at + 21)) + 1;
            EXPECT_NE(
                r.output.find("; " + std::to_string(records - through) + " records not sent\n"),
                std::string::npos)
                << c.fault << "\n"
                << r.output;
        } else {
            EXPECT_EQ(r.output.find(" records not sent"), std::string::npos) << c.fault << "\n"
                                                                             << r.output;
        }
        const std::string tail =
            (c.sent != nullptr ? std::string(c.sent) : sentCalls(recording_, through)) +
            (c.checks >= 0 ? std::to_string(c.checks) + " " : std::string()) + "driver checks, " +
            std::to_string(c.differences) + " differences\n";
        const size_t totals = r.output.find("retrace: " + recording_ + " against " + node_);
        ASSERT_NE(totals, std::string::npos) << c.fault << "\n" << r.output;
        const std::string line = r.output.substr(totals, r.output.find('\n', totals) + 1 - totals);
        if (c.checks >= 0) {
            EXPECT_NE(line.find(tail), std::string::npos) << c.fault << "\n" << r.output;
        } else {
            const std::string head = tail.substr(0, tail.find("driver checks"));
            EXPECT_NE(line.find(head), std::string::npos) << c.fault << "\n" << r.output;
            EXPECT_NE(line.find(tail.substr(head.size())), std::string::npos) << c.fault << "\n"
                                                                              << r.output;
        }
        size_t lines = 0;
        for (size_t at = r.output.find("difference "); at != std::string::npos;
             at = r.output.find("difference ", at + 1)) {
            ++lines;
        }
        EXPECT_EQ(lines, static_cast<size_t>(c.differences)) << c.fault << "\n" << r.output;
    }
}

// A plain file given as the node opens, then refuses every request and
// cannot be waited on: each is a difference, no dequeue is sent, and past
// ten differences the rest are only counted.
TEST_F(RetraceAgainstKdev, APlainFileForTheNodeDiffersAtEachCallAndPastTenTheRestAreCounted) {
    const std::string plain = tempPath("plain");
    std::ofstream(plain) << "not a node";
    // Three requests, a wait for each event and three more requests differ:
    // ten with four events, all shown; eleven with five, one only counted.
    for (const int events : {4, 5}) {
        const std::string recording = tempPath("plain-events.rec");
        const ProcessResult recorded =
            rec({"record", "-o", recording, "--content", "none", "--", AOV_SIM_PATH, "--kernel",
                 "fuse", "--events", std::to_string(events), "--timeout", "10", "--aov-mode", "2"});
        ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
        const ProcessResult r = retrace(recording, plain);
        ::unlink(recording.c_str());
        EXPECT_EQ(r.exit_code, 1) << r.output;
        size_t shown = 0;
        for (size_t at = r.output.find("difference at record "); at != std::string::npos;
             at = r.output.find("difference at record ", at + 1)) {
            ++shown;
        }
        EXPECT_EQ(shown, 10u) << r.output;
        EXPECT_NE(r.output.find("(result): START: result -1 (Inappropriate ioctl for device), "
                                "recorded 0\n"),
                  std::string::npos)
            << r.output;
        EXPECT_NE(r.output.find("(readiness): poll: failed: -1 (Operation not permitted)\n"),
                  std::string::npos)
            << r.output;
        if (events == 4) {
            EXPECT_EQ(r.output.find("more differences"), std::string::npos) << r.output;
        } else {
            EXPECT_NE(r.output.find("\n... and 1 more differences\n"), std::string::npos)
                << r.output;
        }
        // The checks after the session: the open and the two refused requests.
        EXPECT_NE(r.output.find(" requests, 0 dequeues), 3 driver checks, " +
                                std::to_string(6 + events) + " differences\n"),
                  std::string::npos)
            << r.output;
    }
    ::unlink(plain.c_str());
}

TEST_F(RetraceAgainstKdev, ADamagedOrUnreadableFileIsRefusedBeforeAnythingIsSent) {
    // The last record damaged: the old way sent every earlier one first.
    std::string bytes = readText(recording_);
    ASSERT_GT(bytes.size(), 64u);
    bytes[bytes.size() - 3] = static_cast<char>(bytes[bytes.size() - 3] ^ 0x5a);
    const std::string damaged = tempPath("damaged.rec");
    std::ofstream(damaged, std::ios::binary) << bytes;
    startKdev();
    const ProcessResult refused = retrace(damaged, node_);
    const std::string status = readText(dir_ + "/status");
    kdev_.stop();
    ::unlink(damaged.c_str());
    EXPECT_EQ(refused.exit_code, 2) << refused.output;
    EXPECT_NE(refused.output.find("aov-rec: " + damaged + ": record "), std::string::npos)
        << refused.output;
    EXPECT_NE(refused.output.find("; nothing sent\n"), std::string::npos) << refused.output;
    EXPECT_EQ(refused.output.find("retrace: "), std::string::npos) << refused.output;
    EXPECT_NE(status.find("\nrequests 0\n"), std::string::npos) << status;

    const ProcessResult missing = retrace(tempPath("missing.rec"), node_);
    EXPECT_EQ(missing.exit_code, 2) << missing.output;
    EXPECT_EQ(missing.output,
              "aov-rec: " + tempPath("missing.rec") + ": No such file or directory\n");

    // Files that are no session, or only the start of one, send nothing either.
    const std::string text = tempPath("text.rec");
    const std::string empty = tempPath("empty.rec");
    std::ofstream(text) << std::string(64, 'x');
    std::ofstream(empty).close();
    for (const auto& [file, why] :
         {std::pair<std::string, std::string>{text, "not a session file (no AOVREC header)"},
          {empty, "cut off in the header (0 of 32 bytes)"}}) {
        const ProcessResult r = retrace(file, node_);
        ::unlink(file.c_str());
        EXPECT_EQ(r.exit_code, 2) << r.output;
        EXPECT_EQ(r.output, "aov-rec: " + file + ": " + why + "\n");
    }

    // A file that cannot be read twice is not read once either.
    const ProcessResult device = retrace("/dev/zero", node_);
    EXPECT_EQ(device.exit_code, 2) << device.output;
    EXPECT_EQ(device.output,
              "aov-rec: /dev/zero: not a regular file (retrace reads the session twice: whole "
              "before sending anything)\n");
}

// Copies `from` to `to` through the session builder (its readiness records
// left out), each request record's areas and answer passed to `edit` first;
// false when the copy failed.
bool copyEdited(const std::string& from, const std::string& to,
                const std::function<void(const aovrec::Record&, std::vector<std::vector<uint8_t>>*,
                                         std::vector<uint8_t>*)>& edit) {
    LoadedSession session;
    if (!loadSession(from, &session).empty()) {
        return false;
    }
    SessionEdits edits;
    edits.request = [&](size_t, const aovrec::Record& x, std::vector<uint8_t>* back,
                        std::vector<std::vector<uint8_t>>* areas) { edit(x, areas, back); };
    return writeSession(session, to, edits).empty();
}

// The first byte of the areas `areas` (bits by index) of the first dequeue
// that kept areas flipped; the section of the first area changed, or 0 when
// that dequeue has no such area.
int withAreasChanged(const std::string& from, const std::string& to, uint32_t areas) {
    int section = 0;
    bool changed = false;
    const bool copied =
        copyEdited(from, to, [&](const aovrec::Record& x, auto* data, std::vector<uint8_t>*) {
            for (uint8_t a = 0; !changed && a < x.area_count; ++a) {
                if ((areas & (1u << a)) != 0 && !(*data)[a].empty()) {
                    (*data)[a][0] ^= 0x01;
                    section = section == 0 ? x.areas[a].section : section;
                }
            }
            changed = changed || x.area_count > 0;
        });
    return copied ? section : 0;
}

// The 32-bit word at `offset` of the first dequeue's answer, one added.
bool withWordChanged(const std::string& from, const std::string& to, size_t offset) {
    bool changed = false;
    const bool copied =
        copyEdited(from, to, [&](const aovrec::Record& x, auto*, std::vector<uint8_t>* back) {
            if (changed || x.request != AOV_IOC_DEQUEUE_EVENT || x.call.result < 0 ||
                back->size() < sizeof(aov_event_query)) {
                return;
            }
            uint32_t word;
            std::memcpy(&word, back->data() + offset, sizeof(word));
            ++word;
            std::memcpy(back->data() + offset, &word, sizeof(word));
            changed = true;
        });
    return copied && changed;
}

TEST_F(RetraceAgainstKdev, EveryWordOfADequeueAnswerButTheAddressesIsComparedWithTheRecordedOne) {
    struct WordCase {
        size_t offset;
        const char* shows;  // empty: no difference
    };
    const WordCase cases[] = {
        {0x00, "(words): DEQUEUE_EVENT: header[0] "},
        {0x04, "(words): DEQUEUE_EVENT: header[1] "},
        {0x14, "(words): DEQUEUE_EVENT: header[5] "},
        {0x18, "(words): DEQUEUE_EVENT: s1_info[0] "},
        {0x1c, "(words): DEQUEUE_EVENT: padding at 0x1c 0, recorded 1\n"},
        {0x54, "(words): DEQUEUE_EVENT: s4_info[3] "},
        {0x88, "(words): DEQUEUE_EVENT: s6_info[4] "},
        {0xc8, "(words): DEQUEUE_EVENT: s10_info[0] "},
        {0xcc, "(words): DEQUEUE_EVENT: padding at 0xcc 0, recorded 1\n"},
        // The recorded program's own pointer into its buffer.
        {0x20, ""},
        {0xd4, ""},
    };
    const std::string edited = tempPath("words.rec");
    startKdev();
    for (const WordCase& c : cases) {
        ASSERT_TRUE(withWordChanged(recording_, edited, c.offset)) << c.offset;
        const ProcessResult r = retrace(edited, node_);
        if (*c.shows == '\0') {
            EXPECT_EQ(r.exit_code, 0) << "offset " << c.offset << "\n" << r.output;
            continue;
        }
        EXPECT_EQ(r.exit_code, 1) << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << "offset " << c.offset << "\n"
                                                             << r.output;
        EXPECT_NE(r.output.find(", 1 differences\n"), std::string::npos) << r.output;
    }
    ::unlink(edited.c_str());
}

TEST_F(RetraceAgainstKdev, EachAreaOfADequeueIsComparedWithTheRecordedOneAndADequeueDiffersOnce) {
    const std::string edited = tempPath("edited.rec");
    startKdev();
    int sections = 0;
    for (uint32_t area = 0; area < 10; ++area) {
        const int section = withAreasChanged(recording_, edited, 1u << area);
        if (section == 0) {
            break;
        }
        ++sections;
        const ProcessResult changed = retrace(edited, node_);
        EXPECT_EQ(changed.exit_code, 1) << changed.output;
        EXPECT_NE(changed.output.find("(area): DEQUEUE_EVENT: section " + std::to_string(section) +
                                      ", first "),
                  std::string::npos)
            << "area " << area << ":\n"
            << changed.output;
        EXPECT_NE(changed.output.find(", 1 differences\n"), std::string::npos) << changed.output;
    }
    // Recorded with all ten sections written.
    EXPECT_EQ(sections, 10);

    // Two areas of one dequeue changed: one difference, at the first.
    const int first = withAreasChanged(recording_, edited, 0x6);
    ASSERT_NE(first, 0);
    const ProcessResult two = retrace(edited, node_);
    EXPECT_EQ(two.exit_code, 1) << two.output;
    EXPECT_NE(
        two.output.find("(area): DEQUEUE_EVENT: section " + std::to_string(first) + ", first "),
        std::string::npos)
        << two.output;
    EXPECT_NE(two.output.find(", 1 differences\n"), std::string::npos) << two.output;

    // The second dequeue recorded with the first one's areas: what the buffer
    // held before this dequeue is not this event's content.
    std::vector<std::vector<uint8_t>> firstAreas;
    int dequeues = 0;
    ASSERT_TRUE(copyEdited(recording_, edited, [&](const aovrec::Record& x, auto* data, auto*) {
        if (x.request != AOV_IOC_DEQUEUE_EVENT || x.call.result < 0 || data->empty()) {
            return;
        }
        if (++dequeues == 1) {
            firstAreas = *data;
        } else if (dequeues == 2) {
            *data = firstAreas;
        }
    }));
    const ProcessResult stale = retrace(edited, node_);
    EXPECT_EQ(stale.exit_code, 1) << stale.output;
    EXPECT_NE(stale.output.find("(area): DEQUEUE_EVENT: section 1, first "), std::string::npos)
        << stale.output;
    EXPECT_NE(stale.output.find(" (byte 0: 0x21, recorded 0x11)\n"), std::string::npos)
        << stale.output;
    EXPECT_NE(stale.output.find(", 1 differences\n"), std::string::npos) << stale.output;
    ::unlink(edited.c_str());
}

// The recorded program's buffer keeps what the driver wrote in a dequeue
// whose content the recording dropped: a later area kept in full that the
// driver left alone holds those bytes, and retrace, which saw the driver
// write them, finds no difference.
TEST_F(RetraceAgainstKdev, AnAreaLeftAloneHoldsWhatTheDriverWroteInADequeueWhoseContentWasDropped) {
    // The third event carries nothing in section 4.
    std::string script = readText(kScript);
    for (const auto& [from, to] : {std::pair<std::string, std::string>{
                                       "\"s4\": [737312, 320, 240, 3]", "\"s4\": [0, 0, 0, 0]"},
                                   {"\"s4\": {\"fill\": 52}, ", ""}}) {
        const size_t at = script.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        script.replace(at, from.size(), to);
    }
    const std::string scenario = tempPath("s4-idle.json");
    aovrectest::writeText(scenario, script);
    const std::string all = tempPath("all.rec");
    const ProcessResult recorded =
        rec({"record", "-o", all, "--content", "all", "--", AOV_SIM_PATH, "--kernel", "fuse",
             "--events", "3", "--timeout", "10", "--aov-mode", "2", "--scenario", scenario});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    const std::string edited = tempPath("dropped.rec");
    int dequeues = 0;
    ASSERT_TRUE(copyEdited(all, edited, [&](const aovrec::Record& x, auto* data, auto*) {
        if (x.request == AOV_IOC_DEQUEUE_EVENT && x.call.result == 0 && ++dequeues == 2) {
            data->clear();
        }
    }));
    kdev_.start({"--scenario", scenario});
    const ProcessResult full = retrace(all, node_);
    EXPECT_EQ(full.exit_code, 0) << full.output;
    const ProcessResult dropped = retrace(edited, node_);
    EXPECT_EQ(dropped.exit_code, 0) << dropped.output;
    EXPECT_NE(dropped.output.find(", 0 differences\n"), std::string::npos) << dropped.output;
    for (const std::string& path : {scenario, all, edited}) {
        ::unlink(path.c_str());
    }
}

// A session whose events write no area gives the faulting-area check nothing
// to refuse: it is not made, and the rest of the checks pass.
TEST_F(RetraceAgainstKdev, EventsThatWriteNoAreaAreNotProbedWithUnwritableAreas) {
    std::string script = readText(kScript);
    const size_t events = script.find("\"events\": [");
    ASSERT_NE(events, std::string::npos);
    script = script.substr(0, events) +
             "\"events\": [{\"header\": [1, 0, 100, 4, 0, 0]}, {\"header\": [2, 0, 200, 4, 0, "
             "0]}, {\"header\": [3, 0, 300, 4, 0, 0]}]}\n";
    const std::string scenario = tempPath("header-only.json");
    aovrectest::writeText(scenario, script);
    const std::string headers = tempPath("header-only.rec");
    const ProcessResult recorded = rec(
        {"record", "-o", headers, "--content", "written", "--", AOV_SIM_PATH, "--kernel", "fuse",
         "--events", "3", "--timeout", "10", "--aov-mode", "2", "--scenario", scenario});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    kdev_.start({"--scenario", scenario});
    const ProcessResult r = retrace(headers, node_);
    EXPECT_EQ(r.exit_code, 0) << r.output;
    const std::string head =
        "retrace: " + headers + " against " + node_ + sentCalls(headers, recordsIn(headers));
    ASSERT_EQ(r.output.rfind(head, 0), 0u) << head << "\n" << r.output;
    // The twelve checks of a good driver but the faulting area and what it signals.
    const int made = std::atoi(r.output.substr(head.size()).c_str());
    EXPECT_GE(made, 10) << r.output;
    EXPECT_LE(made, 12) << r.output;
    EXPECT_NE(r.output.find(" driver checks, 0 differences\n"), std::string::npos) << r.output;
    for (const std::string& path : {scenario, headers}) {
        ::unlink(path.c_str());
    }
}

TEST_F(RetraceAgainstKdev, ACutRecordingIsRetracedUpToItsCutThenEndsInExitTwo) {
    const std::string bytes = readText(recording_);
    const std::string cut = tempPath("cut.rec");
    std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() - 3);
    startKdev();
    const ProcessResult r = retrace(cut, node_);
    ::unlink(cut.c_str());
    EXPECT_EQ(r.exit_code, 2) << r.output;
    // Every record before the cut was sent.
    const uint64_t whole = recordsIn(recording_) - 1;
    EXPECT_NE(r.output.find(sentCalls(recording_, whole)), std::string::npos)
        << sentCalls(recording_, whole) << "\n"
        << r.output;
    EXPECT_NE(r.output.find("cut off"), std::string::npos) << r.output;
}

TEST(RetraceOptions, TimeLimitsOutsideTheirRangeAreRefusedWithExitTwo) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"retrace", "x.rec", "--request-timeout", "0"},
                                               {"retrace", "x.rec", "--request-timeout", "3600001"},
                                               {"retrace", "x.rec", "--request-timeout"},
                                               {"retrace", "x.rec", "--ready-timeout", "-1"}}) {
        const ProcessResult r = rec(args);
        EXPECT_EQ(r.exit_code, 2) << args[2] << "\n" << r.output;
        EXPECT_EQ(r.output.rfind("aov-rec: " + args[2], 0), 0u) << r.output;
    }
    // Each limit at either end of its range is taken: the run goes on to the file.
    const std::string missing = tempPath("no-such.rec");
    for (const std::vector<std::string>& limits : std::vector<std::vector<std::string>>{
             {"--ready-timeout", "0", "--request-timeout", "1"},
             {"--ready-timeout", "3600000", "--request-timeout", "3600000"}}) {
        std::vector<std::string> args = {"retrace", missing, "-d", "/nonexistent-node"};
        args.insert(args.end(), limits.begin(), limits.end());
        const ProcessResult r = rec(args);
        EXPECT_EQ(r.exit_code, 2) << limits[1] << "\n" << r.output;
        EXPECT_EQ(r.output, "aov-rec: " + missing + ": No such file or directory\n");
    }
}

}  // namespace
