#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "aovhost/Binding.h"
#include "cam/system/SystemCall.h"
#include "cam/utils/Properties.h"

namespace {

using NSCam::Utils::Properties::property_get_int32;

struct ParseCase {
    const char* value;
    int32_t expected;
};

class PropertyParsing : public ::testing::TestWithParam<ParseCase> {};

TEST_P(PropertyParsing, ParsesLikeThePlatform) {
    aovhost::ScopedProperty property("test.parse", GetParam().value);
    EXPECT_EQ(property_get_int32("test.parse", -7), GetParam().expected)
        << '"' << GetParam().value << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Values, PropertyParsing,
    ::testing::Values(ParseCase{"1", 1}, ParseCase{"-5", -5}, ParseCase{"+3", 3},
                      ParseCase{"0x1F", 31}, ParseCase{"0X10", 16}, ParseCase{"010", 8},
                      ParseCase{"  12", 12}, ParseCase{"12abc", 12},
                      ParseCase{"2147483647", 2147483647}, ParseCase{"-2147483648", INT32_MIN},
                      // The default for what is empty, not a number, or outside int32.
                      ParseCase{"", -7}, ParseCase{"abc", -7}, ParseCase{"-", -7},
                      ParseCase{"0x", 0}, ParseCase{"2147483648", -7}, ParseCase{"-2147483649", -7},
                      ParseCase{"99999999999999999999999", -7}));

TEST(Properties, AbsentPropertyGivesTheDefault) {
    EXPECT_EQ(property_get_int32("test.never.set", 41), 41);
    EXPECT_EQ(property_get_int32(nullptr, 3), 3);
}

TEST(Properties, ScopedPropertyRestoresTheEarlierState) {
    {
        aovhost::ScopedProperty outer("test.scoped", "1");
        {
            aovhost::ScopedProperty inner("test.scoped", "2");
            EXPECT_EQ(property_get_int32("test.scoped", 0), 2);
        }
        EXPECT_EQ(property_get_int32("test.scoped", 0), 1);
    }
    EXPECT_EQ(property_get_int32("test.scoped", 9), 9);
}

TEST(Properties, EnvironmentPresetsAPropertyUntilItIsSet) {
    EXPECT_EQ(aovhost::propertyEnvName("vendor.aovstream.test_model"),
              "AOV_PROP_vendor_aovstream_test_model");
    ASSERT_EQ(::setenv("AOV_PROP_test_env_preset", "0x20", 1), 0);
    EXPECT_EQ(property_get_int32("test.env-preset", 0), 32);
    aovhost::setProperty("test.env-preset", "5");
    EXPECT_EQ(property_get_int32("test.env-preset", 0), 5);
    aovhost::clearProperty("test.env-preset");
    EXPECT_EQ(property_get_int32("test.env-preset", 0), 0);
}

// AOV_DEV_DIR moves the operating system's device paths, and only those.
TEST(HostDevicePaths, DevDirServesDevicePathsFromItsDirectory) {
    const std::string dir = ::testing::TempDir() + "aov_dev_dir";
    ::mkdir(dir.c_str(), 0700);
    const int made = ::open((dir + "/kelo_aov_node").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(made, 0);
    ::close(made);

    ::setenv(aovhost::kDevDirEnv, dir.c_str(), 1);
    const int fd = SystemCall::open("/dev/kelo_aov_node", O_RDONLY);
    const int outside = SystemCall::open("/devkelo_aov_node", O_RDONLY);
    ::unsetenv(aovhost::kDevDirEnv);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(outside, -ENOENT);
    EXPECT_EQ(SystemCall::close(fd), 0);
    // Unset, the path is the system's own again.
    EXPECT_EQ(SystemCall::open("/dev/kelo_aov_node", O_RDONLY), -ENOENT);
}

}  // namespace
