// Start and stop of an always-on sensor: the platform calls in their order,
// the record that the start completes, and how each failure unwinds.

#include <cstdio>
#include <ostream>

#include "SensorFixture.h"

namespace aovtest {
namespace {

using ::testing::InSequence;
using ::testing::Values;
using ::testing::WithParamInterface;

constexpr uint32_t kFillWord = 0xA5A5A5A5;

std::string startTrace(const user_param& param, int line, char sign) {
    char text[160];
    std::snprintf(text, sizeof(text),
                  "[D][AOV] AOVSensor:%d startSensor() [startSensor] AOV sensor start(%p)%c", line,
                  static_cast<const void*>(&param), sign);
    return text;
}

TEST_F(SensorServiceTest, StartAndStopRunThePlatformInOrder) {
    log_.enableTraces();
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    const std::vector<uint8_t> before = bytesOf(param);
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_);
        expectPipelineStop(main_);
        expectDeviceStop(main_);
    }

    ASSERT_EQ(sensor_->startSensor(param), 0);

    // 5 fps is offered by scenarios 2 and 7 of 640x480: the later one wins.
    std::vector<uint8_t> expected = before;
    put32(expected, 0x08, 7);
    put32(expected, 0x0C, kOrientation);
    put32(expected, 0x10, 1);
    put32(expected, 0x14, 0x31);
    put32(expected, 0x18, 0x32);
    put32(expected, 0x1C, 3);
    put32(expected, 0x20, 0x33);
    put32(expected, 0x24, kFrameInfo[0]);
    put32(expected, 0x28, kFrameInfo[1]);
    put32(expected, 0x30, kFrameInfo[2]);
    put32(expected, 0x34, kFrameInfo[3]);
    put32(expected, 0xC0, kCameraId);
    EXPECT_EQ(bytesOf(param), expected);

    const auto& p1Configs = agent_params_.p1Configs;
    ASSERT_EQ(p1Configs.size(), 1u);
    ASSERT_EQ(p1Configs.count(kSensorId), 1u);
    ASSERT_EQ(p1Configs.at(kSensorId).size(), 1u);
    ASSERT_EQ(p1Configs.at(kSensorId).count(7), 1u);
    const auto& p1 = p1Configs.at(kSensorId).at(7);
    ASSERT_TRUE(p1 && p1->sensorInfo);
    EXPECT_EQ(p1->sensorInfo->sensorId, kSensorId);
    EXPECT_EQ(p1->sensorInfo->scenarioId, 7);
    EXPECT_EQ(p1->sensorInfo->fps, 5);
    EXPECT_EQ(p1->sensorInfo->width, 640);
    EXPECT_EQ(p1->sensorInfo->height, 480);
    EXPECT_EQ(agent_params_.sensorScenarios, (std::map<uint32_t, uint32_t>{{kSensorId, 7}}));
    EXPECT_TRUE(agent_params_.isConfigComplete);
    EXPECT_TRUE(agent_params_.allowSensorSwitch);
    EXPECT_TRUE(agent_params_.sensorData.empty() && agent_params_.modeData.empty() &&
                agent_params_.streams.empty() && agent_params_.sensorOrder.empty());

    EXPECT_EQ(sensor_->stopSensor(), 0);
    EXPECT_EQ(log_.debugContaining("AOV sensor start("),
              (std::vector<std::string>{startTrace(param, 304, '+'), startTrace(param, 397, '-')}));
    EXPECT_TRUE(unifiedErrors().empty());
}

TEST_F(SensorServiceTest, FrameInfoFailureIsNeverWaived) {
    setTestModel("2");
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    expectFrameInfo(param, -7);

    EXPECT_EQ(sensor_->startSensor(param), -7);
    EXPECT_EQ(unifiedErrors(), std::vector<std::string>{
                                   "[hw/aov/src/plat/isp8/AOVSensor, startSensor, line0318] ERROR: "
                                   "failed to query frame info for sensor(640, 480)"});
    const std::vector<std::string> debug = log_.debugContaining("ERROR");
    EXPECT_EQ(debug, std::vector<std::string>{
                         "[E][AOV] AOVSensor:318 startSensor() [hw/aov/src/plat/isp8/AOVSensor, "
                         "startSensor, line0318] ERROR: failed to query frame info for sensor(640, "
                         "480) (startSensor){#318:hw/aov/src/plat/isp8/AOVSensor}"});
    EXPECT_EQ(param.frame_info0, static_cast<int32_t>(kFillWord));
}

