// The price of the kernel boundary: the emulated driver in this process
// (SystemCall hands the request to the object) against the same driver
// served through a FUSE node by aov-kdev's server, where every request is a
// real ioctl that the kernel passes to the server thread and back, and a
// dequeue's data areas are written with process_vm_writev.
//
// Run as root with /dev/fuse: build/release/bench/aov_fuse_bench. It mounts
// in a private mount namespace of its own and leaves nothing behind.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "AOVDevice.h"
#include "KdevServer.h"
#include "aovhost/Binding.h"
#include "aovsim/SimDriver.h"
#include "cam/system/SystemCall.h"
#include "cam/utils/ULog.h"
#include "kelo_aov.h"

namespace {

constexpr char kInProcessPath[] = "/dev/kelo_aov_inproc";
constexpr char kFusePath[] = AOV_DEVICE_NODE;  // under AOV_DEV_DIR, the served node

// One driver per side; events only when a benchmark queues them. range(0):
// 0 for header-only events, 1 for events with content in five areas.
std::shared_ptr<aovsim::SimDriver> makeDriver(bool content) {
    aovsim::DriverConfig config;
    config.timer = false;
    config.content_every = content ? 1 : 0xFFFFFFFFu;
    return std::make_shared<aovsim::SimDriver>(kFusePath, config, aovsim::FaultConfig(),
                                               std::make_shared<aovsim::Trace>());
}

// The FUSE side: a server thread serving its own driver.
struct FuseSide {
    std::string dir;
    std::shared_ptr<aovsim::SimDriver> driver;
    std::unique_ptr<aovkdev::KdevServer> server;
    std::thread serving;
    std::string problem;

    explicit FuseSide(bool content) : driver(makeDriver(content)) {
        char path[] = "/tmp/aov-fuse-bench.XXXXXX";
        if (::mkdtemp(path) == nullptr) {
            problem = "mkdtemp failed";
            return;
        }
        dir = path;
        server = std::make_unique<aovkdev::KdevServer>(driver, std::make_shared<aovsim::Trace>(),
                                                       "bench");
        if (!server->mount(dir, &problem)) {
            return;
        }
        serving = std::thread([this] { server->serve(); });
        ::setenv(aovhost::kDevDirEnv, dir.c_str(), 1);
    }
    ~FuseSide() {
        ::unsetenv(aovhost::kDevDirEnv);
        if (serving.joinable()) {
            server->stop();
            serving.join();
        }
        server.reset();
        ::rmdir(dir.c_str());
    }
};

void startVia(benchmark::State& state, AOVDevice& device, aovsim::SimDriver& driver) {
    user_param param{};
    param.frame_rate = 10;  // the driver's timer is off; any valid rate will do
    if (device.startDevice(param) != 0) {
        state.SkipWithError("startDevice failed");
        return;
    }
    bool delivered = false;
    device.callback_ = [&delivered](aov_event*) { delivered = true; };
    // The buffer is allocated on the library's own thread; deliver until it is there.
    while (!delivered) {
        driver.produceEvent();
        device.notifyEvent(0, 0);
    }
}

void notifyLoop(benchmark::State& state, AOVDevice& device, aovsim::SimDriver& driver) {
    uint64_t sum = 0;
    device.callback_ = [&sum](aov_event* event) { sum += event->header[0]; };
    for (auto _ : state) {
        driver.produceEvent();
        device.notifyEvent(0, 0);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) ? "content in 5 areas" : "header only");
}

// The cheapest request, ULPOSC3_ON (no record), on the node at `path`.
void ioctlLoop(benchmark::State& state, const char* path) {
    const int fd = SystemCall::open(path, O_RDWR);
    if (fd < 0) {
        state.SkipWithError("cannot open the node");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            SystemCall::ioctl(fd, static_cast<int>(AOV_IOC_ULPOSC3_ON), nullptr, false, nullptr));
    }
    SystemCall::close(fd);
    state.SetItemsProcessed(state.iterations());
}

void BM_Fuse_Baseline_InProcessIoctl(benchmark::State& state) {
    auto driver = makeDriver(false);
    aovhost::ScopedNode node(kInProcessPath, driver);
    ioctlLoop(state, kInProcessPath);
}
BENCHMARK(BM_Fuse_Baseline_InProcessIoctl);

void BM_Fuse_NodeIoctl(benchmark::State& state) {
    FuseSide side(false);
    if (!side.problem.empty()) {
        state.SkipWithError(side.problem.c_str());
        return;
    }
    ioctlLoop(state, kFusePath);
}
BENCHMARK(BM_Fuse_NodeIoctl);

void BM_Fuse_Baseline_InProcessNotifyEvent(benchmark::State& state) {
    auto driver = makeDriver(state.range(0) != 0);
    aovhost::ScopedNode node(kInProcessPath, driver);
    AOVDevice device(kInProcessPath);
    startVia(state, device, *driver);
    notifyLoop(state, device, *driver);
    device.stopDevice();
}
BENCHMARK(BM_Fuse_Baseline_InProcessNotifyEvent)->Arg(0)->Arg(1);

void BM_Fuse_NodeNotifyEvent(benchmark::State& state) {
    FuseSide side(state.range(0) != 0);
    if (!side.problem.empty()) {
        state.SkipWithError(side.problem.c_str());
        return;
    }
    {
        AOVDevice device(kFusePath);
        startVia(state, device, *side.driver);
        notifyLoop(state, device, *side.driver);
        device.stopDevice();
    }
}
BENCHMARK(BM_Fuse_NodeNotifyEvent)->Arg(0)->Arg(1);

}  // namespace

int main(int argc, char** argv) {
    if (::geteuid() != 0 || ::access("/dev/fuse", R_OK | W_OK) != 0) {
        std::fprintf(stderr, "aov_fuse_bench: needs root and /dev/fuse\n");
        return 2;
    }
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::fprintf(stderr, "aov_fuse_bench: no private mount namespace: %s\n",
                     std::strerror(errno));
        return 2;
    }
    NSCam::Utils::ULog::ULogger::sMode = 0;  // keep the warm-up's "event_ is nullptr" quiet
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
