#pragma once

#include <string>

#include "aovsim/SimConfig.h"

namespace aovsimtool {

// The embedded default scenario, in the scenario-file format.
const char* defaultScenarioText();

// Reads a scenario (JSON) into `config`. Returns an empty string on success,
// else one message naming the problem and where it is.
std::string parseScenario(const std::string& text, const std::string& origin,
                          aovsim::SimConfig* config);
std::string loadScenarioFile(const std::string& path, aovsim::SimConfig* config);

}  // namespace aovsimtool
