// End-to-end runs of the aov-sim command: the library, the simulated
// platform and driver, and the command's own handling of bad input. Each run
// is a real process; its output is read until it exits.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
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
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

// Why the runs through a FUSE node cannot go ahead here; empty when they can.
std::string fuseUnavailable() {
    if (::geteuid() != 0) {
        return "FUSE runs need root (for the mount namespace and the mount)";
    }
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        return std::string("FUSE runs need /dev/fuse: ") + std::strerror(errno);
    }
    return std::string();
}

// The same session with the driver in aov-sim ("inproc") and in aov-kdev
// behind a FUSE node ("fuse"): the library's requests then cross the kernel.
class Kernel : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (std::string(GetParam()) == "fuse") {
            const std::string why = fuseUnavailable();
            if (!why.empty()) {
                GTEST_SKIP() << why;
            }
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
    if (std::string(c.kernel) == "fuse" && !fuseUnavailable().empty()) {
        GTEST_SKIP() << fuseUnavailable();
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
        const std::string why = fuseUnavailable();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << std::strerror(errno);
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        char dir[] = "/tmp/aov-kdev-e2e.XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        server_.kill();
        if (!dir_.empty()) {
            ::umount2(dir_.c_str(), MNT_DETACH);
            ::rmdir(dir_.c_str());
        }
    }
    // Starts aov-kdev with `extra` options and waits until it serves.
    void start(std::vector<std::string> extra) {
        extra.insert(extra.begin(), "--quiet");
        std::string problem;
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, dir_, extra, &problem)) << problem;
    }
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
    const std::string malformed = scenarioFile("malformed", R"({"sensors": [ {"id": 0,)");
    const std::string duplicate =
        scenarioFile("duplicate", R"({"sensors": [{"id": 3, "device": 1, "scenarios": []},
                                     {"id": 3, "device": 2, "scenarios": []}]})");
    const std::string mistyped = scenarioFile("mistyped", R"({"sensors": [{"id": 0, "device": 1,
                                     "scenarios": [{"width": "wide", "height": 1, "rate": 10}]}]})");
    const std::string noSensor = scenarioFile("no_sensor", R"({"sensors": []})");
    const Case cases[] = {
        {"malformed file", {"--scenario", malformed}, "is not valid JSON: parse error at line 1"},
        {"forced run without a sensor to default to",
         {"--scenario", noSensor, "--force"},
         "no AOV-capable sensor to default to: give --sensor with --force"},
        {"missing file",
         {"--scenario", ::testing::TempDir() + "aovsim_absent.json"},
         "cannot read scenario file"},
        {"inconsistent file",
         {"--scenario", duplicate},
         "sensors[1] (id 3): sensor id is used twice"},
        {"wrong type",
         {"--scenario", mistyped},
         "sensors[0].scenarios[0].width: expected an integer"},
        {"unknown sensor", {"--sensor", "9"}, "unknown sensor 9; AOV-capable sensors: 0, 1"},
        {"size the catalogue lacks", {"--size", "100x100"}, "sensor 0 has no 100x100 mode"},
        {"rate the catalogue lacks", {"--fps", "7"}, "sensor 0 at 320x240 has no 7 fps mode"},
        {"unknown option", {"--frobnicate"}, "--frobnicate"},
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
