#pragma once

// The recorder's core: the recording of the calls made on the AOV node's
// descriptors. The preload library's exported functions are thin wrappers
// over these (see Preload.cpp); tests and benchmarks call them directly.
//
// A call on any other descriptor costs one lookup in a byte array and the
// real call. Recorded calls keep their results and errno as the process saw
// them. The process's memory is read only through a copy that cannot fault,
// and, but for an ioctl's argument record (which the driver may change), only
// after the call. A file that cannot be written, or an output that stops
// taking records, stops the recording (said once) and the process goes on.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Descriptors.h"
#include "RecordEncoder.h"
#include "aovsession/SessionFormat.h"

namespace aovrec {

// Environment of a recorded process.
constexpr char kEnvFile[] = "AOV_REC_FILE";        // session file; "%p" becomes the pid
constexpr char kEnvContent[] = "AOV_REC_CONTENT";  // all | written (default) | none
constexpr char kEnvNode[] = "AOV_REC_NODE";        // node path, instead of the default ones
constexpr char kEnvCompress[] = "AOV_REC_ZSTD";    // 0 to write uncompressed
// The pid whose children own the session file: any other process (a forked
// or exec'd child) records into FILE.PID instead. Set by aov-rec record;
// when absent, the first process to read the environment sets it.
constexpr char kEnvParent[] = "AOV_REC_PARENT";
// A file the recorder appends "start PID PATH" and "stop PID REASON" lines
// to, instead of telling standard error (aov-rec record reads it).
constexpr char kEnvStatus[] = "AOV_REC_STATUS";
// The longest a recorded call waits for the writer (ms; default 200).
constexpr char kEnvStallMs[] = "AOV_REC_STALL_MS";

extern std::atomic<bool> g_armed;  // configured and not failed

struct RecorderConfig {
    const char* file = nullptr;  // session file path; null: record nothing
    ContentMode content = ContentMode::kWritten;
    bool compress = true;
    const char* node = nullptr;     // the node's path; null: "/dev/kelo_aov" and
    const char* dev_dir = nullptr;  // DIR/kelo_aov for this AOV_DEV_DIR, if set
    const char* status = nullptr;   // status file (see kEnvStatus)
    bool owner = true;              // this process writes `file` itself
    int stall_limit_ms = 0;         // 0: the default
};

// Sets the recorder up (paths are copied). Called by the preload library's
// constructor from the environment, or directly by tests and benchmarks. A
// second call starts a new recording at the next node open.
void configure(const RecorderConfig& config);
void configureFromEnvironment();

// The recording as it stands once everything queued is written.
struct RecorderStats {
    bool started = false;
    bool failed = false;
    uint64_t written = 0;
    uint64_t dropped = 0;          // calls made from inside the recorder (a signal handler)
    uint64_t handed_off = 0;       // records handed to the writer thread
    uint64_t content_dropped = 0;  // dequeues whose areas found no free buffer
    uint64_t areas_read = 0;
    uint64_t areas_unreadable = 0;
    uint64_t pipe_copies = 0;
};
RecorderStats stats();
// The session file this process writes (empty before it starts).
const char* sessionPath();

// Waits, for a few seconds at most, until every record queued for the writer
// thread is written. True when none is left. Called at a normal exit, by
// stats() and before a new recording starts; a crash loses what is queued.
bool drain();

// Runs `fn` with the recorder's lock held (for tests of fork).
void withRecorderLocked(void (*fn)(void*), void* arg);

// The recorded forms of the calls. The wrapper makes the real call and hands
// the outcome to one of these; each leaves errno as the real call left it.
//
// Any open: records it when `result` is a descriptor of the node, or when a
// failed open named the node's path.
void recordOpen(uint64_t begin_ns, int dirfd, const char* path, int flags, mode_t mode, int result,
                int err);
// Before a node or epoll descriptor is closed: forgets it. True for a node.
bool forgetOnClose(int fd);
void recordClose(uint64_t begin_ns, int fd, int result, int err);
// After a successful dup, dup2, dup3 or F_DUPFD: `to` now is what `from` is.
// A node descriptor that `to` replaced is recorded as closed.
void recordDup(uint64_t begin_ns, int from, int to);
// Before close_range(first, last) without CLOSE_RANGE_CLOEXEC: the node
// descriptors in the range (up to `max`), forgotten; their closes are
// recorded by recordCloseRange once the call succeeded.
int forgetRange(unsigned first, unsigned last, int* fds, int max);
void recordCloseRange(uint64_t begin_ns, const int* fds, int n, int result, int err);
// Readiness waits. `fds`, `events` and the timeouts are the caller's and
// read only through safeCopy, after the call.
void recordPoll(WaitKind kind, uint64_t begin_ns, const pollfd* fds, nfds_t n, int timeout_ms,
                int result, int err);
// Before an epoll_ctl that adds or changes a node descriptor's registration
// (`event` copied through safeCopy): the registration is known before the
// call, so that a wait the call itself wakes is recorded and finds the node.
// What it replaced is kept for recordEpollCtl to put back if the call fails.
struct WatchBefore {
    bool taken = false;
    bool had_epoll = false;  // the epoll descriptor already watched a node
    bool had_watch = false;  // this node descriptor was registered, with `data`
    uint64_t data = 0;
};
WatchBefore watchBeforeCtl(int epfd, int op, int fd, const epoll_event* event);
void recordEpollCtl(uint64_t begin_ns, int epfd, int op, int fd, const epoll_event* event,
                    int result, int err, const WatchBefore& before = WatchBefore());
void recordEpollWait(WaitKind kind, uint64_t begin_ns, int epfd, const epoll_event* events,
                     int timeout_ms, int result, int err);
// select and pselect: `asked` holds the three sets as they were passed
// (copied before the call), `nfds` clipped to FD_SETSIZE. `given` comes
// first: the bounds sanitizer leaves a structure's last array unchecked (it
// may be a flexible one), and an index past the three sets is to be caught.
struct SelectSets {
    bool given[3] = {false, false, false};
    fd_set sets[3];
};
// Copies the sets the caller passed; true when any holds a node descriptor.
bool copySelectSets(int nfds, fd_set* read, fd_set* write, fd_set* except, SelectSets* out);
void recordSelect(WaitKind kind, uint64_t begin_ns, int nfds, const SelectSets& asked, fd_set* read,
                  fd_set* write, fd_set* except, int timeout_ms, int result, int err);
// A timeout in ms as poll's, capped at INT_MAX; -1 for none or unreadable.
int timeoutMs(const struct timespec* ts);

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
