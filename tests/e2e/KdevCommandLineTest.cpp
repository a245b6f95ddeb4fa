// aov-kdev's command line: every bad input ends before anything is mounted,
// in exit 2 with one line naming the problem; --help lists every option.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "ProcessRun.h"

namespace {

struct BadCommandLine {
    const char* name;
    std::vector<std::string> args;  // "{dir}" stands for an empty directory of the test's
    const char* expected;           // in the error line
};

void PrintTo(const BadCommandLine& c, std::ostream* out) {
    *out << c.name;
}

const BadCommandLine kBadCommandLines[] = {
    {"NoMount", {}, "--mount DIR is required"},
    {"UnknownOption", {"--mount", "{dir}", "--frobnicate"}, "--frobnicate"},
    {"StrayArgument", {"--mount", "{dir}", "extra"}, "extra"},
    {"MountValueMissing", {"--mount"}, "--mount"},
    {"MountIsMissing", {"--mount", "/nonexistent/aov"}, "No such file or directory"},
    {"MountIsAFile", {"--mount", "/proc/self/status"}, "not a directory"},
    {"ReadyFdNotANumber", {"--mount", "{dir}", "--ready-fd", "x"}, "--ready-fd: expected a whole"},
    {"ReadyFdTooLarge",
     {"--mount", "{dir}", "--ready-fd", "1048577"},
     "--ready-fd: \"1048577\" is out of range 1..1048576"},
    {"DieAtDequeueZero",
     {"--mount", "{dir}", "--die-at-dequeue", "0"},
     "--die-at-dequeue: \"0\" is out of range 1..1000000000"},
    {"OverlongReplyBeyond64Bits",
     {"--mount", "{dir}", "--overlong-reply-at-dequeue", "99999999999999999999"},
     "--overlong-reply-at-dequeue: \"99999999999999999999\" is out of range"},
    {"ScenarioIsMissing",
     {"--mount", "{dir}", "--scenario", "/nonexistent/s.json"},
     "No such file or directory"},
};

class KdevCommandLine : public ::testing::TestWithParam<BadCommandLine> {};

TEST_P(KdevCommandLine, EndsInExitTwoWithOneLine) {
    // Should a case be taken, the server mounts on a directory of its own.
    const std::string dir = ::testing::TempDir() + "aov_kdev_cli";
    ::mkdir(dir.c_str(), 0700);
    const BadCommandLine& c = GetParam();
    std::vector<std::string> args = c.args;
    for (std::string& arg : args) {
        if (arg == "{dir}") {
            arg = dir;
        }
    }
    const ProcessResult run = runProcess(AOV_KDEV_PATH, args);
    EXPECT_EQ(run.exit_code, 2) << run.output;
    ASSERT_EQ(run.output.rfind("aov-kdev: error: ", 0), 0u) << run.output;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1) << run.output;
    EXPECT_NE(run.output.find(c.expected), std::string::npos) << run.output;
}

INSTANTIATE_TEST_SUITE_P(Options, KdevCommandLine, ::testing::ValuesIn(kBadCommandLines),
                         [](const ::testing::TestParamInfo<BadCommandLine>& info) {
                             return std::string(info.param.name);
                         });

TEST(KdevCommandLineHelp, ListsEveryOptionAndExitsZero) {
    const ProcessResult run = runProcess(AOV_KDEV_PATH, {"--help"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
    for (const char* option : {"--mount", "--scenario", "--ready-fd", "--quiet", "--die-at-dequeue",
                               "--overlong-reply-at-dequeue"}) {
        EXPECT_NE(run.output.find(option), std::string::npos) << option << "\n" << run.output;
    }
}

}  // namespace
