// Runs the checks in the order of a session, reports SKIP for what cannot run,
// stops after a request that never returned or a driver that went away, and
// turns the totals into the exit code.

#include <cerrno>

#include "Suite.h"

namespace aovcompliance {

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitSkipped = 4;

bool selected(const Report& report, Category category) {
    return report.selected(categoryName(category));
}

// The event checks, once a session has started.
void eventChecks(Context& ctx) {
    const auto rest = {CheckId::kPendingDequeued,    CheckId::kWritesInside,
                       CheckId::kRecordUntouched,    CheckId::kEpollReadable,
                       CheckId::kNotReadableDrained, CheckId::kEmptyDequeue,
                       CheckId::kFaultingArea,       CheckId::kWorksAfterFault};
    switch (pollReadableCheck(ctx)) {
        case Events::kStopped:
            return;
        case Events::kNone:
            ctx.skipAll(rest, "no event arrived");
            return;
        case Events::kNotSignalled:
            ctx.skipAll(rest, "the node does not signal readiness");
            return;
        case Events::kArriving:
            break;
    }
    pendingEventChecks(ctx);
    if (ctx.stopped()) {
        return;
    }
    epollReadableCheck(ctx);
    if (ctx.stopped()) {
        return;
    }
    const Drain drain = notReadableOnceDrainedCheck(ctx);
    if (ctx.stopped()) {
        return;
    }
    emptyDequeueCheck(ctx, drain);
    if (ctx.stopped()) {
        return;
    }
    faultingAreaChecks(ctx, drain);
}

void sessionChecks(Context& ctx) {
    refusalChecks(ctx);
    if (ctx.stopped()) {
        return;
    }
    const bool started = startCheck(ctx);
    if (ctx.stopped()) {
        return;
    }
    notificationChecks(ctx);
    if (ctx.stopped()) {
        return;
    }
    if (started) {
        eventChecks(ctx);
    } else {
        ctx.skipAll(
            {CheckId::kPollReadable, CheckId::kPendingDequeued, CheckId::kWritesInside,
             CheckId::kRecordUntouched, CheckId::kEpollReadable, CheckId::kNotReadableDrained,
             CheckId::kEmptyDequeue, CheckId::kFaultingArea, CheckId::kWorksAfterFault},
            "no session: START failed with " + aovsimtool::errnoName(ctx.lastError()));
    }
    if (ctx.stopped()) {
        return;
    }
    endSessionChecks(ctx);
    if (ctx.stopped()) {
        return;
    }
    nothingAfterStopCheck(ctx);
    if (ctx.stopped()) {
        return;
    }
    // Decides the empty dequeue only when nothing did before: a session
    // that never started has it skipped already.
    emptyDequeueAfterStopCheck(ctx);
}

}  // namespace

bool isCategory(const std::string& name) {
    Category category;
    return categoryNamed(name.c_str(), &category);
}

int runChecks(const Options& options, std::FILE* out) {
    Report report(out, options.tap ? Report::Format::kTap : Report::Format::kPlain, options.verbose,
                  options.only);
    Context ctx(options, report);
    report.begin();
    if (!ctx.arena().map()) {
        report.bail(std::string("no memory for the checks: ") + aovsimtool::errnoName(errno));
        return kExitFailed;
    }
    openNodeChecks(ctx);
    if (!ctx.stopped()) {
        notReadableBeforeStartCheck(ctx);
    }
    if (!ctx.stopped() &&
        (selected(report, Category::kRequests) || selected(report, Category::kDequeue) ||
         selected(report, Category::kReadiness))) {
        sessionChecks(ctx);
    }
    if (!ctx.stopped() && selected(report, Category::kLifecycle)) {
        lifecycleChecks(ctx);
    }
    // The node is closed by a child even after a stop: this process must not
    // end holding it, as its exit would run the driver's FLUSH here.
    if (ctx.fd() >= 0) {
        const CallResult closed = ctx.close(ctx.fd());
        if (closed.status == CallResult::Status::kTimedOut) {
            ctx.stop("the close at the end of the run never returned: FLUSH or release blocks");
        }
    }
    if (ctx.stopped()) {
        report.bail(ctx.stopReason());
        return kExitFailed;
    }
    // Every check of the categories shown has a line, whatever happened.
    for (size_t i = 0; i < kCheckCount; ++i) {
        const CheckEntry& check = checkTable()[i];
        if (selected(report, check.category) && !ctx.reported(check.id)) {
            ctx.skip(check.id, "not reached");
        }
    }
    report.end();
    const Totals& totals = report.totals();
    if (totals.failed > 0) {
        return kExitFailed;
    }
    return totals.skipped > 0 ? kExitSkipped : kExitPassed;
}

}  // namespace aovcompliance
