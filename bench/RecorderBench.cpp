// Cost of the session recorder (tools/aov-rec), its core linked directly and
// given the real calls, each figure next to its baseline from the same run:
//  - BM_Rec_Passthrough_*: an ioctl on a descriptor that is not the node
//    (FIONREAD on a pipe), bare (in a single-threaded process, and with the
//    recorder's writer thread alive) and through the recorder's wrapper
//    while a recording runs;
//  - BM_Rec_HeaderOnly_*: a dequeue whose event has no content, answered at
//    once by a driver function, unrecorded and recorded;
//  - BM_Rec_Content_*: a dequeue whose event has content in the five basic
//    areas (1,218,648 bytes), unrecorded, recorded (written areas, with and
//    without zstd; the driver's fill pattern and incompressible bytes), and
//    the copy of those bytes (memcpy) as the baseline, and their write to a
//    file. _Recorded is the latency the dequeue's caller sees while the
//    writer thread keeps up: the timing pauses after each dequeue until the
//    writer has written it. _Sustained is the rate of dequeues back to back,
//    bound by the writer thread (its items per second; the time of each
//    includes waiting for a free buffer).
// The session file goes to $AOV_REC_BENCH_DIR (default /tmp) and is started
// afresh every so many iterations, outside the timing.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "KernelBaseline.h"
#include "Recorder.h"
#include "kelo_aov.h"

namespace {

int libcIoctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}

std::string benchFile() {
    const char* dir = std::getenv("AOV_REC_BENCH_DIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/aov_rec_bench_" +
           std::to_string(::getpid()) + ".rec";
}

// A recording with one node descriptor open (on /dev/null).
class BenchRecording {
  public:
    BenchRecording(aovrec::ContentMode mode, bool compress) : mode_(mode), compress_(compress) {
        start();
    }
    ~BenchRecording() {
        stop();
        aovrec::configure(aovrec::RecorderConfig{});
        ::unlink(path_.c_str());
    }
    // Starts a new file (the old one is dropped) every `every` iterations.
    void rotate(benchmark::State& state, int64_t every) {
        if (++count_ % every == 0) {
            state.PauseTiming();
            stop();
            start();
            state.ResumeTiming();
        }
    }
    // The same without pausing the timing (the caller pauses it).
    void rotateUntimed(int64_t every) {
        if (++count_ % every == 0) {
            stop();
            start();
        }
    }
    int fd() const { return fd_; }

  private:
    void start() {
        path_ = benchFile();
        aovrec::RecorderConfig config;
        config.file = path_.c_str();
        config.content = mode_;
        config.compress = compress_;
        config.node = "/aov-rec-bench/kelo_aov";
        aovrec::configure(config);
        fd_ = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, config.node, O_RDWR, 0, fd_, 0);
    }
    void stop() {
        aovrec::forgetOnClose(fd_);
        ::close(fd_);
    }
    aovrec::ContentMode mode_;
    bool compress_;
    std::string path_;
    int fd_ = -1;
    int64_t count_ = 0;
};

// Event buffer and dequeue record, as the library builds them.
struct EventBuffer {
    EventBuffer() : bytes(sizeof(aov_event), 0) {}
    aov_event_query query() {
        aov_event_query q{};
        for (const aov_section_desc& section : aov_event_sections) {
            void* area = bytes.data() + section.data_offset;
            std::memcpy(reinterpret_cast<uint8_t*>(&q) + section.query_addr_offset, &area,
                        sizeof(area));
        }
        return q;
    }
    std::vector<uint8_t> bytes;
};

uint32_t g_sequence = 0;
bool g_content = false;

// A driver that answers at once: header words, and with content the first
// info word of each basic section (its size; the areas hold their content
// already, so that the baselines and the recorded runs differ only in the
// recording).
int answer(int, unsigned long, void* arg) {
    auto* q = static_cast<aov_event_query*>(arg);
    q->header[0] = ++g_sequence;
    q->header[5] = g_content ? 1 : 0;
    if (g_content) {
        for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            std::memcpy(reinterpret_cast<uint8_t*>(q) + section.query_info_offset,
                        &section.data_size, sizeof(uint32_t));
        }
    }
    return 0;
}

size_t basicAreaBytes() {
    size_t total = 0;
    for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
        total += aov_event_sections[s].data_size;
    }
    return total;
}

// The emulated driver's pattern (a stamp and a fill byte per area), or
// incompressible bytes.
void fillAreas(EventBuffer& buffer, bool random) {
    std::mt19937 gen(7);
    for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        uint8_t* area = buffer.bytes.data() + section.data_offset;
        for (uint32_t i = 0; i < section.data_size; ++i) {
            area[i] = random ? static_cast<uint8_t>(gen()) : static_cast<uint8_t>(s * 7 + 1);
        }
        std::memcpy(area, &section.data_size, sizeof(uint32_t));
    }
}

void BM_Rec_Passthrough_BareIoctl(benchmark::State& state) {
    runBareKernelIoctl(state);
}
BENCHMARK(BM_Rec_Passthrough_BareIoctl);

// The same once a recording has started the writer thread: the process has
// a second thread from then on (the camera process has many), and the kernel
// then counts a reference on every descriptor a system call looks up.
void BM_Rec_Passthrough_BareIoctlWithWriterThread(benchmark::State& state) {
    BenchRecording rec(aovrec::ContentMode::Written, true);
    runBareKernelIoctl(state);
}
BENCHMARK(BM_Rec_Passthrough_BareIoctlWithWriterThread);

