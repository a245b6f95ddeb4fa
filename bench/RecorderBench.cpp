// Cost of the session recorder as a recorded program pays it: each figure is
// taken in a process started with LD_PRELOAD=libaov_rec_preload.so (and,
// after it, a driver of the benchmark's own, libaov_rec_bench_driver.so),
// calling ioctl through its PLT: the preloaded variadic ioctl, the recorder,
// then the next definition it resolved (the driver, which answers a dequeue
// at once and hands anything else to the C library). Baselines are taken in
// the same process, interleaved with the figures:
//  - passthrough: FIONREAD on a pipe, batches of 64 calls, through the PLT
//    against the driver's ioctl called directly (what the program calls
//    without the recorder) and the C library's;
//  - header-only dequeue on the node, recorded, against the driver's answer;
//  - content: a dequeue whose five basic areas (1,218,648 bytes) are kept,
//    ten a second with the writer thread working between them (nothing is
//    drained), its added latency against a memcpy of the same bytes; and
//    back to back for 3 s, the sustained rate and the content dropped.
// Medians and 99th percentiles. Files go to $AOV_REC_BENCH_DIR (default /tmp).
// Run: build/release/bench/aov_rec_bench

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

extern char** environ;

namespace {

using IoctlFn = int (*)(int, unsigned long, ...);

uint64_t nowNs() {
    timespec t;
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + static_cast<uint64_t>(t.tv_nsec);
}

double quantile(std::vector<double> v, double q) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    const size_t at =
        std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())));
    return v[at];
}

void put(const char* name, const std::vector<double>& samples) {
    std::printf("%s %.1f %.1f\n", name, quantile(samples, 0.5), quantile(samples, 0.99));
}

IoctlFn symbolIn(const char* library, const char* name) {
    void* handle = ::dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    return handle != nullptr ? reinterpret_cast<IoctlFn>(::dlsym(handle, name)) : nullptr;
}

struct EventBuffer {
    explicit EventBuffer(bool random) : bytes(sizeof(aov_event), 0) {
        std::mt19937 gen(7);
        for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            uint8_t* area = bytes.data() + section.data_offset;
            for (uint32_t i = 0; i < section.data_size; ++i) {
                area[i] = random ? static_cast<uint8_t>(gen()) : static_cast<uint8_t>(s * 7 + 1);
            }
            std::memcpy(area, &section.data_size, sizeof(uint32_t));
        }
    }
    aov_event_query query() {
        aov_event_query q{};
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            aov_query_set_area(&q, s, bytes.data() + aov_event_sections[s].data_offset);
        }
        return q;
    }
    // Copies the five basic areas into `to`, as the recorder keeps them.
    void copyBasic(uint8_t* to) const {
        for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            std::memcpy(to, bytes.data() + section.data_offset, section.data_size);
            to += section.data_size;
        }
    }
    std::vector<uint8_t> bytes;
};

size_t basicAreaBytes() {
    size_t total = 0;
    for (int s = 0; s < AOV_BASIC_SECTION_COUNT; ++s) {
        total += aov_event_sections[s].data_size;
    }
    return total;
}

int childCalls(IoctlFn driver, IoctlFn libc, int node) {
    int fds[2];
    if (::pipe(fds) != 0) {
        return 1;
    }
    constexpr int kBatch = 64;
    constexpr int kBatches = 20000;
    std::vector<double> viaLibc, viaDriver, viaPlt;
    int pending = 0;
    for (int b = 0; b < kBatches; ++b) {
        uint64_t t0 = nowNs();
        for (int i = 0; i < kBatch; ++i) {
            libc(fds[0], FIONREAD, &pending);
        }
        uint64_t t1 = nowNs();
        for (int i = 0; i < kBatch; ++i) {
            driver(fds[0], FIONREAD, &pending);
        }
        uint64_t t2 = nowNs();
        for (int i = 0; i < kBatch; ++i) {
            ::ioctl(fds[0], FIONREAD, &pending);
        }
        uint64_t t3 = nowNs();
        viaLibc.push_back(static_cast<double>(t1 - t0) / kBatch);
        viaDriver.push_back(static_cast<double>(t2 - t1) / kBatch);
        viaPlt.push_back(static_cast<double>(t3 - t2) / kBatch);
    }
    put("pass_libc", viaLibc);
    put("pass_driver", viaDriver);
    put("pass_preloaded", viaPlt);

    EventBuffer buffer(false);
    std::vector<double> bare, recorded, added;
    for (int i = 0; i < 20000; ++i) {
        aov_event_query q = buffer.query();
        const uint64_t t0 = nowNs();
        driver(node, AOV_IOC_DEQUEUE_EVENT, &q);
        const uint64_t t1 = nowNs();
        q = buffer.query();
        ::ioctl(node, AOV_IOC_DEQUEUE_EVENT, &q);
        const uint64_t t2 = nowNs();
        bare.push_back(static_cast<double>(t1 - t0));
        recorded.push_back(static_cast<double>(t2 - t1));
        added.push_back(static_cast<double>(t2 - t1) - static_cast<double>(t1 - t0));
    }
    put("header_bare", bare);
    put("header_recorded", recorded);
    put("header_added", added);
    return 0;
}

