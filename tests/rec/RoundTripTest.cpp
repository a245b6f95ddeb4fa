// The round trip of a session through a real FUSE node: recorded under
// aov-rec, replayed through the library by aov-sim --replay, retraced against
// a fresh aov-kdev; and the same recording edited, each change found.

#include <fcntl.h>
#include <linux/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ProcessRun.h"
#include "SessionFiles.h"
#include "kelo_aov.h"

namespace {

using aovrec::RecordType;
using aovrectest::LoadedSession;
using aovrectest::loadSession;
using aovrectest::rec;
using aovrectest::SessionEdits;
using aovrectest::tempPath;
using aovrectest::writeSession;
using aovrectest::writeText;

// The lines of `output` that begin with `prefix`, each cut before any of
// `cutAt`, leaving out those that hold any of `skip`.
std::vector<std::string> linesOf(const std::string& output, const std::string& prefix,
                                 const std::vector<std::string>& skip = {},
                                 const std::vector<std::string>& cutAt = {}) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        end = end == std::string::npos ? output.size() : end;
        std::string line = output.substr(at, end - at);
        at = end + 1;
        if (line.rfind(prefix, 0) != 0) {
            continue;
        }
        bool skipped = false;
        for (const std::string& text : skip) {
            skipped = skipped || line.find(text) != std::string::npos;
        }
        if (skipped) {
            continue;
        }
        for (const std::string& text : cutAt) {
            line.resize(std::min(line.size(), line.find(text)));
        }
        lines.push_back(line);
    }
    return lines;
}

// The areas of each successful dequeue in `aov-rec dump`'s lines, as aov-sim
// --replay prints those its callback received: "s1 32768 0123..., s4 ...".
std::vector<std::string> recordedAreas(const std::string& dump) {
    std::vector<std::string> events;
    for (const std::string& line : linesOf(dump, "{\"i\":")) {
        if (line.find("\"request\":\"DEQUEUE_EVENT\"") == std::string::npos ||
            line.find("\"result\":0,") == std::string::npos) {
            continue;
        }
        std::string areas;
        for (size_t at = line.find("{\"section\":"); at != std::string::npos;
             at = line.find("{\"section\":", at + 1)) {
            const size_t bytes = line.find("\"bytes\":", at);
            const std::string digest_key = "\"xxh64\":\"";
            const size_t digest = line.find(digest_key, at);
            if (bytes == std::string::npos || digest == std::string::npos) {
                break;
            }
            areas += (areas.empty() ? "s" : ", s") +
                     line.substr(at + 11, line.find(',', at) - at - 11) + " " +
                     line.substr(bytes + 8, line.find(',', bytes) - bytes - 8) + " " +
                     line.substr(digest + digest_key.size(), 16);
        }
        events.push_back(areas.empty() ? "no areas" : areas);
    }
    return events;
}

// The header and info words of each successful dequeue in `aov-rec dump`'s
// lines, as aov-sim's event lines show them: "header=[...] s1_info=N s4_info=[...]".
std::vector<std::string> recordedWords(const std::string& dump) {
    auto list = [](const std::string& line, size_t open) {
        const size_t close = line.find(']', open);
        std::string items = line.substr(open + 1, close - open - 1);
        std::string out;
        for (const char c : items) {
            out += c == ',' ? std::string(", ") : std::string(1, c);
        }
        return "[" + out + "]";
    };
    std::vector<std::string> events;
    for (const std::string& line : linesOf(dump, "{\"i\":")) {
        if (line.find("\"request\":\"DEQUEUE_EVENT\"") == std::string::npos ||
            line.find("\"result\":0,") == std::string::npos) {
            continue;
        }
        const size_t header = line.find("\"header\":[");
        const size_t info = line.find("\"info\":[[");
        if (header == std::string::npos || info == std::string::npos) {
            events.push_back("no words: " + line);
            continue;
        }
        // The info words of sections 1 and 4.
        size_t s1 = info + 8;
        size_t s4 = s1;
        for (int i = 0; i < 3; ++i) {
            s4 = line.find('[', s4 + 1);
        }
        const std::string s1Words = list(line, s1);
        events.push_back("header=" + list(line, header + 9) + " s1_info=" +
                         s1Words.substr(1, s1Words.size() - 2) + " s4_info=" + list(line, s4));
    }
    return events;
}

