#pragma once

// A JSON reader with limits: it builds the document while checking nesting
// depth, the size of every array, object, string and key, and that no object
// repeats a key, and stops at the first problem, naming where it is.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace aovsimtool {

struct JsonLimits {
    size_t max_depth = 64;       // arrays and objects inside one another
    size_t max_elements = 1024;  // entries of one array or object
    size_t max_string = 256;     // bytes of one string or key
};

// Reads `text` into `out`. False with `problem` set to one line:
// "<key path>: <problem>" for a limit or a repeated key (the path like
// "sensors[0].scenarios[3].width", or "top level"), or "not valid JSON: parse
// error at line L, column C: ..." for a syntax error.
[[nodiscard]] bool readJson(std::string_view text, const JsonLimits& limits, nlohmann::json* out,
                            std::string* problem);

// The key path of an object member or array element, from its parent's path.
std::string memberPath(const std::string& parent, const std::string& key);
std::string elementPath(const std::string& parent, size_t index);

}  // namespace aovsimtool
