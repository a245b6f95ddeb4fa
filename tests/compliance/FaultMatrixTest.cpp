// The fault matrix: aov-compliance against aov-kdev with each driver bug, one
// at a time. For every bug, the verdict of every check is compared with the
// clean driver's on the same scenario under the same limits: exactly the
// checks listed for the bug change, to the verdicts listed, and no other check
// moves. Needs root and /dev/fuse (each case says when it skips); the list of
// bugs is checked against aov-kdev's own everywhere.

#include <algorithm>
#include <map>
#include <memory>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "KdevInstance.h"
#include "gtest/gtest.h"

namespace {

// A run of the checker as its plain output tells it.
struct CheckerRun {
    int exit_code = -1;
    std::vector<std::string> order;  // "category: check", in the order printed
    // "OK", "FAIL", "WARN" or "SKIP"; a check printed twice has both ("FAIL,SKIP").
    std::map<std::string, std::string> verdicts;
    std::map<std::string, std::string> notes;  // what the parentheses said
    bool stopped = false;                      // "aov-compliance: stopped: ..."
    std::string totals;                        // the last line
};

// Parses the lines "category: check: VERDICT" and "category: check: VERDICT
// (note)". A failure of the test names a line the parser did not understand.
CheckerRun parseRun(const ProcessResult& result) {
    static const std::regex line(
        R"(^(open|requests|dequeue|readiness|lifecycle): (.+?): (OK|FAIL|WARN|SKIP)(?: \((.*)\))?$)");
    CheckerRun run;
    run.exit_code = result.exit_code;
    std::istringstream lines(result.output);
    std::string text;
    while (std::getline(lines, text)) {
        std::smatch m;
        if (std::regex_match(text, m, line)) {
            const std::string check = m[1].str() + ": " + m[2].str();
            std::string& verdict = run.verdicts[check];
            if (verdict.empty()) {
                run.order.push_back(check);
                run.notes[check] = m[4].str();
            }
            verdict += (verdict.empty() ? "" : ",") + m[3].str();
        } else if (text.rfind("aov-compliance: stopped: ", 0) == 0) {
            run.stopped = true;
        } else if (text.rfind("aov-compliance: ", 0) == 0) {
            run.totals = text;
        } else if (!text.empty() && text[0] != ' ') {
            ADD_FAILURE() << "a line of the checker that is not a verdict: " << text;
        }
    }
    return run;
}

// The totals line agrees with the verdicts printed.
void expectTotalsMatch(const CheckerRun& run) {
    int passed = 0, failed = 0, warnings = 0, skipped = 0;
    for (const auto& [check, verdicts] : run.verdicts) {
        std::istringstream each(verdicts);
        std::string verdict;
        while (std::getline(each, verdict, ',')) {
            passed += verdict == "OK";
            failed += verdict == "FAIL";
            warnings += verdict == "WARN";
            skipped += verdict == "SKIP";
        }
    }
    std::ostringstream want;
    want << "aov-compliance: " << passed << " passed, " << failed << " failed, " << warnings
         << " warnings, " << skipped << " skipped";
    EXPECT_EQ(run.totals, want.str());
}

// What a bug does to the checker's verdicts.
struct Change {
    const char* check;    // "category: check"
    const char* verdict;  // its verdict with the bug; "-" for no line at all
    // Text its note must hold, where the note says where the bug is.
    const char* note = nullptr;
};

// What a case runs against: aov-kdev's scenario (a file of tests/compliance)
// and the checker's limits. Each case's verdicts are compared with the clean
// driver's run in the same setting.
struct Setting {
    const char* scenario;
    // --timeout-ms and --event-timeout-ms; 0 leaves the checker's default.
    int request_ms;
    int event_ms;
    int clean_exit;  // the clean driver's exit code in this setting
};

struct FaultCase {
    const char* fault;  // aov-kdev --fault NAME
    const Setting* setting;
    int exit_code;
    std::vector<Change> changes;  // every check whose verdict moves
    // The check whose failure stops the run; the checks after it in the clean
    // run print no line (beyond those in `changes`).
    const char* stops_after = nullptr;
    // The checker ends only when the test stops the server: it is stuck in a
    // call the bug never answers. Its verdicts are then not compared.
    bool stuck = false;
};

void PrintTo(const FaultCase& fault, std::ostream* out) {
    *out << fault.fault;
}

// Limits so long that a starved machine is slow but never late: for the
// cases whose bug is not about time. A clean run never waits them out.
constexpr int kPatientMs = 20000;

// Generated header-only events, one every tick: a dequeue that writes no area
// costs the driver little, so even a starved build drains them faster than
// they come. No event carries content, so the faulting-area check is a SKIP
// (exit 4) in the clean run as in every case here.
constexpr Setting kHeaders{"no-content.json", kPatientMs, kPatientMs, 4};
// The same events under the checker's own limits, for the bugs that make it
// wait a limit out (a request or a FLUSH that never returns, readiness that
// never comes, a dequeue that blocks): the wait is the verdict, so it stays
// short.
constexpr Setting kTimedHeaders{"no-content.json", 0, 0, 4};
// Generated full-content events, one a second: for the bugs in writing the
// areas. Each dequeue writes some 2.3 MB, which a starved build's driver may
// take most of a second to do; a stream that slow still lets the drain find
// the queue empty.
constexpr Setting kContent{"content-stream.json", kPatientMs, kPatientMs, 0};
// Events at frame ticks 1, 25 to 28, 35 to 37 and one a second from 45 to 125
// (10 ticks a second), each with one small area: the epoll check drains the
// queue before it arms its watch, and whenever it arms, the next event is at
// most a second away and the checks after its wait (the checker's default,
// which the bug makes it wait out) still find two more.
constexpr Setting kLateEvents{"late-events.json", 0, 0, 0};

// The matrix. A line per check the bug moves: its new verdict.
const FaultCase kMatrix[] = {
    {"overrun-area",
     &kContent,
     1,
     {{"dequeue: writes stay inside the areas", "FAIL", "after section 2's area"}}},
    {"overrun-buffer",
     &kContent,
     1,
     {{"dequeue: writes stay inside the areas", "FAIL", "past the end of the event buffer"}}},
    // A code of a known number with another size is a code it does not know.
    {"accept-unknown-code",
     &kHeaders,
     1,
     {{"requests: unknown code _IO('H', 5) refused", "FAIL"},
      {"requests: unknown code _IOW('H', 8, 4) refused", "FAIL"},
      {"requests: unknown code _IOR('H', 200, 8) refused", "FAIL"},
      {"requests: START with size 196 refused", "FAIL"},
      {"requests: SENSOR_ON with size 256 refused", "FAIL"},
      {"requests: SENSOR_OFF with size 264 refused", "FAIL"},
      {"requests: DEQUEUE_EVENT with size 208 refused", "FAIL"},
      {"requests: STOP with size 4 refused", "FAIL"}}},
    // The wrong-size START starts a session, so the wrong-size dequeue meets a
    // started driver (EAGAIN, or EFAULT for the record's null addresses).
    {"accept-wrong-size",
     &kContent,
     1,
     {{"requests: START with size 196 refused", "FAIL"},
      {"requests: SENSOR_ON with size 256 refused", "FAIL"},
      {"requests: SENSOR_OFF with size 264 refused", "FAIL"},
      {"requests: DEQUEUE_EVENT with size 208 refused", "WARN"},
      {"requests: STOP with size 4 refused", "FAIL"}}},
    {"wrong-errno",
     &kHeaders,
     4,
     {{"requests: unknown code _IO('H', 5) refused", "WARN", "got EINVAL"},
      {"requests: unknown code _IOW('H', 8, 4) refused", "WARN"},
      {"requests: unknown code _IOR('H', 200, 8) refused", "WARN"},
      {"requests: START with size 196 refused", "WARN"},
      {"requests: SENSOR_ON with size 256 refused", "WARN"},
      {"requests: SENSOR_OFF with size 264 refused", "WARN"},
      {"requests: DEQUEUE_EVENT with size 208 refused", "WARN"},
      {"requests: STOP with size 4 refused", "WARN"}}},
    // Its dequeues return 1 as well, which the checker takes as success.
    {"positive-success",
     &kHeaders,
     4,
     {{"requests: START", "WARN", "got 1"},
      {"requests: ULPOSC3_ON", "WARN"},
      {"requests: SENSOR_ON with 1 id", "WARN"},
      {"requests: SENSOR_ON with 64 ids", "WARN"},
      {"requests: SENSOR_OFF with 64 ids", "WARN"},
      {"requests: SENSOR_OFF with 1 id", "WARN"},
      {"requests: ULPOSC3_OFF", "WARN"},
      {"requests: STOP", "WARN"}}},
    {"refuse-rdwr", &kHeaders, 1, {{"open: O_RDWR open", "FAIL", "EACCES"}}, "open: O_RDWR open"},
    // FUSE sends the release in the background: the close returns, and the
    // node, never released, refuses the next open.
    {"hang-release",
     &kTimedHeaders,
     1,
     {{"open: close and reopen", "FAIL", "EBUSY"}},
     "open: close and reopen"},
    // The first close is the one of the child that opened the node.
    {"hang-flush",
     &kTimedHeaders,
     1,
     {{"open: O_RDWR open", "FAIL", "a FLUSH that never returns"}},
     "open: O_RDWR open"},
    {"flush-busy", &kHeaders, 4, {{"lifecycle: close while started", "WARN", "EBUSY"}}},
    {"busy-after-started-close",
     &kHeaders,
     1,
     {{"lifecycle: reopen after close while started", "FAIL", "EBUSY"},
      {"lifecycle: second session works", "SKIP"}}},
    {"keep-session-on-close", &kHeaders, 1, {{"lifecycle: second session works", "FAIL", "EBUSY"}}},
    // Without a session the event checks cannot run.
    {"refuse-full-content",
     &kHeaders,
     1,
     {{"requests: START", "FAIL", "EINVAL"},
      {"readiness: poll readable with an event pending", "SKIP"},
      {"dequeue: pending event dequeued into the library's layout", "SKIP"},
      {"dequeue: writes stay inside the areas", "SKIP"},
      {"dequeue: record's padding and addresses untouched", "SKIP"},
      {"readiness: epoll readable (empty mask, then modified)", "SKIP"},
      {"dequeue: works after a faulting area", "SKIP"},
      {"readiness: not readable once drained", "SKIP"},
      {"dequeue: nothing pending returns promptly", "SKIP"},
      {"lifecycle: START twice", "FAIL"},
      {"lifecycle: second session works", "FAIL"}}},
    {"missing-ulposc3",
     &kHeaders,
     1,
     {{"requests: ULPOSC3_ON", "FAIL", "ENOTTY"}, {"requests: ULPOSC3_OFF", "FAIL"}}},
    {"refuse-sensor-id-0",
     &kHeaders,
     1,
     {{"requests: SENSOR_ON with 1 id", "FAIL", "EINVAL"},
      {"requests: SENSOR_ON with 64 ids", "FAIL"},
      {"requests: SENSOR_OFF with 64 ids", "FAIL"},
      {"requests: SENSOR_OFF with 1 id", "FAIL"}}},
    {"sensor-count-off-by-one",
     &kHeaders,
     1,
     {{"requests: SENSOR_ON with 64 ids", "FAIL", "EINVAL"},
      {"requests: SENSOR_OFF with 64 ids", "FAIL"}}},
    {"lenient-sensor-count",
     &kHeaders,
     4,
     {{"requests: SENSOR_ON with count 0 refused", "WARN", "got 0"},
      {"requests: SENSOR_ON with count 65 refused", "WARN", "got 0"}}},
    // The failed STOP leaves the session running: events keep coming (within
    // the three frames the check waits), the lifecycle's START is refused,
    // and the second session's STOP fails the same way.
    {"stop-needs-ulposc3",
     &kHeaders,
     1,
     {{"requests: STOP", "FAIL", "EIO"},
      {"readiness: nothing after STOP", "FAIL"},
      {"lifecycle: START twice", "FAIL"},
      {"lifecycle: second session works", "FAIL"}}},
    {"refuse-idle-stop", &kHeaders, 4, {{"lifecycle: STOP without START", "WARN", "EINVAL"}}},
    {"start-once-per-open", &kHeaders, 1, {{"lifecycle: START twice", "FAIL", "EINVAL"}}},
    // Every dequeue fails and the event it refused stays queued: the epoll
    // watch is never armed with nothing pending.
    {"basic-sections-only",
     &kContent,
     1,
     {{"dequeue: pending event dequeued into the library's layout", "FAIL", "EINVAL"},
      {"readiness: epoll readable (empty mask, then modified)", "SKIP", "nothing to dequeue"},
      {"dequeue: writes stay inside the areas", "SKIP"},
      {"dequeue: record's padding and addresses untouched", "SKIP"},
      {"readiness: not readable once drained", "FAIL"},
      {"dequeue: faulting area refused with EFAULT", "SKIP"},
      {"dequeue: works after a faulting area", "SKIP"},
      {"lifecycle: second session works", "FAIL"}}},
    {"leak-padding",
     &kHeaders,
     4,
     {{"dequeue: record's padding and addresses untouched", "WARN", "record offset 0x0000001c"}}},
    {"ignore-area-fault", &kContent, 1, {{"dequeue: faulting area refused with EFAULT", "FAIL"}}},
    {"area-fault-eio",
     &kContent,
     0,
     {{"dequeue: faulting area refused with EFAULT", "WARN", "got EIO"}}},
    // Every later dequeue fails, the second session's too.
    {"stuck-after-area-fault",
     &kContent,
     1,
     {{"dequeue: works after a faulting area", "FAIL", "EBUSY"},
      {"lifecycle: second session works", "FAIL"}}},
    {"no-readiness",
     &kTimedHeaders,
     1,
     {{"readiness: poll readable with an event pending", "FAIL"},
      {"dequeue: pending event dequeued into the library's layout", "SKIP"},
      {"dequeue: writes stay inside the areas", "SKIP"},
      {"dequeue: record's padding and addresses untouched", "SKIP"},
      {"readiness: epoll readable (empty mask, then modified)", "SKIP"},
      {"dequeue: works after a faulting area", "SKIP"},
      {"readiness: not readable once drained", "SKIP"},
      {"dequeue: nothing pending returns promptly", "SKIP"},
      {"lifecycle: second session works", "SKIP"}}},
    {"readable-when-stopped",
     &kHeaders,
     1,
     {{"readiness: not readable before START", "FAIL"}, {"readiness: nothing after STOP", "FAIL"}}},
    // Readiness no longer says when an event is pending: the checks that
    // wait for one are skipped, and so is the epoll check, whose watch is
    // never armed with nothing pending.
    {"readable-after-drain",
     &kContent,
     1,
     {{"readiness: epoll readable (empty mask, then modified)", "SKIP", "nothing to dequeue"},
      {"readiness: not readable once drained", "FAIL", "EAGAIN"},
      {"dequeue: faulting area refused with EFAULT", "SKIP"},
      {"dequeue: works after a faulting area", "SKIP"}}},
    {"events-after-stop", &kHeaders, 1, {{"readiness: nothing after STOP", "FAIL"}}},
    {"wake-pollin-waiters-only",
     &kLateEvents,
     1,
     {{"readiness: epoll readable (empty mask, then modified)", "FAIL",
       "armed with nothing pending"}}},
    // The error comes from the faulting-area check, after the drain.
    {"pollerr-after-error", &kContent, 1, {{"readiness: nothing after STOP", "FAIL", "POLLERR"}}},
    {"block-empty-dequeue",
     &kTimedHeaders,
     4,
     {{"dequeue: nothing pending returns promptly", "WARN"}}},
    {"hang-sensor-off",
     &kTimedHeaders,
     1,
     {{"requests: SENSOR_OFF with 64 ids", "FAIL", "the request blocks"}},
     "requests: SENSOR_OFF with 64 ids"},
    // Every dequeue hands out the same event: the drain gives up after its 64
    // dequeues (fewer, when the time it may take runs out first), and the
    // empty dequeue is judged once STOP has emptied the queue (the same
    // verdict as the clean run's, reached the other way).
    {"dequeue-keeps-event",
     &kHeaders,
     1,
     {{"readiness: epoll readable (empty mask, then modified)", "SKIP",
       "the queue never drained: still readable after"},
      {"readiness: not readable once drained", "FAIL",
       "returned the same record as the dequeue before"},
      {"dequeue: works after a faulting area", "SKIP"}}},
    // The kernel fails the copy of a null record before the server could
    // answer it: through FUSE no verdict moves.
    {"accept-null-sensor-list", &kHeaders, 4, {}},
};

// The checker's options for a setting's limits.
std::vector<std::string> limitOptions(const Setting& setting) {
    std::vector<std::string> options;
    if (setting.request_ms != 0) {
        options.insert(options.end(), {"--timeout-ms", std::to_string(setting.request_ms)});
    }
    if (setting.event_ms != 0) {
        options.insert(options.end(), {"--event-timeout-ms", std::to_string(setting.event_ms)});
    }
    return options;
}

// The clean driver's run in each setting, made once for the whole binary.
// Keyed by scenario and limits: a limit can move a verdict (a drain that
// runs out of time), so a case is compared only with a run under its own.
const CheckerRun& cleanRun(const Setting& setting) {
    static std::map<std::string, CheckerRun> runs;
    std::string key = setting.scenario;
    for (const std::string& option : limitOptions(setting)) {
        key += " " + option;
    }
    auto found = runs.find(key);
    if (found == runs.end()) {
        aovtest::KdevInstance node;
        node.start({}, setting.scenario);
        CheckerRun run = parseRun(node.check(limitOptions(setting)));
        node.kill();
        EXPECT_EQ(run.exit_code, setting.clean_exit) << "the clean driver's run on " << key;
        for (const auto& [check, verdict] : run.verdicts) {
            EXPECT_TRUE(verdict == "OK" || verdict == "SKIP")
                << "the clean driver's run on " << key << ": " << check << ": " << verdict;
        }
        expectTotalsMatch(run);
        found = runs.emplace(key, std::move(run)).first;
    }
    return found->second;
}

class FaultMatrix : public ::testing::TestWithParam<FaultCase> {
  protected:
    void SetUp() override {
        const std::string why = aovtest::fuseUnavailable();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
    }

