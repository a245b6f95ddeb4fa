// The device node and the commands sent through it: DevControl's open, close
// and request guards, and for each AOVDevice call what reaches the driver and
// what the call returns and logs.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "BoundedWait.h"
#include "DevControl.h"
#include "DeviceTestSupport.h"
#include "kelo_aov.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using DevControlTest = DeviceTest;
using AOVDeviceCommandTest = DeviceTest;

TEST_F(DevControlTest, OpensOnceAndTracesEachStep) {
    logs_.enableTraces(6);
    DevControl dev(kTestNode);
    EXPECT_EQ(0, dev.open(2));
    EXPECT_EQ(0, dev.open(2));
    EXPECT_EQ(1, driver_->opens());
    EXPECT_EQ(2, driver_->lastOpenFlags());

    const auto lines = traces(logs_);
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("[DevControl] /dev/kelo_aov_test device", lines[0]);
    EXPECT_EQ("[open] /dev/kelo_aov_test open+", lines[1]);
    // The descriptor is in the open(%d)- line and repeated by the second open.
    int fd = -1;
    ASSERT_EQ(1, std::sscanf(lines[2].c_str(), "[open] /dev/kelo_aov_test open(%d)-", &fd));
    EXPECT_GE(fd, 0);
    EXPECT_EQ("[open] /dev/kelo_aov_test open(" + std::to_string(fd) + ")-", lines[2]);
    EXPECT_EQ("[open] fd(" + std::to_string(fd) + ") opened", lines[3]);

    // The "opened" line belongs to the more verbose level only.
    logs_.clear();
    logs_.enableTraces(5);
    EXPECT_EQ(0, dev.open(2));
    EXPECT_THAT(traces(logs_), IsEmpty());
}

TEST_F(DevControlTest, FailedOpenReturnsTheSystemResultAndGuardsEverything) {
    driver_->setOpenResult(-EACCES);
    logs_.enableTraces();
    DevControl dev(kTestNode);
    EXPECT_EQ(-EACCES, dev.open(2));
    // The result is traced before it is tested.
    EXPECT_THAT(traces(logs_), ElementsAre("[DevControl] /dev/kelo_aov_test device",
                                           "[open] /dev/kelo_aov_test open+",
                                           "[open] /dev/kelo_aov_test open(-13)-"));
    expectErrorLine(logs_, kDevControlPath, "open", "failed to open device: -13");

    logs_.clear();
    EXPECT_EQ(-22, dev.ioctl(static_cast<int>(AOV_IOC_STOP), nullptr, false, nullptr));
    EXPECT_EQ(-22, dev.close());
    EXPECT_THAT(traces(logs_),
                ElementsAre("[ioctl] device fd(-1) closed", "[close] device fd(-1) closed"));
    EXPECT_THAT(driver_->requests(), IsEmpty());
    EXPECT_EQ(0, driver_->closes());
    EXPECT_EQ(1, driver_->opens());
}

TEST_F(DevControlTest, FailedCloseKeepsTheDescriptorForTheDestructor) {
    {
        DevControl dev(kTestNode);
        ASSERT_EQ(0, dev.open(2));
        driver_->queueCloseResult(-EIO);
        logs_.enableTraces();
        EXPECT_EQ(-EIO, dev.close());
        EXPECT_EQ("[close] /dev/kelo_aov_test close(-5)-", traces(logs_).back());
        expectErrorLine(logs_, kDevControlPath, "close",
                        "failed to close device: /dev/kelo_aov_test");
        // Still open: requests reach the driver.
        driver_->queueResult(AOV_IOC_STOP, 3);
        EXPECT_EQ(3, dev.ioctl(static_cast<int>(AOV_IOC_STOP), nullptr, false, nullptr));
    }
    EXPECT_EQ(2, driver_->closes());
}

TEST_F(DevControlTest, IoctlHandsOnTheArgumentAndReturnsTheDriverResultUnchanged) {
    DevControl dev(kTestNode);
    ASSERT_EQ(0, dev.open(2));
    aov_sensor_list list{};
    list.count = 7;
    for (int result : {0, 9, -EBUSY}) {
        driver_->queueResult(AOV_IOC_SENSOR_ON, result);
        EXPECT_EQ(result, dev.ioctl(static_cast<int>(AOV_IOC_SENSOR_ON), &list, false, nullptr));
    }
    const auto requests = driver_->requests();
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(sizeof(list), requests[2].in.size());
    EXPECT_EQ(7, requests[2].in[0]);

    EXPECT_EQ(0, dev.close());
    EXPECT_EQ(-22, dev.close());
    EXPECT_EQ(-22, dev.ioctl(static_cast<int>(AOV_IOC_SENSOR_ON), &list, false, nullptr));
    EXPECT_EQ(1, driver_->closes());
    EXPECT_EQ(3u, driver_->requests().size());
}

