#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "PlatformMocks.h"
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

// A sensor whose scenarios 0, 1, ... are `scenarios`; the remaining ones stay unset.
FakeSensor sensorWith(int32_t id, int32_t devIdx,
                      std::initializer_list<NSCam::SensorScenarioInfo> scenarios,
                      int32_t facing = 0, int32_t orientation = 90);

// Lets `list` answer the catalogue queries about `sensors`, any number of times.
void serveSensors(MockSensorList& list, const std::vector<FakeSensor>& sensors);

}  // namespace aovtest
