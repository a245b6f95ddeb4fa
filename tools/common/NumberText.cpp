#include "NumberText.h"

#include <cmath>
#include <cstdlib>
#include <string>

#include "Excerpt.h"

namespace aovsimtool {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

NumberStatus parseInteger(std::string_view text, int64_t min, int64_t max, int64_t* out) {
    size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        i = 1;
    }
    if (i == text.size()) {
        return NumberStatus::kMalformed;
    }
    // Accumulate the magnitude; past 2^63 it is out of any int64 range, but
    // the rest must still be digits for the text to be a number at all.
    uint64_t magnitude = 0;
    bool overflow = false;
    for (; i < text.size(); ++i) {
        if (!isDigit(text[i])) {
            return NumberStatus::kMalformed;
        }
        const auto digit = static_cast<uint64_t>(text[i] - '0');
        if (magnitude > (UINT64_MAX - digit) / 10) {
            overflow = true;
        } else {
            magnitude = magnitude * 10 + digit;
        }
    }
    constexpr uint64_t kInt64Magnitude = static_cast<uint64_t>(INT64_MAX);
    if (overflow || magnitude > kInt64Magnitude + (negative ? 1 : 0)) {
        return NumberStatus::kOutOfRange;
    }
    const int64_t value =
        negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
    if (value < min || value > max) {
        return NumberStatus::kOutOfRange;
    }
    *out = value;
    return NumberStatus::kOk;
}

NumberStatus parseSeconds(std::string_view text, double max, double* out) {
    // [sign] digits [. digits] [e [sign] digits]; a negative number reads as
    // out of range rather than malformed.
    size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        i = 1;
    }
    size_t digits = 0;
    for (; i < text.size() && isDigit(text[i]); ++i) {
        ++digits;
    }
    if (i < text.size() && text[i] == '.') {
        for (++i; i < text.size() && isDigit(text[i]); ++i) {
            ++digits;
        }
    }
    if (digits == 0) {
        return NumberStatus::kMalformed;
    }
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
            ++i;
        }
        size_t exponentDigits = 0;
        for (; i < text.size() && isDigit(text[i]); ++i) {
            ++exponentDigits;
        }
        if (exponentDigits == 0) {
            return NumberStatus::kMalformed;
        }
    }
    if (i != text.size()) {
        return NumberStatus::kMalformed;
    }
    // The text is plain decimal, so strtod reads all of it; overflow gives
    // infinity, which the range check rejects.
    const std::string copy(text);
    const double value = std::strtod(copy.c_str(), nullptr);
    if (negative || !std::isfinite(value) || !(value > 0) || value > max) {
        return NumberStatus::kOutOfRange;
    }
    *out = value;
    return NumberStatus::kOk;
}

bool readInteger(const std::string& what, std::string_view text, int64_t min, int64_t max,
                 int64_t* out, std::string* error) {
    switch (parseInteger(text, min, max, out)) {
        case NumberStatus::kOk:
            return true;
        case NumberStatus::kMalformed:
            *error = what + ": expected a whole number, got " + excerpt(text);
            return false;
        case NumberStatus::kOutOfRange:
            *error = what + ": " + excerpt(text) + " is out of range " + std::to_string(min) +
                     ".." + std::to_string(max);
            return false;
    }
    return false;
}

bool readInteger(const std::string& what, std::string_view text, int min, int max, int* out,
                 std::string* error) {
    int64_t value = 0;
    if (!readInteger(what, text, int64_t{min}, int64_t{max}, &value, error)) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

}  // namespace aovsimtool
