#pragma once

#include <string>

namespace aovsimtool {

// "ENOTTY", "EFAULT", ...; "errno N" for a number without a name. The table is
// the tool's own, so the names are the same with any C library.
std::string errnoName(int error);

}  // namespace aovsimtool
