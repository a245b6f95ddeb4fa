#include "Recorder.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "SessionWriter.h"
#include "kelo_aov.h"

namespace aovrec {

std::atomic<uint8_t> g_fd_flags[kMaxTrackedFd];
std::atomic<int> g_node_fds{0};
std::atomic<bool> g_armed{false};

namespace {

constexpr size_t kMaxConfigPath = 4096;
constexpr int kMaxWatches = 32;

// One node descriptor registered with an epoll descriptor, and the data the
// registration returns with its events.
struct Watch {
    int epfd = -1;
    int fd = -1;
    uint64_t data = 0;
};

enum class State { Off, Armed, Recording, Failed };

// Everything below g_lock is guarded by it, except `state`, which is atomic.
struct Recorder {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<State> state{State::Off};
    char file[kMaxConfigPath] = {};
    char node[kMaxConfigPath] = {};
    char dev_node[kMaxConfigPath] = {};
    ContentMode content = ContentMode::Written;
    bool compress = true;
    int out_fd = -1;
    uint8_t* payload = nullptr;  // kMaxPayload bytes, mapped at the first node open
    uint8_t* work = nullptr;
    size_t work_size = 0;
    SessionWriter writer;
    Watch watches[kMaxWatches];
    std::atomic<uint64_t> dropped{0};
    std::atomic<bool> direct_copy{false};  // process_vm_readv refused: copy directly
    pid_t pid = 0;
};

Recorder g_rec;

// Set while a thread is inside the recorder: a signal handler's call on the
// node then passes through unrecorded instead of waiting for the lock.
__thread bool t_inside __attribute__((tls_model("initial-exec"))) = false;
__thread uint32_t t_tid __attribute__((tls_model("initial-exec"))) = 0;

uint32_t threadId() {
    if (t_tid == 0) {
        t_tid = static_cast<uint32_t>(::syscall(SYS_gettid));
    }
    return t_tid;
}

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

// Stops the recording for good after a failure, saying so once.
void fail(const char* what, int err) {
    State expected = g_rec.state.load();
    if (expected == State::Failed) {
        return;
    }
    g_rec.state.store(State::Failed);
    g_armed.store(false);
    char reason[128];
    const char* text = ::strerror_r(err, reason, sizeof(reason));
    say("recording stopped: ", what, ": ", text);
}

void onForkChild() {
    // The child's calls would mix with the parent's in one file.
    g_rec.state.store(State::Off);
    g_armed.store(false);
    t_tid = 0;
}

// Opens the file and writes its header, at the first node open. Under the lock.
bool startLocked() {
    if (g_rec.state.load() == State::Recording) {
        return true;
    }
    if (g_rec.state.load() != State::Armed) {
        return false;
    }
    char path[kMaxConfigPath + 16];
    size_t at = 0;
    for (const char* p = g_rec.file; *p != '\0' && at + 12 < sizeof(path); ++p) {
        if (p[0] == '%' && p[1] == 'p') {
            at += static_cast<size_t>(
                std::snprintf(path + at, 12, "%d", static_cast<int>(::getpid())));
            ++p;
        } else {
            path[at++] = *p;
        }
    }
    path[at] = '\0';
    if (g_rec.payload == nullptr) {
        g_rec.work_size = SessionWriter::workBytes();
        void* room = ::mmap(nullptr, kMaxPayload + g_rec.work_size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (room == MAP_FAILED) {
            fail("no memory for its buffers", errno);
            return false;
        }
        g_rec.payload = static_cast<uint8_t*>(room);
        g_rec.work = g_rec.work_size > 0 ? g_rec.payload + kMaxPayload : nullptr;
    }
    const int fd = static_cast<int>(
        ::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd < 0) {
        fail(path, errno);
        return false;
    }
    FileHeader header;
    header.content = g_rec.content;
    header.compression = g_rec.compress ? Compression::Zstd : Compression::None;
    header.start_ns = monotonicNs();
    header.pid = static_cast<uint32_t>(::getpid());
    if (!g_rec.writer.begin(fd, header, g_rec.work, g_rec.work_size)) {
        const int err = errno;
        ::syscall(SYS_close, fd);
        fail(path, err);
        return false;
    }
    g_rec.out_fd = fd;
    g_rec.state.store(State::Recording);
    return true;
}

void writeLocked(RecordType type, const ByteWriter& out) {
    if (out.overflow()) {
        g_rec.dropped.fetch_add(1);
        return;
    }
    if (!g_rec.writer.write(type, g_rec.payload, out.size())) {
        fail("cannot write the session file", errno);
    }
}

// Takes the lock unless this thread is already inside (a signal handler).
class Scope {
  public:
    Scope() {
        if (t_inside || g_rec.state.load(std::memory_order_relaxed) != State::Recording) {
            if (t_inside) {
                g_rec.dropped.fetch_add(1);
            }
            return;
        }
        t_inside = true;
        pthread_mutex_lock(&g_rec.lock);
        held_ = g_rec.state.load() == State::Recording;
        if (!held_) {
            pthread_mutex_unlock(&g_rec.lock);
            t_inside = false;
        }
    }
    ~Scope() {
        if (held_) {
            pthread_mutex_unlock(&g_rec.lock);
            t_inside = false;
        }
    }
    bool held() const { return held_; }

  private:
    bool held_ = false;
};

// Copies `size` bytes of this process's memory at `from`; false when that
// memory cannot be read. Never faults: the kernel does the reading.
bool safeCopy(void* to, const void* from, size_t size) {
    if (size == 0) {
        return true;
    }
    if (from == nullptr) {
        return false;
    }
    if (g_rec.direct_copy.load(std::memory_order_relaxed)) {
        std::memcpy(to, from, size);
        return true;
    }
    iovec local{to, size};
    iovec remote{const_cast<void*>(from), size};
    const ssize_t n = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<ssize_t>(size)) {
        return true;
    }
    if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
        // A sandbox that refuses the call: the driver has used these
        // addresses already, so reading them directly is what is left.
        g_rec.direct_copy.store(true);
        std::memcpy(to, from, size);
        return true;
    }
    return false;
}

CallInfo callInfo(uint64_t begin_ns, int fd, int result, int err) {
    CallInfo call;
    call.end_ns = monotonicNs();
    // 0: the call was not timed (it became the node's only on its return).
    call.begin_ns = begin_ns != 0 ? begin_ns : call.end_ns;
    call.tid = threadId();
    call.fd = fd;
    call.result = result;
    call.err = result < 0 ? err : 0;
    return call;
}

void forgetWatchesLocked(int epfd, int fd) {
    for (Watch& w : g_rec.watches) {
        if ((epfd >= 0 && w.epfd == epfd) || (fd >= 0 && w.fd == fd)) {
            w = Watch{};
        }
    }
}

// Area bytes kept of one section of a dequeue answer, into the payload.
void putAreas(ByteWriter& out, size_t count_at, const uint8_t* back, size_t back_len) {
    if (back_len < sizeof(aov_event_query) || g_rec.content == ContentMode::None) {
        return;
    }
    uint8_t count = 0;
    for (size_t s = 0; s < kSections; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        uint32_t first_word;
        std::memcpy(&first_word, back + section.query_info_offset, sizeof(first_word));
        const void* area;
        std::memcpy(&area, back + section.query_addr_offset, sizeof(area));
        const uint32_t kept = keptAreaBytes(g_rec.content, s, first_word);
        if (kept == 0 || area == nullptr) {
            continue;
        }
        const size_t head_at = out.size();
        out.u8(static_cast<uint8_t>(s + 1));
        out.u8(0);
        out.u16(0);
        out.u32(kept);
        uint8_t* room = out.reserve(kept);
        if (room == nullptr) {
            return;
        }
        if (!safeCopy(room, area, kept)) {
            // Unreadable: the area is left out.
            out.truncate(head_at);
            continue;
        }
        ++count;
    }
    *out.at(count_at) = count;
}

}  // namespace

