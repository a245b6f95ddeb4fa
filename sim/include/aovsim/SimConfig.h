#pragma once

// Description of a simulated platform: its sensors and their scenarios, the
// customisation layer's answers, the driver's behaviour, and the failures to
// inject. Loaded from a scenario file by the tools; checked by validate().

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "aovsim/ScriptedEvent.h"

namespace aovsim {

// One slot of a sensor's 50-entry scenario table.
struct ScenarioConfig {
    int index = 0;  // slot 0 to 49
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t rate = 0;  // tenths of a frame per second
    uint32_t ae = 0;    // 1: viewing scenario
    uint32_t type = 0;
    uint32_t bit = 0;
    uint32_t mode_param = 0;
};

struct SensorConfig {
    int32_t id = 0;
    int32_t device = 1;  // one-hot sensor-device bit
    int32_t facing = 0;  // non-zero: faces the user
    int32_t orientation = 0;
    std::vector<ScenarioConfig> scenarios;
};

struct CustomConfig {
    uint32_t detect_mode = 1;
    // Frame-information words; when not given they derive from the size.
    bool frame_info_given = false;
    std::array<uint32_t, 4> frame_info{};
};

// Where the sensor pipeline refuses to come up.
enum class PipelineFault {
    kNone,
    kNoAgent,       // the coordinator creates no agent
    kConfigSensor,  // the agent refuses the sensor configuration
    kConfigP1,      // the agent refuses the P1 driver configuration
    kCreatePipe,    // the factory creates no pipe
    kStartPipe,     // the pipe does not start
};

struct FaultConfig {
    // Platform.
    std::set<int32_t> open_sensor;  // sensor ids whose open fails
    std::set<int32_t> switch_mclk;  // sensor ids whose clock switch fails
    std::set<int32_t> power_on;     // sensor ids whose power-on fails
    bool detect_mode = false;       // customisation refuses the detection mode
    bool frame_info = false;        // customisation refuses the frame information
    PipelineFault pipeline = PipelineFault::kNone;
    // Driver.
    bool open_node = false;                // the node cannot be opened
    int start_error = 0;                   // non-zero: START fails with this result
    std::set<uint32_t> dequeue_calls;      // 1-based DEQUEUE_EVENT calls that fail
    int dequeue_error = -5;                // their result (-EIO)
    std::set<uint32_t> sensor_list_calls;  // 1-based SENSOR_ON/OFF calls that fail
    int sensor_list_error = -5;
};

struct DriverConfig {
    uint32_t queue_depth = 4;    // events held before the oldest is overwritten
    uint32_t content_every = 1;  // every n-th event carries section content
    uint32_t event_every = 1;    // a generated event every n-th frame tick
    bool timer = true;           // false: events only through SimDriver::produceEvent
    // Non-empty: the driver queues these events, each at its frame tick and
    // nothing else, instead of generated ones. Ordered by at_frame.
    std::vector<ScriptedEvent> script;
};

struct SimConfig {
    std::string name = "unnamed";
    std::vector<SensorConfig> sensors;
    CustomConfig custom;
    DriverConfig driver;
    FaultConfig faults;
};

// Empty when the configuration is consistent, else what is wrong with it.
std::string validate(const SimConfig& config);

// The bit position of a one-hot device bitmask, or 13 when out of range:
// the camera id a sensor's pipe is created for.
int cameraIdOf(int32_t device);

const char* pipelineFaultName(PipelineFault fault);

}  // namespace aovsim
