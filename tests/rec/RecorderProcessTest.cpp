// aov-rec as a user runs it: a program under the recorder sees what it sees
// without it; dump, info and retrace on good, cut and hostile files.

#include <fcntl.h>
#include <limits.h>
#include <linux/ioctl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ProcessRun.h"
#include "SessionFiles.h"
#include "aovsession/SessionBuilder.h"
#include "kelo_aov.h"

namespace {

using aovrectest::readText;
using aovrectest::rec;
using aovrectest::tempPath;
using aovrectest::writeText;

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

// The lines of `text` that hold `what`.
std::vector<std::string> linesWith(const std::string& text, const std::string& what) {
    std::vector<std::string> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(what) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

// The digest of `size` bytes as dump writes it: sixteen hex digits, quoted.
std::string hex(const void* data, size_t size) {
    char text[24];
    std::snprintf(text, sizeof(text), "\"%016llx\"",
                  static_cast<unsigned long long>(aovrec::digest(data, size)));
    return text;
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
        for (const std::string& path : {node_, other_, session_, fifo_}) {
            ::unlink(path.c_str());
        }
    }
    // The test client in `mode` (none: its plain series) on `node`, recorded
    // into session_ with `node` as the node the recorder watches.
    ProcessResult recordClient(const std::string& node, const std::string& mode = "") {
        std::vector<std::string> args = {"record", "-o",  session_, "--", AOV_REC_CLIENT_PATH,
                                         node,     other_};
        if (!mode.empty()) {
            args.push_back(mode);
        }
        return rec(args, {"AOV_REC_NODE=" + node});
    }
    // A FIFO to stand for the node, removed with the test's other files.
    std::string makeFifo() {
        fifo_ = tempPath("fifo");
        EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0) << std::strerror(errno);
        return fifo_;
    }
    std::string node_, other_, session_, fifo_;
};

TEST_F(UnderTheRecorder, AProgramSeesTheSameResultsAndErrnoAsWithoutIt) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    // The series holds failures with several errno values.
    EXPECT_NE(bare.output.find("ioctl START -> -1 errno 25"), std::string::npos) << bare.output;
    EXPECT_NE(bare.output.find("epoll_ctl regular file -> -1 errno 1"), std::string::npos);
    EXPECT_NE(bare.output.find("close node twice -> -1 errno 9"), std::string::npos);

    const ProcessResult recorded = recordClient(node_);
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    EXPECT_NE(recorded.output.find("aov-rec: session recorded in " + session_), std::string::npos)
        << recorded.output;

    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    // Two opens of the node, its ioctls, the two polls, the refused epoll_ctl
    // and two closes; nothing of the other file or of the calls after the close.
    EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 2u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 4u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"close\""), 2u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"poll\""), 2u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"epoll_ctl\""), 1u) << dump.output;
    EXPECT_NE(dump.output.find("\"result\":-1,\"errno\":1,\"op\":\"ADD\""), std::string::npos);
    EXPECT_NE(dump.output.find("\"request\":\"START\",\"code\":\"0x40c84800\",\"arg_unreadable\""),
              std::string::npos)
        << dump.output;
    EXPECT_EQ(dump.output.find(other_), std::string::npos);

    // Of the two polls, the one that found the file readable counts as a readiness.
    const ProcessResult info = rec({"info", session_});
    ASSERT_EQ(info.exit_code, 0) << info.output;
    EXPECT_NE(info.output.find("; node ready 1 times\n"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("\n  START                 2  failed 2\n"), std::string::npos)
        << info.output;
}

// Said through the status file even when the program's descriptor 0 is free
// when the recorder opens it ("no-stdin": the status file then gets 0).
TEST_F(UnderTheRecorder, AFileThatCannotBeWrittenIsSaidOnceWithANonZeroExitAndTheProgramGoesOn) {
    struct Case {
        const char* output;
        std::string line;  // what the stop line starts with
    };
    const Case cases[] = {{"/nonexistent-dir/s.rec", "/nonexistent-dir/s.rec: "},
                          {"/dev/full", "/dev/full: No space left on device\n"}};
    for (const std::string mode : {"", "no-stdin"}) {
        const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_, mode});
        ASSERT_EQ(bare.exit_code, 0) << bare.output;
        for (const Case& c : cases) {
            const ProcessResult r =
                rec({"record", "-o", c.output, "--", AOV_REC_CLIENT_PATH, node_, other_, mode},
                    {"AOV_REC_NODE=" + node_});
            EXPECT_EQ(r.exit_code, 3) << mode << " " << c.output << "\n" << r.output;
            EXPECT_EQ(withoutRecLines(r.output), bare.output) << mode;
            EXPECT_EQ(count(r.output, "aov-rec: recording stopped: " + c.line), 1u) << mode << "\n"
                                                                                    << r.output;
            EXPECT_EQ(count(r.output, "aov-rec: "), 1u) << mode << "\n" << r.output;
        }
    }
}

TEST_F(UnderTheRecorder, AFileNothingWasRecordedIntoStaysAsItWasAndTheLineNamesTheNode) {
    writeText(session_, "an earlier session");
    const ProcessResult r =
        rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, other_, other_},
            {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(r.exit_code, 0) << r.output;
    EXPECT_EQ(readText(session_), "an earlier session");
    EXPECT_NE(r.output.find("never opened the node " + node_ +
                            "; nothing recorded "
                            "(AOV_REC_NODE=PATH or AOV_DEV_DIR=DIR watches another)"),
              std::string::npos)
        << r.output;
    // Without AOV_REC_NODE (or with it empty), the line names what the
    // recorder watched: the node under AOV_DEV_DIR, else the device's own.
    const struct {
        std::vector<std::string> env;
        std::string node;
    } watched[] = {
        {{"AOV_REC_NODE=", "AOV_DEV_DIR=/aov-dir"},
         "/aov-dir/" AOV_DEVICE_NAME " or " AOV_DEVICE_NODE},
        {{"AOV_REC_NODE=", "AOV_DEV_DIR="}, AOV_DEVICE_NODE},
    };
    for (const auto& w : watched) {
        const ProcessResult elsewhere =
            rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, other_, other_}, w.env);
        EXPECT_EQ(elsewhere.exit_code, 0) << elsewhere.output;
        EXPECT_NE(elsewhere.output.find("never opened the node " + w.node + "; nothing recorded"),
                  std::string::npos)
            << elsewhere.output;
    }
}

// Without AOV_REC_NODE, or with it empty, the node is AOV_DEV_DIR's (or the
// default) and only that: another file the program opens is not recorded.
TEST_F(UnderTheRecorder, AnEmptyOrMissingNodeSettingWatchesTheDevDirsNodeAndNoOtherFile) {
    const std::string dir = tempPath("devdir");
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0) << std::strerror(errno);
    const std::string node = dir + "/kelo_aov";
    writeText(node, "twelve bytes");
    const std::vector<std::string> recordArgs = {"record", "-o", session_, "--",
                                                 AOV_REC_CLIENT_PATH};
    for (const std::vector<std::string>& env :
         {std::vector<std::string>{"AOV_DEV_DIR=" + dir},
          std::vector<std::string>{"AOV_REC_NODE=", "AOV_DEV_DIR=" + dir}}) {
        const std::string label = env.size() == 1 ? "unset" : "empty";
        std::vector<std::string> args = recordArgs;
        args.insert(args.end(), {node, other_});
        const ProcessResult r = rec(args, env);
        ASSERT_EQ(r.exit_code, 0) << label << "\n" << r.output;
        const ProcessResult dump = rec({"dump", session_});
        ASSERT_EQ(dump.exit_code, 0) << dump.output;
        EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 2u) << label << "\n" << dump.output;
        EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 4u) << label << "\n" << dump.output;
        EXPECT_EQ(dump.output.find(other_), std::string::npos) << label << "\n" << dump.output;

        args = recordArgs;
        args.insert(args.end(), {other_, other_});
        const ProcessResult none = rec(args, env);
        EXPECT_EQ(none.exit_code, 0) << none.output;
        EXPECT_EQ(count(none.output, "never opened the node " + node + " or /dev/kelo_aov; "), 1u)
            << label << "\n"
            << none.output;
    }
    // Both empty: the default node.
    std::vector<std::string> args = recordArgs;
    args.insert(args.end(), {other_, other_});
    const ProcessResult none = rec(args, {"AOV_REC_NODE=", "AOV_DEV_DIR="});
    EXPECT_EQ(count(none.output, "never opened the node /dev/kelo_aov; nothing recorded"), 1u)
        << none.output;
    ::unlink(node.c_str());
    ::rmdir(dir.c_str());
}

