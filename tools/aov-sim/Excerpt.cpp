#include "Excerpt.h"

#include <cstdio>

namespace aovsimtool {

namespace {

bool printable(unsigned char c) {
    return c >= 0x20 && c < 0x7f;
}

std::string hexEscape(unsigned char c) {
    char text[5];
    std::snprintf(text, sizeof(text), "\\x%02x", c);
    return text;
}

}  // namespace

std::string excerpt(std::string_view text, size_t limit) {
    std::string quoted = "\"";
    size_t shown = 0;
    for (; shown < text.size() && shown < limit; ++shown) {
        const auto c = static_cast<unsigned char>(text[shown]);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (printable(c)) {
            quoted += static_cast<char>(c);
        } else {
            quoted += hexEscape(c);
        }
    }
    quoted += '"';
    if (shown < text.size()) {
        quoted += "... (" + std::to_string(text.size()) + " bytes)";
    }
    return quoted;
}

std::string oneLine(std::string_view text, size_t limit) {
    std::string line;
    for (char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        line += printable(c) ? std::string(1, ch) : hexEscape(c);
    }
    if (line.size() <= limit) {
        return line;
    }
    if (limit < 8) {
        return line.substr(0, limit);
    }
    // Keep the start (what is wrong, where) and the end (the offending value).
    const size_t head = (limit - 3) * 2 / 3;
    const size_t tail = limit - 3 - head;
    return line.substr(0, head) + "..." + line.substr(line.size() - tail);
}

}  // namespace aovsimtool
