// End-to-end runs of the aov-sim command: the library, the simulated
// platform and driver, and the command's own handling of bad input. Each run
// is a real process; its output is read until it exits.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"

namespace {

struct RunResult {
    int exit_code = -1;
    std::string output;  // standard output and error, interleaved

    bool has(const std::string& text) const { return output.find(text) != std::string::npos; }
    size_t at(const std::string& text) const { return output.find(text); }
    size_t count(const std::string& text) const {
        size_t n = 0;
        for (size_t pos = output.find(text); pos != std::string::npos;
             pos = output.find(text, pos + 1)) {
            ++n;
        }
        return n;
    }
};

// Passes when every text occurs in the output and each one's first
// occurrence comes after the previous one's.
::testing::AssertionResult inOrder(const RunResult& run, const std::vector<std::string>& texts) {
    size_t previous = 0;
    for (size_t i = 0; i < texts.size(); ++i) {
        const size_t at = run.at(texts[i]);
        if (at == std::string::npos) {
            return ::testing::AssertionFailure() << "missing: \"" << texts[i] << "\"";
        }
        if (i > 0 && at < previous) {
            return ::testing::AssertionFailure()
                   << "\"" << texts[i] << "\" comes before \"" << texts[i - 1] << "\"";
        }
        previous = at;
    }
    return ::testing::AssertionSuccess();
}

// The number printed right after `label`, as in "library error lines 2";
// fails the test when the label is missing.
uint64_t numberAfter(const RunResult& run, const std::string& label) {
    const size_t at = run.at(label);
    if (at == std::string::npos) {
        ADD_FAILURE() << "missing: \"" << label << "\"";
        return UINT64_MAX;
    }
    return std::strtoull(run.output.c_str() + at + label.size(), nullptr, 10);
}

// The count that ends the summary line beginning with `label`, as in
// "... (5 events)"; fails the test when the line is missing.
uint64_t eventsOfLine(const RunResult& run, const std::string& label) {
    const size_t at = run.at(label);
    if (at == std::string::npos) {
        ADD_FAILURE() << "missing: \"" << label << "\"";
        return UINT64_MAX;
    }
    const size_t open = run.output.rfind('(', run.output.find('\n', at));
    return std::strtoull(run.output.c_str() + open + 1, nullptr, 10);
}

// Every timed event is also broken down into its stages, with or without a
// timeline; only an event overwritten after the monitor woke for it can be
// left out.
void expectEveryTimedEventBrokenDown(const RunResult& run) {
    const uint64_t timed = eventsOfLine(run, "latency from descriptor signal to callback return: ");
    const uint64_t brokenDown = eventsOfLine(run, "latency breakdown: wake p50 ");
    EXPECT_GE(brokenDown, 1u) << run.output;
    if (numberAfter(run, "overwritten in the driver queue ") == 0) {
        EXPECT_EQ(brokenDown, timed) << run.output;
    }
}

// The library's error lines, in order (as aov-sim prints them).
std::vector<std::string> libraryErrorLines(const RunResult& run) {
    std::vector<std::string> lines;
    std::istringstream in(run.output);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("[lib ] [E]", 0) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

// A notification that comes after startDevice but before the device's event
// buffer exists makes the library write this pair and dequeue nothing. That
// window is part of the library's design and may open on any start.
constexpr char kNoBufferLine[] = "] ERROR: event_ is nullptr (";
constexpr char kNoBufferQueryLine[] = "] ERROR: failed to query event: -1 (";

bool contains(const std::string& line, const std::string& text) {
    return line.find(text) != std::string::npos;
}

// Passes when every library error line is either one of the window's pairs
// (the two lines, in that order) or contains one of `expected`; `pairs`
// receives the number of window pairs.
::testing::AssertionResult onlyWindowPairsAnd(const RunResult& run,
                                              const std::vector<std::string>& expected,
                                              uint64_t* pairs) {
    *pairs = 0;
    const std::vector<std::string> lines = libraryErrorLines(run);
    for (size_t i = 0; i < lines.size(); ++i) {
        if (contains(lines[i], kNoBufferLine)) {
            if (i + 1 == lines.size() || !contains(lines[i + 1], kNoBufferQueryLine)) {
                return ::testing::AssertionFailure()
                       << "not followed by its query failure: " << lines[i];
            }
            ++*pairs;
            ++i;
            continue;
        }
        bool known = false;
        for (const std::string& text : expected) {
            known = known || (!text.empty() && contains(lines[i], text));
        }
        if (!known) {
            return ::testing::AssertionFailure() << "unexpected library error: " << lines[i];
        }
    }
    return ::testing::AssertionSuccess();
}

RunResult runAovSim(const std::vector<std::string>& args) {
    const ProcessResult process = runProcess(AOV_SIM_PATH, args, {}, SIZE_MAX);
    RunResult run;
    run.exit_code = process.exit_code;
    run.output = process.output;
    return run;
}

// Writes a scenario file for one test and returns its path.
std::string scenarioFile(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + "aovsim_" + name + ".json";
    std::ofstream(path) << text;
    return path;
}

// One 10 fps sensor, with the given "failures" object.
std::string tenFpsScenario(const std::string& failures) {
    return R"({"name": "ten-fps", "sensors": [{"id": 0, "device": 1, "orientation": 90,
               "scenarios": [{"index": 2, "width": 320, "height": 240, "rate": 100,
                              "type": 2, "bit": 8}]}],
             "failures": {)" +
           failures + "}}";
}

