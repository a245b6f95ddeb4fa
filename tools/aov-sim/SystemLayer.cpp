#include "SystemLayer.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "aovsim/Format.h"

namespace aovsimtool {

namespace {

using aovsim::format;
using aovsim::vformat;

long long resultValue(int value) {
    return value;
}
long long resultValue(bool value) {
    return value ? 1 : 0;
}
template <class T>
long long resultValue(const std::vector<T>& values) {
    return static_cast<long long>(values.size());
}
template <class T>
long long resultValue(T* pointer) {
    return pointer != nullptr ? 1 : 0;
}

}  // namespace

SystemLayer::SystemLayer(const Options& options, SessionReport& report)
    : options_(options), report_(report), calls_(report.libraryCalls()) {}

template <class Call>
auto SystemLayer::timed(const char* name, Call call) -> decltype(call()) {
    if (calls_ == nullptr) {
        return call();
    }
    const auto begin = std::chrono::steady_clock::now();
    auto result = call();
    calls_->libraryCall(name, begin, resultValue(result));
    return result;
}

void SystemLayer::say(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string line = vformat(fmt, args);
    va_end(args);
    report_.say(line);
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
    report_.begin();
    say("step 1: obtaining the services");
    IAOVSensor* sensors =
        timed("IAOVSensor::getInstance", [] { return IAOVSensor::getInstance(); });
    IAOVDevice* device = timed("IAOVDevice::getInstance", [] { return IAOVDevice::getInstance(); });
    say("isSupport() -> %s",
        timed("isSupport", [device] { return device->isSupport(); }) ? "true" : "false");

    say("step 2: discovery");
    ModeChoice choice;
    const int found = discover(sensors, &choice);
    if (found != kExitOk) {
        return found;
    }
    return session(sensors, device, choice);
}

int SystemLayer::discover(IAOVSensor* sensors, ModeChoice* choice) {
    const std::vector<int> ids =
        timed("querySensors", [sensors] { return sensors->querySensors(); });
    say("querySensors() -> [%s]", listOf(ids).c_str());
    std::vector<CataloguedSensor> catalogue;
    for (int id : ids) {
        const int dev = timed("getSensorDev", [sensors, id] { return sensors->getSensorDev(id); });
        const std::vector<sensor_info> infos =
            timed("getSensorInfo", [sensors, id] { return sensors->getSensorInfo(id); });
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

    *choice = chooseMode(catalogue, options_);
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
    const int result = timed("getSensorMode", [sensors, choice, &mode] {
        return sensors->getSensorMode(choice->sensor, mode);
    });
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
    int result = timed("startSensor", [sensors, &param] { return sensors->startSensor(param); });
    say("startSensor() -> %d", result);
    printUserParam(param);
    if (result < 0) {
        stop(sensors, device, false, false);
        return failure(format("startSensor failed: %d", result));
    }

    say("step 4: starting the device");
    result = timed("startDevice", [device, &param] { return device->startDevice(param); });
    say("startDevice() -> %d", result);
    if (result < 0) {
        stop(sensors, device, false, false);
        return failure(format("startDevice failed: %d", result));
    }

    say("step 5: attaching the event monitor");
    device->callback_ = [this](aov_event* event) { onEvent(event); };
    std::unique_ptr<EventMonitor> monitor = report_.makeMonitor(options_.verbosity, [this] {
        aov::MutexLock guard(mutex_);
        return delivered_;
    });
    // Two statements: the order of a call's arguments is the compiler's choice.
    const int attached =
        timed("setMonitor", [device, &monitor] { return device->setMonitor(monitor.get()); });
    const int watched = timed("getEventFD", [device] { return device->getEventFD(); });
    say("setMonitor(monitor) -> %d, watching fd %d", attached, watched);

    say("step 6: relaying clock and sensor notifications, receiving events");
    const std::vector<int> notifyIds =
        options_.notify_ids_given ? options_.notify_ids : std::vector<int>{choice.sensor};
    say("notifyUlposc3(true) -> %d",
        timed("notifyUlposc3", [device] { return device->notifyUlposc3(true); }));
    say("notifySensor(%zu ids, true) -> %d", notifyIds.size(),
        timed("notifySensor",
              [device, &notifyIds] { return device->notifySensor(notifyIds, true); }));
    bool timedOut = false;
    waitForEvents(choice, &timedOut);
    say("notifySensor(%zu ids, false) -> %d", notifyIds.size(),
        timed("notifySensor",
              [device, &notifyIds] { return device->notifySensor(notifyIds, false); }));
    say("notifyUlposc3(false) -> %d",
        timed("notifyUlposc3", [device] { return device->notifyUlposc3(false); }));

    stop(sensors, device, true, true);
    if (timedOut) {
        aov::MutexLock guard(mutex_);
        return failure(format("timed out with %llu of %d events delivered",
                              static_cast<unsigned long long>(delivered_), options_.events));
    }
    return kExitOk;
}

void SystemLayer::stop(IAOVSensor* sensors, IAOVDevice* device, bool monitorAttached,
                       bool deviceStarted) {
    say("step 7: stopping");
    if (monitorAttached) {
        // Detaching waits for a notification in progress, so stopDevice never
        // frees the event buffer under one.
        say("setMonitor(nullptr) -> %d",
            timed("setMonitor", [device] { return device->setMonitor(nullptr); }));
        device->callback_ = nullptr;
    }
    say("stopSensor() -> %d", timed("stopSensor", [sensors] { return sensors->stopSensor(); }));
    if (deviceStarted) {
        say("stopDevice() -> %d", timed("stopDevice", [device] { return device->stopDevice(); }));
    }
    uint64_t delivered;
    {
        aov::MutexLock guard(mutex_);
        delivered = delivered_;
    }
    report_.summary(delivered);
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
    const auto wanted = static_cast<uint64_t>(options_.events);
    aov::MutexLock lock(mutex_);
    bool reached = byCount && delivered_ >= wanted;
    while (!reached) {
        const bool notified = lock.waitUntil(delivered_cv_, deadline);
        reached = byCount && delivered_ >= wanted;
        if (!notified) {
            break;
        }
    }
    *timedOut = byCount && !reached && options_.duration <= 0;
}

void SystemLayer::onEvent(const aov_event* event) {
    uint64_t number;
    {
        aov::MutexLock guard(mutex_);
        number = delivered_ + 1;
    }
    report_.event(number, *event, aov_mode_);
    {
        aov::MutexLock guard(mutex_);
        delivered_ = number;
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

}  // namespace aovsimtool
