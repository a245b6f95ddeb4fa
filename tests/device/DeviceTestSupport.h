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

// A fake driver bound to kTestNode, with both log channels captured.
class DeviceTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeAovDriver> driver_ = std::make_shared<FakeAovDriver>();
    aovhost::ScopedNode node_{kTestNode, driver_};
    LogCapture logs_;
};

// Checks that exactly one error line with `text` went out on each channel:
// the short form on the unified logger and the wrapped long form on the
// debug-print channel, byte for byte, both with the same source line.
void expectErrorLine(const LogCapture& logs, const std::string& path, const std::string& function,
                     const std::string& text);
// Texts of the trace lines that reached the unified logger, in order.
std::vector<std::string> traces(const LogCapture& logs);
// Texts of the error lines on the unified logger, in order.
std::vector<std::string> errors(const LogCapture& logs);

// Records what the device's callback receives.
struct CallbackProbe {
    int calls = 0;
    aov_event* last = nullptr;
    void attach(AOVDevice& device);
};

// Notifies until an event reaches the callback. Right after startDevice the
// buffer may still be in preparation on the library's thread; such
// notifications send no command, so the first event dequeued is the one that
// is delivered. Returns the buffer the callback received.
aov_event* deliverFirstEvent(AOVDevice& device, CallbackProbe& probe);

// Distinct kernel words derived from `seed` (header[5] is set from `content`).
aov_event_query makeEventWords(uint32_t seed, bool content);

user_param makeParam(int32_t aovMode);

// Tells LeakSanitizer that `block` is left allocated on purpose.
void ignoreLeak(const void* block);

}  // namespace aovtest
