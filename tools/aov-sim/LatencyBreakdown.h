#pragma once

// Where the time of each delivered event goes, from the driver's signal to
// the callback's return, in four stages: wake (signal to the monitor's
// wake-up), dequeue in the driver (its handling of DEQUEUE_EVENT), library
// (notifyEvent entry to callback entry, less the dequeue) and callback (its
// entry to its return). Fed from a few clock reads per event, whether or not
// a timeline is written.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace aovsimtool {

// Nearest-rank percentile `p` (0 < p <= 100) of sorted samples, not empty.
double percentile(const std::vector<double>& sorted, double p);

// "p50 0.212 ms, p99 0.234 ms" of microsecond samples, not empty.
std::string percentiles(std::vector<double> samples);

// The times of one delivered event, all from steady_clock.
struct EventStages {
    std::chrono::steady_clock::time_point signal;  // the driver queued it and signalled
    std::chrono::steady_clock::time_point wake;    // the monitor returned from its wait
    std::chrono::steady_clock::time_point notify;  // notifyEvent was called
    std::chrono::steady_clock::time_point dequeue_began, dequeue_ended;
    std::chrono::steady_clock::time_point callback_entry, callback_return;
};

// Not synchronised: its owner serialises add() and the reads.
class LatencyBreakdown {
  public:
    // Keeps the event's stages; false, keeping nothing, when its times are out
    // of order (say, the dequeue belonged to another notification, or the
    // event was signalled after the wake-up that led to it).
    bool add(const EventStages& stages);
    size_t events() const { return wake_.size(); }
    // "latency breakdown: wake p50 .., p99 ..; dequeue in the driver ...;
    // library ...; callback ... (N events)", or "latency breakdown: no samples".
    std::string line() const;

  private:
    std::vector<double> wake_, dequeue_, library_, callback_;  // microseconds
};

}  // namespace aovsimtool
