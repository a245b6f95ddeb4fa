#include "Recorder.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "WriterQueue.h"
#include "aovbase/PosixMutex.h"
#include "aovsession/SessionWriter.h"
#include "kelo_aov.h"

namespace aovrec {

std::atomic<bool> g_armed{false};

namespace {

constexpr size_t kMaxConfigPath = 4096;
// Every record but a dequeue with data areas fits this (an open of the
// longest path is 4,137 bytes, an ioctl with both records 2,090).
constexpr size_t kSmallRecord = 8192;
// How long drain() waits for the writer thread.
constexpr int kDrainLimitSeconds = 10;

enum class State { kOff, kArmed, kRecording, kFailed };

// Records are built under `lock`, in the order the calls reach it, and
// handed to the writer queue in that order. The configured paths are written
// under `lock` by configure and read without it by the wrapped calls (a
// process configures its recorder before it records).
struct Recorder {
    aov::PosixMutex lock;
    std::atomic<State> state{State::kOff};
    char file[kMaxConfigPath] = {};
    char node[kMaxConfigPath] = {};
    char dev_node[kMaxConfigPath] = {};
    char status[kMaxConfigPath] = {};
    char path[kMaxConfigPath + 32] AOV_GUARDED_BY(lock) = {};  // the file this process writes
    ContentMode content AOV_GUARDED_BY(lock) = ContentMode::kWritten;
    bool compress AOV_GUARDED_BY(lock) = true;
    bool owner AOV_GUARDED_BY(lock) = true;
    pid_t owner_pid AOV_GUARDED_BY(lock) = 0;
    int out_fd AOV_GUARDED_BY(lock) = -1;
    uint8_t small[kSmallRecord] AOV_GUARDED_BY(lock) = {};
    SessionWriter writer AOV_GUARDED_BY(lock);
    bool fork_locked AOV_GUARDED_BY(lock) = false;   // the fork's prepare handler took `lock`
    bool watches_full AOV_GUARDED_BY(lock) = false;  // a registration found no room, said
    std::atomic<bool> stopping{false};               // the stop has been said
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> content_dropped{0};
};

// Never destroyed: the writer thread may still run while the process exits.
union RecorderRoom {
    constexpr RecorderRoom() : rec() {}
    ~RecorderRoom() {}
    Recorder rec;
};
RecorderRoom g_room;
Recorder& g_rec = g_room.rec;

// Set while a thread is inside the recorder: a signal handler's call on the
// node then passes through unrecorded instead of waiting for the lock.
__thread bool t_inside __attribute__((tls_model("initial-exec"))) = false;

void copyPath(char* to, const char* from) {
    to[0] = '\0';
    if (from != nullptr && std::strlen(from) < kMaxConfigPath) {
        std::strcpy(to, from);
    }
}

void say(const char* a, const char* b = "", const char* c = "", const char* d = "") {
    for (const char* part : {"aov-rec: ", a, b, c, d, "\n"}) {
        const ssize_t ignored = ::write(2, part, std::strlen(part));
        (void)ignored;
    }
}

// Appends one line to the status file at `status`; false when it cannot.
bool appendStatus(const char* status, const char* word, const char* a, const char* b,
                  const char* c) {
    char line[kMaxConfigPath + 256];
    const int n = std::snprintf(line, sizeof(line), "%s %d %s%s%s\n", word,
                                static_cast<int>(::getpid()), a, b, c);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(line)) {
        return false;
    }
    const int fd =
        static_cast<int>(::syscall(SYS_openat, AT_FDCWD, status, O_WRONLY | O_APPEND | O_CLOEXEC));
    if (fd < 0) {
        return false;
    }
    const bool ok = ::syscall(SYS_write, fd, line, static_cast<size_t>(n)) == n;
    ::syscall(SYS_close, fd);
    return ok;
}

// Appends one line to the configured status file; false when it cannot.
bool tellStatus(const char* word, const char* a, const char* b = "", const char* c = "") {
    return g_rec.status[0] != '\0' && appendStatus(g_rec.status, word, a, b, c);
}

// A setting the recorder cannot use turns it off. Under aov-rec record the
// reason goes to its status file, so that record reports a stopped recording
// instead of a program that never opened the node.
void refuseSetting(const char* a, const char* b, const char* c) {
    const char* status = std::getenv(kEnvStatus);
    if (status == nullptr || status[0] == '\0' || !appendStatus(status, "stop", a, b, c)) {
        say(a, b, c);
    }
}

// Stops the recording for good after a failure, saying so once. Called by
// callers and by the writer thread; takes no lock but the queue's.
void fail(const char* what, const char* detail) {
    if (g_rec.stopping.exchange(true)) {
        return;
    }
    // Said before the recording is marked stopped: whoever sees it stopped
    // (a drain, an exit) finds the line already out.
    if (!tellStatus("stop", what, ": ", detail)) {
        say("recording stopped: ", what, ": ", detail);
    }
    g_rec.state.store(State::kFailed);
    g_armed.store(false);
    queueDiscard();
}

void failErrno(const char* what, int err) {
    char reason[128];
    fail(what, ::strerror_r(err, reason, sizeof(reason)));
}

void writeFailed(int err) {
    failErrno("cannot write the session file", err);
}

void drainAtExit() {
    drain();
}

// Chooses the file this process writes: the configured one for its owner,
// FILE.PID for any other process (a forked or exec'd child).
void choosePathLocked() AOV_REQUIRES(g_rec.lock) {
    const pid_t pid = ::getpid();
    size_t at = 0;
    bool has_pid = false;
    char* path = g_rec.path;
    const size_t room = sizeof(g_rec.path);
    for (const char* p = g_rec.file; *p != '\0' && at + 24 < room; ++p) {
        if (p[0] == '%' && p[1] == 'p') {
            at += static_cast<size_t>(std::snprintf(path + at, 12, "%d", static_cast<int>(pid)));
            has_pid = true;
            ++p;
        } else {
            path[at++] = *p;
        }
    }
    path[at] = '\0';
    if (!has_pid && !(g_rec.owner && pid == g_rec.owner_pid)) {
        std::snprintf(path + at, room - at, ".%d", static_cast<int>(pid));
    }
}

// Opens the file and writes its header, at the first call on the node.
// Under the lock.
bool startLocked() AOV_REQUIRES(g_rec.lock) {
    if (g_rec.state.load() == State::kRecording) {
        return true;
    }
    if (g_rec.state.load() != State::kArmed) {
        return false;
    }
    choosePathLocked();
    if (!queueSetUp()) {
        fail(g_rec.path, "no memory for the recorder's buffers");
        return false;
    }
    if (!queueDrain(kDrainLimitSeconds)) {
        fail(g_rec.path, "the previous session file is still being written");
        return false;
    }
    const int fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, g_rec.path,
                                              O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd < 0) {
        failErrno(g_rec.path, errno);
        return false;
    }
    FileHeader header;
    header.content = g_rec.content;
    header.compression = g_rec.compress ? Compression::kZstd : Compression::kNone;
    header.start_ns = monotonicNs();
    header.pid = static_cast<uint32_t>(::getpid());
    const bool may_signal = outputMaySignal(fd);
    size_t work_size = 0;
    uint8_t* work = queueWorkRoom(&work_size);
    int err = 0;
    {
        QuietWrite quiet(may_signal);
        if (!g_rec.writer.begin(fd, header, work, work_size)) {
            err = errno != 0 ? errno : EIO;
        }
    }
    if (err != 0) {
        ::syscall(SYS_close, fd);
        failErrno(g_rec.path, err);
        return false;
    }
    g_rec.out_fd = fd;
    if (!queueAttach(&g_rec.writer, may_signal, writeFailed)) {
        fail(g_rec.path, "cannot start the writer thread");
        return false;
    }
    static bool at_exit = false;
    if (!at_exit) {
        // A normal exit writes what is queued (the preload library drains
        // once more after every other exit handler).
        at_exit = std::atexit(drainAtExit) == 0;
    }
    tellStatus("start", g_rec.path);
    g_rec.state.store(State::kRecording);
    return true;
}

