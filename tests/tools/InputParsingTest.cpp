// The number, excerpt, file and option parsing under aov-sim: boundaries of
// every range, and what each kind of text is taken as.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "BoundedFile.h"
#include "ErrnoName.h"
#include "Excerpt.h"
#include "NumberText.h"
#include "Options.h"
#include "ScenarioFile.h"

namespace aovsimtool {
namespace {

struct IntegerCase {
    const char* name;
    const char* text;
    int64_t min;
    int64_t max;
    NumberStatus status;
    int64_t value;
};

class ParseIntegerTest : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(ParseIntegerTest, ReadsWithinRangeAndNothingElse) {
    const IntegerCase& c = GetParam();
    int64_t value = -7;
    EXPECT_EQ(parseInteger(c.text, c.min, c.max, &value), c.status);
    EXPECT_EQ(value, c.status == NumberStatus::kOk ? c.value : -7);
}

constexpr int64_t kMin64 = INT64_MIN;
constexpr int64_t kMax64 = INT64_MAX;

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseIntegerTest,
    ::testing::Values(
        IntegerCase{"Zero", "0", 0, 10, NumberStatus::kOk, 0},
        IntegerCase{"PlusSign", "+5", 0, 10, NumberStatus::kOk, 5},
        IntegerCase{"NegativeAtMin", "-10", -10, 10, NumberStatus::kOk, -10},
        IntegerCase{"BelowMin", "-11", -10, 10, NumberStatus::kOutOfRange, 0},
        IntegerCase{"AtMax", "65535", 1, 65535, NumberStatus::kOk, 65535},
        IntegerCase{"AboveMax", "65536", 1, 65535, NumberStatus::kOutOfRange, 0},
        IntegerCase{"Int64Max", "9223372036854775807", kMin64, kMax64, NumberStatus::kOk, kMax64},
        IntegerCase{"Int64MaxPlusOne", "9223372036854775808", kMin64, kMax64,
                    NumberStatus::kOutOfRange, 0},
        IntegerCase{"Int64Min", "-9223372036854775808", kMin64, kMax64, NumberStatus::kOk, kMin64},
        IntegerCase{"Int64MinMinusOne", "-9223372036854775809", kMin64, kMax64,
                    NumberStatus::kOutOfRange, 0},
        IntegerCase{"Uint64MaxPlusOne", "18446744073709551616", kMin64, kMax64,
                    NumberStatus::kOutOfRange, 0},
        IntegerCase{"HundredDigits", "1000000000000000000000000000000000000000000000000000", 0, 10,
                    NumberStatus::kOutOfRange, 0},
        IntegerCase{"LeadingZeros", "000000000000000000000000000042", 0, 100, NumberStatus::kOk,
                    42},
        IntegerCase{"Empty", "", 0, 10, NumberStatus::kMalformed, 0},
        IntegerCase{"SignOnly", "-", 0, 10, NumberStatus::kMalformed, 0},
        IntegerCase{"LeadingSpace", " 1", 0, 10, NumberStatus::kMalformed, 0},
        IntegerCase{"TrailingSpace", "1 ", 0, 10, NumberStatus::kMalformed, 0},
        IntegerCase{"Hexadecimal", "0x10", 0, 100, NumberStatus::kMalformed, 0},
        IntegerCase{"Exponent", "1e3", 0, 10000, NumberStatus::kMalformed, 0},
        IntegerCase{"Fraction", "1.0", 0, 10, NumberStatus::kMalformed, 0},
        IntegerCase{"OverflowThenLetter", "99999999999999999999999a", 0, 10,
                    NumberStatus::kMalformed, 0}),
    [](const ::testing::TestParamInfo<IntegerCase>& info) { return info.param.name; });

struct SecondsCase {
    const char* name;
    const char* text;
    NumberStatus status;
    double value;
};

class ParseSecondsTest : public ::testing::TestWithParam<SecondsCase> {};

TEST_P(ParseSecondsTest, ReadsPositiveFiniteSecondsUpToTheMaximum) {
    const SecondsCase& c = GetParam();
    double value = -7;
    EXPECT_EQ(parseSeconds(c.text, 86400, &value), c.status);
    EXPECT_EQ(value, c.status == NumberStatus::kOk ? c.value : -7);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseSecondsTest,
    ::testing::Values(SecondsCase{"Whole", "3", NumberStatus::kOk, 3},
                      SecondsCase{"Fraction", "0.25", NumberStatus::kOk, 0.25},
                      SecondsCase{"NoIntegerPart", ".5", NumberStatus::kOk, 0.5},
                      SecondsCase{"Exponent", "1e2", NumberStatus::kOk, 100},
                      SecondsCase{"NegativeExponent", "25E-2", NumberStatus::kOk, 0.25},
                      SecondsCase{"OneDay", "86400", NumberStatus::kOk, 86400},
                      SecondsCase{"JustOverADay", "86400.001", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"Zero", "0", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"UnderflowsToZero", "1e-999", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"Negative", "-1", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"Huge", "1e300", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"OverflowsToInfinity", "1e999", NumberStatus::kOutOfRange, 0},
                      SecondsCase{"Nan", "nan", NumberStatus::kMalformed, 0},
                      SecondsCase{"Infinity", "inf", NumberStatus::kMalformed, 0},
                      SecondsCase{"HexadecimalFloat", "0x1p3", NumberStatus::kMalformed, 0},
                      SecondsCase{"PlusSign", "+1", NumberStatus::kOk, 1},
                      SecondsCase{"TwoSigns", "+-1", NumberStatus::kMalformed, 0},
                      SecondsCase{"BareExponent", "1e", NumberStatus::kMalformed, 0},
                      SecondsCase{"ExponentSignOnly", "1e+", NumberStatus::kMalformed, 0},
                      SecondsCase{"Empty", "", NumberStatus::kMalformed, 0},
                      SecondsCase{"Dot", ".", NumberStatus::kMalformed, 0},
                      SecondsCase{"Comma", "1,5", NumberStatus::kMalformed, 0}),
    [](const ::testing::TestParamInfo<SecondsCase>& info) { return info.param.name; });

// Aliases share a number with the name a C library reports; the name of a
// number comes from the tools' own table, so it does not depend on the C library.
TEST(ErrnoNameTest, NamesEveryErrnoByItsCanonicalName) {
    EXPECT_EQ(aovsimtool::errnoName(ENOTTY), "ENOTTY");
    EXPECT_EQ(aovsimtool::errnoName(EHOSTUNREACH), "EHOSTUNREACH");
    EXPECT_EQ(aovsimtool::errnoName(EWOULDBLOCK), "EAGAIN");
    EXPECT_EQ(aovsimtool::errnoName(ENOTSUP), "EOPNOTSUPP");
    EXPECT_EQ(aovsimtool::errnoName(EDEADLOCK), "EDEADLK");
    // Every number up to the highest Linux has carries a name, each its own.
    std::set<std::string> names;
    for (int e = 1; e <= EHWPOISON; ++e) {
        if (e == 41 || e == 58) {
            continue;  // numbers Linux leaves unused
        }
        const std::string name = aovsimtool::errnoName(e);
        EXPECT_EQ(name[0], 'E') << e;
        names.insert(name);
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(EHWPOISON - 2));
}

TEST(ErrnoNameTest, ANumberWithoutANameIsGivenAsTheNumber) {
    EXPECT_EQ(aovsimtool::errnoName(0), "errno 0");
    EXPECT_EQ(aovsimtool::errnoName(-5), "errno -5");
    EXPECT_EQ(aovsimtool::errnoName(41), "errno 41");
    EXPECT_EQ(aovsimtool::errnoName(100000), "errno 100000");
}

TEST(ExcerptTest, QuotesShortTextEscapedAndCutsLongText) {
    EXPECT_EQ(excerpt("abc"), "\"abc\"");
    EXPECT_EQ(excerpt("a\"b\\c\n\x1b"), "\"a\\\"b\\\\c\\x0a\\x1b\"");
    EXPECT_EQ(excerpt(std::string(41, 'z')), "\"" + std::string(40, 'z') + "\"... (41 bytes)");
    EXPECT_EQ(excerpt(std::string(40, 'z')), "\"" + std::string(40, 'z') + "\"");
    // The printable range is space to tilde; DEL and bytes above are escaped.
    EXPECT_EQ(excerpt(" ~\x1f\x7f\xff"), "\" ~\\x1f\\x7f\\xff\"");
}

TEST(ExcerptTest, PathsKeepTheirEnd) {
    EXPECT_EQ(pathExcerpt("/tmp/a.json"), "\"/tmp/a.json\"");
    const std::string longPath = "/" + std::string(200, 'd') + "/scenario.json";
    const std::string shown = pathExcerpt(longPath);
    EXPECT_EQ(shown.rfind("\"...", 0), 0u) << shown;
    EXPECT_EQ(shown.substr(shown.size() - 15), "/scenario.json\"") << shown;
    EXPECT_EQ(shown.size(), 2 * kExcerptChars + 5) << shown;
    const std::string atTheLimit(2 * kExcerptChars, 'p');
    EXPECT_EQ(pathExcerpt(atTheLimit), "\"" + atTheLimit + "\"");
}

TEST(ExcerptTest, OneLineIsPrintableAndAtMostTheLimit) {
    EXPECT_EQ(oneLine("two\nlines", 100), "two\\x0alines");
    EXPECT_EQ(oneLine(std::string(20, 'a'), 20), std::string(20, 'a'));
    EXPECT_EQ(oneLine(std::string(21, 'a'), 20), std::string(17, 'a') + "...");
    EXPECT_EQ(oneLine(" ~\x7f", 100), " ~\\x7f");
    // Below three characters there is no room for the dots.
    EXPECT_EQ(oneLine("abcdef", 3), "...");
    EXPECT_EQ(oneLine("abcdef", 2), "ab");
    EXPECT_EQ(oneLine(std::string(1000000, '\x01')).size(), kMessageChars);
}

class BoundedFileTest : public ::testing::Test {
  protected:
    std::string path_ = ::testing::TempDir() + "aovsim_bounded_" + std::to_string(::getpid());
    void TearDown() override { ::unlink(path_.c_str()); }
};

TEST_F(BoundedFileTest, ReadsAFileOfExactlyTheLimitAndRefusesOneByteMore) {
    std::ofstream(path_) << std::string(100, 'x');
    std::string text;
    std::string problem;
    EXPECT_TRUE(readRegularFile(path_, 100, &text, &problem)) << problem;
    EXPECT_EQ(text, std::string(100, 'x'));
    EXPECT_FALSE(readRegularFile(path_, 99, &text, &problem));
    EXPECT_EQ(problem, "it is larger than the limit of 99 bytes");
}

// Run with standard input closed, the file opens as descriptor 0: it is
// closed after the read like any other.
TEST_F(BoundedFileTest, AFileOpenedAsDescriptorZeroIsClosedAfterTheRead) {
    std::ofstream(path_) << "zero";
    const int input = ::dup(STDIN_FILENO);
    ASSERT_GE(input, 0);
    ::close(STDIN_FILENO);
    std::string text;
    std::string problem;
    const bool read = readRegularFile(path_, 100, &text, &problem);
    const int left = ::fcntl(STDIN_FILENO, F_GETFD);
    ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
    EXPECT_TRUE(read) << problem;
    EXPECT_EQ(text, "zero");
    EXPECT_EQ(left, -1) << "descriptor 0 was left open";
}

TEST_F(BoundedFileTest, ReadsAnEmptyFile) {
    std::ofstream{path_};
    std::string text = "stale";
    std::string problem;
    EXPECT_TRUE(readRegularFile(path_, 100, &text, &problem)) << problem;
    EXPECT_EQ(text, "");
}

TEST(BoundedFileKernelTest, ReadsFilesWhoseReportedSizeIsZero) {
    // Kernel files report size 0 but have content: the read is bounded by
    // the limit, not by the reported size.
    std::string text;
    std::string problem;
    ASSERT_TRUE(readRegularFile("/proc/self/status", 1 << 20, &text, &problem)) << problem;
    EXPECT_NE(text.find("Name:"), std::string::npos);
    EXPECT_FALSE(readRegularFile("/proc/self/status", 8, &text, &problem));
    EXPECT_EQ(problem, "it is larger than the limit of 8 bytes");
}

TEST(BoundedFileKernelTest, RefusesAKernelFileOneByteOverTheLimit) {
    // This process's command line does not change while the test runs.
    std::string whole;
    std::string problem;
    ASSERT_TRUE(readRegularFile("/proc/self/cmdline", 1 << 20, &whole, &problem)) << problem;
    ASSERT_GT(whole.size(), 1u);
    std::string text;
    EXPECT_TRUE(readRegularFile("/proc/self/cmdline", whole.size(), &text, &problem)) << problem;
    EXPECT_EQ(text, whole);
    EXPECT_FALSE(readRegularFile("/proc/self/cmdline", whole.size() - 1, &text, &problem));
    EXPECT_EQ(problem,
              "it is larger than the limit of " + std::to_string(whole.size() - 1) + " bytes");
}

// parseOptions with the given arguments (after the program name).
ParseOutcome parse(std::vector<std::string> args, Options* options, std::string* message) {
    args.insert(args.begin(), "aov-sim");
    std::vector<const char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }
    return parseOptions(static_cast<int>(argv.size()), argv.data(), options, message);
}

