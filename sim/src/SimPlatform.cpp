#include "aovsim/SimPlatform.h"

#include <cerrno>
#include <string>

#include "aovsim/SimForwarders.h"

namespace aovsim {

namespace {

constexpr TraceSource kPlat = TraceSource::kPlatform;

const char* callerOf(const char* caller) {
    return caller ? caller : "(null)";
}

}  // namespace

// ---------------------------------------------------------------- SimPlatform

SimPlatform::SimPlatform(const SimConfig& config, std::shared_ptr<Trace> trace)
    : config_(config), trace_(std::move(trace)) {
    sensors_.reserve(config_.sensors.size());
    for (const SensorConfig& sensorConfig : config_.sensors) {
        SensorState state;
        state.config = sensorConfig;
        state.device = std::make_unique<SimSensorDevice>(this, sensorConfig.id);
        sensors_.push_back(std::move(state));
    }
}

SimPlatform::~SimPlatform() = default;

SimPlatform::SensorState* SimPlatform::sensorById(int32_t sensorId) {
    for (SensorState& sensor : sensors_) {
        if (sensor.config.id == sensorId) {
            return &sensor;
        }
    }
    return nullptr;
}

SimPlatform::SensorState* SimPlatform::sensorByCamera(uint32_t cameraId) {
    for (SensorState& sensor : sensors_) {
        if (static_cast<uint32_t>(cameraIdOf(sensor.config.device)) == cameraId) {
            return &sensor;
        }
    }
    return nullptr;
}

PlatformSnapshot SimPlatform::snapshot() const {
    aov::MutexLock guard(mutex_);
    PlatformSnapshot snap;
    for (const SensorState& sensor : sensors_) {
        snap.open_devices += sensor.open_refs > 0 ? 1 : 0;
        snap.powered += sensor.powered ? 1 : 0;
        snap.on_ulposc += sensor.on_ulposc ? 1 : 0;
    }
    snap.agents = static_cast<int>(agents_.size());
    for (const auto& agent : agents_) {
        snap.attached_sensors += static_cast<int>(agent.second.configured.size());
    }
    snap.pipes = static_cast<int>(pipes_.size());
    for (const auto& pipe : pipes_) {
        snap.started_pipes += pipe.second.started ? 1 : 0;
    }
    snap.pipe_mgr_users = pipe_mgr_users_;
    return snap;
}

// Sensor list.

int32_t SimPlatform::sensorCount() {
    aov::MutexLock guard(mutex_);
    const auto count = static_cast<int32_t>(sensors_.size());
    trace_->recordf(kPlat, "queryNumberOfSensors() -> %d", count);
    return count;
}

uint32_t SimPlatform::searchSensors() {
    aov::MutexLock guard(mutex_);
    const auto count = static_cast<uint32_t>(sensors_.size());
    trace_->recordf(kPlat, "searchSensors() -> %u", count);
    return count;
}

int32_t SimPlatform::sensorIdAt(uint32_t index) {
    aov::MutexLock guard(mutex_);
    if (index >= sensors_.size()) {
        trace_->refusal(kPlat, "querySensorId(%u): no sensor at that index", index);
        return -1;
    }
    trace_->recordf(kPlat, "querySensorId(%u) -> %d", index, sensors_[index].config.id);
    return sensors_[index].config.id;
}

int32_t SimPlatform::deviceOf(int32_t sensorId) {
    aov::MutexLock guard(mutex_);
    const SensorState* sensor = sensorById(sensorId);
    if (sensor == nullptr) {
        trace_->refusal(kPlat, "querySensorDevIdx(%d): unknown sensor id", sensorId);
        return 0;
    }
    trace_->recordf(kPlat, "querySensorDevIdx(%d) -> 0x%x", sensorId, sensor->config.device);
    return sensor->config.device;
}

int32_t SimPlatform::facingOf(int32_t sensorId) {
    aov::MutexLock guard(mutex_);
    const SensorState* sensor = sensorById(sensorId);
    if (sensor == nullptr) {
        trace_->refusal(kPlat, "queryFacingDirection(%d): unknown sensor id", sensorId);
        return 0;
    }
    trace_->recordf(kPlat, "queryFacingDirection(%d) -> %d", sensorId, sensor->config.facing);
    return sensor->config.facing;
}

void SimPlatform::fillStaticInfo(uint32_t device, NSCam::SensorStaticInfo* info) {
    aov::MutexLock guard(mutex_);
    const SensorState* found = nullptr;
    for (const SensorState& sensor : sensors_) {
        if (static_cast<uint32_t>(sensor.config.device) == device) {
            found = &sensor;
            break;
        }
    }
    if (found == nullptr || info == nullptr) {
        trace_->refusal(kPlat, "querySensorStaticInfo(0x%x): %s", device,
                        info == nullptr ? "no record to fill" : "unknown sensor device");
        return;
    }
    info->sensorDevId = device;
    info->orientation = found->config.orientation;
    info->facingDirection = static_cast<uint32_t>(found->config.facing);
    for (const ScenarioConfig& s : found->config.scenarios) {
        NSCam::SensorScenarioInfo& slot = info->scenarios[s.index];
        slot.width = static_cast<uint16_t>(s.width);
        slot.height = static_cast<uint16_t>(s.height);
        slot.frameRate = s.rate;
        slot.aeKind = s.ae;
        slot.type = s.type;
        slot.bit = s.bit;
        slot.modeParam = s.mode_param;
        if (info->previewWidth == 0) {
            info->previewWidth = s.width;
            info->previewHeight = s.height;
        }
    }
    trace_->recordf(
        kPlat, "querySensorStaticInfo(0x%x) -> sensor %d, orientation %d, %zu scenarios", device,
        found->config.id, found->config.orientation, found->config.scenarios.size());
}

NSCam::IHalSensor* SimPlatform::openDevice(const char* caller, uint32_t sensorId) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(static_cast<int32_t>(sensorId));
    if (caller == nullptr || sensor == nullptr) {
        trace_->refusal(kPlat, "openSensorDevice(%s, %u): %s", callerOf(caller), sensorId,
                        caller == nullptr ? "no caller name" : "unknown sensor id");
        return nullptr;
    }
    if (config_.faults.open_sensor.count(sensor->config.id)) {
        trace_->recordf(kPlat, "openSensorDevice(%s, %u) -> null (injected failure)", caller,
                        sensorId);
        return nullptr;
    }
    ++sensor->open_refs;
    trace_->recordf(kPlat, "openSensorDevice(%s, %u) -> device (handles %d)", caller, sensorId,
                    sensor->open_refs);
    return sensor->device.get();
}

