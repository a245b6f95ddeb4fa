// The simulated platform refuses wrong sequences with a failure result and
// one "REFUSED" trace line. The sequence the library performs, and injected
// faults, are covered by the end-to-end runs of aov-sim.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "aovsim/SimForwarders.h"
#include "aovsim/SimPlatform.h"

namespace {

using namespace aovsim;

SimConfig twoSensors() {
    SimConfig config;
    SensorConfig rear;
    rear.id = 0;
    rear.device = 1;
    rear.scenarios = {{3, 640, 480, 100, 0, 1, 10, 2}};
    SensorConfig front;
    front.id = 5;
    front.device = 4;
    front.facing = 1;
    config.sensors = {rear, front};
    return config;
}

// Members are public so the table's steps can drive the fixture.
class SimPlatformTest : public ::testing::Test {
  public:
    void SetUp() override { build(); }

    void build() {
        lines_.clear();
        trace_ = std::make_shared<Trace>();
        trace_->setSink([this](TraceSource, const std::string& line) { lines_.push_back(line); });
        platform_ = std::make_shared<SimPlatform>(twoSensors(), trace_);
        list_ = std::make_shared<SimSensorList>(platform_);
        coordinator_ = std::make_shared<SimCoordinator>(platform_);
        pipes_ = std::make_shared<SimPipeMgr>(platform_);
        factory_ = pipes_->getSensorPipeFactory();
    }

    // Opens sensor 0, moves its clock and powers it.
    NSCam::IHalSensor* powerUp() {
        NSCam::IHalSensor* device = list_->openSensorDevice("AOV", 0);
        EXPECT_NE(device, nullptr);
        EXPECT_TRUE(device->switchMclkToUlposc("AOV", &kSensor));
        EXPECT_TRUE(device->powerOnSensor("AOV", 1, &kSensor));
        return device;
    }

    uint64_t createAgent() {
        coord::AgentParams params;
        auto info = std::make_shared<coord::SensorInfo>();
        info->sensorId = kSensor;
        auto p1 = std::make_shared<coord::P1ConfigureParams>();
        p1->sensorInfo = info;
        params.p1Configs[kSensor][3] = p1;
        params.sensorScenarios[kSensor] = 3;
        params.isConfigComplete = true;
        return coordinator_->createAgent(params);
    }

    std::shared_ptr<coord::ICamAgent> agent(uint64_t id) {
        return coord::CamCoordinatorImp::castFrom(coordinator_)->getAgent(id);
    }

    static constexpr int32_t kSensor = 0;
    std::vector<std::string> lines_;
    std::shared_ptr<Trace> trace_;
    std::shared_ptr<SimPlatform> platform_;
    std::shared_ptr<SimSensorList> list_;
    std::shared_ptr<SimCoordinator> coordinator_;
    std::shared_ptr<SimPipeMgr> pipes_;
    std::shared_ptr<pipes::ISensorPipeFactory> factory_;
};

constexpr int32_t SimPlatformTest::kSensor;

TEST_F(SimPlatformTest, RefusesWrongSequencesWithAFailureAndATraceLine) {
    struct Case {
        const char* what;
        const char* line;  // part of the refusal line
        std::function<bool(SimPlatformTest&)> fails;
    };
    const Case cases[] = {
        {"powering a sensor twice", "already powered",
         [](SimPlatformTest& t) { return !t.powerUp()->powerOnSensor("AOV", 1, &kSensor); }},
        {"powering off a sensor that is off", "not powered",
         [](SimPlatformTest& t) {
             return !t.list_->openSensorDevice("AOV", 0)->powerOffSensor("AOV", 1, &kSensor);
         }},
        {"switching the clock of a powered sensor", "is powered",
         [](SimPlatformTest& t) { return !t.powerUp()->switchMclkToUlposc("AOV", &kSensor); }},
        {"using a released device", "not open",
         [](SimPlatformTest& t) {
             NSCam::IHalSensor* device = t.list_->openSensorDevice("AOV", 0);
             device->releaseSensorDevice("AOV");
             return !device->switchMclkToUlposc("AOV", &kSensor);
         }},
        {"opening an unknown sensor id", "unknown sensor id",
         [](SimPlatformTest& t) { return t.list_->openSensorDevice("AOV", 9) == nullptr; }},
        {"configuring a sensor that is not powered", "not powered",
         [](SimPlatformTest& t) {
             coord::ConfigSensorParams config;
             return t.agent(t.createAgent())->configSensor(&config) < 0;
         }},
        {"configuring P1 before the sensor", "no sensor configured",
         [](SimPlatformTest& t) {
             t.powerUp();
             return t.agent(t.createAgent())->configNonLaggingP1Drv() < 0;
         }},
        {"detaching a sensor that was never configured", "never configured",
         [](SimPlatformTest& t) {
             t.agent(t.createAgent())->detachSensor(&kSensor);
             return true;
         }},
        {"looking up an unknown agent", "no such agent",
         [](SimPlatformTest& t) { return t.agent(42) == nullptr; }},
        {"creating a pipe for a camera without a sensor", "no sensor on that camera",
         [](SimPlatformTest& t) {
             return t.factory_->createPipe(1, kSensorPipeType, -1, 0) == nullptr;
         }},
        {"starting a pipe whose sensor is off", "not powered",
         [](SimPlatformTest& t) {
             return t.factory_->createPipe(0, kSensorPipeType, -1, 0)->startPipe(1) < 0;
         }},
        {"starting a destroyed pipe", "never created or is gone",
         [](SimPlatformTest& t) {
             t.powerUp();
             auto pipe = t.factory_->createPipe(0, kSensorPipeType, -1, 0);
             t.factory_->destroyPipe(pipe->getPipeId(), kSensorPipeType);
             return pipe->startPipe(1) < 0;
         }},
        {"destroying an unknown pipe", "unknown pipe",
         [](SimPlatformTest& t) { return t.factory_->destroyPipe(7, kSensorPipeType) < 0; }},
        {"destroying a streaming pipe", "still streaming",
         [](SimPlatformTest& t) {
             t.powerUp();
             auto pipe = t.factory_->createPipe(0, kSensorPipeType, -1, 0);
             pipe->startPipe(1);
             return t.factory_->destroyPipe(pipe->getPipeId(), kSensorPipeType) < 0;
         }},
        {"stopping a pipe in another mode", "streams in mode 1",
         [](SimPlatformTest& t) {
             t.powerUp();
             auto pipe = t.factory_->createPipe(0, kSensorPipeType, -1, 0);
             pipe->startPipe(1);
             return pipe->stopPipe(2) < 0;
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        build();
        EXPECT_TRUE(c.fails(*this));
        EXPECT_EQ(trace_->refusals(), 1u);
        bool found = false;
        for (const std::string& line : lines_) {
            found =
                found || (line.rfind("REFUSED ", 0) == 0 && line.find(c.line) != std::string::npos);
        }
        EXPECT_TRUE(found) << "no refusal line with \"" << c.line << "\"";
    }
}

}  // namespace
