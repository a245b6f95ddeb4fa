#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "aovsim/SimConfig.h"

namespace aovsimtool {

// The largest scenario file read.
constexpr size_t kMaxScenarioBytes = 1024 * 1024;
// The most scripted events, and the most bytes their files hold in all.
constexpr size_t kMaxScriptedEvents = 256;
constexpr size_t kMaxScriptFileBytes = 16 * 1024 * 1024;

// The embedded default scenario, in the scenario-file format.
const char* defaultScenarioText();

// Reads a scenario (JSON) into `config`. False with `problem` set to one
// message naming the problem and where it is. Files the scenario names are
// looked for relative to `baseDir` (empty: the working directory).
[[nodiscard]] bool parseScenario(std::string_view text, const std::string& origin,
                                 aovsim::SimConfig* config, std::string* problem,
                                 const std::string& baseDir = std::string());
[[nodiscard]] bool loadScenarioFile(const std::string& path, aovsim::SimConfig* config,
                                    std::string* problem);

}  // namespace aovsimtool
