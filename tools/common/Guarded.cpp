#include "Guarded.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

namespace aovsimtool {

namespace {

struct Answer {
    long value;
    int error;
};

int64_t microsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

// Sends the answer, with `fd` attached when it is a descriptor to hand over.
void sendAnswer(int socket, const Answer& answer, int fd) {
    iovec data{const_cast<Answer*>(&answer), sizeof(answer)};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &fd, sizeof(int));
    }
    while (::sendmsg(socket, &message, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

// Receives an answer and the descriptor attached to it, if any; false when the
// child closed its end without answering.
bool receiveAnswer(int socket, Answer* answer, int* fd) {
    iovec data{answer, sizeof(*answer)};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t got;
    while ((got = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    if (got != static_cast<ssize_t>(sizeof(*answer))) {
        return false;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            std::memcpy(fd, CMSG_DATA(header), sizeof(int));
        }
    }
    return true;
}

// Waits up to `timeoutMs` for `socket` to become readable; false on timeout.
bool waitReadable(int socket, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd waiting{socket, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 || errno != EINTR) {
            return false;
        }
    }
}

// In a child that has answered: closes every descriptor but `keep`, so that
// the child's copies of the node are gone once `keep` closes at its exit.
void closeAllBut(int keep) {
#ifdef SYS_close_range
    if ((keep == 0 || ::syscall(SYS_close_range, 0u, static_cast<unsigned>(keep) - 1u, 0u) == 0) &&
        ::syscall(SYS_close_range, static_cast<unsigned>(keep) + 1u, ~0u, 0u) == 0) {
        return;
    }
#endif
    const long max = ::sysconf(_SC_OPEN_MAX);
    const int limit = max > 0 && max < 65536 ? static_cast<int>(max) : 65536;
    for (int fd = 0; fd < limit; ++fd) {
        if (fd != keep) {
            ::close(fd);
        }
    }
}

// Waits, up to `timeoutMs`, until the child's end of `socket` closes: the
// child has then closed every descriptor it shared. False when it did not in
// time: a close in the child (a FLUSH) is stuck in the driver.
bool awaitHangUp(int socket, int timeoutMs) {
    Answer extra;
    while (waitReadable(socket, timeoutMs)) {
        const ssize_t got = ::recv(socket, &extra, sizeof(extra), 0);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return true;
        }
    }
    return false;
}

// What the closing child needs; it runs on a stack of its own.
struct CloseJob {
    int fd;
    int socket;
};

int closeInChild(void* arg) {
    const CloseJob* job = static_cast<const CloseJob*>(arg);
    errno = 0;
    Answer answer{::close(job->fd), 0};
    answer.error = answer.value < 0 ? errno : 0;
    sendAnswer(job->socket, answer, -1);
    // The descriptor table is the parent's: nothing else may be closed here.
    // Returning ends the child; no call that does not return is made on this
    // stack (a sanitizer would warn about it on the shared standard error).
    return 0;
}

constexpr size_t kCloseStack = 256 * 1024;

}  // namespace

GuardedCaller::GuardedCaller() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ignore.sa_flags = SA_NOCLDWAIT;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGCHLD, &ignore, nullptr);
}

CallResult GuardedCaller::run(int timeoutMs, const std::function<long()>& call, bool passFd) {
    CallResult result;
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
        result.error = errno;
        return result;
    }
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child < 0) {
        result.error = errno;
        ::close(sockets[0]);
        ::close(sockets[1]);
        return result;
    }
    if (child == 0) {
        // A child left stuck in the driver must not hold the checker's output open.
        ::close(STDOUT_FILENO);
        ::close(STDERR_FILENO);
        ::close(sockets[0]);
        errno = 0;
        Answer answer{call(), 0};
        answer.error = answer.value < 0 ? errno : 0;
        sendAnswer(sockets[1], answer,
                   passFd && answer.value >= 0 ? static_cast<int>(answer.value) : -1);
        closeAllBut(sockets[1]);
        ::_exit(0);
    }
    ::close(sockets[1]);
    Answer answer{-1, 0};
    int fd = -1;
    if (!waitReadable(sockets[0], timeoutMs)) {
        ::kill(child, SIGKILL);
        ++abandoned_;
        result.status = CallResult::Status::kTimedOut;
    } else if (!receiveAnswer(sockets[0], &answer, &fd)) {
        result.status = CallResult::Status::kDied;
    } else {
        result.status = CallResult::Status::kReturned;
        result.value = answer.value;
        result.error = answer.error;
        result.passed_fd = fd;
        if (!awaitHangUp(sockets[0], timeoutMs)) {
            ::kill(child, SIGKILL);
            ++abandoned_;
            result.status = CallResult::Status::kCloseHung;
        }
    }
    result.elapsed_us = microsSince(start);
    ::close(sockets[0]);
    return result;
}

CallResult GuardedCaller::close(int timeoutMs, int fd) {
    CallResult result;
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
        result.error = errno;
        return result;
    }
    void* stack = ::mmap(nullptr, kCloseStack, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) {
        result.error = errno;
        ::close(sockets[0]);
        ::close(sockets[1]);
        return result;
    }
    CloseJob job{fd, sockets[1]};
    const auto start = std::chrono::steady_clock::now();
    // CLONE_FILES without CLONE_VM: the child's close removes `fd` from the
    // table both share, and the driver's FLUSH and release run in the child.
    const pid_t child =
        ::clone(closeInChild, static_cast<char*>(stack) + kCloseStack, CLONE_FILES | SIGCHLD, &job);
    if (child < 0) {
        result.error = errno;
    } else {
        Answer answer{-1, 0};
        int unused = -1;
        if (!waitReadable(sockets[0], timeoutMs)) {
            ::kill(child, SIGKILL);
            ++abandoned_;
            result.status = CallResult::Status::kTimedOut;
        } else if (!receiveAnswer(sockets[0], &answer, &unused)) {
            result.status = CallResult::Status::kDied;
        } else {
            result.status = CallResult::Status::kReturned;
            result.value = answer.value;
            result.error = answer.error;
        }
    }
    result.elapsed_us = microsSince(start);
    ::close(sockets[0]);
    ::close(sockets[1]);
    ::munmap(stack, kCloseStack);
    return result;
}

}  // namespace aovsimtool
