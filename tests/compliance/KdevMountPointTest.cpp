// aov-kdev refuses a mount point it cannot use with one line and exit 2: a
// directory that holds something (a mount would hide it), and one it already
// serves.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "KdevInstance.h"
#include "gtest/gtest.h"

namespace {

using aovcompliancetest::KdevNode;

TEST(KdevMountPoint, ADirectoryThatIsNotEmptyIsRefusedWithOneLine) {
    char dir[] = "/tmp/aov-kdev-full.XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string inside = std::string(dir) + "/kept";
    ASSERT_EQ(::mkdir(inside.c_str(), 0700), 0);
    const ProcessResult run = runProcess(AOV_KDEV_PATH, {"--mount", dir, "--quiet"});
    EXPECT_EQ(run.exit_code, 2) << run.output;
    EXPECT_EQ(run.output, "aov-kdev: error: --mount \"" + std::string(dir) +
                              "\": not empty (mounting would hide what it holds)\n");
    struct stat st;
    EXPECT_EQ(::stat(inside.c_str(), &st), 0) << "what the directory holds is still there";
    ::rmdir(inside.c_str());
    ::rmdir(dir);
}

TEST_F(KdevNode, ADirectoryAlreadyServedIsRefusedAndTheFirstServerKeepsServing) {
    start("");
    const ProcessResult second = runProcess(AOV_KDEV_PATH, {"--mount", node_.dir(), "--quiet"});
    EXPECT_EQ(second.exit_code, 2) << second.output;
    EXPECT_EQ(second.output, "aov-kdev: error: --mount \"" + node_.dir() +
                                 "\": already served by a FUSE file system (another aov-kdev?)\n");
    EXPECT_TRUE(node_.running());
    const ProcessResult run = check({"--only", "open"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
}

}  // namespace
