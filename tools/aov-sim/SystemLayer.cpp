#include "SystemLayer.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "aovsim/EpollEventMonitor.h"
#include "aovsim/EventContent.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using aovsim::format;
using aovsim::TraceSource;

template <class T>
std::string listOf(const std::vector<T>& values) {
    std::string text;
    for (const T& value : values) {
        text += (text.empty() ? "" : ", ") + std::to_string(value);
    }
    return text;
}

// Nearest-rank percentile of sorted samples.
double percentile(const std::vector<double>& sorted, double p) {
    const auto rank =
        static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(sorted.size())));
    return sorted[rank == 0 ? 0 : rank - 1];
}

}  // namespace

SystemLayer::SystemLayer(const Options& options, aovsim::Simulation& sim)
    : options_(options), sim_(sim) {}

void SystemLayer::say(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string line = aovsim::vformat(fmt, args);
    va_end(args);
    sim_.trace().record(TraceSource::kSystem, line);
}

int SystemLayer::badInput(const std::string& message) {
    std::fprintf(stderr, "aov-sim: error: %s\n", message.c_str());
    return kExitBadInput;
}

int SystemLayer::failure(const std::string& message) {
    std::fprintf(stderr, "aov-sim: failed: %s\n", message.c_str());
    return kExitRuntimeFailure;
}

int SystemLayer::run() {
    say("scenario \"%s\": %zu sensors on the platform", sim_.config().name.c_str(),
        sim_.config().sensors.size());
    say("step 1: obtaining the services");
    IAOVSensor* sensors = IAOVSensor::getInstance();
    IAOVDevice* device = IAOVDevice::getInstance();
    say("isSupport() -> %s", device->isSupport() ? "true" : "false");

    say("step 2: discovery");
    ModeChoice choice;
    const int found = discover(sensors, &choice);
    if (found != kExitOk) {
        return found;
    }
    return session(sensors, device, choice);
}

int SystemLayer::discover(IAOVSensor* sensors, ModeChoice* choice) {
    const std::vector<int> ids = sensors->querySensors();
    say("querySensors() -> [%s]", listOf(ids).c_str());
    std::vector<CataloguedSensor> catalogue;
    for (int id : ids) {
        const int dev = sensors->getSensorDev(id);
        const std::vector<sensor_info> infos = sensors->getSensorInfo(id);
        say("sensor %d: device 0x%x, %zu sizes", id, dev, infos.size());
        for (const sensor_info& info : infos) {
            std::string modes;
            for (const sensor_mode& mode : info.mode) {
                modes += format("%s{scenario %d: %u fps, type %u, bit %u, ae %u, param %u}",
                                modes.empty() ? "" : " ", mode.scenario, mode.fps, mode.type,
                                mode.bit, mode.sensor_ae, mode.mode_param);
            }
            say("  %dx%d orientation %d face %d fps [%s] %s", info.width, info.height,
                info.orientation, info.face, listOf(info.fps).c_str(), modes.c_str());
        }
        catalogue.push_back(CataloguedSensor{id, infos});
    }

    ModeRequest request;
    request.sensor_given = options_.sensor_given;
    request.sensor = options_.sensor;
    request.size_given = options_.size_given;
    request.width = options_.width;
    request.height = options_.height;
    request.fps_given = options_.fps_given;
    request.fps = options_.fps;
    request.force = options_.force;
    *choice = chooseMode(catalogue, request);
    switch (choice->outcome) {
        case ModeChoice::Outcome::kChosen:
            break;
        case ModeChoice::Outcome::kBadInput:
            return badInput(choice->problem);
        case ModeChoice::Outcome::kNoSensor:
            return failure(choice->problem);
    }
    say("chosen: sensor %d, %dx%d at %d fps%s", choice->sensor, choice->width, choice->height,
        choice->fps, options_.force ? " (--force)" : "");

    unsigned int mode = 0;
    const int result = sensors->getSensorMode(choice->sensor, mode);
    say("getSensorMode(%d) -> %d, detection mode %u", choice->sensor, result, mode);
    if (result < 0 && !options_.force) {
        return failure(format("getSensorMode(%d) failed: %d", choice->sensor, result));
    }
    return kExitOk;
}

