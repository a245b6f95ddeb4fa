// What aov-sim shows, line by line: the system layer's steps, the requests the
// driver decodes, the events, every summary line and its numbers checked
// against the trace above it, and the exit code. Each run is a real process.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ProcessRun.h"

namespace {

struct Output {
    int exit_code = -1;
    std::vector<std::string> lines;

    // Lines that begin with `prefix`.
    std::vector<std::string> starting(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const std::string& line : lines) {
            if (line.rfind(prefix, 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }
    size_t count(const std::string& text) const {
        size_t n = 0;
        for (const std::string& line : lines) {
            n += line.find(text) != std::string::npos ? 1 : 0;
        }
        return n;
    }
    bool hasLine(const std::string& line) const {
        for (const std::string& l : lines) {
            if (l == line) {
                return true;
            }
        }
        return false;
    }
    // The numbers of the one line that matches `pattern`; empty when none or several do.
    std::vector<uint64_t> numbersOf(const std::string& pattern) const {
        const std::regex re(pattern);
        std::vector<uint64_t> numbers;
        size_t matched = 0;
        for (const std::string& line : lines) {
            std::smatch m;
            if (std::regex_match(line, m, re)) {
                ++matched;
                numbers.clear();
                for (size_t i = 1; i < m.size(); ++i) {
                    numbers.push_back(std::strtoull(m[i].str().c_str(), nullptr, 10));
                }
            }
        }
        return matched == 1 ? numbers : std::vector<uint64_t>();
    }
    std::string text() const {
        std::string all;
        for (const std::string& line : lines) {
            all += line + "\n";
        }
        return all;
    }
};

Output runAovSim(const std::vector<std::string>& args,
                 const std::vector<std::string>& environment = {}) {
    const ProcessResult process = runProcess(AOV_SIM_PATH, args, environment, SIZE_MAX);
    Output out;
    out.exit_code = process.exit_code;
    std::istringstream in(process.output);
    for (std::string line; std::getline(in, line);) {
        out.lines.push_back(line);
    }
    return out;
}

std::string scenarioFile(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + "aovsim_output_" + name + ".json";
    std::ofstream(path) << text;
    return path;
}

// One 10 fps sensor, with the given "failures" object.
std::string tenFpsScenario(const std::string& name, const std::string& failures) {
    return scenarioFile(name, R"({"name": "ten-fps", "sensors": [{"id": 0, "device": 1,
        "orientation": 90, "scenarios": [{"index": 2, "width": 320, "height": 240, "rate": 100,
        "type": 2, "bit": 8}]}], "failures": {)" +
                                  failures + "}}");
}

constexpr char kNum[] = "(\\d+)";
constexpr char kMs[] = "\\d+\\.\\d{3} ms";

// Every summary line is there once, and its counts agree with the trace above it.
void expectSummaryMatchesTrace(const Output& run) {
    SCOPED_TRACE(run.text());
    const std::string n = kNum;
    const std::vector<uint64_t> events =
        run.numbersOf("\\[sys \\] summary: events delivered " + n + ", dropped " + n + " of " + n +
                      " produced \\(overwritten in the driver queue " + n +
                      ", lost to failed dequeues " + n + ", discarded at stop " + n + "\\)");
    ASSERT_EQ(events.size(), 6u) << "events summary line";
    const uint64_t delivered = events[0], dropped = events[1], produced = events[2];
    const uint64_t overwritten = events[3], lost = events[4], discarded = events[5];
    EXPECT_EQ(delivered, run.starting("[evt ] #").size());
    EXPECT_EQ(produced, delivered + dropped);
    EXPECT_EQ(dropped, overwritten + lost + discarded);
    EXPECT_EQ(overwritten, run.count(" overwrites event "));
    EXPECT_EQ(lost, run.count(" lost)"));
    const std::vector<uint64_t> stop =
        run.numbersOf("\\[kern\\] STOP \\(0x00004804, -, 0 bytes\\) -> 0 \\(session ended, " + n +
                      " pending events discarded\\)");
    ASSERT_EQ(stop.size(), 1u) << "STOP line";
    EXPECT_EQ(discarded, stop[0]);

    const std::vector<uint64_t> latency =
        run.numbersOf(std::string("\\[sys \\] summary: latency from descriptor signal to callback "
                                  "return: p50 ") +
                      kMs + ", p99 " + kMs + " \\(" + n + " events\\)");
    ASSERT_EQ(latency.size(), 1u) << "latency line";
    EXPECT_EQ(latency[0], delivered) << "every delivered event is timed";
    const std::vector<uint64_t> breakdown = run.numbersOf(
        std::string("\\[sys \\] summary: latency breakdown: wake p50 ") + kMs + ", p99 " + kMs +
        "; dequeue in the driver p50 " + kMs + ", p99 " + kMs + "; library p50 " + kMs + ", p99 " +
        kMs + "; callback p50 " + kMs + ", p99 " + kMs + " \\(" + n + " events\\)");
    ASSERT_EQ(breakdown.size(), 1u) << "breakdown line";
    if (overwritten == 0) {
        EXPECT_EQ(breakdown[0], delivered);
    }

    const std::vector<uint64_t> requests = run.numbersOf(
        "\\[sys \\] summary: kernel requests " + n + " \\(" + n + " failed\\), refused calls " + n +
        ", library error lines " + n + ", content mismatches " + n);
    ASSERT_EQ(requests.size(), 5u) << "requests line";
    // A request line names its code; its result follows the last "-> ".
    uint64_t sent = 0, failed = 0;
    for (const std::string& line : run.starting("[kern] ")) {
        if (line.find(" (0x") == std::string::npos || line.find(" bytes)") == std::string::npos) {
            continue;
        }
        ++sent;
        const size_t arrow = line.rfind("-> ");
        failed += arrow != std::string::npos && line.compare(arrow + 3, 1, "-") == 0 ? 1 : 0;
    }
    EXPECT_EQ(requests[0], sent);
    EXPECT_EQ(requests[1], failed);
    EXPECT_EQ(requests[2], run.count("REFUSED"));
    EXPECT_EQ(requests[3], run.starting("[lib ] [E]").size());
    EXPECT_EQ(requests[4], run.count("MISMATCH"));

    const std::vector<uint64_t> monitor =
        run.numbersOf("\\[sys \\] summary: event monitor: wake-ups " + n + ", notifications " + n +
                      ", back-offs " + n + " \\(longest " + n + " ms\\)");
    ASSERT_EQ(monitor.size(), 4u) << "monitor line";
    // Each notification either dequeued or found no buffer yet.
    const uint64_t dequeues = run.starting("[kern] DEQUEUE_EVENT ").size();
    const uint64_t windows = run.count("] ERROR: event_ is nullptr (");
    EXPECT_EQ(monitor[1], dequeues + windows);
    EXPECT_GE(monitor[0], 1u);
    EXPECT_LE(monitor[3], 32u);
}

TEST(AovSimOutput, EveryStepRequestEventAndSummaryLineOfASession) {
    const Output run = runAovSim({"--sensor", "1", "--fps", "5", "--aov-mode", "2",
                                  "--frame-info-sel", "3", "--notify-ids", "1,7", "--events", "2"});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    SCOPED_TRACE(run.text());
    const std::vector<std::string> steps = {
        "[sys ] step 1: obtaining the services",
        "[sys ] step 2: discovery",
        "[sys ] step 3: starting the sensor",
        "[sys ] step 4: starting the device",
        "[sys ] step 5: attaching the event monitor",
        "[sys ] step 6: relaying clock and sensor notifications, receiving events",
        "[sys ] step 7: stopping",
    };
    EXPECT_EQ(run.starting("[sys ] step "), steps);
    for (const char* line : {
             "[sys ] scenario \"default\": 3 sensors on the platform",
             "[sys ] isSupport() -> true",
             "[sys ] querySensors() -> [0, 1]",
             "[sys ] chosen: sensor 1, 1280x720 at 5 fps",
             "[sys ] getSensorMode(1) -> 0, detection mode 1",
             "[sys ] startSensor() -> 0",
             "[sys ] user_param: sensor_id 1 scenario 1 orientation 270 face 1 mode_head [1, 10, "
             "0, 0]",
             "[sys ] user_param: frame_info [1280, 720, 640, 360] frame_rate 5 frame_info_sel 3 "
             "aov_mode 2 sensor_idx 2 width 1280 height 720",
             "[kern] START (0x40c84800, W, 200 bytes) sensor_id=1 scenario=1 orientation=270 "
             "face=1 mode_head=[1, 10, 0, 0] frame_info=[1280, 720, 640, 360] frame_rate=5 "
             "frame_info_sel=3 aov_mode=2 sensor_idx=2 -> 0",
             "[sys ] startDevice() -> 0",
             "[kern] ULPOSC3_ON (0x00004809, -, 0 bytes) -> 0",
             "[sys ] notifyUlposc3(true) -> 0",
             "[kern] SENSOR_ON (0x41044801, W, 260 bytes) count=2 ids=[1, 7] -> 0",
             "[sys ] notifySensor(2 ids, true) -> 0",
             "[kern] SENSOR_OFF (0x41044802, W, 260 bytes) count=2 ids=[1, 7] -> 0",
             "[sys ] notifySensor(2 ids, false) -> 0",
             "[kern] ULPOSC3_OFF (0x0000480a, -, 0 bytes) -> 0",
             "[sys ] notifyUlposc3(false) -> 0",
             "[sys ] setMonitor(nullptr) -> 0",
             "[sys ] stopSensor() -> 0",
             "[sys ] stopDevice() -> 0",
             "[sys ] summary: platform after stop: 0 sensors powered, 0 on ULPOSC, 0 devices "
             "open, 0 agents, 0 pipes (0 streaming)",
             "aov-sim: exit 0",
         }) {
        EXPECT_TRUE(run.hasLine(line)) << "missing: " << line;
    }
    // Full content: all ten sections, the sixth's words shown, the sequence in
    // the fourth word of section 4 (the image callback is on by default).
    const std::vector<std::string> events = run.starting("[evt ] #");
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[0],
              "[evt ] #1 header=[1, 1, 200, 1, 0, 1] s1_info=32768 s4_info=[737312, 1280, 720, 1] "
              "s6_info=[921632, 1, 1, 1, 5] content ok (10 sections)");
    EXPECT_EQ(run.starting("[kern] DEQUEUE_EVENT (0x80d84803, R, 216 bytes) -> 0 header=[1, 1, "
                           "200, 1, 0, 1] sections written 10")
                  .size(),
              1u);
    expectSummaryMatchesTrace(run);
}