TEST(OptionsTest, NothingGivenLeavesTheDefaults) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({}, &o, &message), ParseOutcome::kRun) << message;
    EXPECT_FALSE(o.scenario_given || o.sensor_given || o.size_given || o.fps_given ||
                 o.events_given || o.notify_ids_given || o.test_model.given);
    EXPECT_FALSE(o.print_scenario || o.force || o.trace || o.timeline_given || o.kernel_fuse ||
                 o.replay_given || o.view_mode.given || o.debug_device.given ||
                 o.image_callback.given);
    EXPECT_EQ(o.events, 5);
    EXPECT_EQ(o.duration, 0);
    EXPECT_EQ(o.timeout, 0);
    EXPECT_EQ(o.aov_mode, 0);
    EXPECT_EQ(o.frame_info_sel, 0);
    EXPECT_EQ(o.verbosity, 0);
    EXPECT_TRUE(o.notify_ids.empty());
}

TEST(OptionsTest, ValuesAtTheEdgesOfTheirRangesAreTaken) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--size", "65535x1", "--sensor=-2147483648", "--fps", "2147483647", "--events",
                     "1000000", "--duration", "86400", "--timeout", "0.001", "--view-mode", "-1",
                     "--notify-ids", "3,-4,5", "-s", ""},
                    &o, &message),
              ParseOutcome::kRun)
        << message;
    EXPECT_TRUE(o.size_given && o.sensor_given && o.fps_given && o.events_given &&
                o.notify_ids_given && o.view_mode.given && o.scenario_given);
    EXPECT_FALSE(o.test_model.given);
    EXPECT_EQ(o.width, 65535);
    EXPECT_EQ(o.height, 1);
    EXPECT_EQ(o.sensor, INT32_MIN);
    EXPECT_EQ(o.fps, INT32_MAX);
    EXPECT_EQ(o.events, 1000000);
    EXPECT_EQ(o.duration, 86400);
    EXPECT_EQ(o.timeout, 0.001);
    EXPECT_EQ(o.view_mode.value, -1);
    EXPECT_EQ(o.notify_ids, (std::vector<int>{3, -4, 5}));
    EXPECT_EQ(o.scenario_path, "");
}

