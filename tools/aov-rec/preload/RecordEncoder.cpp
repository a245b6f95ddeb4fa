#include "RecordEncoder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "kelo_aov.h"

namespace aovrec {
namespace {

__thread uint32_t t_tid __attribute__((tls_model("initial-exec"))) = 0;

std::atomic<bool> g_pipe_copies{false};  // process_vm_readv refused (or forced)
std::atomic<uint64_t> g_areas_read{0};
std::atomic<uint64_t> g_areas_unreadable{0};
std::atomic<uint64_t> g_pipe_count{0};

// Copies through a pipe of its own: write() reads the process's memory in
// the kernel and fails with EFAULT where it cannot, never faulting. A new
// pipe each time: nothing the process closes or a fork shares is used. Both
// ends never block: a chunk is at most what an empty pipe holds.
bool pipeCopy(void* to, const void* from, size_t size) {
    int fds[2];
    if (::syscall(SYS_pipe2, fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    g_pipe_count.fetch_add(1, std::memory_order_relaxed);
    auto* out = static_cast<uint8_t*>(to);
    const auto* in = static_cast<const uint8_t*>(from);
    bool ok = true;
    size_t done = 0;
    // A pipe holds at least 4 KiB (one page) without blocking.
    constexpr size_t kChunk = 4096;
    while (ok && done < size) {
        const size_t n = size - done < kChunk ? size - done : kChunk;
        const ssize_t w = ::syscall(SYS_write, fds[1], in + done, n);
        ok = w == static_cast<ssize_t>(n);
        size_t got = 0;
        while (ok && got < n) {
            const ssize_t r = ::syscall(SYS_read, fds[0], out + done + got, n - got);
            ok = r > 0;
            got += ok ? static_cast<size_t>(r) : 0;
        }
        done += n;
    }
    ::syscall(SYS_close, fds[0]);
    ::syscall(SYS_close, fds[1]);
    return ok;
}

const void* areaAddress(const uint8_t* record, size_t s) {
    return aov_query_area(reinterpret_cast<const aov_event_query*>(record),
                          static_cast<unsigned>(s));
}

uint32_t firstInfoWord(const uint8_t* record, size_t s) {
    uint32_t word;
    std::memcpy(&word, record + aov_event_sections[s].query_info_offset, sizeof(word));
    return word;
}

}  // namespace

uint64_t monotonicNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

uint32_t threadId() {
    if (t_tid == 0) {
        t_tid = static_cast<uint32_t>(::syscall(SYS_gettid));
    }
    return t_tid;
}

void threadIdReset() {
    t_tid = 0;
}

namespace {

// Whether every page of [from, from + size) can be read: one byte of each,
// read by the kernel (process_vm_readv, or a write into a pipe), which fails
// where a page cannot be read instead of faulting.
bool pagesReadable(const void* from, size_t size, bool through_pipe) {
    constexpr size_t kPage = 4096;
#ifdef MADV_POPULATE_READ
    if (!through_pipe) {
        // One call for the whole range: the kernel faults it in readable as
        // a read would, and fails where a read would fault.
        const auto begin = reinterpret_cast<uintptr_t>(from) & ~(kPage - 1);
        const uintptr_t end = reinterpret_cast<uintptr_t>(from) + size;
        if (::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_READ) == 0) {
            return true;
        }
        if (errno == EFAULT || errno == ENOMEM) {
            return false;
        }
        // An older kernel (EINVAL) or a sandbox: a byte of each page.
    }
#endif
    constexpr size_t kBatch = 256;
    const auto start = reinterpret_cast<uintptr_t>(from);
    const uintptr_t first = start & ~(kPage - 1);
    const uintptr_t last = (start + size - 1) & ~(kPage - 1);
    uint8_t scratch[kBatch];
    iovec remote[kBatch];
    int fds[2] = {-1, -1};
    if (through_pipe && ::syscall(SYS_pipe2, fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    bool ok = true;
    for (uintptr_t page = first; ok && page <= last;) {
        size_t n = 0;
        for (; n < kBatch && page <= last; ++n, page += kPage) {
            // The first page from the area's start, the others from theirs.
            const uintptr_t at = page < start ? start : page;
            remote[n] = iovec{reinterpret_cast<void*>(at), 1};
        }
        if (through_pipe) {
            for (size_t i = 0; ok && i < n; ++i) {
                ok = ::syscall(SYS_write, fds[1], remote[i].iov_base, 1) == 1;
            }
            ok = ok && ::syscall(SYS_read, fds[0], scratch, n) == static_cast<ssize_t>(n);
        } else {
            iovec local{scratch, n};
            ok = ::process_vm_readv(::getpid(), &local, 1, remote, n, 0) == static_cast<ssize_t>(n);
        }
    }
    if (through_pipe) {
        ::syscall(SYS_close, fds[0]);
        ::syscall(SYS_close, fds[1]);
    }
    return ok;
}

}  // namespace

bool safeCopy(void* to, const void* from, size_t size) {
    if (size == 0) {
        return true;
    }
    if (from == nullptr) {
        return false;
    }
    // Large areas: every page probed, then one memcpy (a probe costs a page
    // walk; a copy by the kernel costs several times a memcpy).
    constexpr size_t kProbeFrom = 64 * 1024;
    if (!g_pipe_copies.load(std::memory_order_relaxed)) {
        if (size >= kProbeFrom) {
            if (pagesReadable(from, size, false)) {
                std::memcpy(to, from, size);
                return true;
            }
            if (errno != ENOSYS && errno != EPERM) {
                return false;
            }
        } else {
            iovec local{to, size};
            iovec remote{const_cast<void*>(from), size};
            const ssize_t n = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
            if (n == static_cast<ssize_t>(size)) {
                return true;
            }
            if (n >= 0 || (errno != ENOSYS && errno != EPERM)) {
                return false;
            }
        }
        // A sandbox that refuses the call: the pipe from now on.
        g_pipe_copies.store(true);
    }
    if (size >= kProbeFrom) {
        g_pipe_count.fetch_add(1, std::memory_order_relaxed);
        if (!pagesReadable(from, size, true)) {
            return false;
        }
        std::memcpy(to, from, size);
        return true;
    }
    return pipeCopy(to, from, size);
}

CopyCounters copyCounters() {
    CopyCounters c;
    c.areas_read = g_areas_read.load();
    c.areas_unreadable = g_areas_unreadable.load();
    c.pipe_copies = g_pipe_count.load();
    return c;
}

void forcePipeCopies(bool on) {
    g_pipe_copies.store(on);
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

WaitPayload::WaitPayload(ByteWriter& out, const CallInfo& call, WaitKind kind, int timeout_ms)
    : out_(out) {
    putCall(out, call);
    out.u8(static_cast<uint8_t>(kind));
    out.u8(0);
    count_at_ = out.size();
    out.u16(0);
    out.u32(static_cast<uint32_t>(timeout_ms));
}

void WaitPayload::add(int fd, uint32_t events, uint32_t revents) {
    out_.u32(static_cast<uint32_t>(fd));
    out_.u32(events);
    out_.u32(revents);
    ++count_;
}

void WaitPayload::finish() {
    if (out_.overflow()) {
        return;
    }
    out_.at(count_at_)[0] = static_cast<uint8_t>(count_);
    out_.at(count_at_)[1] = static_cast<uint8_t>(count_ >> 8);
}

uint64_t contentBytes(ContentMode mode, const uint8_t* back, size_t back_len) {
    if (back_len < sizeof(aov_event_query) || mode == ContentMode::kNone) {
        return 0;
    }
    uint64_t total = 0;
    for (size_t s = 0; s < kSections; ++s) {
        if (areaAddress(back, s) != nullptr) {
            total += keptAreaBytes(mode, s, firstInfoWord(back, s));
        }
    }
    return total;
}

void putAreas(ByteWriter& out, ContentMode mode, size_t count_at, const uint8_t* back) {
    uint8_t count = 0;
    for (size_t s = 0; s < kSections; ++s) {
        const void* area = areaAddress(back, s);
        const uint32_t kept = keptAreaBytes(mode, s, firstInfoWord(back, s));
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
        g_areas_read.fetch_add(1, std::memory_order_relaxed);
        if (!safeCopy(room, area, kept)) {
            g_areas_unreadable.fetch_add(1, std::memory_order_relaxed);
            out.truncate(head_at);
            continue;
        }
        ++count;
    }
    *out.at(count_at) = count;
}

}  // namespace aovrec