uint64_t monotonicNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

void configure(const RecorderConfig& config) {
    pthread_mutex_lock(&g_rec.lock);
    copyPath(g_rec.file, config.file);
    copyPath(g_rec.node, config.node != nullptr ? config.node : "/dev/kelo_aov");
    g_rec.dev_node[0] = '\0';
    if (config.node == nullptr && config.dev_dir != nullptr && config.dev_dir[0] != '\0' &&
        std::strlen(config.dev_dir) + 10 < kMaxConfigPath) {
        std::snprintf(g_rec.dev_node, kMaxConfigPath, "%s/kelo_aov", config.dev_dir);
    }
    g_rec.content = config.content;
    g_rec.compress = config.compress;
    if (g_rec.out_fd >= 0) {
        ::syscall(SYS_close, g_rec.out_fd);
        g_rec.out_fd = -1;
    }
    const bool on = g_rec.file[0] != '\0';
    g_rec.state.store(on ? State::Armed : State::Off);
    g_armed.store(on);
    static bool fork_handler = false;
    if (!fork_handler) {
        fork_handler = pthread_atfork(nullptr, nullptr, onForkChild) == 0;
    }
    pthread_mutex_unlock(&g_rec.lock);
}

void configureFromEnvironment() {
    RecorderConfig config;
    config.file = std::getenv(kEnvFile);
    if (config.file == nullptr || config.file[0] == '\0') {
        return;
    }
    const char* content = std::getenv(kEnvContent);
    if (content != nullptr && content[0] != '\0' && !parseContentMode(content, &config.content)) {
        say("AOV_REC_CONTENT must be all, written or none, not ", content, "; recording off");
        return;
    }
    const char* compress = std::getenv(kEnvCompress);
    config.compress = compress == nullptr || std::strcmp(compress, "0") != 0;
    const char* node = std::getenv(kEnvNode);
    config.node = node != nullptr && node[0] != '\0' ? node : nullptr;
    config.dev_dir = std::getenv("AOV_DEV_DIR");
    configure(config);
}