TEST(OptionsTest, NotifyIdsTakeUpTo1024) {
    std::string ids = "0";
    for (int i = 1; i < 1024; ++i) {
        ids += "," + std::to_string(i);
    }
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--notify-ids", ids}, &o, &message), ParseOutcome::kRun) << message;
    EXPECT_EQ(o.notify_ids.size(), 1024u);
    EXPECT_EQ(o.notify_ids.back(), 1023);
    Options more;
    EXPECT_EQ(parse({"--notify-ids", ids + ",1024"}, &more, &message), ParseOutcome::kError);
    EXPECT_EQ(message, "--notify-ids: more than 1024 ids");
}

TEST(OptionsTest, WhereTheDriverRunsIsCheckedWithItsCompanions) {
    struct Case {
        std::vector<std::string> args;
        const char* message;  // empty: accepted
        bool fuse;
    };
    const Case cases[] = {
        {{}, "", false},
        {{"--kernel", "inproc"}, "", false},
        {{"--kernel", "fuse"}, "", true},
        {{"--kernel", "fuse", "--kdev", "/run/kdev"}, "", true},
        {{"--kernel", "fuse", "--timeline", "t.json"}, "", true},
        {{"--kernel", "FUSE"}, "--kernel: expected inproc or fuse, got \"FUSE\"", false},
        {{"--kernel", ""}, "--kernel: expected inproc or fuse, got \"\"", false},
        {{"--kdev", "/run/kdev"}, "--kdev: needs --kernel fuse", false},
        {{"--kernel", "fuse", "--kdev", ""}, "--kdev: an empty directory name", false},
        {{"--kernel", "fuse", "--kdev", "/run/kdev", "--timeline", "t.json"},
         "--timeline: needs the aov-kdev that aov-sim starts (drop --kdev)",
         false},
        {{"--timeline", ""}, "--timeline: an empty file name", false},
    };
    for (const Case& c : cases) {
        std::string shown;
        for (const std::string& arg : c.args) {
            shown += " " + arg;
        }
        SCOPED_TRACE(shown);
        Options o;
        std::string message;
        const ParseOutcome outcome = parse(c.args, &o, &message);
        if (*c.message == '\0') {
            ASSERT_EQ(outcome, ParseOutcome::kRun) << message;
            EXPECT_EQ(o.kernel_fuse, c.fuse);
        } else {
            EXPECT_EQ(outcome, ParseOutcome::kError);
            EXPECT_EQ(message, c.message);
        }
    }
}