// Takes the lock unless this thread is already inside (a signal handler),
// and starts the file if this is the first call to record. Whether it holds
// the lock is known only at run time: the analysis does not follow it, and
// code under `held()` says the lock is held (assertHeld).
class Scope {
  public:
    Scope() AOV_NO_THREAD_SAFETY_ANALYSIS {
        const State state = g_rec.state.load(std::memory_order_relaxed);
        if (t_inside || (state != State::kRecording && state != State::kArmed)) {
            if (t_inside) {
                g_rec.dropped.fetch_add(1);
            }
            return;
        }
        t_inside = true;
        g_rec.lock.lock();
        held_ = startLocked();
        if (!held_) {
            g_rec.lock.unlock();
            t_inside = false;
        }
    }
    ~Scope() AOV_NO_THREAD_SAFETY_ANALYSIS {
        if (held_) {
            g_rec.lock.unlock();
            t_inside = false;
        }
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    bool held() const { return held_; }

  private:
    bool held_ = false;
};

// Stops the recording of an output that took nothing within the stall
// limit, naming the limit in force.
void failStalled() AOV_REQUIRES(g_rec.lock) {
    char why[128];
    std::snprintf(why, sizeof(why),
                  "the output took nothing within the stall limit, %d ms (a pipe nobody reads?)",
                  queueStallLimit());
    fail(g_rec.path, why);
}

// Hands the small record over; an output that has taken nothing for the
// stall limit stops the recording. Under the lock.
void submitSmallLocked(RecordType type, const ByteWriter& out) AOV_REQUIRES(g_rec.lock) {
    if (out.overflow()) {
        g_rec.dropped.fetch_add(1);
        return;
    }
    if (!queueSmall(type, g_rec.small, out.size())) {
        failStalled();
    }
}

// Follows a registration of the node in epoll; one the table has no room
// for is not followed (waits through it are recorded without the node),
// which is said once.
void watchLocked(int epfd, int fd, uint64_t data) AOV_REQUIRES(g_rec.lock) {
    if (watchSetLocked(epfd, fd, data) || g_rec.watches_full) {
        return;
    }
    g_rec.watches_full = true;
    char count[16];
    std::snprintf(count, sizeof(count), "%d", kMaxWatches);
    say("the node is registered in epoll more than ", count,
        " times at once: waits through the others are recorded without it");
}

// Whether `path` names one of the configured node paths.
bool namesNode(const char* path, int* index) {
    if (path == nullptr) {
        return false;
    }
    if (g_rec.node[0] != '\0' && std::strcmp(path, g_rec.node) == 0) {
        *index = 0;
        return true;
    }
    if (g_rec.dev_node[0] != '\0' && std::strcmp(path, g_rec.dev_node) == 0) {
        *index = 1;
        return true;
    }
    return false;
}

// The lock is taken before fork() and released after it in the parent
// (forkParent) and made afresh in the child: across functions, which the
// analysis cannot follow.
void forkPrepare() AOV_NO_THREAD_SAFETY_ANALYSIS {
    if (!t_inside) {
        g_rec.lock.lock();
        g_rec.fork_locked = true;
    }
    queueForkPrepare();
}

void forkParent() AOV_NO_THREAD_SAFETY_ANALYSIS {
    queueForkParent();
    if (g_rec.fork_locked) {
        g_rec.fork_locked = false;
        g_rec.lock.unlock();
    }
}

// The child: fresh locks, no writer thread, nothing of the parent's queue;
// its own calls on the node go to a file of its own (FILE.PID).
void forkChild() AOV_NO_THREAD_SAFETY_ANALYSIS {
    g_rec.lock.reinitialise();
    g_rec.fork_locked = false;
    queueForkChild();
    threadIdReset();
    if (g_rec.out_fd >= 0) {
        ::syscall(SYS_close, g_rec.out_fd);
        g_rec.out_fd = -1;
    }
    const bool on = g_rec.file[0] != '\0';
    g_rec.stopping.store(false);
    g_rec.state.store(on ? State::kArmed : State::kOff);
    g_armed.store(on);
    g_rec.path[0] = '\0';
}

}  // namespace

