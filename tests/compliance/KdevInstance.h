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

    // Mounts a fresh directory and starts aov-kdev on it with `faults`
    // (each given as --fault) and `scenario` (a file of tests/compliance, or
    // null for the streaming default); waits, with a limit, until it serves.
    void start(const std::vector<std::string>& faults, const char* scenario = nullptr) {
        std::string problem;
        ASSERT_TRUE(sandbox_.enter("aov-compliance", &problem)) << problem;
        std::vector<std::string> extra = {"--quiet"};
        for (const std::string& fault : faults) {
            extra.insert(extra.end(), {"--fault", fault});
        }
        if (scenario != nullptr) {
            extra.insert(extra.end(), {"--scenario", complianceTestFile(scenario)});
        }
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, sandbox_.dir(), extra, &problem)) << problem;
    }

    // Stops the server from outside (SIGKILL): a checker's child stuck in a
    // request it never answered is freed when the server goes.
    void kill() { server_.kill(); }

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
    bool stopped_server_ = false;
    aovsimtool::KdevLauncher server_;
};

}  // namespace aovtest
