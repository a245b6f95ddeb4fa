// Includes the installed headers by the names the system layer and a driver
// author use, and links the two services' entry points.
#include <cstdio>

#include "EventObserver.h"
#include "IAOVDevice.h"
#include "IAOVSensor.h"
#include "kelo_aov.h"

int main() {
    IAOVDevice* (*device)() = &IAOVDevice::getInstance;
    IAOVSensor* (*sensor)() = &IAOVSensor::getInstance;
    std::printf("linked device %d sensor %d, sensor_mode %zu bytes\n", device != nullptr,
                sensor != nullptr, sizeof(sensor_mode));
    return 0;
}
