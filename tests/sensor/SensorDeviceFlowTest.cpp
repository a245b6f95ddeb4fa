// The system layer's whole run through both services: sensor discovery, the
// sensor start that completes the record, the device start that hands it to
// the driver, one event, the notifications, and the stops.

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "AOVDevice.h"
#include "BoundedWait.h"
#include "SensorFixture.h"

namespace aovtest {
namespace {

constexpr char kFlowNode[] = "/dev/kelo_aov_flow_test";

// Driver of the flow test: keeps the request codes and the start record, and
// answers every dequeue with one fixed event. Called from the test thread only.
class RecordingDriver : public aovhost::EmulatedNode {
  public:
    int open(int) override {
        const int fd = ::eventfd(0, EFD_CLOEXEC);
        return fd < 0 ? -errno : fd;
    }
    int close(int fd) override { return ::close(fd) < 0 ? -errno : 0; }
    int ioctl(int, unsigned int request, void* arg) override {
        codes.push_back(request);
        if (request == AOV_IOC_START) {
            const auto* bytes = static_cast<const uint8_t*>(arg);
            start.assign(bytes, bytes + _IOC_SIZE(request));
        } else if (request == AOV_IOC_DEQUEUE_EVENT) {
            auto* query = static_cast<aov_event_query*>(arg);
            for (uint32_t i = 0; i < 6; ++i) {
                query->header[i] = 0x100 + i;
            }
            query->s1_info = 0x201;
            query->s6_info[4] = 0x605;
            static_cast<uint8_t*>(query->s1_addr)[0] = 0x5A;
        }
        return 0;
    }

    std::vector<unsigned int> codes;
    std::vector<uint8_t> start;
};

TEST_F(SensorServiceTest, SystemLayerRunsSensorAndDeviceTogether) {
    // 1. Both services; the device opens its node.
    auto driver = std::make_shared<RecordingDriver>();
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
    EXPECT_EQ(driver->start, expected);

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
    EXPECT_EQ(driver->codes,
              (std::vector<unsigned int>{AOV_IOC_START, AOV_IOC_DEQUEUE_EVENT, AOV_IOC_ULPOSC3_ON,
                                         AOV_IOC_SENSOR_ON, AOV_IOC_STOP}));
    EXPECT_CALL(monitor, removeObserver(static_cast<EventObserver*>(&device), -1))
        .WillOnce(Return(0));
    EXPECT_EQ(device.setMonitor(nullptr), 0);
}

}  // namespace
}  // namespace aovtest