TEST(OptionsTest, NodeImpliesTheKernelSideAndExcludesTheOtherWaysToReachADriver) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--node", "/dev/kelo_aov"}, &o, &message), ParseOutcome::kRun) << message;
    EXPECT_TRUE(o.kernel_fuse);
    EXPECT_EQ(o.node_path, "/dev/kelo_aov");
    EXPECT_TRUE(o.kdev_dir.empty());
    Options withKernel;
    ASSERT_EQ(parse({"--kernel", "fuse", "--node", "n"}, &withKernel, &message), ParseOutcome::kRun)
        << message;
    EXPECT_TRUE(withKernel.kernel_fuse);

    const struct {
        std::vector<std::string> args;
        const char* message;
    } bad[] = {
        {{"--node", "n", "--kdev", "d"}, "--node: excludes --kdev (give one node)"},
        {{"--node", "n", "--kernel", "inproc"},
         "--node: the driver is behind the node, not in this process (drop --kernel "
         "\"inproc\")"},
        {{"--node", ""}, "--node: an empty path"},
        {{"--node", "n", "--timeline", "t.json"},
         "--timeline: needs the aov-kdev that aov-sim starts (drop --node)"},
    };
    for (const auto& c : bad) {
        Options rejected;
        EXPECT_EQ(parse(c.args, &rejected, &message), ParseOutcome::kError) << c.message;
        EXPECT_EQ(message, c.message);
    }
}