// A default session compared whole where it does not depend on timing:
// every line up to the notifications (one thread, before any event), the
// system layer's own lines after them but the figures, and the system
// thread's library calls on the timeline with the result each returned.
TEST(AovSimOutput, ADefaultSessionsDeterministicLinesAndLibraryCallsAreTheseExactly) {
    const std::string path = ::testing::TempDir() + "aovsim_output_whole.json";
    const Output run = runAovSim({"--events", "2", "--timeline", path});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    SCOPED_TRACE(run.text());
    const std::regex fd(" fd \\d+");
    std::vector<std::string> before, after;
    bool notifying = false;
    for (const std::string& line : run.lines) {
        notifying = notifying || line.rfind("[sys ] step 6", 0) == 0;
        if (!notifying) {
            before.push_back(std::regex_replace(line, fd, " fd N"));
            continue;
        }
        const bool figures =
            line.rfind("[sys ] summary: ", 0) == 0 && line.find("after stop") == std::string::npos;
        if ((line.rfind("[sys ] ", 0) == 0 && !figures) || line.rfind("aov-sim: ", 0) == 0) {
            after.push_back(line);
        }
    }
    const std::vector<std::string> expectedBefore = {
        "[sys ] scenario \"default\": 3 sensors on the platform",
        "[sys ] step 1: obtaining the services",
        "[plat] searchSensors() -> 3",
        "[plat] getSensorPipeFactory() -> factory",
        "[kern] open /dev/kelo_aov (O_RDWR) -> fd N",
        "[sys ] isSupport() -> true",
        "[sys ] step 2: discovery",
        "[plat] queryNumberOfSensors() -> 3",
        "[plat] querySensorId(0) -> 0",
        "[plat] querySensorDevIdx(0) -> 0x1",
        "[plat] querySensorStaticInfo(0x1) -> sensor 0, orientation 90, 7 scenarios",
        "[plat] queryFacingDirection(0) -> 0",
        "[plat] querySensorId(1) -> 1",
        "[plat] querySensorDevIdx(1) -> 0x4",
        "[plat] querySensorStaticInfo(0x4) -> sensor 1, orientation 270, 2 scenarios",
        "[plat] queryFacingDirection(1) -> 1",
        "[plat] querySensorId(2) -> 2",
        "[plat] querySensorDevIdx(2) -> 0x2",
        "[plat] querySensorStaticInfo(0x2) -> sensor 2, orientation 90, 1 scenarios",
        "[plat] queryFacingDirection(2) -> 0",
        "[sys ] querySensors() -> [0, 1]",
        "[plat] querySensorDevIdx(0) -> 0x1",
        "[sys ] sensor 0: device 0x1, 2 sizes",
        "[sys ]   320x240 orientation 90 face 0 fps [10, 1] {scenario 4: 10 fps, type 2, bit 8, ae "
        "0, param 0} {scenario 6: 1 fps, type 2, bit 8, ae 0, param 0}",
        "[sys ]   640x480 orientation 90 face 0 fps [5, 10] {scenario 2: 5 fps, type 1, bit 10, ae "
        "0, param 0} {scenario 3: 10 fps, type 1, bit 10, ae 0, param 2}",
        "[plat] querySensorDevIdx(1) -> 0x4",
        "[sys ] sensor 1: device 0x4, 1 sizes",
        "[sys ]   1280x720 orientation 270 face 1 fps [10, 5] {scenario 0: 10 fps, type 1, bit 10, "
        "ae 0, param 0} {scenario 1: 5 fps, type 1, bit 10, ae 0, param 0}",
        "[sys ] chosen: sensor 0, 320x240 at 10 fps",
        "[plat] queryDetectMode(320, 240) -> 0, mode 1",
        "[sys ] getSensorMode(0) -> 0, detection mode 1",
        "[sys ] step 3: starting the sensor",
        "[plat] queryFrameInfo(320, 240, sel 0) -> 0, [320, 240, 160, 120]",
        "[plat] openSensorDevice(AOV, 0) -> device (handles 1)",
        "[plat] switchMclkToUlposc(AOV, 0) -> true",
        "[plat] powerOnSensor(AOV, 1, [0]) -> true, clock ULPOSC",
        "[plat] createAgent(sensor 0 scenario 4 320x240@10) -> agent 1",
        "[plat] getAgent(1) -> agent",
        "[plat] configSensor(sensor 0) -> 0",
        "[plat] configNonLaggingP1Drv() -> 0",
        "[plat] createPipe(camera 0, type 17, -1, 0) -> pipe 100",
        "[plat] startPipe(1) on pipe 100 -> 0",
        "[sys ] startSensor() -> 0",
        "[sys ] user_param: sensor_id 0 scenario 4 orientation 90 face 0 mode_head [2, 8, 0, 0]",
        "[sys ] user_param: frame_info [320, 240, 160, 120] frame_rate 10 frame_info_sel 0 "
        "aov_mode 0 sensor_idx 0 width 320 height 240",
        "[sys ] step 4: starting the device",
        "[kern] START (0x40c84800, W, 200 bytes) sensor_id=0 scenario=4 orientation=90 face=0 "
        "mode_head=[2, 8, 0, 0] frame_info=[320, 240, 160, 120] frame_rate=10 frame_info_sel=0 "
        "aov_mode=0 sensor_idx=0 -> 0",
        "[sys ] startDevice() -> 0",
        "[sys ] step 5: attaching the event monitor",
        "[sys ] setMonitor(monitor) -> 0, watching fd N",
    };
    EXPECT_EQ(before, expectedBefore);
    const std::vector<std::string> expectedAfter = {
        "[sys ] step 6: relaying clock and sensor notifications, receiving events",
        "[sys ] notifyUlposc3(true) -> 0",
        "[sys ] notifySensor(1 ids, true) -> 0",
        "[sys ] waiting for 2 events (at most 5.6 s)",
        "[sys ] notifySensor(1 ids, false) -> 0",
        "[sys ] notifyUlposc3(false) -> 0",
        "[sys ] step 7: stopping",
        "[sys ] setMonitor(nullptr) -> 0",
        "[sys ] stopSensor() -> 0",
        "[sys ] stopDevice() -> 0",
        "[sys ] summary: platform after stop: 0 sensors powered, 0 on ULPOSC, 0 devices open, "
        "0 agents, 0 pipes (0 streaming)",
        "aov-sim: exit 0",
    };
    EXPECT_EQ(after, expectedAfter);

    std::ifstream in(path);
    const nlohmann::json timeline = nlohmann::json::parse(in, nullptr, false);
    ASSERT_FALSE(timeline.is_discarded());
    std::vector<std::string> calls;
    for (const nlohmann::json& e : timeline["traceEvents"]) {
        if (e.value("ph", "") == "X" && e.value("pid", 0) == 1 && e.value("tid", 0) == 1 &&
            e.contains("args") && e["args"].contains("result")) {
            const std::string name = e["name"];
            calls.push_back(name + " " +
                            (name == "getEventFD" ? "fd" : e["args"]["result"].dump()));
        }
    }
    const std::vector<std::string> expectedCalls = {"IAOVSensor::getInstance 1",
                                                    "IAOVDevice::getInstance 1",
                                                    "isSupport 1",
                                                    "querySensors 2",
                                                    "getSensorDev 1",
                                                    "getSensorInfo 2",
                                                    "getSensorDev 4",
                                                    "getSensorInfo 1",
                                                    "getSensorMode 0",
                                                    "startSensor 0",
                                                    "startDevice 0",
                                                    "setMonitor 0",
                                                    "getEventFD fd",
                                                    "notifyUlposc3 0",
                                                    "notifySensor 0",
                                                    "notifySensor 0",
                                                    "notifyUlposc3 0",
                                                    "setMonitor 0",
                                                    "stopSensor 0",
                                                    "stopDevice 0"};
    EXPECT_EQ(calls, expectedCalls);
}

