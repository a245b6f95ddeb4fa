#pragma once

// How the recorder turns a call into a record's payload, and how it reads
// the process's memory for it: only through a copy that cannot fault, so
// memory the process got wrong is left out instead of crashing it. A small
// range is copied by the kernel (process_vm_readv on the process itself, or,
// where that is refused, through a pipe); a large one (a data area) has one
// byte of each page read that way first and is then copied with memcpy,
// several times cheaper than a copy by the kernel. Between the probe and the
// copy the process could unmap the range from another thread; a process
// that frees the event buffer it is dequeuing into is not covered.

#include <cstddef>
#include <cstdint>

#include "aovsession/SessionFormat.h"

namespace aovrec {

uint64_t monotonicNs();
uint32_t threadId();
void threadIdReset();  // in a forked child

// Copies `size` bytes of this process's memory at `from`; false when that
// memory cannot be read. Never faults.
bool safeCopy(void* to, const void* from, size_t size);
// Counters of how memory was read.
struct CopyCounters {
    uint64_t areas_read = 0;        // data areas read
    uint64_t areas_unreadable = 0;  // and left out
    uint64_t pipe_copies = 0;       // copies through a pipe (process_vm_readv refused)
};
CopyCounters copyCounters();
// For tests: behave as if process_vm_readv were refused.
void forcePipeCopies(bool on);

CallInfo callInfo(uint64_t begin_ns, int fd, int result, int err);

// A readiness wait's payload: the call, the wait's kind and timeout, then one
// entry for each of the node's descriptors it covered.
class WaitPayload {
  public:
    WaitPayload(ByteWriter& out, const CallInfo& call, WaitKind kind, int timeout_ms);
    bool full() const { return count_ >= kMaxWaitEntries; }
    void add(int fd, uint32_t events, uint32_t revents);
    void finish();

  private:
    ByteWriter& out_;
    size_t count_at_ = 0;
    uint16_t count_ = 0;
};

// Area bytes a dequeue answer asks to keep; 0 for a header-only event.
uint64_t contentBytes(ContentMode mode, const uint8_t* back, size_t back_len);
// Appends the kept data areas of a successful dequeue's answer `back` and
// sets the area count at `count_at`. Each area is read through safeCopy:
// the address is the driver's answer, and an area that cannot be read is
// left out.
void putAreas(ByteWriter& out, ContentMode mode, size_t count_at, const uint8_t* back);

}  // namespace aovrec
