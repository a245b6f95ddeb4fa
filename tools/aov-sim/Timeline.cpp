#include "Timeline.h"

#include <cerrno>
#include <cstring>
#include <map>

#include "EventObserver.h"
#include "aovsim/SimDriver.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// The kernel line the current thread recorded during its request in progress,
// cut short if need be. Plain storage: requests made while the process exits
// still find it.
thread_local char tl_kernel_line[512];

double micros(int64_t ns) {
    return static_cast<double>(ns) / 1000.0;
}

const char* trackName(int tid) {
    switch (tid) {
        case 1:
            return "system layer";
        case 2:
            return "event monitor";
        case 3:
            return "library buffer task (inferred: startDevice to first dequeue)";
        case 4:
            return "driver timer";
        case 10:
            return "kernel requests: system layer";
        case 11:
            return "kernel requests: event monitor";
        case 12:
            return "kernel requests: driver timer";
        case 13:
            return "kernel requests: other threads";
        case 20:
            return "platform calls: system layer";
        case 21:
            return "platform calls: event monitor";
        case 22:
            return "platform calls: driver timer";
        case 23:
            return "platform calls: other threads";
    }
    return "counters";
}

}  // namespace

std::shared_ptr<Timeline> Timeline::open(const std::string& path, std::string* problem) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        *problem = "cannot write the timeline to " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::shared_ptr<Timeline>(new Timeline(file, path));
}

Timeline::Timeline(std::FILE* file, std::string path)
    : file_(file),
      path_(std::move(path)),
      start_(Clock::now()),
      system_thread_(std::this_thread::get_id()) {}

Timeline::~Timeline() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
}

int64_t Timeline::sinceStart(Clock::time_point t) const {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t - start_).count();
}

Timeline::Role Timeline::roleLocked() const {
    const std::thread::id self = std::this_thread::get_id();
    if (self == system_thread_) {
        return kRoleSystem;
    }
    if (self == monitor_thread_) {
        return kRoleMonitor;
    }
    if (self == timer_thread_) {
        return kRoleTimer;
    }
    return kRoleOther;
}

size_t Timeline::addLocked(char phase, int tid, Clock::time_point begin, Clock::time_point end,
                           std::string name, json args) {
    if (finished_) {
        return kNoRecord;
    }
    if (records_.size() >= kMaxRecords) {
        ++records_dropped_;
        return kNoRecord;
    }
    tracks_used_[static_cast<size_t>(tid)] = true;
    records_.push_back(Record{phase, tid, sinceStart(begin), sinceStart(end) - sinceStart(begin),
                              std::move(name), std::move(args)});
    return records_.size() - 1;
}

void Timeline::flowLocked(size_t record, uint64_t flow, bool in, bool out) {
    if (record < records_.size()) {
        records_[record].flow = flow;
        records_[record].flow_in = in;
        records_[record].flow_out = out;
    }
}

void Timeline::eventCountersLocked(Clock::time_point now) {
    addLocked('C', 0, now, now, "events", json{{"delivered", delivered_}, {"dropped", dropped_}});
}

void Timeline::eventQueued(uint32_t sequence, Clock::time_point at, size_t depth, bool overwrote) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    timer_thread_ = std::this_thread::get_id();
    const size_t signal = addLocked('i', kTimer, at, at, "signal #" + std::to_string(sequence),
                                    json{{"sequence", sequence}});
    if (signal != kNoRecord) {
        signal_records_[at.time_since_epoch().count()] = signal;
    }
    addLocked('C', 0, now, now, "driver queue depth", json{{"pending", depth}});
    if (overwrote) {
        ++dropped_;
        eventCountersLocked(now);
    }
}

void Timeline::queueDepth(size_t depth, uint64_t dropped) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    addLocked('C', 0, now, now, "driver queue depth", json{{"pending", depth}});
    if (dropped > 0) {
        dropped_ += dropped;
        eventCountersLocked(now);
    }
}

void Timeline::monitorWoke(Clock::time_point at) {
    aov::MutexLock guard(mutex_);
    monitor_thread_ = std::this_thread::get_id();
    wake_ = at;
    wake_record_ = addLocked('i', kMonitor, at, at, "wake");
}

void Timeline::platformCall(const char* name, Clock::time_point begin) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    addLocked('X', kPlatform + roleLocked(), begin, now, name);
}

void Timeline::libraryError(const char* text) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    addLocked('i', kSystem, now, now, "library error", json{{"line", text}});
}

void Timeline::libraryCall(const char* name, Clock::time_point begin, long long result) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    addLocked('X', kSystem, begin, now, name, json{{"result", result}});
    if (std::strcmp(name, "startDevice") == 0 && result >= 0) {
        device_starting_ = true;
        start_device_begin_ = begin;
    }
}

