#pragma once

// The emulated driver's counters and last handed-out event as text, one
// "key value" per line: what a driver served in another process publishes in
// its status file, and what a client of it reads back.

#include <cstdint>
#include <string>

#include "aovsim/SimDriver.h"

namespace aovsim {

struct DriverStatus {
    std::string scenario;  // the scenario the driver was set up from (on one line)
    bool started = false;
    uint64_t refusals = 0;  // refused requests, as the trace counts them
    DriverStats stats;
    DequeueMark last;
};

std::string formatDriverStatus(const DriverStatus& status);
// False when `text` lacks a key or holds one that is not a number.
bool parseDriverStatus(const std::string& text, DriverStatus* status);

}  // namespace aovsim
