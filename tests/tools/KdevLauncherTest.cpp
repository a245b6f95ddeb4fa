// Starting aov-kdev and saying what became of it, with stand-ins that end
// without ever saying ready.

#include "KdevLauncher.h"
#include "OpenDescriptors.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace aovsimtool {
namespace {

TEST(KdevLauncherTest, AServerThatEndsWithoutSayingReadyIsReportedWithItsExitStatus) {
    KdevLauncher launcher;
    std::string problem;
    EXPECT_FALSE(launcher.start("false", "/tmp/aov-kdev-never", {}, &problem));
    EXPECT_EQ(problem,
              "aov-kdev did not come up on /tmp/aov-kdev-never: it closed its ready pipe without "
              "saying ready (exit status 1)");
    EXPECT_FALSE(launcher.running());
}

// A stand-in for aov-kdev: a shell script that runs `body`.
std::string standIn(const std::string& name, const std::string& body) {
    const std::string script =
        ::testing::TempDir() + name + "_" + std::to_string(::getpid()) + ".sh";
    std::ofstream(script) << "#!/bin/sh\n" << body << "\n";
    EXPECT_EQ(::chmod(script.c_str(), 0700), 0);
    return script;
}

// A server that closes its ready pipe is on its way out: its exit status is
// waited for, even when it comes a while after the close.
TEST(KdevLauncherTest, AServerThatClosesItsPipeAndEndsLaterIsReportedWithItsExitStatus) {
    const std::string script = standIn("kdev_closes_then_ends", "exec 3>&-\nsleep 0.3\nexit 4");
    KdevLauncher launcher;
    std::string problem;
    EXPECT_FALSE(launcher.start(script, "/tmp/aov-kdev-never", {}, &problem));
    EXPECT_EQ(problem,
              "aov-kdev did not come up on /tmp/aov-kdev-never: it closed its ready pipe without "
              "saying ready (exit status 4)");
    EXPECT_FALSE(launcher.running());
    ::unlink(script.c_str());
}

// A program that answers with something long other than "ready" is given up
// on at once, not after the time it has to come up, and is stopped.
TEST(KdevLauncherTest, ALongAnswerOtherThanReadyIsRefusedWithoutWaitingForTheLimit) {
    const std::string script = standIn("kdev_talks", "printf '%065d' 0 >&3\nexec sleep 600");
    KdevLauncher launcher;
    std::string problem;
    // A limit far beyond the test's own: only an answer taken at once passes.
    EXPECT_FALSE(launcher.start(script, "/tmp/aov-kdev-never", {}, &problem, 3600 * 1000));
    EXPECT_EQ(problem.rfind("aov-kdev did not come up on /tmp/aov-kdev-never: it said something "
                            "other than ready",
                            0),
              0u)
        << problem;
    EXPECT_FALSE(launcher.running());
    ::unlink(script.c_str());
}

// Up to 64 bytes of an unfinished first line may still become "ready" (a server
// that has not written the rest yet): only the time limit ends that wait.
TEST(KdevLauncherTest, AnUnfinishedLineOf64BytesIsWaitedForUntilTheLimit) {
    const std::string script = standIn("kdev_pauses", "printf '%064d' 0 >&3\nexec sleep 600");
    KdevLauncher launcher;
    std::string problem;
    EXPECT_FALSE(launcher.start(script, "/tmp/aov-kdev-never", {}, &problem, 200));
    EXPECT_EQ(problem,
              "aov-kdev did not come up on /tmp/aov-kdev-never: it did not say ready "
              "within 200 ms");
    EXPECT_FALSE(launcher.running()) << "a server that did not come up in time is stopped";
    ::unlink(script.c_str());
}

// The server is given the mount point, the ready descriptor and the caller's
// arguments, in that order; a launcher that goes out of scope stops it.
TEST(KdevLauncherTest, TheServerGetsItsArgumentsAndEndsWithItsLauncher) {
    const std::string script =
        standIn("kdev_args",
                "[ \"$*\" = '--mount /tmp/aov-kdev-stand-in --ready-fd 3 --fault x' ] || exit 7\n"
                "echo ready >&3\nexec sleep 30");
    pid_t server = -1;
    {
        KdevLauncher launcher;
        std::string problem;
        ASSERT_TRUE(
            launcher.start(script, "/tmp/aov-kdev-stand-in", {"--fault", "x"}, &problem, 20000))
            << problem;
        server = launcher.pid();
        ASSERT_GT(server, 0);
    }
    EXPECT_EQ(::kill(server, 0), -1) << "the server outlived its launcher";
    EXPECT_EQ(errno, ESRCH);
    ::unlink(script.c_str());
}

// A ready line that comes in pieces is read to its end: the stand-in writes
// one byte, waits (at most 10 s) until the launcher has taken it, then the rest.
TEST(KdevLauncherTest, AReadyLineWrittenOneByteFirstIsStillReady) {
    const std::string script =
        standIn("kdev_dribbles",
                "exec perl -e 'open(my $w, \">&=\", 3) or exit 9; syswrite($w, \"r\");"
                " for (1 .. 10000) { my $n = pack(\"L\", 0); ioctl($w, 0x541B, $n) or exit 8;"
                " last if unpack(\"L\", $n) == 0; select(undef, undef, undef, 0.001); }"
                " syswrite($w, \"eady\\n\"); exec(\"sleep\", \"30\");'");
    KdevLauncher launcher;
    std::string problem;
    EXPECT_TRUE(launcher.start(script, "/tmp/aov-kdev-stand-in", {}, &problem)) << problem;
    EXPECT_TRUE(launcher.stop());
    ::unlink(script.c_str());
}

// A server that ends at once is reported with its own status, not after the
// time it has to come up, even when the caller's errno still says an earlier
// call was interrupted.
TEST(KdevLauncherTest, AServerThatEndsAtOnceIsReportedAsEndedWhateverErrnoHeld) {
    const std::string script = standIn("kdev_refuses", "echo 'aov-kdev: bad option' >&2\nexit 2");
    for (const int before : {0, EINTR}) {
        KdevLauncher launcher;
        std::string problem;
        errno = before;
        EXPECT_FALSE(launcher.start(script, "/tmp/aov-kdev-never", {"--bad"}, &problem, 20000));
        EXPECT_EQ(problem,
                  "aov-kdev did not come up on /tmp/aov-kdev-never: it closed its ready pipe "
                  "without saying ready (exit status 2)")
            << "errno " << before;
        EXPECT_FALSE(launcher.running());
    }
    ::unlink(script.c_str());
}

using aovtest::openDescriptors;

// A tool or a test starts and stops servers many times in one process: each
// start, whether the server came up or not, leaves no descriptor behind.
TEST(KdevLauncherTest, StartingAndStoppingLeavesNoDescriptorOpen) {
    const std::string script = standIn("kdev_ready", "echo ready >&3\nexec sleep 30");
    const int before = openDescriptors();
    ASSERT_GT(before, 0);
    for (int round = 0; round < 3; ++round) {
        KdevLauncher launcher;
        std::string problem;
        ASSERT_TRUE(launcher.start(script, "/tmp/aov-kdev-stand-in", {}, &problem)) << problem;
        EXPECT_TRUE(launcher.running());
        // One server per launcher: a second start is refused, the first kept.
        EXPECT_FALSE(launcher.start(script, "/tmp/aov-kdev-stand-in", {}, &problem));
        EXPECT_EQ(problem.rfind("an aov-kdev started here is still running (pid ", 0), 0u)
            << problem;
        EXPECT_TRUE(launcher.running());
        EXPECT_TRUE(launcher.stop()) << "the stand-in did not end on SIGTERM";
        // Nothing left to stop or wait for.
        EXPECT_FALSE(launcher.stop());
        int status = 0;
        EXPECT_FALSE(launcher.waitExit(0, &status));
        EXPECT_FALSE(launcher.start("false", "/tmp/aov-kdev-never", {}, &problem));
        EXPECT_FALSE(launcher.start("/nonexistent/aov-kdev", "/tmp/aov-kdev-never", {}, &problem));
        EXPECT_EQ(problem,
                  std::string("cannot start /nonexistent/aov-kdev: ") + std::strerror(ENOENT));
        EXPECT_FALSE(launcher.running());
    }
    EXPECT_EQ(openDescriptors(), before);
    ::unlink(script.c_str());
}

// Run as a copy placed by the layout test below: prints where the copy finds
// aov-kdev, before any test runs, and ends.
const bool kLayoutProbe = [] {
    if (std::getenv("AOV_KDEV_LAYOUT_PROBE") != nullptr) {
        std::printf("%s\n", KdevLauncher::defaultProgram().c_str());
        std::fflush(stdout);
        ::_exit(0);
    }
    return false;
}();

// What a copy of this program at `bin/` under `root` names as aov-kdev, with
// AOV_KDEV as given (nullptr: unset).
std::string foundFrom(const std::string& root, const char* aovKdev) {
    const std::string copy = root + "/bin/probe";
    std::string command = "env -u AOV_KDEV AOV_KDEV_LAYOUT_PROBE=1 ";
    if (aovKdev != nullptr) {
        command += std::string("AOV_KDEV='") + aovKdev + "' ";
    }
    command += "timeout 20 " + copy;
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) {
        return "popen failed";
    }
    char line[4096] = {};
    const bool got = std::fgets(line, sizeof(line), out) != nullptr;
    ::pclose(out);
    std::string text = got ? line : "no answer from the copy";
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

void executable(const std::string& path, mode_t mode) {
    std::ofstream(path) << "#!/bin/sh\n";
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

// aov-kdev is looked for beside the program (an installed tree), then in the
// build tree's sibling directory, then on PATH; AOV_KDEV, when not empty,
// comes first.
TEST(KdevLauncherTest, TheDefaultProgramIsFoundBesideTheToolOrInTheBuildTree) {
    const std::string root = ::testing::TempDir() + "kdev_layout_" + std::to_string(::getpid());
    std::filesystem::remove_all(root);
    ASSERT_TRUE(std::filesystem::create_directories(root + "/bin"));
    ASSERT_TRUE(std::filesystem::create_directories(root + "/aov-kdev"));
    ASSERT_TRUE(std::filesystem::copy_file("/proc/self/exe", root + "/bin/probe"));
    ASSERT_EQ(::chmod((root + "/bin/probe").c_str(), 0755), 0);

    EXPECT_EQ(foundFrom(root, nullptr), "aov-kdev") << "nothing beside it: taken from PATH";
    executable(root + "/aov-kdev/aov-kdev", 0755);
    EXPECT_EQ(foundFrom(root, nullptr), root + "/bin/../aov-kdev/aov-kdev");
    executable(root + "/bin/aov-kdev", 0644);
    EXPECT_EQ(foundFrom(root, nullptr), root + "/bin/../aov-kdev/aov-kdev")
        << "a file beside it that cannot run is passed over";
    executable(root + "/bin/aov-kdev", 0755);
    EXPECT_EQ(foundFrom(root, nullptr), root + "/bin/aov-kdev");
    EXPECT_EQ(foundFrom(root, "/elsewhere/aov-kdev"), "/elsewhere/aov-kdev");
    EXPECT_EQ(foundFrom(root, ""), root + "/bin/aov-kdev") << "an empty AOV_KDEV is unset";
    std::filesystem::remove_all(root);
}

TEST(KdevLauncherTest, ExitTextNamesTheExitStatusOrTheSignal) {
    for (const int how : {0, 3, -SIGKILL}) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (how < 0) {
                ::kill(::getpid(), -how);
            }
            ::_exit(how);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(KdevLauncher::exitText(status), how < 0
                                                      ? "killed by signal " + std::to_string(-how)
                                                      : "exit status " + std::to_string(how));
    }
}

}  // namespace
}  // namespace aovsimtool
