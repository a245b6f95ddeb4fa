#include "AOVSensor.h"

#include <cstring>

#include "AOVLog.h"
#include "cam/utils/Properties.h"

namespace {

constexpr char kSourcePath[] = "hw/aov/src/plat/isp8/AOVSensor";

constexpr char kPropTestModel[] = "vendor.aovstream.test_model";
constexpr char kPropViewMode[] = "vendor.aovstream.view_mode";

// Scenario limits of always-on sensing: up to 1920x1080 at 1 to 10 whole
// frames per second (rates are in tenths).
constexpr uint32_t kMaxWidth = 1920;
constexpr uint32_t kMaxHeight = 1080;
constexpr uint32_t kMinRate = 10;
constexpr uint32_t kMaxRate = 109;
constexpr uint32_t kViewingAeKind = 1;
constexpr int32_t kMaxSensorDevIdx = 0x800;

// Line numbers that the service's log lines carry; log readers key on them.
constexpr int kLineModeEnter = 104;
constexpr int kLineModeUnknownSensor = 119;
constexpr int kLineModeQueryFailed = 127;
constexpr int kLineModeExit = 131;
constexpr int kLineDeviceNull = 141;
constexpr int kLineDeviceMclk = 151;
constexpr int kLineDevicePowerOn = 161;
constexpr int kLinePipelineNoCoordinator = 217;
constexpr int kLinePipelineNoImp = 225;
constexpr int kLinePipelineNoAgent = 231;
constexpr int kLinePipelineConfigSensor = 239;
constexpr int kLinePipelineConfigP1 = 245;
constexpr int kLinePipelineNoPipe = 253;
constexpr int kLinePipelineStartPipe = 278;
constexpr int kLineStartEnter = 304;
constexpr int kLineStartFrameInfo = 318;
constexpr int kLineStartScenario = 354;
constexpr int kLineStartInvalid = 374;
constexpr int kLineStartDevice = 381;
constexpr int kLineStartPipeline = 390;
constexpr int kLineStartExit = 397;
constexpr int kLineStopEnter = 411;
constexpr int kLineStopExit = 415;

// Name under which the service calls into the sensor layer.
constexpr char kCallerName[] = "AOV";

// Sensor pipe of an always-on sensor, and its streaming modes.
constexpr int32_t kSensorPipeType = 17;
constexpr int32_t kSharedPipeNone = -1;
constexpr int32_t kPipeFlags = 0;
constexpr int kPipeModeNormal = 1;
constexpr int kPipeModeTestModel = 2;

// Geometry that the test model streams, whatever was requested.
constexpr int32_t kTestModelWidth = 1920;
constexpr int32_t kTestModelHeight = 1080;
constexpr int32_t kTestModelFrameRate = 10;

// The start failures log this code rather than the callee's result.
constexpr int kStartFailureCode = -1;

}  // namespace

#define SENSOR_TRACE(line, fmt, ...) AOV_LOG_TRACE_AT(kSourcePath, line, fmt, ##__VA_ARGS__)
#define SENSOR_ERROR(line, fmt, ...) AOV_LOG_ERROR_AT(kSourcePath, line, fmt, ##__VA_ARGS__)

using NSCam::Utils::Properties::property_get_int32;
namespace pipemgr = NSCam::camsys::pipemgr::isp7;
namespace camcoord = NSCam::camsys::camcoordinator;

IAOVSensor* IAOVSensor::getInstance() {
    static AOVSensor instance;
    return &instance;
}

AOVSensor::AOVSensor()
    : custom_(IAOVCustom::getInstance()),
      test_model_(0),
      catalogue_ready_(false),
      sensor_started_(false),
      hal_sensor_list_(nullptr),
      hal_sensor_(nullptr),
      powered_sensor_id_(-1),
      agent_id_(0) {
    hal_sensor_list_ = NSCam::IHalSensorList::get();
    hal_sensor_list_->searchSensors();
    pipe_mgr_ = pipemgr::IPipeMgr::getInstance(pipemgr::PipeMgrMode::AlwaysOn);
    pipe_factory_ = pipe_mgr_->getSensorPipeFactory();
}

AOVSensor::~AOVSensor() {
    if (sensor_started_) {
        stopPipeline();
        stopDevice();
        sensor_started_ = false;
    }
    releaseCamAgent();
    if (pipe_factory_) {
        pipe_factory_.reset();
    }
    if (pipe_mgr_) {
        pipe_mgr_->uninit();
        pipe_mgr_.reset();
    }
    hal_sensor_list_ = nullptr;
}

