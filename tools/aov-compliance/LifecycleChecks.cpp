// The lifecycle: STOP without a session, START twice, a close while started,
// and a second session on a new descriptor.

#include <cerrno>

#include "Suite.h"

namespace aovcompliance {

namespace {

// A close that never finished fails `id` and stops the run; true when the
// close answered.
bool closeAnswered(Context& ctx, CheckId id, const CallResult& closed) {
    if (closed.status == CallResult::Status::kTimedOut) {
        ctx.fail(id, "expected the close to finish within " +
                         std::to_string(ctx.options().timeout_ms) +
                         " ms, got none: FLUSH or release blocks");
        ctx.stop("the close never returned; later checks not run");
        return false;
    }
    return ctx.answered(id, closed);
}

void secondSession(Context& ctx) {
    const CheckId id = CheckId::kSecondSession;
    CallResult r = ctx.request(AOV_IOC_START, ctx.arena().startRecord());
    if (!ctx.answered(id, r)) {
        return;
    }
    if (r.value < 0) {
        ctx.problem(id, "expected START to succeed, got " + resultText(r) +
                            (r.error == EBUSY ? ": the driver kept the first session after its "
                                                "descriptor closed"
                                              : ""));
        return;
    }
    long bits = 0;
    const Wait w = waitFor(ctx, id, ctx.options().event_timeout_ms, &bits);
    if (w == Wait::kStopped) {
        return;
    }
    std::string problem;
    const bool event = w == Wait::kReadable;
    if (w == Wait::kOther) {
        problem = "expected an event within " + std::to_string(ctx.options().event_timeout_ms) +
                  " ms, got " + pollBitsText(bits);
    }
    if (event) {
        r = ctx.dequeue(false);
        if (!ctx.answered(id, r)) {
            return;
        }
        if (r.value < 0) {
            problem = "expected an event, got " + resultText(r);
        }
    }
    r = ctx.request(AOV_IOC_STOP, nullptr);
    if (!ctx.answered(id, r)) {
        return;
    }
    if (problem.empty() && r.value < 0) {
        problem = "expected STOP to succeed, got " + resultText(r);
    }
    if (!problem.empty()) {
        ctx.problem(id, problem);
    } else if (!event) {
        ctx.skip(id, noEventWhy(ctx));  // nothing signalled at all
    } else {
        ctx.pass(id);
    }
}

}  // namespace

void stopWithoutStartCheck(Context& ctx) {
    const CheckId id = CheckId::kStopWithoutStart;
    // The library sends STOP from stopDevice whatever the state, and logs a
    // negative result as an error.
    const CallResult r = ctx.request(AOV_IOC_STOP, nullptr);
    if (!ctx.answered(id, r)) {
        return;
    }
    if (r.value < 0 && (r.error == ENOTTY || r.error == ENOSYS)) {
        ctx.stop(ctx.options().node + " is not an AOV node: it answers STOP with " +
                 aovsimtool::errnoName(r.error) +
                 (r.error == ENOTTY ? ", as a file that knows no AOV request does"
                                    : ": the requests do not reach a driver (an emulator that "
                                      "does not pass them on?)"));
        return;
    }
    if (r.value >= 0) {
        ctx.pass(id);
    } else {
        ctx.problem(id, "expected 0, got " + resultText(r) +
                            " (the library logs \"failed to stop device\")");
    }
}

void lifecycleChecks(Context& ctx) {
    if (ctx.fd() < 0) {
        ctx.skipAll({CheckId::kStartTwice, CheckId::kCloseWhileStarted, CheckId::kReopenAfterClose,
                     CheckId::kSecondSession},
                    "the node is not open");
        return;
    }
    // START twice: the library sends START again on a second startDevice.
    CallResult r = ctx.request(AOV_IOC_START, ctx.arena().startRecord());
    if (!ctx.answered(CheckId::kStartTwice, r)) {
        return;
    }
    if (r.value < 0) {
        ctx.problem(CheckId::kStartTwice,
                    "expected the first START to succeed, got " + resultText(r));
    } else {
        const CallResult second = ctx.request(AOV_IOC_START, ctx.arena().startRecord());
        if (!ctx.answered(CheckId::kStartTwice, second)) {
            return;
        }
        ctx.pass(CheckId::kStartTwice, "second START " +
                                           std::string(second.value < 0 ? "refused with " : "-> ") +
                                           resultText(second));
    }

    // Close while started, as a process that dies mid-session does.
    const CallResult closed = ctx.close(ctx.fd());
    if (!closeAnswered(ctx, CheckId::kCloseWhileStarted, closed)) {
        return;
    }
    if (closed.value == 0) {
        ctx.pass(CheckId::kCloseWhileStarted);
    } else {
        ctx.problem(CheckId::kCloseWhileStarted, "expected 0, got " + resultText(closed));
    }

    r = ctx.openNode();
    if (!ctx.openAnswered(CheckId::kReopenAfterClose, r)) {
        return;
    }
    if (r.value < 0) {
        ctx.problem(CheckId::kReopenAfterClose,
                    "expected a descriptor, got " + resultText(r) +
                        (r.error == EBUSY ? ": the closed descriptor still holds the node" : ""));
        ctx.skip(CheckId::kSecondSession, "no descriptor");
        return;
    }
    ctx.setFd(r.passed_fd);
    ctx.pass(CheckId::kReopenAfterClose);
    secondSession(ctx);
}

}  // namespace aovcompliance