// Sensor devices.

bool SimPlatform::deviceCallValid(const SensorState* sensor, const char* op, const int32_t* target,
                                  uint32_t count) {
    if (sensor->open_refs == 0) {
        trace_->refusal(kPlat, "%s on sensor %d: the device is not open (released)", op,
                        sensor->config.id);
        return false;
    }
    if (target == nullptr || count != 1) {
        trace_->refusal(kPlat, "%s on sensor %d: expects exactly one sensor id, got %u%s", op,
                        sensor->config.id, count, target == nullptr ? " (null)" : "");
        return false;
    }
    if (*target != sensor->config.id) {
        trace_->refusal(kPlat, "%s on sensor %d: asked for sensor %d, which this device is not", op,
                        sensor->config.id, *target);
        return false;
    }
    return true;
}

void SimPlatform::releaseDevice(int32_t sensorId, const char* caller) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(sensorId);
    if (sensor->open_refs == 0) {
        trace_->refusal(kPlat, "releaseSensorDevice(%s) on sensor %d: not open", callerOf(caller),
                        sensorId);
        return;
    }
    --sensor->open_refs;
    trace_->recordf(kPlat, "releaseSensorDevice(%s) sensor %d (handles %d)%s", callerOf(caller),
                    sensorId, sensor->open_refs,
                    sensor->open_refs == 0 && sensor->powered ? ", sensor left powered" : "");
}