    aovtest::KdevInstance node_;
};

TEST_P(FaultMatrix, ChangesExactlyTheChecksListedForTheFault) {
    const FaultCase& fault = GetParam();
    const CheckerRun& clean = cleanRun(*fault.setting);
    ASSERT_FALSE(HasFailure()) << "the clean run is not a baseline";

    std::map<std::string, std::string> want = clean.verdicts;
    if (fault.stops_after != nullptr) {
        const auto at = std::find(clean.order.begin(), clean.order.end(), fault.stops_after);
        ASSERT_NE(at, clean.order.end()) << fault.stops_after << " is not a check of the clean run";
        for (auto later = at + 1; later != clean.order.end(); ++later) {
            want[*later] = "-";
        }
    }
    for (const Change& change : fault.changes) {
        ASSERT_EQ(want.count(change.check), 1u)
            << change.check << " is not a check of the clean run";
        ASSERT_NE(want[change.check], change.verdict)
            << change.check << ": the listed verdict is the clean one";
        want[change.check] = change.verdict;
    }

    node_.start({fault.fault}, fault.setting->scenario);
    ASSERT_FALSE(HasFatalFailure());
    const CheckerRun run = parseRun(node_.check(limitOptions(*fault.setting)));
    node_.kill();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(node_.stoppedServer(), fault.stuck)
        << (fault.stuck ? "the checker ended by itself" : "the checker was stuck");
    if (fault.stuck) {
        // What it printed depends on where it was when the server went.
        return;
    }

    std::set<std::string> checks;
    for (const auto& [check, verdict] : want) {
        checks.insert(check);
    }
    for (const auto& [check, verdict] : run.verdicts) {
        checks.insert(check);
    }
    std::string moved;
    for (const std::string& check : checks) {
        const std::string expected = want.count(check) != 0 ? want.at(check) : "-";
        const std::string got = run.verdicts.count(check) != 0 ? run.verdicts.at(check) : "-";
        if (expected != got) {
            moved += "\n  " + check + ": expected " + expected + ", got " + got;
        }
    }
    EXPECT_TRUE(moved.empty()) << "verdicts other than listed:" << moved;
    for (const Change& change : fault.changes) {
        if (change.note != nullptr && run.notes.count(change.check) != 0) {
            EXPECT_NE(run.notes.at(change.check).find(change.note), std::string::npos)
                << change.check << ": the note does not say \"" << change.note
                << "\": " << run.notes.at(change.check);
        }
    }
    EXPECT_EQ(run.stopped, fault.stops_after != nullptr);
    EXPECT_EQ(run.exit_code, fault.exit_code);
    expectTotalsMatch(run);
}

std::string faultTestName(const ::testing::TestParamInfo<FaultCase>& info) {
    std::string name;
    for (const char* c = info.param.fault; *c != '\0'; ++c) {
        name += *c == '-' ? '_' : *c;
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Driver, FaultMatrix, ::testing::ValuesIn(kMatrix), faultTestName);

// The faults aov-kdev lists in its help, "  name: what it does" under "Faults".
std::vector<std::string> faultsInHelp(const std::string& help) {
    std::vector<std::string> names;
    std::istringstream lines(help);
    std::string text;
    bool inList = false;
    static const std::regex entry(R"(^  ([a-z0-9-]+): \S.*$)");
    while (std::getline(lines, text)) {
        std::smatch m;
        if (text.rfind("Faults", 0) == 0) {
            inList = true;
        } else if (inList && std::regex_match(text, m, entry)) {
            names.push_back(m[1].str());
        }
    }
    return names;
}

TEST(FaultList, EveryFaultAovKdevListsIsInTheMatrixOnceAndEveryOneItAccepts) {
    const ProcessResult help = runProcess(AOV_KDEV_PATH, {"--help"});
    ASSERT_EQ(help.exit_code, 0) << help.output;
    const std::vector<std::string> listed = faultsInHelp(help.output);
    std::multiset<std::string> inMatrix;
    for (const FaultCase& fault : kMatrix) {
        inMatrix.insert(fault.fault);
    }
    EXPECT_EQ(std::multiset<std::string>(listed.begin(), listed.end()), inMatrix) << help.output;
    EXPECT_EQ(std::set<std::string>(inMatrix.begin(), inMatrix.end()).size(), inMatrix.size())
        << "a fault is in the matrix twice";

    // Each listed name is one aov-kdev takes; a name it does not list is refused.
    for (const std::string& name : listed) {
        const ProcessResult run =
            runProcess(AOV_KDEV_PATH, {"--fault", name, "--mount", "/nonexistent-mount-dir"});
        EXPECT_EQ(run.output.find("--fault"), std::string::npos) << name << ": " << run.output;
    }
    const ProcessResult unknown =
        runProcess(AOV_KDEV_PATH, {"--fault", "no-such-fault", "--mount", "/tmp"});
    EXPECT_EQ(unknown.exit_code, 2) << unknown.output;
    EXPECT_NE(unknown.output.find("--fault: expected one of"), std::string::npos) << unknown.output;
}

}  // namespace