// The platform is back to nothing once the session is over, and the
// services' destructors ran at exit without hanging.
void expectCleanShutdown(const RunResult& run) {
    EXPECT_TRUE(
        run.has("platform after stop: 0 sensors powered, 0 on ULPOSC, 0 devices open, "
                "0 agents, 0 pipes (0 streaming)"))
        << run.output;
    EXPECT_TRUE(inOrder(run, {"aov-sim: exit", "[kern] close fd"})) << run.output;
    EXPECT_TRUE(inOrder(run, {"aov-sim: exit", "[plat] uninit() -> 0"})) << run.output;
}

// The same session with the driver in aov-sim ("inproc") and in aov-kdev
// behind a FUSE node ("fuse"): the library's requests then cross the kernel.
class Kernel : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (std::string(GetParam()) == "fuse") {
            aovtest::requireFuseOrSkip();
        }
    }
    RunResult run(std::vector<std::string> args) const {
        args.insert(args.end(), {"--kernel", GetParam()});
        return runAovSim(args);
    }
};

INSTANTIATE_TEST_SUITE_P(AovSimE2ETest, Kernel, ::testing::Values("inproc", "fuse"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });

TEST_P(Kernel, DefaultScenarioDeliversTheEventsAndStopsInOrder) {
    const RunResult run = this->run({"--events", "3", "--trace"});
    ASSERT_EQ(run.exit_code, 0) << run.output;

    // The library completed the record from the catalogue and sent it unchanged.
    EXPECT_TRUE(run.has("chosen: sensor 0, 320x240 at 10 fps")) << run.output;
    EXPECT_TRUE(
        run.has("user_param: sensor_id 0 scenario 4 orientation 90 face 0 "
                "mode_head [2, 8, 0, 0]"))
        << run.output;
    EXPECT_TRUE(
        run.has("START (0x40c84800, W, 200 bytes) sensor_id=0 scenario=4 orientation=90 "
                "face=0 mode_head=[2, 8, 0, 0] frame_info=[320, 240, 160, 120] "
                "frame_rate=10"))
        << run.output;

    // Every event reached the callback with its words and its data in place.
    const size_t events = run.count("[evt ] #");
    EXPECT_GE(events, 3u);
    EXPECT_EQ(run.count("content ok (5 sections)"), events) << run.output;
    EXPECT_EQ(run.count("s1_info=32768 s4_info=[737312, 320, 240, "), events) << run.output;
    EXPECT_TRUE(run.has("summary: events delivered " + std::to_string(events) + ",")) << run.output;
    // The driver's counters are read in either place: what it produced is
    // what was delivered and what was dropped.
    EXPECT_FALSE(run.has("not answer")) << run.output;
    std::smatch counts;
    ASSERT_TRUE(std::regex_search(run.output, counts,
                                  std::regex("events delivered (\\d+), dropped (\\d+) of "
                                             "(\\d+) produced")))
        << run.output;
    EXPECT_EQ(std::stoull(counts[3]), std::stoull(counts[1]) + std::stoull(counts[2]));
    EXPECT_TRUE(run.has("content mismatches 0")) << run.output;
    expectEveryTimedEventBrokenDown(run);

    // The only library errors allowed are the pairs of notifications that came
    // before the event buffer existed; each one made the monitor back off
    // rather than notify again at once.
    uint64_t pairs = 0;
    EXPECT_TRUE(onlyWindowPairsAnd(run, {}, &pairs)) << run.output;
    EXPECT_EQ(numberAfter(run, "library error lines "), 2 * pairs) << run.output;
    EXPECT_EQ(numberAfter(run, "back-offs "), pairs) << run.output;

    // The library's own trace lines are shown with --trace.
    EXPECT_TRUE(run.has("[startSensor] AOV sensor start(")) << run.output;

    // Monitor detached before the sensor stops, the pipeline before the sensor's
    // power, the sensor before the device.
    EXPECT_TRUE(inOrder(run, {"[evt ] #3", "setMonitor(nullptr)", "[plat] stopPipe(1)",
                              "[plat] powerOffSensor(AOV", "[kern] STOP"}))
        << run.output;
    EXPECT_FALSE(run.has("REFUSED")) << run.output;
    expectCleanShutdown(run);
}

