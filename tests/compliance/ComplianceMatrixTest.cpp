// aov-compliance as a user runs it, against the clean aov-kdev behind a FUSE
// node: TAP for one category (a whole clean run is in CheckerRunTest.cpp, the
// driver bugs in FaultMatrixTest.cpp). Needs root and /dev/fuse; each case
// says when it skips. The checker's output goes to the test log.

#include <string>

#include "KdevInstance.h"
#include "gtest/gtest.h"

namespace {

using aovcompliancetest::hasLine;
using aovcompliancetest::KdevNode;

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
