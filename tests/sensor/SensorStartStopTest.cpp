// Start and stop of an always-on sensor: the platform calls in their order,
// the record that the start completes, and how each failure unwinds.

#include <cstdio>
#include <ostream>
#include <tuple>

#include "SensorFixture.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::ValuesIn;
using ::testing::WithParamInterface;

// Table rows print and name their tests by `name`, so listings stay readable and stable.
template <class Row>
auto operator<<(std::ostream& os, const Row& row) -> decltype(os << row.name) {
    return os << row.name;
}
const auto kRowName = [](const auto& info) { return std::string(info.param.name); };

// What the unified logger reports when the step that logs `line` fails: that
// line, then the start's own for a device or pipeline step.
std::vector<std::string> stepErrors(DeviceFail device, PipeFail pipe, int line,
                                    const char* message) {
    if (device != DeviceFail::kNone) {
        return {errorLine("startDevice", line, message),
                errorLine("startSensor", 381, "failed to start sensor(3) device: -1")};
    }
    if (pipe != PipeFail::kNone) {
        return {errorLine("startPipeline", line, message),
                errorLine("startSensor", 390, "failed to start sensor(3) pipeline: -1")};
    }
    return {errorLine("startSensor", line, message)};
}

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
    const user_param requested = param;
    expectRun(param, main_);

    ASSERT_EQ(sensor_->startSensor(param), 0);
    // 5 fps is offered by scenarios 1 and 3 of 640x480: the later one wins.
    EXPECT_EQ(bytesOf(param), startedRecord(requested, kCameraId, /*moded=*/true));
    // The agent is configured for the chosen scenario only.
    ASSERT_THAT(agent_params_.p1Configs, ElementsAre(Pair(kSensorId, ElementsAre(Pair(3, _)))));
    const auto& p1 = agent_params_.p1Configs.at(kSensorId).at(3);
    ASSERT_TRUE(p1 && p1->sensorInfo);
    const auto& info = *p1->sensorInfo;
    EXPECT_EQ(std::make_tuple(info.sensorId, info.scenarioId, info.fps, info.width, info.height),
              std::make_tuple(kSensorId, 3, 5, 640, 480));
    EXPECT_EQ(agent_params_.sensorScenarios, (std::map<uint32_t, uint32_t>{{kSensorId, 3}}));
    EXPECT_TRUE(agent_params_.isConfigComplete);
    EXPECT_TRUE(agent_params_.allowSensorSwitch);
    EXPECT_TRUE(agent_params_.sensorData.empty() && agent_params_.modeData.empty() &&
                agent_params_.streams.empty() && agent_params_.sensorOrder.empty());

    EXPECT_EQ(sensor_->stopSensor(), 0);
    EXPECT_EQ(log_.debugContaining("AOV sensor start("),
              (std::vector<std::string>{startTrace(param, 304, '+'), startTrace(param, 397, '-')}));
    EXPECT_TRUE(unifiedErrors().empty());
    // A second stop finds nothing to take down and only traces.
    log_.clear();
    EXPECT_EQ(sensor_->stopSensor(), 0);
    EXPECT_EQ(log_.debugContaining("AOV sensor"),
              (std::vector<std::string>{
                  "[D][AOV] AOVSensor:411 stopSensor() [stopSensor] AOV sensor stop+",
                  "[D][AOV] AOVSensor:415 stopSensor() [stopSensor] AOV sensor stop-"}));
}

TEST_F(SensorServiceTest, FrameInfoFailureIsNeverWaived) {
    setTestModel("2");
    createSensor();
    user_param param = request(kSensorId, 640, 480, 5);
    expectFrameInfo(param, -7);

    EXPECT_EQ(sensor_->startSensor(param), -7);
    EXPECT_EQ(unifiedErrors(),
              std::vector<std::string>{errorLine(
                  "startSensor", 318, "failed to query frame info for sensor(640, 480)")});
    EXPECT_EQ(log_.debugContaining("ERROR"),
              std::vector<std::string>{
                  "[E][AOV] AOVSensor:318 startSensor() [hw/aov/src/plat/isp8/AOVSensor, "
                  "startSensor, line0318] ERROR: failed to query frame info for sensor(640, "
                  "480) (startSensor){#318:hw/aov/src/plat/isp8/AOVSensor}"});
    EXPECT_EQ(param.frame_info0, static_cast<int32_t>(kFillWord));
}

struct FailedStart {
    const char* name;
    const char* testModel;
    int32_t width;
    int32_t height;
    int32_t fps;
    DeviceFail device;
    PipeFail pipe;
    int line;  // of the error that fails the start
    const char* message;
};