// The counts written beside a timeline's events are the summary's.
void expectTimelineCountsMatchTheSummary(const RunResult& run, const nlohmann::json& doc) {
    const nlohmann::json& counts = doc["otherData"];
    std::smatch m;
    ASSERT_TRUE(std::regex_search(run.output, m,
                                  std::regex("events delivered (\\d+), dropped (\\d+) of (\\d+) "
                                             "produced")))
        << run.output;
    EXPECT_EQ(counts["events_delivered"], std::stoull(m[1])) << counts.dump();
    EXPECT_EQ(counts["events_dropped"], std::stoull(m[2])) << counts.dump();
    EXPECT_EQ(counts["events_produced"], std::stoull(m[3])) << counts.dump();
    EXPECT_EQ(counts["kernel_requests"], numberAfter(run, "summary: kernel requests "));
    EXPECT_EQ(counts["library_error_lines"], numberAfter(run, "library error lines "));
}

// What a session's timeline shows besides its flows: each step of the trace
// as a begin and end on the system layer's thread, in order; the monitor's
// notifications and callbacks on its own thread; the driver's counters in the
// driver's process; the delivered count rising one by one; and the counts
// beside the events matching the summary.
void expectTimelineShowsTheSession(const RunResult& run, const nlohmann::json& doc, bool fuse) {
    std::map<int, std::string> processes;
    std::map<std::pair<int, int>, std::string> threads;
    for (const nlohmann::json& e : doc["traceEvents"]) {
        if (e["name"] == "process_name") {
            processes[e["pid"].get<int>()] = e["args"]["name"];
        } else if (e["name"] == "thread_name") {
            threads[{e["pid"].get<int>(), e["tid"].get<int>()}] = e["args"]["name"];
        }
    }
    const std::string driverProcess = fuse ? "aov-kdev (driver through FUSE)" : "aov-sim";
    std::vector<std::string> begun, ended;
    std::vector<uint64_t> delivered;
    size_t depthSamples = 0, notifications = 0, callbacks = 0, served = 0;
    for (const nlohmann::json& e : doc["traceEvents"]) {
        const std::string ph = e["ph"];
        const std::string name = e["name"];
        if (ph == "M") {
            continue;
        }
        const std::string process = processes[e["pid"].get<int>()];
        if (ph == "C") {
            if (name == "driver queue depth") {
                ++depthSamples;
                EXPECT_EQ(process, driverProcess) << e.dump();
            } else if (name == "events delivered") {
                EXPECT_EQ(process, "aov-sim") << e.dump();
                delivered.push_back(e["args"]["delivered"].get<uint64_t>());
            }
            continue;
        }
        const std::string thread = threads[{e["pid"].get<int>(), e["tid"].get<int>()}];
        if (ph == "B" || ph == "E") {
            EXPECT_EQ(thread, "system layer") << e.dump();
            (ph == "B" ? begun : ended).push_back(name);
        } else if (name == "notifyEvent") {
            ++notifications;
            EXPECT_EQ(thread, "event monitor") << e.dump();
        } else if (name.rfind("callback #", 0) == 0) {
            ++callbacks;
            EXPECT_EQ(thread, "event monitor") << e.dump();
        } else if (thread == "requests served (aov-kdev)") {
            ++served;
            EXPECT_EQ(process, "aov-kdev (driver through FUSE)") << e.dump();
        }
    }
    std::vector<std::string> steps;
    std::istringstream in(run.output);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("[sys ] step ", 0) == 0) {
            steps.push_back(line.substr(7));
        }
    }
    EXPECT_EQ(steps.size(), 7u) << run.output;
    EXPECT_EQ(begun, steps);
    EXPECT_EQ(ended, steps);
    EXPECT_GE(depthSamples, callbacks);
    EXPECT_GE(notifications, callbacks);
    EXPECT_EQ(served > 0, fuse) << served << " requests served";
    std::vector<uint64_t> oneByOne;
    for (uint64_t n = 1; n <= callbacks; ++n) {
        oneByOne.push_back(n);
    }
    EXPECT_EQ(delivered, oneByOne);
    // The driver's own track is merged, and said so, only when aov-kdev ran.
    const nlohmann::json& other = doc["otherData"];
    if (fuse) {
        const nlohmann::json& track = other["driver_track"];
        EXPECT_GT(track.value("records", 0u), 0u) << track.dump();
        EXPECT_EQ(track.value("lines_unread", 1u), 0u) << track.dump();
        EXPECT_EQ(track.value("full", true), false) << track.dump();
        EXPECT_FALSE(track.contains("problem")) << track.dump();
    } else {
        EXPECT_FALSE(other.contains("driver_track")) << other.dump();
    }

    expectTimelineCountsMatchTheSummary(run, doc);
}