struct RejectedRequest {
    const char* name;
    const char* testModel;
    int32_t width;
    int32_t height;
    int32_t fps;
    int line;
    const char* message;
};

// Rows print by name, so test listings stay readable and stable.
void PrintTo(const RejectedRequest& row, std::ostream* os) { *os << row.name; }

class SensorRejectTest : public SensorServiceTest, public WithParamInterface<RejectedRequest> {};

TEST_P(SensorRejectTest, FailsBeforeTouchingTheDevice) {
    const RejectedRequest& row = GetParam();
    setTestModel(row.testModel);
    createSensor();
    user_param param = request(kSensorId, row.width, row.height, row.fps);
    expectFrameInfo(param);

    EXPECT_EQ(sensor_->startSensor(param), -1);
    EXPECT_EQ(unifiedErrors(),
              std::vector<std::string>{errorLine("startSensor", row.line, row.message)});
    // The frame information stays written; no scenario was.
    EXPECT_EQ(param.frame_info3, static_cast<int32_t>(kFrameInfo[3]));
    EXPECT_EQ(param.scenario, static_cast<int32_t>(kFillWord));
    // Not started: stopping calls nothing.
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, SensorRejectTest,
    Values(RejectedRequest{"RateNotOffered", "0", 640, 480, 3, 354,
                           "failed to find scenario for the frame rate(3)"},
           RejectedRequest{"RateNotOfferedUnderTestModel", "2", 640, 480, 3, 354,
                           "failed to find scenario for the frame rate(3)"},
           RejectedRequest{"ZeroRateOfMatchedSize", "0", 640, 480, 0, 354,
                           "failed to find scenario for the frame rate(0)"},
           RejectedRequest{"ZeroRateOfUnknownSize", "0", 800, 600, 0, 374,
                           "invalid sensor(3) width(800), height(600) or frame rate(0)"},
           RejectedRequest{"ZeroWidth", "0", 0, 480, 5, 374,
                           "invalid sensor(3) width(0), height(480) or frame rate(5)"},
           RejectedRequest{"ZeroHeight", "0", 640, 0, 5, 374,
                           "invalid sensor(3) width(640), height(0) or frame rate(5)"}),
    [](const ::testing::TestParamInfo<RejectedRequest>& info) { return info.param.name; });

struct DeviceFailure {
    const char* name;
    DeviceFail fail;
    int line;
    const char* message;
};

// Rows print by name, so test listings stay readable and stable.
void PrintTo(const DeviceFailure& row, std::ostream* os) { *os << row.name; }

class SensorDeviceFailureTest : public SensorServiceTest,
                                public WithParamInterface<DeviceFailure> {};

TEST_P(SensorDeviceFailureTest, UnwindsAndSkipsThePipeline) {
    const DeviceFailure& row = GetParam();
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(row.fail, main_);
    }

    EXPECT_EQ(sensor_->startSensor(param), -1);
    EXPECT_EQ(unifiedErrors(),
              (std::vector<std::string>{
                  errorLine("startDevice", row.line, row.message),
                  errorLine("startSensor", 381, "failed to start sensor(3) device: -1")}));
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(Steps, SensorDeviceFailureTest,
                         Values(DeviceFailure{"NoDevice", DeviceFail::NullDevice, 141,
                                              "invalid null sensor device for id(3)"},
                                DeviceFailure{"ClockSwitch", DeviceFail::Mclk, 151,
                                              "failed to switch aov sensor(3) mclk to ulposc"},
                                // Released without restoring the clock.
                                DeviceFailure{"PowerOn", DeviceFail::PowerOn, 161,
                                              "failed to power on sensor device(3)"}),
                         [](const ::testing::TestParamInfo<DeviceFailure>& info) {
                             return info.param.name;
                         });

struct PipelineFailure {
    const char* name;
    PipeFail fail;
    int line;
    const char* message;
};

// Rows print by name, so test listings stay readable and stable.
void PrintTo(const PipelineFailure& row, std::ostream* os) { *os << row.name; }

class SensorPipelineFailureTest : public SensorServiceTest,
                                  public WithParamInterface<PipelineFailure> {};

