#include "TimelineCollector.h"

#include <cstring>
#include <utility>

#include "aovsim/SimDriver.h"
#include "aovsim/Trace.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using nlohmann::json;

double micros(int64_t ns) {
    return static_cast<double>(ns) / 1000.0;
}

TimelineTrack plus(TimelineTrack first, TimelineRole role) {
    return static_cast<TimelineTrack>(static_cast<int>(first) + static_cast<int>(role));
}

std::string requestName(unsigned int request) {
    const char* known = aovsim::SimDriver::requestName(request);
    return known != nullptr ? known : aovsim::format("ioctl 0x%08x", request);
}

}  // namespace

TimelineCollector::TimelineCollector(Clock::time_point start, size_t maxRecords)
    : start_(start), max_records_(maxRecords) {}

int64_t TimelineCollector::sinceStart(Clock::time_point t) const {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t - start_).count();
}

size_t TimelineCollector::add(RecordKind kind, TimelineTrack track, int64_t begin, int64_t end,
                              std::string name, json args) {
    if (finished_) {
        return TimelineRecord::kNone;
    }
    if (records_.size() >= max_records_) {
        ++dropped_records_;
        return TimelineRecord::kNone;
    }
    TimelineRecord record;
    record.kind = kind;
    record.track = track;
    record.begin_ns = begin;
    record.end_ns = end < begin ? begin : end;
    record.name = std::move(name);
    record.args = std::move(args);
    records_.push_back(std::move(record));
    return records_.size() - 1;
}

size_t TimelineCollector::add(RecordKind kind, TimelineTrack track, Clock::time_point begin,
                              Clock::time_point end, std::string name, json args) {
    return add(kind, track, sinceStart(begin), sinceStart(end), std::move(name), std::move(args));
}

void TimelineCollector::droppedCounter(bool served, Clock::time_point now) {
    add(RecordKind::kCounter, served ? TimelineTrack::kServedTimer : TimelineTrack::kTimer, now,
        now, "driver events dropped", json{{"dropped", dropped_events_}});
}

void TimelineCollector::eventQueued(bool served, uint32_t sequence, Clock::time_point at,
                                    Clock::time_point now, size_t depth, bool overwrote) {
    const TimelineTrack timer = served ? TimelineTrack::kServedTimer : TimelineTrack::kTimer;
    // From the driver's stamp to the end of its signal: a slice the flow starts on.
    const size_t signal = add(RecordKind::kSlice, timer, at, now,
                              "signal #" + std::to_string(sequence), json{{"sequence", sequence}});
    if (signal != TimelineRecord::kNone) {
        records_[signal].flow = FlowPart::kSignal;
        records_[signal].stamp =
            std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
    }
    add(RecordKind::kCounter, timer, now, now, "driver queue depth", json{{"pending", depth}});
    if (overwrote) {
        ++dropped_events_;
        droppedCounter(served, now);
    }
}

void TimelineCollector::queueDepth(bool served, Clock::time_point now, size_t depth,
                                   uint64_t dropped) {
    add(RecordKind::kCounter, served ? TimelineTrack::kServedTimer : TimelineTrack::kTimer, now,
        now, "driver queue depth", json{{"pending", depth}});
    if (dropped > 0) {
        dropped_events_ += dropped;
        droppedCounter(served, now);
    }
}

void TimelineCollector::requestServed(unsigned int request, Clock::time_point begin,
                                      Clock::time_point end, int result) {
    add(RecordKind::kSlice, TimelineTrack::kServedRequests, begin, end, requestName(request),
        json{{"result", result}});
}

void TimelineCollector::monitorWoke(Clock::time_point at) {
    wake_ = at;
    // A zero-length slice rather than an instant: flows bind to slices only.
    wake_record_ = add(RecordKind::kSlice, TimelineTrack::kMonitor, at, at, "wake");
    if (wake_record_ != TimelineRecord::kNone) {
        records_[wake_record_].flow = FlowPart::kWake;
    }
}

void TimelineCollector::platformCall(TimelineRole role, const char* name, Clock::time_point begin,
                                     Clock::time_point now) {
    add(RecordKind::kSlice, plus(TimelineTrack::kPlatformSystem, role), begin, now, name);
}

