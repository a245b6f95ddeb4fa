#pragma once

#include <gmock/gmock.h>

#include <memory>

#include "EventMonitor.h"
#include "aovhost/Binding.h"
#include "cam/coordinator/ICamCoordinator.h"
#include "cam/custom/IAOVCustom.h"
#include "cam/pipemgr/IPipeMgr.h"
#include "cam/sensor/IHalSensor.h"

namespace aovtest {

namespace coord = NSCam::camsys::camcoordinator;
namespace pipes = NSCam::camsys::pipemgr::isp7;

class MockSensorList : public NSCam::IHalSensorList {
  public:
    MOCK_METHOD(int32_t, queryNumberOfSensors, (), (const, override));
    MOCK_METHOD(int32_t, queryFacingDirection, (int32_t), (const, override));
    MOCK_METHOD(int32_t, querySensorDevIdx, (int32_t), (const, override));
    MOCK_METHOD(void, querySensorStaticInfo, (uint32_t, NSCam::SensorStaticInfo*),
                (const, override));
    MOCK_METHOD(uint32_t, searchSensors, (), (override));
    MOCK_METHOD(NSCam::IHalSensor*, openSensorDevice, (const char*, uint32_t), (override));
    MOCK_METHOD(int32_t, querySensorId, (uint32_t), (const, override));
};

class MockSensorDevice : public NSCam::IHalSensor {
  public:
    MOCK_METHOD(void, releaseSensorDevice, (const char*), (override));
    MOCK_METHOD(bool, switchMclkToUlposc, (const char*, const int32_t*), (override));
    MOCK_METHOD(bool, restoreMclk, (const char*, const int32_t*), (override));
    MOCK_METHOD(bool, powerOnSensor, (const char*, uint32_t, const int32_t*), (override));
    MOCK_METHOD(bool, powerOffSensor, (const char*, uint32_t, const int32_t*), (override));
};

class MockCustom : public IAOVCustom {
  public:
    MOCK_METHOD(int, queryDetectMode, (int, int, unsigned int&), (override));
    MOCK_METHOD(int, queryFrameInfo, (int, int, int, uint32_t&, uint32_t&, uint32_t&, uint32_t&),
                (override));
};

class MockCamAgent : public coord::ICamAgent {
  public:
    MOCK_METHOD(int, configNonLaggingP1Drv, (), (override));
    MOCK_METHOD(void, detachSensor, (const int32_t*), (override));
    MOCK_METHOD(int, configSensor, (const coord::ConfigSensorParams*), (override));
};

class MockCoordinator : public coord::CamCoordinatorImp {
  public:
    MOCK_METHOD(uint64_t, createAgent, (coord::AgentParams&), (override));
    MOCK_METHOD(void, destroyAgent, (uint64_t), (override));
    MOCK_METHOD(std::shared_ptr<coord::ICamAgent>, lookupAgent, (unsigned long), (override));
};

// A coordinator that is not a CamCoordinatorImp: castFrom fails on it.
class MockBareCoordinator : public coord::ICamCoordinator {
  public:
    MOCK_METHOD(uint64_t, createAgent, (coord::AgentParams&), (override));
    MOCK_METHOD(void, destroyAgent, (uint64_t), (override));
};

class MockCoordinatorSource : public aovhost::CamCoordinatorSource {
  public:
    MOCK_METHOD(std::shared_ptr<coord::ICamCoordinator>, getInstance, (), (override));
};

class MockSensorPipe : public pipes::ISensorPipe {
  public:
    MOCK_METHOD(uint32_t, getPipeId, (), (override));
    MOCK_METHOD(int, startPipe, (int), (override));
    MOCK_METHOD(int, stopPipe, (int), (override));
};

class MockPipeFactory : public pipes::ISensorPipeFactory {
  public:
    MOCK_METHOD(std::shared_ptr<pipes::ISensorPipe>, createPipe,
                (uint32_t, int32_t, int32_t, int32_t), (override));
    MOCK_METHOD(int, destroyPipe, (uint32_t, int32_t), (override));
};

class MockPipeMgr : public pipes::IPipeMgr {
  public:
    MOCK_METHOD(int, uninit, (), (override));
    MOCK_METHOD(std::shared_ptr<pipes::ISensorPipeFactory>, getSensorPipeFactory, (), (override));
};

class MockEventMonitor : public EventMonitor {
  public:
    MOCK_METHOD(int, addObserver, (EventObserver*, int), (override));
    MOCK_METHOD(int, removeObserver, (EventObserver*, int), (override));
};

}  // namespace aovtest
