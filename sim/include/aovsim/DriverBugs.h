#pragma once

// Mistakes a real AOV driver could make, which the emulated driver and its
// FUSE server can be told to make on purpose: a checker of drivers is proven
// against them, one at a time. Each is a bug a kernel driver can have in the
// same form; the ones marked (node) are made by aov-kdev's file operations
// (flush, release, poll and a request's wait), the others by the driver.

#include <cstdint>
#include <string>
#include <vector>

namespace aovsim {

enum class DriverBug : uint64_t {
    kOverrunArea = 1ull << 0,         // writes 64 bytes past the end of section 2's area
    kAcceptUnknownCode = 1ull << 1,   // answers 0 to a request code it does not know
    kAcceptWrongSize = 1ull << 2,     // matches requests on their number only, whatever the size
    kNoReadiness = 1ull << 3,         // the node never polls readable
    kReadableAfterDrain = 1ull << 4,  // the node stays readable once the queue is empty
    kEventsAfterStop = 1ull << 5,     // events keep being queued after STOP, the first at once
    kIgnoreAreaFault = 1ull << 6,     // an area it cannot write is skipped, the dequeue succeeds
    kHangSensorOff = 1ull << 7,       // (node) SENSOR_OFF never returns
    // (node) a dequeue with nothing pending waits for the next event, and
    // gives up with EAGAIN only after kEmptyDequeueWaitMs
    kBlockEmptyDequeue = 1ull << 8,
    kKeepSessionOnClose = 1ull << 9,  // closing the node leaves its session running
    kOverrunBuffer = 1ull << 10,    // writes 64 bytes past section 10's area: past the event buffer
    kRefuseRdwr = 1ull << 11,       // an open for writing is refused with EACCES
    kHangRelease = 1ull << 12,      // (node) the release of the last descriptor never returns
    kHangFlush = 1ull << 13,        // (node) the flush of every close never returns
    kFlushBusy = 1ull << 14,        // a close while started answers EBUSY (the node is released)
    kWrongErrno = 1ull << 15,       // an unknown code is refused with EINVAL, not ENOTTY
    kPositiveSuccess = 1ull << 16,  // every request that succeeds returns 1
    kRefuseFullContent = 1ull << 17,    // START with aov_mode 2 (full content) is refused, EINVAL
    kMissingUlposc3 = 1ull << 18,       // ULPOSC3_ON and ULPOSC3_OFF are unknown codes (ENOTTY)
    kRefuseSensorIdZero = 1ull << 19,   // a sensor list holding id 0 is refused, EINVAL
    kSensorCountOffByOne = 1ull << 20,  // a sensor list of 64 ids is refused, EINVAL
    kLenientSensorCount = 1ull << 21,   // count 0 is accepted as a no-op, count above 64 clamped
    // STOP of a session with the ULPOSC3 clock off fails with EIO and the session runs on
    kStopNeedsUlposc3 = 1ull << 22,
    kRefuseIdleStop = 1ull << 23,    // STOP without a session is refused, EINVAL
    kStartOncePerOpen = 1ull << 24,  // START after any STOP on the same open is refused, EINVAL
    kBusyAfterStartedClose = 1ull << 25,  // a close while started leaves the node held (EBUSY)
    kBasicSectionsOnly = 1ull << 26,      // dequeuing a full-content event fails with EINVAL
    kLeakPadding = 1ull << 27,   // the dequeue record goes back with garbage in its padding
    kAreaFaultEio = 1ull << 28,  // an area it cannot write fails the dequeue with EIO
    // after an area it cannot write, every dequeue fails with EBUSY (a busy
    // flag left set on the error path)
    kStuckAfterAreaFault = 1ull << 29,
    kReadableWhenStopped = 1ull << 30,  // the node polls readable while no session runs
    // a failed copy keeps the event queued and sets an error that poll
    // reports as POLLERR until the next START
    kPollerrAfterError = 1ull << 31,
    // (node) a poller that did not ask for POLLIN (epoll's empty mask) is
    // never woken, though it later asks for it
    kWakePollinWaitersOnly = 1ull << 32,
    // SENSOR_ON or SENSOR_OFF with a null record returns 0, a null list
    // taken for none; a FUSE node never sees it (the kernel's copy of the
    // record fails first), the in-process driver and a kernel driver do
    kAcceptNullSensorList = 1ull << 33,
    // a dequeue copies the oldest event out but never removes it: the node
    // stays readable and every dequeue hands out the same event until STOP
    kDequeueKeepsEvent = 1ull << 34,
};

// A set of DriverBug bits.
using DriverBugs = uint64_t;

// How long a dequeue with nothing pending waits for the next event under
// kBlockEmptyDequeue before it gives up.
constexpr int kEmptyDequeueWaitMs = 5000;

inline bool has(DriverBugs bugs, DriverBug bug) {
    return (bugs & static_cast<uint64_t>(bug)) != 0;
}

// The name aov-kdev's --fault takes ("overrun-area", ...), and back; false
// for a name that is not a bug.
const char* driverBugName(DriverBug bug);
bool driverBugFromName(const std::string& name, DriverBug* bug);
// Every bug, in the order of the names.
std::vector<DriverBug> allDriverBugs();
// Every name, comma-separated, for help and error texts.
std::string driverBugNames();
// One line per bug, "  name: what the driver does wrong", for help texts.
std::string driverBugHelp();

}  // namespace aovsim