int AOVSensor::sensorIdxMapOf(int32_t sensorDevIdx) {
    if (sensorDevIdx < 1 || sensorDevIdx > kMaxSensorDevIdx) {
        return kUnknownSensorIdx;
    }
    return __builtin_ctz(static_cast<uint32_t>(sensorDevIdx));
}

std::vector<int> AOVSensor::querySensors() {
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor query+", __func__);
    setupSensors();
    std::vector<int> ids(sensor_ids_.begin(), sensor_ids_.end());
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor query-", __func__);
    return ids;
}

void AOVSensor::setupSensors() {
    test_model_.store(property_get_int32(kPropTestModel, 0), std::memory_order_relaxed);
    const int32_t viewMode = property_get_int32(kPropViewMode, 0);

    aov::MutexLock guard(lock_);
    if (catalogue_ready_) {
        return;
    }
    sensor_ids_.clear();
    sensor_idx_map_.clear();
    sensor_infos_.clear();

    const int32_t total = hal_sensor_list_->queryNumberOfSensors();
    for (int32_t idx = 0; idx < total; ++idx) {
        const int32_t sensorId = hal_sensor_list_->querySensorId(static_cast<uint32_t>(idx));
        const int32_t sensorDevIdx = hal_sensor_list_->querySensorDevIdx(sensorId);
        const int idxMap = sensorIdxMapOf(sensorDevIdx);

        // A large record, filled once per sensor; unset scenarios read as zero.
        NSCam::SensorStaticInfo staticInfo;
        std::memset(static_cast<void*>(&staticInfo), 0, sizeof(staticInfo));
        staticInfo = NSCam::SensorStaticInfo();
        hal_sensor_list_->querySensorStaticInfo(static_cast<uint32_t>(sensorDevIdx), &staticInfo);
        const int32_t facing = hal_sensor_list_->queryFacingDirection(sensorId);
        SENSOR_TRACE(__LINE__,
                     "[%s] idx/total(%d/%d) orientation(%d) face(%d) PhyDeviceId(%d) "
                     "SensorDevIdx(%d) IMGSENSOR_SENSOR_IDX_MAP(%d)",
                     __func__, idx, total, staticInfo.orientation, facing, sensorId, sensorDevIdx,
                     idxMap);

        ScratchTable scratch;
        const int32_t face = facing != 0 ? 1 : 0;
        for (int s = 0; s < kScenarioCount; ++s) {
            SENSOR_TRACE(__LINE__, "[%s] setup aov sensor scenario(%d)", __func__, s);
            const NSCam::SensorScenarioInfo& scenario = staticInfo.scenarios[s];
            const uint32_t width = scenario.width;
            const uint32_t height = scenario.height;
            const uint32_t rate = scenario.frameRate;
            const uint32_t aeKind = scenario.aeKind;

            if (viewMode != 0 && aeKind != kViewingAeKind) {
                SENSOR_TRACE(__LINE__, "[%s] bypass sensing mode(%d)", __func__, s);
                continue;
            }
            if (viewMode == 0 && aeKind == kViewingAeKind) {
                SENSOR_TRACE(__LINE__, "[%s] bypass viewing mode(%d)", __func__, s);
                continue;
            }
            if (testModel() != 1) {
                const bool fits = width >= 1 && width <= kMaxWidth && height >= 1 &&
                                  height <= kMaxHeight && rate >= kMinRate && rate <= kMaxRate;
                if (!fits) {
                    continue;
                }
            }

            const uint32_t fps = rate / 10;
            const sensor_mode mode{scenario.type, scenario.bit, aeKind, scenario.modeParam, fps, s};
            const SensorKey key(sensorId, static_cast<int>(width), static_cast<int>(height));
            auto entry = scratch.find(key);
            if (entry == scratch.end()) {
                SENSOR_TRACE(__LINE__,
                             "[%s] Add sensor(%d) width(%d), height(%d), fps(%d), sensor_ae(%d), "
                             "orient(%d), face(%d), type(%d), bit(%d)",
                             __func__, sensorId, width, height, fps, aeKind, staticInfo.orientation,
                             face, scenario.type, scenario.bit);
                sensor_info& info = scratch[key];
                info.width = static_cast<int32_t>(width);
                info.height = static_cast<int32_t>(height);
                info.orientation = staticInfo.orientation;
                info.face = face;
                info.fps = {fps};
                info.mode = {mode};
            } else {
                entry->second.fps.push_back(fps);
                entry->second.mode.push_back(mode);
                SENSOR_TRACE(
                    __LINE__,
                    "[%s] Add sensor(%d) width(%d), height(%d), fps(%d/%lu), sensor_ae(%d)",
                    __func__, sensorId, width, height, fps, entry->second.fps.size(), aeKind);
            }
        }

        // A sensor without an accepted scenario is left out altogether.
        if (!scratch.empty()) {
            for (const auto& entry : scratch) {
                sensor_infos_.emplace(sensorId, entry.second);
            }
            sensor_ids_.insert(sensorId);
            sensor_idx_map_[sensorId] = idxMap;
        }
    }
    catalogue_ready_ = true;
}