int SystemLayer::session(IAOVSensor* sensors, IAOVDevice* device, const ModeChoice& choice) {
    say("step 3: starting the sensor");
    user_param param;
    std::memset(&param, 0, sizeof(param));
    param.sensor_id = choice.sensor;
    param.width = choice.width;
    param.height = choice.height;
    param.frame_rate = choice.fps;
    param.frame_info_sel = options_.frame_info_sel;
    param.aov_mode = options_.aov_mode;
    aov_mode_ = options_.aov_mode;
    int result = sensors->startSensor(param);
    say("startSensor() -> %d", result);
    printUserParam(param);
    if (result < 0) {
        stop(sensors, device, nullptr, false);
        return failure(format("startSensor failed: %d", result));
    }

    say("step 4: starting the device");
    result = device->startDevice(param);
    say("startDevice() -> %d", result);
    if (result < 0) {
        stop(sensors, device, nullptr, false);
        return failure(format("startDevice failed: %d", result));
    }

    say("step 5: attaching the event monitor");
    device->callback_ = [this](aov_event* event) { onEvent(event); };
    // A notification got somewhere when an event reached the callback; one
    // that leaves the descriptor readable without that makes the monitor back off.
    aovsim::EpollEventMonitor monitor(options_.verbosity, aovsim::BackoffPolicy(), [this] {
        std::lock_guard<std::mutex> guard(mutex_);
        return delivered_;
    });
    say("setMonitor(monitor) -> %d, watching fd %d", device->setMonitor(&monitor),
        device->getEventFD());

    say("step 6: relaying clock and sensor notifications, receiving events");
    const std::vector<int> notifyIds =
        options_.notify_ids_given ? options_.notify_ids : std::vector<int>{choice.sensor};
    say("notifyUlposc3(true) -> %d", device->notifyUlposc3(true));
    say("notifySensor(%zu ids, true) -> %d", notifyIds.size(),
        device->notifySensor(notifyIds, true));
    bool timedOut = false;
    waitForEvents(choice, &timedOut);
    say("notifySensor(%zu ids, false) -> %d", notifyIds.size(),
        device->notifySensor(notifyIds, false));
    say("notifyUlposc3(false) -> %d", device->notifyUlposc3(false));

    stop(sensors, device, &monitor, true);
    if (timedOut) {
        std::lock_guard<std::mutex> guard(mutex_);
        return failure(format("timed out with %llu of %d events delivered",
                              static_cast<unsigned long long>(delivered_), options_.events));
    }
    return kExitOk;
}

void SystemLayer::stop(IAOVSensor* sensors, IAOVDevice* device,
                       const aovsim::EpollEventMonitor* monitor, bool deviceStarted) {
    say("step 7: stopping");
    if (monitor != nullptr) {
        // Detaching waits for a notification in progress, so stopDevice never
        // frees the event buffer under one.
        say("setMonitor(nullptr) -> %d", device->setMonitor(nullptr));
        device->callback_ = nullptr;
    }
    say("stopSensor() -> %d", sensors->stopSensor());
    if (deviceStarted) {
        say("stopDevice() -> %d", device->stopDevice());
    }
    printSummary(monitor);
}

void SystemLayer::waitForEvents(const ModeChoice& choice, bool* timedOut) {
    const bool byCount = options_.duration <= 0 || options_.events_given;
    double seconds = options_.duration;
    if (seconds <= 0) {
        const double rate = choice.fps > 0 ? choice.fps : 1;
        seconds = options_.timeout > 0 ? options_.timeout : 5.0 + 3.0 * options_.events / rate;
    }
    if (byCount) {
        say("waiting for %d events (at most %.1f s)", options_.events, seconds);
    } else {
        say("receiving events for %.1f s", seconds);
    }
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(seconds));
    std::unique_lock<std::mutex> lock(mutex_);
    const bool reached = delivered_cv_.wait_until(lock, deadline, [this, byCount] {
        return byCount && delivered_ >= static_cast<uint64_t>(options_.events);
    });
    *timedOut = byCount && !reached && options_.duration <= 0;
}

