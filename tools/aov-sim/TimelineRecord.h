#pragma once

// One record of a session timeline as it was collected: what happened, on
// which track, from when to when. Laying the tracks out for a viewer and
// writing the file come after (TrackLayout, TraceWriter).

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace aovsimtool {

// Where a record is drawn: the threads of aov-sim, the kernel requests and
// platform calls of each of its threads, and the driver's own tracks when it
// runs in aov-kdev.
enum class TimelineTrack : int {
    kSystem,
    kMonitor,
    kBufferTask,
    kTimer,
    kKernelSystem,
    kKernelMonitor,
    kKernelTimer,
    kKernelOther,
    kPlatformSystem,
    kPlatformMonitor,
    kPlatformTimer,
    kPlatformOther,
    kServedTimer,     // aov-kdev: the driver's timer
    kServedRequests,  // aov-kdev: the requests its driver served
    kCount
};

// The part a calling thread plays in the session.
enum class TimelineRole : int { kSystem = 0, kMonitor = 1, kTimer = 2, kOther = 3 };

enum class RecordKind {
    kSlice,    // a call or stage with a beginning and an end
    kStep,     // one of the system layer's steps, ended by the next
    kMarker,   // a moment: an error line, an injected failure, a refusal
    kCounter,  // a sample of the counters named by `name`, values in `args`
};

// A record's part in an event's flow from the driver's signal to the callback.
enum class FlowPart { kNone, kSignal, kWake, kNotify, kCallback };

struct TimelineRecord {
    static constexpr size_t kNone = static_cast<size_t>(-1);

    RecordKind kind = RecordKind::kSlice;
    TimelineTrack track = TimelineTrack::kSystem;
    int64_t begin_ns = 0;  // since the timeline's start
    int64_t end_ns = 0;
    std::string name;
    nlohmann::json args;
    FlowPart flow = FlowPart::kNone;
    // kSignal: the driver's stamp of the event; kCallback: the stamp of the
    // signal its event was dequeued for (steady clock, ns since its epoch).
    int64_t stamp = 0;
    // kCallback: the wake and notifyEvent records of its notification.
    size_t wake = kNone;
    size_t notify = kNone;
};

}  // namespace aovsimtool
