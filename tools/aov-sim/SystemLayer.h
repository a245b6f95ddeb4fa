#pragma once

// A stand-in for the feature's system layer: drives IAOVSensor and
// IAOVDevice through one always-on session, as the product would, and
// reports what happened.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "IAOVDevice.h"
#include "IAOVSensor.h"
#include "ModeChoice.h"
#include "Options.h"
#include "aovsim/EpollEventMonitor.h"
#include "aovsim/Simulation.h"

namespace aovsimtool {

// Exit codes of the command.
constexpr int kExitOk = 0;
constexpr int kExitRuntimeFailure = 1;  // a service refused, or the events did not come
constexpr int kExitBadInput = 2;        // options, scenario, or a request the catalogue lacks

class SystemLayer {
  public:
    SystemLayer(const Options& options, aovsim::Simulation& sim);

    // Runs the session from discovery to stop; returns the exit code.
    int run();

  private:
    int discover(IAOVSensor* sensors, ModeChoice* choice);
    int session(IAOVSensor* sensors, IAOVDevice* device, const ModeChoice& choice);
    // Step 7, the one way a session ends: detaches `monitor` when it was
    // attached, stops the sensor, and the device when it was started.
    void stop(IAOVSensor* sensors, IAOVDevice* device, const aovsim::EpollEventMonitor* monitor,
              bool deviceStarted);
    void waitForEvents(const ModeChoice& choice, bool* timedOut);
    void onEvent(const aov_event* event);
    void printUserParam(const user_param& param);
    // With the session's monitor, once it no longer watches the device.
    void printSummary(const aovsim::EpollEventMonitor* monitor = nullptr);

    void say(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int badInput(const std::string& message);
    int failure(const std::string& message);

    const Options& options_;
    aovsim::Simulation& sim_;
    int32_t aov_mode_ = 0;

    std::mutex mutex_;
    std::condition_variable delivered_cv_;
    uint64_t delivered_ = 0;
    uint64_t content_mismatches_ = 0;
    std::vector<double> latencies_us_;
};

}  // namespace aovsimtool
