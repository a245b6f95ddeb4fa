// Hostile input to the aov-sim command: files that are not files, oversized
// and malformed scenarios, numbers out of every range, odd option text. Each
// must end in exit 2 with one short printable line naming the problem and
// where it is, before any simulation starts.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "ProcessRun.h"

namespace {

constexpr size_t kMaxErrorLine = 300;  // "aov-sim: error: " and a clipped message

// A scenario with one sensor whose first scenario is `scenario`, and any
// further top-level members.
std::string oneScenario(const std::string& scenario, const std::string& more = "") {
    return R"({"sensors": [{"id": 0, "device": 1, "scenarios": [)" + scenario + "]}]" + more + "}";
}

std::string repeated(const std::string& text, size_t times, const std::string& separator = "") {
    std::string all;
    for (size_t i = 0; i < times; ++i) {
        all += (i > 0 ? separator : "") + text;
    }
    return all;
}

// A scenario whose one scripted event has six zero header words and `more`.
std::string scripted(const std::string& more) {
    return R"({"sensors": [], "events": [{"header": [0, 0, 0, 0, 0, 0], )" + more + "}]}";
}

// Scenario files the cases refer to as "{dir}<name>".
struct File {
    const char* name;
    std::string content;
};

std::vector<File> scenarioFiles() {
    const std::string valid = R"({"id": 0, "device": 1, "scenarios": []})";
    return {
        {"empty.json", ""},
        {"nul.json", std::string(R"({"sensors": []})") + '\0' + "trailing"},
        {"bad_utf8.json", "{\"name\": \"\xff\xfe\", \"sensors\": []}"},
        {"unterminated.json", "{\"name\": \"" + std::string(200000, 'a')},
        {"deep_arrays.json", std::string(100000, '[') + std::string(100000, ']')},
        {"deep_objects.json",
         R"({"sensors": [)" + repeated(R"({"a": )", 70) + "1" + std::string(70, '}') + "]}"},
        {"huge_array.json", oneScenario(R"({"width": [)" + repeated("1", 200000, ",") +
                                        R"(], "height": 1, "rate": 1})")},
        {"huge_failures.json",
         R"({"sensors": [], "failures": {"dequeue": [)" + repeated("7", 200000, ",") + "]}}"},
        {"huge_name.json", R"({"name": ")" + std::string(900000, 'n') + R"(", "sensors": []})"},
        {"huge_key.json", "{\"" + std::string(300, 'k') + "\": 1, \"sensors\": []}"},
        {"long_unknown_key.json", "{\"sensors\": [], \"" + std::string(200, 'z') + "\": 1}"},
        {"duplicate_top.json", R"({"sensors": [], "sensors": []})"},
        {"duplicate_nested.json",
         oneScenario(R"({"width": 1, "height": 1, "rate": 1}, {"width": 1, "width": 2})")},
        {"control_name.json", "{\"name\": \"red\\u001b[31m\", \"sensors\": []}"},
        {"width_17_bits.json", oneScenario(R"({"width": 65536, "height": 1, "rate": 1})")},
        {"negative_height.json", oneScenario(R"({"width": 1, "height": -1, "rate": 1})")},
        {"rate_33_bits.json", oneScenario(R"({"width": 1, "height": 1, "rate": 4294967296})")},
        {"id_32_bits.json", R"({"sensors": [{"id": 2147483648, "device": 1, "scenarios": []}]})"},
        {"start_64_bits.json", R"({"sensors": [], "failures": {"start": 9223372036854775808}})"},
        {"beyond_64_bits.json",
         oneScenario(R"({"width": 18446744073709551616, "height": 1, "rate": 1})")},
        {"digits_5000.json",
         oneScenario(R"({"width": )" + std::string(5000, '9') + R"(, "height": 1, "rate": 1})")},
        {"fraction.json", oneScenario(R"({"width": 1.5, "height": 1, "rate": 1})")},
        {"frame_info_negative.json", R"({"sensors": [], "custom": {"frame_info": [1, 2, 3, -4]}})"},
        {"queue_depth_zero.json",
         "{\"sensors\": [" + valid + "], \"driver\": {\"queue_depth\": 0}}"},
        {"pipeline_long.json",
         R"({"sensors": [], "failures": {"pipeline": ")" + std::string(250, 'p') + "\"}}"},
        // Scripted events; section 2's area holds 2048 bytes.
        {"three_kib.bin", std::string(3072, 'x')},
        {"event_bad_hex.json", scripted(R"("data": {"s1": {"hex": "0g"}})")},
        {"event_odd_hex.json", scripted(R"("data": {"s1": {"hex": "abc"}})")},
        {"event_file_over_area.json", scripted(R"("data": {"s2": {"file": "three_kib.bin"}})")},
        {"event_file_is_fifo.json", scripted(R"("data": {"s3": {"file": "fifo"}})")},
        {"event_unknown_key.json", scripted(R"("when": 3)")},
        {"event_unknown_section.json", scripted(R"("info": {"s11": [1]})")},
        {"event_short_info.json", scripted(R"("info": {"s6": [1, 2, 3, 4]})")},
        {"event_frame_backwards.json",
         R"({"sensors": [], "events": [{"at_frame": 4, "header": [0, 0, 0, 0, 0, 0]},
                                       {"at_frame": 4, "header": [0, 0, 0, 0, 0, 0]}]})"},
    };
}

