#include "KdevLauncher.h"

#include "Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace aovsimtool {

namespace {

int64_t nowMs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Reads the server's first line from `fd`, for up to `timeoutMs`. True when
// it said "ready", else false with `notReady` set to what happened instead.
[[nodiscard]] bool awaitReady(int fd, int timeoutMs, std::string* notReady) {
    const int64_t deadline = nowMs() + timeoutMs;
    std::string line;
    char chunk[16];
    for (;;) {
        if (line.find('\n') != std::string::npos) {
            break;
        }
        const int64_t left = deadline - nowMs();
        if (left <= 0) {
            return fail(notReady, "did not say ready within " + std::to_string(timeoutMs) + " ms");
        }
        pollfd wait{fd, POLLIN, 0};
        const int polled = ::poll(&wait, 1, static_cast<int>(left));
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled < 0) {
            return fail(notReady, std::string("poll: ") + std::strerror(errno));
        }
        if (polled == 0) {
            continue;
        }
        const ssize_t got = ::read(fd, chunk, sizeof(chunk));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;  // the server closed its end
        }
        line.append(chunk, static_cast<size_t>(got));
        if (line.size() > 64) {
            break;
        }
    }
    if (line.rfind("ready\n", 0) == 0) {
        return true;
    }
    return fail(notReady, line.empty() ? "closed its ready pipe without saying ready"
                                       : "said something other than ready");
}

}  // namespace

std::string KdevLauncher::defaultProgram() {
    if (const char* path = std::getenv("AOV_KDEV"); path != nullptr && *path != '\0') {
        return path;
    }
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) {
        return "aov-kdev";
    }
    std::string dir(self, static_cast<size_t>(length));
    dir.erase(dir.rfind('/') + 1);
    for (const std::string& candidate : {dir + "aov-kdev", dir + "../aov-kdev/aov-kdev"}) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "aov-kdev";
}

std::string KdevLauncher::exitText(int status) {
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

bool KdevLauncher::start(const std::string& program, const std::string& mountDir,
                         const std::vector<std::string>& extra, std::string* problem,
                         int readyTimeoutMs) {
    if (running()) {
        *problem = "an aov-kdev started here is still running (pid " + std::to_string(pid_) + ")";
        return false;
    }
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        *problem = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    std::vector<std::string> args = {program, "--mount", mountDir, "--ready-fd", "3"};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ready[1]);
    if (spawned != 0) {
        ::close(ready[0]);
        *problem = "cannot start " + program + ": " + std::strerror(spawned);
        return false;
    }
    pid_ = pid;
    std::string notReady;
    const bool isReady = awaitReady(ready[0], readyTimeoutMs, &notReady);
    ::close(ready[0]);
    if (isReady) {
        return true;
    }
    // A server that closed the pipe is on its way out: wait for its status.
    const bool closed = notReady.rfind("closed", 0) == 0;
    int status = 0;
    std::string how;
    if (waitExit(closed ? kStopTimeoutMs : 0, &status)) {
        how = " (" + exitText(status) + ")";
    } else {
        kill();
    }
    *problem = "aov-kdev did not come up on " + mountDir + ": it " + notReady + how;
    return false;
}

bool KdevLauncher::waitExit(int ms, int* status) {
    if (pid_ <= 0) {
        return false;
    }
    const int64_t deadline = nowMs() + ms;
    for (;;) {
        const pid_t done = ::waitpid(pid_, status, WNOHANG);
        if (done == pid_ || (done < 0 && errno == ECHILD)) {
            pid_ = -1;
            return done > 0;
        }
        if (nowMs() >= deadline) {
            return false;
        }
        ::usleep(10000);
    }
}

bool KdevLauncher::stop() {
    if (pid_ <= 0) {
        return false;
    }
    ::kill(pid_, SIGTERM);
    int status = 0;
    if (waitExit(kStopTimeoutMs, &status)) {
        return true;
    }
    kill();
    return false;
}

void KdevLauncher::kill() {
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, SIGKILL);
    int status = 0;
    if (!waitExit(kStopTimeoutMs, &status)) {
        pid_ = -1;  // left to init; nothing more to do with it here
    }
}

KdevLauncher::~KdevLauncher() {
    stop();
}

}  // namespace aovsimtool
