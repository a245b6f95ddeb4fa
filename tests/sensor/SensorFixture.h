#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "AOVSensor.h"
#include "LogCapture.h"
#include "PlatformMocks.h"
#include "aovhost/Binding.h"

namespace aovtest {

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::DoAll;
using ::testing::InvokeWithoutArgs;
using ::testing::Pointee;
using ::testing::Return;
using ::testing::SetArgPointee;
using ::testing::SetArgReferee;
using ::testing::StrEq;
using ::testing::StrictMock;

// One scenario of a sensor's static info; rate in tenths of a frame per second.
struct ScenarioSpec {
    int index;
    uint16_t width;
    uint16_t height;
    uint32_t rate;
    uint32_t aeKind;
    uint32_t type;
    uint32_t bit;
    uint32_t modeParam;
};

inline NSCam::SensorStaticInfo makeStaticInfo(int32_t orientation,
                                              std::initializer_list<ScenarioSpec> scenarios) {
    NSCam::SensorStaticInfo info;
    info.orientation = orientation;
    for (const ScenarioSpec& s : scenarios) {
        info.scenarios[s.index] = {s.width, s.height, s.rate, s.aeKind, s.type, s.bit, s.modeParam};
    }
    return info;
}

// Hands out `object` without the action keeping a reference, so that tests
// can tell from the use count whether the service still holds it.
template <class Base, class T>
auto lend(const std::shared_ptr<T>& object) {
    return InvokeWithoutArgs(
        [weak = std::weak_ptr<T>(object)]() -> std::shared_ptr<Base> { return weak.lock(); });
}

inline std::vector<uint8_t> bytesOf(const user_param& param) {
    const auto* begin = reinterpret_cast<const uint8_t*>(&param);
    return std::vector<uint8_t>(begin, begin + sizeof(param));
}

inline void put32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) {
    ASSERT_LE(offset + sizeof(value), bytes.size());
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

// Where a scripted bring-up fails; None runs it to the end.
enum class DeviceFail { None, NullDevice, Mclk, PowerOn };
enum class PipeFail {
    None,
    NoCoordinator,
    NotImp,
    NoAgent,
    ConfigSensor,
    ConfigP1,
    NoPipe,
    StartPipe
};

// An AOVSensor on strict platform doubles. The catalogue holds one sensor
// (id 3, device bit 4, so camera id 2) with two 640x480 scenarios at 5 fps
// (2 and 7), one at 10 fps (5), and 320x240 at 10 fps (9).
class SensorServiceTest : public ::testing::Test {
  protected:
    static constexpr int32_t kSensorId = 3;
    static constexpr int32_t kSensorDev = 4;
    static constexpr int32_t kCameraId = 2;
    static constexpr int32_t kOrientation = 270;
    static constexpr uint64_t kAgentId = 0x123456789AULL;
    static constexpr uint32_t kPipeId = 77;
    static constexpr uint32_t kFrameInfo[4] = {101, 102, 103, 104};
    static constexpr uint8_t kFill = 0xA5;

    struct Doubles {
        StrictMock<MockSensorDevice> device;
        std::shared_ptr<StrictMock<MockCamAgent>> agent =
            std::make_shared<StrictMock<MockCamAgent>>();
        std::shared_ptr<StrictMock<MockSensorPipe>> pipe =
            std::make_shared<StrictMock<MockSensorPipe>>();
    };

    SensorServiceTest();
    ~SensorServiceTest() override;

    void createSensor();
    void setTestModel(const char* value) {
        aovhost::setProperty("vendor.aovstream.test_model", value);
    }

    // A request on the fill pattern.
    static user_param request(int32_t sensorId, int32_t width, int32_t height, int32_t fps,
                              int32_t selector = 6);

    // Scripted platform calls, appended to the caller's sequence.
    void expectFrameInfo(const user_param& param, int result = 0);
    void expectDeviceStart(DeviceFail fail, Doubles& doubles, int32_t sensorId = kSensorId);
    // How a scripted pipeline runs, beyond where it fails.
    struct PipeScript {
        int pipeMode = 1;
        bool createAgent = true;
        int32_t sensorId = kSensorId;
        uint32_t cameraId = kCameraId;
        int32_t poweredId = kSensorId;
        uint32_t pipeId = kPipeId;
    };
    void expectPipelineStart(PipeFail fail, Doubles& doubles, const PipeScript& script);
    void expectPipelineStop(Doubles& doubles, const PipeScript& script);
    void expectPipelineStart(PipeFail fail, Doubles& doubles) {
        expectPipelineStart(fail, doubles, PipeScript());
    }
    void expectPipelineStop(Doubles& doubles) { expectPipelineStop(doubles, PipeScript()); }
    void expectDeviceStop(Doubles& doubles, int32_t sensorId = kSensorId);

    // Error lines of the unified logger, and the short form of one.
    std::vector<std::string> unifiedErrors() const;
    static std::string errorLine(const char* function, int line, const std::string& text);

    std::shared_ptr<StrictMock<MockSensorList>> list_ =
        std::make_shared<StrictMock<MockSensorList>>();
    std::shared_ptr<StrictMock<MockCustom>> custom_ = std::make_shared<StrictMock<MockCustom>>();
    std::shared_ptr<StrictMock<MockPipeMgr>> pipe_mgr_ =
        std::make_shared<StrictMock<MockPipeMgr>>();
    std::shared_ptr<StrictMock<MockPipeFactory>> factory_ =
        std::make_shared<StrictMock<MockPipeFactory>>();
    std::shared_ptr<StrictMock<MockCoordinatorSource>> source_ =
        std::make_shared<StrictMock<MockCoordinatorSource>>();
    std::shared_ptr<StrictMock<MockCoordinator>> coordinator_ =
        std::make_shared<StrictMock<MockCoordinator>>();
    std::shared_ptr<StrictMock<MockBareCoordinator>> bare_coordinator_ =
        std::make_shared<StrictMock<MockBareCoordinator>>();
    Doubles main_;
    // What createAgent received, kept for inspection.
    NSCam::camsys::camcoordinator::AgentParams agent_params_;

    aovhost::ScopedBinding<NSCam::IHalSensorList> bind_list_{list_};
    aovhost::ScopedBinding<IAOVCustom> bind_custom_{custom_};
    aovhost::ScopedBinding<NSCam::camsys::pipemgr::isp7::IPipeMgr> bind_pipe_mgr_{pipe_mgr_};
    aovhost::ScopedBinding<aovhost::CamCoordinatorSource> bind_source_{source_};
    aovhost::ScopedProperty test_model_{"vendor.aovstream.test_model", "0"};
    aovhost::ScopedProperty view_mode_{"vendor.aovstream.view_mode", "0"};
    LogCapture log_;
    std::unique_ptr<AOVSensor> sensor_;
};

}  // namespace aovtest
