// Cost of the event path and of the sensor notifications, through the fake
// driver that answers at once, so the figures are mostly the library's own
// overhead (the fake adds a lock and two bytes written per data area).

#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

#include "AOVDevice.h"
#include "FakeAovDriver.h"
#include "aovhost/Binding.h"

namespace {

constexpr char kNodePath[] = "/dev/kelo_aov_bench";

// The shared fake driver, answering every request and recording none; a
// dequeue fills the header (content flag `contentFlag`) and info words.
std::shared_ptr<aovtest::FakeAovDriver> instantDriver(uint32_t contentFlag) {
    auto driver = std::make_shared<aovtest::FakeAovDriver>();
    driver->setRecording(false);
    aov_event_query words{};
    for (uint32_t i = 0; i < 6; ++i) {
        words.header[i] = i + 1;
    }
    words.header[kEventContentFlagIndex] = contentFlag;
    words.s1_info = 1;
    words.s4_info[3] = 1;
    words.s6_info[4] = 1;
    driver->setEvent(words, 0x5A);
    return driver;
}

// A started device on the emulated node, its buffer allocated.
class StartedDevice {
  public:
    StartedDevice(uint32_t contentFlag, int32_t aovMode)
        : node_(kNodePath, instantDriver(contentFlag)), device_(kNodePath) {
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
    aovhost::ScopedNode node(kNodePath, instantDriver(0));
    AOVDevice device(kNodePath);
    for (auto _ : state) {
        device.notifyEvent(0, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NotifyEventNotStarted);

void BM_NotifySensor(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, instantDriver(0));
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
    aovhost::ScopedNode node(kNodePath, instantDriver(0));
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
