#pragma once

// The platform interfaces as the library obtains them: thin objects that
// forward every call to the one SimPlatform model, which keeps the state and
// decides each call's result.

#include <cstdint>
#include <memory>

#include "aovsim/SimPlatform.h"
#include "cam/coordinator/ICamCoordinator.h"
#include "cam/custom/IAOVCustom.h"
#include "cam/pipemgr/IPipeMgr.h"
#include "cam/sensor/IHalSensor.h"

namespace aovsim {

class SimSensorDevice final : public NSCam::IHalSensor {
  public:
    SimSensorDevice(SimPlatform* platform, int32_t sensorId)
        : platform_(platform), sensor_id_(sensorId) {}
    void releaseSensorDevice(const char* caller) override;
    bool switchMclkToUlposc(const char* caller, const int32_t* sensorId) override;
    bool restoreMclk(const char* caller, const int32_t* sensorId) override;
    bool powerOnSensor(const char* caller, uint32_t count, const int32_t* sensorIds) override;
    bool powerOffSensor(const char* caller, uint32_t count, const int32_t* sensorIds) override;

  private:
    SimPlatform* platform_;
    int32_t sensor_id_;
};

class SimSensorList final : public NSCam::IHalSensorList {
  public:
    explicit SimSensorList(std::shared_ptr<SimPlatform> platform)
        : platform_(std::move(platform)) {}
    int32_t queryNumberOfSensors() const override;
    int32_t queryFacingDirection(int32_t sensorId) const override;
    int32_t querySensorDevIdx(int32_t sensorId) const override;
    void querySensorStaticInfo(uint32_t sensorDevIdx, NSCam::SensorStaticInfo* info) const override;
    uint32_t searchSensors() override;
    NSCam::IHalSensor* openSensorDevice(const char* caller, uint32_t sensorId) override;
    int32_t querySensorId(uint32_t index) const override;

  private:
    std::shared_ptr<SimPlatform> platform_;
};

class SimCustom final : public IAOVCustom {
  public:
    explicit SimCustom(std::shared_ptr<SimPlatform> platform) : platform_(std::move(platform)) {}
    int queryDetectMode(int width, int height, unsigned int& mode) override;
    int queryFrameInfo(int width, int height, int selector, uint32_t& info0, uint32_t& info1,
                       uint32_t& info2, uint32_t& info3) override;

  private:
    std::shared_ptr<SimPlatform> platform_;
};

class SimCamAgent final : public coord::ICamAgent {
  public:
    SimCamAgent(std::shared_ptr<SimPlatform> platform, uint64_t agentId)
        : platform_(std::move(platform)), agent_id_(agentId) {}
    int configNonLaggingP1Drv() override;
    void detachSensor(const int32_t* sensorId) override;
    int configSensor(const coord::ConfigSensorParams* params) override;

  private:
    std::shared_ptr<SimPlatform> platform_;
    uint64_t agent_id_;
};

class SimCoordinator final : public coord::CamCoordinatorImp {
  public:
    explicit SimCoordinator(std::shared_ptr<SimPlatform> platform)
        : platform_(std::move(platform)) {}
    uint64_t createAgent(coord::AgentParams& params) override;
    void destroyAgent(uint64_t agentId) override;

  protected:
    std::shared_ptr<coord::ICamAgent> lookupAgent(unsigned long agentId) override;

  private:
    std::shared_ptr<SimPlatform> platform_;
};

class SimSensorPipe final : public pipes::ISensorPipe {
  public:
    SimSensorPipe(std::shared_ptr<SimPlatform> platform, uint32_t pipeId)
        : platform_(std::move(platform)), pipe_id_(pipeId) {}
    uint32_t getPipeId() override { return pipe_id_; }
    int startPipe(int mode) override;
    int stopPipe(int mode) override;

  private:
    std::shared_ptr<SimPlatform> platform_;
    uint32_t pipe_id_;
};

class SimPipeFactory final : public pipes::ISensorPipeFactory {
  public:
    explicit SimPipeFactory(std::shared_ptr<SimPlatform> platform)
        : platform_(std::move(platform)) {}
    std::shared_ptr<pipes::ISensorPipe> createPipe(uint32_t cameraId, int32_t pipeType,
                                                   int32_t sharedPipeId, int32_t flags) override;
    int destroyPipe(uint32_t pipeId, int32_t pipeType) override;

  private:
    std::shared_ptr<SimPlatform> platform_;
};

class SimPipeMgr final : public pipes::IPipeMgr {
  public:
    explicit SimPipeMgr(std::shared_ptr<SimPlatform> platform)
        : platform_(platform), factory_(std::make_shared<SimPipeFactory>(platform)) {}
    int uninit() override;
    std::shared_ptr<pipes::ISensorPipeFactory> getSensorPipeFactory() override;

  private:
    std::shared_ptr<SimPlatform> platform_;
    std::shared_ptr<SimPipeFactory> factory_;
};

}  // namespace aovsim
