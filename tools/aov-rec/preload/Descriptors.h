#pragma once

// Which descriptors of the process are the AOV node's, and which epoll
// descriptors watch one. The node is known by its identity, not its path:
// a character device by its device number, any other file (a FUSE node) by
// its file system and inode, taken with fstat after a successful open. So
// every path that reaches it (a symlink, "//dev/kelo_aov", /proc/self/fd/N,
// openat relative to a directory) counts, and duplicates are followed.

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#if defined(__GNUC__)
#define AOVREC_LIKELY(x) __builtin_expect(!!(x), 1)
#else
#define AOVREC_LIKELY(x) (x)
#endif

namespace aovrec {

constexpr int kMaxTrackedFd = 65536;
constexpr uint8_t kFdNode = 1;   // a descriptor of the node
constexpr uint8_t kFdEpoll = 2;  // an epoll descriptor watching a node descriptor

extern std::atomic<uint8_t> g_fd_flags[kMaxTrackedFd];
extern std::atomic<int> g_node_fds;  // node descriptors open

inline bool fdHas(int fd, uint8_t flag) {
    return static_cast<unsigned>(fd) < static_cast<unsigned>(kMaxTrackedFd) &&
           (g_fd_flags[fd].load(std::memory_order_relaxed) & flag) != 0;
}

// The identities the recorder watches: one per configured path (the node,
// and DIR/kelo_aov under AOV_DEV_DIR). A path that does not exist when it is
// configured is learnt at the first successful open that names it.
constexpr int kNodePaths = 2;
void identityReset();
// Sets path `index`'s identity from a stat of it; false when it does not exist.
bool identityFromPath(int index, const char* path);
void identityLearn(int index, const struct stat& info);
bool identityMatches(const struct stat& info);

// Marks `fd` as a node descriptor.
void markNode(int fd);
// Forgets `fd` (closed, or replaced by dup2); returns its old flags.
uint8_t forgetFd(int fd);
// `to` is now a duplicate of `from`: it takes over `from`'s flags (and
// loses its own). True when `to` is a node descriptor now.
bool followDup(int from, int to);

// Node descriptors in [first, last], up to `max` of them, into `out`.
int nodeFdsIn(unsigned first, unsigned last, int* out, int max);

// Epoll registrations of node descriptors, and the data each returns with
// its events. Guarded by the recorder's lock (the "Locked" functions).
constexpr int kMaxWatches = 32;
// False when all kMaxWatches are taken: the registration is not followed.
bool watchSetLocked(int epfd, int fd, uint64_t data);
void watchRemoveLocked(int epfd, int fd);
// Whether `fd` is registered with `epfd`, and with which data.
bool watchDataLocked(int epfd, int fd, uint64_t* data);
// `epfd` no longer counts as an epoll descriptor watching the node.
void unmarkEpoll(int epfd);
// Forgets the watches of an epoll descriptor or of a node descriptor (-1: none).
void watchForgetLocked(int epfd, int fd);
// The node descriptor registered with `epfd` whose data is `data`, or -1.
int watchFindLocked(int epfd, uint64_t data);
void watchClearLocked();

}  // namespace aovrec