void configure(const RecorderConfig& config) {
    g_rec.lock.lock();
    // The previous recording's queued records go to its file, and a writer
    // thread still busy with them (reporting a failure through the status
    // file, say) is done before the paths change under it.
    queueDrain(kDrainLimitSeconds);
    queueQuiesce(kDrainLimitSeconds);
    copyPath(g_rec.file, config.file);
    copyPath(g_rec.node, config.node != nullptr ? config.node : AOV_DEVICE_NODE);
    copyPath(g_rec.status, config.status);
    g_rec.dev_node[0] = '\0';
    if (config.node == nullptr && config.dev_dir != nullptr && config.dev_dir[0] != '\0' &&
        std::strlen(config.dev_dir) + 10 < kMaxConfigPath) {
        std::snprintf(g_rec.dev_node, kMaxConfigPath, "%s/kelo_aov", config.dev_dir);
    }
    identityReset();
    identityFromPath(0, g_rec.node);
    identityFromPath(1, g_rec.dev_node);
    g_rec.content = config.content;
    g_rec.compress = config.compress;
    g_rec.owner = config.owner;
    g_rec.owner_pid = ::getpid();
    queueSetStallLimit(config.stall_limit_ms);
    queueResume();
    watchClearLocked();
    g_rec.watches_full = false;
    if (g_rec.out_fd >= 0) {
        ::syscall(SYS_close, g_rec.out_fd);
        g_rec.out_fd = -1;
    }
    g_rec.path[0] = '\0';
    const bool on = g_rec.file[0] != '\0';
    g_rec.stopping.store(false);
    g_rec.state.store(on ? State::kArmed : State::kOff);
    g_armed.store(on);
    static bool fork_handlers = false;
    if (!fork_handlers) {
        fork_handlers = pthread_atfork(forkPrepare, forkParent, forkChild) == 0;
    }
    g_rec.lock.unlock();
}