int AOVSensor::getSensorDev(int sensorId) {
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor dev+", __func__);
    setupSensors();
    const int dev = hal_sensor_list_->querySensorDevIdx(sensorId);
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor dev-", __func__);
    return dev;
}

std::vector<sensor_info> AOVSensor::getSensorInfo(int sensorId) {
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor info+", __func__);
    setupSensors();
    std::vector<sensor_info> infos;
    const auto range = sensor_infos_.equal_range(sensorId);
    for (auto it = range.first; it != range.second; ++it) {
        infos.push_back(it->second);
    }
    for (const sensor_info& info : infos) {
        SENSOR_TRACE(__LINE__, "[%s] width(%d), height(%d), size(%lu)", __func__, info.width,
                     info.height, info.fps.size());
    }
    SENSOR_TRACE(__LINE__, "[%s] AOV sensor info-", __func__);
    return infos;
}

int AOVSensor::getSensorMode(int sensorId, unsigned int& mode) {
    SENSOR_TRACE(kLineModeEnter, "[%s] AOV sensor Mode+", __func__);
    setupSensors();
    // The entry inserted first for the sensor decides.
    const auto first = sensor_infos_.lower_bound(sensorId);
    if (first == sensor_infos_.end() || first->first != sensorId) {
        SENSOR_ERROR(kLineModeUnknownSensor, "invalid sensor id : %d", sensorId);
        return -1;
    }
    const sensor_info& entry = first->second;
    const int result = custom_->queryDetectMode(entry.width, entry.height, mode);
    if (result < 0) {
        SENSOR_ERROR(kLineModeQueryFailed, "failed to query detect mode (%d/%d)", entry.width,
                     entry.height);
        return result;
    }
    SENSOR_TRACE(kLineModeExit, "[%s] AOV sensor Mode-", __func__);
    return 0;
}

int AOVSensor::startDevice(user_param& param) {
    int32_t index = param.sensor_id;
    hal_sensor_ = hal_sensor_list_->openSensorDevice(kCallerName, static_cast<uint32_t>(index));
    if (hal_sensor_ == nullptr) {
        SENSOR_ERROR(kLineDeviceNull, "invalid null sensor device for id(%d)", index);
        return -1;
    }
    if (!hal_sensor_->switchMclkToUlposc(kCallerName, &index)) {
        hal_sensor_->releaseSensorDevice(kCallerName);
        hal_sensor_ = nullptr;
        SENSOR_ERROR(kLineDeviceMclk, "failed to switch aov sensor(%d) mclk to ulposc", index);
        return -1;
    }
    // The clock stays on ULPOSC when power-on fails; only the release follows.
    if (!hal_sensor_->powerOnSensor(kCallerName, 1, &index)) {
        hal_sensor_->releaseSensorDevice(kCallerName);
        hal_sensor_ = nullptr;
        SENSOR_ERROR(kLineDevicePowerOn, "failed to power on sensor device(%d)", index);
        return -1;
    }
    powered_sensor_id_ = index;
    return 0;
}

int AOVSensor::stopDevice() {
    if (hal_sensor_ == nullptr) {
        return 0;
    }
    hal_sensor_->powerOffSensor(kCallerName, 1, &powered_sensor_id_);
    hal_sensor_->restoreMclk(kCallerName, &powered_sensor_id_);
    hal_sensor_->releaseSensorDevice(kCallerName);
    hal_sensor_ = nullptr;
    powered_sensor_id_ = -1;
    return 0;
}

