#include "SensorFixture.h"

namespace aovtest {

namespace coord = NSCam::camsys::camcoordinator;

SensorServiceTest::SensorServiceTest() {
    // Catalogue queries: their order and content are the catalogue suite's business.
    EXPECT_CALL(*list_, queryNumberOfSensors()).Times(AnyNumber()).WillRepeatedly(Return(1));
    EXPECT_CALL(*list_, querySensorId(0)).Times(AnyNumber()).WillRepeatedly(Return(kSensorId));
    EXPECT_CALL(*list_, querySensorDevIdx(kSensorId))
        .Times(AnyNumber())
        .WillRepeatedly(Return(kSensorDev));
    EXPECT_CALL(*list_, queryFacingDirection(kSensorId))
        .Times(AnyNumber())
        .WillRepeatedly(Return(2));
    const NSCam::SensorStaticInfo info =
        makeStaticInfo(kOrientation, {
                                         {1, 640, 480, 50, 1, 0x01, 0x02, 0x03},  // viewing
                                         {2, 640, 480, 50, 0, 0x11, 0x12, 0x13},
                                         {5, 640, 480, 100, 2, 0x21, 0x22, 0x23},
                                         {7, 640, 480, 55, 3, 0x31, 0x32, 0x33},
                                         {9, 320, 240, 100, 4, 0x41, 0x42, 0x43},
                                     });
    EXPECT_CALL(*list_, querySensorStaticInfo(kSensorDev, _))
        .Times(AnyNumber())
        .WillRepeatedly(SetArgPointee<1>(info));
}

SensorServiceTest::~SensorServiceTest() {
    sensor_.reset();
}

void SensorServiceTest::createSensor() {
    EXPECT_CALL(*list_, searchSensors()).WillOnce(Return(1));
    EXPECT_CALL(*pipe_mgr_, getSensorPipeFactory()).WillOnce(Return(factory_));
    EXPECT_CALL(*pipe_mgr_, uninit()).WillOnce(Return(0));
    sensor_ = std::make_unique<AOVSensor>();
}

user_param SensorServiceTest::request(int32_t sensorId, int32_t width, int32_t height, int32_t fps,
                                      int32_t selector) {
    user_param param;
    std::memset(&param, kFill, sizeof(param));
    param.sensor_id = sensorId;
    param.width = width;
    param.height = height;
    param.frame_rate = fps;
    param.frame_info_sel = selector;
    return param;
}

void SensorServiceTest::expectFrameInfo(const user_param& param, int result) {
    EXPECT_CALL(*custom_,
                queryFrameInfo(param.width, param.height, param.frame_info_sel, _, _, _, _))
        .WillOnce(DoAll(SetArgReferee<3>(kFrameInfo[0]), SetArgReferee<4>(kFrameInfo[1]),
                        SetArgReferee<5>(kFrameInfo[2]), SetArgReferee<6>(kFrameInfo[3]),
                        Return(result)));
}

void SensorServiceTest::expectDeviceStart(DeviceFail fail, Doubles& doubles, int32_t sensorId) {
    EXPECT_CALL(*list_, openSensorDevice(StrEq("AOV"), static_cast<uint32_t>(sensorId)))
        .WillOnce(Return(fail == DeviceFail::NullDevice ? nullptr : &doubles.device));
    if (fail == DeviceFail::NullDevice) {
        return;
    }
    EXPECT_CALL(doubles.device, switchMclkToUlposc(StrEq("AOV"), Pointee(sensorId)))
        .WillOnce(Return(fail != DeviceFail::Mclk));
    if (fail != DeviceFail::Mclk) {
        EXPECT_CALL(doubles.device, powerOnSensor(StrEq("AOV"), 1u, Pointee(sensorId)))
            .WillOnce(Return(fail != DeviceFail::PowerOn));
    }
    if (fail != DeviceFail::None) {
        EXPECT_CALL(doubles.device, releaseSensorDevice(StrEq("AOV")));
    }
}

void SensorServiceTest::expectPipelineStart(PipeFail fail, Doubles& doubles,
                                            const PipeScript& script) {
    if (script.createAgent) {
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
        EXPECT_CALL(*coordinator_, createAgent(_)).WillOnce([this](coord::AgentParams& params) {
            agent_params_ = params;
            return kAgentId;
        });
    }
    bool agentHeld = false;
    if (fail == PipeFail::NoCoordinator) {
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(nullptr));
    } else if (fail == PipeFail::NotImp) {
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(bare_coordinator_));
    } else {
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
        EXPECT_CALL(*coordinator_, lookupAgent(kAgentId))
            .WillOnce(lend<coord::ICamAgent>(fail == PipeFail::NoAgent ? nullptr : doubles.agent));
        agentHeld = fail != PipeFail::NoAgent;
        if (agentHeld) {
            EXPECT_CALL(*doubles.agent,
                        configSensor(Pointee(::testing::Field(&coord::ConfigSensorParams::sensorId,
                                                              script.sensorId))))
                .WillOnce(Return(fail == PipeFail::ConfigSensor ? -2 : 0));
        }
        if (agentHeld && fail != PipeFail::ConfigSensor) {
            EXPECT_CALL(*doubles.agent, configNonLaggingP1Drv())
                .WillOnce(Return(fail == PipeFail::ConfigP1 ? -3 : 0));
        }
        if (agentHeld && fail != PipeFail::ConfigSensor && fail != PipeFail::ConfigP1) {
            EXPECT_CALL(*factory_, createPipe(script.cameraId, 17, -1, 0))
                .WillOnce(
                    lend<pipes::ISensorPipe>(fail == PipeFail::NoPipe ? nullptr : doubles.pipe));
        }
        if (fail == PipeFail::None || fail == PipeFail::StartPipe) {
            EXPECT_CALL(*doubles.pipe, startPipe(script.pipeMode))
                .WillOnce(Return(fail == PipeFail::StartPipe ? -5 : 0));
        }
        if (fail == PipeFail::StartPipe) {
            EXPECT_CALL(*doubles.pipe, getPipeId()).WillOnce(Return(script.pipeId));
            EXPECT_CALL(*factory_, destroyPipe(script.pipeId, 17)).WillOnce(Return(0));
        }
    }
    if (fail == PipeFail::None) {
        return;
    }
    // Every failure releases the agent.
    if (agentHeld) {
        EXPECT_CALL(*doubles.agent, detachSensor(Pointee(script.poweredId)));
    }
    EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
    EXPECT_CALL(*coordinator_, destroyAgent(kAgentId));
}