int childPaced(IoctlFn driver, int node, bool random) {
    EventBuffer buffer(random);
    std::vector<uint8_t> copy(basicAreaBytes());
    std::vector<double> copies, bare, recorded, added;
    constexpr int kEvents = 150;
    timespec next;
    ::clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < kEvents; ++i) {
        next.tv_nsec += 100000000;
        if (next.tv_nsec >= 1000000000) {
            next.tv_nsec -= 1000000000;
            ++next.tv_sec;
        }
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
        }
        // The copy before the recorded dequeue on even events, after it on
        // odd ones: neither always finds the bytes in the cache.
        uint64_t copyNs = 0;
        auto timeCopy = [&] {
            const uint64_t t = nowNs();
            buffer.copyBasic(copy.data());
            copyNs = nowNs() - t;
        };
        if (i % 2 == 0) {
            timeCopy();
        }
        aov_event_query q = buffer.query();
        const uint64_t t0 = nowNs();
        driver(node, AOV_IOC_DEQUEUE_EVENT, &q);
        const uint64_t t1 = nowNs();
        q = buffer.query();
        ::ioctl(node, AOV_IOC_DEQUEUE_EVENT, &q);
        const uint64_t t2 = nowNs();
        if (i % 2 == 1) {
            timeCopy();
        }
        copies.push_back(static_cast<double>(copyNs));
        bare.push_back(static_cast<double>(t1 - t0));
        recorded.push_back(static_cast<double>(t2 - t1));
        added.push_back(static_cast<double>(t2 - t1) - static_cast<double>(t1 - t0));
    }
    put("paced_copy", copies);
    put("paced_recorded", recorded);
    put("paced_added", added);
    return 0;
}

int childSustained(int node, bool random) {
    EventBuffer buffer(random);
    const uint64_t start = nowNs();
    uint64_t count = 0;
    while (nowNs() - start < 3000000000ull) {
        aov_event_query q = buffer.query();
        ::ioctl(node, AOV_IOC_DEQUEUE_EVENT, &q);
        ++count;
    }
    std::printf("sustained_rate %.1f\n",
                static_cast<double>(count) / (static_cast<double>(nowNs() - start) / 1e9));
    return 0;
}

int runChild(const std::string& mode) {
    const IoctlFn driver = symbolIn(AOV_REC_BENCH_DRIVER, "ioctl");
    const IoctlFn libc = symbolIn("libc.so.6", "ioctl");
    if (driver == nullptr || libc == nullptr || symbolIn(AOV_REC_PRELOAD, "ioctl") == nullptr) {
        std::fprintf(stderr, "aov_rec_bench: not running with the recorder and driver preloaded\n");
        return 1;
    }
    const int node = ::open(std::getenv("AOV_REC_NODE"), O_RDWR | O_CLOEXEC);
    if (node < 0) {
        std::fprintf(stderr, "aov_rec_bench: cannot open the node file: %s\n",
                     std::strerror(errno));
        return 1;
    }
    const bool random = mode.find("random") != std::string::npos;
    int result = 1;
    if (mode == "calls") {
        result = childCalls(driver, libc, node);
    } else if (mode.rfind("paced", 0) == 0) {
        result = childPaced(driver, node, random);
    } else if (mode.rfind("sustained", 0) == 0) {
        result = childSustained(node, random);
    }
    std::fflush(stdout);
    ::close(node);
    return result;
}

