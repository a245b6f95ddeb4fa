#pragma once

#include <cstdint>
#include <vector>

#include "cam/sensor/IHalSensor.h"

namespace aovtest {

// A sensor as the platform lists it.
struct FakeSensor {
    int32_t id;
    int32_t devIdx;
    int32_t facing;
    NSCam::SensorStaticInfo info;
};

// Device index that the platform reports for an id it does not list.
constexpr int32_t kUnlistedDevIdx = 0x4000;

// A platform sensor list of fixed sensors, listed in order. It answers every
// query from `sensors`; an unlisted id has device index kUnlistedDevIdx and
// facing 0, an unknown device index leaves the static info as it was. It opens
// no sensor devices.
class FakeSensorList : public NSCam::IHalSensorList {
  public:
    explicit FakeSensorList(std::vector<FakeSensor> sensors = {}) : sensors(std::move(sensors)) {}

    int32_t queryNumberOfSensors() const override;
    int32_t queryFacingDirection(int32_t id) const override;
    int32_t querySensorDevIdx(int32_t id) const override;
    void querySensorStaticInfo(uint32_t devIdx, NSCam::SensorStaticInfo* info) const override;
    uint32_t searchSensors() override;
    NSCam::IHalSensor* openSensorDevice(const char* user, uint32_t id) override;
    int32_t querySensorId(uint32_t index) const override;

    std::vector<FakeSensor> sensors;

  private:
    const FakeSensor* find(int32_t id) const;
};

}  // namespace aovtest