bool SimPlatform::switchMclk(int32_t sensorId, const char* caller, const int32_t* target) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(sensorId);
    if (!deviceCallValid(sensor, "switchMclkToUlposc", target, 1)) {
        return false;
    }
    if (sensor->powered) {
        trace_->refusal(kPlat, "switchMclkToUlposc(%s, %d): the sensor is powered",
                        callerOf(caller), sensorId);
        return false;
    }
    if (config_.faults.switch_mclk.count(sensorId)) {
        trace_->recordf(kPlat, "switchMclkToUlposc(%s, %d) -> false (injected failure)",
                        callerOf(caller), sensorId);
        return false;
    }
    trace_->recordf(kPlat, "switchMclkToUlposc(%s, %d) -> true%s", callerOf(caller), sensorId,
                    sensor->on_ulposc ? " (already on ULPOSC)" : "");
    sensor->on_ulposc = true;
    return true;
}

bool SimPlatform::restoreMclk(int32_t sensorId, const char* caller, const int32_t* target) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(sensorId);
    if (!deviceCallValid(sensor, "restoreMclk", target, 1)) {
        return false;
    }
    if (sensor->powered || !sensor->on_ulposc) {
        trace_->refusal(kPlat, "restoreMclk(%s, %d): %s", callerOf(caller), sensorId,
                        sensor->powered ? "the sensor is powered" : "the clock is not on ULPOSC");
        return false;
    }
    sensor->on_ulposc = false;
    trace_->recordf(kPlat, "restoreMclk(%s, %d) -> true", callerOf(caller), sensorId);
    return true;
}

bool SimPlatform::powerOn(int32_t sensorId, const char* caller, uint32_t count,
                          const int32_t* ids) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(sensorId);
    if (!deviceCallValid(sensor, "powerOnSensor", ids, count)) {
        return false;
    }
    if (sensor->powered) {
        trace_->refusal(kPlat, "powerOnSensor(%s, 1, [%d]): the sensor is already powered",
                        callerOf(caller), sensorId);
        return false;
    }
    if (config_.faults.power_on.count(sensorId)) {
        trace_->recordf(kPlat, "powerOnSensor(%s, 1, [%d]) -> false (injected failure)",
                        callerOf(caller), sensorId);
        return false;
    }
    sensor->powered = true;
    trace_->recordf(kPlat, "powerOnSensor(%s, 1, [%d]) -> true, clock %s", callerOf(caller),
                    sensorId, sensor->on_ulposc ? "ULPOSC" : "normal");
    return true;
}

bool SimPlatform::powerOff(int32_t sensorId, const char* caller, uint32_t count,
                           const int32_t* ids) {
    aov::MutexLock guard(mutex_);
    SensorState* sensor = sensorById(sensorId);
    if (!deviceCallValid(sensor, "powerOffSensor", ids, count)) {
        return false;
    }
    if (!sensor->powered) {
        trace_->refusal(kPlat, "powerOffSensor(%s, 1, [%d]): the sensor is not powered",
                        callerOf(caller), sensorId);
        return false;
    }
    sensor->powered = false;
    trace_->recordf(kPlat, "powerOffSensor(%s, 1, [%d]) -> true", callerOf(caller), sensorId);
    return true;
}

// Customisation.

int SimPlatform::detectMode(int width, int height, unsigned int& mode) {
    if (config_.faults.detect_mode) {
        trace_->recordf(kPlat, "queryDetectMode(%d, %d) -> -1 (injected failure)", width, height);
        return -1;
    }
    mode = config_.custom.detect_mode;
    trace_->recordf(kPlat, "queryDetectMode(%d, %d) -> 0, mode %u", width, height, mode);
    return 0;
}