void configureFromEnvironment() {
    RecorderConfig config;
    config.file = std::getenv(kEnvFile);
    if (config.file == nullptr || config.file[0] == '\0') {
        return;
    }
    const char* content = std::getenv(kEnvContent);
    if (content != nullptr && content[0] != '\0' && !parseContentMode(content, &config.content)) {
        refuseSetting("AOV_REC_CONTENT must be all, written or none, not ", content,
                      "; recording off");
        return;
    }
    const char* compress = std::getenv(kEnvCompress);
    config.compress = compress == nullptr || std::strcmp(compress, "0") != 0;
    const char* node = std::getenv(kEnvNode);
    config.node = node != nullptr && node[0] != '\0' ? node : nullptr;
    config.dev_dir = std::getenv("AOV_DEV_DIR");
    config.status = std::getenv(kEnvStatus);
    const char* stall = std::getenv(kEnvStallMs);
    if (stall != nullptr && stall[0] != '\0') {
        char* end = nullptr;
        const long ms = std::strtol(stall, &end, 10);
        if (*end != '\0' || ms <= 0 || ms > 600000) {
            refuseSetting("AOV_REC_STALL_MS must be 1 to 600000, not ", stall, "; recording off");
            return;
        }
        config.stall_limit_ms = static_cast<int>(ms);
    }
    // The owner of the file is a child of AOV_REC_PARENT; without one, this
    // process is, and its own children (exec'd or not) are not.
    const char* parent = std::getenv(kEnvParent);
    if (parent != nullptr && parent[0] != '\0') {
        char* end = nullptr;
        const long pid = std::strtol(parent, &end, 10);
        config.owner = *end == '\0' && pid == static_cast<long>(::getppid());
    } else {
        char text[16];
        std::snprintf(text, sizeof(text), "%d", static_cast<int>(::getppid()));
        ::setenv(kEnvParent, text, 1);
    }
    configure(config);
}

bool drain() {
    return queueDrain(kDrainLimitSeconds);
}

RecorderStats stats() {
    RecorderStats s;
    g_rec.lock.lock();
    drain();
    s.started = g_rec.out_fd >= 0;
    s.failed = g_rec.state.load() == State::kFailed;
    s.written = g_rec.writer.records();
    g_rec.lock.unlock();
    s.handed_off = queueHandedOff();
    s.dropped = g_rec.dropped.load();
    s.content_dropped = g_rec.content_dropped.load();
    const CopyCounters copies = copyCounters();
    s.areas_read = copies.areas_read;
    s.areas_unreadable = copies.areas_unreadable;
    s.pipe_copies = copies.pipe_copies;
    return s;
}

// Read once the recording has settled, without the lock: the pointer's text
// changes only when a recording starts.
const char* sessionPath() AOV_NO_THREAD_SAFETY_ANALYSIS {
    return g_rec.path;
}

void withRecorderLocked(void (*fn)(void*), void* arg) {
    g_rec.lock.lock();
    fn(arg);
    g_rec.lock.unlock();
}