RecorderStats stats() {
    RecorderStats s;
    pthread_mutex_lock(&g_rec.lock);
    s.started = g_rec.out_fd >= 0;
    s.failed = g_rec.state.load() == State::Failed;
    s.written = g_rec.writer.records();
    pthread_mutex_unlock(&g_rec.lock);
    s.dropped = g_rec.dropped.load();
    return s;
}

bool isNodePath(const char* path) {
    return path != nullptr &&
           (std::strcmp(path, g_rec.node) == 0 ||
            (g_rec.dev_node[0] != '\0' && std::strcmp(path, g_rec.dev_node) == 0));
}

void recordOpen(uint64_t begin_ns, int dirfd, const char* path, int flags, mode_t mode, int result,
                int err) {
    const CallInfo call = callInfo(begin_ns, dirfd, result, err);
    if (!t_inside) {
        t_inside = true;
        pthread_mutex_lock(&g_rec.lock);
        const bool recording = startLocked();
        pthread_mutex_unlock(&g_rec.lock);
        t_inside = false;
        if (recording && result >= 0 && result < kMaxTrackedFd) {
            g_fd_flags[result].fetch_or(kFdNode);
            g_node_fds.fetch_add(1);
        }
    }
    {
        Scope scope;
        if (scope.held()) {
            ByteWriter out(g_rec.payload, kMaxPayload);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(flags));
            out.u32(static_cast<uint32_t>(mode));
            const size_t length = strnlen(path, kMaxPath);
            out.u16(static_cast<uint16_t>(length));
            out.put(path, length);
            writeLocked(RecordType::Open, out);
        }
    }
    errno = err;
}

bool forgetOnClose(int fd) {
    const uint8_t flags = g_fd_flags[fd].exchange(0);
    if ((flags & kFdNode) != 0) {
        g_node_fds.fetch_sub(1);
    }
    if (!t_inside) {
        t_inside = true;
        pthread_mutex_lock(&g_rec.lock);
        forgetWatchesLocked((flags & kFdEpoll) != 0 ? fd : -1, (flags & kFdNode) != 0 ? fd : -1);
        pthread_mutex_unlock(&g_rec.lock);
        t_inside = false;
    }
    return (flags & kFdNode) != 0;
}

void recordClose(uint64_t begin_ns, int fd, int result, int err) {
    const CallInfo call = callInfo(begin_ns, fd, result, err);
    {
        Scope scope;
        if (scope.held()) {
            ByteWriter out(g_rec.payload, kMaxPayload);
            putCall(out, call);
            writeLocked(RecordType::Close, out);
        }
    }
    errno = err;
}

bool anyNode(const pollfd* fds, nfds_t n) {
    for (nfds_t i = 0; i < n; ++i) {
        if (fdHas(fds[i].fd, kFdNode)) {
            return true;
        }
    }
    return false;
}

// A readiness wait's payload: the call, the wait's kind and timeout, then
// one entry for each of the node's descriptors it covered.
class WaitPayload {
  public:
    WaitPayload(ByteWriter& out, const CallInfo& call, WaitKind kind, int timeout_ms) : out_(out) {
        putCall(out, call);
        out.u8(static_cast<uint8_t>(kind));
        out.u8(0);
        count_at_ = out.size();
        out.u16(0);
        out.u32(static_cast<uint32_t>(timeout_ms));
    }
    bool full() const { return count_ >= kMaxWaitEntries; }
    void add(int fd, uint32_t events, uint32_t revents) {
        out_.u32(static_cast<uint32_t>(fd));
        out_.u32(events);
        out_.u32(revents);
        ++count_;
    }
    // Puts the entry count in its place.
    void finish() {
        out_.at(count_at_)[0] = static_cast<uint8_t>(count_);
        out_.at(count_at_)[1] = static_cast<uint8_t>(count_ >> 8);
    }

  private:
    ByteWriter& out_;
    size_t count_at_ = 0;
    uint16_t count_ = 0;
};

