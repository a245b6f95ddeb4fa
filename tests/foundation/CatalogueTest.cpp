#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "AOVSensor.h"
#include "LogCapture.h"
#include "PlatformMocks.h"

namespace {

using aovtest::LogCapture;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrictMock;

// A sensor as the platform describes it.
struct FakeSensor {
    int32_t id;
    int32_t devIdx;
    int32_t facing;
    NSCam::SensorStaticInfo info;
};

NSCam::SensorScenarioInfo scenario(uint16_t width, uint16_t height, uint32_t rate, uint32_t ae = 0,
                                   uint32_t type = 0, uint32_t bit = 0, uint32_t param = 0) {
    NSCam::SensorScenarioInfo s;
    s.width = width;
    s.height = height;
    s.frameRate = rate;
    s.aeKind = ae;
    s.type = type;
    s.bit = bit;
    s.modeParam = param;
    return s;
}

// A sensor list that serves fixed sensors and counts how often it is asked.
class FakeSensorList : public NSCam::IHalSensorList {
  public:
    explicit FakeSensorList(std::vector<FakeSensor> sensors) : sensors_(std::move(sensors)) {}

    int32_t queryNumberOfSensors() const override {
        ++count_queries_;
        return static_cast<int32_t>(sensors_.size());
    }
    int32_t queryFacingDirection(int32_t id) const override { return find(id)->facing; }
    int32_t querySensorDevIdx(int32_t id) const override {
        const FakeSensor* sensor = find(id);
        return sensor ? sensor->devIdx : 0x4000;
    }
    void querySensorStaticInfo(uint32_t devIdx, NSCam::SensorStaticInfo* info) const override {
        for (const FakeSensor& sensor : sensors_) {
            if (static_cast<uint32_t>(sensor.devIdx) == devIdx) {
                *info = sensor.info;
            }
        }
    }
    uint32_t searchSensors() override { return static_cast<uint32_t>(sensors_.size()); }
    NSCam::IHalSensor* openSensorDevice(const char*, uint32_t) override { return nullptr; }
    int32_t querySensorId(uint32_t index) const override { return sensors_.at(index).id; }

    int countQueries() const { return count_queries_; }

  private:
    const FakeSensor* find(int32_t id) const {
        for (const FakeSensor& sensor : sensors_) {
            if (sensor.id == id) {
                return &sensor;
            }
        }
        return nullptr;
    }

    std::vector<FakeSensor> sensors_;
    mutable std::atomic<int> count_queries_{0};
};

FakeSensor sensorWith(int32_t id, int32_t devIdx, std::vector<NSCam::SensorScenarioInfo> scenarios,
                      int32_t facing = 0, int32_t orientation = 90) {
    FakeSensor sensor{id, devIdx, facing, {}};
    sensor.info.orientation = orientation;
    for (size_t s = 0; s < scenarios.size(); ++s) {
        sensor.info.scenarios[s] = scenarios[s];
    }
    return sensor;
}

class Catalogue : public ::testing::Test {
  protected:
    void bind(std::vector<FakeSensor> sensors) {
        binding_.reset();  // scopes nest: the old one must end before the next begins
        list_ = std::make_shared<FakeSensorList>(std::move(sensors));
        binding_ = std::make_unique<aovhost::ScopedBinding<NSCam::IHalSensorList>>(list_);
    }

