// The open checks: the node opens read-write, a second open is answered one
// way or the other, and it opens again after a close.

#include <fcntl.h>
#include <sys/stat.h>

#include "Suite.h"

namespace aovcompliance {

namespace {

// True when the node's path names a directory (checked in a child: a stat can
// reach a driver too).
bool isDirectory(Context& ctx) {
    const std::string path = ctx.options().node;
    const CallResult r = ctx.guard().run(ctx.options().timeout_ms, [&path]() -> long {
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(S_ISDIR(st.st_mode)) : -1;
    });
    return r.returned() && r.value == 1;
}

}  // namespace

void openNodeChecks(Context& ctx) {
    const std::string& node = ctx.options().node;
    if (isDirectory(ctx)) {
        ctx.stop(node + " is a directory, not an AOV node");
        return;
    }
    CallResult r = ctx.openNode();
    if (!ctx.openAnswered(CheckId::kOpenReadWrite, r)) {
        ctx.stop("the node cannot be opened");
        return;
    }
    if (r.value < 0) {
        ctx.fail(CheckId::kOpenReadWrite,
                 "expected a descriptor of " + node + ", got " + resultText(r));
        ctx.stop("the node cannot be opened");
        return;
    }
    ctx.setFd(r.passed_fd);
    ctx.pass(CheckId::kOpenReadWrite);

    // Asked at once, so that a path that is no AOV node ends the run here.
    stopWithoutStartCheck(ctx);
    if (ctx.stopped()) {
        return;
    }

    // The library opens the node once per process; either answer is fine.
    r = ctx.openNode();
    if (!ctx.openAnswered(CheckId::kSecondOpen, r)) {
        return;
    }
    if (r.value >= 0) {
        const CallResult closed = ctx.close(r.passed_fd);
        if (closed.status == CallResult::Status::kTimedOut) {
            ctx.fail(CheckId::kSecondOpen,
                     "expected the second descriptor's close to finish within " +
                         std::to_string(ctx.options().timeout_ms) +
                         " ms, got none: FLUSH or release blocks");
            ctx.stop("the close of the second descriptor never returned; later checks not run");
            return;
        }
        if (!ctx.answered(CheckId::kSecondOpen, closed)) {
            return;
        }
        ctx.pass(CheckId::kSecondOpen, "allowed: the node is not exclusive");
    } else {
        ctx.pass(CheckId::kSecondOpen, "refused with " + resultText(r) + ": the node is exclusive");
    }

    const CallResult closed = ctx.close(ctx.fd());
    if (closed.status == CallResult::Status::kTimedOut) {
        ctx.fail(CheckId::kCloseReopen, "expected the close to finish within " +
                                            std::to_string(ctx.options().timeout_ms) +
                                            " ms, got none: FLUSH or release blocks");
        ctx.stop("the close never returned; later checks not run");
        return;
    }
    if (!ctx.answered(CheckId::kCloseReopen, closed)) {
        return;
    }
    r = ctx.openNode();
    if (!ctx.openAnswered(CheckId::kCloseReopen, r)) {
        return;
    }
    if (r.value >= 0) {
        ctx.setFd(r.passed_fd);
    }
    if (closed.value < 0 || r.value < 0) {
        ctx.fail(CheckId::kCloseReopen, "expected close 0 and a descriptor, got close " +
                                            resultText(closed) + " and open " + resultText(r));
        if (r.value < 0) {
            ctx.stop("the node cannot be opened again");
        }
        return;
    }
    ctx.pass(CheckId::kCloseReopen);
}

}  // namespace aovcompliance