// record's own part: the output is said by its absolute path, and a library
// the user preloads stays preloaded beside the recorder.
TEST_F(UnderTheRecorder, RecordSaysTheOutputByItsAbsolutePathAndKeepsTheUsersPreload) {
#ifdef AOV_REC_SANITIZED_BUILD
    GTEST_SKIP() << "a sanitized program cannot take the sanitized recorder in its own LD_PRELOAD";
#endif
    char cwd[PATH_MAX];
    ASSERT_NE(::getcwd(cwd, sizeof(cwd)), nullptr) << std::strerror(errno);
    const std::string name = "aovrec_" + std::to_string(::getpid()) + "_relative.rec";
    const std::string file = std::string(cwd) + "/" + name;
    const ProcessResult r =
        rec({"record", "-o", name, "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_, std::string("LD_PRELOAD=") + AOV_REC_PRELOAD_PATH});
    ::unlink(file.c_str());
    EXPECT_EQ(r.exit_code, 0) << r.output;
    EXPECT_NE(r.output.find("aov-rec: session recorded in " + file + " ("), std::string::npos)
        << r.output;
    // The loader names a preloaded library it could not load.
    EXPECT_EQ(r.output.find("LD_PRELOAD"), std::string::npos) << r.output;
}

// Loaded without record (no status file, or one that cannot be written),
// the recorder says a setting it refuses on the program's standard error,
// records nothing, and the program runs as without it.
TEST_F(UnderTheRecorder, ASettingRefusedWithoutRecordIsSaidOnTheProgramsOwnStandardError) {
#ifdef AOV_REC_SANITIZED_BUILD
    GTEST_SKIP() << "a sanitized program cannot take the sanitized recorder in its own LD_PRELOAD";
#endif
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    for (const std::string status : {"", "/nonexistent-dir/status"}) {
        std::vector<std::string> env = {std::string("LD_PRELOAD=") + AOV_REC_PRELOAD_PATH,
                                        "AOV_REC_FILE=" + session_, "AOV_REC_NODE=" + node_,
                                        "AOV_REC_CONTENT=some"};
        if (!status.empty()) {
            env.push_back("AOV_REC_STATUS=" + status);
        }
        const ProcessResult r = runProcess(AOV_REC_CLIENT_PATH, {node_, other_}, env);
        EXPECT_EQ(r.exit_code, 0) << r.output;
        EXPECT_EQ(withoutRecLines(r.output), bare.output) << status;
        EXPECT_EQ(r.output.substr(0, r.output.size() - withoutRecLines(r.output).size()),
                  "aov-rec: AOV_REC_CONTENT must be all, written or none, not some; recording "
                  "off\n")
            << status << "\n"
            << r.output;
        struct stat info {};
        EXPECT_NE(::stat(session_.c_str(), &info), 0) << "a refused setting still recorded";
    }
}

// The stall limit comes from the environment: 1 to 600000 ms records; any
// other value turns the recording off with one line naming it, and the
// program runs as without the recorder.
TEST_F(UnderTheRecorder, AStallLimitOutsideItsRangeTurnsTheRecordingOffWithOneLine) {
    const std::vector<std::string> client = {"record", "-o",  session_, "--", AOV_REC_CLIENT_PATH,
                                             node_,    other_};
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    for (const std::string value : {"0", "-1", "600001", "5x"}) {
        ::unlink(session_.c_str());
        const ProcessResult r = rec(client, {"AOV_REC_NODE=" + node_, "AOV_REC_STALL_MS=" + value});
        EXPECT_EQ(withoutRecLines(r.output), bare.output) << value;
        // record reports the recording as stopped, once, not as a program that
        // never opened the node, and says so in its exit status.
        EXPECT_EQ(count(r.output,
                        "aov-rec: recording stopped: AOV_REC_STALL_MS must be 1 to "
                        "600000, not " +
                            value + "; recording off\n"),
                  1u)
            << r.output;
        EXPECT_EQ(count(r.output, "session recorded"), 0u) << r.output;
        EXPECT_EQ(count(r.output, "never opened"), 0u) << r.output;
        EXPECT_EQ(r.exit_code, 3) << r.output;
    }
    for (const std::string value : {"1", "600000"}) {
        const ProcessResult r = rec(client, {"AOV_REC_NODE=" + node_, "AOV_REC_STALL_MS=" + value});
        EXPECT_EQ(r.exit_code, 0) << r.output;
        EXPECT_EQ(count(r.output, "aov-rec: session recorded in " + session_), 1u) << r.output;
        EXPECT_EQ(count(r.output, "AOV_REC_STALL_MS"), 0u) << r.output;
    }
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

// The command keeps the signals its caller ignores, but for the interrupt and
// quit signals, which record ignores itself while the command runs.
TEST_F(UnderTheRecorder, TheCommandIgnoresWhatItsCallerIgnoresButInterruptAndQuit) {
#ifdef AOV_REC_PRELOAD_SANITIZED
    GTEST_SKIP() << "the sanitized recorder loads only into sanitized programs, not /bin/sh";
#endif
    const ProcessResult r = runProcess(
        "/bin/sh",
        {"-c",
         "trap '' HUP INT QUIT USR1 TERM; exec \"$0\" record -o \"$1\" -- /bin/grep SigIgn "
         "/proc/self/status",
         AOV_REC_PATH, session_},
        {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(r.exit_code, 0) << r.output;
    const size_t at = r.output.find("SigIgn:\t");
    ASSERT_NE(at, std::string::npos) << r.output;
    const unsigned long long ignored = std::stoull(r.output.substr(at + 8, 16), nullptr, 16);
    const auto bit = [](int signal) { return 1ull << (signal - 1); };
    for (const int kept : {SIGHUP, SIGUSR1, SIGTERM}) {
        EXPECT_NE(ignored & bit(kept), 0u) << strsignal(kept) << "\n" << r.output;
    }
    for (const int reset : {SIGINT, SIGQUIT}) {
        EXPECT_EQ(ignored & bit(reset), 0u) << strsignal(reset) << "\n" << r.output;
    }
}

// The recorded program's environment: the recorder first in LD_PRELOAD with
// the user's libraries after it, the user's sanitizer options kept, and the
// recorder's own settings those of record alone.
TEST_F(UnderTheRecorder, TheProgramKeepsTheUsersPreloadAndSanitizerOptionsAndGetsRecordsSettings) {
#ifdef AOV_REC_SANITIZED_BUILD
    GTEST_SKIP() << "a sanitized program cannot take the sanitized recorder in its own LD_PRELOAD";
#endif
    const std::string lib = AOV_REC_PRELOAD_PATH;
    const ProcessResult r =
        rec({"record", "-o", session_, "--content", "none", "--", "/usr/bin/env"},
            {"LD_PRELOAD=" + lib, "ASAN_OPTIONS=detect_leaks=0", "AOV_REC_CONTENT=all"});
    EXPECT_EQ(r.exit_code, 0) << r.output;
    EXPECT_NE(r.output.find("LD_PRELOAD=" + lib + ":" + lib + "\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0\n"),
              std::string::npos)
        << r.output;
    EXPECT_EQ(count(r.output, "AOV_REC_CONTENT="), 1u) << r.output;
    EXPECT_NE(r.output.find("AOV_REC_CONTENT=none\n"), std::string::npos) << r.output;
}

TEST_F(UnderTheRecorder, ACutRecordingPrintsItsWholeRecordsThenEndsInExitTwo) {
    ASSERT_EQ(recordClient(node_).exit_code, 0);
    const std::string whole = readText(session_);
    const ProcessResult full = rec({"dump", session_});
    writeText(session_, whole.substr(0, whole.size() - 3));
    const ProcessResult cut = rec({"dump", session_});
    EXPECT_EQ(cut.exit_code, 2);
    EXPECT_EQ(count(cut.output, "\n"), count(full.output, "\n"));
    EXPECT_NE(cut.output.find("aov-rec: " + session_ + ": record 10 at byte"), std::string::npos)
        << cut.output;
    EXPECT_NE(cut.output.find("cut off"), std::string::npos);
    EXPECT_EQ(rec({"info", session_}).exit_code, 2);
}

// An output that is not a regular file (/dev/null, a pipe) is written to,
// never removed: as root that would replace a device node with a file.
TEST_F(UnderTheRecorder, AnOutputThatIsNotARegularFileStaysInPlace) {
    const std::string pipe = tempPath("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0) << std::strerror(errno);
    // The client's file is not the node here: nothing opens the pipe.
    const ProcessResult r = rec({"record", "-o", pipe, "--", AOV_REC_CLIENT_PATH, node_, other_});
    EXPECT_EQ(r.exit_code, 0) << r.output;
    struct stat info {};
    ASSERT_EQ(::lstat(pipe.c_str(), &info), 0) << "the pipe given as the output was removed";
    EXPECT_TRUE(S_ISFIFO(info.st_mode)) << "the pipe given as the output was replaced";
    EXPECT_NE(r.output.find("nothing recorded"), std::string::npos) << r.output;
    ::unlink(pipe.c_str());

    // Recorded into /dev/null: said as written there, with no size.
    const ProcessResult null =
        rec({"record", "-o", "/dev/null", "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(null.exit_code, 0) << null.output;
    EXPECT_NE(null.output.find("aov-rec: session written to /dev/null\n"), std::string::npos)
        << null.output;
    struct stat device {};
    ASSERT_EQ(::stat("/dev/null", &device), 0);
    EXPECT_TRUE(S_ISCHR(device.st_mode)) << "/dev/null was replaced";
}

// Every path that reaches the node counts, and every duplicate of its
// descriptors; a number that stopped being the node's (dup2 over it,
// close_range) is not taken for it.
TEST_F(UnderTheRecorder, EveryPathAndDuplicateOfTheNodeIsRecordedAndANumberThatLeftItIsNot) {
    // A name that is not plain ASCII: dump escapes each byte outside it.
    const std::string link = tempPath("link-\xc3\xa9");
    const std::string linkJson = tempPath("link-") + "\\u00c3\\u00a9";
    ASSERT_EQ(::symlink(node_.c_str(), link.c_str()), 0) << std::strerror(errno);
    const std::vector<std::string> args = {node_, other_, "paths", link};
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, args);
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    std::vector<std::string> recordArgs = {"record", "-o", session_, "--", AOV_REC_CLIENT_PATH};
    recordArgs.insert(recordArgs.end(), args.begin(), args.end());
    const ProcessResult recorded = rec(recordArgs, {"AOV_REC_NODE=" + node_});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    // Opens by the symlink, "//", /proc/self/fd/N and openat from the
    // directory, then openat64 and the four checked forms, all without a
    // mode; and by the symlink with O_CREAT and its mode.
    EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 10u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"mode\":\"00\""), 9u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"mode\":\"0640\""), 1u) << dump.output;
    EXPECT_NE(dump.output.find("\"path\":\"" + linkJson + "\""), std::string::npos) << dump.output;
    // select, pselect and ppoll on the node (the symlink's descriptor,
    // whatever number it got), each found it readable, with its limit in
    // milliseconds.
    const size_t firstOpen = dump.output.find("\"call\":\"open\"");
    ASSERT_NE(firstOpen, std::string::npos) << dump.output;
    const size_t resultAt = dump.output.find("\"result\":", firstOpen);
    const std::string linkFd = std::to_string(std::atoi(dump.output.c_str() + resultAt + 9));
    for (const std::string kind : {"select", "pselect", "ppoll"}) {
        EXPECT_NE(dump.output.find("\"kind\":\"" + kind +
                                   "\",\"timeout_ms\":2500,\"node\":[{\"fd\":" + linkFd +
                                   ",\"events\":1,\"revents\":1}]"),
                  std::string::npos)
            << kind << "\n"
            << dump.output;
    }
    // A limit in milliseconds past an int's range is recorded as the longest one.
    for (const std::string kind : {"select", "pselect"}) {
        EXPECT_EQ(count(dump.output, "\"kind\":\"" + kind + "\",\"timeout_ms\":2147483647,"), 2u)
            << kind << "\n"
            << dump.output;
    }
    EXPECT_EQ(count(dump.output, "\"kind\":\"select\",\"timeout_ms\":2147482999,"), 1u)
        << dump.output;
    // A wait without a limit is recorded with -1.
    for (const std::string kind : {"select", "pselect"}) {
        EXPECT_NE(dump.output.find("\"kind\":\"" + kind +
                                   "\",\"timeout_ms\":-1,\"node\":[{\"fd\":" + linkFd +
                                   ",\"events\":1,\"revents\":1}]"),
                  std::string::npos)
            << kind << "\n"
            << dump.output;
    }
    // Those nine and dup (twice, once onto 0), F_DUPFD (twice, once onto 0),
    // dup2 (twice, once onto 0), dup3 (twice, once onto 0) and fcntl64's
    // F_DUPFD; one after close-on-exec was set; not the other file's.
    EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 19u) << dump.output;
    // Seventeen closes (0 four times), the node's number replaced by dup2,
    // the one close_range closed; an fcntl that is not a duplicate and a
    // close_range that only set close-on-exec closed nothing.
    EXPECT_EQ(count(dump.output, "\"call\":\"close\""), 19u) << dump.output;
    EXPECT_EQ(count(dump.output, "\"call\":\"close\",\"fd\":0,"), 4u) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":91,"), std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":110,"), std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":90,"), std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":100,"), std::string::npos) << dump.output;
    ::unlink(link.c_str());
}

