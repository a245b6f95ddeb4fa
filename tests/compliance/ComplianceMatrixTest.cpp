// aov-compliance as a user runs it, against aov-kdev behind a FUSE node: the
// clean driver passes every check, and each driver bug is caught by the check
// named for it. Needs root and /dev/fuse; each case says when it skips. The
// checker's output goes to the test log.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"

extern char** environ;

namespace {

struct CheckerRun {
    int exit_code = -1;  // -1: did not finish in time
    std::string output;
    double seconds = 0;
};

// Spawns `args` with stdout and stderr into `out` and, when `readyFd` is set,
// that pipe end as descriptor 3.
pid_t spawn(std::vector<std::string> args, int out, int readyFd) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (out >= 0) {
        posix_spawn_file_actions_adddup2(&actions, out, 1);
        posix_spawn_file_actions_adddup2(&actions, out, 2);
    }
    if (readyFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, readyFd, 3);
    }
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Reads `fd` until end of file or `deadline`; false when the deadline came first.
bool readUntil(int fd, std::chrono::steady_clock::time_point deadline, std::string* text) {
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            return false;
        }
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        const ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return true;
        }
        text->append(buffer, static_cast<size_t>(n));
    }
}

std::string fuseUnavailable() {
    if (::geteuid() != 0) {
        return "the compliance matrix needs root (for the mount namespace and the FUSE mount)";
    }
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        return std::string("the compliance matrix needs /dev/fuse: ") + std::strerror(errno);
    }
    return std::string();
}

// An aov-kdev with one driver bug, in the test's own mount namespace.
class KdevNode : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = fuseUnavailable();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << std::strerror(errno);
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        char dir[] = "/tmp/aov-compliance.XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (!dir_.empty()) {
            ::umount2(dir_.c_str(), MNT_DETACH);
            ::rmdir(dir_.c_str());
        }
    }

    // Starts aov-kdev and waits, with a limit, until it serves.
    void start(const std::string& fault) {
        int ready[2];
        ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
        std::vector<std::string> args = {AOV_KDEV_PATH, "--mount", dir_,
                                         "--ready-fd",  "3",       "--quiet"};
        if (!fault.empty()) {
            args.insert(args.end(), {"--fault", fault});
        }
        pid_ = spawn(args, -1, ready[1]);
        ::close(ready[1]);
        ASSERT_GT(pid_, 0);
        std::string line;
        const bool ended =
            readUntil(ready[0], std::chrono::steady_clock::now() + std::chrono::seconds(10), &line);
        ::close(ready[0]);
        ASSERT_TRUE(ended && line == "ready\n") << "aov-kdev did not come up within 10 s";
    }

    // Runs aov-compliance on the node, for at most 30 s.
    CheckerRun check(std::vector<std::string> extra = {}) {
        CheckerRun run;
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            return run;
        }
        std::vector<std::string> args = {AOV_COMPLIANCE_PATH, "-d", dir_ + "/kelo_aov"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto began = std::chrono::steady_clock::now();
        const pid_t pid = spawn(args, out[1], -1);
        ::close(out[1]);
        const bool ended = readUntil(out[0], began + std::chrono::seconds(30), &run.output);
        ::close(out[0]);
        if (pid < 0) {
            return run;
        }
        if (!ended) {
            ::kill(pid, SIGKILL);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        run.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        if (ended && WIFEXITED(status)) {
            run.exit_code = WEXITSTATUS(status);
        }
        std::printf("aov-compliance%s%s (%.2f s, exit %d):\n%s", args.size() > 3 ? " " : "",
                    args.size() > 3 ? args[3].c_str() : "", run.seconds, run.exit_code,
                    run.output.c_str());
        return run;
    }

    std::string dir_;
    pid_t pid_ = -1;
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

TEST_F(KdevNode, TheCleanDriverPassesEveryCheckInUnderTenSeconds) {
    start("");
    const CheckerRun run = check();
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.output.find(": FAIL"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find(": SKIP"), std::string::npos) << run.output;
    EXPECT_EQ(lastLine(run.output).rfind("aov-compliance: ", 0), 0u) << run.output;
    EXPECT_NE(lastLine(run.output).find(" passed, 0 failed, 0 warnings, 0 skipped"),
              std::string::npos)
        << run.output;
    EXPECT_LT(run.seconds, 10.0);
}

TEST_F(KdevNode, TapOutputAndOneCategory) {
    start("");
    const CheckerRun run = check({"--tap", "--only", "lifecycle"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.output.rfind("TAP version 13\n", 0), 0u) << run.output;
    EXPECT_TRUE(hasLine(run.output, "ok 1 - lifecycle: STOP without START")) << run.output;
    EXPECT_TRUE(hasLine(run.output, "1..5")) << run.output;
    EXPECT_EQ(run.output.find("requests:"), std::string::npos) << run.output;
}

struct Fault {
    const char* name;
    const char* line;  // the check's line as the fault must make it
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

class FaultMatrix : public KdevNode, public ::testing::WithParamInterface<Fault> {};

TEST_P(FaultMatrix, TheCheckNamedForTheFaultCatchesIt) {
    start(GetParam().name);
    const CheckerRun run = check();
    EXPECT_TRUE(hasLine(run.output, GetParam().line)) << run.output;
    const bool warnOnly = std::string(GetParam().line).find(": WARN") != std::string::npos;
    EXPECT_EQ(run.exit_code, warnOnly ? 0 : 1) << run.output;
    EXPECT_EQ(lastLine(run.output).rfind("aov-compliance: ", 0), 0u) << run.output;
    EXPECT_LT(run.seconds, 10.0);
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
    Fault{"block-empty-dequeue", "dequeue: nothing pending returns promptly: WARN"},
    Fault{"keep-session-on-close",
          "lifecycle: second session works: FAIL (expected START to "
          "succeed, got EBUSY"},
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
