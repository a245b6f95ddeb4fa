// aov-rec as a user runs it: a program under the recorder sees what it sees
// without it; dump, info and retrace on good, cut and hostile files; and the
// round trip of a session through a real FUSE node: recorded under aov-rec,
// replayed through the library by aov-sim --replay, retraced against a fresh
// aov-kdev; and the same recording edited, each change found.

#include <fcntl.h>
#include <linux/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"
#include "aovsession/SessionBuilder.h"
#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

namespace {

using aovrec::RecordType;

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

TEST_F(UnderTheRecorder, AFileThatCannotBeWrittenIsSaidOnceWithANonZeroExitAndTheProgramGoesOn) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_});
    const ProcessResult recorded =
        rec({"record", "-o", "/nonexistent-dir/s.rec", "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(recorded.exit_code, 3) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    EXPECT_EQ(count(recorded.output, "aov-rec: recording stopped: /nonexistent-dir/s.rec: "), 1u)
        << recorded.output;
    EXPECT_EQ(count(recorded.output, "aov-rec: "), 1u) << recorded.output;

    const ProcessResult full =
        rec({"record", "-o", "/dev/full", "--", AOV_REC_CLIENT_PATH, node_, other_},
            {"AOV_REC_NODE=" + node_});
    EXPECT_EQ(full.exit_code, 3) << full.output;
    EXPECT_EQ(withoutRecLines(full.output), bare.output);
    EXPECT_EQ(
        count(full.output, "aov-rec: recording stopped: /dev/full: No space left on device\n"), 1u)
        << full.output;
    EXPECT_EQ(count(full.output, "aov-rec: "), 1u) << full.output;
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
}

// Every path that reaches the node counts, and every duplicate of its
// descriptors; a number that stopped being the node's (dup2 over it,
// close_range) is not taken for it.
TEST_F(UnderTheRecorder, EveryPathAndDuplicateOfTheNodeIsRecordedAndANumberThatLeftItIsNot) {
    const std::string link = tempPath("link");
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
    // Opens by the symlink, "//", /proc/self/fd/N and openat from the directory.
    EXPECT_EQ(count(dump.output, "\"call\":\"open\""), 4u) << dump.output;
    EXPECT_NE(dump.output.find("\"path\":\"" + link + "\""), std::string::npos) << dump.output;
    // select and pselect on the node (the symlink's descriptor, whatever
    // number it got), each found it readable.
    const size_t firstOpen = dump.output.find("\"call\":\"open\"");
    ASSERT_NE(firstOpen, std::string::npos) << dump.output;
    const size_t resultAt = dump.output.find("\"result\":", firstOpen);
    const std::string linkFd = std::to_string(std::atoi(dump.output.c_str() + resultAt + 9));
    for (const std::string kind : {"select", "pselect"}) {
        EXPECT_NE(dump.output.find("\"kind\":\"" + kind + "\",\"timeout_ms\":0,\"node\":[{\"fd\":" +
                                   linkFd + ",\"events\":1,\"revents\":1}]"),
                  std::string::npos)
            << kind << "\n"
            << dump.output;
    }
    // Those four and dup, F_DUPFD and dup2; not the other file's.
    EXPECT_EQ(count(dump.output, "\"call\":\"ioctl\""), 7u) << dump.output;
    // Five closes, the node's number replaced by dup2, the one close_range closed.
    EXPECT_EQ(count(dump.output, "\"call\":\"close\""), 7u) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":90,"), std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"close\",\"fd\":100,"), std::string::npos) << dump.output;
    ::unlink(link.c_str());
}

// What a wait found is recorded per descriptor set, and a node descriptor is
// known by its number only while it is open: the number 0 is a node's like
// any other, and once closed, neither its epoll data nor its number make
// another file's readiness the node's; nor do a closed epoll descriptor's.
TEST_F(UnderTheRecorder, WaitsRecordEachSetAndANodeNumberIsTheNodesOnlyWhileItIsOpen) {
    const std::string fifo = tempPath("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {fifo, other_, "fifo"});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    EXPECT_EQ(count(bare.output, " -> -1 "), 0u) << bare.output;
    const ProcessResult recorded =
        rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, fifo, other_, "fifo"},
            {"AOV_REC_NODE=" + fifo});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"open\",\"fd\":-100,\"result\":0,"), std::string::npos)
        << dump.output;
    EXPECT_NE(dump.output.find("\"call\":\"ioctl\",\"fd\":0,"), std::string::npos) << dump.output;
    // POLLIN 1, POLLPRI 2, POLLOUT 4: asked of the read, except and write sets.
    std::vector<std::string> waits;
    std::istringstream lines(dump.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("\"node\":") != std::string::npos) {
            waits.push_back(line);
        }
    }
    ASSERT_EQ(waits.size(), 7u) << dump.output;
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
        "\"result\":2,\"errno\":0,\"kind\":\"epoll_wait\",\"timeout_ms\":0,\"node\":[{\"fd\":"};
    for (size_t i = 0; i < found.size(); ++i) {
        EXPECT_NE(waits[i].find(found[i]), std::string::npos)
            << waits[i] << "\nexpected " << found[i];
    }
    EXPECT_EQ(count(waits[6], "\"fd\":"), 2u) << waits[6];  // the call's and the node's
    EXPECT_EQ(count(dump.output, "\"call\":\"close\",\"fd\":0,"), 1u) << dump.output;
    ::unlink(fifo.c_str());
}