// The timeline of a session, with the driver in either place: every track
// named, the driver's timer drawn as slices, and each delivered event's flow
// starting on its driver signal (aov-kdev's own, merged, for fuse).
TEST_P(Kernel, TheTimelineNamesEveryTrackAndFlowsFromEachSignalToItsCallback) {
    const std::string path = ::testing::TempDir() + "aovsim_timeline_" + GetParam() + ".json";
    const RunResult run = this->run({"--events", "3", "--timeline", path});
    ASSERT_EQ(run.exit_code, 0) << run.output;
    std::ifstream in(path);
    const nlohmann::json doc = nlohmann::json::parse(in, nullptr, false);
    ASSERT_TRUE(doc.is_object()) << "the timeline is not JSON";
    std::map<std::pair<int, int>, std::string> threads;
    std::set<int> processes;
    for (const nlohmann::json& e : doc["traceEvents"]) {
        if (e["name"] == "thread_name") {
            threads[{e["pid"].get<int>(), e["tid"].get<int>()}] = e["args"]["name"];
        } else if (e["name"] == "process_name") {
            processes.insert(e["pid"].get<int>());
        }
    }
    const bool fuse = std::string(GetParam()) == "fuse";
    const std::string timer = fuse ? "driver timer (aov-kdev)" : "driver timer";
    size_t callbacks = 0;
    std::set<std::string> started, finished;
    for (const nlohmann::json& e : doc["traceEvents"]) {
        if (e["ph"] == "M" || e["ph"] == "C") {
            continue;
        }
        const auto thread = threads.find({e["pid"].get<int>(), e["tid"].get<int>()});
        ASSERT_NE(thread, threads.end()) << "unnamed thread of " << e.dump();
        EXPECT_EQ(processes.count(e["pid"].get<int>()), 1u) << e.dump();
        const std::string name = e["name"];
        if (name.rfind("signal #", 0) == 0) {
            EXPECT_EQ(e["ph"], "X") << e.dump();
            EXPECT_EQ(thread->second, timer);
            if (e.contains("bind_id")) {
                started.insert(e["bind_id"].get<std::string>());
            }
        }
        if (name.rfind("callback #", 0) == 0) {
            ++callbacks;
            if (e.contains("bind_id")) {
                finished.insert(e["bind_id"].get<std::string>());
            }
        }
    }
    EXPECT_EQ(processes.size(), fuse ? 2u : 1u);
    EXPECT_EQ(callbacks, numberAfter(run, "summary: events delivered "));
    EXPECT_GE(started.size(), 1u);
    EXPECT_EQ(started, finished);
    expectTimelineShowsTheSession(run, doc, fuse);
    std::remove(path.c_str());
}