struct HostileCase {
    const char* name;
    std::vector<std::string> args;  // "{dir}" stands for the scenario directory
    const char* expected;           // in the error line
};

// Cases print by name: the argument lists may be megabytes long.
void PrintTo(const HostileCase& c, std::ostream* out) {
    *out << c.name;
}

const std::string kLongPath = "{dir}" + std::string(5000, 'p');

const HostileCase kCases[] = {
    // Scenario paths that are not regular files, or cannot be read.
    {"ScenarioIsAFifo", {"-s", "{dir}fifo"}, "\"{dir}fifo\": it is a FIFO, not a regular file"},
    {"ScenarioIsACharacterDevice", {"-s", "/dev/zero"}, "it is a character device, not a regular"},
    {"ScenarioIsADirectory", {"-s", "{dir}"}, "it is a directory"},
    {"ScenarioIsMissing", {"-s", "{dir}absent.json"}, "No such file or directory"},
    {"ScenarioPathRunsThroughAFile", {"-s", "{dir}empty.json/x"}, "Not a directory"},
    {"ScenarioPathIsEmpty", {"-s", ""}, "the scenario file path is empty"},
    {"ScenarioPathIsTooLong", {"-s", kLongPath}, "File name too long"},
    {"ScenarioIsOneByteOverTheLimit",
     {"-s", "{dir}over_limit.json"},
     "larger than the limit of 1048576 bytes"},
    {"ScenarioIsASparse4GiBFile",
     {"-s", "{dir}sparse.json"},
     "larger than the limit of 1048576 bytes"},
    // Malformed JSON.
    {"EmptyFile", {"-s", "{dir}empty.json"}, "is not valid JSON: parse error at line 1, column 1"},
    {"NulByte", {"-s", "{dir}nul.json"}, "is not valid JSON: a NUL byte at offset 15"},
    {"InvalidUtf8", {"-s", "{dir}bad_utf8.json"}, "ill-formed UTF-8"},
    {"UnterminatedLongString", {"-s", "{dir}unterminated.json"}, "missing closing quote"},
    // Limits of the reader.
    {"Arrays100000Deep",
     {"-s", "{dir}deep_arrays.json"},
     "[0][0]...: nested deeper than 64 levels"},
    {"ObjectsNestedUnderAKey", {"-s", "{dir}deep_objects.json"}, "sensors[0].a.a.a."},
    {"ArrayOf200000InAField",
     {"-s", "{dir}huge_array.json"},
     "sensors[0].scenarios[0].width: an array of more than 1024 entries"},
    {"FailureListOf200000",
     {"-s", "{dir}huge_failures.json"},
     "failures.dequeue: an array of more than 1024 entries"},
    {"NameOf900000Bytes",
     {"-s", "{dir}huge_name.json"},
     "name: a string of 900000 bytes, more than 256"},
    {"KeyOf300Bytes", {"-s", "{dir}huge_key.json"}, "top level: a key of 300 bytes, more than 256"},
    {"LongUnknownKey", {"-s", "{dir}long_unknown_key.json"}, "top level: unknown key \"zzzz"},
    {"RepeatedTopLevelKey",
     {"-s", "{dir}duplicate_top.json"},
     "top level: key \"sensors\" appears twice"},
    {"RepeatedNestedKey",
     {"-s", "{dir}duplicate_nested.json"},
     "sensors[0].scenarios[1]: key \"width\" appears twice"},
    {"ControlCharactersInName",
     {"-s", "{dir}control_name.json"},
     "name: control characters are not allowed"},
    {"LongPipelineFaultName",
     {"-s", "{dir}pipeline_long.json"},
     "failures.pipeline: expected one of none,"},
    // Scripted events.
    {"EventHexNotHex",
     {"-s", "{dir}event_bad_hex.json"},
     "events[0].data.s1.hex: expected a non-empty string of hex digit pairs, got \"0g\""},
    {"EventHexOddLength", {"-s", "{dir}event_odd_hex.json"}, "events[0].data.s1.hex: expected"},
    {"EventFileLargerThanItsArea",
     {"-s", "{dir}event_file_over_area.json"},
     "events[0].data.s2.file: cannot read \"{dir}three_kib.bin\": it is larger than the limit "
     "of 2048 bytes"},
    {"EventFileIsAFifo",
     {"-s", "{dir}event_file_is_fifo.json"},
     "events[0].data.s3.file: cannot read \"{dir}fifo\": it is a FIFO"},
    {"EventUnknownKey", {"-s", "{dir}event_unknown_key.json"}, "events[0]: unknown key \"when\""},
    {"EventUnknownSection",
     {"-s", "{dir}event_unknown_section.json"},
     "events[0].info: unknown key \"s11\" (sections are s1 to s10)"},
    {"EventInfoWordsShort",
     {"-s", "{dir}event_short_info.json"},
     "events[0].info.s6: expected an array of 5 integers, got an array of 4 entries"},
    {"EventFrameNotAfterThePrevious",
     {"-s", "{dir}event_frame_backwards.json"},
     "events[1].at_frame: expected an integer in 5..4294967295, got 4"},
    // Numbers outside a field's range.
    {"WidthOf17Bits",
     {"-s", "{dir}width_17_bits.json"},
     "sensors[0].scenarios[0].width: expected an integer in 0..65535, got 65536"},
    {"NegativeHeight",
     {"-s", "{dir}negative_height.json"},
     "sensors[0].scenarios[0].height: expected an integer in 0..65535, got -1"},
    {"RateOf33Bits",
     {"-s", "{dir}rate_33_bits.json"},
     "sensors[0].scenarios[0].rate: expected an integer in 0..4294967295"},
    {"IdOf32Bits",
     {"-s", "{dir}id_32_bits.json"},
     "sensors[0].id: expected an integer in -2147483648..2147483647"},
    {"StartOf64Bits", {"-s", "{dir}start_64_bits.json"}, "failures.start: expected an integer in"},
    {"NumberBeyond64Bits",
     {"-s", "{dir}beyond_64_bits.json"},
     "width: expected an integer in 0..65535, got 1.8"},
    {"NumberOf5000Digits", {"-s", "{dir}digits_5000.json"}, "number overflow parsing \"9999"},
    {"FractionalWidth",
     {"-s", "{dir}fraction.json"},
     "width: expected an integer in 0..65535, got 1.5"},
    {"NegativeFrameInfoWord",
     {"-s", "{dir}frame_info_negative.json"},
     "custom.frame_info[3]: expected an integer in 0..4294967295, got -4"},
    {"QueueDepthZero",
     {"-s", "{dir}queue_depth_zero.json"},
     "driver.queue_depth must be at least 1"},
    // Sizes and rates whose numbers overflow or are malformed.
    {"SizeHeightOverflows",
     {"--size", "1x99999999999"},
     "--size: height: \"99999999999\" is out of range 1..65535"},
    {"SizeZero", {"--size", "0x5"}, "--size: width: \"0\" is out of range 1..65535"},
    {"SizeWithASpace", {"--size", " 10x10"}, "--size: width: expected a whole number, got \" 10\""},
    {"SizeWithoutX", {"--size", "640"}, "--size: expected WIDTHxHEIGHT"},
    {"SizeWithTwoX", {"--size", "10x10x"}, "--size: expected WIDTHxHEIGHT"},
    {"FpsOverflows",
     {"--fps", "99999999999"},
     "--fps: \"99999999999\" is out of range -2147483648..2147483647"},
    {"FpsIsAWord", {"--fps", "ten"}, "--fps: expected a whole number, got \"ten\""},
    {"SensorBelowInt32", {"--sensor=-99999999999"}, "--sensor: \"-99999999999\" is out of range"},
    {"EventsZero", {"--events", "0"}, "--events: \"0\" is out of range 1..1000000"},
    {"PropertyOverflows",
     {"--test-model", "99999999999"},
     "--test-model: \"99999999999\" is out of range"},
    // Durations and time-outs beyond the clock, or not numbers.
    {"DurationNan", {"--duration", "nan"}, "--duration: expected a number of seconds, got \"nan\""},
    {"DurationNegative",
     {"--duration=-1"},
     "--duration: \"-1\" is out of range: more than 0, at most 86400 seconds"},
    {"DurationEmpty", {"--duration", ""}, "--duration: expected a number of seconds, got \"\""},
    {"Timeout1e300", {"--timeout", "1e300"}, "--timeout: \"1e300\" is out of range"},
    {"TimeoutHexadecimal", {"--timeout", "0x10"}, "--timeout: expected a number of seconds"},
    // Id lists.
    {"NotifyIdsEmptyEntry",
     {"--notify-ids", "1,,2"},
     "--notify-ids: id 2: expected a whole number, got \"\""},
    {"NotifyIdsOverflow",
     {"--notify-ids", "1,99999999999"},
     "--notify-ids: id 2: \"99999999999\" is out of range"},
    {"NotifyIds2000",
     {"--notify-ids", repeated("1", 2000, ",")},
     "--notify-ids: more than 1024 ids"},
    // Option text a parser might echo whole.
    {"UnknownOptionOf100000Bytes", {"--" + std::string(100000, 'a')}, "was not expected"},
    {"ThousandsOfStrayArguments", std::vector<std::string>(5000, "stray"), "were not expected"},
    {"ControlCharactersInAnOption", {"--\x1b[31mred"}, "--\\x1b[31mred"},
    {"MissingValue", {"--sensor"}, "--sensor"},
    {"RepeatedOption", {"--sensor", "1", "--sensor", "2"}, "--sensor"},
};

