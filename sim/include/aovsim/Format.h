#pragma once

// printf into a std::string: the one formatting helper of the simulator and
// the tools.

#include <cstdarg>
#include <string>

namespace aovsim {

std::string vformat(const char* format, va_list args);
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace aovsim
