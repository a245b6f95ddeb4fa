#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "IAOVSensor.h"
#include "aovbase/Mutex.h"
#include "cam/coordinator/ICamCoordinator.h"
#include "cam/custom/IAOVCustom.h"
#include "cam/pipemgr/IPipeMgr.h"
#include "cam/sensor/IHalSensor.h"

// The sensor-control service: catalogue of AOV-capable sensors and their
// low-rate modes, sensor power and clock, and the sensor pipeline.
class AOVSensor : public IAOVSensor {
  public:
    // Key of the per-sensor scratch table: (sensor id, width, height).
    using SensorKey = std::tuple<int, int, int>;

    struct SensorHash {
        // XOR of the three elements in 32 bits, sign-extended to the hash width.
        size_t operator()(const SensorKey& key) const {
            const int32_t mixed = std::get<0>(key) ^ std::get<1>(key) ^ std::get<2>(key);
            return static_cast<size_t>(static_cast<int64_t>(mixed));
        }
    };
    // One sensor's resolutions while its scenarios are examined. Its iteration
    // order, which depends on the standard library, is the order of the
    // sensor's catalogue entries.
    using ScratchTable = std::unordered_map<SensorKey, sensor_info, SensorHash>;

    static constexpr int kScenarioCount = NSCam::kSensorScenarioCount;
    static constexpr int kUnknownSensorIdx = 13;

    AOVSensor();
    ~AOVSensor() override;

    AOVSensor(const AOVSensor&) = delete;
    AOVSensor& operator=(const AOVSensor&) = delete;

    std::vector<int> querySensors() override;
    int getSensorDev(int sensorId) override;
    std::vector<sensor_info> getSensorInfo(int sensorId) override;
    int getSensorMode(int sensorId, unsigned int& mode) override;
    int startSensor(user_param& param) override;
    int stopSensor() override;

    // Builds the catalogue on the first call; later calls only re-read the properties.
    void setupSensors() AOV_EXCLUDES(lock_);
    // Opens the sensor of param.sensor_id, moves its clock to ULPOSC and powers it on.
    int startDevice(user_param& param);
    // Powers the open sensor off, restores its clock and releases it; always 0.
    int stopDevice();
    // Creates the coordinator agent and starts the sensor pipe.
    int startPipeline(user_param& param);
    // Stops and destroys the sensor pipe, then releases the agent; always 0.
    int stopPipeline();
    // Detaches the sensor from the agent and destroys the agent.
    void releaseCamAgent();
    // Stops a started sensor (pipeline, then power) without logging.
    void resetSensor();

    // The sensor-device bitmask's bit position, or kUnknownSensorIdx.
    static int sensorIdxMapOf(int32_t sensorDevIdx);

  private:
    IAOVCustom* custom_;
    // Stored by every setupSensors call, also while another thread builds the
    // catalogue and reads it; relaxed is enough, nothing else hangs on it.
    std::atomic<int32_t> test_model_;
    bool catalogue_ready_ AOV_GUARDED_BY(lock_);
    bool sensor_started_;
    aov::Mutex lock_;
    // The catalogue: filled by setupSensors under lock_ while catalogue_ready_
    // is false; afterwards read without the lock, by calls that the system
    // layer serialises.
    std::set<int> sensor_ids_;
    std::map<int, int> sensor_idx_map_;
    std::multimap<int, sensor_info> sensor_infos_;
    NSCam::IHalSensorList* hal_sensor_list_;
    NSCam::IHalSensor* hal_sensor_;
    int32_t powered_sensor_id_;
    uint64_t agent_id_;
    std::shared_ptr<NSCam::camsys::camcoordinator::ICamAgent> agent_;
    std::shared_ptr<NSCam::camsys::pipemgr::isp7::IPipeMgr> pipe_mgr_;
    std::shared_ptr<NSCam::camsys::pipemgr::isp7::ISensorPipeFactory> pipe_factory_;
    std::shared_ptr<NSCam::camsys::pipemgr::isp7::ISensorPipe> sensor_pipe_;

    int32_t testModel() const { return test_model_.load(std::memory_order_relaxed); }
};
