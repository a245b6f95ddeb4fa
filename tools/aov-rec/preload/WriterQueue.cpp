#include "WriterQueue.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "aovbase/PosixMutex.h"

namespace aovrec {
namespace {

constexpr int kContentSlots = 2;
constexpr int kSmallSlot = -1;
constexpr size_t kRingBytes = size_t{1} << 20;
constexpr size_t kEntries = 4096;
// Call records queued before the writer is woken for them, and how long
// they wait for it at most.
constexpr size_t kWakeAt = 64;
constexpr long kLingerMs = 20;

struct Entry {
    RecordType type = RecordType::kOpen;
    uint32_t size = 0;
    int slot = kSmallSlot;
    uint32_t offset = 0;  // in the ring, for a small record
    uint32_t pad = 0;     // ring bytes skipped before it (a wrap)
};

// Everything here is guarded by `lock` except the buffers' contents, which
// belong to whoever holds the entry (the caller filling it, then the writer).
struct Queue {
    aov::PosixMutex lock;
    pthread_cond_t work = PTHREAD_COND_INITIALIZER;  // the writer waits for records
    pthread_cond_t room = PTHREAD_COND_INITIALIZER;  // callers and drain wait for it
    uint8_t* ring = nullptr;
    uint8_t* slots[kContentSlots] = {};
    uint8_t* work_room = nullptr;
    size_t work_size = 0;
    Entry entries[kEntries];
    size_t head AOV_GUARDED_BY(lock) = 0;
    size_t count AOV_GUARDED_BY(lock) = 0;  // queued and being written
    size_t ring_tail AOV_GUARDED_BY(lock) = 0;
    size_t ring_used AOV_GUARDED_BY(lock) = 0;
    bool slot_busy[kContentSlots] AOV_GUARDED_BY(lock) = {};
    bool writer_waiting AOV_GUARDED_BY(lock) = false;
    bool in_batch AOV_GUARDED_BY(lock) = false;  // writing (or skipping) a batch unlocked
    bool urgent AOV_GUARDED_BY(lock) =
        false;  // wake the writer: content, a drain, or records waiting too long
    bool thread_started AOV_GUARDED_BY(lock) = false;
    // In a forked child no thread is started (the parent may have had many
    // when it forked): each record is written by its caller.
    bool inline_writes AOV_GUARDED_BY(lock) = false;
    uint64_t handed_off AOV_GUARDED_BY(lock) = 0;
    SessionWriter* writer AOV_GUARDED_BY(lock) = nullptr;
    bool may_signal AOV_GUARDED_BY(lock) = false;
    WriteFailed on_fail AOV_GUARDED_BY(lock) = nullptr;
    std::atomic<bool> discard{false};
    std::atomic<int> stall_limit_ms{kDefaultStallLimitMs};
};

union QueueRoom {
    constexpr QueueRoom() : q() {}
    ~QueueRoom() {}
    Queue q;
};
// Never destroyed: the writer thread may still run while the process exits.
QueueRoom g_room;
Queue& g_q = g_room.q;

timespec deadlineIn(long ms) {
    timespec at;
    ::clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += ms / 1000;
    at.tv_nsec += (ms % 1000) * 1000000L;
    if (at.tv_nsec >= 1000000000L) {
        at.tv_sec += 1;
        at.tv_nsec -= 1000000000L;
    }
    return at;
}

void initSync() {
    g_q.lock.reinitialise();
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&g_q.work, &attr);
    pthread_cond_init(&g_q.room, &attr);
    pthread_condattr_destroy(&attr);
}

void* writerMain(void*) {
    g_q.lock.lock();
    for (;;) {
        // Call records alone do not wake the writer (a wake-up costs the
        // caller more than the record), but for the first after an idle
        // spell: it takes them within kLingerMs, at the next content record,
        // when many are queued or on a drain.
        while (g_q.count == 0 || (!g_q.urgent && g_q.count < kWakeAt)) {
            g_q.writer_waiting = true;
            if (g_q.count == 0) {
                pthread_cond_wait(&g_q.work, g_q.lock.native());
            } else {
                const timespec linger = deadlineIn(kLingerMs);
                if (pthread_cond_timedwait(&g_q.work, g_q.lock.native(), &linger) == ETIMEDOUT) {
                    g_q.urgent = true;
                }
            }
            g_q.writer_waiting = false;
        }
        g_q.urgent = false;
        // Everything queued now is written without the lock, then freed at
        // once: callers meet the lock held only briefly.
        const size_t head = g_q.head;
        const size_t batch = g_q.count;
        SessionWriter* writer = g_q.writer;
        const bool may_signal = g_q.may_signal;
        const WriteFailed on_fail = g_q.on_fail;
        g_q.in_batch = true;
        g_q.lock.unlock();
        size_t ring_freed = 0;
        for (size_t i = 0; i < batch; ++i) {
            const Entry& e = g_q.entries[(head + i) % kEntries];
            if (e.slot == kSmallSlot) {
                ring_freed += e.pad + e.size;
            }
            if (g_q.discard.load() || writer == nullptr) {
                continue;
            }
            const uint8_t* data = e.slot == kSmallSlot ? g_q.ring + e.offset : g_q.slots[e.slot];
            int err = 0;
            {
                QuietWrite quiet(may_signal);
                if (!writer->write(e.type, data, e.size)) {
                    err = errno != 0 ? errno : EIO;
                }
            }
            if (err != 0 && on_fail != nullptr) {
                on_fail(err);
            }
        }
        g_q.lock.lock();
        g_q.in_batch = false;
        for (size_t i = 0; i < batch; ++i) {
            const Entry& e = g_q.entries[(head + i) % kEntries];
            if (e.slot != kSmallSlot) {
                g_q.slot_busy[e.slot] = false;
            }
        }
        g_q.ring_used -= ring_freed;
        g_q.head = (head + batch) % kEntries;
        g_q.count -= batch;
        if (g_q.count == 0) {
            g_q.ring_tail = 0;
            g_q.ring_used = 0;
        } else if (g_q.count >= kWakeAt) {
            g_q.urgent = true;
        }
        pthread_cond_broadcast(&g_q.room);
    }
    return nullptr;
}

// Writes one record on the caller's thread (a forked child). Under the lock.
bool writeInlineLocked(RecordType type, const uint8_t* data, size_t size) AOV_REQUIRES(g_q.lock) {
    ++g_q.handed_off;
    if (g_q.discard.load() || g_q.writer == nullptr) {
        return true;
    }
    int err = 0;
    {
        QuietWrite quiet(g_q.may_signal);
        if (!g_q.writer->write(type, data, size)) {
            err = errno != 0 ? errno : EIO;
        }
    }
    if (err != 0 && g_q.on_fail != nullptr) {
        const WriteFailed on_fail = g_q.on_fail;
        g_q.lock.unlock();
        on_fail(err);
        g_q.lock.lock();
    }
    return true;
}

// Starts the writer thread with every signal blocked in it, at background
// priority where allowed (it never runs at a real-time caller's priority).
bool startThreadLocked() AOV_REQUIRES(g_q.lock) {
    if (g_q.thread_started || g_q.inline_writes) {
        return true;
    }
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    sched_param param{};
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedparam(&attr, &param);
    pthread_attr_setschedpolicy(&attr, SCHED_OTHER);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attr, writerMain, nullptr) == 0;
#ifdef SCHED_BATCH
    // A thread attribute cannot carry SCHED_BATCH (pthread_attr_setschedpolicy
    // takes only OTHER, FIFO and RR); the thread is moved once created. It
    // never exits, so its handle stays valid although it is detached.
    if (started) {
        pthread_setschedparam(thread, SCHED_BATCH, &param);
    }
#endif
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    g_q.thread_started = started;
    return started;
}