void Timeline::traceLine(aovsim::TraceSource source, const std::string& line) {
    if (source == aovsim::TraceSource::kKernel) {
        std::snprintf(tl_kernel_line, sizeof(tl_kernel_line), "%s", line.c_str());
    }
    if (line.find("injected failure") == std::string::npos && line.compare(0, 8, "REFUSED ") != 0) {
        return;
    }
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    const bool injected = line.compare(0, 8, "REFUSED ") != 0;
    addLocked('i', kSystem, now, now, injected ? "injected failure" : "refused",
              json{{"source", aovsim::traceSourceTag(source)}, {"line", line}});
}

void Timeline::step(const std::string& line) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    if (in_step_) {
        addLocked('X', kSystem, step_begin_, now, step_name_);
    }
    in_step_ = !line.empty();
    step_name_ = line;
    step_begin_ = now;
}

void Timeline::beginRequest() {
    tl_kernel_line[0] = '\0';
}

void Timeline::kernelRequest(unsigned int request, Clock::time_point begin, int result) {
    const Clock::time_point now = Clock::now();
    const char* known = aovsim::SimDriver::requestName(request);
    std::string name = known != nullptr ? known : aovsim::format("ioctl 0x%08x", request);
    aov::MutexLock guard(mutex_);
    const Role role = roleLocked();
    addLocked('X', kKernel + role, begin, now, std::move(name),
              json{{"result", result}, {"decoded", std::string(tl_kernel_line)}});
    if (request != AOV_IOC_DEQUEUE_EVENT) {
        return;
    }
    if (role == kRoleMonitor) {
        dequeued_ = result == 0;
        dequeue_begin_ = begin;
        dequeue_end_ = now;
    }
    if (result == 0 && device_starting_) {
        device_starting_ = false;
        addLocked('X', kBufferTask, start_device_begin_, now, "buffer task (at most)");
    }
}

void Timeline::notifyEntry() {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    notify_ = now;
    dequeued_ = false;
    notify_flow_ = 0;
}

void Timeline::notifyExit(Clock::time_point begin) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    const size_t notify = addLocked('X', kMonitor, begin, now, "notifyEvent");
    if (notify_flow_ != 0) {
        flowLocked(notify, notify_flow_, true, true);
        notify_flow_ = 0;
    }
}

void Timeline::callbackEntry(uint32_t sequence, bool matched, Clock::time_point signal) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    sequence_ = sequence;
    matched_ = matched;
    signal_ = signal;
    callback_ = now;
}

void Timeline::callbackReturn(uint64_t number) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    ++delivered_;
    eventCountersLocked(now);
    json stages = json::object();
    const auto at = [this](Clock::time_point t) { return micros(sinceStart(t)); };
    // Only a notification that dequeued this very event has all its stages.
    const bool complete = matched_ && dequeued_ && roleLocked() == kRoleMonitor;
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
        addLocked('X', kMonitor, callback_, now, "callback #" + std::to_string(number),
                  json{{"event", number}, {"sequence", sequence_}, {"stages", stages}});
    if (!complete) {
        return;
    }
    // The flow: signal, wake, notifyEvent (on its exit), callback. Signals
    // stamped up to this one are dequeued or lost by now.
    const auto signal = signal_records_.find(signal_.time_since_epoch().count());
    if (signal != signal_records_.end() && wake_record_ != kNoRecord && callback != kNoRecord &&
        records_[wake_record_].flow == 0) {
        const uint64_t flow = ++flows_;
        flowLocked(signal->second, flow, false, true);
        flowLocked(wake_record_, flow, true, true);
        flowLocked(callback, flow, true, false);
        notify_flow_ = flow;
    }
    signal_records_.erase(signal_records_.begin(),
                          signal_records_.upper_bound(signal_.time_since_epoch().count()));
}

void Timeline::setCounts(json counts) {
    aov::MutexLock guard(mutex_);
    counts_ = std::move(counts);
}