TEST(AovSimOutput, SummaryCountsAFailedDequeueAndTheLibraryErrors) {
    const Output run =
        runAovSim({"-s", tenFpsScenario("dequeue", R"("dequeue": [2])"), "--events", "3"});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    EXPECT_EQ(run.count(" lost)"), 1u) << run.text();
    EXPECT_EQ(run.count("ERROR: failed to query evice event: -5"), 1u) << run.text();
    expectSummaryMatchesTrace(run);
}

TEST(AovSimOutput, ScriptedEventsCountTheirMismatches) {
    // aov_mode 1 copies the info words although the header's content flag is clear.
    const Output run = runAovSim({"-s", std::string(AOV_SIM_EXAMPLES) + "/scripted-events.json",
                                  "--events", "3", "--aov-mode", "1"});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    EXPECT_EQ(run.count(" content ok"), 3u) << run.text();
    expectSummaryMatchesTrace(run);
}

// The image-callback property as the library reads it (any base, text after
// the number ignored): values it takes for 0 leave the fourth info word out,
// and the scripted check expects it left out, with no false mismatch.
TEST(AovSimOutput, ScriptedEventsReadTheImageCallbackPropertyAsTheLibraryDoes) {
    for (const char* value : {"0x0", "00", "0 ", "0x1"}) {
        SCOPED_TRACE(value);
        const Output run =
            runAovSim({"-s", std::string(AOV_SIM_EXAMPLES) + "/scripted-events.json", "--events",
                       "3", "--aov-mode", "1"},
                      {std::string("AOV_PROP_vendor_aovstream_image_callback=") + value});
        ASSERT_EQ(run.exit_code, 0) << run.text();
        const std::string word = std::string(value) == "0x1" ? "15" : "0";
        EXPECT_EQ(run.count(" s4_info=[12, 13, 14, " + word + "] scripted event 2 content ok"), 1u)
            << run.text();
        EXPECT_EQ(run.count(" content ok"), 3u) << run.text();
    }
}

