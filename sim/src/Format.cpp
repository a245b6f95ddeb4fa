#include "aovsim/Format.h"

#include <cstdio>

namespace aovsim {

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed <= 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

std::string format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    return text;
}

}  // namespace aovsim