int SimPlatform::frameInfo(int width, int height, int selector, uint32_t (&out)[4]) {
    if (config_.faults.frame_info) {
        trace_->recordf(kPlat, "queryFrameInfo(%d, %d, sel %d) -> -1 (injected failure)", width,
                        height, selector);
        return -1;
    }
    if (config_.custom.frame_info_given) {
        for (int i = 0; i < 4; ++i) {
            out[i] = config_.custom.frame_info[i];
        }
    } else {
        // Full frame and a half-size preview of it.
        const uint32_t w = width > 0 ? static_cast<uint32_t>(width) : 0;
        const uint32_t h = height > 0 ? static_cast<uint32_t>(height) : 0;
        out[0] = w;
        out[1] = h;
        out[2] = w / 2;
        out[3] = h / 2;
    }
    trace_->recordf(kPlat, "queryFrameInfo(%d, %d, sel %d) -> 0, [%u, %u, %u, %u]", width, height,
                    selector, out[0], out[1], out[2], out[3]);
    return 0;
}

// Coordinator and agents.

uint64_t SimPlatform::createAgent(const coord::AgentParams& params) {
    aov::MutexLock guard(mutex_);
    if (!params.isConfigComplete || params.p1Configs.empty()) {
        trace_->refusal(kPlat, "createAgent: %s",
                        params.p1Configs.empty() ? "no P1 configuration"
                                                 : "the parameters are not marked complete");
        return 0;
    }
    AgentState agent;
    std::string described;
    for (const auto& bySensor : params.p1Configs) {
        const auto sensorId = static_cast<int32_t>(bySensor.first);
        for (const auto& byScenario : bySensor.second) {
            const coord::P1ConfigureParams* p1 = byScenario.second.get();
            if (p1 == nullptr || p1->sensorInfo == nullptr ||
                p1->sensorInfo->sensorId != sensorId) {
                trace_->refusal(kPlat, "createAgent: P1 configuration of sensor %d is incomplete",
                                sensorId);
                return 0;
            }
            const coord::SensorInfo& info = *p1->sensorInfo;
            described += format("sensor %d scenario %d %dx%d@%d", info.sensorId, info.scenarioId,
                                info.width, info.height, info.fps);
        }
        if (sensorById(sensorId) == nullptr) {
            trace_->refusal(kPlat, "createAgent: unknown sensor %d", sensorId);
            return 0;
        }
        agent.allowed.insert(sensorId);
    }
    if (config_.faults.pipeline == PipelineFault::kNoAgent) {
        trace_->recordf(kPlat, "createAgent(%s) -> 0 (injected failure)", described.c_str());
        return 0;
    }
    const uint64_t id = next_agent_id_++;
    agents_.emplace(id, std::move(agent));
    trace_->recordf(kPlat, "createAgent(%s) -> agent %llu", described.c_str(),
                    static_cast<unsigned long long>(id));
    return id;
}

void SimPlatform::destroyAgent(uint64_t agentId) {
    aov::MutexLock guard(mutex_);
    auto it = agents_.find(agentId);
    if (it == agents_.end()) {
        trace_->refusal(kPlat, "destroyAgent(%llu): no such agent",
                        static_cast<unsigned long long>(agentId));
        return;
    }
    const size_t attached = it->second.configured.size();
    agents_.erase(it);
    trace_->recordf(kPlat, "destroyAgent(%llu)%s", static_cast<unsigned long long>(agentId),
                    attached ? ", detaching its sensors" : "");
}

bool SimPlatform::agentExists(uint64_t agentId) {
    aov::MutexLock guard(mutex_);
    const bool exists = agents_.count(agentId) != 0;
    if (exists) {
        trace_->recordf(kPlat, "getAgent(%llu) -> agent", static_cast<unsigned long long>(agentId));
    } else {
        trace_->refusal(kPlat, "getAgent(%llu): no such agent",
                        static_cast<unsigned long long>(agentId));
    }
    return exists;
}