void recordOpen(uint64_t begin_ns, int dirfd, const char* path, int flags, mode_t mode, int result,
                int err) {
    if (!g_armed.load(std::memory_order_relaxed)) {
        errno = err;
        return;
    }
    int index = -1;
    bool node = false;
    if (result >= 0) {
        struct stat info {};
        if (::fstat(result, &info) == 0) {
            // The configured path itself re-learns the identity: a node
            // mounted again is a new file system.
            if (namesNode(path, &index)) {
                identityLearn(index, info);
                node = true;
            } else {
                node = identityMatches(info);
            }
        }
    } else if (err != EFAULT) {
        node = namesNode(path, &index);
    }
    if (!node) {
        errno = err;
        return;
    }
    const CallInfo call = callInfo(begin_ns, dirfd, result, err);
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            if (result >= 0) {
                markNode(result);
            }
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(flags));
            out.u32(static_cast<uint32_t>(mode));
            // The kernel has read the path (a failed open of an unreadable
            // one never gets here).
            const size_t length = strnlen(path, kMaxPath);
            out.u16(static_cast<uint16_t>(length));
            out.put(path, length);
            submitSmallLocked(RecordType::kOpen, out);
        }
    }
    errno = err;
}

bool forgetOnClose(int fd) {
    const uint8_t flags = forgetFd(fd);
    if (!t_inside) {
        t_inside = true;
        g_rec.lock.lock();
        watchForgetLocked((flags & kFdEpoll) != 0 ? fd : -1, (flags & kFdNode) != 0 ? fd : -1);
        g_rec.lock.unlock();
        t_inside = false;
    }
    return (flags & kFdNode) != 0;
}

void recordClose(uint64_t begin_ns, int fd, int result, int err) {
    const CallInfo call = callInfo(begin_ns, fd, result, err);
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            submitSmallLocked(RecordType::kClose, out);
        }
    }
    errno = err;
}

void recordDup(uint64_t begin_ns, int from, int to) {
    const int saved = errno;
    const bool replaced_node = fdHas(to, kFdNode) && from != to;
    if (replaced_node) {
        forgetOnClose(to);
        recordClose(begin_ns, to, 0, 0);
    }
    followDup(from, to);
    errno = saved;
}

int forgetRange(unsigned first, unsigned last, int* fds, int max) {
    const int n = nodeFdsIn(first, last, fds, max);
    const unsigned end = last < static_cast<unsigned>(kMaxTrackedFd) - 1
                             ? last
                             : static_cast<unsigned>(kMaxTrackedFd) - 1;
    for (unsigned fd = first; fd <= end; ++fd) {
        if (g_fd_flags[fd].load(std::memory_order_relaxed) != 0) {
            forgetOnClose(static_cast<int>(fd));
        }
    }
    return n;
}

void recordCloseRange(uint64_t begin_ns, const int* fds, int n, int result, int err) {
    if (result == 0) {
        for (int i = 0; i < n; ++i) {
            recordClose(begin_ns, fds[i], 0, 0);
        }
    }
    errno = err;
}

void recordPoll(WaitKind kind, uint64_t begin_ns, const pollfd* fds, nfds_t n, int timeout_ms,
                int result, int err) {
    const CallInfo call = callInfo(begin_ns, -1, result, err);
    // The entries, read in chunks that cannot fault; unreadable: no record
    // (the call failed with EFAULT and touched no descriptor).
    constexpr nfds_t kChunk = 64;
    pollfd chunk[kChunk];
    bool any = false;
    for (nfds_t at = 0; at < n && !any; at += kChunk) {
        const nfds_t count = n - at < kChunk ? n - at : kChunk;
        if (!safeCopy(chunk, fds + at, count * sizeof(pollfd))) {
            break;
        }
        for (nfds_t i = 0; i < count && !any; ++i) {
            any = fdHas(chunk[i].fd, kFdNode);
        }
    }
    if (any) {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            ByteWriter out(g_rec.small, kSmallRecord);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (nfds_t at = 0; at < n && !wait.full(); at += kChunk) {
                const nfds_t count = n - at < kChunk ? n - at : kChunk;
                if (!safeCopy(chunk, fds + at, count * sizeof(pollfd))) {
                    break;
                }
                for (nfds_t i = 0; i < count && !wait.full(); ++i) {
                    if (fdHas(chunk[i].fd, kFdNode)) {
                        wait.add(chunk[i].fd, static_cast<uint16_t>(chunk[i].events),
                                 result > 0 ? static_cast<uint16_t>(chunk[i].revents) : 0u);
                    }
                }
            }
            wait.finish();
            submitSmallLocked(RecordType::kPoll, out);
        }
    }
    errno = err;
}