std::string replaceDir(std::string text, const std::string& dir) {
    for (auto at = text.find("{dir}"); at != std::string::npos; at = text.find("{dir}", at)) {
        text.replace(at, 5, dir);
        at += dir.size();
    }
    return text;
}

class AovSimHostileInputTest : public ::testing::TestWithParam<HostileCase> {
  protected:
    static void SetUpTestSuite() {
        dir_ = ::testing::TempDir() + "aovsim_hostile_" + std::to_string(::getpid()) + "/";
        ASSERT_EQ(::mkdir(dir_.c_str(), 0700), 0) << dir_;
        for (const File& file : scenarioFiles()) {
            std::ofstream(dir_ + file.name, std::ios::binary) << file.content;
        }
        std::ofstream(dir_ + "over_limit.json") << std::string(1024 * 1024 + 1, ' ');
        const int sparse = ::open((dir_ + "sparse.json").c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(sparse, 0);
        ASSERT_EQ(::ftruncate(sparse, 4LL << 30), 0);
        ::close(sparse);
        ASSERT_EQ(::mkfifo((dir_ + "fifo").c_str(), 0600), 0);
    }

    static void TearDownTestSuite() {
        for (const File& file : scenarioFiles()) {
            ::unlink((dir_ + file.name).c_str());
        }
        for (const char* name : {"over_limit.json", "sparse.json", "fifo"}) {
            ::unlink((dir_ + name).c_str());
        }
        ::rmdir(dir_.c_str());
    }

    static std::string dir_;
};

std::string AovSimHostileInputTest::dir_;

TEST_P(AovSimHostileInputTest, EndsWithOneShortLineAndExitCodeTwo) {
    std::vector<std::string> args;
    for (const std::string& arg : GetParam().args) {
        args.push_back(replaceDir(arg, dir_));
    }
    const ProcessResult run = runProcess(AOV_SIM_PATH, args);
    const std::string& out = run.output;
    EXPECT_EQ(run.exit_code, 2) << out;
    EXPECT_LE(run.output_bytes, kMaxErrorLine) << out;
    EXPECT_EQ(out.rfind("aov-sim: error: ", 0), 0u) << out;
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.find('\n'), out.size() - 1) << "one line: " << out;
    for (size_t i = 0; i + 1 < out.size(); ++i) {
        const auto c = static_cast<unsigned char>(out[i]);
        EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "byte " << i << " of " << out;
    }
    EXPECT_NE(out.find(replaceDir(GetParam().expected, dir_)), std::string::npos) << out;
}

INSTANTIATE_TEST_SUITE_P(Inputs, AovSimHostileInputTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                             return std::string(info.param.name);
                         });

// The property variables come from the environment; whatever they hold, a
// run goes through (a value that is not a number keeps the default).
TEST(AovSimEnvironmentTest, PropertyVariablesWithAnyValueStillGiveANormalRun) {
    const std::vector<std::string> environment = {
        "AOV_PROP_vendor_aovstream_test_model=99999999999999999999999",
        "AOV_PROP_vendor_aovstream_view_mode=" + std::string(100000, 'v'),
        "AOV_PROP_vendor_aovstream_debug_device=-",
        "AOV_PROP_vendor_aovstream_image_callback=\x1b[31m",
    };
    const ProcessResult run = runProcess(AOV_SIM_PATH, {"--events", "1"}, environment, SIZE_MAX);
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_NE(run.output.find("summary: events delivered"), std::string::npos) << run.output;
}

}  // namespace
