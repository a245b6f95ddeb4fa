#pragma once

// Short, printable quotations of user input, for one-line messages.

#include <cstddef>
#include <string>
#include <string_view>

namespace aovsimtool {

constexpr size_t kExcerptChars = 40;   // how much of an offending value a message quotes
constexpr size_t kMessageChars = 280;  // the longest error line the tool prints

// `text` in double quotes, bytes outside printable ASCII escaped as \xNN and
// quotes and backslashes escaped. Longer text is cut after `limit` characters
// and followed by "... (N bytes)".
std::string excerpt(std::string_view text, size_t limit = kExcerptChars);

// A file path for a message: whole when short, else "..." and its end,
// which names the file.
std::string pathExcerpt(std::string_view path);

// `text` made one printable line of at most `limit` characters: control
// bytes escaped, the end of a longer text replaced by "...".
std::string oneLine(std::string_view text, size_t limit = kMessageChars);

}  // namespace aovsimtool
