// The exported interfaces' destructors, defined here rather than inline: the
// first out-of-line virtual member anchors a class's virtual table and type
// information in this library, so every build exports the same symbols
// whatever the optimisation level, and clients share one copy of each.
#include "EventObserver.h"
#include "IAOVDevice.h"
#include "IAOVSensor.h"

IAOVSensor::~IAOVSensor() = default;

IAOVDevice::~IAOVDevice() = default;

EventObserver::~EventObserver() = default;