int AOVSensor::startPipeline(user_param& param) {
    const int32_t sensorId = param.sensor_id;
    const int32_t scenarioId = param.scenario;
    // An unknown sensor gets camera id 0 (and an entry for it).
    const int32_t cameraId = sensor_idx_map_[sensorId];
    param.sensor_idx = cameraId;

    std::shared_ptr<camcoord::SensorInfo> sensorInfo =
        std::allocate_shared<camcoord::SensorInfo>(std::allocator<camcoord::SensorInfo>());
    sensorInfo->sensorId = sensorId;
    sensorInfo->scenarioId = scenarioId;
    sensorInfo->fps = param.frame_rate;
    sensorInfo->width = param.width;
    sensorInfo->height = param.height;
    std::shared_ptr<camcoord::P1ConfigureParams> p1Config =
        std::make_shared<camcoord::P1ConfigureParams>();
    p1Config->sensorInfo = std::move(sensorInfo);

    camcoord::AgentParams agentParams{};
    const uint32_t agentSensor = static_cast<uint32_t>(sensorId);
    agentParams.p1Configs[agentSensor][scenarioId] = std::move(p1Config);
    agentParams.sensorScenarios[agentSensor] = static_cast<uint32_t>(scenarioId);
    agentParams.isConfigComplete = true;

    // A live agent is reused; the fresh parameters are then not handed over.
    if (agent_id_ == 0) {
        agent_id_ = camcoord::ICamCoordinator::getInstance()->createAgent(agentParams);
    }

    std::shared_ptr<camcoord::ICamCoordinator> coordinator =
        camcoord::ICamCoordinator::getInstance();
    if (!coordinator) {
        SENSOR_ERROR(kLinePipelineNoCoordinator, "failed to get ICamCoordinator instance");
        releaseCamAgent();
        return -1;
    }
    std::shared_ptr<camcoord::CamCoordinatorImp> coordinatorImp =
        camcoord::CamCoordinatorImp::castFrom(coordinator);
    if (!coordinatorImp) {
        SENSOR_ERROR(kLinePipelineNoImp, "failed to get CamCoordinatorImp");
        releaseCamAgent();
        return -1;
    }
    agent_ = coordinatorImp->getAgent(static_cast<unsigned long>(agent_id_));
    if (!agent_) {
        SENSOR_ERROR(kLinePipelineNoAgent, "failed to getAgent");
        releaseCamAgent();
        return -1;
    }

    camcoord::ConfigSensorParams sensorParams;
    sensorParams.sensorId = sensorId;
    if (agent_->configSensor(&sensorParams) != 0) {
        SENSOR_ERROR(kLinePipelineConfigSensor, "failed to get configSensor, cam_id(%u)",
                     static_cast<uint32_t>(sensorId));
        releaseCamAgent();
        return -1;
    }
    if (agent_->configNonLaggingP1Drv() != 0) {
        SENSOR_ERROR(kLinePipelineConfigP1, "failed to get configNonLaggingP1Drv");
        releaseCamAgent();
        return -1;
    }

    sensor_pipe_ = pipe_factory_->createPipe(static_cast<uint32_t>(cameraId), kSensorPipeType,
                                             kSharedPipeNone, kPipeFlags);
    if (!sensor_pipe_) {
        SENSOR_ERROR(kLinePipelineNoPipe, "failed to create sensor pipe");
        releaseCamAgent();
        return -1;
    }

    int started;
    if (testModel() == 0) {
        started = sensor_pipe_->startPipe(kPipeModeNormal);
    } else {
        started = sensor_pipe_->startPipe(kPipeModeTestModel);
        // The test model streams a fixed geometry, also when the pipe did not start.
        param.width = kTestModelWidth;
        param.height = kTestModelHeight;
        param.frame_info0 = kTestModelWidth;
        param.frame_info1 = kTestModelHeight;
        param.frame_info2 = kTestModelWidth;
        param.frame_info3 = kTestModelHeight;
        param.frame_rate = kTestModelFrameRate;
    }
    if (started != 0) {
        pipe_factory_->destroyPipe(sensor_pipe_->getPipeId(), kSensorPipeType);
        sensor_pipe_.reset();
        releaseCamAgent();
        SENSOR_ERROR(kLinePipelineStartPipe, "failed to start sensor pipe(%d)", started);
        return -1;
    }
    return 0;
}

int AOVSensor::stopPipeline() {
    if (sensor_pipe_) {
        sensor_pipe_->stopPipe(testModel() != 0 ? kPipeModeTestModel : kPipeModeNormal);
        pipe_factory_->destroyPipe(sensor_pipe_->getPipeId(), kSensorPipeType);
        sensor_pipe_.reset();
    }
    releaseCamAgent();
    return 0;
}

