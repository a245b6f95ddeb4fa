#include "Descriptors.h"

namespace aovrec {

std::atomic<uint8_t> g_fd_flags[kMaxTrackedFd];
std::atomic<int> g_node_fds{0};

namespace {

enum : uint8_t { kUnknown = 0, kDevice = 1, kFile = 2 };

// Written before `kind` (release), read after it (acquire): a reader sees
// either no identity or a whole one.
struct Identity {
    std::atomic<uint64_t> a{0};
    std::atomic<uint64_t> b{0};
    std::atomic<uint8_t> kind{kUnknown};
};
Identity g_ids[kNodePaths];

struct Watch {
    int epfd = -1;
    int fd = -1;
    uint64_t data = 0;
};
Watch g_watches[kMaxWatches];

}  // namespace

void identityReset() {
    for (Identity& id : g_ids) {
        id.kind.store(kUnknown, std::memory_order_release);
    }
}

void identityLearn(int index, const struct stat& info) {
    Identity& id = g_ids[index];
    if (S_ISCHR(info.st_mode)) {
        id.a.store(static_cast<uint64_t>(info.st_rdev), std::memory_order_relaxed);
        id.b.store(0, std::memory_order_relaxed);
        id.kind.store(kDevice, std::memory_order_release);
    } else {
        id.a.store(static_cast<uint64_t>(info.st_dev), std::memory_order_relaxed);
        id.b.store(static_cast<uint64_t>(info.st_ino), std::memory_order_relaxed);
        id.kind.store(kFile, std::memory_order_release);
    }
}

bool identityFromPath(int index, const char* path) {
    struct stat info {};
    if (path == nullptr || path[0] == '\0' || ::stat(path, &info) != 0) {
        return false;
    }
    identityLearn(index, info);
    return true;
}

bool identityMatches(const struct stat& info) {
    for (const Identity& id : g_ids) {
        const uint8_t kind = id.kind.load(std::memory_order_acquire);
        if (kind == kDevice && S_ISCHR(info.st_mode) &&
            id.a.load(std::memory_order_relaxed) == static_cast<uint64_t>(info.st_rdev)) {
            return true;
        }
        if (kind == kFile && !S_ISCHR(info.st_mode) &&
            id.a.load(std::memory_order_relaxed) == static_cast<uint64_t>(info.st_dev) &&
            id.b.load(std::memory_order_relaxed) == static_cast<uint64_t>(info.st_ino)) {
            return true;
        }
    }
    return false;
}

void markNode(int fd) {
    if (fd < 0 || fd >= kMaxTrackedFd) {
        return;
    }
    if ((g_fd_flags[fd].fetch_or(kFdNode) & kFdNode) == 0) {
        g_node_fds.fetch_add(1);
    }
}

uint8_t forgetFd(int fd) {
    if (fd < 0 || fd >= kMaxTrackedFd) {
        return 0;
    }
    const uint8_t flags = g_fd_flags[fd].exchange(0);
    if ((flags & kFdNode) != 0) {
        g_node_fds.fetch_sub(1);
    }
    return flags;
}

bool followDup(int from, int to) {
    if (to < 0 || to >= kMaxTrackedFd || from == to) {
        return fdHas(to, kFdNode);
    }
    const uint8_t flags =
        from >= 0 && from < kMaxTrackedFd ? g_fd_flags[from].load(std::memory_order_relaxed) : 0;
    const uint8_t old = g_fd_flags[to].exchange(flags);
    const int change = ((flags & kFdNode) != 0 ? 1 : 0) - ((old & kFdNode) != 0 ? 1 : 0);
    if (change != 0) {
        g_node_fds.fetch_add(change);
    }
    return (flags & kFdNode) != 0;
}

int nodeFdsIn(unsigned first, unsigned last, int* out, int max) {
    int n = 0;
    if (g_node_fds.load(std::memory_order_relaxed) == 0) {
        return 0;
    }
    const unsigned end = last < static_cast<unsigned>(kMaxTrackedFd) - 1
                             ? last
                             : static_cast<unsigned>(kMaxTrackedFd) - 1;
    for (unsigned fd = first; fd <= end && n < max; ++fd) {
        if (fdHas(static_cast<int>(fd), kFdNode)) {
            out[n++] = static_cast<int>(fd);
        }
    }
    return n;
}

bool watchSetLocked(int epfd, int fd, uint64_t data) {
    Watch* slot = nullptr;
    for (Watch& w : g_watches) {
        if (w.epfd == epfd && w.fd == fd) {
            slot = &w;
        }
    }
    for (Watch& w : g_watches) {
        if (slot == nullptr && w.epfd < 0) {
            slot = &w;
        }
    }
    if (slot == nullptr) {
        return false;
    }
    *slot = Watch{epfd, fd, data};
    if (epfd >= 0 && epfd < kMaxTrackedFd) {
        g_fd_flags[epfd].fetch_or(kFdEpoll);
    }
    return true;
}

void watchRemoveLocked(int epfd, int fd) {
    for (Watch& w : g_watches) {
        if (w.epfd == epfd && w.fd == fd) {
            w = Watch{};
        }
    }
}

bool watchDataLocked(int epfd, int fd, uint64_t* data) {
    for (const Watch& w : g_watches) {
        if (w.epfd == epfd && w.fd == fd) {
            *data = w.data;
            return true;
        }
    }
    return false;
}

void unmarkEpoll(int epfd) {
    if (epfd >= 0 && epfd < kMaxTrackedFd) {
        g_fd_flags[epfd].fetch_and(static_cast<uint8_t>(~kFdEpoll));
    }
}

void watchForgetLocked(int epfd, int fd) {
    for (Watch& w : g_watches) {
        if ((epfd >= 0 && w.epfd == epfd) || (fd >= 0 && w.fd == fd)) {
            w = Watch{};
        }
    }
}

int watchFindLocked(int epfd, uint64_t data) {
    for (const Watch& w : g_watches) {
        if (w.epfd == epfd && w.fd >= 0 && w.data == data) {
            return w.fd;
        }
    }
    return -1;
}

void watchClearLocked() {
    for (Watch& w : g_watches) {
        w = Watch{};
    }
}

}  // namespace aovrec
