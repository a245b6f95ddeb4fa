// Reads arbitrary bytes as a scenario file and checks what the reader
// promises: either a configuration that validates, or one short printable
// line naming the problem, with the caller's configuration untouched.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "ScenarioFile.h"
#include "aovsim/SimConfig.h"

namespace {

using aovfuzz::check;
using aovfuzz::printableLine;

// Without the origin, which the caller chooses: a key path (at most 120
// characters), the problem and a short excerpt of the value.
constexpr size_t kMaxMessage = 400;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > aovsimtool::kMaxScenarioBytes) {
        return 0;  // the file reader refuses these before parsing
    }
    aovsim::SimConfig config;
    config.name = "untouched";
    std::string problem;
    if (aovsimtool::parseScenario(std::string_view(reinterpret_cast<const char*>(data), size),
                                  "fuzz", &config, &problem)) {
        check(aovsim::validate(config).empty());
        check(printableLine(config.name));
    } else {
        check(config.name == "untouched" && config.sensors.empty());
        check(problem.size() <= kMaxMessage);
        check(printableLine(problem));
    }
    return 0;
}