// Calls given memory they cannot read fail with EFAULT as without the
// recorder, which reads nothing of theirs it cannot.
TEST_F(UnderTheRecorder, CallsGivenUnreadableMemoryFailAsWithoutTheRecorder) {
    const ProcessResult bare = runProcess(AOV_REC_CLIENT_PATH, {node_, other_, "bad-pointers"});
    ASSERT_EQ(bare.exit_code, 0) << bare.output;
    EXPECT_EQ(count(bare.output, " errno 14\n"), 5u) << bare.output;
    const ProcessResult recorded =
        rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, node_, other_, "bad-pointers"},
            {"AOV_REC_NODE=" + node_});
    ASSERT_EQ(recorded.exit_code, 0) << recorded.output;
    EXPECT_EQ(withoutRecLines(recorded.output), bare.output);
    const ProcessResult dump = rec({"dump", session_});
    ASSERT_EQ(dump.exit_code, 0) << dump.output;
    EXPECT_NE(dump.output.find("\"request\":\"DEQUEUE_EVENT\",\"code\""), std::string::npos)
        << dump.output;
    EXPECT_NE(dump.output.find("\"arg_unreadable\":true"), std::string::npos) << dump.output;
}

// A child that the recorded program forks and execs records into a file of
// its own; the parent's file keeps the parent's calls only.
TEST_F(UnderTheRecorder, AnExecdChildRecordsIntoAFileOfItsOwnAndLeavesTheParentsAlone) {
    const ProcessResult recorded =
        rec({"record", "-o", session_, "--", AOV_REC_CLIENT_PATH, node_, other_, "exec-child"},
            {"AOV_REC_NODE=" + node_});
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

// Dequeues whose areas the recorder dropped (its writer was behind) are
// counted by info and marked by dump.
TEST(AovRecInput, InfoCountsTheDequeuesWhoseContentWasDropped) {
    const std::string path = tempPath("dropped.rec");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    {
        aovrec::SessionBuilder b(fd, aovrec::ContentMode::Written, aovrec::Compression::None);
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
    EXPECT_EQ(count(dump.output, "\"content_dropped\":true"), 2u) << dump.output;
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
    for (const char* command : {"record", "dump", "info", "retrace"}) {
        const ProcessResult help = rec({command, "--help"});
        EXPECT_EQ(help.exit_code, 0) << command << ": " << help.output;
        EXPECT_EQ(help.output.rfind(std::string("usage: aov-rec ") + command, 0), 0u)
            << help.output;
    }
    const ProcessResult recordHelp = rec({"record", "--help"});
    EXPECT_NE(recordHelp.output.find("AOV_REC_NODE"), std::string::npos) << recordHelp.output;
    EXPECT_NE(recordHelp.output.find("AOV_DEV_DIR"), std::string::npos) << recordHelp.output;
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
    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_, session_, scenario_;
    aovsimtool::KdevLauncher kdev_;
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
    EXPECT_EQ(callbackAreas.size(), static_cast<size_t>(3));
    // The dump's words of each event are those the live run's callback got.
    EXPECT_EQ(recordedWords(dump.output), deliveredWords(recorded.output));

    if (c.scenario == kThreeEvents) {
        // Three events with content, every request answered.
        EXPECT_NE(info.output.find("\n  START                 1  failed 0\n"), std::string::npos)
            << info.output;
        EXPECT_NE(info.output.find("\n  DEQUEUE_EVENT         3  failed 0\n"), std::string::npos)
            << info.output;
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
    aovrec::FileSource source;
    std::string why;
    if (!source.open(from, &why)) {
        return why;
    }
    aovrec::SessionReader reader(source);
    if (!reader.start()) {
        return reader.error();
    }
    std::vector<aovrec::Record> records;
    std::deque<std::vector<uint8_t>> kept;
    auto own = [&kept](const uint8_t* data, size_t size) -> const uint8_t* {
        kept.emplace_back(data, data + size);
        return kept.back().data();
    };
    aovrec::Record r;
    aovrec::SessionReader::Next next;
    while ((next = reader.next(&r)) == aovrec::SessionReader::Next::Record) {
        r.sent = own(r.sent, r.sent_len);
        r.back = own(r.back, r.back_len);
        for (uint8_t i = 0; i < r.area_count; ++i) {
            r.areas[i].data = own(r.areas[i].data, r.areas[i].length);
        }
        records.push_back(r);
    }
    if (next != aovrec::SessionReader::Next::End) {
        return reader.error();
    }
    // The library's descriptor: the node opened without creating it.
    int node = -1;
    size_t last_close = records.size();
    for (size_t i = 0; i < records.size(); ++i) {
        const aovrec::Record& x = records[i];
        if (node < 0 && x.type == RecordType::Open && (x.open_flags & O_CREAT) == 0 &&
            x.call.result >= 0) {
            node = x.call.result;
        } else if (x.type == RecordType::Close && x.call.fd == node) {
            last_close = i;
        }
    }
    if (node < 0 || last_close == records.size()) {
        return "no open and close of the node in " + from;
    }
    const int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return to + ": " + std::strerror(errno);
    }
    aovrec::SessionBuilder b(fd, reader.header().content, reader.header().compression);
    bool words_done = !edits.words;
    auto result = [](const aovrec::Record& x) {
        return x.call.result >= 0 ? x.call.result : -x.call.err;
    };
    for (size_t i = 0; i < records.size(); ++i) {
        const aovrec::Record& x = records[i];
        if (i == last_close && edits.request_at_end) {
            b.ioctl(node, kUnknownRequest, nullptr, 0, -EINVAL);
        }
        if (x.type == RecordType::Open) {
            b.open(x.path.c_str(), static_cast<int>(x.open_flags), result(x));
        } else if (x.type == RecordType::Close) {
            b.close(x.call.fd, result(x));
        } else if (x.type == RecordType::Ioctl) {
            std::vector<uint8_t> back(x.back, x.back + x.back_len);
            std::vector<aovrec::SessionBuilder::Area> areas;
            std::vector<std::vector<uint8_t>> data;
            for (uint8_t a = 0; a < x.area_count; ++a) {
                data.emplace_back(x.areas[a].data, x.areas[a].data + x.areas[a].length);
            }
            if (!words_done && x.request == AOV_IOC_DEQUEUE_EVENT && x.call.result >= 0 &&
                x.area_count > 0 && back.size() >= sizeof(aov_event_query) &&
                !data.back().empty()) {
                uint32_t flag;
                std::memcpy(&flag, back.data() + 20, sizeof(flag));
                ++flag;
                std::memcpy(back.data() + 20, &flag, sizeof(flag));
                data.back()[0] ^= 0x01;
                words_done = true;
            }
            for (uint8_t a = 0; a < x.area_count; ++a) {
                areas.push_back({x.areas[a].section, data[a].data(), x.areas[a].length});
            }
            const bool null_arg = (x.arg_flags & aovrec::kArgNull) != 0;
            b.ioctl(x.call.fd, x.request, null_arg ? nullptr : x.sent, x.sent_len, result(x),
                    back.data(), back.size(), areas.data(), areas.size());
        }
        if (x.type == RecordType::Open && x.call.result == node && edits.refused_first) {
            b.ioctl(node, kUnknownRequest, nullptr, 0, -EINVAL);
        }
    }
    const bool ok = b.ok();
    ::close(fd);
    if (!words_done) {
        return "no dequeue with areas in " + from;
    }
    return ok ? "" : "cannot write " + to;
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

    // Without its readiness records, each dequeue that got an event still
    // waits for the node to be ready.
    startKdev({"--scenario", scenario});
    const ProcessResult same = rec({"retrace", plain, "-d", dir_ + "/kelo_aov"});
    EXPECT_EQ(same.exit_code, 0) << same.output;
    EXPECT_NE(same.output.find(", 0 differences\n"), std::string::npos) << same.output;
    stopKdev();

    startKdev({"--scenario", scenario});
    const ProcessResult changed = rec({"retrace", edited, "-d", dir_ + "/kelo_aov"});
    stopKdev();
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
