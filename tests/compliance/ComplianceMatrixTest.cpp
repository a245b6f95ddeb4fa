// aov-compliance as a user runs it, against aov-kdev behind a FUSE node: the
// clean driver passes every check, and each driver bug is caught by the check
// named for it. Needs root and /dev/fuse; each case says when it skips. The
// checker's output goes to the test log.

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"
#include "gtest/gtest.h"

namespace {

// An aov-kdev with one driver bug, in the test's own mount namespace.
class KdevNode : public ::testing::Test {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-compliance");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
    }
    void TearDown() override { server_.kill(); }

    // Starts aov-kdev and waits, with a limit, until it serves.
    void start(const std::string& fault, const char* scenario = nullptr) {
        std::vector<std::string> extra = {"--quiet"};
        if (!fault.empty()) {
            extra.insert(extra.end(), {"--fault", fault});
        }
        if (scenario != nullptr) {
            extra.insert(extra.end(),
                         {"--scenario", std::string(AOV_COMPLIANCE_TEST_DIR "/") + scenario});
        }
        std::string problem;
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, dir_, extra, &problem)) << problem;
    }

    // Runs aov-compliance on the node; the run is killed if it does not end.
    ProcessResult check(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-d", dir_ + "/kelo_aov"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto began = std::chrono::steady_clock::now();
        ProcessResult run = runProcess(AOV_COMPLIANCE_PATH, args);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        std::printf("aov-compliance%s%s (%.2f s, exit %d):\n%s", args.size() > 2 ? " " : "",
                    args.size() > 2 ? args[2].c_str() : "", seconds, run.exit_code,
                    run.output.c_str());
        return run;
    }

    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_;
    aovsimtool::KdevLauncher server_;
};

bool hasLine(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line) != std::string::npos;
}

std::string lastLine(const std::string& text) {
    const size_t end = text.size() > 0 && text.back() == '\n' ? text.size() - 1 : text.size();
    const size_t begin = text.rfind('\n', end == 0 ? 0 : end - 1);
    return text.substr(begin == std::string::npos ? 0 : begin + 1,
                       end - (begin == std::string::npos ? 0 : begin + 1));
}

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
          "returned; later checks not run\naov-compliance: 28 passed, 1 failed"},
    // Three events a session, all taken before the queue is drained (the
    // first, the one the faulting dequeue loses, the one after it): nothing
    // can arrive between the drained poll and the empty dequeue, as an event
    // of a streaming sensor could on a slow machine.
    Fault{"block-empty-dequeue", "dequeue: nothing pending returns promptly: WARN",
          "three-events.json"},
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
