#pragma once

// Calls into a driver that may never return. Each call runs in a child
// process forked for it: the child shares the parent's open descriptors and
// its MAP_SHARED memory, makes the one system call and sends back the result.
// The parent waits for the answer with a limit; a child that does not answer
// in time is killed and left behind, so a request stuck in the driver can
// cost the caller a process, never a hang. The child's own copies of the
// descriptors are closed before it ends (each close is a FLUSH to the driver),
// and that too is waited for with a limit. The parent never closes a driver's
// descriptor itself: close() hands it to a child that shares the parent's
// descriptor table, so FLUSH and release run there.

#include <cstdint>
#include <functional>
#include <string>

// A call's errno is named with errnoName.
#include "ErrnoName.h"

namespace aovsimtool {

struct CallResult {
    enum class Status {
        kReturned,   // the call returned: value and error hold its outcome
        kTimedOut,   // no answer within the limit; the child was killed
        kDied,       // the child ended without answering
        kNoChild,    // no child process could be made
        kCloseHung,  // the call answered, but closing the child's copy of the
                     // descriptors did not finish within the limit (a FLUSH that
                     // never returns); value and error hold the call's outcome
    };
    Status status = Status::kNoChild;
    long value = -1;     // what the call returned
    int error = 0;       // errno after the call when value is negative
    int passed_fd = -1;  // with passFd: the descriptor the child handed over
    int64_t elapsed_us = 0;

    bool returned() const { return status == Status::kReturned; }
    // The call never finished, or its process could not close what it held.
    bool hung() const { return status == Status::kTimedOut || status == Status::kCloseHung; }
    bool failed() const { return returned() && value < 0; }
};

class GuardedCaller {
  public:
    // Children are reaped automatically from here on (SIGCHLD ignored).
    GuardedCaller();

    // Runs `call` in a child and waits up to `timeoutMs` for it. `call` runs in
    // a forked child of a single-threaded process: it may only make system
    // calls. With `passFd`, a non-negative value is a descriptor the child
    // opened; it is handed to the parent and returned in passed_fd.
    [[nodiscard]] CallResult run(int timeoutMs, const std::function<long()>& call,
                                 bool passFd = false);

    // Closes the parent's `fd` in a child that shares the parent's descriptor
    // table: the descriptor leaves the table at once, and the driver's FLUSH
    // (and its release, when this was the last reference) runs in the child.
    // A close that does not finish in time is kTimedOut; the descriptor is
    // gone from the parent either way.
    CallResult close(int timeoutMs, int fd);

    // Children killed after a timeout that may still be stuck in the driver.
    int abandoned() const { return abandoned_; }

  private:
    int abandoned_ = 0;
};

}  // namespace aovsimtool
