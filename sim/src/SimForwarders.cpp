#include "aovsim/SimForwarders.h"

#include "aovsim/Trace.h"

namespace aovsim {

void SimSensorDevice::releaseSensorDevice(const char* caller) {
    const PlatformCallSpan span(platform_->trace(), "releaseSensorDevice");
    platform_->releaseDevice(sensor_id_, caller);
}
bool SimSensorDevice::switchMclkToUlposc(const char* caller, const int32_t* sensorId) {
    const PlatformCallSpan span(platform_->trace(), "switchMclkToUlposc");
    return platform_->switchMclk(sensor_id_, caller, sensorId);
}
bool SimSensorDevice::restoreMclk(const char* caller, const int32_t* sensorId) {
    const PlatformCallSpan span(platform_->trace(), "restoreMclk");
    return platform_->restoreMclk(sensor_id_, caller, sensorId);
}
bool SimSensorDevice::powerOnSensor(const char* caller, uint32_t count, const int32_t* sensorIds) {
    const PlatformCallSpan span(platform_->trace(), "powerOnSensor");
    return platform_->powerOn(sensor_id_, caller, count, sensorIds);
}
bool SimSensorDevice::powerOffSensor(const char* caller, uint32_t count, const int32_t* sensorIds) {
    const PlatformCallSpan span(platform_->trace(), "powerOffSensor");
    return platform_->powerOff(sensor_id_, caller, count, sensorIds);
}

int32_t SimSensorList::queryNumberOfSensors() const {
    const PlatformCallSpan span(platform_->trace(), "queryNumberOfSensors");
    return platform_->sensorCount();
}
int32_t SimSensorList::queryFacingDirection(int32_t sensorId) const {
    const PlatformCallSpan span(platform_->trace(), "queryFacingDirection");
    return platform_->facingOf(sensorId);
}
int32_t SimSensorList::querySensorDevIdx(int32_t sensorId) const {
    const PlatformCallSpan span(platform_->trace(), "querySensorDevIdx");
    return platform_->deviceOf(sensorId);
}
void SimSensorList::querySensorStaticInfo(uint32_t sensorDevIdx,
                                          NSCam::SensorStaticInfo* info) const {
    const PlatformCallSpan span(platform_->trace(), "querySensorStaticInfo");
    platform_->fillStaticInfo(sensorDevIdx, info);
}
uint32_t SimSensorList::searchSensors() {
    const PlatformCallSpan span(platform_->trace(), "searchSensors");
    return platform_->searchSensors();
}
NSCam::IHalSensor* SimSensorList::openSensorDevice(const char* caller, uint32_t sensorId) {
    const PlatformCallSpan span(platform_->trace(), "openSensorDevice");
    return platform_->openDevice(caller, sensorId);
}
int32_t SimSensorList::querySensorId(uint32_t index) const {
    const PlatformCallSpan span(platform_->trace(), "querySensorId");
    return platform_->sensorIdAt(index);
}

int SimCustom::queryDetectMode(int width, int height, unsigned int& mode) {
    const PlatformCallSpan span(platform_->trace(), "queryDetectMode");
    return platform_->detectMode(width, height, mode);
}
int SimCustom::queryFrameInfo(int width, int height, int selector, uint32_t& info0, uint32_t& info1,
                              uint32_t& info2, uint32_t& info3) {
    const PlatformCallSpan span(platform_->trace(), "queryFrameInfo");
    uint32_t out[4] = {};
    const int result = platform_->frameInfo(width, height, selector, out);
    if (result == 0) {
        info0 = out[0];
        info1 = out[1];
        info2 = out[2];
        info3 = out[3];
    }
    return result;
}

int SimCamAgent::configNonLaggingP1Drv() {
    const PlatformCallSpan span(platform_->trace(), "configNonLaggingP1Drv");
    return platform_->configP1(agent_id_);
}
void SimCamAgent::detachSensor(const int32_t* sensorId) {
    const PlatformCallSpan span(platform_->trace(), "detachSensor");
    platform_->detachSensor(agent_id_, sensorId);
}
int SimCamAgent::configSensor(const coord::ConfigSensorParams* params) {
    const PlatformCallSpan span(platform_->trace(), "configSensor");
    return platform_->configSensor(agent_id_, params);
}

uint64_t SimCoordinator::createAgent(coord::AgentParams& params) {
    const PlatformCallSpan span(platform_->trace(), "createAgent");
    return platform_->createAgent(params);
}
void SimCoordinator::destroyAgent(uint64_t agentId) {
    const PlatformCallSpan span(platform_->trace(), "destroyAgent");
    platform_->destroyAgent(agentId);
}
std::shared_ptr<coord::ICamAgent> SimCoordinator::lookupAgent(unsigned long agentId) {
    const PlatformCallSpan span(platform_->trace(), "lookupAgent");
    if (!platform_->agentExists(agentId)) {
        return nullptr;
    }
    return std::make_shared<SimCamAgent>(platform_, agentId);
}

int SimSensorPipe::startPipe(int mode) {
    const PlatformCallSpan span(platform_->trace(), "startPipe");
    return platform_->startPipe(pipe_id_, mode);
}
int SimSensorPipe::stopPipe(int mode) {
    const PlatformCallSpan span(platform_->trace(), "stopPipe");
    return platform_->stopPipe(pipe_id_, mode);
}

std::shared_ptr<pipes::ISensorPipe> SimPipeFactory::createPipe(uint32_t cameraId, int32_t pipeType,
                                                               int32_t sharedPipeId,
                                                               int32_t flags) {
    const PlatformCallSpan span(platform_->trace(), "createPipe");
    const uint32_t id = platform_->createPipe(cameraId, pipeType, sharedPipeId, flags);
    if (id == 0) {
        return nullptr;
    }
    return std::make_shared<SimSensorPipe>(platform_, id);
}
int SimPipeFactory::destroyPipe(uint32_t pipeId, int32_t pipeType) {
    const PlatformCallSpan span(platform_->trace(), "destroyPipe");
    return platform_->destroyPipe(pipeId, pipeType);
}

int SimPipeMgr::uninit() {
    const PlatformCallSpan span(platform_->trace(), "uninit");
    return platform_->pipeMgrUninit();
}
std::shared_ptr<pipes::ISensorPipeFactory> SimPipeMgr::getSensorPipeFactory() {
    const PlatformCallSpan span(platform_->trace(), "getSensorPipeFactory");
    platform_->pipeFactoryHandedOut();
    return factory_;
}

}  // namespace aovsim
