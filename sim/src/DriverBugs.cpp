#include "aovsim/DriverBugs.h"

namespace aovsim {

namespace {

struct Named {
    DriverBug bug;
    const char* name;
    const char* what;
};

constexpr Named kBugs[] = {
    {DriverBug::kOverrunArea, "overrun-area", "writes 64 bytes past the end of section 2's area"},
    {DriverBug::kAcceptUnknownCode, "accept-unknown-code",
     "answers 0 to a request code it does not know"},
    {DriverBug::kAcceptWrongSize, "accept-wrong-size",
     "matches requests on their number only, whatever the size"},
    {DriverBug::kNoReadiness, "no-readiness", "the node never polls readable"},
    {DriverBug::kReadableAfterDrain, "readable-after-drain",
     "the node stays readable once the queue is empty"},
    {DriverBug::kEventsAfterStop, "events-after-stop",
     "keeps queueing events after STOP (the frame in flight at once)"},
    {DriverBug::kIgnoreAreaFault, "ignore-area-fault",
     "skips an area it cannot write and reports success"},
    {DriverBug::kHangSensorOff, "hang-sensor-off", "SENSOR_OFF never returns"},
    {DriverBug::kBlockEmptyDequeue, "block-empty-dequeue",
     "a dequeue with nothing pending waits for the next event (at most 5 s)"},
    {DriverBug::kKeepSessionOnClose, "keep-session-on-close",
     "closing the node leaves its session running"},
    {DriverBug::kOverrunBuffer, "overrun-buffer",
     "writes 64 bytes past section 10's area, past the event buffer"},
    {DriverBug::kRefuseRdwr, "refuse-rdwr", "an open for writing is refused with EACCES"},
    {DriverBug::kHangRelease, "hang-release", "the release of the last descriptor never returns"},
    {DriverBug::kHangFlush, "hang-flush",
     "the flush of every close never returns (a process's exit too)"},
    {DriverBug::kFlushBusy, "flush-busy",
     "a close while started fails with EBUSY (the node is released)"},
    {DriverBug::kWrongErrno, "wrong-errno",
     "an unknown request code is refused with EINVAL instead of ENOTTY"},
    {DriverBug::kPositiveSuccess, "positive-success", "every request that succeeds returns 1"},
    {DriverBug::kRefuseFullContent, "refuse-full-content",
     "START with aov_mode 2 (full content) fails with EINVAL"},
    {DriverBug::kMissingUlposc3, "missing-ulposc3",
     "ULPOSC3_ON and ULPOSC3_OFF are unknown codes (ENOTTY)"},
    {DriverBug::kRefuseSensorIdZero, "refuse-sensor-id-0",
     "a sensor list holding id 0 fails with EINVAL"},
    {DriverBug::kSensorCountOffByOne, "sensor-count-off-by-one",
     "a sensor list of 64 ids fails with EINVAL"},
    {DriverBug::kLenientSensorCount, "lenient-sensor-count",
     "a sensor list of count 0 is a no-op, a count above 64 is clamped"},
    {DriverBug::kStopNeedsUlposc3, "stop-needs-ulposc3",
     "STOP of a session with ULPOSC3 off fails with EIO; the session runs on"},
    {DriverBug::kRefuseIdleStop, "refuse-idle-stop", "STOP without a session fails with EINVAL"},
    {DriverBug::kStartOncePerOpen, "start-once-per-open",
     "START after a STOP on the same open fails with EINVAL"},
    {DriverBug::kBusyAfterStartedClose, "busy-after-started-close",
     "a close while started leaves the node held: the next open gets EBUSY"},
    {DriverBug::kBasicSectionsOnly, "basic-sections-only",
     "dequeuing a full-content event fails with EINVAL"},
    {DriverBug::kLeakPadding, "leak-padding",
     "the dequeue record comes back with garbage in its padding"},
    {DriverBug::kAreaFaultEio, "area-fault-eio",
     "an area it cannot write fails the dequeue with EIO instead of EFAULT"},
    {DriverBug::kStuckAfterAreaFault, "stuck-after-area-fault",
     "after an area it cannot write, every dequeue fails with EBUSY"},
    {DriverBug::kReadableWhenStopped, "readable-when-stopped",
     "the node polls readable while no session runs"},
    {DriverBug::kPollerrAfterError, "pollerr-after-error",
     "after an area it cannot write (the event kept), poll reports POLLERR until the next START"},
    {DriverBug::kWakePollinWaitersOnly, "wake-pollin-waiters-only",
     "a poller that did not ask for POLLIN at first (epoll's empty mask) is never woken"},
    {DriverBug::kAcceptNullSensorList, "accept-null-sensor-list",
     "SENSOR_ON or SENSOR_OFF with a null record returns 0 (not seen through FUSE)"},
    {DriverBug::kDequeueKeepsEvent, "dequeue-keeps-event",
     "a dequeue hands out the oldest event without removing it from the queue"},
};

}  // namespace

const char* driverBugName(DriverBug bug) {
    for (const Named& named : kBugs) {
        if (named.bug == bug) {
            return named.name;
        }
    }
    return "unknown";
}

bool driverBugFromName(const std::string& name, DriverBug* bug) {
    for (const Named& named : kBugs) {
        if (name == named.name) {
            *bug = named.bug;
            return true;
        }
    }
    return false;
}

std::vector<DriverBug> allDriverBugs() {
    std::vector<DriverBug> bugs;
    for (const Named& named : kBugs) {
        bugs.push_back(named.bug);
    }
    return bugs;
}

std::string driverBugHelp() {
    std::string help;
    for (const Named& named : kBugs) {
        help += std::string("  ") + named.name + ": " + named.what + "\n";
    }
    return help;
}

std::string driverBugNames() {
    std::string names;
    for (const Named& named : kBugs) {
        names += names.empty() ? named.name : std::string(", ") + named.name;
    }
    return names;
}

}  // namespace aovsim
