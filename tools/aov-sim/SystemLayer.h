#pragma once

// A stand-in for the feature's system layer: drives IAOVSensor and
// IAOVDevice through one always-on session, as the product would, and
// reports what happened. It knows the library's contract and nothing of the
// simulation behind it: what it reports goes to a SessionReport.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <vector>

#include "EventMonitor.h"
#include "IAOVDevice.h"
#include "IAOVSensor.h"
#include "ModeChoice.h"
#include "Options.h"
#include "SessionReport.h"
#include "aovbase/Mutex.h"

namespace aovsimtool {

class SystemLayer {
  public:
    SystemLayer(const Options& options, SessionReport& report);

    // Runs the session from discovery to stop; returns the exit code.
    int run();

  private:
    int discover(IAOVSensor* sensors, ModeChoice* choice);
    int session(IAOVSensor* sensors, IAOVDevice* device, const ModeChoice& choice);
    // Step 7, the one way a session ends: detaches the monitor when one was
    // attached, stops the sensor, and the device when it was started.
    void stop(IAOVSensor* sensors, IAOVDevice* device, bool monitorAttached, bool deviceStarted);
    void waitForEvents(const ModeChoice& choice, bool* timedOut);
    void onEvent(const aov_event* event);
    void printUserParam(const user_param& param);

    // Runs `call`, the library call `name`, timing it when the report asks for that.
    template <class Call>
    auto timed(const char* name, Call call) -> decltype(call());

    void say(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int badInput(const std::string& message);
    int failure(const std::string& message);

    const Options& options_;
    SessionReport& report_;
    LibraryCallLog* const calls_;
    int32_t aov_mode_ = 0;

    aov::Mutex mutex_;
    std::condition_variable delivered_cv_;
    uint64_t delivered_ AOV_GUARDED_BY(mutex_) = 0;
};

}  // namespace aovsimtool