TEST_P(SensorPipelineFailureTest, ReleasesTheAgentAndPowersDown) {
    const PipelineFailure& row = GetParam();
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(row.fail, main_);
        expectDeviceStop(main_);
    }

    EXPECT_EQ(sensor_->startSensor(param), -1);
    EXPECT_EQ(unifiedErrors(),
              (std::vector<std::string>{
                  errorLine("startPipeline", row.line, row.message),
                  errorLine("startSensor", 390, "failed to start sensor(3) pipeline: -1")}));
    // The service holds neither agent nor pipe any more, and is not started.
    EXPECT_EQ(main_.agent.use_count(), 1);
    EXPECT_EQ(main_.pipe.use_count(), 1);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, SensorPipelineFailureTest,
    Values(
        PipelineFailure{"NoCoordinator", PipeFail::NoCoordinator, 217,
                        "failed to get ICamCoordinator instance"},
        PipelineFailure{"NotAnImplementation", PipeFail::NotImp, 225,
                        "failed to get CamCoordinatorImp"},
        PipelineFailure{"NoAgent", PipeFail::NoAgent, 231, "failed to getAgent"},
        PipelineFailure{"ConfigSensor", PipeFail::ConfigSensor, 239,
                        "failed to get configSensor, cam_id(3)"},
        PipelineFailure{"ConfigP1", PipeFail::ConfigP1, 245, "failed to get configNonLaggingP1Drv"},
        PipelineFailure{"NoPipe", PipeFail::NoPipe, 253, "failed to create sensor pipe"},
        PipelineFailure{"StartPipe", PipeFail::StartPipe, 278, "failed to start sensor pipe(-5)"}),
    [](const ::testing::TestParamInfo<PipelineFailure>& info) { return info.param.name; });

struct UncataloguedRequest {
    const char* name;
    int32_t sensorId;
    int32_t width;
    int32_t height;
    uint32_t cameraId;
};

// Rows print by name, so test listings stay readable and stable.
void PrintTo(const UncataloguedRequest& row, std::ostream* os) { *os << row.name; }

class SensorUncataloguedTest : public SensorServiceTest,
                               public WithParamInterface<UncataloguedRequest> {};

// Not finding a mode is not an error: the start goes on with the caller's fields.
TEST_P(SensorUncataloguedTest, StartsWithModeFieldsUntouched) {
    const UncataloguedRequest& row = GetParam();
    createSensor();
    user_param param = request(row.sensorId, row.width, row.height, 5);
    const std::vector<uint8_t> before = bytesOf(param);
    PipeScript script;
    script.sensorId = row.sensorId;
    script.poweredId = row.sensorId;
    script.cameraId = row.cameraId;
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_, row.sensorId);
        expectPipelineStart(PipeFail::None, main_, script);
        expectPipelineStop(main_, script);
        expectDeviceStop(main_, row.sensorId);
    }

    ASSERT_EQ(sensor_->startSensor(param), 0);
    std::vector<uint8_t> expected = before;
    put32(expected, 0x24, kFrameInfo[0]);
    put32(expected, 0x28, kFrameInfo[1]);
    put32(expected, 0x30, kFrameInfo[2]);
    put32(expected, 0x34, kFrameInfo[3]);
    put32(expected, 0xC0, row.cameraId);
    EXPECT_EQ(bytesOf(param), expected);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(Requests, SensorUncataloguedTest,
                         Values(UncataloguedRequest{"SizeNotListed", 3, 800, 600, 2},
                                UncataloguedRequest{"SensorNotListed", 9, 640, 480, 0}),
                         [](const ::testing::TestParamInfo<UncataloguedRequest>& info) {
                             return info.param.name;
                         });

TEST_F(SensorServiceTest, TestModelWaivesZeroSizeAndStreamsTestGeometry) {
    setTestModel("2");
    createSensor();
    user_param param = request(kSensorId, 0, 480, 5);
    PipeScript script;
    script.pipeMode = 2;
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_, script);
        expectPipelineStop(main_, script);
        expectDeviceStop(main_);
    }

    ASSERT_EQ(sensor_->startSensor(param), 0);
    EXPECT_EQ(unifiedErrors(),
              std::vector<std::string>{errorLine(
                  "startSensor", 374, "invalid sensor(3) width(0), height(480) or frame rate(5)")});
    // The coordinator saw the request; the record leaves with the test geometry.
    const auto& byScenario = agent_params_.p1Configs[kSensorId];
    ASSERT_EQ(byScenario.size(), 1u);
    EXPECT_EQ(byScenario.begin()->second->sensorInfo->width, 0);
    EXPECT_EQ(param.width, 1920);
    EXPECT_EQ(param.height, 1080);
    EXPECT_EQ(param.frame_rate, 10);
    EXPECT_EQ(param.frame_info0, 1920);
    EXPECT_EQ(param.frame_info1, 1080);
    EXPECT_EQ(param.frame_info2, 1920);
    EXPECT_EQ(param.frame_info3, 1080);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