TEST_F(AOVDeviceCommandTest, SingletonOpensTheDeviceNodeReadWriteOnce) {
    // The instance lives until the process exits, and so does its driver.
    static const auto driver = std::make_shared<FakeAovDriver>();
    aovhost::ScopedNode node(AOV_DEVICE_NODE, driver);
    IAOVDevice* device = IAOVDevice::getInstance();
    EXPECT_EQ(device, IAOVDevice::getInstance());
    EXPECT_EQ(1, driver->opens());
    EXPECT_EQ(2, driver->lastOpenFlags());
    auto* observer = dynamic_cast<EventObserver*>(device);
    ASSERT_NE(nullptr, observer);
    EXPECT_EQ(AOV_DEVICE_NODE, observer->getEventName());
    EXPECT_GE(device->getEventFD(), 0);
}

TEST_F(AOVDeviceCommandTest, NodeThatFailsToOpenLeavesAUsableObject) {
    driver_->setOpenResult(-ENOENT);
    {
        AOVDevice device(kTestNode);
        expectErrorLine(logs_, kDevicePath, "AOVDevice", "failed to open AOV device");
        EXPECT_TRUE(device.isSupport());
        EXPECT_EQ(-1, device.getEventFD());
        EXPECT_EQ(2, device.getEventType());
        EXPECT_EQ(kTestNode, device.getEventName());

        // Every command fails with -22 and logs its own error.
        user_param param = makeParam(2);
        EXPECT_EQ(-22, device.startDevice(param));
        expectErrorLine(logs_, kDevicePath, "startDevice", "failed to set sensor info: -22");
        EXPECT_EQ(-22, device.stopDevice());
        expectErrorLine(logs_, kDevicePath, "stopDevice", "failed to stop device: -22");
        EXPECT_EQ(-22, device.notifyUlposc3(true));
        expectErrorLine(logs_, kDevicePath, "notifyUlposc3",
                        "failed to notify ulposc3: ret(-22), enable(1)");
        EXPECT_EQ(-22, device.notifySensor({4}, false));
        expectErrorLine(logs_, kDevicePath, "notifySensor", "failed to notify sensor: -22");
        EXPECT_THAT(tracesOf([&] { device.notifyEvent(0, 1); }), ElementsAre(kNotStarted));
    }
    expectErrorLine(logs_, kDevicePath, "~AOVDevice", "failed to close AOV device");
    EXPECT_THAT(driver_->requests(), IsEmpty());
}

TEST_F(AOVDeviceCommandTest, StartSendsTheCallersRecordAndStopEndsDelivery) {
    ProbedDevice d;
    user_param param;
    auto* bytes = reinterpret_cast<uint8_t*>(&param);
    for (size_t i = 0; i < sizeof(param); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);

    // Started and stopped at once by a stop command that fails, which ends
    // delivery all the same; then again with an event in between.
    ASSERT_EQ(0, d.device.startDevice(param));
    driver_->queueResult(AOV_IOC_STOP, -EIO);
    EXPECT_EQ(-EIO, d.device.stopDevice());
    d.device.notifyEvent(0, 0);
    ASSERT_EQ(0, d.device.startDevice(param));
    d.deliver();
    EXPECT_EQ(0, d.device.stopDevice());
    const auto requests = driver_->requests();
    ASSERT_EQ(5u, requests.size());
    ASSERT_EQ(kUserParamKernelSize, requests[0].in.size());
    EXPECT_EQ(0, std::memcmp(bytes, requests[0].in.data(), kUserParamKernelSize));
    EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_START, AOV_IOC_STOP, AOV_IOC_START,
                                              AOV_IOC_DEQUEUE_EVENT, AOV_IOC_STOP));

    // Stopped: no command, no callback, and nothing is freed twice.
    driver_->clearRequests();
    EXPECT_THAT(tracesOf([&] { d.device.notifyEvent(0, 1); }), ElementsAre(kNotStarted));
    EXPECT_EQ(0, d.device.stopDevice());
    EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_STOP));
    EXPECT_EQ(1, d.calls);
}

TEST_F(AOVDeviceCommandTest, FailedStartLeavesTheStateAsItWas) {
    ProbedDevice d;
    user_param param = makeParam(0);

    // Stopped stays stopped.
    driver_->queueResult(AOV_IOC_START, -EBUSY);
    EXPECT_EQ(-EBUSY, d.device.startDevice(param));
    expectErrorLine(logs_, kDevicePath, "startDevice", "failed to set sensor info: -16");
    EXPECT_THAT(tracesOf([&] { d.device.notifyEvent(0, 1); }), ElementsAre(kNotStarted));

    // Started stays started, with its buffer; no second task is launched
    // (its buffer would leak).
    aov_event* buffer = d.start();
    driver_->queueResult(AOV_IOC_START, -EBUSY);
    EXPECT_EQ(-EBUSY, d.device.startDevice(param));
    d.device.notifyEvent(0, 0);
    EXPECT_EQ(2, d.calls);
    EXPECT_EQ(buffer, d.last);
    EXPECT_EQ(0, d.device.stopDevice());
}

