#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "FakeSensorList.h"
#include "PlatformMocks.h"
#include "cam/sensor/IHalSensor.h"

namespace aovtest {

// A sensor whose scenarios 0, 1, ... are `scenarios`; the remaining ones stay unset.
FakeSensor sensorWith(int32_t id, int32_t devIdx,
                      std::initializer_list<NSCam::SensorScenarioInfo> scenarios,
                      int32_t facing = 0, int32_t orientation = 90);

// Lets `list` answer the catalogue queries about `sensors`, any number of times.
void serveSensors(MockSensorList& list, const std::vector<FakeSensor>& sensors);

}  // namespace aovtest