// Waits for room under the lock until `deadline`; false when it passed.
bool waitRoomLocked(const timespec& deadline) AOV_REQUIRES(g_q.lock) {
    return pthread_cond_timedwait(&g_q.room, g_q.lock.native(), &deadline) != ETIMEDOUT;
}

bool pushLocked(const Entry& e) AOV_REQUIRES(g_q.lock) {
    g_q.entries[(g_q.head + g_q.count) % kEntries] = e;
    ++g_q.count;
    ++g_q.handed_off;
    return g_q.writer_waiting;
}

}  // namespace

bool queueSetUp() {
    static bool once = [] {
        initSync();
        return true;
    }();
    (void)once;
    if (g_q.ring != nullptr) {
        return true;
    }
    g_q.work_size = SessionWriter::workBytes();
    const size_t bytes = kRingBytes + kContentSlots * size_t{kMaxPayload} + g_q.work_size;
    void* room = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) {
        return false;
    }
    uint8_t* at = static_cast<uint8_t*>(room);
    g_q.ring = at;
    at += kRingBytes;
    for (uint8_t*& slot : g_q.slots) {
        slot = at;
        at += kMaxPayload;
    }
    g_q.work_room = g_q.work_size > 0 ? at : nullptr;
    return true;
}

uint8_t* queueWorkRoom(size_t* size) {
    *size = g_q.work_size;
    return g_q.work_room;
}

