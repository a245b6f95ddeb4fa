#pragma once

// Calls into a driver that may never return. Each call runs in a child
// process forked for it: the child shares the parent's open descriptors and
// its MAP_SHARED memory, makes the one system call and sends back the result.
// The parent waits for the answer with a limit; a child that does not answer
// in time is killed and left behind, so a request stuck in the driver can
// cost the checker a process, never a hang.

#include <cstdint>
#include <functional>
#include <string>

namespace aovcompliance {

struct CallResult {
    enum class Status {
        kReturned,  // the call returned: value and error hold its outcome
        kTimedOut,  // no answer within the limit; the child was killed
        kDied,      // the child ended without answering
        kNoChild,   // no child process could be made
    };
    Status status = Status::kNoChild;
    long value = -1;     // what the call returned
    int error = 0;       // errno after the call when value is negative
    int passed_fd = -1;  // with passFd: the descriptor the child handed over
    int64_t elapsed_us = 0;

    bool returned() const { return status == Status::kReturned; }
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
    CallResult run(int timeoutMs, const std::function<long()>& call, bool passFd = false);

    // Closes `fd` so that the driver's release runs in a child: the parent
    // drops its reference first, the child holds the last one and closes it.
    CallResult close(int timeoutMs, int fd);

    // Children killed after a timeout that may still be stuck in the driver.
    int abandoned() const { return abandoned_; }

  private:
    int abandoned_ = 0;
};

// "ENOTTY", "EFAULT", ... or the number for an errno without a name here.
std::string errnoName(int error);

}  // namespace aovcompliance