// Each refusal and each injected failure of the trace is marked on the
// timeline, with its line, whether the session goes on or not.
TEST(AovSimE2ETest, TheTimelineMarksEachRefusalAndInjectedFailureOfTheTrace) {
    const std::string path = ::testing::TempDir() + "aovsim_timeline_markers.json";
    for (const char* failures :
         {R"("pipeline": "config_sensor")", R"("dequeue": [2], "sensor_list": [1])"}) {
        SCOPED_TRACE(failures);
        const RunResult run =
            runAovSim({"--scenario", scenarioFile("timeline_markers", tenFpsScenario(failures)),
                       "--events", "2", "--timeline", path});
        std::multiset<std::string> refused, injected;
        std::istringstream in(run.output);
        for (std::string line; std::getline(in, line);) {
            const std::string text = line.size() > 7 ? line.substr(7) : "";
            if (text.rfind("REFUSED ", 0) == 0) {
                refused.insert(text);
            } else if (line[0] == '[' && text.find("injected failure") != std::string::npos) {
                injected.insert(text);
            }
        }
        EXPECT_GE(refused.size() + injected.size(), 1u) << run.output;
        std::ifstream file(path);
        const nlohmann::json doc = nlohmann::json::parse(file, nullptr, false);
        ASSERT_TRUE(doc.is_object()) << "the timeline is not JSON";
        std::multiset<std::string> markedRefused, markedInjected;
        for (const nlohmann::json& e : doc["traceEvents"]) {
            if (e["ph"] != "i") {
                continue;
            }
            if (e["name"] == "refused") {
                markedRefused.insert(e["args"]["line"].get<std::string>());
            } else if (e["name"] == "injected failure") {
                markedInjected.insert(e["args"]["line"].get<std::string>());
            }
        }
        EXPECT_EQ(markedRefused, refused);
        EXPECT_EQ(markedInjected, injected);
        // With a failed dequeue, dropped events are not all overwritten ones.
        expectTimelineCountsMatchTheSummary(run, doc);
    }
    std::remove(path.c_str());
}

TEST_P(Kernel, InjectedDriverFailuresGiveTheLibraryErrorsAndTheSessionGoesOn) {
    std::string ids;
    for (int i = 1; i <= 70; ++i) {
        ids += (i > 1 ? "," : "") + std::to_string(i);
    }
    const std::string path =
        scenarioFile("driver_failures", tenFpsScenario(R"("dequeue": [2], "sensor_list": [2])"));
    const RunResult run = this->run({"--scenario", path, "--events", "3", "--notify-ids", ids});
    ASSERT_EQ(run.exit_code, 0) << run.output;

    EXPECT_TRUE(run.has("ERROR: failed to query evice event: -5")) << run.output;
    EXPECT_TRUE(run.has("ERROR: failed to query event: -5")) << run.output;
    EXPECT_TRUE(run.has("lost to failed dequeues 1")) << run.output;
    // 70 ids go out as 64 + 6; the second request fails, the stop sequence still runs.
    EXPECT_TRUE(
        run.has("SENSOR_ON (0x41044801, W, 260 bytes) count=6 ids=[65, 66, 67, 68, 69, 70] "
                "-> -5"))
        << run.output;
    EXPECT_TRUE(run.has("ERROR: failed to notify sensor: -5")) << run.output;
    EXPECT_TRUE(run.has("notifySensor(70 ids, true) -> -5")) << run.output;
    EXPECT_GE(run.count("[evt ] #"), 3u);
    EXPECT_TRUE(run.has("stopDevice() -> 0")) << run.output;
    uint64_t pairs = 0;
    EXPECT_TRUE(onlyWindowPairsAnd(
        run,
        {"ERROR: failed to query evice event: -5 (", "ERROR: failed to query event: -5 (",
         "ERROR: failed to notify sensor: -5 ("},
        &pairs))
        << run.output;
    EXPECT_FALSE(run.has("REFUSED")) << run.output;
    expectCleanShutdown(run);
}

struct StartFailureCase {
    const char* name;
    const char* failure;
    const char* library_error;
    // The sensor service's own line that follows it, if any.
    const char* then;
    // What the platform refuses of the library's unwinding, if anything.
    const char* refusal;
};

void PrintTo(const StartFailureCase& c, std::ostream* out) {
    *out << c.name;
}

constexpr char kPipelineFailed[] = "ERROR: failed to start sensor(0) pipeline: -1";

class StartFailure : public ::testing::TestWithParam<StartFailureCase> {};

TEST_P(StartFailure, IsReportedAndUnwound) {
    const StartFailureCase& c = GetParam();
    const std::string path =
        scenarioFile(std::string("start_failure_") + c.name, tenFpsScenario(c.failure));
    const RunResult run = runAovSim({"--scenario", path, "--events", "2"});
    EXPECT_EQ(run.exit_code, 1) << run.output;
    uint64_t pairs = 0;
    EXPECT_TRUE(onlyWindowPairsAnd(run, {c.library_error, c.then}, &pairs)) << run.output;
    EXPECT_EQ(pairs, 0u) << "no device session, no event window";
    if (*c.then) {
        EXPECT_TRUE(inOrder(run, {c.library_error, c.then})) << run.output;
    } else {
        EXPECT_TRUE(run.has(c.library_error)) << run.output;
    }
    EXPECT_TRUE(run.has("aov-sim: failed: start")) << run.output;
    // The sensor's stop runs; the device that never started is not stopped.
    EXPECT_TRUE(inOrder(run, {"step 7: stopping", "stopSensor() -> 0"})) << run.output;
    EXPECT_FALSE(run.has("stopDevice()")) << run.output;
    EXPECT_FALSE(run.has("[evt ]")) << run.output;
    if (*c.refusal) {
        EXPECT_EQ(run.count("REFUSED"), 1u) << run.output;
        EXPECT_TRUE(run.has(c.refusal)) << run.output;
    } else {
        EXPECT_FALSE(run.has("REFUSED")) << run.output;
    }
    expectCleanShutdown(run);
}

