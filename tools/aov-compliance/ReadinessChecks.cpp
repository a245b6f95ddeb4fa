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

// A fresh watch on `epfd`, armed as the monitor arms it, then looked at
// without waiting: kEmpty when nothing was pending at the arm, so that only
// the driver's wake-up can make it ready later; kReady when EPOLLIN was.
// Other bits at the arm leave the check with a SKIP.
Armed armWatch(Context& ctx, CheckId id, int epfd) {
    const int fd = ctx.fd();
    CallResult r = ctx.guard().run(ctx.options().timeout_ms, [epfd, fd]() -> long {
        return aovsimtool::armAsMonitor(epfd, fd);
    });
    if (!ctx.answered(id, r)) {
        return Armed::kDone;
    }
    if (r.value < 0) {
        ctx.problem(id, "expected the node to be watchable, got epoll_ctl " + resultText(r));
        return Armed::kDone;
    }
    r = ctx.guard().run(ctx.options().timeout_ms,
                        [epfd]() -> long { return aovsimtool::waitAsMonitor(epfd, 0); });
    if (!ctx.answered(id, r)) {
        return Armed::kDone;
    }
    if (r.value < 0) {
        ctx.problem(id, "expected epoll_wait to answer, got " + resultText(r));
        return Armed::kDone;
    }
    if (r.value != 0 && (r.value & EPOLLIN) == 0) {
        ctx.skip(id, "the node signalled " + pollBitsText(r.value) +
                         " with nothing to dequeue when the watch was armed (see " +
                         entry(CheckId::kNotReadableDrained).name + ")");
        return Armed::kDone;
    }
    return r.value == 0 ? Armed::kEmpty : Armed::kReady;
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

Drained drainQueue(Context& ctx, CheckId id, int maxDequeues, int* dequeues) {
    *dequeues = 0;
    for (int round = 0; round < maxDequeues; ++round) {
        long bits = 0;
        const Wait w = waitFor(ctx, id, 0, &bits);
        if (w == Wait::kStopped) {
            return Drained::kStopped;
        }
        if (w != Wait::kReadable) {
            return Drained::kEmpty;
        }
        const CallResult r = ctx.dequeue(false);
        ++*dequeues;
        if (!ctx.answered(id, r)) {
            return Drained::kStopped;
        }
        if (r.value < 0) {
            return Drained::kNothingToDequeue;
        }
    }
    return Drained::kEndless;
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
        int dequeues = 0;
        switch (drainQueue(ctx, id, kMaxDrain, &dequeues)) {
            case Drained::kStopped:
                return;
            case Drained::kEndless:
                ctx.skip(id, "the queue never drained: still readable after " +
                                 std::to_string(dequeues) +
                                 " dequeues, so a watch is never armed with nothing pending");
                return;
            case Drained::kNothingToDequeue:
                ctx.skip(id,
                         "readable with nothing to dequeue: a wake-up cannot be told from it "
                         "(see " +
                             std::string(entry(CheckId::kNotReadableDrained).name) + ")");
                return;
            case Drained::kEmpty:
                break;
        }
        const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
        if (epfd < 0) {
            ctx.skip(id, "no epoll instance: " + aovsimtool::errnoName(errno));
            return;
        }
        const Armed armed = armWatch(ctx, id, epfd);
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
    int dequeues = 0;
    for (int round = 0; round < kMaxDrain; ++round) {
        long bits = 0;
        const Wait w = waitFor(ctx, id, 0, &bits);
        if (w == Wait::kStopped) {
            return drain;
        }
        if (w == Wait::kQuiet) {
            ctx.pass(id);
            drain.end = Drain::End::kEmpty;
            return drain;
        }
        if (w == Wait::kOther) {
            ctx.problem(id, "expected no readiness with nothing to dequeue, got " +
                                pollBitsText(bits) +
                                ": the monitor hears of it every time it waits, and would call "
                                "the library again and again");
            drain.end = Drain::End::kEmpty;
            return drain;
        }
        const CallResult r = ctx.dequeue(false);
        ++dequeues;
        if (!ctx.answered(id, r)) {
            return drain;
        }
        if (r.value < 0) {
            ctx.problem(id, "expected no readiness with nothing to dequeue, got " +
                                pollBitsText(bits) + " while a dequeue returned " + resultText(r) +
                                ": the monitor would call the library again and again");
            drain.end = Drain::End::kReadableEmpty;
            drain.empty = r;
            return drain;
        }
    }
    ctx.problem(id, "expected no readiness once drained, got POLLIN still after " +
                        std::to_string(dequeues) +
                        " dequeues that each returned an event: a readiness storm, or a "
                        "dequeue that never takes its event off the queue");
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