int SimPlatform::configSensor(uint64_t agentId, const coord::ConfigSensorParams* params) {
    aov::MutexLock guard(mutex_);
    auto it = agents_.find(agentId);
    if (it == agents_.end() || params == nullptr) {
        trace_->refusal(kPlat, "configSensor on agent %llu: %s",
                        static_cast<unsigned long long>(agentId),
                        params == nullptr ? "no parameters" : "the agent is destroyed");
        return -EINVAL;
    }
    const int32_t sensorId = params->sensorId;
    const SensorState* sensor = sensorById(sensorId);
    if (it->second.allowed.count(sensorId) == 0 || sensor == nullptr) {
        trace_->refusal(kPlat, "configSensor(sensor %d): the agent was not created for it",
                        sensorId);
        return -EINVAL;
    }
    if (!sensor->powered) {
        trace_->refusal(kPlat, "configSensor(sensor %d): the sensor is not powered", sensorId);
        return -EPERM;
    }
    if (config_.faults.pipeline == PipelineFault::kConfigSensor) {
        trace_->recordf(kPlat, "configSensor(sensor %d) -> %d (injected failure)", sensorId, -EIO);
        return -EIO;
    }
    it->second.configured.insert(sensorId);
    trace_->recordf(kPlat, "configSensor(sensor %d) -> 0", sensorId);
    return 0;
}

int SimPlatform::configP1(uint64_t agentId) {
    aov::MutexLock guard(mutex_);
    auto it = agents_.find(agentId);
    if (it == agents_.end() || it->second.configured.empty()) {
        trace_->refusal(kPlat, "configNonLaggingP1Drv on agent %llu: %s",
                        static_cast<unsigned long long>(agentId),
                        it == agents_.end() ? "the agent is destroyed" : "no sensor configured");
        return -EINVAL;
    }
    if (config_.faults.pipeline == PipelineFault::kConfigP1) {
        trace_->recordf(kPlat, "configNonLaggingP1Drv() -> %d (injected failure)", -EIO);
        return -EIO;
    }
    it->second.p1_configured = true;
    trace_->recordf(kPlat, "configNonLaggingP1Drv() -> 0");
    return 0;
}

void SimPlatform::detachSensor(uint64_t agentId, const int32_t* sensorId) {
    aov::MutexLock guard(mutex_);
    auto it = agents_.find(agentId);
    if (it == agents_.end() || sensorId == nullptr) {
        trace_->refusal(kPlat, "detachSensor on agent %llu: %s",
                        static_cast<unsigned long long>(agentId),
                        sensorId == nullptr ? "no sensor id" : "the agent is destroyed");
        return;
    }
    if (it->second.configured.erase(*sensorId) == 0) {
        trace_->refusal(kPlat, "detachSensor(%d): the sensor was never configured on agent %llu",
                        *sensorId, static_cast<unsigned long long>(agentId));
        return;
    }
    if (it->second.configured.empty()) {
        it->second.p1_configured = false;
    }
    trace_->recordf(kPlat, "detachSensor(%d)", *sensorId);
}

// Pipe manager, factory and pipes.

void SimPlatform::pipeFactoryHandedOut() {
    aov::MutexLock guard(mutex_);
    ++pipe_mgr_users_;
    trace_->recordf(kPlat, "getSensorPipeFactory() -> factory");
}

int SimPlatform::pipeMgrUninit() {
    aov::MutexLock guard(mutex_);
    if (pipe_mgr_users_ == 0) {
        trace_->refusal(kPlat, "uninit(): the pipe manager has no user");
        return -EINVAL;
    }
    --pipe_mgr_users_;
    trace_->recordf(kPlat, "uninit() -> 0");
    return 0;
}