INSTANTIATE_TEST_SUITE_P(
    AovSimE2ETest, StartFailure,
    ::testing::Values(
        StartFailureCase{"NoAgent", R"("pipeline": "no_agent")", "ERROR: failed to getAgent",
                         kPipelineFailed, "REFUSED getAgent(0)"},
        StartFailureCase{"ConfigSensor", R"("pipeline": "config_sensor")",
                         "ERROR: failed to get configSensor, cam_id(0)", kPipelineFailed,
                         "REFUSED detachSensor(0): the sensor was never configured"},
        StartFailureCase{"ConfigP1", R"("pipeline": "config_p1")",
                         "ERROR: failed to get configNonLaggingP1Drv", kPipelineFailed, ""},
        StartFailureCase{"CreatePipe", R"("pipeline": "create_pipe")",
                         "ERROR: failed to create sensor pipe", kPipelineFailed, ""},
        StartFailureCase{"StartPipe", R"("pipeline": "start_pipe")",
                         "ERROR: failed to start sensor pipe(-5)", kPipelineFailed, ""},
        StartFailureCase{"StartRequest", R"("start": -16)", "ERROR: failed to set sensor info: -16",
                         "", ""}),
    [](const ::testing::TestParamInfo<StartFailureCase>& info) {
        return std::string(info.param.name);
    });

// The scripted example under each branch of the library's copy rules. Its
// second event has no content flag and new info words; what the callback
// sees of them depends on the mode and the image-callback property.
struct ScriptedCase {
    const char* name;
    const char* aov_mode;
    const char* image_callback;
    const char* second_event;  // the callback's view of the second event
    const char* kernel = "inproc";
};

void PrintTo(const ScriptedCase& c, std::ostream* out) {
    *out << c.name;
}

class ScriptedEvents : public ::testing::TestWithParam<ScriptedCase> {};

TEST_P(ScriptedEvents, ReachTheCallbackAsTheCopyRulesSay) {
    const ScriptedCase& c = GetParam();
    if (std::string(c.kernel) == "fuse") {
        aovtest::requireFuseOrSkip();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
    }
    const RunResult run = runAovSim(
        {"--scenario", std::string(AOV_SIM_EXAMPLES) + "/scripted-events.json", "--events", "3",
         "--aov-mode", c.aov_mode, "--image-callback", c.image_callback, "--kernel", c.kernel});
    ASSERT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.count("[evt ] #"), 3u) << run.output;
    EXPECT_EQ(run.count(" content ok"), 3u) << run.output;
    EXPECT_TRUE(run.has("content mismatches 0")) << run.output;
    EXPECT_TRUE(inOrder(run, {"#1 header=[101, 0, 100, 2, 0, 1]",
                              std::string("#2 header=[102, 0, 200, 2, 0, 0] ") + c.second_event,
                              "#3 header=[105, 0, 500, 2, 1, 7]"}))
        << run.output;
    for (const char* event : {"scripted event 1 content ok", "scripted event 2 content ok",
                              "scripted event 3 content ok"}) {
        EXPECT_EQ(run.count(event), 1u) << event << "\n" << run.output;
    }
    // Event 3 is queued at frame 5: frames 3 and 4 queue nothing.
    EXPECT_TRUE(run.has("events delivered 3, dropped 0 of 3 produced")) << run.output;
    expectEveryTimedEventBrokenDown(run);
    uint64_t pairs = 0;
    EXPECT_TRUE(onlyWindowPairsAnd(run, {}, &pairs)) << run.output;
}

