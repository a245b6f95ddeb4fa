// aov-sim --replay --speed max of a 10,000-event recording, composed here
// with the session writer, each figure next to its baselines from the same run:
//  - BM_Replay_Session/1 and /10000: the whole aov-sim process replaying a
//    header-only recording of 1 and of 10,000 events; the difference is the
//    cost of the events (items per second counts the 10,000);
//  - BM_Replay_Session_Content/10000: the same with content, 64 KiB kept per
//    event (sections 1, 2 and 4; a per-event pattern that zstd compresses);
//  - BM_Replay_Node_*: the replaying driver alone in process, answering
//    10,000 dequeues from the same recordings into an event buffer, and
//    BM_Copy_Areas: copying the same 64 KiB per event into an event buffer,
//    the floor of any replay with content.
// The recordings go to $AOV_REPLAY_BENCH_DIR (default /tmp).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ReplayNode.h"
#include "aovsession/SessionBuilder.h"
#include "kelo_aov.h"

extern char** environ;

namespace {

constexpr int kFd = 3;
constexpr uint32_t kContentBytes[] = {32768, 2048, 0, 30720};  // sections 1 to 4

std::string benchDir() {
    const char* dir = std::getenv("AOV_REPLAY_BENCH_DIR");
    return dir != nullptr ? dir : "/tmp";
}

// The start record the library sends for aov-sim's embedded default scenario
// with no options: sensor 0 at 320x240, 10 frames per second.
std::vector<uint8_t> defaultStart() {
    std::vector<uint8_t> start(AOV_START_RECORD_SIZE, 0);
    const auto put = [&start](size_t at, int32_t v) { std::memcpy(&start[at], &v, sizeof(v)); };
    put(AOV_START_SCENARIO, 4);
    put(AOV_START_ORIENTATION, 90);
    put(AOV_START_MODE_HEAD, 2);
    put(AOV_START_MODE_HEAD + 4, 8);
    put(AOV_START_FRAME_INFO_LO, 320);
    put(AOV_START_FRAME_INFO_LO + 4, 240);
    put(AOV_START_FRAME_INFO_HI, 160);
    put(AOV_START_FRAME_INFO_HI + 4, 120);
    put(AOV_START_FRAME_RATE, 10);
    return start;
}

// A session of `events` events as aov-sim's default run makes it; with
// `content`, 64 KiB of areas per event. With `whole` false, only the open and
// the dequeues (for the node alone).
std::string makeRecording(int events, bool content, bool whole) {
    const std::string path = benchDir() + "/aov_replay_bench_" + std::to_string(::getpid()) + "_" +
                             std::to_string(events) + (content ? "_content" : "") +
                             (whole ? "" : "_node") + ".rec";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    aovrec::SessionBuilder b(fd,
                             content ? aovrec::ContentMode::kWritten : aovrec::ContentMode::kNone,
                             aovrec::Compression::kZstd);
    b.open(AOV_DEVICE_NODE, O_RDWR | O_CLOEXEC, kFd);
    aov_sensor_list ids{};
    ids.count = 1;
    if (whole) {
        const std::vector<uint8_t> start = defaultStart();
        b.ioctl(kFd, AOV_IOC_START, start.data(), start.size(), 0);
        b.ioctl(kFd, AOV_IOC_ULPOSC3_ON, nullptr, 0, 0);
        b.ioctl(kFd, AOV_IOC_SENSOR_ON, &ids, sizeof(ids), 0);
    }
    std::vector<std::vector<uint8_t>> data;
    for (uint32_t bytes : kContentBytes) {
        data.emplace_back(bytes);
    }
    const aov_event_query sent{};
    for (int i = 0; i < events; ++i) {
        b.advance(100000);
        aov_event_query back{};
        back.header[0] = static_cast<uint32_t>(i + 1);
        aovrec::SessionBuilder::Area areas[4];
        size_t count = 0;
        if (content) {
            back.header[5] = 1;
            for (size_t s = 0; s < 4; ++s) {
                if (kContentBytes[s] == 0) {
                    continue;
                }
                for (size_t k = 0; k < data[s].size(); ++k) {
                    data[s][k] = static_cast<uint8_t>(i + s + k);
                }
                areas[count++] = {static_cast<uint8_t>(s + 1), data[s].data(), kContentBytes[s]};
            }
            back.s1_info = kContentBytes[0];
            back.s2_info = kContentBytes[1];
            back.s4_info[0] = kContentBytes[3];
        }
        b.ioctl(kFd, AOV_IOC_DEQUEUE_EVENT, &sent, sizeof(sent), 0, &back, sizeof(back), areas,
                count);
    }
    if (whole) {
        b.ioctl(kFd, AOV_IOC_SENSOR_OFF, &ids, sizeof(ids), 0);
        b.ioctl(kFd, AOV_IOC_ULPOSC3_OFF, nullptr, 0, 0);
        b.ioctl(kFd, AOV_IOC_STOP, nullptr, 0, 0);
    }
    b.close(kFd, 0);
    ::close(fd);
    return b.ok() ? path : "";
}

// Runs aov-sim on `path` with its output thrown away; its exit status.
int replay(const std::string& path, int events) {
    const std::string count = std::to_string(events);
    const char* argv[] = {AOV_SIM_PATH, "--replay",    path.c_str(), "--speed", "max",
                          "--events",   count.c_str(), "--timeout",  "600",     nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, AOV_SIM_PATH, &actions, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void runSessions(benchmark::State& state, bool content) {
    const int events = static_cast<int>(state.range(0));
    const std::string path = makeRecording(events, content, true);
    if (path.empty()) {
        state.SkipWithError("the recording could not be written");
        return;
    }
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        const int status = replay(path, events);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        if (status != 0) {
            state.SkipWithError(("aov-sim --replay ended with " + std::to_string(status)).c_str());
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * events);
    ::unlink(path.c_str());
}

void BM_Replay_Session(benchmark::State& state) {
    runSessions(state, false);
}
BENCHMARK(BM_Replay_Session)
    ->Arg(1)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

void BM_Replay_Session_Content(benchmark::State& state) {
    runSessions(state, true);
}
BENCHMARK(BM_Replay_Session_Content)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// The node alone: 10,000 dequeues answered into one event buffer.
void runNode(benchmark::State& state, bool content) {
    constexpr int kEvents = 10000;
    const std::string path = makeRecording(kEvents, content, false);
    std::vector<uint8_t> event(sizeof(aov_event));
    aov_event_query query{};
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        aov_query_set_area(&query, s, event.data() + aov_event_sections[s].data_offset);
    }
    for (auto _ : state) {
        state.PauseTiming();
        std::string problem;
        std::shared_ptr<aovsimtool::ReplayNode> node =
            aovsimtool::ReplayNode::loadFile(path, 0, &problem);
        const int fd = node ? node->open(O_RDWR | O_CLOEXEC) : -1;
        state.ResumeTiming();
        if (fd < 0) {
            state.SkipWithError("the recording did not load");
            break;
        }
        for (int i = 0; i < kEvents; ++i) {
            aov_event_query q = query;
            if (node->ioctl(fd, AOV_IOC_DEQUEUE_EVENT, &q) != 0) {
                state.SkipWithError("a dequeue failed");
                break;
            }
        }
        benchmark::DoNotOptimize(event.data());
        state.PauseTiming();
        node->close(fd);
        node.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
    ::unlink(path.c_str());
}

void BM_Replay_Node_HeaderOnly(benchmark::State& state) {
    runNode(state, false);
}
BENCHMARK(BM_Replay_Node_HeaderOnly)->Iterations(5)->Unit(benchmark::kMillisecond);

void BM_Replay_Node_Content(benchmark::State& state) {
    runNode(state, true);
}
BENCHMARK(BM_Replay_Node_Content)->Iterations(5)->Unit(benchmark::kMillisecond);

// The floor: the same 64 KiB per event copied into an event buffer.
void BM_Copy_Areas(benchmark::State& state) {
    constexpr int kEvents = 10000;
    std::vector<uint8_t> event(sizeof(aov_event));
    std::vector<std::vector<uint8_t>> data;
    for (uint32_t bytes : kContentBytes) {
        data.emplace_back(bytes, 0x5a);
    }
    for (auto _ : state) {
        for (int i = 0; i < kEvents; ++i) {
            for (size_t s = 0; s < 4; ++s) {
                std::memcpy(event.data() + aov_event_sections[s].data_offset, data[s].data(),
                            kContentBytes[s]);
            }
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
}
BENCHMARK(BM_Copy_Areas)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
