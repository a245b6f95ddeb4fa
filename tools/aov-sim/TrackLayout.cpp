#include "TrackLayout.h"

#include <algorithm>
#include <map>
#include <set>

namespace aovsimtool {

namespace {

using nlohmann::json;

// One lane of a track: the ends of the slices still open, innermost last.
using Lane = std::vector<int64_t>;

// Places [begin, end] in the first lane where it nests in or follows what is
// open there; a begin equal to the end of the slice before it moves on by a
// nanosecond. Returns the lane.
int placeSlice(std::vector<Lane>& lanes, int64_t* begin, int64_t* end) {
    for (size_t n = 0;; ++n) {
        if (n == lanes.size()) {
            if (lanes.size() == static_cast<size_t>(kMaxLanes)) {
                // Every lane taken: the last one, as it is.
                lanes.back().push_back(*end);
                return kMaxLanes - 1;
            }
            lanes.emplace_back();
        }
        Lane lane = lanes[n];
        int64_t b = *begin;
        int64_t e = *end;
        while (!lane.empty() && lane.back() < b) {
            lane.pop_back();
        }
        if (!lane.empty() && lane.back() == b) {
            // Touching the slice before: begin after it.
            ++b;
            e = std::max(e, b);
            while (!lane.empty() && lane.back() < b) {
                lane.pop_back();
            }
        }
        if (lane.empty() || e <= lane.back()) {
            lane.push_back(e);
            lanes[n] = std::move(lane);
            *begin = b;
            *end = e;
            return static_cast<int>(n);
        }
    }
}

json metadata(const char* name, int pid, int tid, json args) {
    json event{{"ph", "M"}, {"pid", pid}, {"name", name}, {"args", std::move(args)}};
    if (tid != 0) {
        event["tid"] = tid;
    }
    return event;
}

}  // namespace

int processOf(TimelineTrack track) {
    return track == TimelineTrack::kServedTimer || track == TimelineTrack::kServedRequests
               ? kKdevPid
               : kSimPid;
}

int threadOf(TimelineTrack track) {
    switch (track) {
        case TimelineTrack::kSystem:
            return 1;
        case TimelineTrack::kMonitor:
            return 2;
        case TimelineTrack::kBufferTask:
            return 3;
        case TimelineTrack::kTimer:
        case TimelineTrack::kServedTimer:
            return 4;
        case TimelineTrack::kServedRequests:
            return 5;
        case TimelineTrack::kKernelSystem:
        case TimelineTrack::kKernelMonitor:
        case TimelineTrack::kKernelTimer:
        case TimelineTrack::kKernelOther:
            return 10 + static_cast<int>(track) - static_cast<int>(TimelineTrack::kKernelSystem);
        case TimelineTrack::kPlatformSystem:
        case TimelineTrack::kPlatformMonitor:
        case TimelineTrack::kPlatformTimer:
        case TimelineTrack::kPlatformOther:
            return 20 + static_cast<int>(track) - static_cast<int>(TimelineTrack::kPlatformSystem);
        case TimelineTrack::kCount:
            break;
    }
    return 99;
}

const char* trackName(TimelineTrack track) {
    switch (track) {
        case TimelineTrack::kSystem:
            return "system layer";
        case TimelineTrack::kMonitor:
            return "event monitor";
        case TimelineTrack::kBufferTask:
            return "library buffer task (inferred: startDevice to first dequeue)";
        case TimelineTrack::kTimer:
            return "driver timer";
        case TimelineTrack::kKernelSystem:
            return "kernel requests: system layer";
        case TimelineTrack::kKernelMonitor:
            return "kernel requests: event monitor";
        case TimelineTrack::kKernelTimer:
            return "kernel requests: driver timer";
        case TimelineTrack::kKernelOther:
            return "kernel requests: other threads";
        case TimelineTrack::kPlatformSystem:
            return "platform calls: system layer";
        case TimelineTrack::kPlatformMonitor:
            return "platform calls: event monitor";
        case TimelineTrack::kPlatformTimer:
            return "platform calls: driver timer";
        case TimelineTrack::kPlatformOther:
            return "platform calls: other threads";
        case TimelineTrack::kServedTimer:
            return "driver timer (aov-kdev)";
        case TimelineTrack::kServedRequests:
            return "requests served (aov-kdev)";
        case TimelineTrack::kCount:
            break;
    }
    return "?";
}

TraceLayout layOutTracks(const std::vector<TimelineRecord>& records) {
    TraceLayout layout;
    // The flows: each complete callback, in time order, takes the signal with
    // its stamp; signals stamped up to that one are dequeued or lost by then.
    std::vector<size_t> callbacks;
    std::map<int64_t, size_t> signals;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].flow == FlowPart::kCallback) {
            callbacks.push_back(i);
        } else if (records[i].flow == FlowPart::kSignal) {
            signals[records[i].stamp] = i;
        }
    }
    std::stable_sort(callbacks.begin(), callbacks.end(), [&records](size_t a, size_t b) {
        return records[a].begin_ns < records[b].begin_ns;
    });
    struct Bound {
        uint64_t flow;
        bool in;
        bool out;
    };
    std::map<size_t, Bound> bound;
    std::set<size_t> used;
    for (size_t c : callbacks) {
        const TimelineRecord& callback = records[c];
        const auto signal = signals.find(callback.stamp);
        if (signal != signals.end() && callback.wake < records.size() &&
            callback.notify < records.size() && used.count(callback.wake) == 0 &&
            used.count(callback.notify) == 0) {
            const uint64_t flow = ++layout.flows;
            bound[signal->second] = Bound{flow, false, true};
            bound[callback.wake] = Bound{flow, true, true};
            bound[callback.notify] = Bound{flow, true, true};
            bound[c] = Bound{flow, true, false};
            used.insert(callback.wake);
            used.insert(callback.notify);
        }
        signals.erase(signals.begin(), signals.upper_bound(callback.stamp));
    }

    // Slices and steps, track by track, outer ones first.
    std::vector<std::vector<size_t>> byTrack(static_cast<size_t>(TimelineTrack::kCount));
    for (size_t i = 0; i < records.size(); ++i) {
        const RecordKind kind = records[i].kind;
        if (kind == RecordKind::kSlice || kind == RecordKind::kStep) {
            byTrack[static_cast<size_t>(records[i].track)].push_back(i);
        }
    }
    std::set<std::pair<TimelineTrack, int>> threads;  // track and lane
    std::set<int> processes;
    for (auto& track : byTrack) {
        std::stable_sort(track.begin(), track.end(), [&records](size_t a, size_t b) {
            if (records[a].begin_ns != records[b].begin_ns) {
                return records[a].begin_ns < records[b].begin_ns;
            }
            return records[a].end_ns > records[b].end_ns;
        });
        std::vector<Lane> lanes(1);
        for (size_t i : track) {
            const TimelineRecord& record = records[i];
            int64_t begin = record.begin_ns;
            int64_t end = record.end_ns;
            const int lane = placeSlice(lanes, &begin, &end);
            const int pid = processOf(record.track);
            const int tid = threadOf(record.track) + lane * kLaneStride;
            threads.insert({record.track, lane});
            processes.insert(pid);
            TraceEvent event;
            event.pid = pid;
            event.tid = tid;
            event.ts_ns = begin;
            event.record = &record;
            if (record.kind == RecordKind::kStep) {
                event.phase = 'B';
                layout.events.push_back(event);
                event.phase = 'E';
                event.ts_ns = end;
                layout.events.push_back(event);
                continue;
            }
            event.dur_ns = end - begin;
            const auto flow = bound.find(i);
            if (flow != bound.end()) {
                event.flow = flow->second.flow;
                event.flow_in = flow->second.in;
                event.flow_out = flow->second.out;
            }
            layout.events.push_back(event);
        }
    }
    for (const TimelineRecord& record : records) {
        if (record.kind != RecordKind::kMarker && record.kind != RecordKind::kCounter) {
            continue;
        }
        TraceEvent event;
        event.phase = record.kind == RecordKind::kMarker ? 'i' : 'C';
        event.pid = processOf(record.track);
        event.tid = record.kind == RecordKind::kMarker ? threadOf(record.track) : 0;
        event.ts_ns = record.begin_ns;
        event.record = &record;
        if (record.kind == RecordKind::kMarker) {
            threads.insert({record.track, 0});
        }
        processes.insert(event.pid);
        layout.events.push_back(event);
    }
    // Time order; at one time an end before a beginning.
    std::stable_sort(layout.events.begin(), layout.events.end(),
                     [](const TraceEvent& a, const TraceEvent& b) {
                         if (a.ts_ns != b.ts_ns) {
                             return a.ts_ns < b.ts_ns;
                         }
                         return a.phase == 'E' && b.phase != 'E';
                     });

    for (int pid : processes) {
        layout.metadata.push_back(metadata(
            "process_name", pid, 0,
            json{{"name", pid == kSimPid ? "aov-sim" : "aov-kdev (driver through FUSE)"}}));
        layout.metadata.push_back(
            metadata("process_sort_index", pid, 0, json{{"sort_index", pid}}));
    }
    for (const auto& [track, lane] : threads) {
        const int pid = processOf(track);
        const int tid = threadOf(track) + lane * kLaneStride;
        std::string name = trackName(track);
        if (lane > 0) {
            name += " (overlapping, lane " + std::to_string(lane + 1) + ")";
        }
        layout.metadata.push_back(metadata("thread_name", pid, tid, json{{"name", name}}));
        layout.metadata.push_back(
            metadata("thread_sort_index", pid, tid,
                     json{{"sort_index", threadOf(track) * kMaxLanes + lane}}));
    }
    return layout;
}

}  // namespace aovsimtool
