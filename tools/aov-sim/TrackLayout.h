#pragma once

// Lays collected records out as trace events the viewers draw right:
// - each track becomes a thread of its process (aov-sim, and aov-kdev when
//   the driver runs there), every process and thread named and given a sort
//   index so that the tracks keep their order;
// - slices of one track that would partly overlap go to a second lane of the
//   track, and a slice that begins exactly where its predecessor ends is moved
//   on by a nanosecond, since viewers nest the two;
// - the system layer's steps become begin/end pairs;
// - each delivered event with all its stages gets a flow from its driver
//   signal through the monitor's wake and notifyEvent to its callback, bound
//   to those slices (the flow_in/flow_out form on complete events);
// - counters belong to the process whose state they count.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TimelineRecord.h"

namespace aovsimtool {

struct TraceEvent {
    char phase = 'X';  // 'X', 'B', 'E', 'i' or 'C'
    int pid = 1;
    int tid = 0;  // none for counters
    int64_t ts_ns = 0;
    int64_t dur_ns = 0;                      // 'X' only
    const TimelineRecord* record = nullptr;  // name and args
    uint64_t flow = 0;                       // the flow bound here, 0 for none
    bool flow_in = false;
    bool flow_out = false;
};

struct TraceLayout {
    std::vector<nlohmann::json> metadata;  // names and sort indexes
    std::vector<TraceEvent> events;        // in time order
    uint64_t flows = 0;
};

constexpr int kSimPid = 1;
constexpr int kKdevPid = 2;
// Lanes of one track are threads this far apart.
constexpr int kLaneStride = 100;
constexpr int kMaxLanes = 4;

int processOf(TimelineTrack track);
int threadOf(TimelineTrack track);
const char* trackName(TimelineTrack track);

// `records` must outlive the layout.
TraceLayout layOutTracks(const std::vector<TimelineRecord>& records);

}  // namespace aovsimtool
