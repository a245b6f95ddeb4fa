// Built with exceptions: the JSON library may throw (allocation); the caller
// catches.

#include "JsonReader.h"

#include <utility>
#include <vector>

#include "Excerpt.h"
#include "Failure.h"

namespace aovsimtool {

namespace {

using nlohmann::json;

constexpr size_t kPathChars = 120;  // a longer key path is cut

// Builds the document from the parser's events, like the library's own DOM
// builder, with the limits checked on the way.
class LimitedBuilder : public nlohmann::json_sax<json> {
  public:
    LimitedBuilder(const JsonLimits& limits, json* root) : limits_(limits), root_(root) {}

    const std::string& problem() const { return problem_; }

    bool null() override { return add(json(nullptr)); }
    bool boolean(bool value) override { return add(json(value)); }
    bool number_integer(number_integer_t value) override { return add(json(value)); }
    bool number_unsigned(number_unsigned_t value) override { return add(json(value)); }
    bool number_float(number_float_t value, const string_t&) override { return add(json(value)); }
    bool binary(binary_t& value) override { return add(json::binary(std::move(value))); }

    bool string(string_t& value) override {
        if (value.size() > limits_.max_string) {
            return fail(path(), "a string of " + std::to_string(value.size()) +
                                    " bytes, more than " + std::to_string(limits_.max_string));
        }
        return add(json(std::move(value)));
    }

    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override {
        Level& level = levels_.back();
        if (name.size() > limits_.max_string) {
            return fail(path(levels_.size() - 1), "a key of " + std::to_string(name.size()) +
                                                      " bytes, more than " +
                                                      std::to_string(limits_.max_string));
        }
        if (level.value->contains(name)) {
            return fail(path(levels_.size() - 1), "key " + excerpt(name) + " appears twice");
        }
        level.key = std::move(name);
        return true;
    }

    bool parse_error(std::size_t, const std::string& lastToken,
                     const nlohmann::detail::exception& error) override {
        // The library's text names the line and column and what it expected;
        // the token it quotes may be long, so it is cut to an excerpt.
        std::string what = error.what();
        const auto start = what.find("] ");
        what = what.rfind("[json.exception", 0) == 0 && start != std::string::npos
                   ? what.substr(start + 2)
                   : what;
        const std::string quoted = "'" + lastToken + "'";
        const auto token = what.find(quoted);
        if (!lastToken.empty() && token != std::string::npos) {
            what.replace(token, quoted.size(), excerpt(lastToken));
        }
        problem_ = "not valid JSON: " + what;
        return false;
    }

  private:
    struct Level {
        json* value;
        std::string key;  // objects: the member being read
    };

    // Where the next value goes, as a key path.
    std::string path() const { return path(levels_.size()); }

    // The path through the first `depth` levels.
    std::string path(size_t depth) const {
        std::string text;
        for (size_t i = 0; i < depth; ++i) {
            const Level& level = levels_[i];
            if (level.value->is_object()) {
                text = memberPath(text, level.key);
                continue;
            }
            // Outer arrays hold the container being read as their last
            // element; the innermost one has yet to receive the next value.
            const size_t size = level.value->size();
            text = elementPath(text, i + 1 < levels_.size() ? size - 1 : size);
        }
        return text.empty() ? "top level" : text;
    }

    bool fail(const std::string& where, const std::string& what) {
        problem_ = oneLine(where, kPathChars) + ": " + what;
        return false;
    }

    // Places a value in the innermost container (or as the root); returns
    // where it went, or nullptr when a limit is reached.
    json* place(json&& value) {
        if (levels_.empty()) {
            *root_ = std::move(value);
            return root_;
        }
        json& container = *levels_.back().value;
        if (container.size() >= limits_.max_elements) {
            fail(path(levels_.size() - 1),
                 std::string(container.is_array() ? "an array" : "an object") + " of more than " +
                     std::to_string(limits_.max_elements) + " entries");
            return nullptr;
        }
        if (container.is_array()) {
            container.push_back(std::move(value));
            return &container.back();
        }
        json& member = container[levels_.back().key];
        member = std::move(value);
        return &member;
    }

    bool add(json&& value) { return place(std::move(value)) != nullptr; }

    bool open(json&& container) {
        if (levels_.size() >= limits_.max_depth) {
            return fail(path(),
                        "nested deeper than " + std::to_string(limits_.max_depth) + " levels");
        }
        json* placed = place(std::move(container));
        if (placed == nullptr) {
            return false;
        }
        levels_.push_back(Level{placed, std::string()});
        return true;
    }

    bool close() {
        levels_.pop_back();
        return true;
    }

    const JsonLimits& limits_;
    json* root_;
    std::vector<Level> levels_;
    std::string problem_;
};

}  // namespace

std::string memberPath(const std::string& parent, const std::string& key) {
    return parent.empty() ? key : parent + "." + key;
}

std::string elementPath(const std::string& parent, size_t index) {
    return parent + "[" + std::to_string(index) + "]";
}

bool readJson(std::string_view text, const JsonLimits& limits, json* out, std::string* problem) {
    // The parser takes a NUL byte for the end of the input.
    const auto nul = text.find('\0');
    if (nul != std::string_view::npos) {
        return fail(problem, "not valid JSON: a NUL byte at offset " + std::to_string(nul));
    }
    json root;
    LimitedBuilder builder(limits, &root);
    if (!json::sax_parse(text, &builder)) {
        return fail(problem, builder.problem().empty() ? "not valid JSON" : builder.problem());
    }
    *out = std::move(root);
    return true;
}

}  // namespace aovsimtool
