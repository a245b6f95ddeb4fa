#pragma once

// The tools report a failure as `false` with a one-line reason in a
// caller's `std::string* problem`. `fail` sets the reason and gives the
// `false` to return, so that a failing path reads as one statement.

#include <string>
#include <utility>

namespace aovsimtool {

[[nodiscard]] inline bool fail(std::string* problem, std::string reason) {
    *problem = std::move(reason);
    return false;
}

}  // namespace aovsimtool