// The words of aov-sim's event lines, without the event number and what follows the words.
std::vector<std::string> deliveredWords(const std::string& output) {
    std::vector<std::string> events;
    for (const std::string& line : linesOf(
             output, "[evt ", {}, {" s6_info", " content ", " scripted event", " no content"})) {
        const size_t at = line.find(" header=");
        events.push_back(at == std::string::npos ? line : line.substr(at + 1));
    }
    return events;
}

// Three scripted events with all ten areas. A driver serving a script
// queues only its events, fewer than its queue holds: none is overwritten
// however slowly a session or its retrace runs, so both see the same events.
// (The default driver makes an event every frame into a queue of four, and a
// retrace that falls behind it sees other events than the recording did.)
const std::string kThreeEvents = AOV_REC_TEST_DATA "/three-full-events.json";

// One scenario recorded through a real node and retraced against a fresh
// aov-kdev serving the same scenario.
struct RoundTripCase {
    const char* name;
    std::vector<std::string> sim_args;
    std::string scenario;  // for aov-kdev too
    const char* content;
    const char* fault_at;  // a dequeue that succeeded in the recording
};

void PrintTo(const RoundTripCase& c, std::ostream* out) {
    *out << c.name;
}

class FuseRoundTrip : public ::testing::TestWithParam<RoundTripCase> {
  protected:
    void SetUp() override {
        kdev_.enterOrSkip("aov-rec-kdev");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = kdev_.dir();
        session_ = tempPath(std::string(GetParam().name) + ".rec");
    }
    void TearDown() override {
        kdev_.stop();
        ::unlink(session_.c_str());
        ::unlink(scenario_.c_str());
    }
    std::string scenarioFile() {
        const RoundTripCase& c = GetParam();
        if (c.scenario != "failures") {
            return c.scenario;
        }
        // The three events with failures, and a fourth event for the one the
        // failed dequeue loses.
        std::ifstream in(kThreeEvents);
        std::string text(std::istreambuf_iterator<char>(in), {});
        const std::string driver = "\"driver\": {\"queue_depth\": 4},";
        const std::string last = "\n    }\n  ]\n}";
        const size_t at = text.find(driver);
        const size_t end = text.rfind(last);
        if (at == std::string::npos || end == std::string::npos) {
            return "";
        }
        text.replace(end, last.size(),
                     "\n    },\n    {\"header\": [4, 0, 400, 4, 0, 1], \"info\": {\"s1\": [32768]},"
                     " \"data\": {\"s1\": {\"fill\": 65}}}\n  ]\n}");
        text.replace(at, driver.size(),
                     driver + " \"failures\": {\"dequeue\": [2], \"sensor_list\": [2]},");
        scenario_ = tempPath("failures.json");
        writeText(scenario_, text);
        return scenario_;
    }
    aovrectest::ServedKdev kdev_;
    std::string dir_, session_, scenario_;
};

