#include "Timeline.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "DriverTrack.h"
#include "EventObserver.h"
#include "Failure.h"
#include "TraceWriter.h"
#include "TrackLayout.h"

namespace aovsimtool {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// The kernel line the current thread recorded during its request in progress,
// cut short if need be. Plain storage: requests made while the process exits
// still find it.
thread_local char t_kernel_line[512];

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
      system_thread_(std::this_thread::get_id()),
      collector_(Clock::now(), kMaxRecords) {}

Timeline::~Timeline() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
}

TimelineRole Timeline::roleLocked() const {
    const std::thread::id self = std::this_thread::get_id();
    if (self == system_thread_) {
        return TimelineRole::kSystem;
    }
    if (self == monitor_thread_) {
        return TimelineRole::kMonitor;
    }
    if (self == timer_thread_) {
        return TimelineRole::kTimer;
    }
    return TimelineRole::kOther;
}

void Timeline::eventQueued(uint32_t sequence, Clock::time_point at, size_t depth, bool overwrote) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    timer_thread_ = std::this_thread::get_id();
    collector_.eventQueued(false, sequence, at, now, depth, overwrote);
}

void Timeline::queueDepth(size_t depth, uint64_t dropped) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.queueDepth(false, now, depth, dropped);
}

void Timeline::monitorWoke(Clock::time_point at) {
    aov::MutexLock guard(mutex_);
    monitor_thread_ = std::this_thread::get_id();
    collector_.monitorWoke(at);
}

void Timeline::platformCall(const char* name, Clock::time_point begin) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.platformCall(roleLocked(), name, begin, now);
}

void Timeline::libraryError(const char* text) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.marker(now, "library error", json{{"line", text}});
}

void Timeline::libraryCall(const char* name, Clock::time_point begin, long long result) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.libraryCall(name, begin, now, result);
}

void Timeline::traceLine(aovsim::TraceSource source, const std::string& line) {
    if (source == aovsim::TraceSource::kKernel) {
        std::snprintf(t_kernel_line, sizeof(t_kernel_line), "%s", line.c_str());
    }
    const bool refused = line.compare(0, 8, "REFUSED ") == 0;
    if (!refused && line.find("injected failure") == std::string::npos) {
        return;
    }
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.marker(now, refused ? "refused" : "injected failure",
                      json{{"source", aovsim::traceSourceTag(source)}, {"line", line}});
}

void Timeline::step(const std::string& line) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.step(line, now);
}

void Timeline::beginRequest() {
    t_kernel_line[0] = '\0';
}

void Timeline::kernelRequest(unsigned int request, Clock::time_point begin, int result) {
    const Clock::time_point now = Clock::now();
    const std::string decoded(t_kernel_line);
    aov::MutexLock guard(mutex_);
    collector_.kernelRequest(roleLocked(), request, decoded, begin, now, result);
}

void Timeline::notifyEntry() {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.notifyEntry(now);
}

void Timeline::notifyExit(Clock::time_point begin) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.notifyExit(begin, now);
}

void Timeline::callbackEntry(uint32_t sequence, bool matched, Clock::time_point signal) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.callbackEntry(sequence, matched, signal, now);
}

void Timeline::callbackReturn(uint64_t number) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    collector_.callbackReturn(roleLocked(), number, now);
}

bool Timeline::mergeDriverTrack(const std::string& path, std::string* wrong) {
    DriverTrack track;
    std::string problem;
    const bool read = readDriverTrack(path, kMaxDriverTrackBytes, &track, &problem);
    aov::MutexLock guard(mutex_);
    for (const DriverTrackRecord& record : track.records) {
        switch (record.kind) {
            case DriverTrackRecord::Kind::kQueued:
                collector_.eventQueued(true, record.sequence, record.begin, record.end,
                                       static_cast<size_t>(record.depth), record.overwrote);
                break;
            case DriverTrackRecord::Kind::kDepth:
                collector_.queueDepth(true, record.begin, static_cast<size_t>(record.depth),
                                      record.dropped);
                break;
            case DriverTrackRecord::Kind::kRequest:
                collector_.requestServed(record.request, record.begin, record.end, record.result);
                break;
        }
    }
    if (read && track.full) {
        problem = "aov-kdev stopped recording at its limit";
    }
    if (read && problem.empty() && track.bad_lines > 0) {
        problem = std::to_string(track.bad_lines) + " lines are not records";
    }
    driver_track_ = json{
        {"records", track.records.size()}, {"lines_unread", track.bad_lines}, {"full", track.full}};
    if (!problem.empty()) {
        driver_track_["problem"] = problem;
        return fail(wrong, problem);
    }
    return true;
}

void Timeline::setCounts(json counts) {
    aov::MutexLock guard(mutex_);
    counts_ = std::move(counts);
}

bool Timeline::finish(std::string* problem) {
    const Clock::time_point now = Clock::now();
    aov::MutexLock guard(mutex_);
    if (file_ == nullptr) {
        *problem = "the timeline was written already";
        return false;
    }
    collector_.finish(now);
    json other = counts_;
    other["records_dropped"] = collector_.recordsDropped();
    if (!driver_track_.empty()) {
        other["driver_track"] = driver_track_;
    }
    const TraceLayout layout = layOutTracks(collector_.records());
    std::string why;
    bool ok = writeTrace(file_, other, layout, &why);
    ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    if (!ok) {
        *problem = "cannot write the timeline to " + path_;
    }
    return ok;
}

int TimedNode::ioctl(int fd, unsigned int request, void* arg) {
    Timeline::beginRequest();
    const Clock::time_point begin = Clock::now();
    const int result = node_->ioctl(fd, request, arg);
    timeline_->kernelRequest(request, begin, result);
    return result;
}

int SystemNode::open(int flags) {
    const int fd = ::open(path_.c_str(), flags | O_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

int SystemNode::close(int fd) {
    return ::close(fd) < 0 ? -errno : 0;
}

int SystemNode::ioctl(int fd, unsigned int request, void* arg) {
    const int result = ::ioctl(fd, static_cast<unsigned long>(request), arg);
    return result < 0 ? -errno : result;
}

std::shared_ptr<aovhost::EmulatedNode> borrowedNode(aovhost::EmulatedNode& node) {
    return std::shared_ptr<aovhost::EmulatedNode>(std::shared_ptr<void>(), &node);
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
