#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

namespace NSCam {
namespace camsys {
namespace camcoordinator {

// Sensor mode a P1 configuration is made for.
struct SensorInfo {
    int32_t sensorId = 0;
    int32_t scenarioId = 0;
    int32_t fps = 0;
    int32_t width = 0;
    int32_t height = 0;
};

// Configuration of the P1 (raw capture) stage for one sensor mode.
struct P1ConfigureParams {
    std::shared_ptr<SensorInfo> sensorInfo;
    int64_t requestedPixelRate = -1;
    int32_t pipelineIndex = -1;
    std::unordered_map<uint32_t, uint32_t> bufferCounts;
    uint32_t frameCount = 0;
    uint32_t burstCount = 0;
    bool isSecure = false;
    bool isLowPower = false;
};

struct SensorData {
    int32_t sensorDevIdx = 0;
    uint32_t rawBitDepth = 0;
};

struct ModeData {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t fps = 0;
};

struct StreamInfo {
    int32_t streamId = 0;
    uint32_t format = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

struct CamsysConfigParams {
    uint32_t featureMask = 0;
    bool enableTimeSharing = false;
};

// What an agent is created for.
struct AgentParams {
    std::map<uint32_t, SensorData> sensorData;
    std::map<uint32_t, std::map<int32_t, std::shared_ptr<const P1ConfigureParams>>> p1Configs;
    std::map<uint32_t, ModeData> modeData;
    bool allowSensorSwitch = true;
    std::map<uint32_t, uint32_t> sensorScenarios;
    std::map<uint32_t, StreamInfo> streams;
    std::map<uint32_t, CamsysConfigParams> camsysConfigs;
    std::set<uint32_t> physicalSensors;
    std::vector<uint32_t> sensorOrder;
    bool isConfigComplete = false;
};

// The record configSensor reads; it begins with the sensor id.
struct ConfigSensorParams {
    int32_t sensorId = 0;
    uint32_t reserved[3] = {};
};

// A client's handle on the coordinator: owns the sensor and P1 configuration of its sensors.
class ICamAgent {
  public:
    virtual int configNonLaggingP1Drv() = 0;
    virtual void detachSensor(const int32_t* sensorId) = 0;
    virtual int configSensor(const ConfigSensorParams* params) = 0;
    virtual ~ICamAgent() = default;
};

// Arbitrates the camera hardware among clients.
class ICamCoordinator {
  public:
    static std::shared_ptr<ICamCoordinator> getInstance();

    virtual uint64_t createAgent(AgentParams& params) = 0;
    virtual void destroyAgent(uint64_t agentId) = 0;
    virtual ~ICamCoordinator() = default;
};

// The coordinator's implementation class, reached from the interface with castFrom.
class CamCoordinatorImp : public ICamCoordinator {
  public:
    // Empty when `coordinator` is empty or not a CamCoordinatorImp.
    static std::shared_ptr<CamCoordinatorImp> castFrom(
        std::shared_ptr<ICamCoordinator> coordinator);

    // Defined in the platform library, so that the class's type information
    // has one home there and castFrom recognises subclasses defined elsewhere.
    ~CamCoordinatorImp() override;

    // The agent with this id; empty when there is none.
    std::shared_ptr<ICamAgent> getAgent(unsigned long agentId) { return lookupAgent(agentId); }

  protected:
    virtual std::shared_ptr<ICamAgent> lookupAgent(unsigned long agentId) = 0;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
