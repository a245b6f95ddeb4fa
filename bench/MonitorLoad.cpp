// aov_monitor_load: figures for the epoll event monitor, not a test.
//
//   aov_monitor_load cycles [N] [pending|timer]
//       N start/stop sessions of the library on the simulated platform, each
//       ended as soon as its first event reached the callback. "pending"
//       (default) queues an event right after startDevice, so the monitor is
//       notified while the event buffer may not exist yet; "timer" waits for
//       the 10 fps frame timer (the fastest always-on rate). Prints the
//       library's error lines per start.
//   aov_monitor_load idle [seconds]
//       Process CPU time over the period with the monitor watching (a) a
//       quiet descriptor and (b) a descriptor left readable by an observer
//       that never consumes it.
//
// Run it with and without other load on the machine (two busy loops, say).

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventObserver.h"
#include "IAOVDevice.h"
#include "IAOVSensor.h"
#include "aovsim/EpollEventMonitor.h"
#include "aovsim/Simulation.h"

namespace {

using Clock = std::chrono::steady_clock;

aovsim::SimConfig oneSensorAt10Fps() {
    aovsim::SimConfig config;
    config.name = "monitor-load";
    aovsim::SensorConfig sensor;
    sensor.id = 0;
    sensor.device = 1;
    sensor.orientation = 90;
    aovsim::ScenarioConfig mode;
    mode.index = 2;
    mode.width = 320;
    mode.height = 240;
    mode.rate = 100;
    mode.type = 2;
    mode.bit = 8;
    sensor.scenarios = {mode};
    config.sensors = {sensor};
    return config;
}

double processCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void printMonitor(const aovsim::EpollEventMonitor& monitor) {
    const aovsim::MonitorStats stats = monitor.stats();
    std::printf("monitor: wake-ups %llu, notifications %llu, back-offs %llu (longest %lld ms)\n",
                static_cast<unsigned long long>(stats.wakeups),
                static_cast<unsigned long long>(stats.notifications),
                static_cast<unsigned long long>(stats.stalls),
                static_cast<long long>(stats.longest_backoff.count()));
}

int cycles(int count, bool pendingAtStart) {
    auto trace = std::make_shared<aovsim::Trace>();
    // Static, as in aov-sim: the services keep the platform objects until exit.
    static aovsim::Simulation sim(oneSensorAt10Fps(), trace);
    IAOVSensor* sensors = IAOVSensor::getInstance();
    IAOVDevice* device = IAOVDevice::getInstance();
    if (sensors->querySensors().empty()) {
        std::fprintf(stderr, "no sensor\n");
        return 1;
    }

    std::mutex mutex;
    std::condition_variable cv;
    uint64_t delivered = 0;
    device->callback_ = [&](aov_event*) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            ++delivered;
        }
        cv.notify_all();
    };

    // Progress, as aov-sim counts it: events that reached the callback.
    aovsim::EpollEventMonitor monitor(0, aovsim::BackoffPolicy(), [&] {
        std::lock_guard<std::mutex> guard(mutex);
        return delivered;
    });
    std::vector<uint64_t> perStart;
    perStart.reserve(static_cast<size_t>(count));
    const auto began = Clock::now();
    for (int i = 0; i < count; ++i) {
        user_param param;
        std::memset(&param, 0, sizeof(param));
        param.sensor_id = 0;
        param.width = 320;
        param.height = 240;
        param.frame_rate = 10;
        if (sensors->startSensor(param) < 0 || device->startDevice(param) < 0) {
            std::fprintf(stderr, "cycle %d: start failed\n", i);
            return 1;
        }
        const uint64_t errorsBefore = sim.logSink().errorLines();
        uint64_t target;
        {
            std::lock_guard<std::mutex> guard(mutex);
            target = delivered + 1;
        }
        if (pendingAtStart) {
            sim.driver().produceEvent();
        }
        device->setMonitor(&monitor);
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!cv.wait_for(lock, std::chrono::seconds(10), [&] { return delivered >= target; })) {
                std::fprintf(stderr, "cycle %d: no event within 10 s\n", i);
                return 1;
            }
        }
        device->setMonitor(nullptr);
        sensors->stopSensor();
        device->stopDevice();
        perStart.push_back(sim.logSink().errorLines() - errorsBefore);
    }
    const double wall = std::chrono::duration<double>(Clock::now() - began).count();
    device->callback_ = nullptr;

    std::vector<uint64_t> sorted = perStart;
    std::sort(sorted.begin(), sorted.end());
    uint64_t total = 0;
    size_t withErrors = 0;
    for (uint64_t n : perStart) {
        total += n;
        withErrors += n > 0 ? 1 : 0;
    }
    const auto at = [&](double p) {
        const size_t rank = static_cast<size_t>(p / 100.0 * static_cast<double>(sorted.size()));
        return static_cast<unsigned long long>(sorted[std::min(rank, sorted.size() - 1)]);
    };
    std::printf("%d starts (%s) in %.2f s\n", count,
                pendingAtStart ? "event pending at start" : "frame timer", wall);
    std::printf(
        "library error lines: total %llu, starts with any %zu, per start mean %.2f, "
        "p50 %llu, p99 %llu, max %llu\n",
        static_cast<unsigned long long>(total), withErrors, static_cast<double>(total) / count,
        at(50), at(99), static_cast<unsigned long long>(sorted.back()));
    printMonitor(monitor);
    return 0;
}

// Never consumes: its descriptor stays readable once signalled.
class StuckObserver : public EventObserver {
  public:
    StuckObserver() : fd_(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~StuckObserver() override { ::close(fd_); }
    int setMonitor(EventMonitor*) override { return 0; }
    const std::string& getEventName() override { return name_; }
    int getEventFD() override { return fd_; }
    int getEventType() override { return 2; }
    void notifyEvent(int, int) override {}
    void quiet() {
        uint64_t value;
        (void)!::read(fd_, &value, sizeof(value));
    }

  private:
    int fd_;
    std::string name_ = "stuck";
};

int idle(double seconds) {
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (bool readable : {false, true}) {
        aovsim::EpollEventMonitor monitor;
        StuckObserver observer;
        if (!readable) {
            observer.quiet();
        }
        monitor.addObserver(&observer, -1);
        const double before = processCpuSeconds();
        std::this_thread::sleep_for(period);
        const double used = processCpuSeconds() - before;
        monitor.removeObserver(&observer, -1);
        std::printf("%s descriptor for %.1f s: process CPU %.3f ms (%.2f%% of one CPU)\n",
                    readable ? "readable, never consumed," : "quiet", seconds, used * 1e3,
                    100.0 * used / seconds);
        printMonitor(monitor);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "cycles") {
        const int count = argc > 2 ? std::atoi(argv[2]) : 1000;
        const bool pending = argc > 3 ? std::string(argv[3]) != "timer" : true;
        return cycles(count > 0 ? count : 1000, pending);
    }
    if (what == "idle") {
        const double seconds = argc > 2 ? std::atof(argv[2]) : 1.0;
        return idle(seconds > 0 ? seconds : 1.0);
    }
    std::fprintf(stderr, "usage: %s cycles [N] [pending|timer] | idle [seconds]\n", argv[0]);
    return 2;
}