int timeoutMs(const struct timespec* ts) {
    timespec t{};
    if (ts == nullptr || !safeCopy(&t, ts, sizeof(t)) || t.tv_sec < 0) {
        return -1;
    }
    return t.tv_sec > 2147482 ? 2147483647
                              : static_cast<int>(t.tv_sec * 1000 + t.tv_nsec / 1000000);
}

WatchBefore watchBeforeCtl(int epfd, int op, int fd, const epoll_event* event) {
    WatchBefore before;
    const int err = errno;  // the caller's, whatever the call does
    epoll_event copy{};
    if ((op == EPOLL_CTL_ADD || op == EPOLL_CTL_MOD) && safeCopy(&copy, event, sizeof(copy))) {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            before.taken = true;
            before.had_epoll = fdHas(epfd, kFdEpoll);
            before.had_watch = watchDataLocked(epfd, fd, &before.data);
            // Said, when there is no room, once the call has succeeded.
            watchSetLocked(epfd, fd, copy.data.u64);
        }
    }
    errno = err;
    return before;
}

void recordEpollCtl(uint64_t begin_ns, int epfd, int op, int fd, const epoll_event* event,
                    int result, int err, const WatchBefore& before) {
    const CallInfo call = callInfo(begin_ns, epfd, result, err);
    uint32_t events = 0;
    uint64_t data = 0;
    epoll_event copy{};
    // Read only after a call that succeeded with it: it was readable then.
    if (result == 0 && op != EPOLL_CTL_DEL && safeCopy(&copy, event, sizeof(copy))) {
        events = copy.events;
        data = copy.data.u64;
    }
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            if (result == 0 && op == EPOLL_CTL_DEL) {
                watchRemoveLocked(epfd, fd);
            } else if (result == 0) {
                watchLocked(epfd, fd, data);
            } else if (before.taken) {
                // The registration taken before the call did not happen.
                if (before.had_watch) {
                    watchSetLocked(epfd, fd, before.data);
                } else {
                    watchRemoveLocked(epfd, fd);
                }
                if (!before.had_epoll) {
                    unmarkEpoll(epfd);
                }
            }
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(op));
            out.u32(static_cast<uint32_t>(fd));
            out.u32(events);
            out.u64(data);
            submitSmallLocked(RecordType::kEpollCtl, out);
        }
    }
    errno = err;
}

void recordEpollWait(WaitKind kind, uint64_t begin_ns, int epfd, const epoll_event* events,
                     int timeout_ms, int result, int err) {
    const CallInfo call = callInfo(begin_ns, epfd, result, err);
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            ByteWriter out(g_rec.small, kSmallRecord);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (int i = 0; i < result && !wait.full(); ++i) {
                epoll_event e{};
                if (!safeCopy(&e, events + i, sizeof(e))) {
                    break;
                }
                const int fd = watchFindLocked(epfd, e.data.u64);
                if (fd >= 0) {
                    wait.add(fd, 0, e.events);
                }
            }
            wait.finish();
            submitSmallLocked(RecordType::kEpollWait, out);
        }
    }
    errno = err;
}

bool copySelectSets(int nfds, fd_set* read, fd_set* write, fd_set* except, SelectSets* out) {
    const int n = nfds < 0 ? 0 : (nfds > FD_SETSIZE ? FD_SETSIZE : nfds);
    const size_t bytes = (static_cast<size_t>(n) + 7) / 8;
    fd_set* given[3] = {read, write, except};
    bool any = false;
    for (int s = 0; s < 3; ++s) {
        FD_ZERO(&out->sets[s]);
        out->given[s] = given[s] != nullptr && safeCopy(&out->sets[s], given[s], bytes);
        for (int fd = 0; out->given[s] && fd < n && !any; ++fd) {
            any = FD_ISSET(fd, &out->sets[s]) && fdHas(fd, kFdNode);
        }
    }
    return any;
}

