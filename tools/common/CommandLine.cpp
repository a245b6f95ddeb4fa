#include "CommandLine.h"

#include <cstdio>

#include "Excerpt.h"

namespace aovsimtool {

int badInput(const char* tool, const std::string& problem) {
    std::fprintf(stderr, "%s: error: %s\n", tool, oneLine(problem).c_str());
    return kExitBadInput;
}

}  // namespace aovsimtool
