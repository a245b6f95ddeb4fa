#pragma once

// What the tests that mount a FUSE node share: whether they can run here, and
// a directory to mount on inside a mount namespace of the test's own, so that
// a mount goes away with the test process whatever happens to it.

#include <string>

#include "gtest/gtest.h"

namespace aovtest {

// Why FUSE tests cannot run here (no root, no usable /dev/fuse); empty when they can.
std::string fuseUnavailable();

// True in CI (CI=true): the machine has root and /dev/fuse, so a FUSE test
// that cannot run is a failure there, never a skip.
bool fuseRequired();

// For a SetUp or a test body: where FUSE tests cannot run, skips the test, or
// fails it when FUSE is required. The caller then returns when IsSkipped()
// or HasFatalFailure().
inline void requireFuseOrSkip() {
    const std::string why = fuseUnavailable();
    if (why.empty()) {
        return;
    }
    if (fuseRequired()) {
        FAIL() << why << " (CI=true: the FUSE tests must run here)";
    }
    GTEST_SKIP() << why;
}

class MountSandbox {
  public:
    MountSandbox() = default;
    // Detaches a mount left on the directory and removes it.
    ~MountSandbox();
    MountSandbox(const MountSandbox&) = delete;
    MountSandbox& operator=(const MountSandbox&) = delete;

    // Moves this process into a private mount namespace (once) and makes an
    // empty directory /tmp/PREFIX.XXXXXX. False, with `problem` saying which
    // step failed, when it cannot.
    bool enter(const std::string& prefix, std::string* problem);
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

// For a fixture's SetUp: skips the test where FUSE tests cannot run (fails it
// in CI), else enters `sandbox` (failing the test when it cannot). SetUp then
// returns when IsSkipped() or HasFatalFailure().
inline void enterFuseSandboxOrSkip(MountSandbox* sandbox, const std::string& prefix) {
    requireFuseOrSkip();
    if (::testing::Test::IsSkipped() || ::testing::Test::HasFatalFailure()) {
        return;
    }
    std::string problem;
    ASSERT_TRUE(sandbox->enter(prefix, &problem)) << problem;
}

}  // namespace aovtest
