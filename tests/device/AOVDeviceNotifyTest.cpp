#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>

#include "DeviceTestSupport.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using AOVDeviceNotifyTest = DeviceTest;

aov_sensor_list listOf(const DriverRequest& request) {
    aov_sensor_list list;
    EXPECT_EQ(sizeof(list), request.in.size());
    std::memcpy(&list, request.in.data(), sizeof(list));
    return list;
}

TEST_F(AOVDeviceNotifyTest, Ulposc3SendsOneCodePerStateAndPassesOnlyFailures) {
    struct Row {
        bool enable;
        int driverResult;
        int expected;
        unsigned int code;
        const char* error;
    };
    const Row rows[] = {
        {true, 0, 0, 0x4809, nullptr},
        {false, 6, 0, 0x480A, nullptr},
        {false, -EIO, -EIO, 0x480A, "failed to notify ulposc3: ret(-5), enable(0)"},
    };
    AOVDevice device(kTestNode);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.driverResult);
        driver_->clearRequests();
        logs_.clear();
        driver_->queueResult(row.code, row.driverResult);
        EXPECT_EQ(row.expected, device.notifyUlposc3(row.enable));
        const auto requests = driver_->requests();
        ASSERT_EQ(1u, requests.size());
        EXPECT_EQ(row.code, requests[0].code);
        EXPECT_THAT(requests[0].in, IsEmpty());
        if (row.error != nullptr) {
            expectErrorLine(logs_, kDevicePath, "notifyUlposc3", row.error);
        } else {
            EXPECT_THAT(errors(logs_), IsEmpty());
        }
    }
}

TEST_F(AOVDeviceNotifyTest, NodeNotOpenFailsBothNotifications) {
    driver_->setOpenResult(-ENOENT);
    AOVDevice device(kTestNode);
    logs_.clear();
    EXPECT_EQ(-22, device.notifyUlposc3(true));
    expectErrorLine(logs_, kDevicePath, "notifyUlposc3",
                    "failed to notify ulposc3: ret(-22), enable(1)");
    EXPECT_EQ(-22, device.notifySensor({4}, false));
    expectErrorLine(logs_, kDevicePath, "notifySensor", "failed to notify sensor: -22");
}

TEST_F(AOVDeviceNotifyTest, EmptySensorListSendsNothing) {
    AOVDevice device(kTestNode);
    EXPECT_EQ(0, device.notifySensor({}, true));
    EXPECT_EQ(0, device.notifySensor({}, false));
    EXPECT_THAT(driver_->requests(), IsEmpty());
}

TEST_F(AOVDeviceNotifyTest, SensorListsGoOutInChunksOfSixtyFour) {
    struct Row {
        int ids;
        bool enable;
        std::vector<uint32_t> counts;
    };
    const Row rows[] = {
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
            const aov_sensor_list list = listOf(requests[chunk]);
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

TEST_F(AOVDeviceNotifyTest, FailedChunkStopsTheCallAndKeepsEarlierChunks) {
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