TEST_F(AOVDeviceCommandTest, BuffersThatAreNeverStoppedAreLeftAllocated) {
    {
        ProbedDevice d;
        aov_event* first = d.start();
        // A second start replaces the buffer; until its task stores the new
        // one, events still land in the first, which is never freed.
        aov_event* second = d.start();
        EXPECT_TRUE(retryUntil([&] {
            second = second == first ? d.deliver() : second;
            return second != first;
        })) << "the second start's buffer never reached the callback";
        ignoreLeak(first);
        // Destruction without a stop leaves the second one as well.
        ignoreLeak(second);
        logs_.clear();
    }
    EXPECT_EQ(2u, driver_->count(AOV_IOC_START));
    EXPECT_EQ(0u, driver_->count(AOV_IOC_STOP));
    EXPECT_EQ(1, driver_->closes());
    EXPECT_THAT(errors(logs_), IsEmpty());
}

TEST_F(AOVDeviceCommandTest, CommandsWithoutArgumentReturnOnlyFailures) {
    struct Row {
        const char* function;
        int (*call)(AOVDevice&);
        unsigned int code;
        int driverResult;
        int expected;
        const char* error;
    };
    auto stop = [](AOVDevice& device) { return device.stopDevice(); };
    auto on = [](AOVDevice& device) { return device.notifyUlposc3(true); };
    auto off = [](AOVDevice& device) { return device.notifyUlposc3(false); };
    // The stop command goes out without a start as well.
    const Row rows[] = {
        {"stopDevice", stop, 0x4804, 0, 0, nullptr},
        {"stopDevice", stop, 0x4804, 4, 0, nullptr},
        {"stopDevice", stop, 0x4804, -EIO, -EIO, "failed to stop device: -5"},
        {"notifyUlposc3", on, 0x4809, 0, 0, nullptr},
        {"notifyUlposc3", off, 0x480A, 6, 0, nullptr},
        {"notifyUlposc3", off, 0x480A, -EIO, -EIO, "failed to notify ulposc3: ret(-5), enable(0)"},
    };
    AOVDevice device(kTestNode);
    for (const Row& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        driver_->clearRequests();
        logs_.clear();
        driver_->queueResult(row.code, row.driverResult);
        EXPECT_EQ(row.expected, row.call(device));
        const auto requests = driver_->requests();
        ASSERT_EQ(1u, requests.size());
        EXPECT_EQ(row.code, requests[0].code);
        EXPECT_THAT(requests[0].in, IsEmpty());
        if (row.error != nullptr) {
            expectErrorLine(logs_, kDevicePath, row.function, row.error);
        } else {
            EXPECT_THAT(errors(logs_), IsEmpty());
        }
    }
}

TEST_F(AOVDeviceCommandTest, SensorListsGoOutInChunksOfSixtyFour) {
    struct Row {
        int ids;
        bool enable;
        std::vector<uint32_t> counts;
    };
    const Row rows[] = {
        {0, true, {}},
        {1, true, {1}},
        {64, false, {64}},
        {65, true, {64, 1}},
        {130, false, {64, 64, 2}},
    };
    AOVDevice device(kTestNode);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.ids);
        driver_->clearRequests();
        std::vector<int> sensors;
        for (int i = 0; i < row.ids; ++i) sensors.push_back(1000 + i * 3);
        EXPECT_EQ(0, device.notifySensor(sensors, row.enable));

        const auto requests = driver_->requests();
        ASSERT_EQ(row.counts.size(), requests.size());
        const unsigned int code = row.enable ? 0x41044801u : 0x41044802u;
        // The record is zeroed once per call: behind `count` a chunk carries
        // the previous chunk's ids (zeros for the first chunk).
        aov_sensor_list previous{};
        for (size_t chunk = 0; chunk < requests.size(); ++chunk) {
            EXPECT_EQ(code, requests[chunk].code);
            aov_sensor_list list;
            ASSERT_EQ(sizeof(list), requests[chunk].in.size());
            std::memcpy(&list, requests[chunk].in.data(), sizeof(list));
            ASSERT_EQ(row.counts[chunk], list.count);
            for (uint32_t i = 0; i < 64; ++i) {
                const int32_t expected =
                    i < list.count ? sensors[chunk * 64 + i] : previous.sensor_ids[i];
                EXPECT_EQ(expected, list.sensor_ids[i]) << "chunk " << chunk << " entry " << i;
            }
            previous = list;
        }
    }
}

TEST_F(AOVDeviceCommandTest, FailedChunkStopsTheCallAndKeepsEarlierChunks) {
    AOVDevice device(kTestNode);
    std::vector<int> sensors(130, 7);
    driver_->queueResult(AOV_IOC_SENSOR_ON, 0);
    driver_->queueResult(AOV_IOC_SENSOR_ON, -EBUSY);
    logs_.clear();
    EXPECT_EQ(-EBUSY, device.notifySensor(sensors, true));
    EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_SENSOR_ON, AOV_IOC_SENSOR_ON));
    expectErrorLine(logs_, kDevicePath, "notifySensor", "failed to notify sensor: -16");
}

}  // namespace
}  // namespace aovtest
