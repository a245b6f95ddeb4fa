#pragma once

// What the checks share: the options, the node's descriptor, the guarded
// caller and arena every request goes through, and the verdict plumbing: each
// check's verdict is recorded once, a failure that follows from an earlier one
// is marked as such, and a request that never returns or a driver that goes
// away stops the run.

#include <poll.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "Arena.h"
#include "CheckTable.h"
#include "Checks.h"
#include "Guarded.h"
#include "Report.h"

namespace aovcompliance {

using aovsimtool::CallResult;

// The bits of a poll that would wake the library's event monitor (an epoll
// watch for EPOLLIN, which always hears of errors and hang-ups too).
constexpr short kWakingBits = POLLIN | POLLERR | POLLHUP | POLLNVAL;

// "POLLIN|POLLERR", "0" for none.
std::string pollBitsText(long revents);
// "EAGAIN", "-5 EIO" (a negative result other than -1), "0", "3".
std::string resultText(const CallResult& r);
// "1.2 ms".
std::string msText(int64_t micros);

class Context {
  public:
    Context(const Options& options, Report& report);

    const Options& options() const { return options_; }
    Arena& arena() { return arena_; }
    aovsimtool::GuardedCaller& guard() { return guard_; }
    int fd() const { return fd_; }
    void setFd(int fd) { fd_ = fd; }

    // --- verdicts, one per check ------------------------------------------
    void pass(CheckId id, const std::string& note = std::string());
    // The table's verdict for the check (FAIL or WARN).
    void problem(CheckId id, const std::string& detail);
    void fail(CheckId id, const std::string& detail);
    void warn(CheckId id, const std::string& detail);
    void skip(CheckId id, const std::string& why);
    // Skips each of `ids` not yet reported.
    void skipAll(std::initializer_list<CheckId> ids, const std::string& why);
    bool reported(CheckId id) const { return verdicts_[index(id)] != kUnset; }
    // Reported FAIL or WARN.
    bool troubled(CheckId id) const;

    // --- stopping -----------------------------------------------------------
    bool stopped() const { return !stop_reason_.empty(); }
    const std::string& stopReason() const { return stop_reason_; }
    void stop(const std::string& reason);

    // True when `r` answered with something the check can judge. Otherwise the
    // check has its verdict, or the run has stopped: a call that never
    // returned, or a driver that went away (ENOTCONN, ENODEV).
    bool answered(CheckId id, const CallResult& r);

    // answered() for an open: a descriptor the open handed over although the
    // call is not judged (its process could not close its own copy) is closed
    // here, in a child, so that this process never ends holding it.
    bool openAnswered(CheckId id, const CallResult& r);
    // A line for -v about `id` that is no verdict.
    void note(CheckId id, const std::string& text);

    // --- calls, each in a guarded child under the request limit --------------
    [[nodiscard]] CallResult request(unsigned long code, void* arg);
    // open(node, O_RDWR); the descriptor in passed_fd.
    [[nodiscard]] CallResult openNode();
    // The node's revents, waiting up to `waitMs`; 0 when nothing in time.
    [[nodiscard]] CallResult pollNode(int waitMs);
    [[nodiscard]] CallResult dequeue(bool faulting);
    // Drains the node in one child, at the driver's pace rather than a
    // process per call: polls without waiting and dequeues while POLLIN, at
    // most `maxDequeues` times and for half the request limit. Then, on a
    // drained node, `then`: nothing, a watch registered on `epfd` as the
    // monitor does and looked at without waiting, or one more dequeue, timed.
    // Nothing but the driver's own pace lies between the last empty poll and
    // that step. What happened is in arena().drainLog(); the result is the
    // failed or final call's.
    enum class AfterDrain { kNothing, kArm, kDequeue };
    [[nodiscard]] CallResult drainNode(int maxDequeues, AfterDrain then, int epfd = -1);
    // Closes `fd` in a child; the descriptor is gone from here either way.
    CallResult close(int fd);

    // A request that must succeed: the table's verdict when negative, WARN when
    // positive. True when it succeeded.
    bool expectSuccess(CheckId id, unsigned long code, void* arg);
    // A request the driver must refuse: the table's verdict when accepted,
    // WARN when refused with another error than `expected`, followed by
    // `otherError` when given (what such an error may mean).
    void expectRefused(CheckId id, unsigned long code, void* arg, int expected,
                       const char* otherError = nullptr);

    // The last error of a request expected to succeed that failed.
    int lastError() const { return last_error_; }

  private:
    static constexpr int kUnset = -1;
    static size_t index(CheckId id) { return static_cast<size_t>(id); }
    void record(CheckId id, Verdict verdict, const std::string& detail);

    const Options& options_;
    Report& report_;
    aovsimtool::GuardedCaller guard_;
    Arena arena_;
    int fd_ = -1;
    int last_error_ = 0;
    std::string stop_reason_;
    int verdicts_[kCheckCount] = {};
};

}  // namespace aovcompliance