bool queueAttach(SessionWriter* writer, bool output_may_signal, WriteFailed on_fail) {
    g_q.lock.lock();
    g_q.writer = writer;
    g_q.may_signal = output_may_signal;
    g_q.on_fail = on_fail;
    g_q.discard.store(false);
    const bool started = startThreadLocked();
    g_q.lock.unlock();
    return started;
}

void queueSetStallLimit(int ms) {
    g_q.stall_limit_ms.store(ms > 0 ? ms : kDefaultStallLimitMs);
}

int queueStallLimit() {
    return g_q.stall_limit_ms.load();
}

uint8_t* queueTakeContent(int* slot) {
    const timespec deadline = deadlineIn(g_q.stall_limit_ms.load());
    g_q.lock.lock();
    uint8_t* room = nullptr;
    for (;;) {
        for (int i = 0; i < kContentSlots && room == nullptr; ++i) {
            if (!g_q.slot_busy[i]) {
                g_q.slot_busy[i] = true;
                *slot = i;
                room = g_q.slots[i];
            }
        }
        if (room != nullptr || g_q.discard.load()) {
            break;
        }
        g_q.urgent = true;
        pthread_cond_signal(&g_q.work);
        if (!waitRoomLocked(deadline)) {
            break;
        }
    }
    g_q.lock.unlock();
    return room;
}

void queueReleaseContent(int slot) {
    g_q.lock.lock();
    g_q.slot_busy[slot] = false;
    g_q.lock.unlock();
}

bool queueSmall(RecordType type, const uint8_t* data, size_t size) {
    if (size > kRingBytes / 2) {
        return false;
    }
    const timespec deadline = deadlineIn(g_q.stall_limit_ms.load());
    g_q.lock.lock();
    if (g_q.inline_writes) {
        writeInlineLocked(type, data, size);
        g_q.lock.unlock();
        return true;
    }
    for (;;) {
        const bool wrap = g_q.ring_tail + size > kRingBytes;
        const size_t pad = wrap ? kRingBytes - g_q.ring_tail : 0;
        if (g_q.count < kEntries && g_q.ring_used + pad + size <= kRingBytes) {
            const size_t offset = wrap ? 0 : g_q.ring_tail;
            std::memcpy(g_q.ring + offset, data, size);
            g_q.ring_tail = offset + size;
            g_q.ring_used += pad + size;
            Entry e;
            e.type = type;
            e.size = static_cast<uint32_t>(size);
            e.offset = static_cast<uint32_t>(offset);
            e.pad = static_cast<uint32_t>(pad);
            const bool waiting = pushLocked(e);
            if (g_q.count >= kWakeAt || g_q.ring_used > kRingBytes / 2) {
                g_q.urgent = true;
            }
            // A writer with nothing queued sleeps without a time limit: the
            // first record after it wakes it once, into its linger wait.
            const bool wake = waiting && (g_q.urgent || g_q.count == 1);
            g_q.lock.unlock();
            // Woken after the unlock, the writer does not wake into a held lock.
            if (wake) {
                pthread_cond_signal(&g_q.work);
            }
            return true;
        }
        g_q.urgent = true;
        pthread_cond_signal(&g_q.work);
        if (g_q.discard.load() || !waitRoomLocked(deadline)) {
            g_q.lock.unlock();
            return false;
        }
    }
}