// A device's node is known by its device number: reached through a symlink
// or a doubled slash, a character device (/dev/null here) is the node too.
TEST_F(UnderTheRecorder, ACharacterDeviceNodeIsRecordedWhateverPathReachesIt) {
    const std::string link = tempPath("device-link");
    ASSERT_EQ(::symlink("/dev/null", link.c_str()), 0) << std::strerror(errno);
    const std::vector<std::string> args = {"/dev/null", other_, "paths", link};
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, args);
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    std::vector<std::string> recordArgs = {"record", "-o", session_, "--", AOV_REC_CLIENT_PATH};
    recordArgs.insert(recordArgs.end(), args.begin(), args.end());
    const ProcessResult recorded = rec(recordArgs, {"AOV_REC_NODE=/dev/null"});
    ::unlink(link.c_str());
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    // By the symlink (twice, once with O_CREAT), "//", /proc/self/fd/N,
    // openat from the directory, openat64 and the four checked forms.
    EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 10u) << dump.output;
    EXPECT_NE(dump.output.find("\"path\":\"" + link + "\""), std::string::npos) << dump.output;
}

// What a wait found is recorded per descriptor set, and a node descriptor is
// known by its number only while it is open: the number 0 is a node's like
// any other, and once closed, neither its epoll data nor its number make
// another file's readiness the node's; nor do a closed epoll descriptor's.
TEST_F(UnderTheRecorder, WaitsRecordEachSetAndANodeNumberIsTheNodesOnlyWhileItIsOpen) {
    const std::string fifo = makeFifo();
    ASSERT_FALSE(HasFailure());
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {fifo, other_, "fifo"});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    EXPECT_EQ(count(bare.output, " -> -1 "), 2u) << bare.output;
    for (const std::string refused : {"select negative range", "epoll_ctl refused change"}) {
        EXPECT_NE(bare.output.find(refused + " -> -1 errno 22\n"), std::string::npos)
            << bare.output;
    }
    const ProcessResult recorded = recordClient(fifo, "fifo");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"open\",\"fd\":-100,\"result\":0,"), std::string::npos)
        << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"ioctl\",\"fd\":0,"), std::string::npos) << dump.output;
    // Its duplicate too: descriptor 0 is followed by dup like any other.
    EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 2u) << dump.output;
    // POLLIN 1, POLLPRI 2, POLLOUT 4: asked of the read, except and write sets.
    const std::vector<std::string> waits = linesWith(dump.output, "\"node\":");
    ASSERT_EQ(waits.size(), 8u) << dump.output;
    const std::vector<std::string> found = {
        "\"kind\":\"select\",\"timeout_ms\":0,\"node\":[{\"fd\":0,\"events\":7,\"revents\":4}]}",
        "\"kind\":\"select\",\"timeout_ms\":0,\"node\":[{\"fd\":0,\"events\":2,\"revents\":0}]}",
        "\"kind\":\"select\",\"timeout_ms\":0,\"node\":[{\"fd\":0,\"events\":7,\"revents\":5}]}",
        "\"kind\":\"select\",\"timeout_ms\":0,\"node\":[{\"fd\":0,\"events\":1,\"revents\":1}]}",
        "\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[{\"fd\":0,\"events\":0,\"revents\":1}]"
        "}",
        // After the close: the eventfd at 0, registered with the node's data.
        "\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[]}",
        // A new epoll descriptor at a closed one's number: of its two
        // descriptors ready, the node's only, not the eventfd under the data
        // the node had with the closed one.
        "\"result\":2,\"errno\":0,\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[{\"fd\":",
        // The node removed from its epoll descriptor, the eventfd added under its data.
        "\"result\":1,\"errno\":0,\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[]}"};
    for (size_t i = 0; i < found.size(); ++i) {
        EXPECT_NE(waits[i].find(found[i]), std::string::npos)
            << waits[i] << "\nexpected " << found[i];
    }
    EXPECT_EQ(count(waits[6], "\"fd\":"), 2u) << waits[6];  // the call's and the node's
    EXPECT_EQ(count(dump.output, "\"call\":\"close\",\"fd\":0,"), 1u) << dump.output;
}