void AOVSensor::releaseCamAgent() {
    if (agent_) {
        agent_->detachSensor(&powered_sensor_id_);
        agent_.reset();
    }
    if (agent_id_ != 0) {
        // The coordinator may be gone already (that is how a start can fail).
        if (std::shared_ptr<camcoord::ICamCoordinator> coordinator =
                camcoord::ICamCoordinator::getInstance()) {
            coordinator->destroyAgent(agent_id_);
        }
        agent_id_ = 0;
    }
}

int AOVSensor::startSensor(user_param& param) {
    SENSOR_TRACE(kLineStartEnter, "[%s] AOV sensor start(%p)+", __func__,
                 static_cast<void*>(&param));
    setupSensors();

    uint32_t frameInfo[4] = {0, 0, 0, 0};
    const int queried =
        custom_->queryFrameInfo(param.width, param.height, param.frame_info_sel, frameInfo[0],
                                frameInfo[1], frameInfo[2], frameInfo[3]);
    if (queried < 0) {
        SENSOR_ERROR(kLineStartFrameInfo, "failed to query frame info for sensor(%d, %d)",
                     param.width, param.height);
        return queried;
    }
    param.frame_info0 = static_cast<int32_t>(frameInfo[0]);
    param.frame_info1 = static_cast<int32_t>(frameInfo[1]);
    param.frame_info2 = static_cast<int32_t>(frameInfo[2]);
    param.frame_info3 = static_cast<int32_t>(frameInfo[3]);

    // The first entry of the requested size decides; within it the last
    // scenario at the requested rate wins. No entry is not an error here.
    const auto range = sensor_infos_.equal_range(param.sensor_id);
    for (auto it = range.first; it != range.second; ++it) {
        const sensor_info& entry = it->second;
        if (entry.width != param.width || entry.height != param.height) {
            continue;
        }
        const uint32_t frameRate = static_cast<uint32_t>(param.frame_rate);
        size_t found = entry.fps.size();
        for (size_t i = entry.fps.size(); i > 0; --i) {
            if (entry.fps[i - 1] == frameRate) {
                found = i - 1;
                break;
            }
        }
        if (found >= entry.fps.size() || found >= entry.mode.size() ||
            entry.mode[found].scenario < 0) {
            SENSOR_ERROR(kLineStartScenario, "failed to find scenario for the frame rate(%d)",
                         param.frame_rate);
            return -1;
        }
        const sensor_mode& mode = entry.mode[found];
        param.orientation = entry.orientation;
        param.scenario = mode.scenario;
        param.face = entry.face;
        static_assert(sizeof(param.mode_head) == 4 * sizeof(uint32_t), "type, bit, ae, param");
        std::memcpy(param.mode_head, &mode, sizeof(param.mode_head));
        break;
    }

    // Checked after the lookup on purpose: a zero size simply matched nothing.
    if (param.width == 0 || param.height == 0 || param.frame_rate == 0) {
        SENSOR_ERROR(kLineStartInvalid,
                     "invalid sensor(%d) width(%d), height(%d) or frame rate(%d)", param.sensor_id,
                     param.width, param.height, param.frame_rate);
        if (testModel() == 0) {
            return -1;
        }
    }
    if (startDevice(param) < 0) {
        SENSOR_ERROR(kLineStartDevice, "failed to start sensor(%d) device: %d", param.sensor_id,
                     kStartFailureCode);
        if (testModel() == 0) {
            return -1;
        }
    }
    if (startPipeline(param) < 0) {
        stopDevice();
        SENSOR_ERROR(kLineStartPipeline, "failed to start sensor(%d) pipeline: %d", param.sensor_id,
                     kStartFailureCode);
        if (testModel() == 0) {
            return -1;
        }
    }

    sensor_started_ = true;
    SENSOR_TRACE(kLineStartExit, "[%s] AOV sensor start(%p)-", __func__,
                 static_cast<void*>(&param));
    return 0;
}

int AOVSensor::stopSensor() {
    SENSOR_TRACE(kLineStopEnter, "[%s] AOV sensor stop+", __func__);
    resetSensor();
    SENSOR_TRACE(kLineStopExit, "[%s] AOV sensor stop-", __func__);
    return 0;
}

void AOVSensor::resetSensor() {
    // The pipeline always goes down before the sensor's power.
    if (sensor_started_) {
        stopPipeline();
        stopDevice();
        sensor_started_ = false;
    }
}
