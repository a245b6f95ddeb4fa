// aov-compliance as a user runs it, against aov-kdev behind a FUSE node: the
// clean driver passes every check, and each driver bug is caught by the check
// named for it. Needs root and /dev/fuse; each case says when it skips. The
// checker's output goes to the test log.

#include <ostream>
#include <string>

#include "KdevNode.h"
#include "gtest/gtest.h"

namespace {

using aovcompliancetest::hasLine;
using aovcompliancetest::KdevNode;
using aovcompliancetest::lastLine;

TEST_F(KdevNode, TheCleanDriverPassesEveryCheck) {
    start("");
    const ProcessResult run = check();
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.output.find(": FAIL"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find(": SKIP"), std::string::npos) << run.output;
    EXPECT_EQ(lastLine(run.output).rfind("aov-compliance: ", 0), 0u) << run.output;
    EXPECT_NE(lastLine(run.output).find(" passed, 0 failed, 0 warnings, 0 skipped"),
              std::string::npos)
        << run.output;
}

TEST_F(KdevNode, TapOutputAndOneCategory) {
    start("");
    const ProcessResult run = check({"--tap", "--only", "lifecycle"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.output.rfind("TAP version 13\n", 0), 0u) << run.output;
    EXPECT_TRUE(hasLine(run.output, "ok 1 - lifecycle: STOP without START")) << run.output;
    EXPECT_TRUE(hasLine(run.output, "1..5")) << run.output;
    EXPECT_EQ(run.output.find("requests:"), std::string::npos) << run.output;
}

struct Fault {
    const char* name;
    const char* line;                // the check's line as the fault must make it
    const char* scenario = nullptr;  // aov-kdev's scenario, if not its streaming default
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

class FaultMatrix : public KdevNode, public ::testing::WithParamInterface<Fault> {};

TEST_P(FaultMatrix, TheCheckNamedForTheFaultCatchesIt) {
    start(GetParam().name, GetParam().scenario);
    const ProcessResult run = check();
    EXPECT_TRUE(hasLine(run.output, GetParam().line)) << run.output;
    const bool warnOnly = std::string(GetParam().line).find(": WARN") != std::string::npos;
    EXPECT_EQ(run.exit_code, warnOnly ? 0 : 1) << run.output;
    EXPECT_EQ(lastLine(run.output).rfind("aov-compliance: ", 0), 0u) << run.output;
}

// Each bug, with the line of the check that must catch it.
const Fault kFaults[] = {

    Fault{"overrun-area",
          "dequeue: writes stay inside the areas: FAIL (expected writes only inside the ten "
          "areas, got 4 bytes written after section 2's area"},
    Fault{"accept-unknown-code",
          "requests: unknown code _IO('H', 5) refused: FAIL (expected a negative result "
          "(ENOTTY), got 0)"},
    Fault{"accept-wrong-size",
          "requests: STOP with size 4 refused: FAIL (expected a negative result (ENOTTY), got "
          "0)"},
    Fault{"no-readiness", "readiness: poll readable with an event pending: FAIL"},
    Fault{"readable-after-drain", "readiness: not readable once drained: FAIL"},
    Fault{"events-after-stop", "readiness: nothing after STOP: FAIL"},
    Fault{"ignore-area-fault", "dequeue: faulting area refused with EFAULT: FAIL"},
    Fault{"hang-sensor-off",
          "requests: SENSOR_OFF with 64 ids: FAIL (expected an answer within 2000 ms, got "
          "none: the request blocks)\naov-compliance: stopped: SENSOR_OFF with 64 ids never "
          "returned; later checks not run\naov-compliance: 29 passed, 1 failed"},
    Fault{"block-empty-dequeue", "dequeue: nothing pending returns promptly: WARN"},
    Fault{"keep-session-on-close",
          "lifecycle: second session works: FAIL (expected START to "
          "succeed, got EBUSY"},
    Fault{"overrun-buffer",
          "dequeue: writes stay inside the areas: FAIL (expected writes only inside the ten "
          "areas, got 64 bytes written after section 10's area, past the end of the event "
          "buffer"},
};

std::string faultTestName(const ::testing::TestParamInfo<Fault>& info) {
    std::string name;
    for (const char* c = info.param.name; *c != '\0'; ++c) {
        name += *c == '-' ? '_' : *c;
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Driver, FaultMatrix, ::testing::ValuesIn(kFaults), faultTestName);

}  // namespace