INSTANTIATE_TEST_SUITE_P(
    AovSimE2ETest, ScriptedEvents,
    ::testing::Values(
        ScriptedCase{"NoContentInMode0KeepsTheInfoWords", "0", "0",
                     "s1_info=32768 s4_info=[720896, 320, 240, 0] scripted"},
        ScriptedCase{"Mode1WithoutImageCallback", "1", "0",
                     "s1_info=11 s4_info=[12, 13, 14, 0] scripted"},
        ScriptedCase{"Mode1WithImageCallback", "1", "1",
                     "s1_info=11 s4_info=[12, 13, 14, 15] scripted"},
        ScriptedCase{"FullContentModePassesEverything", "2", "0",
                     "s1_info=11 s4_info=[12, 13, 14, 15] s6_info=[20, 21, 22, 23, 24] scripted"},
        // Every area written by the server into aov-sim's memory.
        ScriptedCase{"FullContentModeThroughTheFuseNode", "2", "0",
                     "s1_info=11 s4_info=[12, 13, 14, 15] s6_info=[20, 21, 22, 23, 24] scripted",
                     "fuse"}),
    [](const ::testing::TestParamInfo<ScriptedCase>& info) {
        return std::string(info.param.name);
    });

// An aov-kdev started by the test, as a user would start one, in the test's
// own mount namespace so that its mount goes away with the test.
class UserStartedServer : public ::testing::Test {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-kdev-e2e");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
    }
    void TearDown() override { server_.kill(); }
    // Starts aov-kdev with `extra` options and waits until it serves.
    void start(std::vector<std::string> extra) {
        extra.insert(extra.begin(), "--quiet");
        std::string problem;
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, dir_, extra, &problem)) << problem;
    }
    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_;
    aovsimtool::KdevLauncher server_;
};

TEST_F(UserStartedServer, ItsDeathMidSessionGivesLibraryErrorsAndAClearMessageWithoutAHang) {
    ASSERT_NO_FATAL_FAILURE(start({"--die-at-dequeue", "2"}));
    const RunResult run =
        runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "3", "--timeout", "3"});
    EXPECT_EQ(run.exit_code, 1) << run.output;
    int status = 0;
    ASSERT_TRUE(server_.waitExit(aovsimtool::KdevLauncher::kStopTimeoutMs, &status))
        << "aov-kdev did not end after its dequeue fault";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << aovsimtool::KdevLauncher::exitText(status);

    // One event got through; every request after the death fails with the
    // connection's error, and the stop still runs to the end.
    EXPECT_EQ(run.count("[evt ] #"), 1u) << run.output;
    EXPECT_TRUE(run.has("ERROR: failed to query event: -107 (")) << run.output;
    EXPECT_TRUE(inOrder(run, {"setMonitor(nullptr) -> 0", "[plat] powerOffSensor(AOV",
                              "stopDevice() -> -107", "summary: the driver did not answer"}))
        << run.output;
    EXPECT_TRUE(
        run.has("aov-sim: error: the aov-kdev on " + dir_ + " went away during the session"))
        << run.output;
}

TEST_F(UserStartedServer, AnAnswerTheKernelRefusesCostsOneEventAndTheSessionGoesOn) {
    // The second dequeue is answered with more bytes than its code allows.
    ASSERT_NO_FATAL_FAILURE(start({"--overlong-reply-at-dequeue", "2"}));
    const RunResult run = runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "3"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(run.count("[evt ] #"), 3u) << run.output;
    uint64_t pairs = 0;
    EXPECT_TRUE(onlyWindowPairsAnd(
        run, {"ERROR: failed to query evice event: -5 (", "ERROR: failed to query event: -5 ("},
        &pairs))
        << run.output;
    EXPECT_TRUE(run.has("ERROR: failed to query event: -5 (")) << run.output;
    EXPECT_TRUE(run.has("stopDevice() -> 0")) << run.output;
}

// A driver that writes section 2's area 64 bytes too long: each event names
// the section whose content is not what its size calls for, and the summary
// counts every such event.
TEST_F(UserStartedServer, ContentADriverDamagedIsAMismatchNamingTheSection) {
    ASSERT_NO_FATAL_FAILURE(start({"--fault", "overrun-area"}));
    const RunResult run = runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "2"});
    EXPECT_EQ(run.count(" content MISMATCH in sections 2\n"), run.count("[evt ] #")) << run.output;
    EXPECT_EQ(run.count(" content ok"), 0u) << run.output;
    EXPECT_TRUE(run.has("content mismatches " + std::to_string(run.count("[evt ] #")) + "\n"))
        << run.output;
    EXPECT_GE(run.count("[evt ] #"), 2u) << run.output;
}

