#pragma once

// The session as a timeline in the trace-event JSON format, the object form
// that Perfetto's UI and chrome://tracing open: one track per thread (system
// layer, event monitor, the driver's timer, the library's buffer task as
// inferred from outside), tracks for the kernel requests and the platform
// calls of each calling thread, a slice for every call, each event's stages,
// counters of the driver's queue and of the events, and markers for the
// library's error lines and the injected failures, and for each event with
// all its stages a flow from the driver's signal through the monitor's wake
// and the notifyEvent slice to the callback slice. Times are steady_clock,
// relative to the timeline's creation.
//
// Records are kept in memory, at most kMaxRecords of them, and written out by
// finish(). Nothing here runs unless a timeline was asked for.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "AOVThreadSafety.h"
#include "EventMonitor.h"
#include "SessionReport.h"
#include "aovhost/Binding.h"
#include "aovsim/TimelineHooks.h"
#include "aovsim/Trace.h"

namespace aovsimtool {

class Timeline final : public aovsim::TimelineHooks, public LibraryCallLog {
  public:
    static constexpr size_t kMaxRecords = 2000000;

    // Opens `path` for writing; null with `problem` set when it cannot. The
    // calling thread is the system layer's.
    static std::shared_ptr<Timeline> open(const std::string& path, std::string* problem);
    ~Timeline() override;
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    void eventQueued(uint32_t sequence, Clock::time_point at, size_t depth,
                     bool overwrote) override;
    void queueDepth(size_t depth, uint64_t dropped) override;
    void monitorWoke(Clock::time_point at) override;
    void platformCall(const char* name, Clock::time_point begin) override;
    void libraryError(const char* text) override;
    void libraryCall(const char* name, Clock::time_point begin, long long result) override;

    // Every line of the simulation's trace, on the thread that recorded it.
    void traceLine(aovsim::TraceSource source, const std::string& line);
    // The system layer says it begins a step: the previous step's slice ends.
    void step(const std::string& line);
    // A kernel request returned `result`; its decoded line is the last kernel
    // line this thread recorded since beginRequest().
    static void beginRequest();
    void kernelRequest(unsigned int request, Clock::time_point begin, int result);
    void notifyEntry();
    void notifyExit(Clock::time_point begin);
    // The callback received event `sequence`, signalled at `signal` (known
    // when `matched`), and returns.
    void callbackEntry(uint32_t sequence, bool matched, Clock::time_point signal);
    void callbackReturn(uint64_t number);

    // The session's counts as its summary gives them, kept in the file.
    void setCounts(nlohmann::json counts);
    // Writes and closes the file; false with `problem` set when writing failed.
    bool finish(std::string* problem);

  private:
    enum Track : int {
        kSystem = 1,
        kMonitor = 2,
        kBufferTask = 3,
        kTimer = 4,
        kKernel = 10,    // + the calling thread's role
        kPlatform = 20,  // + the calling thread's role
    };
    enum Role : int { kRoleSystem = 0, kRoleMonitor = 1, kRoleTimer = 2, kRoleOther = 3 };

    struct Record {
        char phase;
        int tid;
        int64_t ts_ns;
        int64_t dur_ns;
        std::string name;
        nlohmann::json args;
        // The flow through this record, 0 for none; arrives and leaves here.
        uint64_t flow = 0;
        bool flow_in = false;
        bool flow_out = false;
    };
    static constexpr size_t kNoRecord = static_cast<size_t>(-1);

    Timeline(std::FILE* file, std::string path);
    int64_t sinceStart(Clock::time_point t) const;
    Role roleLocked() const AOV_REQUIRES(mutex_);
    // The new record's index, or kNoRecord when it was not kept.
    size_t addLocked(char phase, int tid, Clock::time_point begin, Clock::time_point end,
                     std::string name, nlohmann::json args = nlohmann::json()) AOV_REQUIRES(mutex_);
    void flowLocked(size_t record, uint64_t flow, bool in, bool out) AOV_REQUIRES(mutex_);
    void eventCountersLocked(Clock::time_point now) AOV_REQUIRES(mutex_);

    std::FILE* file_ AOV_GUARDED_BY(mutex_);
    const std::string path_;
    const Clock::time_point start_;
    const std::thread::id system_thread_;

    mutable aov::Mutex mutex_;
    std::thread::id monitor_thread_ AOV_GUARDED_BY(mutex_);
    std::thread::id timer_thread_ AOV_GUARDED_BY(mutex_);
    std::vector<Record> records_ AOV_GUARDED_BY(mutex_);
    uint64_t records_dropped_ AOV_GUARDED_BY(mutex_) = 0;
    std::vector<bool> tracks_used_ AOV_GUARDED_BY(mutex_) = std::vector<bool>(32, false);
    bool finished_ AOV_GUARDED_BY(mutex_) = false;
    nlohmann::json counts_ AOV_GUARDED_BY(mutex_) = nlohmann::json::object();

    // The step in progress.
    bool in_step_ AOV_GUARDED_BY(mutex_) = false;
    std::string step_name_ AOV_GUARDED_BY(mutex_);
    Clock::time_point step_begin_ AOV_GUARDED_BY(mutex_);

    // The buffer task, as seen from outside.
    bool device_starting_ AOV_GUARDED_BY(mutex_) = false;
    Clock::time_point start_device_begin_ AOV_GUARDED_BY(mutex_);

    // Event counts for the counters.
    uint64_t delivered_ AOV_GUARDED_BY(mutex_) = 0;
    uint64_t dropped_ AOV_GUARDED_BY(mutex_) = 0;

    // The signal markers of the events still queued, by the driver's stamp.
    std::map<Clock::rep, size_t> signal_records_ AOV_GUARDED_BY(mutex_);
    uint64_t flows_ AOV_GUARDED_BY(mutex_) = 0;

    // The notification in progress on the monitor thread.
    Clock::time_point wake_ AOV_GUARDED_BY(mutex_){};
    size_t wake_record_ AOV_GUARDED_BY(mutex_) = kNoRecord;
    // The flow its notifyEvent slice passes on.
    uint64_t notify_flow_ AOV_GUARDED_BY(mutex_) = 0;
    Clock::time_point notify_ AOV_GUARDED_BY(mutex_){};
    bool dequeued_ AOV_GUARDED_BY(mutex_) = false;
    Clock::time_point dequeue_begin_ AOV_GUARDED_BY(mutex_){};
    Clock::time_point dequeue_end_ AOV_GUARDED_BY(mutex_){};
    uint32_t sequence_ AOV_GUARDED_BY(mutex_) = 0;
    bool matched_ AOV_GUARDED_BY(mutex_) = false;
    Clock::time_point signal_ AOV_GUARDED_BY(mutex_){};
    Clock::time_point callback_ AOV_GUARDED_BY(mutex_){};
};

// The driver's node with each request timed for the timeline.
class TimedNode final : public aovhost::EmulatedNode {
  public:
    TimedNode(aovhost::EmulatedNode& node, std::shared_ptr<Timeline> timeline)
        : node_(node), timeline_(std::move(timeline)) {}
    int open(int flags) override { return node_.open(flags); }
    int close(int fd) override { return node_.close(fd); }
    int ioctl(int fd, unsigned int request, void* arg) override;

  private:
    aovhost::EmulatedNode& node_;
    std::shared_ptr<Timeline> timeline_;
};

// `monitor`, with each notification it delivers timed for the timeline.
std::unique_ptr<EventMonitor> timedMonitor(std::unique_ptr<EventMonitor> monitor,
                                           Timeline& timeline);

}  // namespace aovsimtool
