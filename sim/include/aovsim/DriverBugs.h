#pragma once

// Mistakes a real AOV driver could make, which the emulated driver and its
// FUSE server can be told to make on purpose: a checker of drivers is proven
// against them, one at a time.

#include <cstdint>
#include <string>

namespace aovsim {

enum class DriverBug : uint32_t {
    kOverrunArea = 1u << 0,         // writes 64 bytes past the end of section 2's area
    kAcceptUnknownCode = 1u << 1,   // answers 0 to a request code it does not know
    kAcceptWrongSize = 1u << 2,     // matches requests on their number only, whatever the size
    kNoReadiness = 1u << 3,         // the node never polls readable
    kReadableAfterDrain = 1u << 4,  // the node stays readable once the queue is empty
    kEventsAfterStop = 1u << 5,     // events keep being queued after STOP, the first at once
    kIgnoreAreaFault = 1u << 6,     // an area it cannot write is skipped, the dequeue succeeds
    kHangSensorOff = 1u << 7,       // SENSOR_OFF never returns
    kBlockEmptyDequeue = 1u << 8,   // a dequeue with nothing pending never returns
    kKeepSessionOnClose = 1u << 9,  // closing the node leaves its session running
    kOverrunBuffer = 1u << 10,      // writes 64 bytes past section 10's area: past the event buffer
};

// A set of DriverBug bits.
using DriverBugs = uint32_t;

inline bool has(DriverBugs bugs, DriverBug bug) {
    return (bugs & static_cast<uint32_t>(bug)) != 0;
}

// The name aov-kdev's --fault takes ("overrun-area", ...), and back; false
// for a name that is not a bug.
const char* driverBugName(DriverBug bug);
bool driverBugFromName(const std::string& name, DriverBug* bug);
// Every name, comma-separated, for help and error texts.
std::string driverBugNames();

}  // namespace aovsim