bool Timeline::finish(std::string* problem) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    if (in_step_) {
        addLocked('X', kSystem, step_begin_, now, step_name_);
        in_step_ = false;
    }
    finished_ = true;
    bool ok = std::fputs("{\"displayTimeUnit\": \"ms\",\n\"otherData\": ", file_) >= 0;
    json other = counts_;
    other["records_dropped"] = records_dropped_;
    const auto dump = [](const json& value) {
        return value.dump(-1, ' ', false, json::error_handler_t::replace);
    };
    ok = ok && std::fputs(dump(other).c_str(), file_) >= 0;
    ok = ok && std::fputs(",\n\"traceEvents\": [\n", file_) >= 0;
    std::string text = dump(json{{"ph", "M"},
                                 {"pid", 1},
                                 {"tid", 0},
                                 {"name", "process_name"},
                                 {"args", {{"name", "aov-sim"}}}});
    ok = ok && std::fputs(text.c_str(), file_) >= 0;
    for (size_t tid = 0; tid < tracks_used_.size(); ++tid) {
        if (!tracks_used_[tid]) {
            continue;
        }
        text = ",\n" + dump(json{{"ph", "M"},
                                 {"pid", 1},
                                 {"tid", tid},
                                 {"name", "thread_name"},
                                 {"args", {{"name", trackName(static_cast<int>(tid))}}}});
        ok = ok && std::fputs(text.c_str(), file_) >= 0;
    }
    for (const Record& record : records_) {
        json event{{"ph", std::string(1, record.phase)},
                   {"pid", 1},
                   {"tid", record.tid},
                   {"ts", micros(record.ts_ns)},
                   {"name", record.name}};
        if (record.phase == 'X') {
            event["dur"] = micros(record.dur_ns);
        } else if (record.phase == 'i') {
            event["s"] = "t";
        }
        if (!record.args.is_null()) {
            event["args"] = record.args;
        }
        if (record.flow != 0) {
            event["bind_id"] =
                aovsim::format("0x%llx", static_cast<unsigned long long>(record.flow));
            if (record.flow_in) {
                event["flow_in"] = true;
            }
            if (record.flow_out) {
                event["flow_out"] = true;
            }
        }
        text = ",\n" + dump(event);
        if (!ok || std::fputs(text.c_str(), file_) < 0) {
            ok = false;
            break;
        }
    }
    ok = ok && std::fputs("\n]}\n", file_) >= 0;
    ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    records_.clear();
    if (!ok) {
        *problem = "cannot write the timeline to " + path_;
    }
    return ok;
}

int TimedNode::ioctl(int fd, unsigned int request, void* arg) {
    Timeline::beginRequest();
    const Clock::time_point begin = Clock::now();
    const int result = node_.ioctl(fd, request, arg);
    timeline_->kernelRequest(request, begin, result);
    return result;
}

namespace {

// Passes everything on to the device, timing each notification.
class TimedObserver final : public EventObserver {
  public:
    TimedObserver(EventObserver* observer, Timeline& timeline)
        : observer_(observer), timeline_(timeline) {}
    int setMonitor(EventMonitor* monitor) override { return observer_->setMonitor(monitor); }
    const std::string& getEventName() override { return observer_->getEventName(); }
    int getEventFD() override { return observer_->getEventFD(); }
    int getEventType() override { return observer_->getEventType(); }
    void notifyEvent(int event, int verbosity) override {
        const Clock::time_point begin = Clock::now();
        timeline_.notifyEntry();
        observer_->notifyEvent(event, verbosity);
        timeline_.notifyExit(begin);
    }

  private:
    EventObserver* observer_;
    Timeline& timeline_;
};

class TimedMonitor final : public EventMonitor {
  public:
    TimedMonitor(std::unique_ptr<EventMonitor> monitor, Timeline& timeline)
        : monitor_(std::move(monitor)), timeline_(timeline) {}
    ~TimedMonitor() override {
        // The monitor goes first: no notification runs through a wrapper after.
        monitor_.reset();
    }
    int addObserver(EventObserver* observer, int fd) override {
        if (observer == nullptr) {
            return monitor_->addObserver(nullptr, fd);
        }
        auto wrapper = std::make_unique<TimedObserver>(observer, timeline_);
        const int result = monitor_->addObserver(wrapper.get(), fd);
        if (result == 0) {
            wrappers_[observer] = std::move(wrapper);
        }
        return result;
    }
    int removeObserver(EventObserver* observer, int fd) override {
        auto it = wrappers_.find(observer);
        if (it == wrappers_.end()) {
            return monitor_->removeObserver(observer, fd);
        }
        const int result = monitor_->removeObserver(it->second.get(), fd);
        if (result == 0) {
            wrappers_.erase(it);
        }
        return result;
    }

  private:
    std::unique_ptr<EventMonitor> monitor_;
    Timeline& timeline_;
    std::map<EventObserver*, std::unique_ptr<TimedObserver>> wrappers_;
};

}  // namespace

std::unique_ptr<EventMonitor> timedMonitor(std::unique_ptr<EventMonitor> monitor,
                                           Timeline& timeline) {
    return std::make_unique<TimedMonitor>(std::move(monitor), timeline);
}

}  // namespace aovsimtool
