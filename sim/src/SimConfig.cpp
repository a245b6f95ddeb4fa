#include "aovsim/SimConfig.h"

#include <set>

#include "aovsim/Trace.h"
#include "cam/sensor/IHalSensor.h"

namespace aovsim {

namespace {

constexpr int32_t kMaxDevice = 0x800;
constexpr int kUnknownCamera = 13;
constexpr uint32_t kMaxDimension = 0xFFFF;  // the static info holds 16-bit sizes

bool isOneHot(int32_t value) {
    return value > 0 && (value & (value - 1)) == 0;
}

}  // namespace

int cameraIdOf(int32_t device) {
    if (device < 1 || device > kMaxDevice) {
        return kUnknownCamera;
    }
    return __builtin_ctz(static_cast<uint32_t>(device));
}

const char* pipelineFaultName(PipelineFault fault) {
    switch (fault) {
        case PipelineFault::kNone:
            return "none";
        case PipelineFault::kNoAgent:
            return "no_agent";
        case PipelineFault::kConfigSensor:
            return "config_sensor";
        case PipelineFault::kConfigP1:
            return "config_p1";
        case PipelineFault::kCreatePipe:
            return "create_pipe";
        case PipelineFault::kStartPipe:
            return "start_pipe";
    }
    return "?";
}

std::string validate(const SimConfig& config) {
    std::set<int32_t> ids;
    std::set<int32_t> devices;
    for (size_t i = 0; i < config.sensors.size(); ++i) {
        const SensorConfig& sensor = config.sensors[i];
        const std::string where = format("sensors[%zu] (id %d)", i, sensor.id);
        if (!ids.insert(sensor.id).second) {
            return where + ": sensor id is used twice";
        }
        if (!isOneHot(sensor.device)) {
            return where + format(": device 0x%x is not a single device bit", sensor.device);
        }
        if (!devices.insert(sensor.device).second) {
            return where + format(": device 0x%x belongs to another sensor too", sensor.device);
        }
        if (sensor.scenarios.size() > static_cast<size_t>(NSCam::kSensorScenarioCount)) {
            return where + format(": %zu scenarios, at most %d fit", sensor.scenarios.size(),
                                  NSCam::kSensorScenarioCount);
        }
        std::set<int> slots;
        for (size_t s = 0; s < sensor.scenarios.size(); ++s) {
            const ScenarioConfig& scenario = sensor.scenarios[s];
            const std::string at = where + format(": scenarios[%zu]", s);
            if (scenario.index < 0 || scenario.index >= NSCam::kSensorScenarioCount) {
                return at + format(": index %d is outside 0..%d", scenario.index,
                                   NSCam::kSensorScenarioCount - 1);
            }
            if (!slots.insert(scenario.index).second) {
                return at + format(": index %d is used twice", scenario.index);
            }
            if (scenario.width > kMaxDimension || scenario.height > kMaxDimension) {
                return at +
                       format(": size %ux%u does not fit 16 bits", scenario.width, scenario.height);
            }
        }
    }
    const auto known = [&ids](const std::set<int32_t>& listed, const char* name) -> std::string {
        for (int32_t id : listed) {
            if (ids.count(id) == 0) {
                return format("failures.%s names sensor %d, which is not in the platform", name,
                              id);
            }
        }
        return std::string();
    };
    for (const auto& check : {known(config.faults.open_sensor, "open_sensor"),
                              known(config.faults.switch_mclk, "switch_mclk"),
                              known(config.faults.power_on, "power_on")}) {
        if (!check.empty()) {
            return check;
        }
    }
    if (config.faults.dequeue_calls.count(0) || config.faults.sensor_list_calls.count(0)) {
        return "failures: request numbers count from 1";
    }
    if (config.faults.start_error > 0 || config.faults.dequeue_error >= 0 ||
        config.faults.sensor_list_error >= 0) {
        return "failures: injected results must be negative";
    }
    if (config.driver.queue_depth < 1) {
        return "driver.queue_depth must be at least 1";
    }
    if (config.driver.content_every < 1) {
        return "driver.content_every must be at least 1";
    }
    if (config.driver.event_every < 1) {
        return "driver.event_every must be at least 1";
    }
    return std::string();
}

}  // namespace aovsim
