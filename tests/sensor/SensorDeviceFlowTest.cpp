// The system layer's whole run through both services: sensor discovery, the
// sensor start that completes the record, the device start that hands it to
// the driver, one event, the notifications, and the stops.

#include "AOVDevice.h"
#include "BoundedWait.h"
#include "FakeAovDriver.h"
#include "SensorFixture.h"

namespace aovtest {
namespace {

constexpr char kFlowNode[] = "/dev/kelo_aov_flow_test";

TEST_F(SensorServiceTest, SystemLayerRunsSensorAndDeviceTogether) {
    // 1. Both services; the device opens its node, whose every dequeue
    // answers with one fixed event.
    auto driver = std::make_shared<FakeAovDriver>();
    aov_event_query event{};
    for (uint32_t i = 0; i < 6; ++i) {
        event.header[i] = 0x100 + i;
    }
    event.s1_info = 0x201;
    event.s6_info[4] = 0x605;
    driver->setEvent(event, 0x5A);
    aovhost::ScopedNode node(kFlowNode, driver);
    createSensor();
    AOVDevice device(kFlowNode);
    ASSERT_GE(device.getEventFD(), 0);

    // 2. What the sensors offer.
    EXPECT_EQ(sensor_->querySensors(), std::vector<int>{kSensorId});
    const std::vector<sensor_info> infos = sensor_->getSensorInfo(kSensorId);
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(sensor_->getSensorDev(kSensorId), kSensorDev);
    EXPECT_CALL(*custom_, queryDetectMode(infos[0].width, infos[0].height, _))
        .WillOnce(DoAll(SetArgReferee<2>(4u), Return(0)));
    unsigned int detectMode = 0;
    EXPECT_EQ(sensor_->getSensorMode(kSensorId, detectMode), 0);
    EXPECT_EQ(detectMode, 4u);

    // 3. The sensor start completes the record.
    user_param param = request(kSensorId, 640, 480, 5);
    param.aov_mode = 2;
    const user_param requested = param;
    expectRun(param, main_);
    ASSERT_EQ(sensor_->startSensor(param), 0);

    // 4. The device hands the driver the first 200 bytes of that record.
    ASSERT_EQ(device.startDevice(param), 0);
    std::vector<uint8_t> expected = startedRecord(requested, kCameraId, /*moded=*/true);
    expected.resize(200);
    const std::vector<DriverRequest> requests = driver->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].code, AOV_IOC_START);
    EXPECT_EQ(requests[0].in, expected);

    // 5. The monitor's notification delivers one event to the callback. The
    // buffer is prepared on the library's thread; notifications before it is
    // ready send no command, so the first event dequeued is the one delivered.
    StrictMock<MockEventMonitor> monitor;
    EXPECT_CALL(monitor, addObserver(static_cast<EventObserver*>(&device), -1)).WillOnce(Return(0));
    ASSERT_EQ(device.setMonitor(&monitor), 0);
    std::vector<uint32_t> seen;
    device.callback_ = [&seen](aov_event* event) {
        seen = {event->header[0], event->header[5], event->s1_info, event->s1_data[0],
                event->s6_info[4]};
    };
    ASSERT_TRUE(retryUntil([&] {
        device.notifyEvent(0, 0);
        return !seen.empty();
    })) << "no event delivered within "
        << kWaitLimit.count() << " s: the event buffer was not stored";
    // Header, first section and, as aov_mode 2 passes the full content, the sixth.
    EXPECT_EQ(seen, (std::vector<uint32_t>{0x100, 0x105, 0x201, 0x5A, 0x605}));

    // 6. Clock and sensor notifications.
    EXPECT_EQ(device.notifyUlposc3(true), 0);
    EXPECT_EQ(device.notifySensor({kSensorId}, true), 0);

    // 7. Sensor first (pipeline, then power), then the device.
    EXPECT_EQ(sensor_->stopSensor(), 0);
    EXPECT_EQ(device.stopDevice(), 0);
    EXPECT_EQ(driver->codes(),
              (std::vector<unsigned int>{AOV_IOC_START, AOV_IOC_DEQUEUE_EVENT, AOV_IOC_ULPOSC3_ON,
                                         AOV_IOC_SENSOR_ON, AOV_IOC_STOP}));
    EXPECT_CALL(monitor, removeObserver(static_cast<EventObserver*>(&device), -1))
        .WillOnce(Return(0));
    EXPECT_EQ(device.setMonitor(nullptr), 0);
}

}  // namespace
}  // namespace aovtest
