// The limited JSON reader: each limit holds exactly at its value, and the
// key path it reports points at the offending value.

#include <gtest/gtest.h>

#include <string>

#include "JsonReader.h"

namespace aovsimtool {
namespace {

using nlohmann::json;

std::string nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

std::string arrayOf(size_t entries) {
    std::string text = "[";
    for (size_t i = 0; i < entries; ++i) {
        text += i > 0 ? ",0" : "0";
    }
    return text + "]";
}

std::string objectOf(size_t entries) {
    std::string text = "{";
    for (size_t i = 0; i < entries; ++i) {
        text += (i > 0 ? ",\"k" : "\"k") + std::to_string(i) + "\":0";
    }
    return text + "}";
}

// A key path as messages show it: past 120 characters, cut with "...".
std::string shown(const std::string& path) {
    return path.size() <= 120 ? path : path.substr(0, 117) + "...";
}

std::string indices(size_t count) {
    std::string path;
    for (size_t i = 0; i < count; ++i) {
        path += "[0]";
    }
    return path;
}

struct ReaderCase {
    const char* name;
    std::string text;
    std::string problem;  // how the message starts; empty: the text is read
};

void PrintTo(const ReaderCase& c, std::ostream* out) {
    *out << c.name;
}

class JsonReaderTest : public ::testing::TestWithParam<ReaderCase> {};

TEST_P(JsonReaderTest, ReadsOrNamesTheProblem) {
    const ReaderCase& c = GetParam();
    json value;
    std::string problem;
    const bool read = readJson(c.text, JsonLimits(), &value, &problem);
    if (c.problem.empty()) {
        EXPECT_TRUE(read) << problem;
        EXPECT_EQ(value, json::parse(c.text));
        return;
    }
    EXPECT_FALSE(read);
    EXPECT_EQ(problem.substr(0, c.problem.size()), c.problem);
    EXPECT_LE(problem.size(), 280u) << problem;
}

INSTANTIATE_TEST_SUITE_P(
    Limits, JsonReaderTest,
    ::testing::Values(
        ReaderCase{"Depth64", nested(64), ""},
        ReaderCase{"Depth65", nested(65), shown(indices(64)) + ": nested deeper than 64 levels"},
        ReaderCase{"Array1024", arrayOf(1024), ""},
        ReaderCase{"Array1025", arrayOf(1025), "top level: an array of more than 1024 entries"},
        ReaderCase{"Object1024", objectOf(1024), ""},
        ReaderCase{"Object1025", "{\"o\":" + objectOf(1025) + "}",
                   "o: an object of more than 1024 entries"},
        ReaderCase{"String256", "\"" + std::string(256, 's') + "\"", ""},
        ReaderCase{"String257", "\"" + std::string(257, 's') + "\"",
                   "top level: a string of 257 bytes, more than 256"},
        ReaderCase{"Key256", "{\"" + std::string(256, 'k') + "\":1}", ""},
        ReaderCase{"Key257", "{\"a\":{\"" + std::string(257, 'k') + "\":1}}",
                   "a: a key of 257 bytes, more than 256"}),
    [](const ::testing::TestParamInfo<ReaderCase>& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Paths, JsonReaderTest,
    ::testing::Values(
        ReaderCase{"ElementAfterAContainer",
                   R"({"a": [[1], {"b": 2}, [0, "x", ")" + std::string(300, 'y') + "\"]]}",
                   "a[2][2]: a string of 300 bytes, more than 256"},
        ReaderCase{"MemberAfterANestedObject",
                   R"({"s": [{"c": {"d": 1}, "n": ")" + std::string(300, 'y') + "\"}]}",
                   "s[0].n: a string of 300 bytes, more than 256"},
        ReaderCase{"RepeatedKeyInASecondElement", R"([{"k": 1}, {"j": 1, "k": 1, "k": 2}])",
                   "[1]: key \"k\" appears twice"},
        ReaderCase{"SameKeyInTwoObjects", R"([{"k": 1}, {"k": 2}])", ""},
        ReaderCase{"DepthUnderAKey", R"({"x": )" + nested(64) + "}",
                   shown("x" + indices(63)) + ": nested deeper than 64 levels"},
        ReaderCase{"DepthAfterSiblings", R"({"x": [0, 1, )" + nested(63) + "]}",
                   shown("x[2]" + indices(62)) + ": nested deeper than 64 levels"}),
    [](const ::testing::TestParamInfo<ReaderCase>& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Syntax, JsonReaderTest,
    ::testing::Values(
        ReaderCase{"Empty", "",
                   "not valid JSON: parse error at line 1, column 1: syntax error while parsing "
                   "value - unexpected end of input; expected '[', '{', or a literal"},
        ReaderCase{"NulByte", std::string("{}\0{}", 5), "not valid JSON: a NUL byte at offset 2"},
        ReaderCase{"TrailingText", "{} x", "not valid JSON: parse error at line 1, column 4: "},
        ReaderCase{"SecondLine", "{\n\"a\": }",
                   "not valid JSON: parse error at line 2, column 6: "},
        ReaderCase{"LongBadString", "[\"" + std::string(100000, 't') + "\t\"]",
                   "not valid JSON: parse error at line 1, column 100003: "},
        ReaderCase{"LongNumberOverflow", std::string(400, '9') + "e999",
                   "not valid JSON: number overflow parsing \"9999999999999999999999999999999999999"
                   "999\"... (404 bytes)"}),
    [](const ::testing::TestParamInfo<ReaderCase>& info) { return info.param.name; });

}  // namespace
}  // namespace aovsimtool
