#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AOVSensor.h"
#include "LogCapture.h"
#include "PlatformMocks.h"
#include "SensorCatalogue.h"
#include "aovhost/Binding.h"

namespace aovtest {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Field;
using ::testing::InSequence;
using ::testing::InvokeWithoutArgs;
using ::testing::Pointee;
using ::testing::Return;
using ::testing::SetArgReferee;
using ::testing::StrEq;
using ::testing::StrictMock;

// The catalogue holds one sensor (id 3, device bit 4, so camera id 2) with two
// 640x480 scenarios at 5 fps (1 and 3), one at 10 fps (2), and 320x240 at 10 fps (4).
constexpr int32_t kSensorId = 3;
constexpr int32_t kSensorDev = 4;
constexpr int32_t kCameraId = 2;
constexpr int32_t kOrientation = 270;
constexpr uint64_t kAgentId = 0x123456789AULL;
constexpr uint32_t kPipeId = 77;
constexpr uint32_t kFrameInfo[4] = {101, 102, 103, 104};
constexpr uint32_t kFillWord = 0xA5A5A5A5;  // a word of a request's fill pattern

// Hands out `object` without the action keeping a reference, so that tests
// can tell from the use count whether the service still holds it.
template <class Base, class T>
auto lend(const std::shared_ptr<T>& object) {
    return InvokeWithoutArgs(
        [weak = std::weak_ptr<T>(object)]() -> std::shared_ptr<Base> { return weak.lock(); });
}

template <class T>
using Strict = std::shared_ptr<StrictMock<T>>;
template <class T>
Strict<T> strict() {
    return std::make_shared<StrictMock<T>>();
}

inline std::vector<uint8_t> bytesOf(const user_param& param) {
    const auto* begin = reinterpret_cast<const uint8_t*>(&param);
    return std::vector<uint8_t>(begin, begin + sizeof(param));
}

// An error line of the unified logger.
inline std::string errorLine(const char* function, int line, const std::string& text) {
    char head[160];
    std::snprintf(head, sizeof(head),
                  "[hw/aov/src/plat/isp8/AOVSensor, %s, line%04d] ERROR: ", function, line);
    return head + text;
}

// Where a scripted bring-up fails, in the order of the steps; kNone runs it to the end.
enum class DeviceFail { kNone, kNullDevice, kMclk, kPowerOn };
enum class PipeFail {
    kNone,
    kNoCoordinator,
    kNotImp,
    kNoAgent,
    kConfigSensor,
    kConfigP1,
    kNoPipe,
    kStartPipe
};

// How a scripted pipeline runs, beyond where it fails.
struct PipeScript {
    int pipeMode = 1;
    bool createAgent = true;
    int32_t sensorId = kSensorId;
    uint32_t cameraId = kCameraId;
    int32_t poweredId = kSensorId;
    uint32_t pipeId = kPipeId;
};

// An AOVSensor on strict platform doubles.
class SensorServiceTest : public ::testing::Test {
  protected:
    struct Doubles {
        StrictMock<MockSensorDevice> device;
        Strict<MockCamAgent> agent = strict<MockCamAgent>();
        Strict<MockSensorPipe> pipe = strict<MockSensorPipe>();
    };

    SensorServiceTest() {
        // Catalogue queries: their order and content are the catalogue suite's business.
        serveSensors(*list_, {sensorWith(kSensorId, kSensorDev,
                                         {
                                             {640, 480, 50, 1, 0x01, 0x02, 0x03},  // viewing
                                             {640, 480, 50, 0, 0x11, 0x12, 0x13},
                                             {640, 480, 100, 2, 0x21, 0x22, 0x23},
                                             {640, 480, 55, 3, 0x31, 0x32, 0x33},
                                             {320, 240, 100, 4, 0x41, 0x42, 0x43},
                                         },
                                         /*facing=*/2, kOrientation)});
        // Calls out of order still get working objects, so that an order fault
        // fails the test rather than crashing it.
        ON_CALL(*source_, getInstance()).WillByDefault(Return(coordinator_));
        ON_CALL(*pipe_mgr_, getSensorPipeFactory()).WillByDefault(Return(factory_));
    }
    ~SensorServiceTest() override { sensor_.reset(); }

    void createSensor() {
        InSequence seq;
        EXPECT_CALL(*list_, searchSensors()).WillOnce(Return(1));
        EXPECT_CALL(*pipe_mgr_, getSensorPipeFactory()).WillOnce(Return(factory_));
        EXPECT_CALL(*pipe_mgr_, uninit()).WillOnce(Return(0));
        sensor_ = std::make_unique<AOVSensor>();
    }
    void setTestModel(const char* value) {
        aovhost::setProperty("vendor.aovstream.test_model", value);
    }