uint32_t SimPlatform::createPipe(uint32_t cameraId, int32_t pipeType, int32_t sharedPipeId,
                                 int32_t flags) {
    aov::MutexLock guard(mutex_);
    if (pipeType != kSensorPipeType) {
        trace_->refusal(kPlat, "createPipe(camera %u, type %d): not a sensor pipe type", cameraId,
                        pipeType);
        return 0;
    }
    if (sensorByCamera(cameraId) == nullptr) {
        trace_->refusal(kPlat, "createPipe(camera %u): no sensor on that camera", cameraId);
        return 0;
    }
    for (const auto& pipe : pipes_) {
        if (pipe.second.camera == cameraId) {
            trace_->refusal(kPlat, "createPipe(camera %u): camera busy with pipe %u", cameraId,
                            pipe.first);
            return 0;
        }
    }
    if (config_.faults.pipeline == PipelineFault::kCreatePipe) {
        trace_->recordf(kPlat, "createPipe(camera %u, type %d, %d, %d) -> null (injected failure)",
                        cameraId, pipeType, sharedPipeId, flags);
        return 0;
    }
    const uint32_t id = next_pipe_id_++;
    pipes_[id].camera = cameraId;
    trace_->recordf(kPlat, "createPipe(camera %u, type %d, %d, %d) -> pipe %u", cameraId, pipeType,
                    sharedPipeId, flags, id);
    return id;
}

int SimPlatform::destroyPipe(uint32_t pipeId, int32_t pipeType) {
    aov::MutexLock guard(mutex_);
    auto it = pipes_.find(pipeId);
    if (it == pipes_.end() || pipeType != kSensorPipeType) {
        trace_->refusal(kPlat, "destroyPipe(%u, type %d): %s", pipeId, pipeType,
                        it == pipes_.end() ? "unknown pipe" : "wrong pipe type");
        return -EINVAL;
    }
    if (it->second.started) {
        trace_->refusal(kPlat, "destroyPipe(%u): the pipe is still streaming", pipeId);
        return -EBUSY;
    }
    pipes_.erase(it);
    trace_->recordf(kPlat, "destroyPipe(%u, type %d) -> 0", pipeId, pipeType);
    return 0;
}

int SimPlatform::startPipe(uint32_t pipeId, int mode) {
    aov::MutexLock guard(mutex_);
    auto it = pipes_.find(pipeId);
    if (it == pipes_.end()) {
        trace_->refusal(kPlat, "startPipe(%d) on pipe %u: the pipe was never created or is gone",
                        mode, pipeId);
        return -ENODEV;
    }
    PipeState& pipe = it->second;
    if (mode != 1 && mode != 2) {
        trace_->refusal(kPlat, "startPipe(%d) on pipe %u: no such pipe mode", mode, pipeId);
        return -EINVAL;
    }
    if (pipe.started) {
        trace_->refusal(kPlat, "startPipe(%d) on pipe %u: already streaming", mode, pipeId);
        return -EBUSY;
    }
    const SensorState* sensor = sensorByCamera(pipe.camera);
    if (sensor == nullptr || !sensor->powered) {
        trace_->refusal(kPlat, "startPipe(%d) on pipe %u: the sensor of camera %u is not powered",
                        mode, pipeId, pipe.camera);
        return -EPERM;
    }
    if (config_.faults.pipeline == PipelineFault::kStartPipe) {
        trace_->recordf(kPlat, "startPipe(%d) on pipe %u -> %d (injected failure)", mode, pipeId,
                        -EIO);
        return -EIO;
    }
    pipe.started = true;
    pipe.mode = mode;
    trace_->recordf(kPlat, "startPipe(%d) on pipe %u -> 0", mode, pipeId);
    return 0;
}

int SimPlatform::stopPipe(uint32_t pipeId, int mode) {
    aov::MutexLock guard(mutex_);
    auto it = pipes_.find(pipeId);
    if (it == pipes_.end() || !it->second.started) {
        trace_->refusal(kPlat, "stopPipe(%d) on pipe %u: %s", mode, pipeId,
                        it == pipes_.end() ? "unknown pipe" : "the pipe is not streaming");
        return -EINVAL;
    }
    if (it->second.mode != mode) {
        trace_->refusal(kPlat, "stopPipe(%d) on pipe %u: it streams in mode %d", mode, pipeId,
                        it->second.mode);
        return -EINVAL;
    }
    it->second.started = false;
    trace_->recordf(kPlat, "stopPipe(%d) on pipe %u -> 0", mode, pipeId);
    return 0;
}

}  // namespace aovsim