// A driver that writes content with every second event: the events between
// carry no content, whatever the event buffer still holds of the one before
// (its info words included), and are neither checked nor counted as mismatches.
TEST(AovSimOutput, EventsWithoutContentAreShownAsSuchAndNotChecked) {
    const std::string path = scenarioFile("every-second", R"({"name": "every-second",
        "sensors": [{"id": 0, "device": 1, "orientation": 90, "scenarios": [{"index": 2,
        "width": 320, "height": 240, "rate": 100, "type": 2, "bit": 8}]}],
        "driver": {"content_every": 2}, "failures": {}})");
    const Output run = runAovSim({"-s", path, "--events", "4"});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    const std::vector<std::string> events = run.starting("[evt ] #");
    ASSERT_EQ(events.size(), 4u) << run.text();
    for (size_t i = 0; i < events.size(); ++i) {
        const std::string end = i % 2 == 0 ? " no content" : " content ok (5 sections)";
        EXPECT_EQ(events[i].rfind(end), events[i].size() - end.size()) << events[i];
    }
    EXPECT_EQ(run.count("MISMATCH"), 0u) << run.text();
    expectSummaryMatchesTrace(run);
}

TEST(AovSimOutput, APowerOnFailureLeavesTheClockOnUlposcAndExitsOne) {
    const Output run =
        runAovSim({"-s", tenFpsScenario("power", R"("power_on": [0])"), "--events", "2"});
    EXPECT_EQ(run.exit_code, 1) << run.text();
    SCOPED_TRACE(run.text());
    // The whole summary of a session that never started: nothing timed, and
    // the library leaves the clock switched when power-on fails.
    const std::vector<std::string> summary = {
        "[sys ] summary: events delivered 0, dropped 0 of 0 produced (overwritten in the driver "
        "queue 0, lost to failed dequeues 0, discarded at stop 0)",
        "[sys ] summary: latency from descriptor signal to callback return: no samples",
        "[sys ] summary: latency breakdown: no samples",
        "[sys ] summary: kernel requests 0 (0 failed), refused calls 0, library error lines 2, "
        "content mismatches 0",
        "[sys ] summary: platform after stop: 0 sensors powered, 1 on ULPOSC, 0 devices open, 0 "
        "agents, 0 pipes (0 streaming)"};
    EXPECT_EQ(run.starting("[sys ] summary: "), summary);
    EXPECT_TRUE(run.hasLine("[sys ] startSensor() -> -1"));
    EXPECT_TRUE(run.hasLine("aov-sim: failed: startSensor failed: -1"));
    EXPECT_TRUE(run.hasLine("aov-sim: exit 1"));
    EXPECT_EQ(run.starting("[sys ] step ").back(), "[sys ] step 7: stopping");
}

