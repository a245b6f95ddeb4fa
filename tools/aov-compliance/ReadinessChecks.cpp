// Readiness as the library's event monitor sees it: any bit that would wake it
// counts, and the lines name the bits.

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "MonitorWait.h"
#include "Suite.h"

namespace aovcompliance {

namespace {

// How long the node must stay quiet after STOP: three frame periods.
constexpr int kQuietMs = 3 * 1000 / Arena::kFrameRate;
// Dequeues at most this many events to drain the queue.
constexpr int kMaxDrain = 64;
// Times the epoll watch is armed in search of an arm with nothing pending.
constexpr int kArmTries = 8;

// What the epoll watch saw when it was armed.
// kDone: the check has its verdict, or the run has stopped.
enum class Armed { kEmpty, kReady, kDone };

// The watch the drain armed on its epoll instance, looked at without
// waiting: kEmpty when nothing was pending at the arm, so that only the
// driver's wake-up can make it ready later; kReady when EPOLLIN was. Other
// bits at the arm leave the check with a SKIP.
Armed armedWatch(Context& ctx, CheckId id, const DrainLog& log) {
    const CallResult failed = drainFailure(log);
    if (log.end == DrainLog::kArmFailed) {
        ctx.problem(id, "expected the node to be watchable, got epoll_ctl " + resultText(failed));
        return Armed::kDone;
    }
    if (log.end == DrainLog::kLookFailed) {
        ctx.problem(id, "expected epoll_wait to answer, got " + resultText(failed));
        return Armed::kDone;
    }
    if (log.armed != 0 && (log.armed & EPOLLIN) == 0) {
        ctx.skip(id, "the node signalled " + pollBitsText(log.armed) +
                         " with nothing to dequeue when the watch was armed (see " +
                         entry(CheckId::kNotReadableDrained).name + ")");
        return Armed::kDone;
    }
    return log.armed == 0 ? Armed::kEmpty : Armed::kReady;
}

// The wait of a watch armed with nothing pending: a wake-up passes; none
// fails if an event is pending by then, and is a SKIP if none came.
void judgeWake(Context& ctx, CheckId id, const CallResult& r) {
    const std::string within = std::to_string(ctx.options().event_timeout_ms) + " ms";
    if (r.value > 0 && (r.value & EPOLLIN) != 0) {
        ctx.pass(id);
        return;
    }
    if (r.value != 0) {
        ctx.problem(id, "expected EPOLLIN within " + within +
                            " of a watch armed with nothing pending, got " +
                            (r.value > 0 ? pollBitsText(r.value) : resultText(r)));
        return;
    }
    long bits = 0;
    const Wait w = waitFor(ctx, id, 0, &bits);
    if (w == Wait::kStopped) {
        return;
    }
    if (w == Wait::kReadable) {
        ctx.problem(id, "expected EPOLLIN within " + within +
                            " of a watch armed with nothing pending, got none while poll says " +
                            pollBitsText(bits) + ": the monitor is never woken by the next event");
        return;
    }
    ctx.skip(id, "no event within " + within + " of the watch armed with nothing pending");
}

}  // namespace

std::string noEventWhy(const Context& ctx) {
    return "no event within " + std::to_string(ctx.options().event_timeout_ms) +
           " ms of START: events need a streaming sensor (on a device, start the sensor first)";
}

Wait waitFor(Context& ctx, CheckId id, int waitMs, long* revents) {
    const CallResult r = ctx.pollNode(waitMs);
    *revents = 0;
    if (!ctx.answered(id, r)) {
        return Wait::kStopped;
    }
    if (r.value < 0) {
        ctx.fail(id, "expected poll to answer, got " + resultText(r));
        return Wait::kStopped;
    }
    *revents = r.value;
    if ((r.value & POLLIN) != 0) {
        return Wait::kReadable;
    }
    return (r.value & kWakingBits) != 0 ? Wait::kOther : Wait::kQuiet;
}

void notReadableBeforeStartCheck(Context& ctx) {
    const CheckId id = CheckId::kNotReadableBeforeStart;
    long bits = 0;
    const Wait w = waitFor(ctx, id, 0, &bits);
    if (w == Wait::kStopped) {
        return;
    }
    if (w == Wait::kQuiet) {
        ctx.pass(id);
        return;
    }
    ctx.problem(id, "expected no readiness, got " + pollBitsText(bits) +
                        ": a monitor would spin, as the library dequeues only once started");
}

Events pollReadableCheck(Context& ctx) {
    const CheckId id = CheckId::kPollReadable;
    long bits = 0;
    const Wait w = waitFor(ctx, id, ctx.options().event_timeout_ms, &bits);
    if (w == Wait::kStopped) {
        return Events::kStopped;
    }
    if (w == Wait::kReadable) {
        ctx.pass(id);
        return Events::kArriving;
    }
    // Not readable: either nothing arrived, or the driver does not say so.
    const CallResult r = ctx.dequeue(false);
    if (!ctx.answered(id, r)) {
        return Events::kStopped;
    }
    if (r.value >= 0) {
        ctx.problem(id, "expected POLLIN within " + std::to_string(ctx.options().event_timeout_ms) +
                            " ms, got " + pollBitsText(bits) +
                            " while a dequeue returned an event: the library dequeues only when "
                            "the monitor sees readiness");
        return Events::kNotSignalled;
    }
    ctx.skip(id, noEventWhy(ctx) + (bits != 0 ? " (the node signalled " + pollBitsText(bits) + ")"
                                              : std::string()));
    return Events::kNone;
}

// Whether a drain still readable after all its dequeues was merely slower
// than the stream: it lasted long enough for events at the rate START asked
// for to make up at least half of what it dequeued (the rest may have been
// queued before it began). A driver handing out events faster than that is
// not streaming them.
bool outranByStream(const DrainLog& log) {
    return log.drain_us * Arena::kFrameRate >= static_cast<int64_t>(log.dequeues) * 1000000 / 2;
}

bool mostlyRepeated(const DrainLog& log) {
    return log.repeats > 0 && log.repeats * 2 >= log.dequeues - 1;
}

bool drainStormed(const DrainLog& log) {
    return !outranByStream(log) || mostlyRepeated(log);
}

CallResult drainFailure(const DrainLog& log) {
    CallResult r;
    r.status = CallResult::Status::kReturned;
    r.value = static_cast<long>(log.value);
    r.error = log.error;
    r.elapsed_us = log.call_us;
    return r;
}

Drained drainQueue(Context& ctx, CheckId id, int maxDequeues, int epfd) {
    const CallResult r = ctx.drainNode(
        maxDequeues, epfd < 0 ? Context::AfterDrain::kNothing : Context::AfterDrain::kArm, epfd);
    if (!ctx.answered(id, r)) {
        return Drained::kStopped;
    }
    const DrainLog& log = *ctx.arena().drainLog();
    ctx.note(id, "drain: " + std::to_string(log.dequeues) + " dequeues in " + msText(log.drain_us));
    switch (log.end) {
        case DrainLog::kPollFailed:
            ctx.fail(id, "expected poll to answer, got " + resultText(r));
            return Drained::kStopped;
        case DrainLog::kDequeueFailed:
            return Drained::kNothingToDequeue;
        case DrainLog::kLimit:
            return Drained::kEndless;
        default:
            // No POLLIN; an arm that failed is the caller's to judge.
            return Drained::kEmpty;
    }
}

// Registered with no events first and then modified, as the system layer's
// monitor does. Only a watch armed with nothing pending proves the driver's
// wake-up: an event pending at the arm is reported without one. So the queue
// is drained, the watch armed on a fresh instance and looked at at once; one
// already ready (an event came meanwhile) is drained and armed again.
void epollReadableCheck(Context& ctx) {
    const CheckId id = CheckId::kEpollReadable;
    const int waitMs = ctx.options().event_timeout_ms;
    for (int tries = 1; tries <= kArmTries; ++tries) {
        const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
        if (epfd < 0) {
            ctx.skip(id, "no epoll instance: " + aovsimtool::errnoName(errno));
            return;
        }
        Armed armed = Armed::kDone;
        const DrainLog& log = *ctx.arena().drainLog();
        switch (drainQueue(ctx, id, kMaxDrain, epfd)) {
            case Drained::kStopped:
                break;
            case Drained::kEndless:
                ctx.skip(id, std::string(drainStormed(log) ? "the queue never drained"
                                                           : "the stream outran the drain") +
                                 ": still readable after " + std::to_string(log.dequeues) +
                                 " dequeues in " + msText(log.drain_us) +
                                 ", so a watch is never armed with nothing pending");
                break;
            case Drained::kNothingToDequeue:
                ctx.skip(id,
                         "readable with nothing to dequeue: a wake-up cannot be told from it "
                         "(see " +
                             std::string(entry(CheckId::kNotReadableDrained).name) + ")");
                break;
            case Drained::kEmpty:
                armed = armedWatch(ctx, id, log);
                break;
        }
        if (armed == Armed::kEmpty) {
            const CallResult r = ctx.guard().run(
                ctx.options().timeout_ms + waitMs,
                [epfd, waitMs]() -> long { return aovsimtool::waitAsMonitor(epfd, waitMs); });
            if (ctx.answered(id, r)) {
                judgeWake(ctx, id, r);
            }
        }
        ::close(epfd);
        if (armed != Armed::kReady) {
            return;
        }
    }
    ctx.skip(id, "an event was pending each of the " + std::to_string(kArmTries) +
                     " times the watch was armed: its wake-up was never needed");
}

Drain notReadableOnceDrainedCheck(Context& ctx) {
    const CheckId id = CheckId::kNotReadableDrained;
    Drain drain;
    // Events keep arriving: dequeue while readable, a bounded number of times.
    const Drained drained = drainQueue(ctx, id, kMaxDrain);
    const DrainLog& log = *ctx.arena().drainLog();
    switch (drained) {
        case Drained::kStopped:
            return drain;
        case Drained::kEmpty:
            drain.end = Drain::End::kEmpty;
            if ((log.revents & kWakingBits) == 0) {
                ctx.pass(id);
            } else {
                ctx.problem(id, "expected no readiness with nothing to dequeue, got " +
                                    pollBitsText(log.revents) +
                                    ": the monitor hears of it every time it waits, and would "
                                    "call the library again and again");
            }
            return drain;
        case Drained::kNothingToDequeue:
            drain.end = Drain::End::kReadableEmpty;
            drain.empty = drainFailure(log);
            ctx.problem(id, "expected no readiness with nothing to dequeue, got " +
                                pollBitsText(log.revents) + " while a dequeue returned " +
                                resultText(drain.empty) +
                                ": the monitor would call the library again and again");
            return drain;
        case Drained::kEndless:
            break;
    }
    const std::string still = "still after " + std::to_string(log.dequeues) + " dequeues in " +
                              msText(log.drain_us) + " that each returned an event";
    if (!drainStormed(log)) {
        drain.end = Drain::End::kOutran;
        ctx.skip(id, "the stream outran the drain: POLLIN " + still + ", no faster than the " +
                         std::to_string(Arena::kFrameRate) +
                         " a second START asked for; the queue was never seen empty");
        return drain;
    }
    if (mostlyRepeated(log)) {
        ctx.problem(id, "expected no readiness once drained, got POLLIN still after " +
                            std::to_string(log.dequeues) + " dequeues in " + msText(log.drain_us) +
                            ", " + std::to_string(log.repeats) +
                            " of which returned the same record as the dequeue before: a dequeue "
                            "that never takes its event off the queue");
    } else {
        ctx.problem(id, "expected no readiness once drained, got POLLIN " + still +
                            ", faster than the stream makes them: a readiness storm, or a dequeue "
                            "that never takes its event off the queue");
    }
    drain.end = Drain::End::kStorm;
    return drain;
}

void nothingAfterStopCheck(Context& ctx) {
    const CheckId id = CheckId::kNothingAfterStop;
    long bits = 0;
    const Wait w = waitFor(ctx, id, kQuietMs, &bits);
    if (w == Wait::kStopped) {
        return;
    }
    if (w == Wait::kQuiet) {
        ctx.pass(id);
        return;
    }
    ctx.problem(id, "expected no readiness for " + std::to_string(kQuietMs) +
                        " ms after STOP, got " + pollBitsText(bits) +
                        ": the library no longer dequeues, so a monitor would spin");
}

}  // namespace aovcompliance
