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
    for (size_t i = 0; i < text.size() && line.size() <= limit; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        line += printable(c) ? std::string(1, text[i]) : hexEscape(c);
    }
    if (line.size() <= limit) {
        return line;
    }
    return line.substr(0, limit < 3 ? limit : limit - 3) + (limit < 3 ? "" : "...");
}

std::string pathExcerpt(std::string_view path) {
    constexpr size_t kPathChars = 2 * kExcerptChars;
    if (path.size() <= kPathChars) {
        return excerpt(path, kPathChars);
    }
    return "\"..." + excerpt(path.substr(path.size() - kPathChars), kPathChars).substr(1);
}

}  // namespace aovsimtool