// A wait that began before its epoll descriptor held the node is recorded
// when it returns with the node ready, even when the addition itself woke it;
// when it began is not known, and the record says it began when it ended
// rather than at some other time.
TEST_F(UnderTheRecorder, AWaitThatBeganBeforeTheNodeWasAddedIsRecordedFromItsEnd) {
    const std::string fifo = makeFifo();
    ASSERT_FALSE(HasFailure());
    const ProcessResult recorded = recordClient(fifo, "late-watch");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(count(recorded.output, "waiting -> 0 "), 4u) << recorded.output;
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    std::vector<std::string> kinds;
    for (const std::string& line : linesWith(dump.output, "\"kind\":\"")) {
        const size_t kind = line.find("\"kind\":\"");
        kinds.push_back(line.substr(kind + 8, line.find('"', kind + 8) - kind - 8));
        EXPECT_NE(line.find("\"dur_ns\":0,"), std::string::npos) << line;
        EXPECT_EQ(line.find("\"t_ns\":-"), std::string::npos) << line;
        EXPECT_NE(line.find("\"revents\":1}]"), std::string::npos) << line;
    }
    EXPECT_EQ(kinds,
              (std::vector<std::string>{"epoll_wait", "epoll_pwait", "epoll_pwait2", "epoll_wait"}))
        << dump.output;
}

// A registration follows the node's current epoll data: a file added later
// under its former data is not taken for the node, and two node descriptors
// in one epoll descriptor are each recorded once; a closed epoll
// descriptor's registrations, at 0 too, are not a new one's at its number;
// a select whose range stops short of the node is not a wait on it.
TEST_F(UnderTheRecorder, AnEpollWaitNamesEachNodeDescriptorOnceUnderItsCurrentData) {
    const std::string fifo = makeFifo();
    ASSERT_FALSE(HasFailure());
    const ProcessResult recorded = recordClient(fifo, "watch-mod");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(count(recorded.output, "epoll_wait -> 3 "), 1u) << recorded.output;
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    const std::vector<std::string> waits = linesWith(dump.output, "\"kind\":\"epoll_wait\"");
    ASSERT_EQ(waits.size(), 3u) << dump.output;
    // The call's descriptor and the two node descriptors, each ready to read.
    EXPECT_EQ(count(waits[0], "\"fd\":"), 3u) << waits[0];
    EXPECT_EQ(count(waits[0], "\"revents\":1}"), 2u) << waits[0];
    // Entries are separated by a comma, with none before the first.
    EXPECT_NE(waits[0].find("\"node\":[{\"fd\":"), std::string::npos) << waits[0];
    EXPECT_EQ(count(waits[0], "},{\"fd\":"), 1u) << waits[0];
    EXPECT_EQ(count(recorded.output, "epoll_wait eventfd only -> 1 "), 1u) << recorded.output;
    EXPECT_NE(waits[1].find(
                  "\"result\":1,\"errno\":0,\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[]}"),
              std::string::npos)
        << waits[1];
    // An epoll descriptor at 0 closed: its registration is not the new one's;
    // nor is a refused one, and a wait before the node is added is not recorded.
    EXPECT_EQ(count(recorded.output, "epoll_ctl node refused at 0 -> -1 errno 22"), 1u)
        << recorded.output;
    EXPECT_EQ(count(recorded.output, "epoll_wait at 0 without the node -> 1 "), 1u)
        << recorded.output;
    EXPECT_EQ(count(recorded.output, "epoll_wait at 0 -> 2 "), 1u) << recorded.output;
    EXPECT_EQ(count(waits[2], "\"fd\":"), 2u) << waits[2];
    // A select that does not reach the node is not a wait on it.
    EXPECT_EQ(count(recorded.output, "select short of the node -> 0 "), 1u) << recorded.output;
    EXPECT_EQ(count(dump.output, "\"kind\":\"select\""), 0u) << dump.output;
}

