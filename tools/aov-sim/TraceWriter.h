#pragma once

// Writes a laid-out timeline as trace-event JSON, the object form:
// {"displayTimeUnit", "otherData", "traceEvents"}, times in microseconds
// with nanosecond digits. Streams one event at a time.

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "TrackLayout.h"

namespace aovsimtool {

// False with `problem` set when a write fails; `file` is left open.
[[nodiscard]] bool writeTrace(std::FILE* file, const nlohmann::json& otherData,
                              const TraceLayout& layout, std::string* problem);

}  // namespace aovsimtool