TEST(OptionsTest, HelpIsReturnedNotPrinted) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--help"}, &o, &message), ParseOutcome::kHelp);
    EXPECT_NE(message.find("--scenario"), std::string::npos) << message;
    EXPECT_NE(message.find("--notify-ids"), std::string::npos) << message;
}

TEST(OptionsTest, HelpListsEveryOptionWithItsTextInOneColumn) {
    Options o;
    std::string message;
    ASSERT_EQ(parse({"--help"}, &o, &message), ParseOutcome::kHelp);
    const std::vector<std::string> expected = {
        "-h,--help",   "-s,--scenario", "--print-scenario", "--size",           "--force",
        "--duration",  "--timeout",     "--notify-ids",     "--trace",          "--timeline",
        "--kernel",    "--kdev",        "--node",           "--replay",         "--speed",
        "--sensor",    "--fps",         "--aov-mode",       "--frame-info-sel", "-n,--events",
        "--verbosity", "--test-model",  "--view-mode",      "--debug-device",   "--image-callback"};
    std::vector<std::string> listed;
    std::istringstream in(message);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("  -", 0) != 0) {
            continue;
        }
        listed.push_back(line.substr(2, line.find(' ', 2) - 2));
        // Names and their value's form, then the text from column 30 on.
        const size_t gap = line.find("  ", 2);
        ASSERT_NE(gap, std::string::npos) << line;
        EXPECT_EQ(line.find_first_not_of(' ', gap), 30u) << line;
    }
    EXPECT_EQ(listed, expected);
}

