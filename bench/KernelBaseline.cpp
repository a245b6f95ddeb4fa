#include "KernelBaseline.h"

#include <sys/ioctl.h>
#include <unistd.h>

void runBareKernelIoctl(benchmark::State& state) {
    int fds[2];
    if (::pipe(fds) != 0) {
        state.SkipWithError("no pipe");
        return;
    }
    int pending = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::ioctl(fds[0], FIONREAD, &pending));
    }
    ::close(fds[0]);
    ::close(fds[1]);
    state.SetItemsProcessed(state.iterations());
}
