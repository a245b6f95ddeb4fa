#pragma once

// The checks of a node against what the AOV library relies on, grouped in
// five categories: open, requests, dequeue, readiness, lifecycle.

#include <cstdio>
#include <string>

#include "kelo_aov.h"

namespace aovcompliance {

struct Options {
    std::string node = AOV_DEVICE_NODE;
    bool verbose = false;
    bool tap = false;
    std::string only;             // one category, or empty for all
    int timeout_ms = 2000;        // the longest a request may take
    int event_timeout_ms = 3000;  // the longest to wait for an event after START
};

// The categories --only accepts.
bool isCategory(const std::string& name);

// Runs the checks against the node and writes the report to `out`. The exit
// code: 0 when every check ran and none failed (warnings allowed), 1 after a
// failure or a stopped run, 4 when nothing failed but checks were skipped.
int runChecks(const Options& options, std::FILE* out);

}  // namespace aovcompliance
