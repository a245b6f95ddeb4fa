#pragma once

// The simulated camera platform: sensor list and sensor devices,
// customisation layer, camera coordinator with its agents, and the pipe
// manager with its sensor-pipe factory and pipes. All of them share one
// model (SimPlatform) that keeps the real state of every sensor, agent and
// pipe and refuses calls that a real platform would refuse: the refusal is
// the call's failure result plus a "REFUSED" line in the trace.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "aovbase/Mutex.h"
#include "aovsim/SimConfig.h"
#include "aovsim/Trace.h"
#include "cam/coordinator/ICamCoordinator.h"
#include "cam/custom/IAOVCustom.h"
#include "cam/pipemgr/IPipeMgr.h"
#include "cam/sensor/IHalSensor.h"

namespace aovsim {

namespace coord = NSCam::camsys::camcoordinator;
namespace pipes = NSCam::camsys::pipemgr::isp7;

// The pipe type of a sensor pipe.
constexpr int32_t kSensorPipeType = 17;

// State of the platform at one moment, for summaries and checks.
struct PlatformSnapshot {
    int open_devices = 0;  // sensors with an open device handle
    int powered = 0;
    int on_ulposc = 0;  // sensors whose clock runs from ULPOSC
    int agents = 0;
    int attached_sensors = 0;  // sensors configured on some agent
    int pipes = 0;
    int started_pipes = 0;
    int pipe_mgr_users = 0;  // getSensorPipeFactory calls not yet balanced by uninit
};

class SimSensorDevice;

class SimPlatform {
  public:
    SimPlatform(const SimConfig& config, std::shared_ptr<Trace> trace);
    ~SimPlatform();
    SimPlatform(const SimPlatform&) = delete;
    SimPlatform& operator=(const SimPlatform&) = delete;

    PlatformSnapshot snapshot() const;
    Trace& trace() { return *trace_; }

    // Sensor list.
    int32_t sensorCount();
    uint32_t searchSensors();
    int32_t sensorIdAt(uint32_t index);
    int32_t deviceOf(int32_t sensorId);
    int32_t facingOf(int32_t sensorId);
    void fillStaticInfo(uint32_t device, NSCam::SensorStaticInfo* info);
    NSCam::IHalSensor* openDevice(const char* caller, uint32_t sensorId);

    // Sensor device of `sensorId`.
    void releaseDevice(int32_t sensorId, const char* caller);
    bool switchMclk(int32_t sensorId, const char* caller, const int32_t* target);
    bool restoreMclk(int32_t sensorId, const char* caller, const int32_t* target);
    bool powerOn(int32_t sensorId, const char* caller, uint32_t count, const int32_t* ids);
    bool powerOff(int32_t sensorId, const char* caller, uint32_t count, const int32_t* ids);

    // Customisation.
    int detectMode(int width, int height, unsigned int& mode);
    int frameInfo(int width, int height, int selector, uint32_t (&out)[4]);

    // Coordinator and agents.
    uint64_t createAgent(const coord::AgentParams& params);
    void destroyAgent(uint64_t agentId);
    bool agentExists(uint64_t agentId);
    int configSensor(uint64_t agentId, const coord::ConfigSensorParams* params);
    int configP1(uint64_t agentId);
    void detachSensor(uint64_t agentId, const int32_t* sensorId);

    // Pipe manager, factory and pipes. createPipe returns the new pipe's id, or 0.
    void pipeFactoryHandedOut();
    int pipeMgrUninit();
    uint32_t createPipe(uint32_t cameraId, int32_t pipeType, int32_t sharedPipeId, int32_t flags);
    int destroyPipe(uint32_t pipeId, int32_t pipeType);
    int startPipe(uint32_t pipeId, int mode);
    int stopPipe(uint32_t pipeId, int mode);

  private:
    struct SensorState {
        SensorConfig config;
        std::unique_ptr<SimSensorDevice> device;
        int open_refs = 0;
        bool on_ulposc = false;
        bool powered = false;
    };
    struct AgentState {
        std::set<int32_t> allowed;     // sensors the agent was created for
        std::set<int32_t> configured;  // sensors attached by configSensor
        bool p1_configured = false;
    };
    struct PipeState {
        uint32_t camera = 0;
        bool started = false;
        int mode = 0;
    };

    SensorState* sensorById(int32_t sensorId) AOV_REQUIRES(mutex_);
    SensorState* sensorByCamera(uint32_t cameraId) AOV_REQUIRES(mutex_);
    // Checks the target pointer of a device call; refuses and returns false when wrong.
    bool deviceCallValid(const SensorState* sensor, const char* op, const int32_t* target,
                         uint32_t count);

    const SimConfig config_;
    std::shared_ptr<Trace> trace_;
    mutable aov::Mutex mutex_;
    std::vector<SensorState> sensors_ AOV_GUARDED_BY(mutex_);
    std::map<uint64_t, AgentState> agents_ AOV_GUARDED_BY(mutex_);
    uint64_t next_agent_id_ AOV_GUARDED_BY(mutex_) = 1;
    std::map<uint32_t, PipeState> pipes_ AOV_GUARDED_BY(mutex_);
    uint32_t next_pipe_id_ AOV_GUARDED_BY(mutex_) = 100;
    int pipe_mgr_users_ AOV_GUARDED_BY(mutex_) = 0;
};

}  // namespace aovsim
