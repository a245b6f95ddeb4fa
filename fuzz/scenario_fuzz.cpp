// Reads arbitrary bytes as a scenario file and checks what the reader
// promises: either a configuration that validates, or one short printable
// line naming the problem, with the caller's configuration untouched.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ScenarioFile.h"
#include "aovsim/SimConfig.h"

namespace {

// Without the origin, which the caller chooses: a key path (at most 120
// characters), the problem and a short excerpt of the value.
constexpr size_t kMaxMessage = 400;

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

bool printableLine(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > aovsimtool::kMaxScenarioBytes) {
        return 0;  // the file reader refuses these before parsing
    }
    aovsim::SimConfig config;
    config.name = "untouched";
    const std::string problem = aovsimtool::parseScenario(
        std::string_view(reinterpret_cast<const char*>(data), size), "fuzz", &config);
    if (problem.empty()) {
        check(aovsim::validate(config).empty());
        check(printableLine(config.name));
    } else {
        check(config.name == "untouched" && config.sensors.empty());
        check(problem.size() <= kMaxMessage);
        check(printableLine(problem));
    }
    return 0;
}
