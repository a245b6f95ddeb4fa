// The sensor catalogue: which scenarios a sensor offers for always-on use,
// how they group by resolution, and that the catalogue is built once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "AOVSensor.h"
#include "BoundedWait.h"
#include "LogCapture.h"
#include "PlatformMocks.h"
#include "SensorCatalogue.h"

namespace aovtest {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::Return;
using ::testing::StrictMock;

class Catalogue : public ::testing::Test {
  protected:
    void bind(const std::vector<FakeSensor>& sensors) {
        binding_.reset();  // scopes nest: the old one must end before the next begins
        list_ = std::make_shared<StrictMock<MockSensorList>>();
        serveSensors(*list_, sensors);
        binding_ = std::make_unique<aovhost::ScopedBinding<NSCam::IHalSensorList>>(list_);
    }

    std::shared_ptr<StrictMock<MockSensorList>> list_;
    std::unique_ptr<aovhost::ScopedBinding<NSCam::IHalSensorList>> binding_;
};

TEST_F(Catalogue, SizeAndRateLimitsAreInclusive) {
    struct Case {
        NSCam::SensorScenarioInfo s;
        uint32_t fps;  // 0: the scenario is left out
    };
    const Case cases[] = {
        {{1920, 1080, 109}, 10}, {{1, 1, 10}, 1},       {{640, 480, 19}, 1},
        {{1921, 1080, 50}, 0},   {{1920, 1081, 50}, 0}, {{640, 480, 9}, 0},
        {{640, 480, 110}, 0},    {{0, 480, 50}, 0},     {{640, 0, 50}, 0},
    };
    for (const Case& c : cases) {
        bind({sensorWith(3, 1, {c.s})});
        AOVSensor sensor;
        const auto infos = sensor.getSensorInfo(3);
        ASSERT_EQ(infos.size(), c.fps != 0 ? 1u : 0u)
            << c.s.width << "x" << c.s.height << "@" << c.s.frameRate;
        EXPECT_EQ(sensor.querySensors().size(), infos.size());
        if (!infos.empty()) {
            EXPECT_THAT(infos[0].fps, ElementsAre(c.fps));
        }
    }
}

TEST_F(Catalogue, EntryCarriesTheScenarioWordsAndSensorFacts) {
    bind({sensorWith(5, 4, {{640, 480, 50, 2, 7, 8, 9}}, /*facing=*/3, /*orientation=*/270)});
    AOVSensor sensor;
    const auto infos = sensor.getSensorInfo(5);
    ASSERT_EQ(infos.size(), 1u);
    const sensor_info& e = infos[0];
    EXPECT_EQ(std::make_tuple(e.width, e.height, e.orientation, e.face),
              std::make_tuple(640, 480, 270, 1));
    ASSERT_EQ(e.mode.size(), 1u);
    const sensor_mode& m = e.mode[0];
    EXPECT_EQ(std::make_tuple(m.type, m.bit, m.sensor_ae, m.mode_param, m.fps, m.scenario),
              std::make_tuple(7u, 8u, 2u, 9u, 5u, 0));
}

TEST_F(Catalogue, EqualResolutionsMergeInScenarioOrder) {
    LogCapture log;
    log.enableTraces();
    bind({sensorWith(2, 1, {{320, 240, 50}, {640, 480, 30}, {320, 240, 100}, {320, 240, 100}})});
    AOVSensor sensor;
    auto infos = sensor.getSensorInfo(2);
    ASSERT_EQ(infos.size(), 2u);
    const sensor_info& qvga = infos[0].width == 320 ? infos[0] : infos[1];
    EXPECT_THAT(qvga.fps, ElementsAre(5u, 10u, 10u));
    EXPECT_THAT(qvga.mode,
                ElementsAre(Field(&sensor_mode::scenario, 0), Field(&sensor_mode::scenario, 2),
                            Field(&sensor_mode::scenario, 3)));

    EXPECT_THAT(log.unifiedContaining("Add sensor(2) width(320), height(240), fps(10/2)"),
                ElementsAre("[setupSensors] Add sensor(2) width(320), height(240), fps(10/2), "
                            "sensor_ae(0)"));
    EXPECT_THAT(log.unifiedContaining("Add sensor(2) width(640)"),
                ElementsAre("[setupSensors] Add sensor(2) width(640), height(480), fps(3), "
                            "sensor_ae(0), orient(90), face(0), type(0), bit(0)"));
    EXPECT_EQ(log.unifiedContaining("width(320), height(240), size(3)").size(), 1u);
}

TEST_F(Catalogue, EntriesFollowTheScratchTableOrderAndTheFirstDecidesTheMode) {
    // Six sizes in scenario order. The catalogue lists a sensor's sizes in the
    // scratch table's iteration order for the keys inserted in that order, so
    // the expectation is that order under the standard library in use.
    const std::vector<std::pair<int32_t, int32_t>> sizes = {{640, 480},   {320, 240}, {1280, 720},
                                                            {1920, 1080}, {160, 120}, {800, 600}};
    AOVSensor::ScratchTable reference;
    std::vector<NSCam::SensorScenarioInfo> scenarios;
    for (const auto& [width, height] : sizes) {
        reference[AOVSensor::SensorKey(4, width, height)];
        scenarios.push_back({static_cast<uint16_t>(width), static_cast<uint16_t>(height), 50});
    }
    std::vector<std::pair<int32_t, int32_t>> expected;
    for (const auto& entry : reference) {
        expected.emplace_back(std::get<1>(entry.first), std::get<2>(entry.first));
    }

    FakeSensor six = sensorWith(4, 1, {});
    std::copy(scenarios.begin(), scenarios.end(), six.info.scenarios);
    bind({six});
    auto custom = std::make_shared<StrictMock<MockCustom>>();
    aovhost::ScopedBinding<IAOVCustom> bindCustom(custom);
    AOVSensor sensor;
    std::vector<std::pair<int32_t, int32_t>> listed;
    for (const sensor_info& info : sensor.getSensorInfo(4)) {
        listed.emplace_back(info.width, info.height);
    }
    EXPECT_EQ(listed, expected);

    unsigned int mode = 0;
    EXPECT_CALL(*custom, queryDetectMode(expected[0].first, expected[0].second, _))
        .WillOnce(Return(0));
    EXPECT_EQ(sensor.getSensorMode(4, mode), 0);
}

TEST_F(Catalogue, ViewModeSelectsViewingScenarios) {
    struct Case {
        const char* viewMode;
        std::vector<int> ids;
        int32_t width;
        const char* bypassed;
        size_t count;
    };
    // Sensor 1 has a viewing 640x480 and a sensing 320x240 scenario, sensor 4 a
    // viewing one only; every unset scenario counts as sensing.
    const Case cases[] = {{"0", {1}, 320, "[setupSensors] bypass viewing mode(0)", 2},
                          {"1", {1, 4}, 640, "[setupSensors] bypass sensing mode(", 2 * 50 - 2}};
    for (const Case& c : cases) {
        aovhost::ScopedProperty view("vendor.aovstream.view_mode", c.viewMode);
        LogCapture log;
        log.enableTraces();
        bind({sensorWith(1, 1, {{640, 480, 50, 1}, {320, 240, 50, 0}}),
              sensorWith(4, 2, {{640, 480, 50, 1}})});
        AOVSensor sensor;
        EXPECT_EQ(sensor.querySensors(), c.ids);
        EXPECT_EQ(sensor.getSensorInfo(1)[0].width, c.width);
        EXPECT_EQ(log.unifiedContaining(c.bypassed).size(), c.count);
    }
}

TEST_F(Catalogue, OnlyTestModelOneLiftsTheLimitsAndKeepsUnsetScenarios) {
    bind({sensorWith(6, 1, {{4000, 3000, 300}})});
    {
        aovhost::ScopedProperty testModel("vendor.aovstream.test_model", "2");
        EXPECT_TRUE(AOVSensor().querySensors().empty());
    }
    aovhost::ScopedProperty testModel("vendor.aovstream.test_model", "1");
    AOVSensor sensor;
    const auto infos = sensor.getSensorInfo(6);
    ASSERT_EQ(infos.size(), 2u);
    const sensor_info& unset = infos[0].width == 0 ? infos[0] : infos[1];
    const sensor_info& big = infos[0].width == 0 ? infos[1] : infos[0];
    EXPECT_EQ(unset.height, 0);
    EXPECT_EQ(unset.fps, std::vector<uint32_t>(49, 0u));
    EXPECT_EQ(big.width, 4000);
    EXPECT_THAT(big.fps, ElementsAre(30u));
}

TEST_F(Catalogue, SensorsWithoutScenariosAreLeftOutAndIdsAscend) {
    bind({sensorWith(9, 1, {{640, 480, 50}}), sensorWith(7, 2, {}),
          sensorWith(3, 4, {{640, 480, 120}}), sensorWith(1, 8, {{320, 240, 10}})});
    AOVSensor sensor;
    EXPECT_THAT(sensor.querySensors(), ElementsAre(1, 9));
    EXPECT_TRUE(sensor.getSensorInfo(7).empty());
}

TEST_F(Catalogue, TheFirstLookupBuildsTheCatalogueForGood) {
    // A viewing scenario only: left out now, kept were the catalogue built again
    // under view mode.
    bind({sensorWith(1, 1, {{640, 480, 50, 1}})});
    AOVSensor sensor;
    // Expected from here on, so the constructor must not have queried the sensors.
    EXPECT_CALL(*list_, queryNumberOfSensors()).WillOnce(Return(1));
    EXPECT_EQ(sensor.getSensorDev(1), 1);
    EXPECT_TRUE(sensor.querySensors().empty());
    aovhost::ScopedProperty view("vendor.aovstream.view_mode", "1");
    EXPECT_TRUE(sensor.querySensors().empty());
    // An id outside the catalogue still gets the platform's answer.
    EXPECT_EQ(sensor.getSensorDev(77), kUnlistedDevIdx);
}

TEST_F(Catalogue, ConcurrentFirstCallsBuildOnce) {
    bind({sensorWith(1, 1, {{640, 480, 50}}), sensorWith(2, 2, {{320, 240, 50}})});
    AOVSensor sensor;
    EXPECT_CALL(*list_, queryNumberOfSensors()).WillOnce(Return(2));
    std::vector<std::vector<int>> results(4);
    std::vector<BoundedThread> threads;
    for (auto& result : results) {
        threads.emplace_back("a concurrent querySensors",
                             [&sensor, &result] { result = sensor.querySensors(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& result : results) {
        EXPECT_THAT(result, ElementsAre(1, 2));
    }
}

TEST_F(Catalogue, DetectModeFailuresAreLogged) {
    auto custom = std::make_shared<StrictMock<MockCustom>>();
    aovhost::ScopedBinding<IAOVCustom> bindCustom(custom);
    bind({sensorWith(1, 1, {{640, 480, 50}, {320, 240, 50}})});
    AOVSensor sensor;
    const auto infos = sensor.getSensorInfo(1);
    ASSERT_FALSE(infos.empty());
    const sensor_info& first = infos.front();
    LogCapture log;
    unsigned int mode = 0;

    // The entry inserted first decides which size is asked about.
    EXPECT_CALL(*custom, queryDetectMode(first.width, first.height, _)).WillOnce(Return(-5));
    EXPECT_EQ(sensor.getSensorMode(1, mode), -5);
    EXPECT_EQ(sensor.getSensorMode(-3, mode), -1);
    EXPECT_THAT(
        log.unifiedContaining("ERROR"),
        ElementsAre("[hw/aov/src/plat/isp8/AOVSensor, getSensorMode, line0127] ERROR: failed to "
                    "query detect mode (" +
                        std::to_string(first.width) + "/" + std::to_string(first.height) + ")",
                    "[hw/aov/src/plat/isp8/AOVSensor, getSensorMode, line0119] ERROR: invalid "
                    "sensor id : -3"));
}

TEST(SensorIdxMap, BitPositionOrUnknown) {
    const std::pair<int32_t, int> cases[] = {{1, 0}, {2, 1},  {4, 2},       {0x800, 11},
                                             {6, 1}, {0, 13}, {0x1000, 13}, {-1, 13}};
    for (const auto& [devIdx, idx] : cases) {
        EXPECT_EQ(AOVSensor::sensorIdxMapOf(devIdx), idx) << devIdx;
    }
}

TEST(SensorHash, XorOfTheKeySignExtended) {
    AOVSensor::SensorHash hash;
    EXPECT_EQ(hash({1, 2, 3}), 0u);
    EXPECT_EQ(hash({0, 0, -1}), 0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(hash({1, 2, 3}), hash({3, 2, 1}));
    EXPECT_NE(AOVSensor::SensorKey(1, 2, 3), AOVSensor::SensorKey(3, 2, 1));
}

TEST(SensorService, GetInstanceIsOneObjectAcrossThreads) {
    IAOVSensor* seen[2] = {};
    BoundedThread a("a first getInstance", [&seen] { seen[0] = IAOVSensor::getInstance(); });
    BoundedThread b("a first getInstance", [&seen] { seen[1] = IAOVSensor::getInstance(); });
    a.join();
    b.join();
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(IAOVSensor::getInstance(), seen[0]);
}

}  // namespace
}  // namespace aovtest