TEST(ScenarioTextTest, TheEmbeddedDefaultParses) {
    aovsim::SimConfig config;
    std::string problem;
    ASSERT_TRUE(parseScenario(defaultScenarioText(), "default", &config, &problem)) << problem;
    EXPECT_EQ(config.name, "default");
    ASSERT_EQ(config.sensors.size(), 3u);
    EXPECT_EQ(config.sensors[0].scenarios.size(), 7u);
}

TEST(ScenarioTextTest, EveryKeyLandsInItsOwnField) {
    aovsim::SimConfig c;
    std::string problem;
    ASSERT_TRUE(parseScenario(R"({"name": "keys",
        "sensors": [{"id": 7, "device": 8, "facing": 1, "orientation": 270, "scenarios": [
            {"index": 3, "width": 640, "height": 480, "rate": 150, "ae": 1, "type": 2, "bit": 12,
             "mode_param": 5}]}],
        "custom": {"detect_mode": 6, "frame_info": [1, 2, 3, 4]},
        "driver": {"queue_depth": 9, "content_every": 3, "event_every": 2},
        "failures": {"open_sensor": [7], "switch_mclk": [7], "power_on": [7], "detect_mode": true,
                     "frame_info": true, "pipeline": "start_pipe", "open_node": true,
                     "start": -16, "dequeue": [4], "dequeue_error": -11, "sensor_list": [5],
                     "sensor_list_error": -12}})",
                              "keys", &c, &problem))
        << problem;
    ASSERT_EQ(c.sensors.size(), 1u);
    const aovsim::SensorConfig& s = c.sensors[0];
    EXPECT_EQ(s.id, 7);
    EXPECT_EQ(s.device, 8);
    EXPECT_EQ(s.facing, 1);
    EXPECT_EQ(s.orientation, 270);
    ASSERT_EQ(s.scenarios.size(), 1u);
    const aovsim::ScenarioConfig& m = s.scenarios[0];
    EXPECT_EQ(m.index, 3);
    EXPECT_EQ(std::vector<uint32_t>({m.width, m.height, m.rate, m.ae, m.type, m.bit, m.mode_param}),
              std::vector<uint32_t>({640, 480, 150, 1, 2, 12, 5}));
    EXPECT_EQ(c.custom.detect_mode, 6u);
    EXPECT_TRUE(c.custom.frame_info_given);
    EXPECT_EQ(c.custom.frame_info[3], 4u);
    EXPECT_EQ(c.driver.queue_depth, 9u);
    EXPECT_EQ(c.driver.content_every, 3u);
    EXPECT_EQ(c.driver.event_every, 2u);
    const aovsim::FaultConfig& f = c.faults;
    EXPECT_EQ(f.open_sensor, std::set<int32_t>{7});
    EXPECT_EQ(f.switch_mclk, std::set<int32_t>{7});
    EXPECT_EQ(f.power_on, std::set<int32_t>{7});
    EXPECT_TRUE(f.detect_mode && f.frame_info && f.open_node);
    EXPECT_EQ(f.pipeline, aovsim::PipelineFault::kStartPipe);
    EXPECT_EQ(f.start_error, -16);
    EXPECT_EQ(f.dequeue_calls, std::set<uint32_t>{4});
    EXPECT_EQ(f.dequeue_error, -11);
    EXPECT_EQ(f.sensor_list_calls, std::set<uint32_t>{5});
    EXPECT_EQ(f.sensor_list_error, -12);
}

TEST(ScenarioTextTest, AFailedParseLeavesTheConfigurationAlone) {
    aovsim::SimConfig config;
    config.name = "kept";
    std::string problem;
    EXPECT_FALSE(parseScenario(R"({"name": "x", "sensors": [], "driver": {"queue_depth": 0}})", "t",
                               &config, &problem));
    EXPECT_EQ(config.name, "kept");
}

}  // namespace
}  // namespace aovsimtool
