#pragma once

// The recorder's writer thread and its bounded queue. Callers build a record
// and hand it over; the writer thread compresses and writes the records in
// the order they were handed over. A caller never writes the session file
// itself and never waits for room longer than the stall limit: an output
// that stalls (a pipe nobody reads) cannot hold a recorded call.
//
// Small records (every call record) are copied into a ring of their own.
// A dequeue's data areas are built in one of two content buffers; when both
// are still being written, the caller gets none and keeps only the call
// record (the content is dropped and counted by the caller).
//
// The stall limit is the longest a caller waits for room.

#include <csignal>
#include <cstddef>
#include <cstdint>

#include "aovsession/SessionFormat.h"
#include "aovsession/SessionWriter.h"

namespace aovrec {

constexpr int kDefaultStallLimitMs = 200;
void queueSetStallLimit(int ms);
int queueStallLimit();

// Called by the writer thread when a write fails (errno-style code).
using WriteFailed = void (*)(int err);

// Maps the buffers once. False when there is no memory for them.
bool queueSetUp();
// Room the session writer needs for compression (mapped with the rest).
uint8_t* queueWorkRoom(size_t* size);

// Points the writer thread at `writer` (already begun) and starts the
// thread once. False when no thread can be started.
bool queueAttach(SessionWriter* writer, bool output_may_signal, WriteFailed on_fail);

// A free content buffer of kMaxPayload bytes, waiting up to the stall limit
// for one; null when both stayed busy.
uint8_t* queueTakeContent(int* slot);
void queueReleaseContent(int slot);

// Hands a record over. A small record is copied. False when no room came
// free within the stall limit (the record is not queued).
bool queueSmall(RecordType type, const uint8_t* data, size_t size);
bool queueContent(RecordType type, int slot, size_t size);

// From now on, queued records are thrown away instead of written (after a
// failure), and drain() no longer waits for them.
void queueDiscard();
// Until the next attach: records are written again.
void queueResume();

// Waits up to `seconds` until every queued record is written; true if so.
bool queueDrain(int seconds);
// Waits up to `seconds` until the writer thread is between batches, so that
// nothing it took before a discard still runs (a failure it would report
// included); true if so.
bool queueQuiesce(int seconds);
uint64_t queueHandedOff();

// Signals delivered to the thread writing the file must not end the process.
class QuietWrite {
  public:
    explicit QuietWrite(bool needed);
    ~QuietWrite();
    QuietWrite(const QuietWrite&) = delete;
    QuietWrite& operator=(const QuietWrite&) = delete;

  private:
    bool active_;
    sigset_t old_{};
    sigset_t before_{};
};
bool outputMaySignal(int fd);

// fork(): the queue's lock is taken before and released after in the
// parent; the child gets a fresh, empty queue and never a writer thread
// (starting a thread in the child of a process with many is not safe): each
// of its records is written by the call that makes it.
void queueForkPrepare();
void queueForkParent();
void queueForkChild();

}  // namespace aovrec
