#include "FakeSensorList.h"

namespace aovtest {

const FakeSensor* FakeSensorList::find(int32_t id) const {
    for (const FakeSensor& sensor : sensors) {
        if (sensor.id == id) {
            return &sensor;
        }
    }
    return nullptr;
}

int32_t FakeSensorList::queryNumberOfSensors() const {
    return static_cast<int32_t>(sensors.size());
}

int32_t FakeSensorList::queryFacingDirection(int32_t id) const {
    const FakeSensor* sensor = find(id);
    return sensor != nullptr ? sensor->facing : 0;
}

int32_t FakeSensorList::querySensorDevIdx(int32_t id) const {
    const FakeSensor* sensor = find(id);
    return sensor != nullptr ? sensor->devIdx : kUnlistedDevIdx;
}

void FakeSensorList::querySensorStaticInfo(uint32_t devIdx, NSCam::SensorStaticInfo* info) const {
    for (const FakeSensor& sensor : sensors) {
        if (static_cast<uint32_t>(sensor.devIdx) == devIdx) {
            *info = sensor.info;
            return;
        }
    }
}

uint32_t FakeSensorList::searchSensors() {
    return static_cast<uint32_t>(sensors.size());
}

NSCam::IHalSensor* FakeSensorList::openSensorDevice(const char*, uint32_t) {
    return nullptr;
}

int32_t FakeSensorList::querySensorId(uint32_t index) const {
    return index < sensors.size() ? sensors[index].id : -1;
}

}  // namespace aovtest
