#pragma once

// An aov-kdev with given driver bugs in a mount namespace of its own, and
// aov-compliance run against it as a user runs it (root and /dev/fuse). The
// checker's output goes to the test log.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"
#include "gtest/gtest.h"

namespace aovtest {

// The path of a file of tests/compliance.
inline std::string complianceTestFile(const char* name) {
    return std::string(AOV_COMPLIANCE_TEST_DIR "/") + name;
}

// An aov-kdev with the given driver bugs on a directory of its own.
class KdevInstance {
  public:
    // A checker's run against aov-kdev takes a few seconds; one still going
    // after this long is stuck in a request the server never answers.
    static constexpr std::chrono::seconds kCheckLimit{45};

    ~KdevInstance() { server_.kill(); }

    // For a fixture's SetUp: skips the test where FUSE tests cannot run
    // (fails it in CI), else enters the mount namespace and makes the
    // directory. SetUp then returns when IsSkipped() or HasFatalFailure().
    void enterOrSkip() {
        enterFuseSandboxOrSkip(&sandbox_, "aov-compliance");
        entered_ = !::testing::Test::IsSkipped() && !::testing::Test::HasFatalFailure();
    }

    // Mounts a fresh directory (unless enterOrSkip() made one) and starts
    // aov-kdev on it with `faults` (each given as --fault), `scenario` (a
    // file of tests/compliance, or null for the streaming default) and
    // `extra` options; waits, with a limit, until it serves.
    void start(const std::vector<std::string>& faults, const char* scenario = nullptr,
               const std::vector<std::string>& extra = {}) {
        std::string problem;
        if (!entered_) {
            ASSERT_TRUE(sandbox_.enter("aov-compliance", &problem)) << problem;
            entered_ = true;
        }
        std::vector<std::string> options = {"--quiet"};
        options.insert(options.end(), extra.begin(), extra.end());
        for (const std::string& fault : faults) {
            options.insert(options.end(), {"--fault", fault});
        }
        if (scenario != nullptr) {
            options.insert(options.end(), {"--scenario", complianceTestFile(scenario)});
        }
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, sandbox_.dir(), options, &problem)) << problem;
    }

    // Stops the server from outside (SIGKILL): a checker's child stuck in a
    // request it never answered is freed when the server goes.
    void kill() { server_.kill(); }
    bool running() const { return server_.running(); }

    // The directory the node is served in.
    const std::string& dir() const { return sandbox_.dir(); }

    // Runs aov-compliance on the node. A run that has not ended after
    // kCheckLimit is freed by stopping the server (stoppedServer() then says
    // so): a process stuck in a FUSE request cannot be killed, but the
    // request ends with its server.
    ProcessResult check(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-d", sandbox_.dir() + "/kelo_aov"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto began = std::chrono::steady_clock::now();
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false;
        std::thread watchdog([&] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!ended.wait_for(lock, kCheckLimit, [&] { return done; })) {
                stopped_server_ = true;
                server_.kill();
            }
        });
        ProcessResult run = runProcess(AOV_COMPLIANCE_PATH, args);
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        ended.notify_one();
        watchdog.join();
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        std::printf("aov-compliance%s%s (%.2f s, exit %d):\n%s", args.size() > 2 ? " " : "",
                    args.size() > 2 ? args[2].c_str() : "", seconds, run.exit_code,
                    run.output.c_str());
        return run;
    }

    bool stoppedServer() const { return stopped_server_; }

  private:
    MountSandbox sandbox_;  // outlives the server
    bool entered_ = false;
    bool stopped_server_ = false;
    aovsimtool::KdevLauncher server_;
};

}  // namespace aovtest

namespace aovcompliancetest {

// A test with an aov-kdev of its own, started with at most one driver bug;
// skipped where FUSE tests cannot run (failed in CI).
class KdevNode : public ::testing::Test {
  protected:
    void SetUp() override { node_.enterOrSkip(); }
    void TearDown() override { node_.kill(); }

    // Starts aov-kdev with `fault` (none when empty) and the options of
    // extra_, and waits, with a limit, until it serves.
    void start(const std::string& fault, const char* scenario = nullptr) {
        node_.start(fault.empty() ? std::vector<std::string>{} : std::vector<std::string>{fault},
                    scenario, extra_);
    }
    ProcessResult check(std::vector<std::string> extra = {}) { return node_.check(extra); }

    aovtest::KdevInstance node_;
    std::vector<std::string> extra_;  // more aov-kdev options, set before start()
};

inline bool hasLine(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line) != std::string::npos;
}

inline std::string lastLine(const std::string& text) {
    const size_t end = text.size() > 0 && text.back() == '\n' ? text.size() - 1 : text.size();
    const size_t begin = text.rfind('\n', end == 0 ? 0 : end - 1);
    return text.substr(begin == std::string::npos ? 0 : begin + 1,
                       end - (begin == std::string::npos ? 0 : begin + 1));
}

}  // namespace aovcompliancetest
