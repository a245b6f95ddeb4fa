#pragma once

#include <cstdint>
#include <vector>

#include "AOVExport.h"
#include "user_param.h"

// One accepted sensor scenario. The first four words are copied as one block
// into user_param::mode_head, so their order is part of the kernel interface.
struct sensor_mode {
    uint32_t type;
    uint32_t bit;
    uint32_t sensor_ae;  // 1: viewing scenario, anything else: sensing
    uint32_t mode_param;
    uint32_t fps;      // whole frames per second
    int32_t scenario;  // negative: no scenario
};

static_assert(sizeof(sensor_mode) == 24, "sensor_mode is six 32-bit words");

// One resolution of one sensor, with every accepted scenario of that resolution.
struct sensor_info {
    int32_t width;
    int32_t height;
    int32_t orientation;
    int32_t face;                   // 1 when the sensor faces the user
    std::vector<uint32_t> fps;      // one per scenario, in scenario order
    std::vector<sensor_mode> mode;  // parallel to fps
};

// The sensor-control service of the AOV platform layer.
class AOV_EXPORT IAOVSensor {
  public:
    static IAOVSensor* getInstance();

    // Ids of the AOV-capable sensors, ascending.
    virtual std::vector<int> querySensors() = 0;
    // The platform's sensor-device bitmask of a sensor id.
    virtual int getSensorDev(int sensorId) = 0;
    // The catalogue entries (one per resolution) of a sensor.
    virtual std::vector<sensor_info> getSensorInfo(int sensorId) = 0;
    // Detection mode the customisation layer wants for the sensor; 0 on success.
    virtual int getSensorMode(int sensorId, unsigned int& mode) = 0;
    // Completes `param`, powers the sensor and starts its pipeline; 0 on success.
    virtual int startSensor(user_param& param) = 0;
    // Stops the pipeline, then the sensor; always 0.
    virtual int stopSensor() = 0;
    virtual ~IAOVSensor();
};
