#pragma once

// The checks of each category, as the runner calls them in the order of a
// session (Runner.cpp). Each reports the checks it names; one that cannot
// run reports SKIP with why.

#include "Context.h"

namespace aovcompliance {

// --- open (OpenChecks.cpp) ----------------------------------------------------
// O_RDWR open, second open while held, close and reopen. Stops the run when
// the node cannot be opened or is a directory.
void openNodeChecks(Context& ctx);

// --- requests (RequestChecks.cpp) ---------------------------------------------
// Unknown codes and known numbers with the wrong size, refused.
void refusalChecks(Context& ctx);
// START; true when the session began.
bool startCheck(Context& ctx);
// ULPOSC3_ON, SENSOR_ON with 1 and 64 ids, and the three malformed SENSOR_ONs.
void notificationChecks(Context& ctx);
// SENSOR_OFF with 64 and 1 ids, ULPOSC3_OFF, STOP.
void endSessionChecks(Context& ctx);

// --- readiness (ReadinessChecks.cpp) -----------------------------------------
enum class Wait {
    kReadable,  // POLLIN
    kOther,     // woken without POLLIN (POLLERR, POLLHUP, ...)
    kQuiet,     // nothing within the wait
    kStopped,   // the poll did not answer; the run has stopped or the check has its verdict
};
// Polls the node for up to `waitMs`; the revents in `revents`.
Wait waitFor(Context& ctx, CheckId id, int waitMs, long* revents);

// Dequeues while the node polls readable, at most `maxDequeues` times, in one
// child (Context::drainNode); with `epfd` >= 0, a drained node's watch is
// armed on it. The details are in ctx.arena().drainLog().
enum class Drained {
    kEmpty,             // no POLLIN, or another bit (POLLERR, ...) without it
    kNothingToDequeue,  // POLLIN, but a dequeue found nothing
    kEndless,           // still readable after `maxDequeues` dequeues
    kStopped,
};
Drained drainQueue(Context& ctx, CheckId id, int maxDequeues, int epfd = -1);
// The drain's failed call, as the guard would report it on its own.
CallResult drainFailure(const DrainLog& log);
// A drain still readable after all its dequeues was merely slower than the
// stream (not a readiness storm).
bool outranByStream(const DrainLog& log);
// At least half the dequeues of the drain after the first returned the
// record the one before did, byte for byte: the same event handed out again
// (a full queue's overwrites change it now and then).
bool mostlyRepeated(const DrainLog& log);
// A drain still readable at its end shows a storm: it took events faster
// than the stream makes them, or mostly the same one again.
bool drainStormed(const DrainLog& log);

void notReadableBeforeStartCheck(Context& ctx);
enum class Events { kArriving, kNone, kNotSignalled, kStopped };
Events pollReadableCheck(Context& ctx);
void epollReadableCheck(Context& ctx);

struct Drain {
    enum class End {
        kEmpty,          // nothing to read: the poll showed no POLLIN
        kReadableEmpty,  // POLLIN, but the dequeue found nothing: `empty` is that dequeue
        kStorm,          // still readable after the most dequeues the drain makes,
                         // made faster than a stream at START's rate delivers them
        kOutran,         // the same, at a pace the stream could have kept up with
        kStopped,
    };
    End end = End::kStopped;
    CallResult empty;
};
Drain notReadableOnceDrainedCheck(Context& ctx);
void nothingAfterStopCheck(Context& ctx);

// --- dequeue (DequeueChecks.cpp) ------------------------------------------------
// The pending event into the library's layout, writes inside the areas, the
// record untouched.
void pendingEventChecks(Context& ctx);
// Nothing pending returns promptly, after the drain. A queue that never
// drained leaves the check to emptyDequeueAfterStopCheck.
void emptyDequeueCheck(Context& ctx, const Drain& drain);
// The same once the stream has stopped, when the drain could not decide it.
void emptyDequeueAfterStopCheck(Context& ctx);
// The faulting area refused, then the next event dequeued. Both SKIP when the
// drain showed that readiness does not say when an event is pending.
void faultingAreaChecks(Context& ctx, const Drain& drain);

// --- lifecycle (LifecycleChecks.cpp) ------------------------------------------
// STOP without START, right after the open. Stops the run when the answer says
// the node is no AOV node at all (ENOTTY, ENOSYS).
void stopWithoutStartCheck(Context& ctx);
// START twice, close while started, reopen, second session.
void lifecycleChecks(Context& ctx);

// "no event within N ms of START: ...".
std::string noEventWhy(const Context& ctx);

}  // namespace aovcompliance
