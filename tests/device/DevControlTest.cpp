#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "DevControl.h"
#include "DeviceTestSupport.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using DevControlTest = DeviceTest;

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

}  // namespace
}  // namespace aovtest
