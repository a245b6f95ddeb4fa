#pragma once

// aov-compliance as a user runs it, against an aov-kdev in the test's own
// mount namespace (root and /dev/fuse; elsewhere the test skips, and fails in
// CI). The checker's output goes to the test log.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "FuseSandbox.h"
#include "KdevLauncher.h"
#include "ProcessRun.h"
#include "gtest/gtest.h"

namespace aovcompliancetest {

// An aov-kdev with one driver bug, in the test's own mount namespace.
class KdevNode : public ::testing::Test {
  protected:
    void SetUp() override {
        aovtest::enterFuseSandboxOrSkip(&sandbox_, "aov-compliance");
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        dir_ = sandbox_.dir();
    }
    void TearDown() override { server_.kill(); }

    // Starts aov-kdev and waits, with a limit, until it serves.
    void start(const std::string& fault, const char* scenario = nullptr) {
        std::vector<std::string> extra = {"--quiet"};
        extra.insert(extra.end(), extra_.begin(), extra_.end());
        if (!fault.empty()) {
            extra.insert(extra.end(), {"--fault", fault});
        }
        if (scenario != nullptr) {
            extra.insert(extra.end(),
                         {"--scenario", std::string(AOV_COMPLIANCE_TEST_DIR "/") + scenario});
        }
        std::string problem;
        ASSERT_TRUE(server_.start(AOV_KDEV_PATH, dir_, extra, &problem)) << problem;
    }

    // Runs aov-compliance on the node; the run is killed if it does not end.
    ProcessResult check(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-d", dir_ + "/kelo_aov"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto began = std::chrono::steady_clock::now();
        ProcessResult run = runProcess(AOV_COMPLIANCE_PATH, args);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        std::printf("aov-compliance%s%s (%.2f s, exit %d):\n%s", args.size() > 2 ? " " : "",
                    args.size() > 2 ? args[2].c_str() : "", seconds, run.exit_code,
                    run.output.c_str());
        return run;
    }

    aovtest::MountSandbox sandbox_;  // outlives the server
    std::string dir_;
    std::vector<std::string> extra_;  // more aov-kdev options, set before start()
    aovsimtool::KdevLauncher server_;
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