void recordPoll(WaitKind kind, uint64_t begin_ns, const pollfd* fds, nfds_t n, int timeout_ms,
                int result, int err) {
    const CallInfo call = callInfo(begin_ns, -1, result, err);
    {
        Scope scope;
        if (scope.held()) {
            ByteWriter out(g_rec.payload, kMaxPayload);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (nfds_t i = 0; i < n && !wait.full(); ++i) {
                if (fdHas(fds[i].fd, kFdNode)) {
                    wait.add(fds[i].fd, static_cast<uint16_t>(fds[i].events),
                             result > 0 ? static_cast<uint16_t>(fds[i].revents) : 0u);
                }
            }
            wait.finish();
            writeLocked(RecordType::Poll, out);
        }
    }
    errno = err;
}

void recordEpollCtl(uint64_t begin_ns, int epfd, int op, int fd, const epoll_event* event,
                    int result, int err) {
    const CallInfo call = callInfo(begin_ns, epfd, result, err);
    uint32_t events = 0;
    uint64_t data = 0;
    if (event != nullptr && op != EPOLL_CTL_DEL) {
        events = event->events;
        data = event->data.u64;
    }
    if (!t_inside) {
        t_inside = true;
        pthread_mutex_lock(&g_rec.lock);
        if (result == 0) {
            Watch* slot = nullptr;
            for (Watch& w : g_rec.watches) {
                if (w.epfd == epfd && w.fd == fd) {
                    slot = &w;
                } else if (slot == nullptr && w.epfd < 0) {
                    slot = &w;
                }
            }
            if (op == EPOLL_CTL_DEL) {
                for (Watch& w : g_rec.watches) {
                    if (w.epfd == epfd && w.fd == fd) {
                        w = Watch{};
                    }
                }
            } else if (slot != nullptr) {
                *slot = Watch{epfd, fd, data};
                if (epfd >= 0 && epfd < kMaxTrackedFd) {
                    g_fd_flags[epfd].fetch_or(kFdEpoll);
                }
            }
        }
        pthread_mutex_unlock(&g_rec.lock);
        t_inside = false;
    }
    {
        Scope scope;
        if (scope.held()) {
            ByteWriter out(g_rec.payload, kMaxPayload);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(op));
            out.u32(static_cast<uint32_t>(fd));
            out.u32(events);
            out.u64(data);
            writeLocked(RecordType::EpollCtl, out);
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
            ByteWriter out(g_rec.payload, kMaxPayload);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (int i = 0; i < result && !wait.full(); ++i) {
                for (const Watch& w : g_rec.watches) {
                    if (w.epfd == epfd && w.fd >= 0 && w.data == events[i].data.u64) {
                        wait.add(w.fd, 0, events[i].events);
                        break;
                    }
                }
            }
            wait.finish();
            writeLocked(RecordType::EpollWait, out);
        }
    }
    errno = err;
}

int trackedIoctl(IoctlFn real, int fd, unsigned long request, void* arg) {
    if (g_rec.state.load(std::memory_order_relaxed) != State::Recording || t_inside) {
        return real(fd, request, arg);
    }
    const auto code = static_cast<uint32_t>(request);
    const uint32_t dir = _IOC_DIR(code);
    const size_t size = _IOC_SIZE(code);
    uint8_t flags = arg == nullptr ? kArgNull : 0;
    size_t sent_len = 0;
    uint8_t sent[kMaxArgBytes];
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
    {
        Scope scope;
        if (scope.held()) {
            ByteWriter out(g_rec.payload, kMaxPayload);
            putCall(out, call);
            out.u32(code);
            out.u8(flags);
            const size_t count_at = out.size();
            out.u8(0);
            out.u16(static_cast<uint16_t>(sent_len));
            const size_t back_len_at = out.size();
            out.u16(0);
            out.put(sent, sent_len);
            size_t back_len = 0;
            const uint8_t* back = nullptr;
            if (result >= 0 && (dir & _IOC_READ) != 0 && arg != nullptr && sent_len > 0) {
                // The driver has just written this record: it is readable.
                uint8_t* room = out.reserve(sent_len);
                if (room != nullptr) {
                    std::memcpy(room, arg, sent_len);
                    back = room;
                    back_len = sent_len;
                    out.at(back_len_at)[0] = static_cast<uint8_t>(back_len);
                    out.at(back_len_at)[1] = static_cast<uint8_t>(back_len >> 8);
                }
            }
            if (code == AOV_IOC_DEQUEUE_EVENT && back != nullptr) {
                putAreas(out, count_at, back, back_len);
            }
            writeLocked(RecordType::Ioctl, out);
        }
    }
    errno = err;
    return result;
}

}  // namespace aovrec
