// Cost of the event path and of the sensor notifications, through the fake
// driver that answers at once, so the figures are mostly the library's own
// overhead (the fake adds a lock and two bytes written per data area).
//
// Each library figure has its baselines, measured in the same run and named
// so that they sort next to it: BM_Event_* for the event path, BM_Start_* for
// starting and stopping the device. A baseline is what the same work costs
// without the library (a bare dequeue and callback on the same node), or a
// reference point for its parts (a real system call, a thread launch, the
// buffer's allocation and zero fill on the caller's thread).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "AOVDevice.h"
#include "FakeAovDriver.h"
#include "KernelBaseline.h"
#include "aovhost/Binding.h"
#include "cam/system/SystemCall.h"

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

void BM_Event_Library_NotifyEvent(benchmark::State& state) {
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
BENCHMARK(BM_Event_Library_NotifyEvent)->Args({0, 0})->Args({1, 0})->Args({1, 2});

// What a system layer pays without the library: the dequeue record set up
// with the ten addresses, the request through the same wrapper to the same
// node, and a call of the same kind of callback.
void BM_Event_Baseline_BareDequeueAndCallback(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, instantDriver(1));
    const int fd = SystemCall::open(kNodePath, O_RDWR);
    if (fd < 0) {
        state.SkipWithError("cannot open the emulated node");
        return;
    }
    auto* event = static_cast<aov_event*>(::operator new(kEventBufferSize));
    std::memset(event, 0, kEventBufferSize);
    uint64_t sum = 0;
    const std::function<void(aov_event*)> callback = [&sum](aov_event* e) { sum += e->header[0]; };
    for (auto _ : state) {
        aov_event_query query;
        std::memset(&query, 0, sizeof(query));
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            aov_query_set_area(
                &query, s, reinterpret_cast<uint8_t*>(event) + aov_event_sections[s].data_offset);
        }
        if (SystemCall::ioctl(fd, static_cast<int>(AOV_IOC_DEQUEUE_EVENT), &query, false,
                              nullptr) == 0) {
            std::memcpy(event->header, query.header, sizeof(event->header));
        }
        callback(event);
    }
    benchmark::DoNotOptimize(sum);
    SystemCall::close(fd);
    ::operator delete(event);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Event_Baseline_BareDequeueAndCallback);

// The kernel boundary for reference: one real ioctl (FIONREAD on an empty pipe).
void BM_Event_Baseline_KernelIoctl(benchmark::State& state) {
    runBareKernelIoctl(state);
}
BENCHMARK(BM_Event_Baseline_KernelIoctl);

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

void BM_Start_Library_StartStopDevice(benchmark::State& state) {
    aovhost::ScopedNode node(kNodePath, instantDriver(0));
    AOVDevice device(kNodePath);
    user_param param{};
    for (auto _ : state) {
        device.startDevice(param);
        device.stopDevice();  // waits for the buffer task, then frees the buffer
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Start_Library_StartStopDevice)->Unit(benchmark::kMicrosecond);

// The thread launch inside startDevice, alone: a std::thread created and joined,
void BM_Start_Baseline_StdThreadJoin(benchmark::State& state) {
    for (auto _ : state) {
        std::thread thread([] { benchmark::ClobberMemory(); });
        thread.join();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Start_Baseline_StdThreadJoin)->Unit(benchmark::kMicrosecond);

// and a detached pthread whose end is awaited through a flag and a condition
// variable, as the library awaits its buffer task.
struct Completion {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    void* buffer = nullptr;  // what an allocating task made
};

void* completeTask(void* context) {
    auto* completion = static_cast<Completion*>(context);
    std::lock_guard<std::mutex> guard(completion->mutex);
    completion->done = true;
    completion->finished.notify_all();
    return nullptr;
}

// The buffer allocated and zeroed on the new thread, as the library's buffer task does.
void* allocateTask(void* context) {
    auto* completion = static_cast<Completion*>(context);
    void* buffer = ::operator new(kEventBufferSize);
    std::memset(buffer, 0, kEventBufferSize);
    std::lock_guard<std::mutex> guard(completion->mutex);
    completion->buffer = buffer;
    completion->done = true;
    completion->finished.notify_all();
    return nullptr;
}

// Launches `task` on a detached pthread and waits for it, per iteration; the
// buffer it made, if any, is freed on the caller's thread, as stopDevice does.
void detachedTaskLoop(benchmark::State& state, void* (*task)(void*)) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    for (auto _ : state) {
        Completion completion;
        pthread_t thread;
        if (pthread_create(&thread, &attr, task, &completion) != 0) {
            state.SkipWithError("pthread_create failed");
            break;
        }
        std::unique_lock<std::mutex> lock(completion.mutex);
        completion.finished.wait(lock, [&completion] { return completion.done; });
        ::operator delete(completion.buffer);
    }
    pthread_attr_destroy(&attr);
    state.SetItemsProcessed(state.iterations());
}

void BM_Start_Baseline_DetachedPthreadWait(benchmark::State& state) {
    detachedTaskLoop(state, completeTask);
}
BENCHMARK(BM_Start_Baseline_DetachedPthreadWait)->Unit(benchmark::kMicrosecond);

// Both together: what startDevice and stopDevice do, without the library.
void BM_Start_Baseline_DetachedPthreadAllocatesBuffer(benchmark::State& state) {
    detachedTaskLoop(state, allocateTask);
}
BENCHMARK(BM_Start_Baseline_DetachedPthreadAllocatesBuffer)->Unit(benchmark::kMicrosecond);

// The buffer's zero fill on the caller's thread: on pages never touched before
// (mapped and unmapped each time), through the allocator as the library
// allocates it, and on one buffer kept across iterations.
void BM_Start_Baseline_BufferFreshPages(benchmark::State& state) {
    for (auto _ : state) {
        void* block = ::mmap(nullptr, kEventBufferSize, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED) {
            state.SkipWithError("mmap failed");
            break;
        }
        std::memset(block, 0, kEventBufferSize);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        ::munmap(block, kEventBufferSize);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kEventBufferSize));
}
BENCHMARK(BM_Start_Baseline_BufferFreshPages)->Unit(benchmark::kMicrosecond);

void BM_Start_Baseline_BufferNewAndZero(benchmark::State& state) {
    for (auto _ : state) {
        void* block = ::operator new(kEventBufferSize);
        std::memset(block, 0, kEventBufferSize);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        ::operator delete(block);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kEventBufferSize));
}
BENCHMARK(BM_Start_Baseline_BufferNewAndZero)->Unit(benchmark::kMicrosecond);

void BM_Start_Baseline_BufferReusedMemset(benchmark::State& state) {
    std::vector<uint8_t> buffer(kEventBufferSize, 1);
    for (auto _ : state) {
        std::memset(buffer.data(), 0, buffer.size());
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kEventBufferSize));
}
BENCHMARK(BM_Start_Baseline_BufferReusedMemset)->Unit(benchmark::kMicrosecond);

}  // namespace
