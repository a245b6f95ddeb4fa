#pragma once

// The recorder's core: which descriptors belong to the AOV node, and the
// recording of the calls made on them. The preload library's exported
// open/close/ioctl/poll/epoll functions are thin wrappers over these (see
// Preload.cpp); the benchmarks link the core directly.
//
// A call on any other descriptor costs one lookup in a byte array and the
// real call. Recorded calls keep their results and errno as the process saw
// them; a file that cannot be written stops the recording (said once on
// standard error) and the process goes on. A dequeue with data areas is
// written by a writer thread of the recorder's own, in call order with the
// other records; drain() waits until it has written everything queued.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "SessionFormat.h"

#if defined(__GNUC__)
#define AOVREC_LIKELY(x) __builtin_expect(!!(x), 1)
#else
#define AOVREC_LIKELY(x) (x)
#endif

namespace aovrec {

// Environment of a recorded process.
constexpr char kEnvFile[] = "AOV_REC_FILE";        // session file; "%p" becomes the pid
constexpr char kEnvContent[] = "AOV_REC_CONTENT";  // all | written (default) | none
constexpr char kEnvNode[] = "AOV_REC_NODE";        // node path, instead of the default ones
constexpr char kEnvCompress[] = "AOV_REC_ZSTD";    // 0 to write uncompressed

constexpr int kMaxTrackedFd = 65536;
constexpr uint8_t kFdNode = 1;   // a descriptor of the node
constexpr uint8_t kFdEpoll = 2;  // an epoll descriptor watching a node descriptor

extern std::atomic<uint8_t> g_fd_flags[kMaxTrackedFd];
extern std::atomic<int> g_node_fds;  // node descriptors open
extern std::atomic<bool> g_armed;    // configured and not failed

inline bool fdHas(int fd, uint8_t flag) {
    return static_cast<unsigned>(fd) < static_cast<unsigned>(kMaxTrackedFd) &&
           (g_fd_flags[fd].load(std::memory_order_relaxed) & flag) != 0;
}

struct RecorderConfig {
    const char* file = nullptr;  // session file path; null: record nothing
    ContentMode content = ContentMode::Written;
    bool compress = true;
    const char* node = nullptr;     // the node's path; null: "/dev/kelo_aov" and
    const char* dev_dir = nullptr;  // DIR/kelo_aov for this AOV_DEV_DIR, if set
};

// Sets the recorder up (paths are copied). Called by the preload library's
// constructor from the environment, or directly by benchmarks. A second call
// starts a new recording at the next node open.
void configure(const RecorderConfig& config);
void configureFromEnvironment();
// The recording as it stands once everything queued is written (for tests
// and benchmarks): whether the file was opened, how many records were
// written or dropped, how many went through the writer thread, and how the
// dequeues' data areas were read.
struct RecorderStats {
    bool started = false;
    bool failed = false;
    uint64_t written = 0;
    uint64_t dropped = 0;        // calls made from inside the recorder (a signal handler)
    uint64_t handed_off = 0;     // records queued for the writer thread
    uint64_t areas_checked = 0;  // data areas read through process_vm_readv
    uint64_t areas_direct = 0;   // data areas copied directly (see putAreas)
};
RecorderStats stats();

// Waits, for a few seconds at most, until every record queued for the writer
// thread is written. True when none is left. Called at a normal exit, by
// stats() and before a new recording starts; a crash loses what is queued.
bool drain();

bool isNodePath(const char* path);

uint64_t monotonicNs();

// The recorded forms of the calls. The wrapper tests whether the call
// concerns the node, takes the time, makes the real call, and hands the
// outcome to one of these; each leaves errno as the real call left it.
void recordOpen(uint64_t begin_ns, int dirfd, const char* path, int flags, mode_t mode, int result,
                int err);
// Before a node or epoll descriptor is closed: forgets it. True for a node.
bool forgetOnClose(int fd);
void recordClose(uint64_t begin_ns, int fd, int result, int err);
void recordPoll(WaitKind kind, uint64_t begin_ns, const pollfd* fds, nfds_t n, int timeout_ms,
                int result, int err);
void recordEpollCtl(uint64_t begin_ns, int epfd, int op, int fd, const epoll_event* event,
                    int result, int err);
void recordEpollWait(WaitKind kind, uint64_t begin_ns, int epfd, const epoll_event* events,
                     int timeout_ms, int result, int err);
// Whether any of the descriptors is a node's.
bool anyNode(const pollfd* fds, nfds_t n);

using IoctlFn = int (*)(int fd, unsigned long request, void* arg);
// An ioctl on a node descriptor: its argument record before the call, the
// call, its answer and, for a dequeue, the data areas.
int trackedIoctl(IoctlFn real, int fd, unsigned long request, void* arg);

inline int ioctlHook(IoctlFn real, int fd, unsigned long request, void* arg) {
    if (AOVREC_LIKELY(!fdHas(fd, kFdNode))) {
        return real(fd, request, arg);
    }
    return trackedIoctl(real, fd, request, arg);
}

}  // namespace aovrec
