// Failures the device cannot report through a result: the process aborts
// with the reason on the error channel.
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>

#include "BoundedWait.h"
#include "DeviceTestSupport.h"

namespace aovtest {
namespace {

#if defined(__x86_64__)
constexpr uint32_t kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kAuditArch = AUDIT_ARCH_AARCH64;
#endif

#ifndef __NR_clone3
#define __NR_clone3 435
#endif

// From here on every clone and clone3 of this process fails with EAGAIN, as
// when the system is out of threads. True if the filter is in place.
bool failThreadCreation() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EAGAIN & SECCOMP_RET_DATA)),
    };
    sock_fprog program{static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Whether a filtered child really gets EAGAIN from pthread_create; user-mode
// emulators, for one, refuse seccomp filters.
bool threadCreationCanBeFailed() {
    const pid_t child = ::fork();
    if (child == 0) {
        pthread_t thread;
        const bool failed =
            failThreadCreation() &&
            ::pthread_create(
                &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr) == EAGAIN;
        ::_exit(failed ? 0 : 1);
    }
    int status = 0;
    if (child > 0 && !aovtest::exitedWithin(child, &status)) {
        ADD_FAILURE() << "the child that tries a thread under the filter did not end within "
                      << aovtest::kWaitLimit.count() << " s";
        aovtest::killed(child);
        return false;
    }
    return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Writes the debug-print channel to standard error, where a death test reads
// what the dying process said.
class StderrEcho : public aovhost::DebugPrintSink {
  public:
    void write(int level, const char* text) override {
        std::fprintf(stderr, "debug-print[%d] %s\n", level, text);
    }
};

TEST(AOVDeviceFatal, ThreadCreationFailureAbortsWithItsMessage) {
    if (!threadCreationCanBeFailed()) {
        GTEST_SKIP() << "this system does not let a process fail its own thread creation";
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto start = [] {
        auto driver = std::make_shared<FakeAovDriver>();
        aovhost::ScopedNode node(kTestNode, driver);
        aovhost::ScopedBinding<aovhost::DebugPrintSink> sink(std::make_shared<StderrEcho>());
        AOVDevice device{kTestNode};
        user_param param = makeParam(0);
        if (!failThreadCreation()) {
            std::fprintf(stderr, "seccomp filter refused\n");
            std::_Exit(3);
        }
        device.startDevice(param);
        std::fprintf(stderr, "startDevice returned\n");
        std::_Exit(4);
    };
    EXPECT_EXIT(start(), ::testing::KilledBySignal(SIGABRT),
                "debug-print\\[1\\] \\[E\\]\\[AOV\\] AOVDevice:[0-9]+ startDevice\\(\\) "
                "\\[hw/aov/src/plat/isp8/AOVDevice, startDevice, line[0-9]{4}\\] ERROR: "
                "thread constructor failed: .+ \\(startDevice\\)");
}

}  // namespace
}  // namespace aovtest
