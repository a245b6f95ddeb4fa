#pragma once

// What the aov-rec tests do with session files: temporary paths, whole-file
// reads, counting a recording's records and calls, and copying a recording
// through the session builder with changes on the way; and the aov-kdev that
// a recording is retraced against.

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"
#include "aovsession/SessionBuilder.h"
#include "aovsession/SessionReader.h"

namespace aovrectest {

// A path under the test's temporary directory, unique to this process.
std::string tempPath(const std::string& name);

std::string readText(const std::string& path);
void writeText(const std::string& path, const std::string& text);

// aov-rec with `args` (and `env` added to its environment), bounded in time.
ProcessResult rec(const std::vector<std::string>& args, const std::vector<std::string>& env = {});

// The calls (opens, closes, requests) of the recording's first `records`
// records, as retrace's totals line counts them.
std::string sentCalls(const std::string& path, uint64_t records);

// The number of whole records of the recording; 0 when it cannot be read.
uint64_t recordsIn(const std::string& path);

// The number of records up to and including the n-th dequeue; 0 when the
// recording has fewer dequeues.
uint64_t recordsThroughDequeue(const std::string& path, int n);

// Every record of a recording, each holding its own copy of its bytes.
struct LoadedSession {
    aovrec::FileHeader header{};
    std::vector<aovrec::Record> records;
    std::deque<std::vector<uint8_t>> bytes;  // what the records point into
};

// Reads the whole of `path` into `out`; empty, or why it could not.
std::string loadSession(const std::string& path, LoadedSession* out);

// How a copy changes a recording. Each hook is given the record's index in
// the original.
struct SessionEdits {
    // A request record's answer and areas, changed before it is written.
    // Emptying the areas drops them as a recorder whose writer fell behind
    // does: the record says its content was dropped.
    std::function<void(size_t, const aovrec::Record&, std::vector<uint8_t>* back,
                       std::vector<std::vector<uint8_t>>* areas)>
        request;
    // Records of the test's own, written before and after a record.
    std::function<void(size_t, const aovrec::Record&, aovrec::SessionBuilder*)> before, after;
};

// Writes the open, close and request records of `session` to `to` through
// the session builder, with `edits`; the readiness records are left out.
// Empty, or why the copy failed.
std::string writeSession(const LoadedSession& session, const std::string& to,
                         const SessionEdits& edits = {});

// aov-kdev serving the node on a directory of a mount namespace of the test's
// own. The fixture calls enterOrSkip() in SetUp and stop() in TearDown.
class ServedKdev {
  public:
    // Skips the test where FUSE tests cannot run (fails it in CI), else enters
    // the namespace and makes dir(). SetUp then returns when IsSkipped() or
    // HasFatalFailure().
    void enterOrSkip(const std::string& prefix);
    // Starts aov-kdev --quiet with `options` on dir() and waits, with a limit,
    // until it serves.
    void start(std::vector<std::string> options);
    // Stops the server and detaches its mount, so that the next start() mounts
    // afresh. A request parked in the driver holds its caller until the server
    // ends. Nothing to do when none runs.
    void stop();

    const std::string& dir() const { return sandbox_.dir(); }
    std::string node() const { return dir() + "/kelo_aov"; }

  private:
    aovtest::MountSandbox sandbox_;  // outlives the server
    aovsimtool::KdevLauncher kdev_;
};

}  // namespace aovrectest
