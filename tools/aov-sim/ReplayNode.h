#pragma once

// A driver that answers from a recorded session (aov-rec's session file):
// each request of the library is checked against the one the recording has
// next and gets the recorded result and errno; a dequeue gets the recorded
// header and info words and the data areas the recording kept. The node's
// descriptor (a timerfd) turns readable when the recording's next request is
// a dequeue and its recorded time has come, relative to the session's start
// and scaled by the speed.
//
// The recording is read as a stream, one record in memory at a time; a first
// pass over the whole file (load) checks it and counts what it holds, so that
// a damaged or cut file is refused before the session begins.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "DriverProbe.h"
#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"
#include "aovsession/SessionReader.h"
#include "aovsim/SimDriver.h"

namespace aovsimtool {

// The recording's first request that the library did not send: what the
// library sent instead (or that it sent nothing more), beside the recorded one.
struct ReplayDivergence {
    uint64_t request = 0;  // 1-based count of requests on the node, the divergent one included
    uint64_t record = 0;   // its position in the recording (0-based, as aov-rec dump numbers it)
    std::string library;   // decoded, one line
    std::string recorded;  // decoded, one line
};

// Where the replay stands, for a progress line.
struct ReplayProgress {
    uint64_t events = 0;  // dequeues answered
    uint64_t total = 0;   // dequeues in the recording
    double seconds_left = 0;
};

// What a recording asks of a replay: the events the library gets (the
// successful dequeues) and the recorded time from the node's open to the
// last of them.
struct ReplayPlan {
    uint64_t events = 0;
    double span_s = 0;
};

class ReplayNode final : public aovhost::EmulatedNode {
  public:
    // A fresh reader of the recording's bytes, from the start; null with a
    // one-line reason when the bytes cannot be had.
    using SourceFactory = std::function<std::unique_ptr<aovrec::ByteSource>(std::string* why)>;

    // Checks the whole recording and positions the node at its first request.
    // `speed`: recorded time is divided by it; 0 means as fast as the library
    // takes the events. Null with a one-line `problem` when the recording
    // cannot be replayed (unreadable, damaged, cut off, without requests).
    [[nodiscard]] static std::shared_ptr<ReplayNode> load(SourceFactory source, double speed,
                                                          std::string* problem);
    [[nodiscard]] static std::shared_ptr<ReplayNode> loadFile(const std::string& path, double speed,
                                                              std::string* problem);
    ~ReplayNode() override;
    ReplayNode(const ReplayNode&) = delete;
    ReplayNode& operator=(const ReplayNode&) = delete;

    int open(int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned int request, void* arg) override;

    // Called once, on the first divergence, outside the node's lock (aov-sim
    // ends the run there). Without one, the node answers the divergent
    // request and every later one with -EPROTO. Set it before the node is opened.
    void setDivergenceHandler(std::function<void(const ReplayDivergence&)> handler)
        AOV_EXCLUDES(mutex_);
    // The first divergence, if there was one.
    bool diverged(ReplayDivergence* out) const AOV_EXCLUDES(mutex_);
    // At the end of the session: a request the recording still has that the
    // library never sent counts as a divergence (a close of the node, which
    // comes as the process exits, does not). True when the whole recording
    // was replayed without divergence.
    bool finish() AOV_EXCLUDES(mutex_);

    ReplayProgress progress() const AOV_EXCLUDES(mutex_);
    ReplayPlan plan() const { return plan_; }
    // The driver's side as the replay saw it; what the recording cannot tell
    // (events produced, overwritten, discarded) stays 0.
    aovsim::DriverStatus status() const AOV_EXCLUDES(mutex_);
    // "s1 4096 0123456789abcdef, s4 ..." for the areas the last answered
    // dequeue wrote, digested (XXH64, as aov-rec dump prints them) from
    // `event`, the buffer they were written into; "no areas" when it kept none.
    std::string lastAreaDigests(const uint8_t* event) const AOV_EXCLUDES(mutex_);

    const aovrec::FileHeader& header() const { return header_; }
    // "1234 requests, 1000 events, content written, speed max".
    std::string describe() const;

  private:
    struct Area {
        uint8_t section;
        uint32_t length;
    };
    using Clock = std::chrono::steady_clock;

    explicit ReplayNode(double speed) : speed_(speed) {}
    // Moves to the recording's next request (open, close or ioctl).
    void advanceLocked() AOV_REQUIRES(mutex_);
    // Whether the replay passes over `r` (not a call the library makes on the node).
    bool skippedLocked(const aovrec::Record& r) AOV_REQUIRES(mutex_);
    // Finds the opens and closes of a tool probing the node (probe_records_).
    void markProbes(aovrec::ByteSource& source) AOV_REQUIRES(mutex_);
    // Arms the descriptor for the current record when it is a dequeue.
    void armLocked() AOV_REQUIRES(mutex_);
    bool matchesLocked(unsigned int request, const void* arg) const AOV_REQUIRES(mutex_);
    int answerLocked(unsigned int request, void* arg, Clock::time_point began) AOV_REQUIRES(mutex_);
    // Records the first divergence; returns what reports it, to be run once
    // the lock is released (empty without a handler).
    std::function<void()> divergeLocked(const std::string& library) AOV_REQUIRES(mutex_);
    // Runs what divergeLocked returned, without the lock; the request's answer.
    static int reportDivergence(const std::function<void()>& report);
    bool movedPastLocked(uint64_t index) const AOV_REQUIRES(mutex_);

