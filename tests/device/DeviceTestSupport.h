#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "AOVDevice.h"
#include "FakeAovDriver.h"
#include "LogCapture.h"

namespace aovtest {

constexpr char kTestNode[] = "/dev/kelo_aov_test";
constexpr char kDevControlPath[] = "hw/aov/src/plat/isp8/DevControl";
constexpr char kDevicePath[] = "hw/aov/src/plat/isp8/AOVDevice";
constexpr char kDeviceHeaderPath[] = "hw/aov/src/plat/isp8/AOVDevice.h";
constexpr char kNotStarted[] = "[notifyEvent] AOV device is not started";

// A fake driver bound to kTestNode, with both log channels captured.
class DeviceTest : public ::testing::Test {
  protected:
    // The trace lines that `action` writes; traces are off again afterwards.
    template <typename Action>
    std::vector<std::string> tracesOf(Action action);

    std::shared_ptr<FakeAovDriver> driver_ = std::make_shared<FakeAovDriver>();
    aovhost::ScopedNode node_{kTestNode, driver_};
    LogCapture logs_;
};

// Checks that exactly one error line with `text` went out on each channel:
// the short form on the unified logger and the wrapped long form on the
// debug-print channel, byte for byte, both with the same source line.
void expectErrorLine(const LogCapture& logs, const std::string& path, const std::string& function,
                     const std::string& text);
// Texts of the unified logger's lines at `level` (5 trace, 1 error), in order.
std::vector<std::string> unifiedAt(const LogCapture& logs, int level);
inline std::vector<std::string> traces(const LogCapture& logs) {
    return unifiedAt(logs, 5);
}
inline std::vector<std::string> errors(const LogCapture& logs) {
    return unifiedAt(logs, 1);
}

template <typename Action>
std::vector<std::string> DeviceTest::tracesOf(Action action) {
    logs_.enableTraces();
    logs_.clear();
    action();
    logs_.enableTraces(0);
    return traces(logs_);
}

// A device on kTestNode whose callback counts the events it receives.
struct ProbedDevice {
    ProbedDevice();
    // Notifies until an event reaches the callback. Right after startDevice
    // the buffer may still be in preparation on the library's thread; such
    // notifications send no command, so the first event dequeued is the one
    // that is delivered. Returns the buffer the callback received.
    aov_event* deliver();
    // Starts in `aovMode` and delivers the first event; null if the start fails.
    aov_event* start(int32_t aovMode = 0);

    AOVDevice device{kTestNode};
    int calls = 0;
    aov_event* last = nullptr;  // what the callback received last
};

// Distinct kernel words derived from `seed` (header[5] is set from `content`).
aov_event_query makeEventWords(uint32_t seed, bool content);

user_param makeParam(int32_t aovMode);

// Tells LeakSanitizer that `block` is left allocated on purpose.
void ignoreLeak(const void* block);

}  // namespace aovtest
