#pragma once

// The driver's side of a session timeline when the driver runs in aov-kdev:
// aov-kdev writes what its driver did, with the driver's own stamps, one line
// per record as it happens, and aov-sim reads the file back and merges it into
// its timeline. Both stamp with steady_clock, which on Linux is the
// system-wide CLOCK_MONOTONIC, so the two processes' times line up.
//
// Lines, times in nanoseconds of that clock:
//   aov-kdev driver track 1
//   queued SEQUENCE STAMP SIGNALLED DEPTH OVERWROTE(0|1)
//   depth AT DEPTH DROPPED
//   request CODE BEGIN END RESULT
//   full                       (the writer's limit was reached)

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "aovbase/Mutex.h"
#include "aovsim/TimelineHooks.h"

namespace aovsimtool {

class DriverTrackWriter final : public aovsim::TimelineHooks {
  public:
    static constexpr uint64_t kMaxLines = 500000;

    // Null with `problem` set when `path` cannot be written.
    [[nodiscard]] static std::unique_ptr<DriverTrackWriter> open(const std::string& path,
                                                                 std::string* problem,
                                                                 uint64_t maxLines = kMaxLines);
    ~DriverTrackWriter() override;
    DriverTrackWriter(const DriverTrackWriter&) = delete;
    DriverTrackWriter& operator=(const DriverTrackWriter&) = delete;

    void eventQueued(uint32_t sequence, Clock::time_point at, size_t depth,
                     bool overwrote) override;
    void queueDepth(size_t depth, uint64_t dropped) override;
    void requestServed(unsigned int request, Clock::time_point begin, Clock::time_point end,
                       int result) override;
    // The library does not run in aov-kdev.
    void monitorWoke(Clock::time_point) override {}
    void platformCall(const char*, Clock::time_point) override {}
    void libraryError(const char*) override {}

  private:
    DriverTrackWriter(std::FILE* file, uint64_t maxLines) : file_(file), max_lines_(maxLines) {}
    void line(const char* text);

    aov::Mutex mutex_;
    std::FILE* file_ AOV_GUARDED_BY(mutex_);
    const uint64_t max_lines_;
    uint64_t lines_ AOV_GUARDED_BY(mutex_) = 0;
};

struct DriverTrackRecord {
    enum class Kind { kQueued, kDepth, kRequest };
    using Clock = std::chrono::steady_clock;
    Kind kind = Kind::kQueued;
    uint32_t sequence = 0;     // kQueued
    unsigned int request = 0;  // kRequest
    Clock::time_point begin;   // kQueued: the driver's stamp; kDepth: when
    Clock::time_point end;     // kQueued: signalled; kRequest: served
    uint64_t depth = 0;
    bool overwrote = false;
    uint64_t dropped = 0;
    int result = 0;
};

struct DriverTrack {
    std::vector<DriverTrackRecord> records;
    bool full = false;       // the writer stopped at its limit
    uint64_t bad_lines = 0;  // lines that were not records
};

// The file written by DriverTrackWriter, at most `limit` bytes; false with
// `problem` set to why it cannot be read. Lines that are not records are
// counted.
[[nodiscard]] bool readDriverTrack(const std::string& path, size_t limit, DriverTrack* track,
                                   std::string* problem);
// One line of it, without its newline; false when it is not a record.
bool parseDriverTrackLine(const std::string& line, DriverTrackRecord* record, bool* full);

}  // namespace aovsimtool
