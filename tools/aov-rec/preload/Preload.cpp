// The exported side of the preload library: open, close, ioctl and the
// readiness calls, each handing the AOV node's descriptors to the recorder
// and every other call straight to the next definition (the C library's).

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "Recorder.h"

namespace {

using aovrec::fdHas;
using aovrec::g_armed;
using aovrec::g_node_fds;
using aovrec::kFdEpoll;
using aovrec::kFdNode;

template <typename Fn>
Fn next(Fn* slot, const char* name) {
    Fn fn = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (__builtin_expect(fn == nullptr, 0)) {
        fn = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
        __atomic_store_n(slot, fn, __ATOMIC_RELAXED);
    }
    return fn;
}

#define AOVREC_NEXT(name)                           \
    static decltype(&::name) real_##name = nullptr; \
    auto* fn = next(&real_##name, #name)

bool needsMode(int flags) {
#ifdef O_TMPFILE
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
#else
    return (flags & O_CREAT) != 0;
#endif
}

template <typename Call>
int openVia(int dirfd, const char* path, int flags, mode_t mode, Call call) {
    if (__builtin_expect(!g_armed.load(std::memory_order_relaxed), 1)) {
        return call();
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = call();
    aovrec::recordOpen(begin, dirfd, path, flags, mode, result, errno);
    return result;
}

// Whether a readiness call may concern the node: some node descriptor is open.
bool nodeOpen() {
    return g_node_fds.load(std::memory_order_relaxed) != 0;
}

bool tracked(int fd) {
    return fdHas(fd, kFdNode | kFdEpoll);
}

// fcntl's third argument is an int or a pointer; both travel in one register.
template <typename Fn>
int fcntlVia(Fn fn, int fd, int cmd, void* arg) {
    const bool dup = cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC;
    if (__builtin_expect(!dup || !tracked(fd), 1)) {
        return fn(fd, cmd, arg);
    }
    const int result = fn(fd, cmd, arg);
    if (result >= 0) {
        aovrec::recordDup(0, fd, result);
    }
    return result;
}

int realIoctl(int fd, unsigned long request, void* arg) {
    static int (*real)(int, unsigned long, ...) = nullptr;
    auto* fn = next(&real, "ioctl");
    return fn(fd, request, arg);
}

__attribute__((constructor)) void startRecorder() {
    aovrec::configureFromEnvironment();
}

// After the program's own exit handlers (whose calls on the node are
// recorded too): what the writer thread still has queued goes to the file.
__attribute__((destructor)) void finishRecorder() {
    aovrec::drain();
}

}  // namespace

#define AOVREC_MODE(flags)                           \
    mode_t mode = 0;                                 \
    if (needsMode(flags)) {                          \
        va_list ap;                                  \
        va_start(ap, flags);                         \
        mode = static_cast<mode_t>(va_arg(ap, int)); \
        va_end(ap);                                  \
    }

extern "C" {

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    AOVREC_MODE(flags);
    AOVREC_NEXT(open);
    return openVia(AT_FDCWD, path, flags, mode, [&] { return fn(path, flags, mode); });
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
    AOVREC_MODE(flags);
    AOVREC_NEXT(open64);
    return openVia(AT_FDCWD, path, flags, mode, [&] { return fn(path, flags, mode); });
}

__attribute__((visibility("default"))) int openat(int dirfd, const char* path, int flags, ...) {
    AOVREC_MODE(flags);
    AOVREC_NEXT(openat);
    return openVia(dirfd, path, flags, mode, [&] { return fn(dirfd, path, flags, mode); });
}

__attribute__((visibility("default"))) int openat64(int dirfd, const char* path, int flags, ...) {
    AOVREC_MODE(flags);
    AOVREC_NEXT(openat64);
    return openVia(dirfd, path, flags, mode, [&] { return fn(dirfd, path, flags, mode); });
}

#if defined(__GLIBC__) || defined(__BIONIC__)
// The checked forms that fortified callers reach.
int __open_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);

__attribute__((visibility("default"))) int __open_2(const char* path, int flags) {
    AOVREC_NEXT(__open_2);
    return openVia(AT_FDCWD, path, flags, 0, [&] { return fn(path, flags); });
}

__attribute__((visibility("default"))) int __openat_2(int dirfd, const char* path, int flags) {
    AOVREC_NEXT(__openat_2);
    return openVia(dirfd, path, flags, 0, [&] { return fn(dirfd, path, flags); });
}
#endif

#ifdef __GLIBC__
int __open64_2(const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);

__attribute__((visibility("default"))) int __open64_2(const char* path, int flags) {
    AOVREC_NEXT(__open64_2);
    return openVia(AT_FDCWD, path, flags, 0, [&] { return fn(path, flags); });
}

__attribute__((visibility("default"))) int __openat64_2(int dirfd, const char* path, int flags) {
    AOVREC_NEXT(__openat64_2);
    return openVia(dirfd, path, flags, 0, [&] { return fn(dirfd, path, flags); });
}
#endif

__attribute__((visibility("default"))) int close(int fd) {
    AOVREC_NEXT(close);
    if (__builtin_expect(!fdHas(fd, kFdNode | kFdEpoll), 1)) {
        return fn(fd);
    }
    const bool node = aovrec::forgetOnClose(fd);
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(fd);
    if (node) {
        aovrec::recordClose(begin, fd, result, errno);
    }
    return result;
}

#ifdef __BIONIC__
__attribute__((visibility("default"))) int ioctl(int fd, int request, ...) {
#else
__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
#endif
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return aovrec::ioctlHook(realIoctl, fd, static_cast<unsigned long>(request), arg);
}

__attribute__((visibility("default"))) int poll(pollfd* fds, nfds_t n, int timeout) {
    AOVREC_NEXT(poll);
    if (__builtin_expect(!nodeOpen(), 1)) {
        return fn(fds, n, timeout);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(fds, n, timeout);
    aovrec::recordPoll(aovrec::WaitKind::kPoll, begin, fds, n, timeout, result, errno);
    return result;
}

__attribute__((visibility("default"))) int ppoll(pollfd* fds, nfds_t n, const timespec* ts,
                                                 const sigset_t* mask) {
    AOVREC_NEXT(ppoll);
    if (__builtin_expect(!nodeOpen(), 1)) {
        return fn(fds, n, ts, mask);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(fds, n, ts, mask);
    const int err = errno;
    aovrec::recordPoll(aovrec::WaitKind::kPpoll, begin, fds, n, aovrec::timeoutMs(ts), result, err);
    return result;
}

__attribute__((visibility("default"))) int select(int nfds, fd_set* read, fd_set* write,
                                                  fd_set* except, timeval* tv) {
    AOVREC_NEXT(select);
    aovrec::SelectSets asked;
    if (__builtin_expect(!nodeOpen(), 1) ||
        !aovrec::copySelectSets(nfds, read, write, except, &asked)) {
        return fn(nfds, read, write, except, tv);
    }
    // select changes the timeout it is given: read before the call.
    timeval t{};
    int timeout = -1;
    if (tv != nullptr && aovrec::safeCopy(&t, tv, sizeof(t)) && t.tv_sec >= 0) {
        timeout =
            t.tv_sec > 2147482 ? 2147483647 : static_cast<int>(t.tv_sec * 1000 + t.tv_usec / 1000);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(nfds, read, write, except, tv);
    aovrec::recordSelect(aovrec::WaitKind::kSelect, begin, nfds, asked, read, write, except,
                         timeout, result, errno);
    return result;
}

__attribute__((visibility("default"))) int pselect(int nfds, fd_set* read, fd_set* write,
                                                   fd_set* except, const timespec* ts,
                                                   const sigset_t* mask) {
    AOVREC_NEXT(pselect);
    aovrec::SelectSets asked;
    if (__builtin_expect(!nodeOpen(), 1) ||
        !aovrec::copySelectSets(nfds, read, write, except, &asked)) {
        return fn(nfds, read, write, except, ts, mask);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(nfds, read, write, except, ts, mask);
    const int err = errno;
    aovrec::recordSelect(aovrec::WaitKind::kPselect, begin, nfds, asked, read, write, except,
                         aovrec::timeoutMs(ts), result, err);
    return result;
}

__attribute__((visibility("default"))) int epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
    AOVREC_NEXT(epoll_ctl);
    if (__builtin_expect(!fdHas(fd, kFdNode), 1)) {
        return fn(epfd, op, fd, event);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const aovrec::WatchBefore before = aovrec::watchBeforeCtl(epfd, op, fd, event);
    const int result = fn(epfd, op, fd, event);
    aovrec::recordEpollCtl(begin, epfd, op, fd, event, result, errno, before);
    return result;
}

__attribute__((visibility("default"))) int epoll_wait(int epfd, epoll_event* events, int max,
                                                      int timeout) {
    AOVREC_NEXT(epoll_wait);
    // A wait that began before the node was registered is recorded too when
    // it returns after: it may be the one that reports the node ready.
    const bool watched = fdHas(epfd, kFdEpoll);
    const uint64_t begin = watched ? aovrec::monotonicNs() : 0;
    const int result = fn(epfd, events, max, timeout);
    if (__builtin_expect(watched || fdHas(epfd, kFdEpoll), 0)) {
        aovrec::recordEpollWait(aovrec::WaitKind::kEpollWait, begin, epfd, events, timeout, result,
                                errno);
    }
    return result;
}

__attribute__((visibility("default"))) int epoll_pwait(int epfd, epoll_event* events, int max,
                                                       int timeout, const sigset_t* mask) {
    AOVREC_NEXT(epoll_pwait);
    // A wait that began before the node was registered is recorded too when
    // it returns after: it may be the one that reports the node ready.
    const bool watched = fdHas(epfd, kFdEpoll);
    const uint64_t begin = watched ? aovrec::monotonicNs() : 0;
    const int result = fn(epfd, events, max, timeout, mask);
    if (__builtin_expect(watched || fdHas(epfd, kFdEpoll), 0)) {
        aovrec::recordEpollWait(aovrec::WaitKind::kEpollPwait, begin, epfd, events, timeout, result,
                                errno);
    }
    return result;
}

#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 35)
__attribute__((visibility("default"))) int epoll_pwait2(int epfd, epoll_event* events, int max,
                                                        const timespec* timeout,
                                                        const sigset_t* mask) {
    AOVREC_NEXT(epoll_pwait2);
    const bool watched = fdHas(epfd, kFdEpoll);
    const uint64_t begin = watched ? aovrec::monotonicNs() : 0;
    const int result = fn(epfd, events, max, timeout, mask);
    if (__builtin_expect(watched || fdHas(epfd, kFdEpoll), 0)) {
        const int err = errno;
        aovrec::recordEpollWait(aovrec::WaitKind::kEpollPwait2, begin, epfd, events,
                                aovrec::timeoutMs(timeout), result, err);
    }
    return result;
}
#endif

__attribute__((visibility("default"))) int dup(int fd) {
    AOVREC_NEXT(dup);
    if (__builtin_expect(!tracked(fd), 1)) {
        return fn(fd);
    }
    const int result = fn(fd);
    if (result >= 0) {
        aovrec::recordDup(0, fd, result);
    }
    return result;
}

__attribute__((visibility("default"))) int dup2(int from, int to) {
    AOVREC_NEXT(dup2);
    if (__builtin_expect(!tracked(from) && !tracked(to), 1)) {
        return fn(from, to);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(from, to);
    if (result >= 0) {
        aovrec::recordDup(begin, from, result);
    }
    return result;
}

__attribute__((visibility("default"))) int dup3(int from, int to, int flags) {
    AOVREC_NEXT(dup3);
    if (__builtin_expect(!tracked(from) && !tracked(to), 1)) {
        return fn(from, to, flags);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(from, to, flags);
    if (result >= 0) {
        aovrec::recordDup(begin, from, result);
    }
    return result;
}

__attribute__((visibility("default"))) int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    static int (*real)(int, int, ...) = nullptr;
    auto* fn = next(&real, "fcntl");
    return fcntlVia(fn, fd, cmd, arg);
}

#ifdef __GLIBC__
int fcntl64(int fd, int cmd, ...);
__attribute__((visibility("default"))) int fcntl64(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    static int (*real)(int, int, ...) = nullptr;
    auto* fn = next(&real, "fcntl64");
    return fcntlVia(fn, fd, cmd, arg);
}
#endif

#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
__attribute__((visibility("default"))) int close_range(unsigned first, unsigned last, int flags) {
    AOVREC_NEXT(close_range);
    if (__builtin_expect(!nodeOpen(), 1) || (flags & CLOSE_RANGE_CLOEXEC) != 0) {
        return fn(first, last, flags);
    }
    // Forgotten before the call: a number it frees may be reused at once by
    // another thread.
    constexpr int kMax = 64;
    int fds[kMax];
    const int n = aovrec::forgetRange(first, last, fds, kMax);
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(first, last, flags);
    aovrec::recordCloseRange(begin, fds, n, result, errno);
    return result;
}
#endif

}  // extern "C"