TEST(AovSimOutput, AFailedDetectModeQueryStopsTheRunUnlessForced) {
    const std::string path = tenFpsScenario("detect", R"("detect_mode": true)");
    const Output run = runAovSim({"-s", path, "--events", "1"});
    EXPECT_EQ(run.exit_code, 1) << run.text();
    EXPECT_TRUE(run.hasLine("[sys ] getSensorMode(0) -> -1, detection mode 0")) << run.text();
    EXPECT_TRUE(run.hasLine("aov-sim: failed: getSensorMode(0) failed: -1")) << run.text();
    EXPECT_EQ(run.count("step 3"), 0u) << run.text();

    const Output forced = runAovSim({"-s", path, "--events", "1", "--force"});
    EXPECT_EQ(forced.exit_code, 0) << forced.text();
    EXPECT_TRUE(forced.hasLine("[sys ] chosen: sensor 0, 320x240 at 10 fps (--force)"))
        << forced.text();
}

TEST(AovSimOutput, EventsThatNeverArriveEndInExitOneAfterTheTimeout) {
    std::string every;
    for (int i = 1; i <= 64; ++i) {
        every += (i > 1 ? ", " : "") + std::to_string(i);
    }
    const Output run = runAovSim({"-s", tenFpsScenario("never", "\"dequeue\": [" + every + "]"),
                                  "--events", "2", "--timeout", "1"});
    EXPECT_EQ(run.exit_code, 1) << run.text();
    EXPECT_TRUE(run.hasLine("aov-sim: failed: timed out with 0 of 2 events delivered"))
        << run.text();
    EXPECT_TRUE(run.hasLine("aov-sim: exit 1")) << run.text();
}

