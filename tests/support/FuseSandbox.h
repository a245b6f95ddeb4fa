#pragma once

// What the tests that mount a FUSE node share: whether they can run here, and
// a directory to mount on inside a mount namespace of the test's own, so that
// a mount goes away with the test process whatever happens to it.

#include <string>

#include "gtest/gtest.h"

namespace aovtest {

// Why FUSE tests cannot run here (no root, no usable /dev/fuse); empty when they can.
std::string fuseUnavailable();

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

// For a fixture's SetUp: skips the test where FUSE tests cannot run, else
// enters `sandbox` (failing the test when it cannot). SetUp then returns when
// IsSkipped() or HasFatalFailure().
inline void enterFuseSandboxOrSkip(MountSandbox* sandbox, const std::string& prefix) {
    const std::string why = fuseUnavailable();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    std::string problem;
    ASSERT_TRUE(sandbox->enter(prefix, &problem)) << problem;
}

}  // namespace aovtest
