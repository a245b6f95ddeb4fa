// aov-sim against a node that aov-kdev does not serve: a driver prototype
// written by someone else (aov_third_party_node), which publishes no status,
// and the errors of a node path that is missing or is no node at all.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"

namespace {

struct SimRun {
    int exit_code = -1;
    std::string output;

    bool has(const std::string& text) const { return output.find(text) != std::string::npos; }
    size_t count(const std::string& text) const {
        size_t n = 0;
        for (size_t at = output.find(text); at != std::string::npos;
             at = output.find(text, at + 1)) {
            ++n;
        }
        return n;
    }
    // The number right after `label`; UINT64_MAX when the label is missing.
    uint64_t numberAfter(const std::string& label) const {
        const size_t at = output.find(label);
        return at == std::string::npos
                   ? UINT64_MAX
                   : std::strtoull(output.c_str() + at + label.size(), nullptr, 10);
    }
};

SimRun aovSim(const std::vector<std::string>& args) {
    const ProcessResult process = runProcess(AOV_SIM_PATH, args, {}, SIZE_MAX);
    return SimRun{process.exit_code, process.output};
}

// The library's error lines other than the pair a notification writes when it
// comes before startDevice's buffer exists (a window the library's design
// leaves open on any start; the monitor backs off and the event waits).
std::vector<std::string> unexpectedLibraryErrors(const SimRun& run) {
    std::vector<std::string> lines;
    std::istringstream in(run.output);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("[lib ] [E]", 0) == 0 &&
            line.find("] ERROR: event_ is nullptr (") == std::string::npos &&
            line.find("] ERROR: failed to query event: -1 (") == std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

// A clean session against a driver that publishes no figures: every event
// delivered, nothing counted against the driver, and one line saying why
// its side is not checked.
void expectCleanSessionWithoutFigures(const SimRun& run, const std::string& why) {
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_TRUE(run.has("summary: events delivered 5\n")) << run.output;
    EXPECT_EQ(run.count("[evt ] #"), 5u) << run.output;
    // The node's own events reached the callback: its sequence numbers and
    // the length of its section 1 text.
    for (int n = 1; n <= 5; ++n) {
        EXPECT_TRUE(
            run.has("[evt ] #" + std::to_string(n) + " header=[" + std::to_string(n) + ", "))
            << run.output;
    }
    EXPECT_EQ(run.count(" s1_info=40 "), 5u) << run.output;
    EXPECT_TRUE(unexpectedLibraryErrors(run).empty()) << run.output;
    EXPECT_EQ(run.numberAfter("library error lines "), run.count("[lib ] [E]")) << run.output;
    EXPECT_EQ(run.count("unavailable"), 1u) << run.output;
    EXPECT_TRUE(run.has("summary: driver figures and content checks unavailable: " + why))
        << run.output;
    for (const char* falseFailure :
         {"mismatch", "MISMATCH", "went away", "did not answer", "does not answer", "failed:"}) {
        EXPECT_FALSE(run.has(falseFailure)) << falseFailure << "\n" << run.output;
    }
    EXPECT_TRUE(run.has("stopDevice() -> 0")) << run.output;
    EXPECT_TRUE(run.has("aov-sim: exit 0")) << run.output;
}

// A driver served on a fresh directory, in the test's own mount namespace so
// that every mount goes away with the test.
class ServedNode : public ::testing::Test {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-any-node");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
    }
    void TearDown() override {
        server_.kill();
        for (const std::string& path : cleanup_) {
            ::umount2(path.c_str(), MNT_DETACH);
            ::unlink(path.c_str());
            ::rmdir(path.c_str());
        }
    }
    void serve(const std::string& program, const std::vector<std::string>& extra = {}) {
        std::string problem;
        ASSERT_TRUE(server_.start(program, dir_, extra, &problem)) << problem;
    }
    std::string node() const { return dir_ + "/kelo_aov"; }

    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_;
    std::vector<std::string> cleanup_;  // removed in reverse order of need: files, then dirs
    aovsimtool::KdevLauncher server_;
};

TEST_F(ServedNode, ASessionThroughAnotherDriversNodeRunsCleanWithoutItsFigures) {
    ASSERT_NO_FATAL_FAILURE(serve(AOV_THIRD_PARTY_NODE_PATH));
    const SimRun run = aovSim({"--node", node()});
    expectCleanSessionWithoutFigures(run, "the driver publishes none (no aov-kdev status file");
    EXPECT_TRUE(run.has("driver: the node " + node() +
                        " (a file served through FUSE), bound over "
                        "/dev/kelo_aov"))
        << run.output;
}

TEST_F(ServedNode, KdevOnAnotherDriversDirectoryRunsTheSameSession) {
    ASSERT_NO_FATAL_FAILURE(serve(AOV_THIRD_PARTY_NODE_PATH));
    const SimRun run = aovSim({"--kernel", "fuse", "--kdev", dir_});
    expectCleanSessionWithoutFigures(
        run, "the driver publishes none (no aov-kdev status file \"" + dir_ + "/status\")");
}

// The node next to a status file that is not an aov-kdev's (empty, as a user
// makes one for an older aov-sim): the file is no figures, not a failure.
TEST_F(ServedNode, AStatusFileWithoutFiguresIsNoFailure) {
    ASSERT_NO_FATAL_FAILURE(serve(AOV_THIRD_PARTY_NODE_PATH));
    char other[] = "/tmp/aov-any-node-status.XXXXXX";
    ASSERT_NE(::mkdtemp(other), nullptr);
    const std::string dir = other;
    cleanup_ = {dir + "/kelo_aov", dir + "/status", dir};
    std::ofstream(dir + "/status").flush();
    std::ofstream(dir + "/kelo_aov").flush();
    ASSERT_EQ(::mount(node().c_str(), (dir + "/kelo_aov").c_str(), nullptr, MS_BIND, nullptr), 0)
        << std::strerror(errno);

    const SimRun run = aovSim({"--kernel", "fuse", "--kdev", dir});
    expectCleanSessionWithoutFigures(run,
                                     "\"" + dir + "/status\" does not hold an aov-kdev's figures");
}

// aov-kdev's node given as a path still gets its figures and content checks.
TEST_F(ServedNode, AnAovKdevNodeGivenAsAPathKeepsItsFiguresAndContentChecks) {
    ASSERT_NO_FATAL_FAILURE(serve(AOV_KDEV_PATH, {"--quiet"}));
    const SimRun run = aovSim({"--node", node(), "--events", "3"});
    EXPECT_EQ(run.exit_code, 0) << run.output;
    const size_t events = run.count("[evt ] #");
    EXPECT_GE(events, 3u) << run.output;
    EXPECT_EQ(run.count("content ok (5 sections)"), events) << run.output;
    EXPECT_TRUE(run.has("content mismatches 0")) << run.output;
    EXPECT_TRUE(run.has("summary: kernel requests ")) << run.output;
    EXPECT_TRUE(run.has(" produced (overwritten in the driver queue ")) << run.output;
    EXPECT_TRUE(run.has("driver: aov-kdev's node " + node())) << run.output;
    EXPECT_FALSE(run.has("unavailable")) << run.output;
}

// What really fails still fails the run: here the events that never come.
TEST_F(ServedNode, EventsAnotherDriverNeverSendsStillFailTheRun) {
    // Two events of five: the session times out waiting for the rest.
    ASSERT_NO_FATAL_FAILURE(serve(AOV_THIRD_PARTY_NODE_PATH, {"--events", "2"}));
    const SimRun run = aovSim({"--node", node(), "--timeout", "1"});
    EXPECT_EQ(run.exit_code, 1) << run.output;
    EXPECT_TRUE(run.has("aov-sim: failed: timed out with 2 of 5 events delivered")) << run.output;
    EXPECT_EQ(run.count("unavailable"), 1u) << run.output;
}

// A driver without figures that dies mid-session: its node is looked up
// again after the session, and the run ends in exit 1 saying it went away.
TEST_F(ServedNode, AnotherDriverThatDiesMidSessionIsSaidToHaveGoneAway) {
    ASSERT_NO_FATAL_FAILURE(serve(AOV_THIRD_PARTY_NODE_PATH, {"--die-at-dequeue", "2"}));
    const SimRun run = aovSim({"--node", node(), "--events", "3", "--timeout", "1"});
    EXPECT_EQ(run.exit_code, 1) << run.output;
    int status = 0;
    ASSERT_TRUE(server_.waitExit(aovsimtool::KdevLauncher::kStopTimeoutMs, &status))
        << "the driver did not end at its second dequeue";
    EXPECT_TRUE(
        run.has("aov-sim: error: the driver serving " + node() + " went away during the session"))
        << run.output;
}

TEST(AovSimNodeErrors, APathThatIsNoNodeEndsInExitTwoWithOneLineNamingWhatIsMissing) {
    const std::string base = ::testing::TempDir() + "aovsim_any_node";
    const std::string dir = base + "_dir";
    const std::string file = base + "_plain";
    const std::string fifo = base + "_fifo";
    const std::string block = base + "_block";
    ::mkdir(dir.c_str(), 0700);
    std::ofstream(file) << "not a driver";
    ::unlink(fifo.c_str());
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    ::unlink(block.c_str());
    // Never opened: the kind of file is refused first.
    ASSERT_EQ(::mknod(block.c_str(), S_IFBLK | 0600, ::makedev(7, 0)), 0) << std::strerror(errno);
    struct Case {
        std::vector<std::string> args;
        std::string line;
    };
    const Case cases[] = {
        {{"--node", base + "_absent"}, "--node: no node at \"" + base + "_absent\""},
        {{"--node", file},
         "--node: \"" + file +
             "\" is a plain file, not a driver's node (a character device, or a file a FUSE "
             "driver serves)"},
        {{"--node", dir}, "--node: \"" + dir + "\" is a directory, not a node"},
        // Any other failure to look at the path is said with the system's reason.
        {{"--node", file + "/node"}, "--node: \"" + file + "/node\": " + std::strerror(ENOTDIR)},
        {{"--node", fifo},
         "--node: \"" + fifo + "\" is a fifo, not a character device or a driver's file"},
        {{"--node", block},
         "--node: \"" + block + "\" is a block device, not a character device or a driver's file"},
        {{"--kernel", "fuse", "--kdev", dir},
         "--kdev: no node at \"" + dir + "/kelo_aov\": nothing serves a driver on \"" + dir + "\""},
        {{"--kernel", "fuse", "--kdev", base + "_absent"},
         "--kdev: no directory \"" + base + "_absent\""},
        {{"--kernel", "fuse", "--kdev", file},
         "--kdev: \"" + file + "\" is not a directory (for a node, give --node \"" + file + "\")"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.back());
        const SimRun run = aovSim(c.args);
        EXPECT_EQ(run.exit_code, 2) << run.output;
        EXPECT_EQ(run.output, "aov-sim: error: " + c.line + "\n");
    }
    ::unlink(fifo.c_str());
    ::unlink(block.c_str());
}

// A device node whose major number no driver registered opens with ENXIO:
// the line says that nothing drives it rather than a bare open failure.
TEST(AovSimNodeErrors, ACharacterDeviceWithoutADriverIsSaidToHaveNone) {
    const std::string device = ::testing::TempDir() + "aovsim_any_node_nodriver";
    ::unlink(device.c_str());
    // Major 60 is reserved for local, experimental use: no driver claims it.
    if (::mknod(device.c_str(), S_IFCHR | 0600, ::makedev(60, 0)) != 0) {
        GTEST_SKIP() << "cannot make a device node: " << std::strerror(errno);
    }
    struct statvfs fs {};
    if (::statvfs(device.c_str(), &fs) == 0 && (fs.f_flag & ST_NODEV) != 0) {
        ::unlink(device.c_str());
        GTEST_SKIP() << ::testing::TempDir() << " is mounted nodev: its device nodes never open";
    }
    const SimRun run = aovSim({"--node", device});
    ::unlink(device.c_str());
    EXPECT_EQ(run.exit_code, 2) << run.output;
    EXPECT_EQ(run.output, "aov-sim: error: --node: no driver behind \"" + device + "\" (" +
                              std::strerror(ENXIO) + ")\n");
}

}  // namespace