TEST(AovSimOutput, DefaultChoiceIsTheSmallestSizeAtItsHighestRate) {
    // Sensor 0 offers 320x240 at [10, 1] and 640x480 at [5, 10].
    const Output run = runAovSim({"--events", "1"});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    EXPECT_TRUE(run.hasLine("[sys ] chosen: sensor 0, 320x240 at 10 fps")) << run.text();
}

// A timeline that cannot be opened stops the run before it begins; one that
// cannot be written (a full device) ends a session that ran in exit 2.
TEST(AovSimOutput, ATimelineThatCannotBeWrittenEndsInExitTwoWithOneLine) {
    const std::string dir = ::testing::TempDir();
    const ProcessResult refused =
        runProcess(AOV_SIM_PATH, {"--events", "1", "--timeline", dir}, {}, SIZE_MAX);
    EXPECT_EQ(refused.exit_code, 2) << refused.output;
    EXPECT_EQ(refused.output, "aov-sim: error: cannot write the timeline to " + dir + ": " +
                                  std::strerror(EISDIR) + "\n");

    const Output full = runAovSim({"--events", "1", "--timeline", "/dev/full"});
    EXPECT_EQ(full.exit_code, 2) << full.text();
    EXPECT_EQ(full.count("content ok"), 1u) << full.text();
    EXPECT_EQ(full.count("aov-sim: "), 2u) << full.text();
    EXPECT_TRUE(full.hasLine("aov-sim: error: cannot write the timeline to /dev/full"))
        << full.text();
    EXPECT_TRUE(full.hasLine("aov-sim: exit 2")) << full.text();
}

TEST(AovSimOutput, TheTimelineHoldsEveryStepAndTheServicesObtained) {
    const std::string path = ::testing::TempDir() + "aovsim_output_timeline.json";
    const Output run = runAovSim({"--events", "1", "--timeline", path});
    ASSERT_EQ(run.exit_code, 0) << run.text();
    std::ifstream in(path);
    const std::string json((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const std::string& step : run.starting("[sys ] step ")) {
        EXPECT_NE(json.find("\"" + step.substr(7) + "\""), std::string::npos)
            << "timeline lacks " << step;
    }
    // A library call's slice carries its result: each service was obtained.
    for (const char* service : {"IAOVSensor::getInstance", "IAOVDevice::getInstance"}) {
        const std::regex slice(std::string("\\{[^{}]*\"result\":1[^{}]*\\}[^{}]*\"name\":\"") +
                               service + "\"");
        EXPECT_TRUE(std::regex_search(json, slice)) << service << " in " << json.substr(0, 2000);
    }
}

}  // namespace
