// The wall time of a full aov-compliance run against a clean aov-kdev, as a
// user runs it: the program started, every check against the FUSE node, its
// exit. Each iteration is one run; the figure is the time per run.
//
// Run as root with /dev/fuse: build/release/bench/aov_compliance_bench. It
// mounts in a private mount namespace of its own and leaves nothing behind.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KdevLauncher.h"

extern char** environ;

namespace {

std::string gNode;

// One run of aov-compliance on gNode, its output to /dev/null; the exit code,
// or -1 when it could not be started or did not exit.
int runChecker() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string program = AOV_COMPLIANCE_PATH;
    std::string device = "-d";
    std::vector<char*> argv = {program.data(), device.data(), gNode.data(), nullptr};
    pid_t child = -1;
    const int spawned =
        ::posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

void BM_FullRunAgainstTheCleanDriver(benchmark::State& state) {
    for (auto _ : state) {
        const int code = runChecker();
        if (code != 0) {
            state.SkipWithError(("aov-compliance exited " + std::to_string(code)).c_str());
            break;
        }
    }
}
BENCHMARK(BM_FullRunAgainstTheCleanDriver)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);

}  // namespace

int main(int argc, char** argv) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) {
        std::fprintf(stderr, "aov_compliance_bench: needs root and /dev/fuse (%s)\n",
                     std::strerror(errno));
        return 1;
    }
    char dir[] = "/tmp/aov-compliance-bench.XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        std::fprintf(stderr, "aov_compliance_bench: mkdtemp: %s\n", std::strerror(errno));
        return 1;
    }
    int result = 1;
    {
        aovsimtool::KdevLauncher server;
        std::string problem;
        if (!server.start(AOV_KDEV_PATH, dir, {"--quiet"}, &problem)) {
            std::fprintf(stderr, "aov_compliance_bench: %s\n", problem.c_str());
        } else {
            gNode = std::string(dir) + "/kelo_aov";
            benchmark::Initialize(&argc, argv);
            benchmark::RunSpecifiedBenchmarks();
            benchmark::Shutdown();
            result = 0;
        }
    }
    ::umount2(dir, MNT_DETACH);
    ::rmdir(dir);
    return result;
}