TEST_F(SensorServiceTest, TestModelCarriesOnWithoutADevice) {
    setTestModel("1");
    createSensor();
    user_param powered = request(kSensorId, 640, 480, 5);
    user_param param = request(kSensorId, 640, 480, 5);
    PipeScript poweredScript;
    poweredScript.pipeMode = 2;
    PipeScript script = poweredScript;
    script.poweredId = -1;
    {
        InSequence seq;
        // A powered run first, so that a stale sensor id would show in the detach below.
        expectFrameInfo(powered);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_, poweredScript);
        expectPipelineStop(main_, poweredScript);
        expectDeviceStop(main_);
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::NullDevice, main_);
        expectPipelineStart(PipeFail::None, main_, script);
        // Started all the same: the stop takes the pipeline down, there is no power to cut.
        expectPipelineStop(main_, script);
    }
    ASSERT_EQ(sensor_->startSensor(powered), 0);
    ASSERT_EQ(sensor_->stopSensor(), 0);

    EXPECT_EQ(sensor_->startSensor(param), 0);
    EXPECT_EQ(unifiedErrors(),
              (std::vector<std::string>{
                  errorLine("startDevice", 141, "invalid null sensor device for id(3)"),
                  errorLine("startSensor", 381, "failed to start sensor(3) device: -1")}));
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

TEST_F(SensorServiceTest, TestModelCarriesOnWhenThePipeFails) {
    setTestModel("2");
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    PipeScript script;
    script.pipeMode = 2;
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::StartPipe, main_, script);
        expectDeviceStop(main_);
    }

    EXPECT_EQ(sensor_->startSensor(param), 0);
    EXPECT_EQ(unifiedErrors(),
              (std::vector<std::string>{
                  errorLine("startPipeline", 278, "failed to start sensor pipe(-5)"),
                  errorLine("startSensor", 390, "failed to start sensor(3) pipeline: -1")}));
    EXPECT_EQ(param.width, 1920);
    EXPECT_EQ(param.height, 1080);
    EXPECT_EQ(param.frame_rate, 10);
    // Nothing is left to tear down.
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

TEST_F(SensorServiceTest, SecondStartReusesTheAgentAndDropsTheFirstPipe) {
    createSensor();
    Doubles second;
    user_param first = request(kSensorId, 640, 480, 5);
    user_param again = request(kSensorId, 320, 240, 10);
    PipeScript reuse;
    reuse.createAgent = false;
    reuse.pipeId = kPipeId + 1;
    {
        InSequence seq;
        expectFrameInfo(first);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_);
        expectFrameInfo(again);
        expectDeviceStart(DeviceFail::None, second);
        expectPipelineStart(PipeFail::None, second, reuse);
        // Only the second pipe, agent and device are taken down.
        expectPipelineStop(second, reuse);
        expectDeviceStop(second);
    }

    ASSERT_EQ(sensor_->startSensor(first), 0);
    ASSERT_EQ(sensor_->startSensor(again), 0);
    EXPECT_EQ(again.scenario, 9);
    EXPECT_EQ(main_.pipe.use_count(), 1);
    EXPECT_EQ(main_.agent.use_count(), 1);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

TEST_F(SensorServiceTest, SecondStopOnlyTraces) {
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_);
        expectPipelineStop(main_);
        expectDeviceStop(main_);
    }
    ASSERT_EQ(sensor_->startSensor(param), 0);
    ASSERT_EQ(sensor_->stopSensor(), 0);

    log_.enableTraces();
    log_.clear();
    EXPECT_EQ(sensor_->stopSensor(), 0);
    EXPECT_EQ(log_.debugContaining("AOV sensor"),
              (std::vector<std::string>{
                  "[D][AOV] AOVSensor:411 stopSensor() [stopSensor] AOV sensor stop+",
                  "[D][AOV] AOVSensor:415 stopSensor() [stopSensor] AOV sensor stop-"}));
}

TEST_F(SensorServiceTest, DestroyingAStartedServiceStopsThePipelineBeforeTheDevice) {
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::None, main_);
        expectPipelineStart(PipeFail::None, main_);
        expectPipelineStop(main_);
        expectDeviceStop(main_);
    }
    ASSERT_EQ(sensor_->startSensor(param), 0);
    sensor_.reset();
}

}  // namespace
}  // namespace aovtest
