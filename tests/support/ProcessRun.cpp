#include "ProcessRun.h"

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "BoundedWait.h"

extern char** environ;

namespace {

// Runs the program with its output going to fds[1] and reads it from fds[0];
// closes both.
ProcessResult runWithOutput(const int fds[2], const std::string& program,
                            const std::vector<std::string>& args,
                            const std::vector<std::string>& environment, size_t keep) {
    ProcessResult result;
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; ++e) {
        envp.push_back(*e);
    }
    for (const std::string& variable : environment) {
        envp.push_back(const_cast<char*>(variable.c_str()));
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    // A process group of its own, so that what the program started is ended
    // with it: a recorded client left spinning after its recorder was killed
    // would otherwise outlive the test and load every test after it.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawn(&pid, program.c_str(), &actions, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (spawned != 0) {
        ::close(fds[0]);
        return result;
    }
    // Inside the tests' ctest limit, so that a run that hangs fails with its
    // output instead of stopping the test binary.
    const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (!aovtest::readableWithin(fds[0], left)) {
            ::close(fds[0]);
            ::kill(-pid, SIGKILL);
            aovtest::killed(pid);
            result.output += "\n[test] " + program + " still running after " +
                             std::to_string(kRunLimit.count()) + " s: killed\n";
            return result;
        }
        const ssize_t n = ::read(fds[0], buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // A terminal's reading side says EIO once the program's side is closed.
        if (n <= 0) {
            break;
        }
        result.output_bytes += static_cast<size_t>(n);
        if (result.output.size() < keep) {
            result.output.append(buffer,
                                 std::min(static_cast<size_t>(n), keep - result.output.size()));
        }
    }
    ::close(fds[0]);
    int status = 0;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (!aovtest::exitedWithin(pid, &status, std::max(left, std::chrono::milliseconds(1000)))) {
        ::kill(-pid, SIGKILL);
        aovtest::killed(pid);
        result.output += "\n[test] " + program + " closed its output but did not exit: killed\n";
        return result;
    }
    // Whatever the program left behind in its group goes too. The group's
    // number is not reused while a member is alive.
    ::kill(-pid, SIGKILL);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& environment, size_t keep) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return ProcessResult{};
    }
    return runWithOutput(fds, program, args, environment, keep);
}

ProcessResult runProcessOnTerminal(const std::string& program, const std::vector<std::string>& args,
                                   const std::vector<std::string>& environment, size_t keep) {
    int fds[2];
    if (::openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr) != 0) {
        return ProcessResult{};
    }
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    return runWithOutput(fds, program, args, environment, keep);
}
