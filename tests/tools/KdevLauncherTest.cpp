// Starting aov-kdev and saying what became of it, with stand-ins that end
// without ever saying ready.

#include "KdevLauncher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