void SystemLayer::onEvent(const aov_event* event) {
    const aovsim::DequeueMark mark = sim_.driver().lastDequeue();
    const uint32_t* h = event->header;
    std::string line = format("header=[%u, %u, %u, %u, %u, %u] s1_info=%u s4_info=[%u, %u, %u, %u]",
                              h[0], h[1], h[2], h[3], h[4], h[5], event->s1_info, event->s4_info[0],
                              event->s4_info[1], event->s4_info[2], event->s4_info[3]);
    if (aov_mode_ == AOV_MODE_FULL_CONTENT) {
        line += format(" s6_info=[%u, %u, %u, %u, %u]", event->s6_info[0], event->s6_info[1],
                       event->s6_info[2], event->s6_info[3], event->s6_info[4]);
    }
    bool mismatch = false;
    if (h[5] != 0) {
        const int sections =
            aov_mode_ == AOV_MODE_FULL_CONTENT ? AOV_SECTION_COUNT : AOV_BASIC_SECTION_COUNT;
        const auto* buffer = reinterpret_cast<const uint8_t*>(event);
        std::string bad;
        for (int s = 0; s < sections; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            if (!aovsim::sectionContentMatches(buffer + section.data_offset, section.data_size,
                                               h[0], static_cast<uint32_t>(s + 1))) {
                bad += format("%s%d", bad.empty() ? "" : ",", s + 1);
            }
        }
        mismatch = !bad.empty();
        line += mismatch ? " content MISMATCH in sections " + bad
                         : format(" content ok (%d sections)", sections);
    } else {
        line += " no content";
    }
    uint64_t number;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        number = ++delivered_;
    }
    sim_.trace().record(TraceSource::kEvent,
                        format("#%llu ", static_cast<unsigned long long>(number)) + line);
    // The callback is done once its line is out.
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard<std::mutex> guard(mutex_);
        content_mismatches_ += mismatch ? 1 : 0;
        if (mark.sequence == h[0]) {
            latencies_us_.push_back(
                std::chrono::duration<double, std::micro>(now - mark.produced_at).count());
        }
    }
    delivered_cv_.notify_all();
}

void SystemLayer::printUserParam(const user_param& p) {
    say("user_param: sensor_id %d scenario %d orientation %d face %d mode_head [%u, %u, %u, %u]",
        p.sensor_id, p.scenario, p.orientation, p.face, p.mode_head[0], p.mode_head[1],
        p.mode_head[2], p.mode_head[3]);
    say("user_param: frame_info [%d, %d, %d, %d] frame_rate %d frame_info_sel %d aov_mode %d "
        "sensor_idx %d width %d height %d",
        p.frame_info0, p.frame_info1, p.frame_info2, p.frame_info3, p.frame_rate, p.frame_info_sel,
        p.aov_mode, p.sensor_idx, p.width, p.height);
}

void SystemLayer::printSummary(const aovsim::EpollEventMonitor* monitor) {
    const aovsim::DriverStats stats = sim_.driver().stats();
    const aovsim::PlatformSnapshot platform = sim_.platform().snapshot();
    uint64_t delivered;
    uint64_t mismatches;
    std::vector<double> latencies;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        delivered = delivered_;
        mismatches = content_mismatches_;
        latencies = latencies_us_;
    }
    const auto u = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    const uint64_t dropped = stats.produced > delivered ? stats.produced - delivered : 0;
    say("summary: events delivered %llu, dropped %llu of %llu produced (overwritten in the "
        "driver queue %llu, lost to failed dequeues %llu, discarded at stop %llu)",
        u(delivered), u(dropped), u(stats.produced), u(stats.overruns), u(stats.lost_on_failure),
        u(stats.discarded_at_stop));
    if (latencies.empty()) {
        say("summary: latency from descriptor signal to callback return: no samples");
    } else {
        std::sort(latencies.begin(), latencies.end());
        say("summary: latency from descriptor signal to callback return: p50 %.3f ms, p99 %.3f "
            "ms (%zu events)",
            percentile(latencies, 50) / 1000.0, percentile(latencies, 99) / 1000.0,
            latencies.size());
    }
    say("summary: kernel requests %llu (%llu failed), refused calls %llu, library error "
        "lines %llu, content mismatches %llu",
        u(stats.requests), u(stats.failed_requests), u(sim_.trace().refusals()),
        u(sim_.logSink().errorLines()), u(mismatches));
    if (monitor != nullptr) {
        const aovsim::MonitorStats m = monitor->stats();
        say("summary: event monitor: wake-ups %llu, notifications %llu, back-offs %llu "
            "(longest %lld ms)",
            u(m.wakeups), u(m.notifications), u(m.stalls),
            static_cast<long long>(m.longest_backoff.count()));
    }
    say("summary: platform after stop: %d sensors powered, %d on ULPOSC, %d devices open, %d "
        "agents, %d pipes (%d streaming)",
        platform.powered, platform.on_ulposc, platform.open_devices, platform.agents,
        platform.pipes, platform.started_pipes);
}

}  // namespace aovsimtool