void recordSelect(WaitKind kind, uint64_t begin_ns, int nfds, const SelectSets& asked, fd_set* read,
                  fd_set* write, fd_set* except, int timeout_ms, int result, int err) {
    const CallInfo call = callInfo(begin_ns, -1, result, err);
    SelectSets after;
    if (result > 0) {
        copySelectSets(nfds, read, write, except, &after);
    }
    const int n = nfds < 0 ? 0 : (nfds > FD_SETSIZE ? FD_SETSIZE : nfds);
    constexpr uint32_t kBits[3] = {POLLIN, POLLOUT, POLLPRI};
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            ByteWriter out(g_rec.small, kSmallRecord);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (int fd = 0; fd < n && !wait.full(); ++fd) {
                if (!fdHas(fd, kFdNode)) {
                    continue;
                }
                uint32_t events = 0;
                uint32_t revents = 0;
                for (int s = 0; s < 3; ++s) {
                    if (asked.given[s] && FD_ISSET(fd, &asked.sets[s])) {
                        events |= kBits[s];
                        if (result > 0 && after.given[s] && FD_ISSET(fd, &after.sets[s])) {
                            revents |= kBits[s];
                        }
                    }
                }
                if (events != 0) {
                    wait.add(fd, events, revents);
                }
            }
            wait.finish();
            submitSmallLocked(RecordType::kPoll, out);
        }
    }
    errno = err;
}

int trackedIoctl(IoctlFn real, int fd, unsigned long request, void* arg) {
    const State state = g_rec.state.load(std::memory_order_relaxed);
    if ((state != State::kRecording && state != State::kArmed) || t_inside) {
        return real(fd, request, arg);
    }
    const auto code = static_cast<uint32_t>(request);
    const uint32_t dir = _IOC_DIR(code);
    const size_t size = _IOC_SIZE(code);
    uint8_t flags = arg == nullptr ? kArgNull : 0;
    size_t sent_len = 0;
    uint8_t sent[kMaxArgBytes];
    // The record as sent: read before the call (the driver may change it),
    // through the copy that cannot fault.
    if (arg != nullptr && dir != _IOC_NONE && size > 0) {
        sent_len = size < kMaxArgBytes ? size : kMaxArgBytes;
        if (size > kMaxArgBytes) {
            flags |= kArgCut;
        }
        if (!safeCopy(sent, arg, sent_len)) {
            flags |= kArgUnreadable;
            sent_len = 0;
        }
    }
    const uint64_t begin_ns = monotonicNs();
    const int result = real(fd, request, arg);
    const int err = errno;
    const CallInfo call = callInfo(begin_ns, fd, result, err);
    uint8_t back[kMaxArgBytes];
    size_t back_len = 0;
    if (result >= 0 && (dir & _IOC_READ) != 0 && sent_len > 0 && safeCopy(back, arg, sent_len)) {
        back_len = sent_len;
    }
    {
        Scope scope;
        if (scope.held()) {
            g_rec.lock.assertHeld();
            // A dequeue with data areas is built in a content buffer; with
            // none free, the areas are dropped and the record says so.
            const bool content =
                code == AOV_IOC_DEQUEUE_EVENT && contentBytes(g_rec.content, back, back_len) > 0;
            int slot = -1;
            uint8_t* room = content ? queueTakeContent(&slot) : nullptr;
            if (content && room == nullptr) {
                flags |= kArgContentDropped;
                g_rec.content_dropped.fetch_add(1);
            }
            ByteWriter out = room != nullptr ? ByteWriter(room, kMaxPayload)
                                             : ByteWriter(g_rec.small, kSmallRecord);
            putCall(out, call);
            out.u32(code);
            out.u8(flags);
            const size_t count_at = out.size();
            out.u8(0);
            out.u16(static_cast<uint16_t>(sent_len));
            out.u16(static_cast<uint16_t>(back_len));
            out.put(sent, sent_len);
            out.put(back, back_len);
            if (room != nullptr) {
                putAreas(out, g_rec.content, count_at, back);
                if (out.overflow()) {
                    queueReleaseContent(slot);
                    g_rec.dropped.fetch_add(1);
                } else if (!queueContent(RecordType::kIoctl, slot, out.size())) {
                    failStalled();
                }
            } else {
                submitSmallLocked(RecordType::kIoctl, out);
            }
        }
    }
    errno = err;
    return result;
}

}  // namespace aovrec