// Rows where neither the device nor the pipeline fails are requests rejected
// before the device is touched.
const FailedStart kFailedStarts[] = {
    {"RateNotOffered", "0", 640, 480, 3, DeviceFail::kNone, PipeFail::kNone, 354,
     "failed to find scenario for the frame rate(3)"},
    {"RateNotOfferedUnderTestModel", "2", 640, 480, 3, DeviceFail::kNone, PipeFail::kNone, 354,
     "failed to find scenario for the frame rate(3)"},
    {"ZeroRateOfMatchedSize", "0", 640, 480, 0, DeviceFail::kNone, PipeFail::kNone, 354,
     "failed to find scenario for the frame rate(0)"},
    {"ZeroRateOfUnknownSize", "0", 800, 600, 0, DeviceFail::kNone, PipeFail::kNone, 374,
     "invalid sensor(3) width(800), height(600) or frame rate(0)"},
    {"ZeroWidth", "0", 0, 480, 5, DeviceFail::kNone, PipeFail::kNone, 374,
     "invalid sensor(3) width(0), height(480) or frame rate(5)"},
    {"ZeroHeight", "0", 640, 0, 5, DeviceFail::kNone, PipeFail::kNone, 374,
     "invalid sensor(3) width(640), height(0) or frame rate(5)"},
    {"NoDevice", "0", 640, 480, 5, DeviceFail::kNullDevice, PipeFail::kNone, 141,
     "invalid null sensor device for id(3)"},
    {"ClockSwitch", "0", 640, 480, 5, DeviceFail::kMclk, PipeFail::kNone, 151,
     "failed to switch aov sensor(3) mclk to ulposc"},
    // Released without restoring the clock.
    {"PowerOn", "0", 640, 480, 5, DeviceFail::kPowerOn, PipeFail::kNone, 161,
     "failed to power on sensor device(3)"},
    {"NoCoordinator", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kNoCoordinator, 217,
     "failed to get ICamCoordinator instance"},
    {"NotAnImplementation", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kNotImp, 225,
     "failed to get CamCoordinatorImp"},
    {"NoAgent", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kNoAgent, 231, "failed to getAgent"},
    {"ConfigSensor", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kConfigSensor, 239,
     "failed to get configSensor, cam_id(3)"},
    {"ConfigP1", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kConfigP1, 245,
     "failed to get configNonLaggingP1Drv"},
    {"NoPipe", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kNoPipe, 253,
     "failed to create sensor pipe"},
    {"StartPipe", "0", 640, 480, 5, DeviceFail::kNone, PipeFail::kStartPipe, 278,
     "failed to start sensor pipe(-5)"},
};

class SensorFailedStartTest : public SensorServiceTest, public WithParamInterface<FailedStart> {};