// Runs this program as a child in `mode`; its "name median p99" lines.
std::map<std::string, std::vector<double>> spawnChild(const std::string& self,
                                                      const std::string& mode,
                                                      const std::string& file, bool zstd) {
    const char* dirEnv = std::getenv("AOV_REC_BENCH_DIR");
    const std::string dir = dirEnv != nullptr ? dirEnv : "/tmp";
    const std::string node = dir + "/aov_rec_bench_node_" + std::to_string(::getpid());
    if (FILE* f = std::fopen(node.c_str(), "w")) {
        std::fclose(f);
    }
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        env.emplace_back(*e);
    }
    env.push_back(std::string("LD_PRELOAD=") + AOV_REC_PRELOAD + ":" + AOV_REC_BENCH_DRIVER);
    env.push_back("AOV_REC_FILE=" + file);
    env.push_back("AOV_REC_NODE=" + node);
    env.push_back(std::string("AOV_REC_ZSTD=") + (zstd ? "1" : "0"));
    env.push_back(std::string("AOV_REC_BENCH_CONTENT=") + (mode == "calls" ? "0" : "1"));
    std::vector<char*> envp;
    for (std::string& e : env) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    std::string flag = "--child";
    std::string modeArg = mode;
    std::string selfArg = self;
    char* argv[] = {selfArg.data(), flag.data(), modeArg.data(), nullptr};
    int out[2];
    std::map<std::string, std::vector<double>> lines;
    if (::pipe(out) != 0) {
        return lines;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    char chunk[4096];
    ssize_t n;
    while (spawned == 0 && (n = ::read(out[0], chunk, sizeof(chunk))) > 0) {
        text.append(chunk, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    if (spawned == 0) {
        ::waitpid(pid, &status, 0);
    }
    ::unlink(node.c_str());
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        char name[64];
        double a = 0, b = 0;
        const int got = std::sscanf(line.c_str(), "%63s %lf %lf", name, &a, &b);
        if (got >= 2) {
            lines[name] = got == 3 ? std::vector<double>{a, b} : std::vector<double>{a};
        }
    }
    return lines;
}

// Dequeues in a recording, and those whose areas were dropped.
void countDropped(const std::string& file, uint64_t* dequeues, uint64_t* dropped) {
    *dequeues = 0;
    *dropped = 0;
    aovrec::FileSource source;
    std::string why;
    if (!source.open(file, &why)) {
        return;
    }
    aovrec::SessionReader reader(source);
    if (!reader.start()) {
        return;
    }
    aovrec::Record r;
    while (reader.next(&r) == aovrec::SessionReader::Next::kRecord) {
        if (r.type == aovrec::RecordType::kIoctl && r.request == AOV_IOC_DEQUEUE_EVENT) {
            ++*dequeues;
            *dropped += (r.arg_flags & aovrec::kArgContentDropped) != 0 ? 1 : 0;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0) {
        return runChild(argv[2]);
    }
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return 1;
    }
    self[n] = '\0';
    const char* dirEnv = std::getenv("AOV_REC_BENCH_DIR");
    const std::string file = std::string(dirEnv != nullptr ? dirEnv : "/tmp") + "/aov_rec_bench_" +
                             std::to_string(::getpid()) + ".rec";
    double load[3] = {};
    ::getloadavg(load, 3);
    std::printf("load average at start: %.2f %.2f %.2f\n", load[0], load[1], load[2]);

    auto calls = spawnChild(self, "calls", file, true);
    auto row = [&calls](const char* what, const char* key) {
        const std::vector<double>& v = calls[key];
        std::printf("%-58s median %9.1f ns  p99 %9.1f ns\n", what, v.size() > 0 ? v[0] : 0,
                    v.size() > 1 ? v[1] : 0);
    };
    row("ioctl on another descriptor, the C library's", "pass_libc");
    row("ioctl on another descriptor, the driver's directly", "pass_driver");
    row("ioctl on another descriptor, through the PLT (preloaded)", "pass_preloaded");
    if (calls["pass_driver"].size() == 2 && calls["pass_driver"][0] > 0) {
        std::printf("  preloaded / driver directly: median %.3fx, p99 %.3fx\n",
                    calls["pass_preloaded"][0] / calls["pass_driver"][0],
                    calls["pass_preloaded"][1] / calls["pass_driver"][1]);
    }
    row("header-only dequeue, the driver's answer", "header_bare");
    row("header-only dequeue, recorded", "header_recorded");
    row("header-only dequeue, added by the recorder", "header_added");

    struct Content {
        const char* name;
        const char* paced;
        const char* sustained;
        bool zstd;
    };
    const Content contents[] = {
        {"zstd, the emulated driver's content", "paced", "sustained", true},
        {"uncompressed", "paced", "sustained", false},
        {"zstd, incompressible bytes", "paced-random", "sustained-random", true},
    };
    for (const Content& c : contents) {
        auto paced = spawnChild(self, c.paced, file, c.zstd);
        std::printf("content (1,218,648 bytes), 10 events/s, %s:\n", c.name);
        auto show = [&paced](const char* what, const char* key) {
            const std::vector<double>& v = paced[key];
            std::printf("  %-40s median %9.1f us  p99 %9.1f us\n", what,
                        v.size() > 0 ? v[0] / 1000 : 0, v.size() > 1 ? v[1] / 1000 : 0);
        };
        show("memcpy of the bytes", "paced_copy");
        show("recorded dequeue", "paced_recorded");
        show("added by the recorder", "paced_added");
        if (paced["paced_copy"].size() == 2 && paced["paced_added"].size() == 2) {
            std::printf("  p99 added / memcpy: %.2fx of its median, %.2fx of its p99\n",
                        paced["paced_added"][1] / paced["paced_copy"][0],
                        paced["paced_added"][1] / paced["paced_copy"][1]);
        }
        auto sustained = spawnChild(self, c.sustained, file, c.zstd);
        uint64_t dequeues = 0;
        uint64_t dropped = 0;
        countDropped(file, &dequeues, &dropped);
        const std::vector<double>& rate = sustained["sustained_rate"];
        std::printf("  back to back: %.0f dequeues/s, %" PRIu64 " of %" PRIu64
                    " recorded without their areas\n",
                    rate.empty() ? 0 : rate[0], dropped, dequeues);
    }
    ::unlink(file.c_str());
    ::getloadavg(load, 3);
    std::printf("load average at end: %.2f %.2f %.2f\n", load[0], load[1], load[2]);
    return 0;
}
