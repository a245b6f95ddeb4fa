#pragma once

#include <string>

// What the fuzz targets check with: a broken promise stops the run at once,
// so that libFuzzer keeps the input that broke it.
namespace aovfuzz {

inline void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// True when `text` is one line of printable ASCII.
inline bool printableLine(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) {
            return false;
        }
    }
    return true;
}

}  // namespace aovfuzz