void TimelineCollector::libraryCall(const char* name, Clock::time_point begin,
                                    Clock::time_point now, long long result) {
    add(RecordKind::kSlice, TimelineTrack::kSystem, begin, now, name, json{{"result", result}});
    if (std::strcmp(name, "startDevice") == 0 && result >= 0) {
        device_starting_ = true;
        start_device_begin_ = begin;
    }
}

void TimelineCollector::marker(Clock::time_point now, const char* name, json args) {
    add(RecordKind::kMarker, TimelineTrack::kSystem, now, now, name, std::move(args));
}

void TimelineCollector::step(const std::string& line, Clock::time_point now) {
    int64_t at = sinceStart(now);
    if (in_step_) {
        add(RecordKind::kStep, TimelineTrack::kSystem, step_begin_, at, step_name_);
        // The next step begins after this one ends, never at the same time:
        // viewers would nest the two.
        ++at;
    }
    in_step_ = !line.empty();
    step_name_ = line;
    step_begin_ = at;
}

void TimelineCollector::kernelRequest(TimelineRole role, unsigned int request,
                                      const std::string& decoded, Clock::time_point begin,
                                      Clock::time_point now, int result) {
    add(RecordKind::kSlice, plus(TimelineTrack::kKernelSystem, role), begin, now,
        requestName(request), json{{"result", result}, {"decoded", decoded}});
    if (request != AOV_IOC_DEQUEUE_EVENT) {
        return;
    }
    if (role == TimelineRole::kMonitor) {
        dequeued_ = result == 0;
        dequeue_begin_ = begin;
        dequeue_end_ = now;
    }
    if (result == 0 && device_starting_) {
        device_starting_ = false;
        add(RecordKind::kSlice, TimelineTrack::kBufferTask, start_device_begin_, now,
            "buffer task (at most)");
    }
}

void TimelineCollector::notifyEntry(Clock::time_point now) {
    notify_ = now;
    dequeued_ = false;
    callback_record_ = TimelineRecord::kNone;
}

void TimelineCollector::notifyExit(Clock::time_point begin, Clock::time_point now) {
    const size_t notify =
        add(RecordKind::kSlice, TimelineTrack::kMonitor, begin, now, "notifyEvent");
    if (notify == TimelineRecord::kNone) {
        return;
    }
    records_[notify].flow = FlowPart::kNotify;
    if (callback_record_ != TimelineRecord::kNone) {
        records_[callback_record_].notify = notify;
        callback_record_ = TimelineRecord::kNone;
    }
}

void TimelineCollector::callbackEntry(uint32_t sequence, bool matched, Clock::time_point signal,
                                      Clock::time_point now) {
    sequence_ = sequence;
    matched_ = matched;
    signal_ = signal;
    callback_ = now;
}

void TimelineCollector::callbackReturn(TimelineRole role, uint64_t number, Clock::time_point now) {
    ++delivered_;
    add(RecordKind::kCounter, TimelineTrack::kSystem, now, now, "events delivered",
        json{{"delivered", delivered_}});
    json stages = json::object();
    const auto at = [this](Clock::time_point t) { return micros(sinceStart(t)); };
    // Only a notification that dequeued this very event has all its stages.
    const bool complete = matched_ && dequeued_ && role == TimelineRole::kMonitor &&
                          wake_record_ != TimelineRecord::kNone;
    if (complete) {
        stages = json{{"signal", at(signal_)},
                      {"wake", at(wake_)},
                      {"notify", at(notify_)},
                      {"dequeue_call", at(dequeue_begin_)},
                      {"dequeue_return", at(dequeue_end_)},
                      {"callback_entry", at(callback_)},
                      {"callback_return", at(now)}};
    }
    const size_t callback =
        add(RecordKind::kSlice, TimelineTrack::kMonitor, callback_, now,
            "callback #" + std::to_string(number),
            json{{"event", number}, {"sequence", sequence_}, {"stages", stages}});
    if (!complete || callback == TimelineRecord::kNone) {
        return;
    }
    TimelineRecord& record = records_[callback];
    record.flow = FlowPart::kCallback;
    record.stamp =
        std::chrono::duration_cast<std::chrono::nanoseconds>(signal_.time_since_epoch()).count();
    record.wake = wake_record_;
    callback_record_ = callback;
}

void TimelineCollector::finish(Clock::time_point now) {
    if (in_step_) {
        add(RecordKind::kStep, TimelineTrack::kSystem, step_begin_, sinceStart(now), step_name_);
        in_step_ = false;
    }
    finished_ = true;
}

}  // namespace aovsimtool
