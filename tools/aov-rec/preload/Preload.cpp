// The exported side of the preload library: open, close, ioctl and the
// readiness calls, each handing the AOV node's descriptors to the recorder
// and every other call straight to the next definition (the C library's).

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
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
    if (__builtin_expect(!g_armed.load(std::memory_order_relaxed), 1) ||
        !aovrec::isNodePath(path)) {
        return call();
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = call();
    const int err = errno;
    aovrec::recordOpen(begin, dirfd, path, flags, mode, result, err);
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
    if (__builtin_expect(g_node_fds.load(std::memory_order_relaxed) == 0, 1) ||
        !aovrec::anyNode(fds, n)) {
        return fn(fds, n, timeout);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(fds, n, timeout);
    aovrec::recordPoll(aovrec::WaitKind::Poll, begin, fds, n, timeout, result, errno);
    return result;
}

__attribute__((visibility("default"))) int ppoll(pollfd* fds, nfds_t n, const timespec* ts,
                                                 const sigset_t* mask) {
    AOVREC_NEXT(ppoll);
    if (__builtin_expect(g_node_fds.load(std::memory_order_relaxed) == 0, 1) ||
        !aovrec::anyNode(fds, n)) {
        return fn(fds, n, ts, mask);
    }
    // In ms, as poll's, capped at INT_MAX.
    int timeout = -1;
    if (ts != nullptr) {
        timeout = ts->tv_sec > 2147482
                      ? 2147483647
                      : static_cast<int>(ts->tv_sec * 1000 + ts->tv_nsec / 1000000);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(fds, n, ts, mask);
    aovrec::recordPoll(aovrec::WaitKind::Ppoll, begin, fds, n, timeout, result, errno);
    return result;
}

__attribute__((visibility("default"))) int epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
    AOVREC_NEXT(epoll_ctl);
    if (__builtin_expect(!fdHas(fd, kFdNode), 1)) {
        return fn(epfd, op, fd, event);
    }
    const uint64_t begin = aovrec::monotonicNs();
    const int result = fn(epfd, op, fd, event);
    aovrec::recordEpollCtl(begin, epfd, op, fd, event, result, errno);
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
        aovrec::recordEpollWait(aovrec::WaitKind::EpollWait, begin, epfd, events, timeout, result,
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
        aovrec::recordEpollWait(aovrec::WaitKind::EpollPwait, begin, epfd, events, timeout, result,
                                errno);
    }
    return result;
}

}  // extern "C"
