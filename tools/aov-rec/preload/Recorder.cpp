#include "Recorder.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
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

// Every record but a dequeue with data areas fits this (an open of the
// longest path is 4,137 bytes, an ioctl with both records 2,090).
constexpr size_t kSmallRecord = 8192;
// Payload buffers of content dequeues: one being written, one being filled.
constexpr int kContentSlots = 2;
constexpr int kSmallSlot = -1;
// Records queued for the writer thread at most.
constexpr size_t kQueueLength = 16;
// Data-area ranges known to be readable.
constexpr size_t kVerifiedRanges = 16;
// How long drain() waits for the writer thread.
constexpr time_t kDrainLimitSeconds = 10;

// A record handed to the writer thread.
struct Queued {
    RecordType type = RecordType::Open;
    uint32_t size = 0;
    int slot = kSmallSlot;  // the content buffer it occupies, if any
    const uint8_t* data = nullptr;
};

struct Range {
    uintptr_t start = 0;
    size_t length = 0;
};

// One node descriptor registered with an epoll descriptor, and the data the
// registration returns with its events.
struct Watch {
    int epfd = -1;
    int fd = -1;
    uint64_t data = 0;
};

enum class State { Off, Armed, Recording, Failed };

// Records are built under `lock`, in the order the calls reach it, and
// written in that order: a content dequeue (megabytes to compress and write)
// is queued for the writer thread, which compresses, checks and writes it
// while the caller goes on. Any other record is written by its caller when
// nothing is queued (no thread wake-up), else queued behind the others. The
// session writer is used by one thread at a time: the writer thread while
// anything is queued, a caller (holding `lock`) only when nothing is.
//
// Everything is guarded by `lock` except the atomics and what is marked as
// guarded by `queue_lock` (always taken after `lock`; the writer thread takes
// only `queue_lock`).
struct Recorder {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<State> state{State::Off};
    char file[kMaxConfigPath] = {};
    char node[kMaxConfigPath] = {};
    char dev_node[kMaxConfigPath] = {};
    ContentMode content = ContentMode::Written;
    bool compress = true;
    int out_fd = -1;
    bool output_may_signal = false;  // a write to it can raise SIGPIPE or SIGXFSZ
    // Mapped at the first node open: the content buffers, the writer's room
    // for compressed frames, the small record being built, the queue's room.
    uint8_t* slots[kContentSlots] = {};
    uint8_t* work = nullptr;
    size_t work_size = 0;
    uint8_t* small = nullptr;
    uint8_t* queue_bytes = nullptr;  // kQueueLength small records
    SessionWriter writer;
    bool writer_started = false;  // the writer thread runs (for good)
    Watch watches[kMaxWatches];
    Range verified[kVerifiedRanges];
    size_t verified_next = 0;
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> areas_checked{0};
    std::atomic<uint64_t> areas_direct{0};
    std::atomic<bool> direct_copy{false};  // process_vm_readv refused: copy directly
    std::atomic<bool> forked_child{false};

