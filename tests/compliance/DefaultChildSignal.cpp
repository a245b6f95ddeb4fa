// A GuardedCaller has children reaped unasked (SIGCHLD ignored) for the rest
// of its process. With the tests run as one process (the binary run by hand),
// every test after it would lose the exit status of the programs it runs:
// each test starts with the default disposition again.
#include <gtest/gtest.h>

#include <csignal>

namespace {

class DefaultChildSignal : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { ::signal(SIGCHLD, SIG_DFL); }
};

const bool kRegistered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new DefaultChildSignal);
    return true;
}();

}  // namespace
