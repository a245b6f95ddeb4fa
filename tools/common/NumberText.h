#pragma once

// Strict parsing of the numbers a user types: whole numbers within a range,
// and seconds. Nothing is wrapped or clamped: a number outside the range is
// reported as such.

#include <cstdint>
#include <string>
#include <string_view>

namespace aovsimtool {

enum class NumberStatus {
    kOk,
    kMalformed,   // not a number of the expected form
    kOutOfRange,  // a number, outside the range (including any beyond 64 bits)
};

// A decimal whole number: an optional '-' or '+', then digits, nothing else
// (no spaces, no fraction, no exponent).
[[nodiscard]] NumberStatus parseInteger(std::string_view text, int64_t min, int64_t max,
                                        int64_t* out);

// A decimal number of seconds, e.g. "3", "0.25", "1e2", with an optional '-'
// or '+' as for a whole number: more than 0 and at most `max`. "nan", "inf"
// and hexadecimal are malformed; negative numbers and zero are out of range.
[[nodiscard]] NumberStatus parseSeconds(std::string_view text, double max, double* out);

// parseInteger for the value of the option `what` (e.g. "--fps"); when it
// fails, `error` is one line: "--fps: expected a whole number, got "x"" or
// "--fps: "99" is out of range 1..10".
[[nodiscard]] bool readInteger(const std::string& what, std::string_view text, int64_t min,
                               int64_t max, int64_t* out, std::string* error);
// The same for a value kept in an int (milliseconds, counts).
[[nodiscard]] bool readInteger(const std::string& what, std::string_view text, int min, int max,
                               int* out, std::string* error);

}  // namespace aovsimtool
