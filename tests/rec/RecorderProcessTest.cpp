// aov-rec as a user runs it: a program under the recorder sees what it sees
// without it; dump, info and retrace on good, cut and hostile files; and the
// round trip of a session through a real FUSE node: recorded under aov-rec,
// replayed through the library by aov-sim --replay, retraced against a fresh
// aov-kdev.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"

namespace {

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_" + name;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

ProcessResult rec(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    return runProcess(AOV_REC_PATH, args, env);
}

// The lines of `output` that are not aov-rec's own.
std::string withoutRecLines(const std::string& output) {
    std::string out;
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        end = end == std::string::npos ? output.size() : end + 1;
        const std::string line = output.substr(at, end - at);
        if (line.rfind("aov-rec: ", 0) != 0) {
            out += line;
        }
        at = end;
    }
    return out;
}

class UnderTheRecorder : public ::testing::Test {
  protected:
    void SetUp() override {
        node_ = tempPath("node");
        other_ = tempPath("other");
        session_ = tempPath("session.rec");
        writeText(node_, "twelve bytes");
        writeText(other_, "other");
    }
    void TearDown() override {
        for (const std::string& path : {node_, other_, session_}) {
            ::unlink(path.c_str());
        }
    }
    std::string node_, other_, session_;
};

TEST_F(UnderTheRecorder, AProgramSeesTheSameResultsAndErrnoAsWithoutIt) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    // The series holds failures with several errno values.
    EXPECT_NE(bare.output.find("ioctl START -> -1 errno 25"), std::string::npos) << bare.output;
    EXPECT_NE(bare.output.find("epoll_ctl regular file -> -1 errno 1"), std::string::npos);
    EXPECT_NE(bare.output.find("close node twice -> -1 errno 9"), std::string::npos);

    const ProcessResult recorded =
        rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    EXPECT_NE(recorded.output.find("aov-rec: session recorded in " + session_), std::string::npos)
        << recorded.output;

    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    // Two opens of the node, its ioctls, the poll, the refused epoll_ctl and
    // two closes; nothing of the other file or of the calls after the close.
    EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 2u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 4u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"close\""), 2u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"poll\""), 1u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"epoll_ctl\""), 1u) << dump.output;
    EXPECT_NE(dump.output.find("\"result\":-1,\"errno\":1,\"op\":\"ADD\""), std::string::npos);
    EXPECT_NE(dump.output.find("\"request\":\"START\",\"code\":\"0x40c84800\",\"arg_unreadable\""),
              std::string::npos)
        << dump.output;
    EXPECT_EQ(dump.output.find(other_), std::string::npos);
}

TEST_F(UnderTheRecorder, AFileThatCannotBeWrittenIsSaidOnceAndTheProgramGoesOn) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    const ProcessResult recorded =
        rec({"record", "-o", "/nonexistent-dir/s.rec", "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    EXPECT_EQ(count(recorded.output, "aov-rec: recording stopped: /nonexistent-dir/s.rec: "), 1u)
        << recorded.output;
}

TEST_F(UnderTheRecorder, TheCommandsExitStatusIsHandedBack) {
#ifdef AOV_REC_PRELOAD_SANITIZED
    GTEST_SKIP() << "the sanitized recorder loads only into sanitized programs, not /bin/sh";
#endif
    EXPECT_EQ(rec({"record", "-o", session_, "--", "/bin/sh", "-c", "exit 7"}).exit_code, 7);
    EXPECT_EQ(rec({"record", "-o", session_, "--", "/bin/sh", "-c", "kill -TERM $$"}).exit_code,
              128 + SIGTERM);
    const ProcessResult missing = rec({"record", "-o", session_, "--", "/nonexistent/program"});
    EXPECT_EQ(missing.exit_code, 2);
    EXPECT_NE(missing.output.find("aov-rec: cannot run /nonexistent/program"), std::string::npos);
}

TEST_F(UnderTheRecorder, ACutRecordingPrintsItsWholeRecordsThenEndsInExitTwo) {
    ASSERT_EQ(rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, node_, other_},
                  {"AOV_REC_NODE=" + node_})
                  .exit_code,
              0);
    const std::string whole = readText(session_);
    const ProcessResult full = rec({"dump", session_});
    writeText(session_, whole.substr(0, whole.size() - 3));
    const ProcessResult cut = rec({"dump", session_});
    EXPECT_EQ(cut.exit_code, 2);
    EXPECT_EQ(count(cut.output, "\n"), count(full.output, "\n"));
    EXPECT_NE(cut.output.find("aov-rec: " + session_ + ": record 9 at byte"), std::string::npos)
        << cut.output;
    EXPECT_NE(cut.output.find("cut off"), std::string::npos);
    EXPECT_EQ(rec({"info", session_}).exit_code, 2);
}