void SensorServiceTest::expectPipelineStop(Doubles& doubles, const PipeScript& script) {
    EXPECT_CALL(*doubles.pipe, stopPipe(script.pipeMode)).WillOnce(Return(0));
    EXPECT_CALL(*doubles.pipe, getPipeId()).WillOnce(Return(script.pipeId));
    EXPECT_CALL(*factory_, destroyPipe(script.pipeId, 17)).WillOnce(Return(0));
    EXPECT_CALL(*doubles.agent, detachSensor(Pointee(script.poweredId)));
    EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
    EXPECT_CALL(*coordinator_, destroyAgent(kAgentId));
}

void SensorServiceTest::expectDeviceStop(Doubles& doubles, int32_t sensorId) {
    EXPECT_CALL(doubles.device, powerOffSensor(StrEq("AOV"), 1u, Pointee(sensorId)))
        .WillOnce(Return(true));
    EXPECT_CALL(doubles.device, restoreMclk(StrEq("AOV"), Pointee(sensorId)))
        .WillOnce(Return(true));
    EXPECT_CALL(doubles.device, releaseSensorDevice(StrEq("AOV")));
}

std::vector<std::string> SensorServiceTest::unifiedErrors() const {
    std::vector<std::string> errors;
    for (const CapturedLine& line : log_.unifiedLines()) {
        if (line.level == 1) {
            errors.push_back(line.text);
        }
    }
    return errors;
}

std::string SensorServiceTest::errorLine(const char* function, int line, const std::string& text) {
    char head[160];
    std::snprintf(head, sizeof(head),
                  "[hw/aov/src/plat/isp8/AOVSensor, %s, line%04d] ERROR: ", function, line);
    return head + text;
}

}  // namespace aovtest
