// A catalogue mode without a scenario: discovery files every mode under its
// scenario index, so the platform cannot produce one today, but the start
// must refuse such a mode rather than hand the driver a negative scenario.

#include <cstdio>
#include <map>
#include <ostream>

#include "SensorFixture.h"

namespace aovtest {
namespace {

using Catalogue = std::multimap<int, sensor_info>;

// The service's catalogue, reached through the one route the language leaves
// open to a test: a private member named in an explicit template instantiation.
Catalogue& catalogueOf(AOVSensor& sensor);
template <Catalogue AOVSensor::*Member>
struct CatalogueAccess {
    friend Catalogue& catalogueOf(AOVSensor& sensor) { return sensor.*Member; }
};
template struct CatalogueAccess<&AOVSensor::sensor_infos_>;

struct UnscenariodMode {
    const char* name;
    const char* testModel;
    int32_t fps;
    int32_t scenario;  // of the mode whose scenario is taken away
};
std::ostream& operator<<(std::ostream& os, const UnscenariodMode& row) {
    return os << row.name;
}

// 640x480 offers 5 fps at scenarios 1 and 3 (the later one is chosen) and 10 fps at 2.
const UnscenariodMode kUnscenariodModes[] = {
    {"OnlyModeOfTheRate", "0", 10, 2},
    {"OnlyModeOfTheRateUnderTestModel", "2", 10, 2},
    {"LaterOfTwoModesOfTheRate", "0", 5, 3},
};

class SensorUnscenariodModeTest : public SensorServiceTest,
                                  public ::testing::WithParamInterface<UnscenariodMode> {};

TEST_P(SensorUnscenariodModeTest, FailsTheStartBeforeTheDeviceIsTouched) {
    const UnscenariodMode& row = GetParam();
    setTestModel(row.testModel);
    createSensor();
    ASSERT_EQ(sensor_->querySensors(), std::vector<int>{kSensorId});
    int taken = 0;
    for (auto& [id, info] : catalogueOf(*sensor_)) {
        for (sensor_mode& mode : info.mode) {
            if (id == kSensorId && info.width == 640 && mode.scenario == row.scenario) {
                mode.scenario = -1;
                ++taken;
            }
        }
    }
    ASSERT_EQ(taken, 1);
    user_param param = request(kSensorId, 640, 480, row.fps);
    // Strict doubles: nothing but the frame information may be asked for.
    expectFrameInfo(param);

    EXPECT_EQ(sensor_->startSensor(param), -1);
    char message[64];
    std::snprintf(message, sizeof(message), "failed to find scenario for the frame rate(%d)",
                  row.fps);
    EXPECT_EQ(unifiedErrors(), std::vector<std::string>{errorLine("startSensor", 354, message)});
    // The frame information stays written; no mode field is.
    EXPECT_EQ(param.frame_info0, static_cast<int32_t>(kFrameInfo[0]));
    EXPECT_EQ(param.scenario, static_cast<int32_t>(kFillWord));
    EXPECT_EQ(param.mode_head[0], kFillWord);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, SensorUnscenariodModeTest, ::testing::ValuesIn(kUnscenariodModes),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace aovtest
