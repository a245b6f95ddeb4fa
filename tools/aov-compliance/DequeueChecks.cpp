// The dequeue into the library's buffer layout: a pending event, the areas
// kept to, an unwritable area refused, and a dequeue with nothing pending.

#include <cerrno>

#include "Suite.h"

namespace aovcompliance {

namespace {

// Events tried to find one that carries content.
constexpr int kContentTries = 4;
// Times the queue is drained for a dequeue with nothing pending.
constexpr int kEmptyTries = 8;
// Dequeues at most this many events when draining again.
constexpr int kMaxRedrain = 64;

bool carriesContent(Context& ctx) {
    return ctx.arena().query()->header[5] != 0;
}

}  // namespace

void pendingEventChecks(Context& ctx) {
    const CheckId id = CheckId::kPendingDequeued;
    Arena& arena = ctx.arena();
    for (int attempt = 0; attempt < kContentTries; ++attempt) {
        if (attempt > 0) {
            long bits = 0;
            const Wait w = waitFor(ctx, id, ctx.options().event_timeout_ms, &bits);
            if (w == Wait::kStopped) {
                return;
            }
            if (w != Wait::kReadable) {
                break;
            }
        }
        const CallResult r = ctx.dequeue(false);
        if (!ctx.answered(id, r)) {
            return;
        }
        if (r.value < 0) {
            ctx.problem(id, "expected 0 with the node readable, got " + resultText(r));
            ctx.skipAll({CheckId::kWritesInside, CheckId::kRecordUntouched},
                        "no event was dequeued");
            return;
        }
        const bool content = carriesContent(ctx);
        std::string outside;
        const bool inside = arena.writesOnlyInAreas(&outside);
        if (content || attempt + 1 == kContentTries || !inside) {
            ctx.pass(id, content ? std::string() : "no event carried content");
            if (inside) {
                ctx.pass(CheckId::kWritesInside,
                         content ? std::string() : "on an event without content");
            } else {
                ctx.problem(CheckId::kWritesInside,
                            "expected writes only inside the ten areas, got " + outside);
            }
            std::string damage;
            if (arena.recordIntact(false, &damage)) {
                ctx.pass(CheckId::kRecordUntouched);
            } else {
                ctx.problem(CheckId::kRecordUntouched, "expected them as sent, got " + damage +
                                                           " (the library never reads them)");
            }
            return;
        }
        // An event without content writes no area: try the next one.
    }
    ctx.pass(id, "no event carried content");
    ctx.skipAll({CheckId::kWritesInside, CheckId::kRecordUntouched},
                "no event with content arrived");
}

void emptyDequeueCheck(Context& ctx, const Drain& drain) {
    const CheckId id = CheckId::kEmptyDequeue;
    switch (drain.end) {
        case Drain::End::kStopped:
            return;
        case Drain::End::kStorm:
        case Drain::End::kOutran:
            // Never seen empty: decided once the stream has stopped
            // (emptyDequeueAfterStopCheck).
            return;
        case Drain::End::kReadableEmpty:
            // The drain's last dequeue found nothing pending and answered.
            ctx.pass(id, "drained until empty: returned " + resultText(drain.empty) + " in " +
                             msText(drain.empty.elapsed_us));
            return;
        case Drain::End::kEmpty:
            break;
    }
    // A dequeue right after the drain, in the drain's own process, finds
    // nothing pending unless an event arrives meanwhile. One that returns an
    // event every time is waiting for the next one instead of answering.
    int64_t longest = 0;
    for (int attempt = 0; attempt < kEmptyTries; ++attempt) {
        const CallResult r = ctx.drainNode(kMaxRedrain, Context::AfterDrain::kDequeue);
        const DrainLog& log = *ctx.arena().drainLog();
        if (r.status == CallResult::Status::kTimedOut && log.end == DrainLog::kEmptyDequeue) {
            ctx.warn(id, "expected an answer within " + std::to_string(ctx.options().timeout_ms) +
                             " ms, got none: the dequeue blocks with nothing pending; a monitor "
                             "that misreads readiness would stall");
            return;
        }
        if (!ctx.answered(id, r)) {
            return;
        }
        switch (log.end) {
            case DrainLog::kPollFailed:
                ctx.fail(id, "expected poll to answer, got " + resultText(r));
                return;
            case DrainLog::kLimit:
                // Never seen empty: decided once the stream has stopped.
                return;
            default:
                break;
        }
        const CallResult empty = drainFailure(log);
        if (empty.value < 0) {
            ctx.pass(id, "drained until empty: returned " + resultText(empty) + " in " +
                             msText(empty.elapsed_us));
            return;
        }
        longest = empty.elapsed_us > longest ? empty.elapsed_us : longest;
    }
    ctx.problem(id, "drained " + std::to_string(kEmptyTries) +
                        " times, a dequeue with nothing pending returned an event every time, "
                        "after up to " +
                        msText(longest) +
                        ": it waits for the next event instead of answering; a monitor that "
                        "misreads readiness would stall");
}

void emptyDequeueAfterStopCheck(Context& ctx) {
    const CheckId id = CheckId::kEmptyDequeue;
    if (ctx.reported(id)) {
        return;
    }
    if (!ctx.reported(CheckId::kNothingAfterStop) || ctx.troubled(CheckId::kNothingAfterStop)) {
        ctx.skip(id, "the queue never drained, and the node was not quiet after STOP");
        return;
    }
    const CallResult r = ctx.dequeue(false);
    if (r.status == CallResult::Status::kTimedOut) {
        ctx.warn(id, "expected an answer within " + std::to_string(ctx.options().timeout_ms) +
                         " ms, got none: the dequeue blocks with nothing pending (stream stopped "
                         "first)");
        return;
    }
    if (!ctx.answered(id, r)) {
        return;
    }
    if (r.value < 0) {
        ctx.pass(id,
                 "stream stopped first: returned " + resultText(r) + " in " + msText(r.elapsed_us));
    } else {
        ctx.problem(id, "expected a negative result with nothing pending after STOP, got " +
                            resultText(r) + " (stream stopped first)");
    }
}

void faultingAreaChecks(Context& ctx, const Drain& drain) {
    const CheckId id = CheckId::kFaultingArea;
    const CheckId after = CheckId::kWorksAfterFault;
    if (drain.end == Drain::End::kReadableEmpty || drain.end == Drain::End::kStorm) {
        // A dequeue here could find nothing pending and fail for that alone.
        const std::string why = "readiness does not say when an event is pending (after: " +
                                std::string(entry(CheckId::kNotReadableDrained).name) + ")";
        ctx.skip(id, why);
        ctx.skip(after, why);
        return;
    }
    const std::string noEvent =
        "no further event within " + std::to_string(ctx.options().event_timeout_ms) + " ms";
    bool decided = false;
    for (int attempt = 0; attempt < kContentTries && !decided; ++attempt) {
        long bits = 0;
        const Wait w = waitFor(ctx, id, ctx.options().event_timeout_ms, &bits);
        if (w == Wait::kStopped) {
            return;
        }
        if (w != Wait::kReadable) {
            const std::string why = w == Wait::kOther ? "the node signalled " + pollBitsText(bits) +
                                                            " instead of an event"
                                                      : noEvent;
            ctx.skip(id, why);
            ctx.skip(after, why);
            return;
        }
        const CallResult r = ctx.dequeue(true);
        if (!ctx.answered(id, r)) {
            return;
        }
        if (r.value < 0) {
            if (r.error == EFAULT) {
                ctx.pass(id);
            } else {
                ctx.warn(id, "expected EFAULT, got " + resultText(r) +
                                 " (the library needs a negative result only)");
            }
            decided = true;
        } else if (carriesContent(ctx)) {
            ctx.problem(id,
                        "expected a negative result (EFAULT) with every area address "
                        "unwritable, got " +
                            resultText(r) +
                            " for an event carrying content: its data are silently missing");
            decided = true;
        }
        // An event without content writes no area: try the next one.
    }
    if (!decided) {
        ctx.skip(id, "no event carried content");
    }

    long bits = 0;
    const Wait w = waitFor(ctx, after, ctx.options().event_timeout_ms, &bits);
    if (w == Wait::kStopped) {
        return;
    }
    if (w != Wait::kReadable) {
        ctx.problem(after, "expected a further event within " +
                               std::to_string(ctx.options().event_timeout_ms) + " ms, got " +
                               (bits != 0 ? pollBitsText(bits) : std::string("none")) +
                               ": the driver stopped delivering");
        return;
    }
    const CallResult r = ctx.dequeue(false);
    if (!ctx.answered(after, r)) {
        return;
    }
    if (r.value >= 0) {
        ctx.pass(after);
    } else {
        ctx.problem(after, "expected 0, got " + resultText(r));
    }
}

}  // namespace aovcompliance
