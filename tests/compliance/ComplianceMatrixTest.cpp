// aov-compliance as a user runs it, against the clean aov-kdev behind a FUSE
// node (the driver bugs are in FaultMatrixTest.cpp). Needs root and
// /dev/fuse; each case says when it skips. The checker's output goes to the
// test log.

#include <string>

#include "KdevInstance.h"
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

}  // namespace