// Calls given memory they cannot read fail with EFAULT as without the
// recorder, which reads nothing of theirs it cannot.
TEST_F(UnderTheRecorder, CallsGivenUnreadableMemoryFailAsWithoutTheRecorder) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_, "bad-pointers"});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    EXPECT_EQ(count(bare.output, " errno 14\n"), 6u) << bare.output;
    const ProcessResult recorded = recordClient(node_, "bad-pointers");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    EXPECT_NE(dump.output.find("\"request\":\"DEQUEUE_EVENT\",\"code\""), std::string::npos)
        << dump.output;
    EXPECT_NE(dump.output.find("\"arg_unreadable\":true"), std::string::npos) << dump.output;
    // The poll whose entries end in the hole names the node once, from the
    // part it could read.
    const std::vector<std::string> polls = linesWith(dump.output, "\"kind\":\"poll\"");
    ASSERT_EQ(polls.size(), 1u) << dump.output;
    EXPECT_EQ(count(polls[0], "{\"fd\":"), 1u) << polls[0];
}

// A child that the recorded program forks and execs records into a file of
// its own; the parent's file keeps the parent's calls only.
TEST_F(UnderTheRecorder, AnExecdChildRecordsIntoAFileOfItsOwnAndLeavesTheParentsAlone) {
    const ProcessResult recorded = recordClient(node_, "exec-child");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    const size_t at = recorded.output.find("child ");
    ASSERT_NE(at, std::string::npos) << recorded.output;
    const std::string child = std::to_string(std::atoi(recorded.output.c_str() + at + 6));
    EXPECT_NE(recorded.output.find("child " + child + " exited 0"), std::string::npos);
    const std::string childFile = session_ + "." + child;
    EXPECT_NE(recorded.output.find("aov-rec: session recorded in " + session_ + " ("),
              std::string::npos)
        << recorded.output;
    EXPECT_NE(recorded.output.find("aov-rec: session recorded in " + childFile + " ("),
              std::string::npos)
        << recorded.output;
    for (const std::string& file : {session_, childFile}) {
        const ProcessResult dump = rec({"dump", file});
        ASSERT_EQ(dump.exit_code, 0) << file << "\n" << dump.output;
        EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 2u) << dump.output;
        EXPECT_EQ(count(dump.output, "\"call\":\"close\""), 2u) << dump.output;
    }
    EXPECT_NE(rec({"dump", childFile}).output.find("\"pid\":" + child + ","), std::string::npos);
    EXPECT_EQ(rec({"dump", session_}).output.find("\"pid\":" + child + ","), std::string::npos);
    ::unlink(childFile.c_str());
}

// A child forked without exec, in the middle of a recording, records its
// calls on the inherited node into a file of its own, written from its own
// thread; the parent goes on recording into its file alone.
TEST_F(UnderTheRecorder, AForkedChildRecordsIntoAFileOfItsOwnAndTheParentGoesOn) {
#ifdef AOV_REC_ADDRESS_SANITIZED
    GTEST_SKIP() << "the address sanitizer's allocator is not locked across fork: the child can "
                    "hang in it when the writer thread was allocating";
#endif
    const ProcessResult recorded = recordClient(node_, "fork-child");
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    const size_t at = recorded.output.find("\nchild ");
    ASSERT_NE(at, std::string::npos) << recorded.output;
    const std::string child = std::to_string(std::atoi(recorded.output.c_str() + at + 7));
    EXPECT_NE(recorded.output.find("child " + child + " exited 0"), std::string::npos);
    EXPECT_NE(recorded.output.find("ioctl in child -> 0 errno 0"), std::string::npos)
        << recorded.output;
    const std::string childFile = session_ + "." + child;
    EXPECT_EQ(count(recorded.output, "aov-rec: session recorded in "), 2u) << recorded.output;
    EXPECT_NE(recorded.output.find("aov-rec: session recorded in " + childFile + " ("),
              std::string::npos)
        << recorded.output;
    const ProcessResult parentDump = rec({"dump", session_});
    ASSERT_EQ(parentDump.exit_code, 0) << parentDump.output;
    EXPECT_EQ(count(parentDump.output, "\"call\":\"open\""), 1u) << parentDump.output;
    EXPECT_EQ(count(parentDump.output, "\"call\":\"ioctl\""), 2u) << parentDump.output;
    EXPECT_EQ(count(parentDump.output, "\"call\":\"close\""), 1u) << parentDump.output;
    EXPECT_EQ(parentDump.output.find("\"pid\":" + child + ","), std::string::npos);
    const ProcessResult childDump = rec({"dump", childFile});
    ::unlink(childFile.c_str());
    ASSERT_EQ(childDump.exit_code, 0) << childDump.output;
    EXPECT_EQ(count(childDump.output, "\"call\":\"open\""), 0u) << childDump.output;
    EXPECT_EQ(count(childDump.output, "\"call\":\"ioctl\""), 1u) << childDump.output;
    EXPECT_EQ(count(childDump.output, "\"call\":\"close\""), 1u) << childDump.output;
    EXPECT_NE(childDump.output.find("\"pid\":" + child + ","), std::string::npos)
        << childDump.output;
    // The child's only thread is the child: its calls carry its own id.
    EXPECT_EQ(count(childDump.output, "\"tid\":" + child + ","), 2u) << childDump.output;
}

// Dequeues whose areas the recorder dropped (its writer was behind) are
// counted by info and marked by dump.
TEST(AovRecInput, InfoCountsTheDequeuesWhoseContentWasDropped) {
    const std::string path = tempPath("dropped.rec");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    {
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
        b.open(AOV_DEVICE_NODE, O_RDWR, 5);
        aov_event_query answer{};
        answer.header[5] = 1;
        for (const uint8_t flags :
             {uint8_t{0}, aovrec::kArgContentDropped, uint8_t{0}, aovrec::kArgContentDropped}) {
            b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, &answer, sizeof(answer), 0, &answer, sizeof(answer),
                    nullptr, 0, flags);
        }
        b.close(5, 0);
        ASSERT_TRUE(b.ok());
    }
    ::close(fd);
    const ProcessResult info = rec({"info", path});
    EXPECT_EQ(info.exit_code, 0) << info.output;
    EXPECT_NE(info.output.find("\ncontent dropped: 2 dequeues kept without their areas"),
              std::string::npos)
        << info.output;
    const ProcessResult dump = rec({"dump", path});
    EXPECT_EQ(dump.exit_code, 0) << dump.output;
    // The mark is on the dequeues flagged, and only on them.
    std::vector<bool> marked;
    for (const std::string& line : linesWith(dump.output, "\"call\":\"ioctl\"")) {
        marked.push_back(line.find("\"content_dropped\":true") != std::string::npos);
    }
    EXPECT_EQ(marked, (std::vector<bool>{false, true, false, true})) << dump.output;
    ::unlink(path.c_str());
}