    // A request on the fill pattern.
    static user_param request(int32_t sensorId, int32_t width, int32_t height, int32_t fps) {
        user_param param;
        std::memset(&param, 0xA5, sizeof(param));
        param.sensor_id = sensorId;
        param.width = width;
        param.height = height;
        param.frame_rate = fps;
        param.frame_info_sel = 6;
        return param;
    }

    // The bytes of `requested` as a start leaves them: frame information and camera
    // id written and, with `moded`, the mode of scenario 3.
    static std::vector<uint8_t> startedRecord(const user_param& requested, uint32_t cameraId,
                                              bool moded) {
        std::vector<std::pair<size_t, uint32_t>> words = {
            {0x24, kFrameInfo[0]}, {0x28, kFrameInfo[1]}, {0x30, kFrameInfo[2]},
            {0x34, kFrameInfo[3]}, {0xC0, cameraId},
        };
        if (moded) {
            // Scenario, orientation and face, then type, bit, sensor_ae and mode_param.
            const std::pair<size_t, uint32_t> mode[] = {
                {0x08, 3}, {0x0C, kOrientation}, {0x10, 1}, {0x14, 0x31}, {0x18, 0x32},
                {0x1C, 3}, {0x20, 0x33},
            };
            words.insert(words.end(), std::begin(mode), std::end(mode));
        }
        std::vector<uint8_t> bytes = bytesOf(requested);
        for (const auto& [offset, value] : words) {
            std::memcpy(bytes.data() + offset, &value, sizeof(value));
        }
        return bytes;
    }

    // Scripted platform calls, appended to the caller's sequence, if any.
    void expectFrameInfo(const user_param& param, int result = 0) {
        EXPECT_CALL(*custom_,
                    queryFrameInfo(param.width, param.height, param.frame_info_sel, _, _, _, _))
            .WillOnce(DoAll(SetArgReferee<3>(kFrameInfo[0]), SetArgReferee<4>(kFrameInfo[1]),
                            SetArgReferee<5>(kFrameInfo[2]), SetArgReferee<6>(kFrameInfo[3]),
                            Return(result)));
    }

    void expectDeviceStart(DeviceFail fail, Doubles& doubles, int32_t sensorId = kSensorId) {
        EXPECT_CALL(*list_, openSensorDevice(StrEq("AOV"), static_cast<uint32_t>(sensorId)))
            .WillOnce(Return(fail == DeviceFail::kNullDevice ? nullptr : &doubles.device));
        if (fail == DeviceFail::kNullDevice) {
            return;
        }
        EXPECT_CALL(doubles.device, switchMclkToUlposc(StrEq("AOV"), Pointee(sensorId)))
            .WillOnce(Return(fail != DeviceFail::kMclk));
        if (fail != DeviceFail::kMclk) {
            EXPECT_CALL(doubles.device, powerOnSensor(StrEq("AOV"), 1u, Pointee(sensorId)))
                .WillOnce(Return(fail != DeviceFail::kPowerOn));
        }
        if (fail != DeviceFail::kNone) {
            EXPECT_CALL(doubles.device, releaseSensorDevice(StrEq("AOV")));
        }
    }

    void expectPipelineStart(PipeFail fail, Doubles& doubles, const PipeScript& script = {}) {
        // Steps run up to and including the one that fails.
        const auto runs = [fail](PipeFail step) { return fail == PipeFail::kNone || fail >= step; };
        if (script.createAgent) {
            EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
            EXPECT_CALL(*coordinator_, createAgent(_)).WillOnce([this](coord::AgentParams& p) {
                agent_params_ = p;
                return kAgentId;
            });
        }
        EXPECT_CALL(*source_, getInstance())
            .WillOnce(Return(fail == PipeFail::kNoCoordinator ? nullptr
                             : fail == PipeFail::kNotImp
                                 ? std::shared_ptr<coord::ICamCoordinator>(bare_coordinator_)
                                 : coordinator_));
        if (runs(PipeFail::kNoAgent)) {
            EXPECT_CALL(*coordinator_, lookupAgent(kAgentId))
                .WillOnce(
                    lend<coord::ICamAgent>(fail == PipeFail::kNoAgent ? nullptr : doubles.agent));
        }
        if (runs(PipeFail::kConfigSensor)) {
            EXPECT_CALL(
                *doubles.agent,
                configSensor(Pointee(Field(&coord::ConfigSensorParams::sensorId, script.sensorId))))
                .WillOnce(Return(fail == PipeFail::kConfigSensor ? -2 : 0));
        }
        if (runs(PipeFail::kConfigP1)) {
            EXPECT_CALL(*doubles.agent, configNonLaggingP1Drv())
                .WillOnce(Return(fail == PipeFail::kConfigP1 ? -3 : 0));
        }
        if (runs(PipeFail::kNoPipe)) {
            EXPECT_CALL(*factory_, createPipe(script.cameraId, 17, -1, 0))
                .WillOnce(
                    lend<pipes::ISensorPipe>(fail == PipeFail::kNoPipe ? nullptr : doubles.pipe));
        }
        if (runs(PipeFail::kStartPipe)) {
            EXPECT_CALL(*doubles.pipe, startPipe(script.pipeMode))
                .WillOnce(Return(fail == PipeFail::kStartPipe ? -5 : 0));
        }
        if (fail == PipeFail::kNone) {
            return;
        }
        // Every failure releases the agent, and a started pipe.
        if (fail == PipeFail::kStartPipe) {
            EXPECT_CALL(*doubles.pipe, getPipeId()).WillOnce(Return(script.pipeId));
            EXPECT_CALL(*factory_, destroyPipe(script.pipeId, 17)).WillOnce(Return(0));
        }
        if (fail > PipeFail::kNoAgent) {
            EXPECT_CALL(*doubles.agent, detachSensor(Pointee(script.poweredId)));
        }
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
        EXPECT_CALL(*coordinator_, destroyAgent(kAgentId));
    }