TEST_P(FuseRoundTrip, ARecordedSessionReplaysAndRetracesWithoutDifferencesAndAFaultIsFound) {
    const RoundTripCase& c = GetParam();
    const std::string scenario = scenarioFile();
    ASSERT_FALSE(scenario.empty()) << "no failures template";
    std::vector<std::string> args = {"record", "-o",         session_,   "--content", c.content,
                                     "--",     AOV_SIM_PATH, "--kernel", "fuse",      "--events",
                                     "3",      "--timeout",  "10"};
    args.insert(args.end(), {"--scenario", scenario});
    args.insert(args.end(), c.sim_args.begin(), c.sim_args.end());
    const ProcessResult recorded = rec(args);
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;

    const ProcessResult info = rec({"info", session_});
    ASSERT_EQ(info.exit_code, 0) << info.output;
    EXPECT_NE(info.output.find("DEQUEUE_EVENT"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("STOP"), std::string::npos) << info.output;

    // Replayed through the library: the same requests (any other ends the
    // run with exit 1), the same callbacks with the recorded areas, the same
    // library error lines and system-layer lines as the live run.
    std::vector<std::string> replayArgs = {"--replay", session_, "--speed",   "max",
                                           "--events", "3",      "--timeout", "10"};
    replayArgs.insert(replayArgs.end(), {"--scenario", scenario});
    replayArgs.insert(replayArgs.end(), c.sim_args.begin(), c.sim_args.end());
    const ProcessResult replayed = runProcess(AOV_SIM_PATH, replayArgs);
    ASSERT_EQ(replayed.exit_code, 0) << replayed.output;
    EXPECT_EQ(replayed.output.find('\r'), std::string::npos) << "a progress line off a terminal";
    EXPECT_EQ(linesOf(replayed.output, "[lib "), linesOf(recorded.output, "[lib "));
    if (c.scenario == "failures") {
        EXPECT_NE(linesOf(recorded.output, "[lib ").size(), 0u) << "no failure reached the library";
    }
    const std::vector<std::string> differ = {"driver:", "unavailable", "watching fd", "summary:"};
    EXPECT_EQ(linesOf(replayed.output, "[sys ", differ), linesOf(recorded.output, "[sys ", differ));
    EXPECT_EQ(
        linesOf(replayed.output, "[evt ", {}, {" replayed areas: "}),
        linesOf(recorded.output, "[evt ", {}, {" content ", " scripted event", " no content"}));
    std::vector<std::string> callbackAreas;
    for (const std::string& line : linesOf(replayed.output, "[evt ")) {
        const size_t at = line.find(" replayed areas: ");
        callbackAreas.push_back(at == std::string::npos ? line : line.substr(at + 17));
    }
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    EXPECT_EQ(callbackAreas, recordedAreas(dump.output));
    // The replaying driver's own figures, read from it: every recorded request answered.
    EXPECT_EQ(replayed.output.find("not answer"), std::string::npos) << replayed.output;
    size_t requests = 0;
    for (const std::string& line : linesOf(dump.output, "{\"i\":")) {
        requests += line.find("\"call\":\"ioctl\"") != std::string::npos ? 1 : 0;
    }
    EXPECT_NE(replayed.output.find("summary: kernel requests " + std::to_string(requests) + " ("),
              std::string::npos)
        << requests << " requests recorded\n"
        << replayed.output;
    EXPECT_EQ(callbackAreas.size(), static_cast<size_t>(3));
    // The dump's words of each event are those the live run's callback got.
    EXPECT_EQ(recordedWords(dump.output), deliveredWords(recorded.output));

    if (c.scenario == kThreeEvents) {
        // Three events with content, every request answered.
        EXPECT_NE(info.output.find("\n  START                 1  failed 0\n"), std::string::npos)
            << info.output;
        EXPECT_NE(info.output.find("\n  DEQUEUE_EVENT         3  failed 0\n"), std::string::npos)
            << info.output;
        // What the replay says of its driver: the recording's counts and
        // the figures a recording cannot give.
        for (const std::string& line :
             {"[sys ] driver: replay of " + session_ + " (" + std::to_string(requests) +
                  " requests, 3 events, content written, speed max)",
              std::string("[sys ] unavailable from this driver (shown as 0 below): events "
                          "produced, overwritten, lost or discarded by the driver are not in a "
                          "recording")}) {
            EXPECT_EQ(linesOf(replayed.output, line), std::vector<std::string>{line})
                << replayed.output;
        }
        EXPECT_NE(info.output.find("\nevents: 3 dequeued, 3 with the content flag, "),
                  std::string::npos)
            << info.output;
        const size_t ready = info.output.find("; node ready ");
        ASSERT_NE(ready, std::string::npos) << info.output;
        EXPECT_GE(std::atoi(info.output.c_str() + ready + 13), 3)
            << "each event was preceded by a readiness the monitor saw\n"
            << info.output;
    }

    if (c.scenario == kThreeEvents) {
        // On a terminal the replay shows how far it got, and clears that
        // line again before it ends.
        const ProcessResult shown = runProcessOnTerminal(AOV_SIM_PATH, replayArgs);
        ASSERT_EQ(shown.exit_code, 0) << shown.output;
        const size_t first = shown.output.find("\r\033[Kreplay: ");
        ASSERT_NE(first, std::string::npos) << "no progress line on a terminal:\n" << shown.output;
        EXPECT_NE(shown.output.find(" events, ", first), std::string::npos) << shown.output;
        EXPECT_NE(shown.output.find(" s left", first), std::string::npos) << shown.output;
        const size_t last = shown.output.rfind("replay: ");
        EXPECT_NE(shown.output.find("\r\033[K", last), std::string::npos)
            << "the last progress line stays on the terminal:\n"
            << shown.output;

        // Without --events the recording's own count, at a paced speed
        // within the wait it announces.
        const ProcessResult own = runProcess(AOV_SIM_PATH, {"--replay", session_, "--speed", "2"});
        EXPECT_EQ(own.exit_code, 0) << own.output;
        EXPECT_NE(own.output.find("waiting for 3 events (at most "), std::string::npos)
            << own.output;

        // Another aov_mode makes the library send another START.
        replayArgs.insert(replayArgs.end(), {"--aov-mode", "1"});
        const ProcessResult diverged = runProcess(AOV_SIM_PATH, replayArgs);
        EXPECT_EQ(diverged.exit_code, 1) << diverged.output;
        EXPECT_NE(diverged.output.find("aov-sim: replay diverged at request 2"), std::string::npos)
            << diverged.output;
        EXPECT_NE(diverged.output.find("\n  library:  START sensor_id 0 scenario"),
                  std::string::npos)
            << diverged.output;
        EXPECT_NE(diverged.output.find(" aov_mode 1 "), std::string::npos) << diverged.output;
        EXPECT_NE(diverged.output.find("\n  recorded: START sensor_id 0 scenario"),
                  std::string::npos)
            << diverged.output;
        EXPECT_NE(diverged.output.find(" aov_mode 0 "), std::string::npos) << diverged.output;
    }

    std::vector<std::string> kdev = {"--scenario", scenario};
    kdev_.start(kdev);
    const ProcessResult same =
        rec({"retrace", session_, "-d", dir_ + "/kelo_aov", "--ready-timeout", "5000"});
    EXPECT_EQ(same.exit_code, 0) << same.output << info.output;
    EXPECT_NE(same.output.find(", 0 differences\n"), std::string::npos) << same.output;
    kdev_.stop();

    // The same driver with a fault at a dequeue that succeeded.
    kdev.insert(kdev.end(), {"--overlong-reply-at-dequeue", c.fault_at});
    kdev_.start(kdev);
    const ProcessResult faulty =
        rec({"retrace", session_, "-d", dir_ + "/kelo_aov", "--ready-timeout", "5000"});
    EXPECT_EQ(faulty.exit_code, 1) << faulty.output;
    EXPECT_NE(faulty.output.find("difference at record"), std::string::npos) << faulty.output;
    EXPECT_NE(faulty.output.find("DEQUEUE_EVENT: result -1 (Input/output error)"),
              std::string::npos)
        << faulty.output;
}

INSTANTIATE_TEST_SUITE_P(
    AovRec, FuseRoundTrip,
    ::testing::Values(RoundTripCase{"ThreeEvents", {}, kThreeEvents, "written", "2"},
                      RoundTripCase{"ScriptedEventsFullContent",
                                    {"--aov-mode", "2"},
                                    std::string(AOV_SIM_EXAMPLES) + "/scripted-events.json",
                                    "all",
                                    "2"},
                      RoundTripCase{"InjectedFailures", {}, "failures", "none", "3"}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
        return std::string(info.param.name);
    });

// Changes made to a recording before it is retraced or replayed.
struct Edits {
    bool words = false;           // the first dequeue with areas: header[5] and its last area
    bool refused_first = false;   // an unknown request, refused with EINVAL, after the open
    bool request_at_end = false;  // the same before the node's last close
};

constexpr uint32_t kUnknownRequest = _IO('H', 5);

// Writes the open, close and ioctl records of `from` to `to` through the
// session builder, with `edits`; the readiness records are left out.
std::string rewrite(const std::string& from, const std::string& to, const Edits& edits) {
    LoadedSession session;
    const std::string problem = loadSession(from, &session);
    if (!problem.empty()) {
        return problem;
    }
    const std::vector<aovrec::Record>& records = session.records;
    // The library's descriptor: the node opened without creating it.
    int node = -1;
    size_t last_close = records.size();
    for (size_t i = 0; i < records.size(); ++i) {
        const aovrec::Record& x = records[i];
        if (node < 0 && x.type == RecordType::kOpen && (x.open_flags & O_CREAT) == 0 &&
            x.call.result >= 0) {
            node = x.call.result;
        } else if (x.type == RecordType::kClose && x.call.fd == node) {
            last_close = i;
        }
    }
    if (node < 0 || last_close == records.size()) {
        return "no open and close of the node in " + from;
    }
    bool words_done = !edits.words;
    SessionEdits copy;
    copy.before = [&](size_t i, const aovrec::Record&, aovrec::SessionBuilder* b) {
        if (i == last_close && edits.request_at_end) {
            b->ioctl(node, kUnknownRequest, nullptr, 0, -EINVAL);
        }
    };
    copy.request = [&](size_t, const aovrec::Record& x, std::vector<uint8_t>* back,
                       std::vector<std::vector<uint8_t>>* data) {
        if (!words_done && x.request == AOV_IOC_DEQUEUE_EVENT && x.call.result >= 0 &&
            x.area_count > 0 && back->size() >= sizeof(aov_event_query) && !data->back().empty()) {
            uint32_t flag;
            std::memcpy(&flag, back->data() + 20, sizeof(flag));
            ++flag;
            std::memcpy(back->data() + 20, &flag, sizeof(flag));
            data->back()[0] ^= 0x01;
            words_done = true;
        }
    };
    copy.after = [&](size_t, const aovrec::Record& x, aovrec::SessionBuilder* b) {
        if (x.type == RecordType::kOpen && x.call.result == node && edits.refused_first) {
            b->ioctl(node, kUnknownRequest, nullptr, 0, -EINVAL);
        }
    };
    const std::string written = writeSession(session, to, copy);
    if (!words_done) {
        return "no dequeue with areas in " + from;
    }
    return written;
}

// A recorded session, edited: retraced against a fresh aov-kdev, each change
// is a difference; replayed, a request left over at the end is a divergence.
class EditedRecording : public FuseRoundTrip {};

TEST_P(EditedRecording, RetraceFindsEveryChangeAndReplayTheRequestLeftOver) {
    const std::string scenario = GetParam().scenario;
    ASSERT_EQ(rec({"record", "-o", session_, "--", AOV_SIM_PATH, "--kernel", "fuse", "--events",
                   "3", "--timeout", "10", "--scenario", scenario})
                  .exit_code,
              0);
    const std::string plain = tempPath("plain.rec");
    const std::string edited = tempPath("edited.rec");
    const std::string leftOver = tempPath("left-over.rec");
    ASSERT_EQ(rewrite(session_, plain, Edits{}), "");
    ASSERT_EQ(rewrite(session_, edited, Edits{true, true, false}), "");
    ASSERT_EQ(rewrite(session_, leftOver, Edits{false, false, true}), "");
    // The plain copy keeps each call's result and errno as recorded.
    const auto outcomes = [](const std::string& path) {
        LoadedSession loaded;
        EXPECT_EQ(loadSession(path, &loaded), "") << path;
        std::vector<std::pair<int32_t, int32_t>> out;
        for (const aovrec::Record& r : loaded.records) {
            if (r.type == RecordType::kOpen || r.type == RecordType::kClose ||
                r.type == RecordType::kIoctl) {
                out.emplace_back(r.call.result, r.call.err);
            }
        }
        return out;
    };
    EXPECT_EQ(outcomes(plain), outcomes(session_));

    // Without its readiness records, each dequeue that got an event still
    // waits for the node to be ready.
    kdev_.start({"--scenario", scenario});
    const ProcessResult same = rec({"retrace", plain, "-d", dir_ + "/kelo_aov"});
    EXPECT_EQ(same.exit_code, 0) << same.output;
    EXPECT_NE(same.output.find(", 0 differences\n"), std::string::npos) << same.output;
    kdev_.stop();

    kdev_.start({"--scenario", scenario});
    const ProcessResult changed = rec({"retrace", edited, "-d", dir_ + "/kelo_aov"});
    kdev_.stop();
    EXPECT_EQ(changed.exit_code, 1) << changed.output;
    EXPECT_NE(changed.output.find("(result): ioctl 0x00004805: result -1 (Inappropriate ioctl for "
                                  "device), recorded -1 (Invalid argument)"),
              std::string::npos)
        << changed.output;
    EXPECT_NE(changed.output.find("(words): DEQUEUE_EVENT: header[5] "), std::string::npos)
        << changed.output;
    EXPECT_NE(changed.output.find("(area): DEQUEUE_EVENT: section "), std::string::npos)
        << changed.output;
    EXPECT_NE(changed.output.find(", 3 differences\n"), std::string::npos) << changed.output;

    const ProcessResult replayed =
        runProcess(AOV_SIM_PATH, {"--replay", leftOver, "--speed", "max", "--events", "3",
                                  "--timeout", "10", "--scenario", scenario});
    EXPECT_EQ(replayed.exit_code, 1) << replayed.output;
    EXPECT_NE(
        replayed.output.find("\n  library:  (no more requests)\n  recorded: ioctl 0x00004805"),
        std::string::npos)
        << replayed.output;
    for (const std::string& path : {plain, edited, leftOver}) {
        ::unlink(path.c_str());
    }
}

INSTANTIATE_TEST_SUITE_P(AovRec, EditedRecording,
                         ::testing::Values(RoundTripCase{
                             "ThreeEvents", {}, kThreeEvents, "written", "2"}),
                         [](const ::testing::TestParamInfo<RoundTripCase>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