// dump gives each request what its record kept, and only that: the sent
// record, the answer and each kept area with their sizes and digests; info
// counts the areas and their bytes.
TEST(AovRecInput, DumpShowsTheSentRecordTheAnswerAndEachAreaARequestKept) {
    const std::string path = tempPath("kept.rec");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    aov_start_record start = {};
    start[0] = 7;
    aov_event_query answer{};
    answer.header[0] = 42;
    const std::vector<uint8_t> area(16, 0x44);
    {
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
        b.open(AOV_DEVICE_NODE, O_RDWR, 5);
        b.ioctl(5, AOV_IOC_START, start, sizeof(start), 0);
        const aovrec::SessionBuilder::Area areas[] = {{4, area.data(), 16}};
        b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, &answer, sizeof(answer), 0, &answer, sizeof(answer),
                areas, 1);
        b.close(5, 0);
        ASSERT_TRUE(b.ok());
    }
    ::close(fd);
    const ProcessResult dump = rec({"dump", path});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    const std::vector<std::string> requests = linesWith(dump.output, "\"call\":\"ioctl\"");
    ASSERT_EQ(requests.size(), 2u) << dump.output;
    EXPECT_NE(
        requests[0].find(",\"sent\":{\"bytes\":200,\"xxh64\":" + hex(start, sizeof(start)) + "}"),
        std::string::npos)
        << requests[0];
    EXPECT_EQ(requests[0].find("\"back\""), std::string::npos) << requests[0];
    EXPECT_EQ(requests[0].find("\"areas\""), std::string::npos) << requests[0];
    EXPECT_NE(requests[1].find(",\"back\":{\"bytes\":" + std::to_string(sizeof(answer)) +
                               ",\"xxh64\":" + hex(&answer, sizeof(answer)) + "}"),
              std::string::npos)
        << requests[1];
    EXPECT_NE(requests[1].find(",\"header\":[42,0,0,0,0,0]"), std::string::npos) << requests[1];
    EXPECT_NE(requests[1].find(",\"areas\":[{\"section\":4,\"bytes\":16,\"xxh64\":" +
                               hex(area.data(), area.size()) + "}]"),
              std::string::npos)
        << requests[1];

    const ProcessResult info = rec({"info", path});
    EXPECT_EQ(info.exit_code, 0) << info.output;
    EXPECT_NE(info.output.find("\nevents: 1 dequeued, 0 with the content flag, 1 areas kept (16 "
                               "bytes); node ready 0 times\n"),
              std::string::npos)
        << info.output;
    ::unlink(path.c_str());
}

// dump and info of a session that holds each kind of request record: every
// field, escape, boundary and total, compared whole.
TEST(AovRecInput, DumpAndInfoPrintEveryFieldOfEachRecordAndEveryTotal) {
    const std::string path = tempPath("every-field.rec");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    // Each 32-bit word of the answer holds its own number, counted from 1.
    uint32_t words[sizeof(aov_event_query) / 4];
    for (size_t i = 0; i < std::size(words); ++i) {
        words[i] = static_cast<uint32_t>(i + 1);
    }
    const uint32_t headerOnly[6] = {0, 0, 0, 0, 0, 9};
    const uint8_t query[sizeof(aov_event_query)] = {};
    const uint32_t sensors = 3;
    const uint8_t cut[1] = {1};
    aov_start_record start = {};
    start[0] = 7;
    const uint8_t first[8] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
    const uint8_t last[3] = {0xaa, 0xab, 0xac};
    {
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kWritten, aovrec::Compression::kNone);
        b.open("n\"b\\ ~\x7f\x1f", O_RDWR | O_NONBLOCK, 5);
        b.advance(1000000);
        b.ioctl(5, AOV_IOC_SENSOR_OFF, &sensors, sizeof(sensors), 0);
        b.advance(1000000);
        b.ioctl(5, AOV_IOC_SENSOR_ON, cut, sizeof(cut), -EINVAL);
        b.advance(1000000);
        b.ioctl(5, AOV_IOC_START, start, sizeof(start), -EBUSY);
        b.advance(1000000);
        b.ioctl(5, 0x1234, nullptr, 0, -ENOTTY);
        b.advance(1000000);
        const aovrec::SessionBuilder::Area areas[] = {{1, first, 8}, {10, last, 3}};
        b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, query, sizeof(query), 0, words, sizeof(words), areas, 2);
        b.advance(1000000);
        b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, query, sizeof(query), 0, headerOnly, sizeof(headerOnly));
        b.advance(1000000);
        b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, query, sizeof(query), -EAGAIN);
        b.advance(1000000);
        b.close(5, 0);
        b.advance(1000000);
        b.close(7, -EBADF);
        ASSERT_TRUE(b.ok());
    }
    ::close(fd);
    const std::string pid = std::to_string(::getpid());
    const std::string version = std::to_string(aovrec::FileHeader{}.version);
    const auto head = [&](int i, const char* call, int fd, int result, int err) {
        return "{\"i\":" + std::to_string(i) + ",\"t_ns\":" + std::to_string(i * 1000000) +
               ",\"dur_ns\":1000,\"tid\":" + pid + ",\"call\":\"" + call +
               "\",\"fd\":" + std::to_string(fd) + ",\"result\":" + std::to_string(result) +
               ",\"errno\":" + std::to_string(err);
    };
    const std::string dequeueSent = ",\"sent\":{\"bytes\":216,\"xxh64\":" + hex(query, 216) + "}";
    const std::string expected =
        "{\"format\":" + version +
        ",\"content\":\"written\",\"compression\":\"none\",\"pid\":" + pid +
        ",\"start_ns\":1000,\"digest\":\"xxh64\"}\n" + head(0, "open", -100, 5, 0) +
        ",\"path\":\"n\\\"b\\\\ ~\\u007f\\u001f\",\"flags\":\"0x802\",\"mode\":\"00\"}\n" +
        head(1, "ioctl", 5, 0, 0) +
        ",\"request\":\"SENSOR_OFF\",\"code\":\"0x41044802\",\"sent\":{\"bytes\":4,\"xxh64\":" +
        hex(&sensors, 4) + "},\"count\":3}\n" + head(2, "ioctl", 5, -1, EINVAL) +
        ",\"request\":\"SENSOR_ON\",\"code\":\"0x41044801\",\"sent\":{\"bytes\":1,\"xxh64\":" +
        hex(cut, 1) + "}}\n" + head(3, "ioctl", 5, -1, EBUSY) +
        ",\"request\":\"START\",\"code\":\"0x40c84800\",\"sent\":{\"bytes\":200,\"xxh64\":" +
        hex(start, 200) + "}}\n" + head(4, "ioctl", 5, -1, ENOTTY) +
        ",\"request\":null,\"code\":\"0x00001234\",\"arg\":null}\n" + head(5, "ioctl", 5, 0, 0) +
        ",\"request\":\"DEQUEUE_EVENT\",\"code\":\"0x80d84803\"" + dequeueSent +
        ",\"back\":{\"bytes\":216,\"xxh64\":" + hex(words, 216) +
        "},\"header\":[1,2,3,4,5,6],\"info\":[[7],[11],[15],[19,20,21,22],[25,26,27,28],"
        "[31,32,33,34,35],[39],[43],[47],[51]],\"areas\":[{\"section\":1,\"bytes\":8,"
        "\"xxh64\":" +
        hex(first, 8) + "},{\"section\":10,\"bytes\":3,\"xxh64\":" + hex(last, 3) + "}]}\n" +
        head(6, "ioctl", 5, 0, 0) + ",\"request\":\"DEQUEUE_EVENT\",\"code\":\"0x80d84803\"" +
        dequeueSent + ",\"back\":{\"bytes\":24,\"xxh64\":" + hex(headerOnly, 24) + "}}\n" +
        head(7, "ioctl", 5, -1, EAGAIN) + ",\"request\":\"DEQUEUE_EVENT\",\"code\":\"0x80d84803\"" +
        dequeueSent + "}\n" + head(8, "close", 5, 0, 0) + "}\n" + head(9, "close", 7, -1, EBADF) +
        "}\n";
    const ProcessResult dump = rec({"dump", path});
    EXPECT_EQ(dump.exit_code, 0);
    EXPECT_EQ(dump.output, expected);

    const ProcessResult info = rec({"info", path});
    EXPECT_EQ(info.exit_code, 0);
    EXPECT_EQ(info.output,
              "session: " + path + ", format " + version + ", content written, uncompressed, pid " +
                  pid +
                  "\n"
                  "duration: 0.009001 s (first call to last return), 1 threads\n"
                  "records: 10 (close 2, ioctl 7, open 1)\n"
                  "requests:\n"
                  "  0x00001234            1  failed 1\n"
                  "  DEQUEUE_EVENT         3  failed 1\n"
                  "  SENSOR_OFF            1  failed 0\n"
                  "  SENSOR_ON             1  failed 1\n"
                  "  START                 1  failed 1\n"
                  "events: 2 dequeued, 2 with the content flag, 2 areas kept (11 bytes); node "
                  "ready 0 times\n"
                  "errors: 5 (EBADF 1, EAGAIN 1, EBUSY 1, EINVAL 1, ENOTTY 1)\n");

    // A session of no calls: no lists, every total 0.
    const int emptyFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(emptyFd, 0) << std::strerror(errno);
    {
        aovrec::SessionBuilder b(emptyFd, aovrec::ContentMode::kAll, aovrec::Compression::kZstd);
        ASSERT_TRUE(b.ok());
    }
    ::close(emptyFd);
    const ProcessResult emptyDump = rec({"dump", path});
    EXPECT_EQ(emptyDump.exit_code, 0);
    EXPECT_EQ(emptyDump.output, "{\"format\":" + version +
                                    ",\"content\":\"all\",\"compression\":\"zstd\",\"pid\":" + pid +
                                    ",\"start_ns\":1000,\"digest\":\"xxh64\"}\n");
    const ProcessResult emptyInfo = rec({"info", path});
    EXPECT_EQ(emptyInfo.exit_code, 0);
    EXPECT_EQ(emptyInfo.output, "session: " + path + ", format " + version +
                                    ", content all, zstd, pid " + pid +
                                    "\n"
                                    "duration: 0.000000 s (first call to last return), 0 threads\n"
                                    "records: 0\n"
                                    "requests:\n"
                                    "events: 0 dequeued, 0 with the content flag, 0 areas kept (0 "
                                    "bytes); node ready 0 times\n"
                                    "errors: 0\n");
    ::unlink(path.c_str());
}

