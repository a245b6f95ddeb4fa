#pragma once

#include <cstdint>

namespace NSCam {

constexpr int kSensorScenarioCount = 50;

// One sensor scenario (a mode the sensor driver offers), as the driver reports it.
struct SensorScenarioInfo {
    uint16_t width = 0;
    uint16_t height = 0;
    uint32_t frameRate = 0;  // tenths of a frame per second
    uint32_t aeKind = 0;     // 1: viewing scenario, anything else: sensing
    uint32_t type = 0;
    uint32_t bit = 0;
    uint32_t modeParam = 0;
};

// Static description of a sensor, filled by IHalSensorList::querySensorStaticInfo.
struct SensorStaticInfo {
    uint32_t sensorDevId = 0;
    int32_t orientation = 0;
    uint32_t facingDirection = 0;
    uint32_t previewWidth = 0;
    uint32_t previewHeight = 0;
    SensorScenarioInfo scenarios[kSensorScenarioCount];
};

// An opened sensor device. Released through releaseSensorDevice, never deleted by callers.
class IHalSensor {
  public:
    // The destructor takes the table's first two entries.
    virtual ~IHalSensor() = default;
    virtual void releaseSensorDevice(const char* caller) = 0;
    virtual bool switchMclkToUlposc(const char* caller, const int32_t* sensorId) = 0;
    virtual bool restoreMclk(const char* caller, const int32_t* sensorId) = 0;
    virtual bool powerOnSensor(const char* caller, uint32_t count, const int32_t* sensorIds) = 0;
    virtual bool powerOffSensor(const char* caller, uint32_t count, const int32_t* sensorIds) = 0;
};

// The platform's list of image sensors.
class IHalSensorList {
  public:
    static IHalSensorList* get();

    virtual int32_t queryNumberOfSensors() const = 0;
    virtual int32_t queryFacingDirection(int32_t sensorId) const = 0;
    virtual int32_t querySensorDevIdx(int32_t sensorId) const = 0;
    virtual void querySensorStaticInfo(uint32_t sensorDevIdx, SensorStaticInfo* info) const = 0;
    // Probes the sensors again; returns how many were found.
    virtual uint32_t searchSensors() = 0;
    virtual IHalSensor* openSensorDevice(const char* caller, uint32_t sensorId) = 0;
    virtual int32_t querySensorId(uint32_t index) const = 0;

    virtual ~IHalSensorList() = default;
};

}  // namespace NSCam
