#pragma once

// The session as a timeline in the trace-event JSON format, the object form
// that Perfetto's UI, chrome://tracing and speedscope open: one track per
// thread (system layer with its steps, event monitor, the driver's timer, the
// library's buffer task as inferred from outside), tracks for the kernel
// requests and the platform calls of each calling thread, a slice for every
// call, each event's stages, counters of the driver's queue and of the
// events, markers for the library's error lines and the injected failures,
// and for each event with all its stages a flow from the driver's signal
// through the monitor's wake and the notifyEvent slice to the callback slice.
// When the driver runs in aov-kdev, its own track (signals, queue depth,
// requests served) is merged in from the file aov-kdev writes.
//
// This class is the session's side: it takes the hooks on whatever thread
// calls them, stamps them with steady_clock and serialises them into a
// TimelineCollector; finish() lays the tracks out (TrackLayout) and writes
// the file (TraceWriter). At most kMaxRecords records are kept.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "EventMonitor.h"
#include "SessionReport.h"
#include "TimelineCollector.h"
#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"
#include "aovsim/TimelineHooks.h"
#include "aovsim/Trace.h"

namespace aovsimtool {

class Timeline final : public aovsim::TimelineHooks, public LibraryCallLog {
  public:
    static constexpr size_t kMaxRecords = 2000000;
    // The largest driver track read back from aov-kdev.
    static constexpr size_t kMaxDriverTrackBytes = 64u << 20;

    // Opens `path` for writing; null with `problem` set when it cannot. The
    // calling thread is the system layer's.
    [[nodiscard]] static std::shared_ptr<Timeline> open(const std::string& path,
                                                        std::string* problem);
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

    // Merges the driver track aov-kdev wrote to `path`; false with `problem`
    // set to what was wrong with it (kept in the file's otherData too).
    [[nodiscard]] bool mergeDriverTrack(const std::string& path, std::string* problem);
    // The session's counts as its summary gives them, kept in the file.
    void setCounts(nlohmann::json counts);
    // Writes and closes the file; false with `problem` set when writing failed.
    [[nodiscard]] bool finish(std::string* problem);

  private:
    Timeline(std::FILE* file, std::string path);
    TimelineRole roleLocked() const AOV_REQUIRES(mutex_);

    std::FILE* file_ AOV_GUARDED_BY(mutex_);
    const std::string path_;
    const std::thread::id system_thread_;

    mutable aov::Mutex mutex_;
    TimelineCollector collector_ AOV_GUARDED_BY(mutex_);
    std::thread::id monitor_thread_ AOV_GUARDED_BY(mutex_);
    std::thread::id timer_thread_ AOV_GUARDED_BY(mutex_);
    nlohmann::json counts_ AOV_GUARDED_BY(mutex_) = nlohmann::json::object();
    nlohmann::json driver_track_ AOV_GUARDED_BY(mutex_) = nlohmann::json::object();
};

// The driver's node with each request timed for the timeline.
class TimedNode final : public aovhost::EmulatedNode {
  public:
    TimedNode(std::shared_ptr<aovhost::EmulatedNode> node, std::shared_ptr<Timeline> timeline)
        : node_(std::move(node)), timeline_(std::move(timeline)) {}
    int open(int flags) override { return node_->open(flags); }
    int close(int fd) override { return node_->close(fd); }
    int ioctl(int fd, unsigned int request, void* arg) override;

  private:
    std::shared_ptr<aovhost::EmulatedNode> node_;
    std::shared_ptr<Timeline> timeline_;
};

// A node reached through real system calls on `path` (the node aov-kdev serves).
class SystemNode final : public aovhost::EmulatedNode {
  public:
    explicit SystemNode(std::string path) : path_(std::move(path)) {}
    int open(int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned int request, void* arg) override;

  private:
    const std::string path_;
};

// `node`, not owned, as a shared node.
std::shared_ptr<aovhost::EmulatedNode> borrowedNode(aovhost::EmulatedNode& node);

// `monitor`, with each notification it delivers timed for the timeline.
std::unique_ptr<EventMonitor> timedMonitor(std::unique_ptr<EventMonitor> monitor,
                                           Timeline& timeline);

}  // namespace aovsimtool