    void expectPipelineStop(Doubles& doubles, const PipeScript& script = {}) {
        EXPECT_CALL(*doubles.pipe, stopPipe(script.pipeMode)).WillOnce(Return(0));
        EXPECT_CALL(*doubles.pipe, getPipeId()).WillOnce(Return(script.pipeId));
        EXPECT_CALL(*factory_, destroyPipe(script.pipeId, 17)).WillOnce(Return(0));
        EXPECT_CALL(*doubles.agent, detachSensor(Pointee(script.poweredId)));
        EXPECT_CALL(*source_, getInstance()).WillOnce(Return(coordinator_));
        EXPECT_CALL(*coordinator_, destroyAgent(kAgentId));
    }

    void expectDeviceStop(Doubles& doubles, int32_t sensorId = kSensorId) {
        EXPECT_CALL(doubles.device, powerOffSensor(StrEq("AOV"), 1u, Pointee(sensorId)))
            .WillOnce(Return(true));
        EXPECT_CALL(doubles.device, restoreMclk(StrEq("AOV"), Pointee(sensorId)))
            .WillOnce(Return(true));
        EXPECT_CALL(doubles.device, releaseSensorDevice(StrEq("AOV")));
    }

    // A whole start and its stop, in sequence.
    void expectRun(const user_param& param, Doubles& doubles, const PipeScript& script = {}) {
        InSequence seq;
        expectFrameInfo(param);
        expectDeviceStart(DeviceFail::kNone, doubles, script.sensorId);
        expectPipelineStart(PipeFail::kNone, doubles, script);
        expectPipelineStop(doubles, script);
        expectDeviceStop(doubles, script.sensorId);
    }

    // Error lines of the unified logger.
    std::vector<std::string> unifiedErrors() const {
        std::vector<std::string> errors;
        for (const CapturedLine& line : log_.unifiedLines()) {
            if (line.level == 1) {
                errors.push_back(line.text);
            }
        }
        return errors;
    }

    Strict<MockSensorList> list_ = strict<MockSensorList>();
    Strict<MockCustom> custom_ = strict<MockCustom>();
    Strict<MockPipeMgr> pipe_mgr_ = strict<MockPipeMgr>();
    Strict<MockPipeFactory> factory_ = strict<MockPipeFactory>();
    Strict<MockCoordinatorSource> source_ = strict<MockCoordinatorSource>();
    Strict<MockCoordinator> coordinator_ = strict<MockCoordinator>();
    Strict<MockBareCoordinator> bare_coordinator_ = strict<MockBareCoordinator>();
    Doubles main_;
    // What createAgent received, kept for inspection.
    coord::AgentParams agent_params_;

    aovhost::ScopedBinding<NSCam::IHalSensorList> bind_list_{list_};
    aovhost::ScopedBinding<IAOVCustom> bind_custom_{custom_};
    aovhost::ScopedBinding<pipes::IPipeMgr> bind_pipe_mgr_{pipe_mgr_};
    aovhost::ScopedBinding<aovhost::CamCoordinatorSource> bind_source_{source_};
    aovhost::ScopedProperty test_model_{"vendor.aovstream.test_model", "0"};
    aovhost::ScopedProperty view_mode_{"vendor.aovstream.view_mode", "0"};
    LogCapture log_;
    std::unique_ptr<AOVSensor> sensor_;
};

}  // namespace aovtest
