// Cost of the event path and of the sensor notifications, through an emulated
// driver that answers at once, so the figures are the library's own overhead.

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "AOVDevice.h"
#include "aovhost/Binding.h"

namespace {

constexpr char kNodePath[] = "/dev/kelo_aov_bench";

// Answers every request; a dequeue fills the header and info words.
class InstantDriver : public aovhost::EmulatedNode {
  public:
    explicit InstantDriver(uint32_t contentFlag) : content_flag_(contentFlag) {}
    int open(int) override { return ::eventfd(0, EFD_CLOEXEC); }
    int close(int fd) override { return ::close(fd) == 0 ? 0 : -1; }
    int ioctl(int, unsigned int request, void* arg) override {
        if (request == AOV_IOC_DEQUEUE_EVENT) {
            auto* query = static_cast<aov_event_query*>(arg);
            for (uint32_t i = 0; i < 6; ++i) {
                query->header[i] = ++sequence_ + i;
            }
            query->header[5] = content_flag_;
            query->s1_info = sequence_;
            query->s4_info[3] = sequence_;
            query->s6_info[4] = sequence_;
        }
        return 0;
    }

  private:
    uint32_t content_flag_;
    uint32_t sequence_ = 0;
};

// A started device on the emulated node, its buffer allocated.
class StartedDevice {
  public:
    StartedDevice(uint32_t contentFlag, int32_t aovMode)
        : node_(kNodePath, std::make_shared<InstantDriver>(contentFlag)), device_(kNodePath) {
        NSCam::Utils::ULog::ULogger::sMode = 0;  // keep the warm-up's "event_ is nullptr" quiet
        user_param param{};
        param.aov_mode = aovMode;
        device_.startDevice(param);
        bool delivered = false;
        device_.callback_ = [&delivered](aov_event*) { delivered = true; };
        // The buffer is allocated on the library's own thread; deliver until it is there.
        while (!delivered) {
            device_.notifyEvent(0, 0);
        }
    }
    ~StartedDevice() { device_.stopDevice(); }
    AOVDevice& device() { return device_; }

  private:
    aovhost::ScopedNode node_;
    AOVDevice device_;
};

void BM_NotifyEvent(benchmark::State& state) {
    StartedDevice started(static_cast<uint32_t>(state.range(0)),
                          static_cast<int32_t>(state.range(1)));
    uint64_t sum = 0;
    started.device().callback_ = [&sum](aov_event* event) { sum += event->header[0]; };
    for (auto _ : state) {
        started.device().notifyEvent(0, 0);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) ? (state.range(1) == 2 ? "content, mode 2" : "content")
                                  : "header only");
}
BENCHMARK(BM_NotifyEvent)->Args({0, 0})->Args({1, 0})->Args({1, 2});

void BM_NotifyEventNotStarted(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, std::make_shared<InstantDriver>(0));
    AOVDevice device(kNodePath);
    for (auto _ : state) {
        device.notifyEvent(0, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NotifyEventNotStarted);

void BM_NotifySensor(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, std::make_shared<InstantDriver>(0));
    AOVDevice device(kNodePath);
    std::vector<int> ids(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < ids.size(); ++i) {
        ids[i] = static_cast<int>(i);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(device.notifySensor(ids, true));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_NotifySensor)->Arg(1)->Arg(64)->Arg(130)->Arg(1024);

void BM_StartStopDevice(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, std::make_shared<InstantDriver>(0));
    AOVDevice device(kNodePath);
    user_param param{};
    for (auto _ : state) {
        device.startDevice(param);
        device.stopDevice();  // waits for the buffer task, then frees the buffer
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StartStopDevice)->Unit(benchmark::kMicrosecond);

}  // namespace