// Waits and registrations, which only the recorder writes, compared whole; and
// a session of one failed request whose argument was cut and whose content was
// dropped: each list it opens is closed.
TEST(AovRecInput, DumpAndInfoPrintWaitsRegistrationsAndArgumentFlagsWhole) {
    const std::string path = tempPath("waits.rec");
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    {
        aovrec::SessionWriter w;
        aovrec::FileHeader h;
        h.start_ns = 500;
        h.pid = 77;
        ASSERT_TRUE(w.begin(fd, h, nullptr, 0));
        uint8_t buffer[256];
        uint64_t at = 1000;
        const auto put = [&](aovrec::RecordType type, uint32_t tid, int32_t on, int32_t result,
                             int32_t err, const auto& body) {
            aovrec::ByteWriter out(buffer, sizeof(buffer));
            aovrec::CallInfo c;
            c.begin_ns = at;
            c.end_ns = at + 10;
            c.tid = tid;
            c.fd = on;
            c.result = result;
            c.err = err;
            aovrec::putCall(out, c);
            body(out);
            EXPECT_TRUE(w.write(type, buffer, out.size()));
            at += 1000000;
        };
        const int32_t ops[] = {EPOLL_CTL_MOD, EPOLL_CTL_DEL, 99};
        for (const int32_t op : ops) {
            put(aovrec::RecordType::kEpollCtl, 9, 4, op == EPOLL_CTL_DEL ? -1 : 0,
                op == EPOLL_CTL_DEL ? ENOENT : 0, [&](aovrec::ByteWriter& out) {
                    out.u32(static_cast<uint32_t>(op));
                    out.u32(5);
                    out.u32(EPOLLIN);
                    out.u64(0xABCDEF);
                });
        }
        put(aovrec::RecordType::kPoll, 10, -1, 1, 0, [](aovrec::ByteWriter& out) {
            out.u8(static_cast<uint8_t>(aovrec::WaitKind::kPpoll));
            out.u8(0);
            out.u16(3);
            out.u32(static_cast<uint32_t>(-1));
            // Readiness is any bit set: the second and third are ready.
            const uint32_t revents[] = {0, POLLIN, POLLERR};
            for (uint32_t i = 0; i < 3; ++i) {
                out.u32(5 + i);
                out.u32(POLLIN);
                out.u32(revents[i]);
            }
        });
        put(aovrec::RecordType::kEpollWait, 10, 4, 0, 0, [](aovrec::ByteWriter& out) {
            out.u8(static_cast<uint8_t>(aovrec::WaitKind::kEpollPwait2));
            out.u8(0);
            out.u16(0);
            out.u32(20);
        });
    }
    ::close(fd);
    const auto head = [](int i, const char* call, int tid, int on, int result, int err) {
        return "{\"i\":" + std::to_string(i) + ",\"t_ns\":" + std::to_string(500 + i * 1000000) +
               ",\"dur_ns\":10,\"tid\":" + std::to_string(tid) + ",\"call\":\"" + call +
               "\",\"fd\":" + std::to_string(on) + ",\"result\":" + std::to_string(result) +
               ",\"errno\":" + std::to_string(err);
    };
    const std::string version = std::to_string(aovrec::kVersion);
    const std::string registration = ",\"target\":5,\"events\":1,\"data\":\"0000000000abcdef\"}\n";
    const ProcessResult dump = rec({"dump", path});
    EXPECT_EQ(dump.exit_code, 0);
    EXPECT_EQ(dump.output,
              "{\"format\":" + version +
                  ",\"content\":\"written\",\"compression\":\"none\",\"pid\":77,\"start_ns\":500,"
                  "\"digest\":\"xxh64\"}\n" +
                  head(0, "epoll_ctl", 9, 4, 0, 0) + ",\"op\":\"MOD\"" + registration +
                  head(1, "epoll_ctl", 9, 4, -1, ENOENT) + ",\"op\":\"DEL\"" + registration +
                  head(2, "epoll_ctl", 9, 4, 0, 0) + ",\"op\":\"?\"" + registration +
                  head(3, "poll", 10, -1, 1, 0) +
                  ",\"kind\":\"ppoll\",\"timeout_ms\":-1,\"node\":[{\"fd\":5,\"events\":1,"
                  "\"revents\":0},{\"fd\":6,\"events\":1,\"revents\":1},{\"fd\":7,\"events\":1,"
                  "\"revents\":8}]}\n" +
                  head(4, "epoll_wait", 10, 4, 0, 0) +
                  ",\"kind\":\"epoll_pwait2\",\"timeout_ms\":20,\"node\":[]}\n");
    const ProcessResult info = rec({"info", path});
    EXPECT_EQ(info.exit_code, 0);
    EXPECT_EQ(info.output, "session: " + path + ", format " + version +
                               ", content written, uncompressed, pid 77\n"
                               "duration: 0.004000 s (first call to last return), 2 threads\n"
                               "records: 5 (epoll_ctl 3, epoll_wait 1, poll 1)\n"
                               "requests:\n"
                               "events: 0 dequeued, 0 with the content flag, 0 areas kept (0 "
                               "bytes); node ready 2 times\n"
                               "errors: 1 (ENOENT 1)\n");

    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    const uint8_t query[sizeof(aov_event_query)] = {};
    {
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::kNone, aovrec::Compression::kNone);
        b.ioctl(5, AOV_IOC_DEQUEUE_EVENT, query, sizeof(query), -EAGAIN, nullptr, 0, nullptr, 0,
                aovrec::kArgCut | aovrec::kArgContentDropped);
        ASSERT_TRUE(b.ok());
    }
    ::close(fd);
    const std::string pid = std::to_string(::getpid());
    const ProcessResult oneDump = rec({"dump", path});
    EXPECT_EQ(oneDump.exit_code, 0);
    EXPECT_EQ(oneDump.output,
              "{\"format\":" + version +
                  ",\"content\":\"none\",\"compression\":\"none\",\"pid\":" + pid +
                  ",\"start_ns\":1000,\"digest\":\"xxh64\"}\n{\"i\":0,\"t_ns\":0,\"dur_ns\":" +
                  "1000,\"tid\":" + pid +
                  ",\"call\":\"ioctl\",\"fd\":5,\"result\":-1,\"errno\":" + std::to_string(EAGAIN) +
                  ",\"request\":\"DEQUEUE_EVENT\",\"code\":\"0x80d84803\",\"arg_cut\":true,"
                  "\"content_dropped\":true,\"sent\":{\"bytes\":216,\"xxh64\":" +
                  hex(query, sizeof(query)) + "}}\n");
    const ProcessResult oneInfo = rec({"info", path});
    EXPECT_EQ(oneInfo.exit_code, 0);
    EXPECT_EQ(oneInfo.output, "session: " + path + ", format " + version +
                                  ", content none, uncompressed, pid " + pid +
                                  "\n"
                                  "duration: 0.000001 s (first call to last return), 1 threads\n"
                                  "records: 1 (ioctl 1)\n"
                                  "requests:\n"
                                  "  DEQUEUE_EVENT         1  failed 1\n"
                                  "events: 0 dequeued, 0 with the content flag, 0 areas kept (0 "
                                  "bytes); node ready 0 times\n"
                                  "content dropped: 1 dequeues kept without their areas (the "
                                  "writer was behind)\n"
                                  "errors: 1 (EAGAIN 1)\n");
    ::unlink(path.c_str());
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
    // A wrong command line: its first line says what, the usage follows.
    const std::vector<Case> commandLines = {
        {{"dump"}, "aov-rec: dump: one session file\n"},
        {{"info", text, text}, "aov-rec: info: one session file\n"},
        {{"replay", text}, "aov-rec: unknown command replay\n"},
        {{"record"}, "aov-rec: record: no command after --\n"},
        {{"record", "-o", "x.rec", "--"}, "aov-rec: record: no command after --\n"},
        {{"record", "-o"}, "aov-rec: -o needs a value\n"},
        {{"record", "--content"}, "aov-rec: --content needs a value\n"},
        {{"record", "--bogus", "--", "true"}, "aov-rec: record: unknown option --bogus\n"},
        {{"record", "-o", "", "--", "true"}, "aov-rec: -o: empty file name\n"},
        {{"retrace"}, "aov-rec: retrace: no session file\n"},
        {{"retrace", "a.rec", "b.rec"}, "aov-rec: retrace: more than one file\n"},
        {{"retrace", "a.rec", "-x"}, "aov-rec: retrace: unknown option -x\n"},
        {{"retrace", "a.rec", "-d"}, "aov-rec: -d needs a value\n"},
        {{"retrace", "a.rec", "--ready-timeout"}, "aov-rec: --ready-timeout needs a value\n"},
    };
    for (const Case& c : commandLines) {
        const ProcessResult r = rec(c.args);
        EXPECT_EQ(r.exit_code, 2) << c.args[0];
        EXPECT_EQ(r.output.rfind(c.line + "usage: aov-rec", 0), 0u) << r.output;
    }
    // record cannot make its status file.
    const ProcessResult noTmp =
        rec({"record", "-o", text, "--", "true"}, {"TMPDIR=/nonexistent-dir"});
    EXPECT_EQ(noTmp.exit_code, 2) << noTmp.output;
    EXPECT_EQ(noTmp.output.rfind("aov-rec: /nonexistent-dir/aov-rec-status-", 0), 0u)
        << noTmp.output;
    EXPECT_EQ(count(noTmp.output, "\n"), 1u) << noTmp.output;
    EXPECT_NE(noTmp.output.find(": No such file or directory\n"), std::string::npos)
        << noTmp.output;
    // An aov-rec with no recorder library beside it or under its lib folder.
    const std::string lonely = tempPath("lonely");
    ASSERT_EQ(::mkdir(lonely.c_str(), 0700), 0) << std::strerror(errno);
    const std::string copy = lonely + "/aov-rec";
    {
        std::ifstream from(AOV_REC_PATH, std::ios::binary);
        std::ofstream to(copy, std::ios::binary);
        to << from.rdbuf();
    }
    ASSERT_EQ(::chmod(copy.c_str(), 0700), 0) << std::strerror(errno);
    const ProcessResult noLibrary = runProcess(copy, {"record", "-o", text, "--", "true"});
    ::unlink(copy.c_str());
    ::rmdir(lonely.c_str());
    EXPECT_EQ(noLibrary.exit_code, 2) << noLibrary.output;
    EXPECT_EQ(
        noLibrary.output.rfind("aov-rec: the recorder library is missing: " + lonely + "/", 0), 0u)
        << noLibrary.output;
    EXPECT_EQ(count(noLibrary.output, "\n"), 1u) << noLibrary.output;
    EXPECT_EQ(readText(text), "not a session at all, just some text");
    for (const char* command : {"record", "dump", "info", "retrace"}) {
        const ProcessResult help = rec({command, "--help"});
        EXPECT_EQ(help.exit_code, 0) << command << ": " << help.output;
        EXPECT_EQ(help.output.rfind(std::string("usage: aov-rec ") + command, 0), 0u)
            << help.output;
    }
    const ProcessResult recordHelp = rec({"record", "--help"});
    EXPECT_NE(recordHelp.output.find("AOV_REC_NODE"), std::string::npos) << recordHelp.output;
    EXPECT_NE(recordHelp.output.find("AOV_DEV_DIR"), std::string::npos) << recordHelp.output;
    for (const char* asked : {"--help", "-h"}) {
        const ProcessResult top = rec({asked});
        EXPECT_EQ(top.exit_code, 0) << asked << ": " << top.output;
        EXPECT_EQ(top.output.rfind("usage: aov-rec record ", 0), 0u) << top.output;
        EXPECT_NE(top.output.find("AOV_REC_NODE=PATH\n"), std::string::npos) << top.output;
    }
    const ProcessResult none = rec({});
    EXPECT_EQ(none.exit_code, 2) << none.output;
    EXPECT_EQ(none.output.rfind("aov-rec: no command\nusage: aov-rec", 0), 0u) << none.output;
#ifndef AOV_REC_PRELOAD_SANITIZED
    // A --help after -- is the command's own.
    const ProcessResult commands =
        rec({"record", "-o", tempPath("help.rec"), "--", "/usr/bin/printf", "%s\\n", "--help"},
            {"AOV_REC_NODE=/nonexistent-node"});
    EXPECT_EQ(commands.exit_code, 0) << commands.output;
    EXPECT_EQ(commands.output.rfind("--help\n", 0), 0u) << commands.output;
#endif
    const ProcessResult usage = rec({"record", "--content", "some", "--", "true"});
    EXPECT_EQ(usage.exit_code, 2);
    EXPECT_EQ(usage.output.rfind("aov-rec: --content must be all, written or none, not some\n", 0),
              0u)
        << usage.output;
    ::unlink(text.c_str());
}

}  // namespace
