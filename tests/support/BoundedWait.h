#pragma once

// Waits with limits, for tests: a test that waits for another thread or
// process fails with a message naming what did not happen instead of hanging
// until ctest kills it. Header-only, so that tests linking nothing of the
// project (the end-to-end runs) can use it too.

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace aovtest {

// Long enough for a sanitizer build on a busy machine, well inside every
// test's ctest timeout.
constexpr std::chrono::seconds kWaitLimit{30};

// Calls `attempt` until it returns true; false when `limit` passed first.
template <class Attempt>
bool retryUntil(Attempt attempt, std::chrono::steady_clock::duration limit = kWaitLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!attempt()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

// Waits until `fd` is readable (data or end of file); false when `limit`
// passed first.
inline bool readableWithin(int fd, std::chrono::milliseconds limit = kWaitLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 || errno != EINTR) {
            return false;
        }
    }
}

// Reaps child `pid` when it ends within `limit`: true with its wait status.
// False when it is still running then (or is not a child).
inline bool exitedWithin(pid_t pid, int* status, std::chrono::milliseconds limit = kWaitLimit) {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        const bool ended = readableWithin(pidfd, limit);
        ::close(pidfd);
        if (!ended) {
            return false;
        }
        while (::waitpid(pid, status, 0) < 0) {
            if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }
    // No process descriptors: look again every millisecond.
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const pid_t reaped = ::waitpid(pid, status, WNOHANG);
        if (reaped == pid) {
            return true;
        }
        if ((reaped < 0 && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Kills child `pid` and reaps it, within `limit`; false when it would not go.
inline bool killed(pid_t pid, std::chrono::milliseconds limit = kWaitLimit) {
    ::kill(pid, SIGKILL);
    int status = 0;
    return exitedWithin(pid, &status, limit);
}

// A thread whose end is awaited with a limit. One that does not end in time
// still uses the test's objects, so nothing can be torn down: the run ends
// there, with a line naming the thread that did not finish.
class BoundedThread {
  public:
    template <class Body>
    BoundedThread(const char* what, Body body) : what_(what) {
        std::promise<void> done;
        done_ = done.get_future();
        thread_ = std::thread([body = std::move(body), done = std::move(done)]() mutable {
            body();
            done.set_value();
        });
    }
    ~BoundedThread() { join(); }
    BoundedThread(BoundedThread&&) = default;

    void join(std::chrono::milliseconds limit = kWaitLimit) {
        if (!thread_.joinable()) {
            return;
        }
        if (done_.wait_for(limit) != std::future_status::ready) {
            std::fprintf(stderr, "%s did not finish within %lld ms\n", what_,
                         static_cast<long long>(limit.count()));
            std::_Exit(1);
        }
        thread_.join();
    }

  private:
    const char* what_;
    std::future<void> done_;
    std::thread thread_;
};

}  // namespace aovtest