// The scenario the driver serves is compared with aov-sim's own: another one
// is named in a warning, the same one is not mentioned.
TEST_F(UserStartedServer, ADriverServingAnotherScenarioIsNamedInAWarning) {
    const std::string scenario = scenarioFile("served_elsewhere", tenFpsScenario(""));
    ASSERT_NO_FATAL_FAILURE(start({"--scenario", scenario}));
    const RunResult other = runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "1"});
    const RunResult same =
        runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "1", "--scenario", scenario});
    EXPECT_EQ(same.exit_code, 0) << same.output;
    EXPECT_TRUE(other.has("[sys ] warning: the driver serves scenario \"ten-fps\""))
        << other.output;
    EXPECT_FALSE(same.has("warning: the driver serves")) << same.output;
}

TEST_F(UserStartedServer, EachStopSignalEndsItWithExitZeroAndItsMountGone) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(::strsignal(signal));
        ASSERT_NO_FATAL_FAILURE(start({}));
        const std::string node = dir_ + "/kelo_aov";
        ASSERT_EQ(::access(node.c_str(), F_OK), 0) << "not serving " << node;
        ASSERT_EQ(::kill(server_.pid(), signal), 0);
        int status = 0;
        ASSERT_TRUE(server_.waitExit(aovsimtool::KdevLauncher::kStopTimeoutMs, &status))
            << "aov-kdev did not end on the signal";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << aovsimtool::KdevLauncher::exitText(status);
        EXPECT_NE(::access(node.c_str(), F_OK), 0) << node << " is still there";
    }
}

// A refusal by the driver in aov-kdev is counted in aov-sim's summary, though
// only aov-kdev could print its line: the node is held open elsewhere.
TEST_F(UserStartedServer, ANodeAnotherProcessHoldsIsReportedBusyBeforeTheSession) {
    ASSERT_NO_FATAL_FAILURE(start({}));
    const int holder = ::open((dir_ + "/kelo_aov").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(holder, 0) << std::strerror(errno);
    const RunResult run = runAovSim({"--kernel", "fuse", "--kdev", dir_, "--events", "1"});
    ::close(holder);
    EXPECT_EQ(run.exit_code, 2) << run.output;
    EXPECT_EQ(run.output, "aov-sim: error: --kdev: \"" + dir_ +
                              "/kelo_aov\" is busy: another process holds it (" +
                              std::strerror(EBUSY) + ")\n");
}

TEST(AovSimE2ETest, ANodeNobodyServesEndsInExitTwoWithOneLine) {
    const std::string dir = ::testing::TempDir() + "aovsim_no_kdev";
    ::mkdir(dir.c_str(), 0700);
    const RunResult run = runAovSim({"--kernel", "fuse", "--kdev", dir});
    EXPECT_EQ(run.exit_code, 2) << run.output;
    EXPECT_EQ(run.output, "aov-sim: error: --kdev: no node at \"" + dir +
                              "/kelo_aov\": nothing serves a driver on \"" + dir + "\"\n");
}

TEST(AovSimE2ETest, BadInputGetsOneClearMessageAndExitCodeTwo) {
    struct Case {
        const char* what;
        std::vector<std::string> args;
        const char* message;
    };
    const std::string duplicate =
        scenarioFile("duplicate", R"({"sensors": [{"id": 3, "device": 1, "scenarios": []},
                                     {"id": 3, "device": 2, "scenarios": []}]})");
    const std::string mistyped = scenarioFile("mistyped", R"({"sensors": [{"id": 0, "device": 1,
                                     "scenarios": [{"width": "wide", "height": 1, "rate": 10}]}]})");
    const std::string noSensor = scenarioFile("no_sensor", R"({"sensors": []})");
    const Case cases[] = {
        {"forced run without a sensor to default to",
         {"--scenario", noSensor, "--force"},
         "no AOV-capable sensor to default to: give --sensor with --force"},
        {"inconsistent file",
         {"--scenario", duplicate},
         "sensors[1] (id 3): sensor id is used twice"},
        {"wrong type",
         {"--scenario", mistyped},
         "sensors[0].scenarios[0].width: expected an integer"},
        {"unknown sensor", {"--sensor", "9"}, "unknown sensor 9; AOV-capable sensors: 0, 1"},
        {"size the catalogue lacks", {"--size", "100x100"}, "sensor 0 has no 100x100 mode"},
        {"rate the catalogue lacks", {"--fps", "7"}, "sensor 0 at 320x240 has no 7 fps mode"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const RunResult run = runAovSim(c.args);
        EXPECT_EQ(run.exit_code, 2) << run.output;
        EXPECT_EQ(run.count("aov-sim: error: "), 1u) << run.output;
        EXPECT_TRUE(run.has(c.message)) << run.output;
        EXPECT_FALSE(run.has("[kern] START")) << run.output;
    }
}

}  // namespace