    std::shared_ptr<FakeSensorList> list_;
    std::unique_ptr<aovhost::ScopedBinding<NSCam::IHalSensorList>> binding_;
};

TEST_F(Catalogue, SizeAndRateLimitsAreInclusive) {
    struct Case {
        NSCam::SensorScenarioInfo s;
        bool accepted;
        uint32_t fps;
    };
    const Case cases[] = {
        {scenario(1920, 1080, 109), true, 10}, {scenario(1, 1, 10), true, 1},
        {scenario(640, 480, 19), true, 1},     {scenario(1921, 1080, 50), false, 0},
        {scenario(1920, 1081, 50), false, 0},  {scenario(640, 480, 9), false, 0},
        {scenario(640, 480, 110), false, 0},   {scenario(0, 480, 50), false, 0},
        {scenario(640, 0, 50), false, 0},
    };
    for (const Case& c : cases) {
        bind({sensorWith(3, 1, {c.s})});
        AOVSensor sensor;
        const auto infos = sensor.getSensorInfo(3);
        if (!c.accepted) {
            EXPECT_TRUE(infos.empty()) << c.s.width << "x" << c.s.height << "@" << c.s.frameRate;
            EXPECT_TRUE(sensor.querySensors().empty());
            continue;
        }
        ASSERT_EQ(infos.size(), 1u) << c.s.width << "x" << c.s.height << "@" << c.s.frameRate;
        EXPECT_THAT(infos[0].fps, ElementsAre(c.fps));
    }
}

TEST_F(Catalogue, EntryCarriesTheScenarioWordsAndSensorFacts) {
    bind({sensorWith(5, 4, {scenario(640, 480, 50, 2, 7, 8, 9)}, /*facing=*/3,
                     /*orientation=*/270)});
    AOVSensor sensor;
    const auto infos = sensor.getSensorInfo(5);
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_EQ(infos[0].width, 640);
    EXPECT_EQ(infos[0].height, 480);
    EXPECT_EQ(infos[0].orientation, 270);
    EXPECT_EQ(infos[0].face, 1);
    ASSERT_EQ(infos[0].mode.size(), 1u);
    const sensor_mode& m = infos[0].mode[0];
    EXPECT_EQ(m.type, 7u);
    EXPECT_EQ(m.bit, 8u);
    EXPECT_EQ(m.sensor_ae, 2u);
    EXPECT_EQ(m.mode_param, 9u);
    EXPECT_EQ(m.fps, 5u);
    EXPECT_EQ(m.scenario, 0);
}

TEST_F(Catalogue, EqualResolutionsMergeInScenarioOrder) {
    LogCapture log;
    log.enableTraces();
    bind({sensorWith(2, 1,
                     {scenario(320, 240, 50), scenario(640, 480, 30), scenario(320, 240, 100),
                      scenario(320, 240, 100)})});
    AOVSensor sensor;
    auto infos = sensor.getSensorInfo(2);
    ASSERT_EQ(infos.size(), 2u);
    const sensor_info& qvga = infos[0].width == 320 ? infos[0] : infos[1];
    EXPECT_THAT(qvga.fps, ElementsAre(5u, 10u, 10u));
    ASSERT_EQ(qvga.mode.size(), 3u);
    EXPECT_EQ(qvga.mode[0].scenario, 0);
    EXPECT_EQ(qvga.mode[1].scenario, 2);
    EXPECT_EQ(qvga.mode[2].scenario, 3);

    EXPECT_THAT(log.unifiedContaining("Add sensor(2) width(320), height(240), fps(10/2)"),
                ElementsAre("[setupSensors] Add sensor(2) width(320), height(240), fps(10/2), "
                            "sensor_ae(0)"));
    EXPECT_THAT(log.unifiedContaining("Add sensor(2) width(640)"),
                ElementsAre("[setupSensors] Add sensor(2) width(640), height(480), fps(3), "
                            "sensor_ae(0), orient(90), face(0), type(0), bit(0)"));
    EXPECT_EQ(log.unifiedContaining("width(320), height(240), size(3)").size(), 1u);
}

TEST_F(Catalogue, ViewModeSelectsViewingScenarios) {
    const auto sensors = {sensorWith(1, 1, {scenario(640, 480, 50, 1), scenario(320, 240, 50, 0)}),
                          sensorWith(4, 2, {scenario(640, 480, 50, 1)})};
    {
        LogCapture log;
        log.enableTraces();
        bind(sensors);
        AOVSensor sensor;
        EXPECT_THAT(sensor.querySensors(), ElementsAre(1));
        EXPECT_EQ(sensor.getSensorInfo(1)[0].width, 320);
        EXPECT_EQ(log.unifiedContaining("[setupSensors] bypass viewing mode(0)").size(), 2u);
    }
    {
        LogCapture log;
        log.enableTraces();
        aovhost::ScopedProperty view("vendor.aovstream.view_mode", "1");
        bind(sensors);
        AOVSensor sensor;
        EXPECT_THAT(sensor.querySensors(), ElementsAre(1, 4));
        EXPECT_EQ(sensor.getSensorInfo(1)[0].width, 640);
        EXPECT_EQ(log.unifiedContaining("[setupSensors] bypass sensing mode(").size(), 2u * 50 - 2);
    }
}

TEST_F(Catalogue, TestModelLiftsTheLimitsAndKeepsUnsetScenarios) {
    aovhost::ScopedProperty testModel("vendor.aovstream.test_model", "1");
    bind({sensorWith(6, 1, {scenario(4000, 3000, 300)})});
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

TEST_F(Catalogue, TestModelOtherThanOneKeepsTheLimits) {
    aovhost::ScopedProperty testModel("vendor.aovstream.test_model", "2");
    bind({sensorWith(6, 1, {scenario(4000, 3000, 300)})});
    AOVSensor sensor;
    EXPECT_TRUE(sensor.querySensors().empty());
}

TEST_F(Catalogue, SensorsWithoutScenariosAreLeftOutAndIdsAscend) {
    bind({sensorWith(9, 1, {scenario(640, 480, 50)}), sensorWith(7, 2, {}),
          sensorWith(3, 4, {scenario(640, 480, 120)}), sensorWith(1, 8, {scenario(320, 240, 10)})});
    AOVSensor sensor;
    EXPECT_THAT(sensor.querySensors(), ElementsAre(1, 9));
    EXPECT_TRUE(sensor.getSensorInfo(7).empty());
}

TEST_F(Catalogue, LookupsBuildTheCatalogueOnce) {
    bind({sensorWith(1, 1, {scenario(640, 480, 50)})});
    AOVSensor sensor;
    EXPECT_EQ(list_->countQueries(), 0) << "the constructor queries no sensor";
    EXPECT_EQ(sensor.getSensorDev(1), 1);
    EXPECT_THAT(sensor.querySensors(), ElementsAre(1));
    EXPECT_THAT(sensor.querySensors(), ElementsAre(1));
    EXPECT_EQ(list_->countQueries(), 1);
    // An id outside the catalogue still gets the platform's answer.
    EXPECT_EQ(sensor.getSensorDev(77), 0x4000);
}

TEST_F(Catalogue, ConcurrentFirstCallsBuildOnce) {
    bind({sensorWith(1, 1, {scenario(640, 480, 50)}), sensorWith(2, 2, {scenario(320, 240, 50)})});
    AOVSensor sensor;
    std::vector<std::vector<int>> results(4);
    std::vector<std::thread> threads;
    for (auto& result : results) {
        threads.emplace_back([&sensor, &result] { result = sensor.querySensors(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& result : results) {
        EXPECT_THAT(result, ElementsAre(1, 2));
    }
    EXPECT_EQ(list_->countQueries(), 1);
}

TEST_F(Catalogue, CatalogueIsFrozenAfterTheFirstBuild) {
    bind({sensorWith(1, 1, {scenario(640, 480, 50, 1)})});
    AOVSensor sensor;
    EXPECT_TRUE(sensor.querySensors().empty());
    aovhost::ScopedProperty view("vendor.aovstream.view_mode", "1");
    EXPECT_TRUE(sensor.querySensors().empty());
}

TEST(SensorIdxMap, BitPositionOrUnknown) {
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(1), 0);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(2), 1);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(4), 2);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(0x800), 11);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(6), 1);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(0), 13);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(0x1000), 13);
    EXPECT_EQ(AOVSensor::sensorIdxMapOf(-1), 13);
}