TEST(AovRecInput, BadInputEndsInExitTwoWithOneLine) {
    const std::string text = tempPath("text");
    writeText(text, "not a session at all, just some text");
    struct Case {
        std::vector<std::string> args;
        std::string line;
    };
    const std::vector<Case> cases = {
        {{"dump", text}, "aov-rec: " + text + ": not a session file (no AOVREC header)\n"},
        {{"info", "/nonexistent"}, "aov-rec: /nonexistent: No such file or directory\n"},
        {{"retrace", text, "-d", "/dev/null"},
         "aov-rec: " + text + ": not a session file (no AOVREC header)\n"},
        {{"dump", "/"}, "aov-rec: /: cannot read: Is a directory\n"},
    };
    for (const Case& c : cases) {
        const ProcessResult r = rec(c.args);
        EXPECT_EQ(r.exit_code, 2) << c.args[0];
        EXPECT_EQ(r.output, c.line);
    }
    const ProcessResult usage = rec({"record", "--content", "some", "--", "true"});
    EXPECT_EQ(usage.exit_code, 2);
    EXPECT_EQ(usage.output.rfind("aov-rec: --content must be all, written or none, not some\n", 0),
              0u)
        << usage.output;
    ::unlink(text.c_str());
}

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

// One scenario recorded through a real node and retraced against a fresh
// aov-kdev serving the same scenario.
struct RoundTripCase {
    const char* name;
    std::vector<std::string> sim_args;
    std::string scenario;  // for aov-kdev too; empty: the embedded one
    const char* content;
    const char* fault_at;  // a dequeue that succeeded in the recording
};

void PrintTo(const RoundTripCase& c, std::ostream* out) {
    *out << c.name;
}

class FuseRoundTrip : public ::testing::TestWithParam<RoundTripCase> {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-rec-kdev");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
        session_ = tempPath(std::string(GetParam().name) + ".rec");
    }
    void TearDown() override {
        stopKdev();
        ::unlink(session_.c_str());
        ::unlink(scenario_.c_str());
    }
    // Starts aov-kdev on dir_ and waits, with a limit, until it serves.
    void startKdev(std::vector<std::string> extra) {
        extra.insert(extra.begin(), "--quiet");
        std::string problem;
        ASSERT_TRUE(kdev_.start(AOV_KDEV_PATH, dir_, extra, &problem)) << problem;
    }
    void stopKdev() {
        kdev_.stop();
        if (!dir_.empty()) {
            ::umount2(dir_.c_str(), MNT_DETACH);
        }
    }
    std::string scenarioFile() {
        const RoundTripCase& c = GetParam();
        if (c.scenario != "failures") {
            return c.scenario;
        }
        const ProcessResult printed = runProcess(AOV_SIM_PATH, {"--print-scenario"});
        std::string text = printed.output;
        const size_t at = text.find("\"failures\": {}");
        if (at == std::string::npos) {
            return "";
        }
        text.replace(at, 14, "\"failures\": {\"dequeue\": [2], \"sensor_list\": [2]}");
        scenario_ = tempPath("failures.json");
        writeText(scenario_, text);
        return scenario_;
    }
    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_, session_, scenario_;
    aovsimtool::KdevLauncher kdev_;
};

TEST_P(FuseRoundTrip, ARecordedSessionReplaysAndRetracesWithoutDifferencesAndAFaultIsFound) {
    const RoundTripCase& c = GetParam();
    const std::string scenario = scenarioFile();
    ASSERT_EQ(scenario.empty(), c.scenario.empty()) << "no failures template";
    std::vector<std::string> args = {"record", "-o",         session_,   "--content", c.content,
                                     "--",     AOV_SIM_PATH, "--kernel", "fuse",      "--events",
                                     "3",      "--timeout",  "10"};
    if (!scenario.empty()) {
        args.insert(args.end(), {"--scenario", scenario});
    }
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
    if (!scenario.empty()) {
        replayArgs.insert(replayArgs.end(), {"--scenario", scenario});
    }
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
    EXPECT_EQ(callbackAreas.size(), static_cast<size_t>(3));

    if (c.scenario.empty()) {
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

    std::vector<std::string> kdev;
    if (!scenario.empty()) {
        kdev = {"--scenario", scenario};
    }
    startKdev(kdev);
    const ProcessResult same =
        rec({"retrace", session_, "-d", dir_ + "/kelo_aov", "--ready-timeout", "5000"});
    EXPECT_EQ(same.exit_code, 0) << same.output << info.output;
    EXPECT_NE(same.output.find(", 0 differences\n"), std::string::npos) << same.output;
    stopKdev();

    // The same driver with a fault at a dequeue that succeeded.
    kdev.insert(kdev.end(), {"--overlong-reply-at-dequeue", c.fault_at});
    startKdev(kdev);
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
    ::testing::Values(RoundTripCase{"DefaultScenario", {}, "", "written", "2"},
                      RoundTripCase{"ScriptedEventsFullContent",
                                    {"--aov-mode", "2"},
                                    std::string(AOV_SIM_EXAMPLES) + "/scripted-events.json",
                                    "all",
                                    "2"},
                      RoundTripCase{"InjectedFailures", {}, "failures", "none", "3"}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
        return std::string(info.param.name);
    });

}  // namespace