    pthread_mutex_t queue_lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t queue_work = PTHREAD_COND_INITIALIZER;  // the writer waits for records
    pthread_cond_t queue_room = PTHREAD_COND_INITIALIZER;  // callers and drain() wait for it
    Queued queue[kQueueLength];                            // guarded by queue_lock
    size_t queue_head = 0;                                 // guarded by queue_lock
    size_t queue_count = 0;              // queued and being written; guarded by queue_lock
    bool slot_busy[kContentSlots] = {};  // guarded by queue_lock
    bool writer_waiting = false;         // guarded by queue_lock
    uint64_t handed_off = 0;             // guarded by queue_lock
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

// Stops the recording for good after a failure, saying so once. Called by
// callers and by the writer thread.
void fail(const char* what, int err) {
    if (g_rec.state.exchange(State::Failed) == State::Failed) {
        return;
    }
    g_armed.store(false);
    char reason[128];
    const char* text = ::strerror_r(err, reason, sizeof(reason));
    say("recording stopped: ", what, ": ", text);
}

void onForkChild() {
    // The child's calls would mix with the parent's in one file. The writer
    // thread is not in the child: nothing of the queue is touched there (its
    // lock may have been held by the thread at the fork).
    g_rec.forked_child.store(true);
    g_rec.state.store(State::Off);
    g_armed.store(false);
    t_tid = 0;
}

// The writer thread: writes the queued records in order, for good.
void* writerMain(void*) {
    t_inside = true;
    pthread_mutex_lock(&g_rec.queue_lock);
    for (;;) {
        while (g_rec.queue_count == 0) {
            g_rec.writer_waiting = true;
            pthread_cond_wait(&g_rec.queue_work, &g_rec.queue_lock);
            g_rec.writer_waiting = false;
        }
        const Queued q = g_rec.queue[g_rec.queue_head];
        pthread_mutex_unlock(&g_rec.queue_lock);
        // After a failure the queue is emptied without writing.
        if (g_rec.state.load() != State::Failed && !g_rec.writer.write(q.type, q.data, q.size)) {
            fail("cannot write the session file", errno);
        }
        pthread_mutex_lock(&g_rec.queue_lock);
        if (q.slot != kSmallSlot) {
            g_rec.slot_busy[q.slot] = false;
        }
        g_rec.queue_head = (g_rec.queue_head + 1) % kQueueLength;
        --g_rec.queue_count;
        pthread_cond_broadcast(&g_rec.queue_room);
    }
    return nullptr;
}

void drainAtExit() {
    drain();
}

// A pipe whose reader has gone raises SIGPIPE on a write, and a file at
// the process's size limit SIGXFSZ; by default either ends the process.
// While a caller writes such an output, both are blocked, and one that the
// write raised is taken back before they are unblocked: the write fails
// (EPIPE, EFBIG), the recording stops, the process goes on. The writer
// thread blocks every signal for good. A size limit first set while a
// recording runs is not seen: the check is made when the file is opened.
class QuietWrite {
  public:
    explicit QuietWrite(bool needed) : active_(needed) {
        if (!active_) {
            return;
        }
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGPIPE);
        sigaddset(&both, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &both, &old_);
        sigpending(&before_);
    }
    ~QuietWrite() {
        if (!active_) {
            return;
        }
        sigset_t now;
        sigpending(&now);
        for (const int sig : {SIGPIPE, SIGXFSZ}) {
            if (sigismember(&now, sig) == 1 && sigismember(&before_, sig) == 0) {
                sigset_t one;
                sigemptyset(&one);
                sigaddset(&one, sig);
                const timespec none{0, 0};
                sigtimedwait(&one, nullptr, &none);
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    QuietWrite(const QuietWrite&) = delete;
    QuietWrite& operator=(const QuietWrite&) = delete;

  private:
    bool active_;
    sigset_t old_{};
    sigset_t before_{};
};

bool outputMaySignal(int fd) {
    struct stat info {};
    rlimit size{};
    return ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
           ::getrlimit(RLIMIT_FSIZE, &size) != 0 || size.rlim_cur != RLIM_INFINITY;
}

// Starts the writer thread once, with every signal blocked in it: a
// handler never runs there. Without it every record is written by its
// caller. Under the lock.
void startWriterLocked() {
    if (g_rec.writer_started) {
        return;
    }
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // Background scheduling whatever the caller's: the writer never runs at
    // a real-time thread's priority, and (batch) waking it does not preempt
    // the thread that hands it a record on a busy core. Where the policy is
    // refused, ordinary scheduling.
    sched_param param{};
    param.sched_priority = 0;
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedparam(&attr, &param);
    pthread_t thread;
    bool started = false;
#ifdef SCHED_BATCH
    started = pthread_attr_setschedpolicy(&attr, SCHED_BATCH) == 0 &&
              pthread_create(&thread, &attr, writerMain, nullptr) == 0;
#endif
    if (!started) {
        pthread_attr_setschedpolicy(&attr, SCHED_OTHER);
        started = pthread_create(&thread, &attr, writerMain, nullptr) == 0;
    }
    g_rec.writer_started = started;
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (g_rec.writer_started) {
        // A normal exit writes what is queued (the preload library drains
        // once more after every other exit handler).
        std::atexit(drainAtExit);
    }
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
    if (g_rec.small == nullptr) {
        g_rec.work_size = SessionWriter::workBytes();
        const size_t bytes = kContentSlots * size_t{kMaxPayload} + g_rec.work_size +
                             (kQueueLength + 1) * kSmallRecord;
        void* room =
            ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (room == MAP_FAILED) {
            fail("no memory for its buffers", errno);
            return false;
        }
        uint8_t* at = static_cast<uint8_t*>(room);
        for (uint8_t*& slot : g_rec.slots) {
            slot = at;
            at += kMaxPayload;
        }
        g_rec.work = g_rec.work_size > 0 ? at : nullptr;
        at += g_rec.work_size;
        g_rec.small = at;
        g_rec.queue_bytes = at + kSmallRecord;
    }
    if (!drain()) {
        // The writer thread is stuck in a write of the previous recording.
        fail("the previous session file is still being written", EBUSY);
        return false;
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
    g_rec.output_may_signal = outputMaySignal(fd);
    int err = 0;
    {
        QuietWrite quiet(g_rec.output_may_signal);
        if (!g_rec.writer.begin(fd, header, g_rec.work, g_rec.work_size)) {
            err = errno != 0 ? errno : EIO;
        }
    }
    if (err != 0) {
        ::syscall(SYS_close, fd);
        fail(path, err);
        return false;
    }
    g_rec.out_fd = fd;
    startWriterLocked();
    g_rec.state.store(State::Recording);
    return true;
}

void releaseSlot(int slot) {
    if (slot == kSmallSlot) {
        return;
    }
    pthread_mutex_lock(&g_rec.queue_lock);
    g_rec.slot_busy[slot] = false;
    pthread_mutex_unlock(&g_rec.queue_lock);
}

// A free content buffer, waiting for the writer thread if both are queued.
// Under the lock.
int takeSlotLocked() {
    pthread_mutex_lock(&g_rec.queue_lock);
    for (;;) {
        for (int i = 0; i < kContentSlots; ++i) {
            if (!g_rec.slot_busy[i]) {
                g_rec.slot_busy[i] = true;
                pthread_mutex_unlock(&g_rec.queue_lock);
                return i;
            }
        }
        pthread_cond_wait(&g_rec.queue_room, &g_rec.queue_lock);
    }
}

// Writes the record built in `slot` (or the small record) or queues it for
// the writer thread. Under the lock, so records keep the order in which
// they were built.
void submitLocked(RecordType type, const ByteWriter& out, int slot) {
    if (out.overflow()) {
        g_rec.dropped.fetch_add(1);
        releaseSlot(slot);
        return;
    }
    const uint8_t* data = slot == kSmallSlot ? g_rec.small : g_rec.slots[slot];
    pthread_mutex_lock(&g_rec.queue_lock);
    if (!g_rec.writer_started || (slot == kSmallSlot && g_rec.queue_count == 0)) {
        // Nothing is queued: the writer thread is idle and stays so while
        // the lock is held; this thread writes.
        pthread_mutex_unlock(&g_rec.queue_lock);
        // The writer thread may have failed since this record was begun.
        if (g_rec.state.load() == State::Failed) {
            releaseSlot(slot);
            return;
        }
        int err = 0;
        {
            QuietWrite quiet(g_rec.output_may_signal);
            if (!g_rec.writer.write(type, data, out.size())) {
                err = errno != 0 ? errno : EIO;
            }
        }
        if (err != 0) {
            fail("cannot write the session file", err);
        }
        releaseSlot(slot);
        return;
    }
    while (g_rec.queue_count == kQueueLength) {
        pthread_cond_wait(&g_rec.queue_room, &g_rec.queue_lock);
    }
    const size_t index = (g_rec.queue_head + g_rec.queue_count) % kQueueLength;
    Queued& q = g_rec.queue[index];
    q.type = type;
    q.size = static_cast<uint32_t>(out.size());
    q.slot = slot;
    if (slot == kSmallSlot) {
        uint8_t* room = g_rec.queue_bytes + index * kSmallRecord;
        std::memcpy(room, data, out.size());
        data = room;
    }
    q.data = data;
    ++g_rec.queue_count;
    ++g_rec.handed_off;
    const bool wake = g_rec.writer_waiting;
    pthread_mutex_unlock(&g_rec.queue_lock);
    // Woken after the unlock, the writer does not wake into a held lock
    // only to sleep on it until this thread lets go (a second wake-up).
    if (wake) {
        pthread_cond_signal(&g_rec.queue_work);
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

// Whether [at, at + size) lies in a range read successfully before.
bool verifiedLocked(const void* at, size_t size) {
    const auto start = reinterpret_cast<uintptr_t>(at);
    for (const Range& r : g_rec.verified) {
        if (r.length >= size && start >= r.start && start - r.start <= r.length - size) {
            return true;
        }
    }
    return false;
}

void rememberLocked(const void* at, size_t size) {
    const auto start = reinterpret_cast<uintptr_t>(at);
    for (Range& r : g_rec.verified) {
        if (r.start == start) {
            r.length = r.length > size ? r.length : size;
            return;
        }
    }
    g_rec.verified[g_rec.verified_next] = Range{start, size};
    g_rec.verified_next = (g_rec.verified_next + 1) % kVerifiedRanges;
}

// The address of section `s`'s data area in a dequeue record.
const void* areaAddress(const uint8_t* record, size_t s) {
    const void* area;
    std::memcpy(&area, record + aov_event_sections[s].query_addr_offset, sizeof(area));
    return area;
}

uint32_t firstInfoWord(const uint8_t* record, size_t s) {
    uint32_t word;
    std::memcpy(&word, record + aov_event_sections[s].query_info_offset, sizeof(word));
    return word;
}

// Area bytes a dequeue answer asks to keep; 0 for a header-only event.
uint64_t contentBytes(const uint8_t* back, size_t back_len) {
    if (back_len < sizeof(aov_event_query) || g_rec.content == ContentMode::None) {
        return 0;
    }
    uint64_t total = 0;
    for (size_t s = 0; s < kSections; ++s) {
        if (areaAddress(back, s) != nullptr) {
            total += keptAreaBytes(g_rec.content, s, firstInfoWord(back, s));
        }
    }
    return total;
}

// Area bytes kept of each section of a successful dequeue's answer `back`,
// into the payload; `sent` is the record as the caller sent it.
//
// An area is copied with memcpy only when the driver has just written it
// for this caller: the dequeue succeeded, the answer points where the
// caller's record pointed (so the address is the process's own, not one
// the driver made up), the driver says it wrote the area (its first info
// word), and the range was once read through process_vm_readv. The kernel
// has then just written that memory on the process's behalf, and the
// process keeps reusing one event buffer, so after its first event every
// area is a plain copy. Anything else, an address the process got wrong
// included, is read by the kernel (process_vm_readv) and left out when it
// cannot be read: the recorder never faults where the process would not.
// What remains is a process that unmaps its buffer and still dequeues into
// it, with a driver that claims to have written there.
void putAreas(ByteWriter& out, size_t count_at, const uint8_t* back, const uint8_t* sent,
              size_t sent_len) {
    uint8_t count = 0;
    for (size_t s = 0; s < kSections; ++s) {
        const uint32_t first_word = firstInfoWord(back, s);
        const void* area = areaAddress(back, s);
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
        const bool as_sent = sent_len >= sizeof(aov_event_query) && areaAddress(sent, s) == area;
        if (as_sent && first_word != 0 && verifiedLocked(area, kept)) {
            std::memcpy(room, area, kept);
            g_rec.areas_direct.fetch_add(1, std::memory_order_relaxed);
        } else {
            g_rec.areas_checked.fetch_add(1, std::memory_order_relaxed);
            if (!safeCopy(room, area, kept)) {
                // Unreadable: the area is left out.
                out.truncate(head_at);
                continue;
            }
            rememberLocked(area, kept);
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
    if (g_rec.forked_child.load()) {
        return;  // a forked child is not recorded
    }
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
    // The previous recording's queued records go to its file.
    drain();
    for (Range& r : g_rec.verified) {
        r = Range{};
    }
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

bool drain() {
    if (g_rec.forked_child.load()) {
        return true;
    }
    timespec deadline;
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kDrainLimitSeconds;
    pthread_mutex_lock(&g_rec.queue_lock);
    while (g_rec.queue_count > 0 &&
           pthread_cond_timedwait(&g_rec.queue_room, &g_rec.queue_lock, &deadline) != ETIMEDOUT) {
    }
    const bool drained = g_rec.queue_count == 0;
    pthread_mutex_unlock(&g_rec.queue_lock);
    return drained;
}

RecorderStats stats() {
    RecorderStats s;
    if (g_rec.forked_child.load()) {
        return s;
    }
    pthread_mutex_lock(&g_rec.lock);
    drain();
    s.started = g_rec.out_fd >= 0;
    s.failed = g_rec.state.load() == State::Failed;
    pthread_mutex_lock(&g_rec.queue_lock);
    s.written = g_rec.writer.records();
    s.handed_off = g_rec.handed_off;
    pthread_mutex_unlock(&g_rec.queue_lock);
    pthread_mutex_unlock(&g_rec.lock);
    s.dropped = g_rec.dropped.load();
    s.areas_checked = g_rec.areas_checked.load();
    s.areas_direct = g_rec.areas_direct.load();
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
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(flags));
            out.u32(static_cast<uint32_t>(mode));
            const size_t length = strnlen(path, kMaxPath);
            out.u16(static_cast<uint16_t>(length));
            out.put(path, length);
            submitLocked(RecordType::Open, out, kSmallSlot);
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
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            submitLocked(RecordType::Close, out, kSmallSlot);
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
            ByteWriter out(g_rec.small, kSmallRecord);
            WaitPayload wait(out, call, kind, timeout_ms);
            for (nfds_t i = 0; i < n && !wait.full(); ++i) {
                if (fdHas(fds[i].fd, kFdNode)) {
                    wait.add(fds[i].fd, static_cast<uint16_t>(fds[i].events),
                             result > 0 ? static_cast<uint16_t>(fds[i].revents) : 0u);
                }
            }
            wait.finish();
            submitLocked(RecordType::Poll, out, kSmallSlot);
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
            ByteWriter out(g_rec.small, kSmallRecord);
            putCall(out, call);
            out.u32(static_cast<uint32_t>(op));
            out.u32(static_cast<uint32_t>(fd));
            out.u32(events);
            out.u64(data);
            submitLocked(RecordType::EpollCtl, out, kSmallSlot);
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
            ByteWriter out(g_rec.small, kSmallRecord);
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
            submitLocked(RecordType::EpollWait, out, kSmallSlot);
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
            uint8_t back[kMaxArgBytes];
            size_t back_len = 0;
            if (result >= 0 && (dir & _IOC_READ) != 0 && arg != nullptr && sent_len > 0) {
                // The driver has just written this record: it is readable.
                std::memcpy(back, arg, sent_len);
                back_len = sent_len;
            }
            // A dequeue with data areas is built in a content buffer and
            // written by the writer thread.
            const bool content = code == AOV_IOC_DEQUEUE_EVENT && contentBytes(back, back_len) > 0;
            const int slot = content ? takeSlotLocked() : kSmallSlot;
            ByteWriter out = content ? ByteWriter(g_rec.slots[slot], kMaxPayload)
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
            if (content) {
                putAreas(out, count_at, back, sent, sent_len);
            }
            submitLocked(RecordType::Ioctl, out, slot);
        }
    }
    errno = err;
    return result;
}

}  // namespace aovrec