TEST_P(SensorFailedStartTest, UnwindsWhatStartedAndStaysStopped) {
    const FailedStart& row = GetParam();
    const bool rejected = row.device == DeviceFail::kNone && row.pipe == PipeFail::kNone;
    setTestModel(row.testModel);
    createSensor();
    user_param param = request(kSensorId, row.width, row.height, row.fps);
    {
        InSequence seq;
        expectFrameInfo(param);
        if (!rejected) {
            expectDeviceStart(row.device, main_);
        }
        // A failed device skips the pipeline; a failed pipeline also powers the sensor down.
        if (!rejected && row.device == DeviceFail::kNone) {
            expectPipelineStart(row.pipe, main_);
            expectDeviceStop(main_);
        }
    }

    EXPECT_EQ(sensor_->startSensor(param), -1);
    EXPECT_EQ(unifiedErrors(), stepErrors(row.device, row.pipe, row.line, row.message));
    // The frame information stays written; a rejected request gets no scenario.
    EXPECT_EQ(param.frame_info3, static_cast<int32_t>(kFrameInfo[3]));
    EXPECT_EQ(param.scenario, static_cast<int32_t>(rejected ? kFillWord : 3));
    // The service holds neither agent nor pipe and is not started: stopping calls nothing.
    EXPECT_EQ(main_.agent.use_count(), 1);
    EXPECT_EQ(main_.pipe.use_count(), 1);
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(Steps, SensorFailedStartTest, ValuesIn(kFailedStarts), kRowName);

// Not finding a mode is not an error: the start goes on with the caller's mode fields.
TEST_F(SensorServiceTest, UncataloguedRequestsStartWithModeFieldsUntouched) {
    createSensor();
    // A size that the sensor does not offer, then a sensor that is not catalogued.
    user_param unlistedSize = request(kSensorId, 800, 600, 5);
    user_param unlistedSensor = request(9, 640, 480, 5);
    const user_param requestedSize = unlistedSize;
    const user_param requestedSensor = unlistedSensor;
    PipeScript other;
    other.sensorId = other.poweredId = 9;
    other.cameraId = 0;
    {
        InSequence seq;
        expectRun(unlistedSize, main_);
        expectRun(unlistedSensor, main_, other);
    }

    ASSERT_EQ(sensor_->startSensor(unlistedSize), 0);
    EXPECT_EQ(bytesOf(unlistedSize), startedRecord(requestedSize, kCameraId, /*moded=*/false));
    EXPECT_EQ(sensor_->stopSensor(), 0);
    ASSERT_EQ(sensor_->startSensor(unlistedSensor), 0);
    EXPECT_EQ(bytesOf(unlistedSensor), startedRecord(requestedSensor, 0, /*moded=*/false));
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

struct TestModelStart {
    const char* name;
    const char* testModel;
    int32_t width;
    DeviceFail device;
    PipeFail pipe;
    int line;  // of the error that the start carries on past
    const char* message;
};

const TestModelStart kTestModelStarts[] = {
    {"ZeroWidth", "2", 0, DeviceFail::kNone, PipeFail::kNone, 374,
     "invalid sensor(3) width(0), height(480) or frame rate(5)"},
    {"NoDevice", "1", 640, DeviceFail::kNullDevice, PipeFail::kNone, 141,
     "invalid null sensor device for id(3)"},
    {"PipeFails", "2", 640, DeviceFail::kNone, PipeFail::kStartPipe, 278,
     "failed to start sensor pipe(-5)"},
};

class SensorTestModelTest : public SensorServiceTest, public WithParamInterface<TestModelStart> {};

// Under the test model a start carries on past what would fail it, and the
// record leaves with the test geometry.
TEST_P(SensorTestModelTest, CarriesOnAndStreamsTheTestGeometry) {
    const TestModelStart& row = GetParam();
    setTestModel(row.testModel);
    createSensor();
    user_param powered = request(kSensorId, 640, 480, 5);
    user_param param = request(kSensorId, row.width, 480, 5);
    PipeScript script;
    script.pipeMode = 2;
    {
        InSequence seq;
        // A powered run first, so that a stale sensor id would show in a later detach.
        expectRun(powered, main_, script);
        expectFrameInfo(param);
        expectDeviceStart(row.device, main_);
        script.poweredId = row.device == DeviceFail::kNone ? kSensorId : -1;
        expectPipelineStart(row.pipe, main_, script);
        // The stop takes down what is left.
        if (row.pipe == PipeFail::kNone) {
            expectPipelineStop(main_, script);
        }
        if (row.device == DeviceFail::kNone) {
            expectDeviceStop(main_);
        }
    }
    ASSERT_EQ(sensor_->startSensor(powered), 0);
    ASSERT_EQ(sensor_->stopSensor(), 0);

    EXPECT_EQ(sensor_->startSensor(param), 0);
    EXPECT_EQ(unifiedErrors(), stepErrors(row.device, row.pipe, row.line, row.message));
    // The coordinator saw the request.
    ASSERT_EQ(agent_params_.p1Configs[kSensorId].size(), 1u);
    EXPECT_EQ(agent_params_.p1Configs[kSensorId].begin()->second->sensorInfo->width, row.width);
    EXPECT_EQ((std::vector<int32_t>{param.width, param.height, param.frame_rate, param.frame_info0,
                                    param.frame_info1, param.frame_info2, param.frame_info3}),
              (std::vector<int32_t>{1920, 1080, 10, 1920, 1080, 1920, 1080}));
    EXPECT_EQ(sensor_->stopSensor(), 0);
}

INSTANTIATE_TEST_SUITE_P(Starts, SensorTestModelTest, ValuesIn(kTestModelStarts), kRowName);

TEST_F(SensorServiceTest, SecondStartReusesTheAgentAndDestructionStopsIt) {
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
        expectDeviceStart(DeviceFail::kNone, main_);
        expectPipelineStart(PipeFail::kNone, main_);
        expectFrameInfo(again);
        expectDeviceStart(DeviceFail::kNone, second);
        expectPipelineStart(PipeFail::kNone, second, reuse);
        // Only the second pipe, agent and device are taken down, the pipeline first.
        expectPipelineStop(second, reuse);
        expectDeviceStop(second);
    }

    ASSERT_EQ(sensor_->startSensor(first), 0);
    ASSERT_EQ(sensor_->startSensor(again), 0);
    EXPECT_EQ(again.scenario, 4);
    EXPECT_EQ(main_.pipe.use_count(), 1);
    EXPECT_EQ(main_.agent.use_count(), 1);
    sensor_.reset();
}

}  // namespace
}  // namespace aovtest