    const double speed_;
    // Set by load, before the node is shared; the reader is read on under the lock.
    SourceFactory factory_;
    mutable aov::Mutex mutex_;
    std::unique_ptr<aovrec::ByteSource> source_ AOV_PT_GUARDED_BY(mutex_);
    std::unique_ptr<aovrec::SessionReader> reader_ AOV_PT_GUARDED_BY(mutex_);
    aovrec::FileHeader header_;
    // Counted by load; constant afterwards.
    uint64_t total_events_ = 0;
    uint64_t total_requests_ = 0;
    uint64_t last_event_ns_ = 0;
    ReplayPlan plan_;

    std::condition_variable advanced_;
    aovrec::Record current_ AOV_GUARDED_BY(mutex_);
    bool has_current_ AOV_GUARDED_BY(mutex_) = false;
    std::vector<int32_t> skipped_fds_
        AOV_GUARDED_BY(mutex_);  // recorded descriptors whose calls are skipped
    // Opens and closes of descriptors closed without a request before a
    // later open (a tool probing the node), by record index: skipped.
    std::set<uint64_t> probe_records_ AOV_GUARDED_BY(mutex_);
    std::string read_problem_ AOV_GUARDED_BY(mutex_);  // the file changed since it was checked
    int fd_ AOV_GUARDED_BY(mutex_) = -1;
    std::function<void(const ReplayDivergence&)> on_divergence_ AOV_GUARDED_BY(mutex_);
    bool diverged_ AOV_GUARDED_BY(mutex_) = false;
    ReplayDivergence divergence_ AOV_GUARDED_BY(mutex_);

    // Recorded times (ns) and their replay counterparts.
    uint64_t origin_ns_ AOV_GUARDED_BY(mutex_) = 0;
    Clock::time_point replay_origin_ AOV_GUARDED_BY(mutex_);
    uint64_t start_answered_ns_ AOV_GUARDED_BY(mutex_) =
        0;  // recorded end of the last START answered
    Clock::time_point start_answered_at_ AOV_GUARDED_BY(mutex_);
    bool after_start_ AOV_GUARDED_BY(mutex_) = false;
    Clock::time_point ready_at_ AOV_GUARDED_BY(mutex_);  // of the current dequeue
    bool timer_set_ AOV_GUARDED_BY(mutex_) =
        false;  // the descriptor's timer is armed or has expired
    Clock::time_point timer_at_ AOV_GUARDED_BY(mutex_);  // when it expires

    uint64_t requests_ AOV_GUARDED_BY(mutex_) = 0;
    uint64_t events_ AOV_GUARDED_BY(mutex_) = 0;
    bool started_ AOV_GUARDED_BY(mutex_) = false;
    aovsim::DriverStats stats_ AOV_GUARDED_BY(mutex_);
    aovsim::DequeueMark last_ AOV_GUARDED_BY(mutex_);
    Area last_areas_[aovrec::kSections] AOV_GUARDED_BY(mutex_) = {};
    uint8_t last_area_count_ AOV_GUARDED_BY(mutex_) = 0;
    Clock::time_point first_event_at_ AOV_GUARDED_BY(mutex_);
};

// The replay's driver figures for aov-sim's report.
class ReplayProbe final : public DriverProbe {
  public:
    explicit ReplayProbe(const ReplayNode& node) : node_(node) {}
    bool read(aovsim::DriverStatus* status) override;
    const char* missingFigures() const override;

  private:
    const ReplayNode& node_;
};

// On a terminal, the replay's progress on one line rewritten four times a
// second ("replay: 120 of 10000 events, 3.2 s left") until destroyed, when
// the line is cleared. Other output clears the line first (clearsProgress).
class ReplayProgressLine {
  public:
    ReplayProgressLine(const ReplayNode& node, FILE* out);
    ~ReplayProgressLine();
    ReplayProgressLine(const ReplayProgressLine&) = delete;
    ReplayProgressLine& operator=(const ReplayProgressLine&) = delete;

    // What a line written while a progress line is shown begins with.
    static const char* clearsProgress();

  private:
    void run();

    const ReplayNode& node_;
    FILE* const out_;
    aov::Mutex mutex_;
    std::condition_variable stop_cv_;
    bool stop_ AOV_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace aovsimtool