void BM_Rec_Passthrough_ThroughRecorder(benchmark::State& state) {
    BenchRecording rec(aovrec::ContentMode::Written, true);
    int fds[2];
    if (::pipe(fds) != 0) {
        state.SkipWithError("pipe");
        return;
    }
    int pending = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(aovrec::ioctlHook(libcIoctl, fds[0], FIONREAD, &pending));
    }
    ::close(fds[0]);
    ::close(fds[1]);
}
BENCHMARK(BM_Rec_Passthrough_ThroughRecorder);

void BM_Rec_HeaderOnly_Unrecorded(benchmark::State& state) {
    EventBuffer buffer;
    g_content = false;
    for (auto _ : state) {
        aov_event_query q = buffer.query();
        benchmark::DoNotOptimize(answer(0, AOV_IOC_DEQUEUE_EVENT, &q));
        benchmark::DoNotOptimize(q);
    }
}
BENCHMARK(BM_Rec_HeaderOnly_Unrecorded);

void BM_Rec_HeaderOnly_Recorded(benchmark::State& state) {
    EventBuffer buffer;
    g_content = false;
    BenchRecording rec(aovrec::ContentMode::Written, true);
    for (auto _ : state) {
        aov_event_query q = buffer.query();
        benchmark::DoNotOptimize(aovrec::ioctlHook(answer, rec.fd(), AOV_IOC_DEQUEUE_EVENT, &q));
        benchmark::DoNotOptimize(q);
        rec.rotate(state, 100000);
    }
}
BENCHMARK(BM_Rec_HeaderOnly_Recorded);

void BM_Rec_Content_CopyOfTheBytes(benchmark::State& state) {
    EventBuffer buffer;
    fillAreas(buffer, false);
    std::vector<uint8_t> copy(basicAreaBytes());
    for (auto _ : state) {
        size_t at = 0;
        for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            std::memcpy(copy.data() + at, buffer.bytes.data() + section.data_offset,
                        section.data_size);
            at += section.data_size;
        }
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * basicAreaBytes()));
}
BENCHMARK(BM_Rec_Content_CopyOfTheBytes);

// The floor of any recorder that writes the bytes as they come: one write
// of them to a file in the same place, started afresh as the recordings are.
void BM_Rec_Content_WriteOfTheBytes(benchmark::State& state) {
    EventBuffer buffer;
    fillAreas(buffer, false);
    std::vector<uint8_t> copy(basicAreaBytes());
    const std::string path = benchFile();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int64_t count = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            ::write(fd, buffer.bytes.data() + aov_event_sections[0].data_offset, copy.size()));
        if (++count % 64 == 0) {
            state.PauseTiming();
            benchmark::DoNotOptimize(::ftruncate(fd, 0));
            ::lseek(fd, 0, SEEK_SET);
            state.ResumeTiming();
        }
    }
    ::close(fd);
    ::unlink(path.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * basicAreaBytes()));
}
BENCHMARK(BM_Rec_Content_WriteOfTheBytes);

void BM_Rec_Content_Unrecorded(benchmark::State& state) {
    EventBuffer buffer;
    fillAreas(buffer, false);
    g_content = true;
    for (auto _ : state) {
        aov_event_query q = buffer.query();
        benchmark::DoNotOptimize(answer(0, AOV_IOC_DEQUEUE_EVENT, &q));
        benchmark::DoNotOptimize(q);
    }
}
BENCHMARK(BM_Rec_Content_Unrecorded);

// Args: compress (0/1), incompressible content (0/1).
void BM_Rec_Content_Recorded(benchmark::State& state) {
    EventBuffer buffer;
    fillAreas(buffer, state.range(1) != 0);
    g_content = true;
    BenchRecording rec(aovrec::ContentMode::Written, state.range(0) != 0);
    for (auto _ : state) {
        aov_event_query q = buffer.query();
        benchmark::DoNotOptimize(aovrec::ioctlHook(answer, rec.fd(), AOV_IOC_DEQUEUE_EVENT, &q));
        benchmark::DoNotOptimize(q);
        state.PauseTiming();
        aovrec::drain();
        rec.rotateUntimed(64);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * basicAreaBytes()));
}
BENCHMARK(BM_Rec_Content_Recorded)
    ->ArgNames({"zstd", "random"})
    ->Args({1, 0})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Args({0, 1});

// Args as above. Each file is drained inside the timing before the next.
void BM_Rec_Content_Sustained(benchmark::State& state) {
    EventBuffer buffer;
    fillAreas(buffer, state.range(1) != 0);
    g_content = true;
    BenchRecording rec(aovrec::ContentMode::Written, state.range(0) != 0);
    int64_t count = 0;
    for (auto _ : state) {
        aov_event_query q = buffer.query();
        benchmark::DoNotOptimize(aovrec::ioctlHook(answer, rec.fd(), AOV_IOC_DEQUEUE_EVENT, &q));
        benchmark::DoNotOptimize(q);
        if (++count % 64 == 0) {
            aovrec::drain();
            state.PauseTiming();
            rec.rotateUntimed(1);
            state.ResumeTiming();
        }
    }
    aovrec::drain();
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * basicAreaBytes()));
}
BENCHMARK(BM_Rec_Content_Sustained)
    ->ArgNames({"zstd", "random"})
    ->Args({1, 0})
    ->Args({0, 0})
    ->Args({1, 1})
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