TEST(SensorHash, XorOfTheKeySignExtended) {
    AOVSensor::SensorHash hash;
    EXPECT_EQ(hash({1, 2, 3}), 0u);
    EXPECT_EQ(hash({0, 0, -1}), 0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(hash({1, 2, 3}), hash({3, 2, 1}));
    EXPECT_NE(AOVSensor::SensorKey(1, 2, 3), AOVSensor::SensorKey(3, 2, 1));
}

TEST(SensorService, LookupOfTheDetectModeUsesTheFirstEntry) {
    auto custom = std::make_shared<StrictMock<aovtest::MockCustom>>();
    aovhost::ScopedBinding<IAOVCustom> bindCustom(custom);
    auto list = std::make_shared<FakeSensorList>(std::vector<FakeSensor>{
        sensorWith(1, 1, {scenario(640, 480, 50), scenario(320, 240, 50)})});
    aovhost::ScopedBinding<NSCam::IHalSensorList> bindList(list);
    AOVSensor sensor;
    const sensor_info first = sensor.getSensorInfo(1).front();

    LogCapture log;
    unsigned int mode = 99;
    EXPECT_CALL(*custom, queryDetectMode(first.width, first.height, ::testing::_))
        .WillOnce([](int, int, unsigned int& m) {
            m = 4;
            return 0;
        })
        .WillOnce(Return(-5));
    EXPECT_EQ(sensor.getSensorMode(1, mode), 0);
    EXPECT_EQ(mode, 4u);
    EXPECT_EQ(sensor.getSensorMode(1, mode), -5);
    EXPECT_THAT(
        log.unifiedContaining("ERROR"),
        ElementsAre("[hw/aov/src/plat/isp8/AOVSensor, getSensorMode, line0127] ERROR: failed "
                    "to query detect mode (" +
                    std::to_string(first.width) + "/" + std::to_string(first.height) + ")"));

    log.clear();
    EXPECT_EQ(sensor.getSensorMode(-3, mode), -1);
    EXPECT_THAT(
        log.unifiedContaining("ERROR"),
        ElementsAre("[hw/aov/src/plat/isp8/AOVSensor, getSensorMode, line0119] ERROR: invalid "
                    "sensor id : -3"));
}

TEST(SensorService, ConstructionAndDestructionTalkToThePlatformInOrder) {
    auto list = std::make_shared<StrictMock<aovtest::MockSensorList>>();
    auto pipeMgr = std::make_shared<StrictMock<aovtest::MockPipeMgr>>();
    auto factory = std::make_shared<StrictMock<aovtest::MockPipeFactory>>();
    aovhost::ScopedBinding<NSCam::IHalSensorList> bindList(list);
    aovhost::ScopedBinding<NSCam::camsys::pipemgr::isp7::IPipeMgr> bindPipes(pipeMgr);
    {
        InSequence order;
        EXPECT_CALL(*list, searchSensors()).WillOnce(Return(1));
        EXPECT_CALL(*pipeMgr, getSensorPipeFactory()).WillOnce(Return(factory));
        EXPECT_CALL(*pipeMgr, uninit()).WillOnce(Return(0));
    }
    auto sensor = std::make_unique<AOVSensor>();
    sensor.reset();
    EXPECT_EQ(factory.use_count(), 1) << "the service drops the pipe factory";
    EXPECT_EQ(pipeMgr.use_count(), 2) << "only the test and its binding hold the manager";
}

TEST(SensorService, GetInstanceIsOneObjectAcrossThreads) {
    IAOVSensor* seen[2] = {};
    std::thread a([&seen] { seen[0] = IAOVSensor::getInstance(); });
    std::thread b([&seen] { seen[1] = IAOVSensor::getInstance(); });
    a.join();
    b.join();
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(IAOVSensor::getInstance(), seen[0]);
}

}  // namespace
