#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>

#include "DeviceTestSupport.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using AOVDeviceLifecycleTest = DeviceTest;

TEST_F(AOVDeviceLifecycleTest, SingletonOpensTheDeviceNodeReadWriteOnce) {
    // The instance lives until the process exits, and so does its driver.
    static const auto driver = std::make_shared<FakeAovDriver>();
    aovhost::ScopedNode node("/dev/kelo_aov", driver);
    IAOVDevice* device = IAOVDevice::getInstance();
    EXPECT_EQ(device, IAOVDevice::getInstance());
    EXPECT_EQ(1, driver->opens());
    EXPECT_EQ(2, driver->lastOpenFlags());
    auto* observer = dynamic_cast<EventObserver*>(device);
    ASSERT_NE(nullptr, observer);
    EXPECT_EQ("/dev/kelo_aov", observer->getEventName());
    EXPECT_GE(device->getEventFD(), 0);
}

TEST_F(AOVDeviceLifecycleTest, NodeThatFailsToOpenLeavesAUsableObject) {
    driver_->setOpenResult(-ENOENT);
    {
        AOVDevice device(kTestNode);
        expectErrorLine(logs_, kDevicePath, "AOVDevice", "failed to open AOV device");
        EXPECT_TRUE(device.isSupport());
        EXPECT_EQ(-1, device.getEventFD());
        EXPECT_EQ(2, device.getEventType());
        EXPECT_EQ(kTestNode, device.getEventName());

        user_param param = makeParam(2);
        EXPECT_EQ(-22, device.startDevice(param));
        expectErrorLine(logs_, kDevicePath, "startDevice", "failed to set sensor info: -22");
        EXPECT_EQ(-22, device.stopDevice());
        expectErrorLine(logs_, kDevicePath, "stopDevice", "failed to stop device: -22");

        logs_.enableTraces();
        logs_.clear();
        device.notifyEvent(0, 1);
        EXPECT_THAT(traces(logs_), ElementsAre("[notifyEvent] AOV device is not started"));
    }
    expectErrorLine(logs_, kDevicePath, "~AOVDevice", "failed to close AOV device");
    EXPECT_THAT(driver_->requests(), IsEmpty());
}

TEST_F(AOVDeviceLifecycleTest, StartSendsTheCallersRecordAndStopEndsDelivery) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param;
    auto* bytes = reinterpret_cast<uint8_t*>(&param);
    for (size_t i = 0; i < sizeof(param); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);

    // Started and stopped at once, then again with an event in between.
    for (int cycle = 0; cycle < 2; ++cycle) {
        ASSERT_EQ(0, device.startDevice(param));
        if (cycle == 1) {
            deliverFirstEvent(device, probe);
        }
        EXPECT_EQ(0, device.stopDevice());
    }
    EXPECT_EQ(1, probe.calls);
    const auto requests = driver_->requests();
    ASSERT_EQ(5u, requests.size());
    EXPECT_EQ(AOV_IOC_START, requests[0].code);
    ASSERT_EQ(kUserParamKernelSize, requests[0].in.size());
    EXPECT_EQ(0, std::memcmp(bytes, requests[0].in.data(), kUserParamKernelSize));
    EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_START, AOV_IOC_STOP, AOV_IOC_START,
                                              AOV_IOC_DEQUEUE_EVENT, AOV_IOC_STOP));

    // Stopped: no command, no callback, and nothing is freed twice.
    driver_->clearRequests();
    device.notifyEvent(0, 0);
    EXPECT_EQ(0, device.stopDevice());
    EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_STOP));
    EXPECT_EQ(1, probe.calls);
}

TEST_F(AOVDeviceLifecycleTest, StopWithoutStartSendsTheCommandAndReturnsOnlyFailures) {
    struct Row {
        int driverResult;
        int expected;
    };
    for (const Row& row : {Row{0, 0}, Row{4, 0}, Row{-EIO, -EIO}}) {
        SCOPED_TRACE(row.driverResult);
        AOVDevice device(kTestNode);
        driver_->clearRequests();
        logs_.clear();
        driver_->queueResult(AOV_IOC_STOP, row.driverResult);
        EXPECT_EQ(row.expected, device.stopDevice());
        EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_STOP));
        if (row.expected < 0) {
            expectErrorLine(logs_, kDevicePath, "stopDevice", "failed to stop device: -5");
        } else {
            EXPECT_THAT(errors(logs_), IsEmpty());
        }
    }
}

TEST_F(AOVDeviceLifecycleTest, FailedStartLeavesTheStateAsItWas) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param = makeParam(0);

    // Stopped stays stopped.
    driver_->queueResult(AOV_IOC_START, -EBUSY);
    EXPECT_EQ(-EBUSY, device.startDevice(param));
    expectErrorLine(logs_, kDevicePath, "startDevice", "failed to set sensor info: -16");
    logs_.enableTraces();
    logs_.clear();
    device.notifyEvent(0, 1);
    EXPECT_THAT(traces(logs_), ElementsAre("[notifyEvent] AOV device is not started"));
    logs_.enableTraces(0);

    // Started stays started, with its buffer; no second task is launched
    // (its buffer would leak).
    ASSERT_EQ(0, device.startDevice(param));
    aov_event* buffer = deliverFirstEvent(device, probe);
    driver_->queueResult(AOV_IOC_START, -EBUSY);
    EXPECT_EQ(-EBUSY, device.startDevice(param));
    device.notifyEvent(0, 0);
    EXPECT_EQ(2, probe.calls);
    EXPECT_EQ(buffer, probe.last);
    EXPECT_EQ(0, device.stopDevice());
}

TEST_F(AOVDeviceLifecycleTest, FailedStopCommandStillEndsDelivery) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param = makeParam(0);
    ASSERT_EQ(0, device.startDevice(param));
    deliverFirstEvent(device, probe);
    driver_->queueResult(AOV_IOC_STOP, -EIO);
    EXPECT_EQ(-EIO, device.stopDevice());
    device.notifyEvent(0, 0);
    EXPECT_EQ(1u, driver_->count(AOV_IOC_DEQUEUE_EVENT));
    EXPECT_EQ(1, probe.calls);
}

TEST_F(AOVDeviceLifecycleTest, SecondStartWithoutStopReplacesTheBuffer) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param = makeParam(0);
    ASSERT_EQ(0, device.startDevice(param));
    aov_event* first = deliverFirstEvent(device, probe);
    ASSERT_EQ(0, device.startDevice(param));
    // Until the second task stores its buffer, events still land in the first.
    while (deliverFirstEvent(device, probe) == first) {
    }
    // The first buffer is never freed.
    ignoreLeak(first);
    EXPECT_EQ(2u, driver_->count(AOV_IOC_START));
    EXPECT_EQ(0, device.stopDevice());
}

TEST_F(AOVDeviceLifecycleTest, DestructionWithoutStopLeavesTheBufferAndClosesTheNode) {
    {
        AOVDevice device(kTestNode);
        CallbackProbe probe;
        probe.attach(device);
        user_param param = makeParam(0);
        ASSERT_EQ(0, device.startDevice(param));
        ignoreLeak(deliverFirstEvent(device, probe));
        logs_.clear();
    }
    EXPECT_EQ(1, driver_->closes());
    EXPECT_EQ(0u, driver_->count(AOV_IOC_STOP));
    EXPECT_THAT(errors(logs_), IsEmpty());
}

}  // namespace
}  // namespace aovtest