bool queueContent(RecordType type, int slot, size_t size) {
    const timespec deadline = deadlineIn(g_q.stall_limit_ms.load());
    g_q.lock.lock();
    if (g_q.inline_writes) {
        writeInlineLocked(type, g_q.slots[slot], size);
        g_q.slot_busy[slot] = false;
        g_q.lock.unlock();
        return true;
    }
    while (g_q.count >= kEntries) {
        g_q.urgent = true;
        pthread_cond_signal(&g_q.work);
        if (g_q.discard.load() || !waitRoomLocked(deadline)) {
            g_q.slot_busy[slot] = false;
            g_q.lock.unlock();
            return false;
        }
    }
    Entry e;
    e.type = type;
    e.size = static_cast<uint32_t>(size);
    e.slot = slot;
    g_q.urgent = true;
    const bool wake = pushLocked(e);
    g_q.lock.unlock();
    if (wake) {
        pthread_cond_signal(&g_q.work);
    }
    return true;
}

void queueDiscard() {
    g_q.discard.store(true);
    g_q.lock.lock();
    pthread_cond_broadcast(&g_q.room);
    g_q.lock.unlock();
}

void queueResume() {
    g_q.discard.store(false);
}

bool queueDrain(int seconds) {
    const timespec deadline = deadlineIn(seconds * 1000L);
    g_q.lock.lock();
    if (g_q.count > 0) {
        g_q.urgent = true;
        pthread_cond_signal(&g_q.work);
    }
    while (g_q.count > 0 && !g_q.discard.load() && waitRoomLocked(deadline)) {
    }
    // After a failure nothing more is written: nothing is left to wait for.
    const bool drained = g_q.count == 0 || g_q.discard.load();
    g_q.lock.unlock();
    return drained;
}

bool queueQuiesce(int seconds) {
    const timespec deadline = deadlineIn(seconds * 1000L);
    g_q.lock.lock();
    while (g_q.in_batch && waitRoomLocked(deadline)) {
    }
    const bool idle = !g_q.in_batch;
    g_q.lock.unlock();
    return idle;
}

uint64_t queueHandedOff() {
    g_q.lock.lock();
    const uint64_t n = g_q.handed_off;
    g_q.lock.unlock();
    return n;
}

// fork(): the lock is taken in the prepare handler and released in the
// parent's, across functions the analysis cannot follow.
void queueForkPrepare() AOV_NO_THREAD_SAFETY_ANALYSIS {
    g_q.lock.lock();
}

void queueForkParent() AOV_NO_THREAD_SAFETY_ANALYSIS {
    g_q.lock.unlock();
}

void queueForkChild() AOV_NO_THREAD_SAFETY_ANALYSIS {
    // The writer thread is not in the child and what is queued is the
    // parent's: the child starts empty, with a thread of its own later.
    initSync();
    g_q.head = 0;
    g_q.count = 0;
    g_q.ring_tail = 0;
    g_q.ring_used = 0;
    for (bool& busy : g_q.slot_busy) {
        busy = false;
    }
    g_q.writer_waiting = false;
    g_q.urgent = false;
    g_q.thread_started = false;
    g_q.inline_writes = true;
    g_q.handed_off = 0;
    g_q.writer = nullptr;
    g_q.discard.store(false);
}

// A pipe whose reader has gone raises SIGPIPE on a write, and a file at
// the process's size limit SIGXFSZ; by default either ends the process.
// While such an output is written both are blocked, and one the write
// raised is taken back before they are unblocked: the write fails (EPIPE,
// EFBIG), the recording stops, the process goes on.
QuietWrite::QuietWrite(bool needed) : active_(needed) {
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

QuietWrite::~QuietWrite() {
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

bool outputMaySignal(int fd) {
    struct stat info {};
    rlimit size{};
    return ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
           ::getrlimit(RLIMIT_FSIZE, &size) != 0 || size.rlim_cur != RLIM_INFINITY;
}

}  // namespace aovrec
