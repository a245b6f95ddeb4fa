#include <gtest/gtest.h>

#include <string>

#include "AOVLog.h"
#include "LogCapture.h"

namespace {

using aovtest::LogCapture;
using NSCam::Utils::ULog::ULogger;

constexpr char kPath[] = "hw/aov/src/plat/isp8/AOVSensor";

void emitTrace(int value) {
    AOV_LOG_TRACE_AT(kPath, 104, "[%s] AOV sensor Mode+ %d", __func__, value);
}
void emitVerbose() {
    AOV_LOG_VERBOSE_AT(kPath, 7, "[%s] fd(%d) opened", __func__, 3);
}
void emitError(int id) {
    AOV_LOG_ERROR_AT(kPath, 119, "invalid sensor id : %d", id);
}

TEST(Logging, TraceLineFormsOnBothChannels) {
    LogCapture log;
    log.enableTraces();
    emitTrace(7);

    const auto debug = log.debugLines();
    ASSERT_EQ(debug.size(), 1u);
    EXPECT_EQ(debug[0].level, 0);
    EXPECT_EQ(debug[0].text, "[D][AOV] AOVSensor:104 emitTrace() [emitTrace] AOV sensor Mode+ 7");

    const auto unified = log.unifiedLines();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].level, 5);
    EXPECT_EQ(unified[0].moduleId, 0x101005u);
    EXPECT_EQ(unified[0].tag, "AOV");
    EXPECT_EQ(unified[0].text, "[emitTrace] AOV sensor Mode+ 7");
}

TEST(Logging, ErrorLineShortFormToUnifiedLongFormToDebugPrint) {
    LogCapture log;
    emitError(42);

    const auto unified = log.unifiedLines();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].level, 1);
    EXPECT_EQ(
        unified[0].text,
        "[hw/aov/src/plat/isp8/AOVSensor, emitError, line0119] ERROR: invalid sensor id : 42");

    const auto debug = log.debugLines();
    ASSERT_EQ(debug.size(), 1u);
    EXPECT_EQ(debug[0].level, 1);
    EXPECT_EQ(
        debug[0].text,
        "[E][AOV] AOVSensor:119 emitError() [hw/aov/src/plat/isp8/AOVSensor, emitError, "
        "line0119] ERROR: invalid sensor id : 42 (emitError){#119:hw/aov/src/plat/isp8/AOVSensor}");
}

struct TraceGateCase {
    int32_t level;
    uint32_t mask;
    bool shown;
};

class TraceGate : public ::testing::TestWithParam<TraceGateCase> {};

TEST_P(TraceGate, NeedsLevelFiveAndEveryMaskBit) {
    LogCapture log;
    ULogger::sDetailsLevel = GetParam().level;
    ULogger::sNormalDetailsMask = GetParam().mask;
    emitTrace(1);
    EXPECT_EQ(log.debugLines().size(), GetParam().shown ? 1u : 0u);
    EXPECT_EQ(log.unifiedLines().size(), GetParam().shown ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, TraceGate,
    ::testing::Values(TraceGateCase{4, 0x101000, false}, TraceGateCase{5, 0x101000, true},
                      TraceGateCase{9, 0xFFFFFFFF, true}, TraceGateCase{5, 0x100000, false},
                      TraceGateCase{5, 0x001000, false}, TraceGateCase{5, 0, false}));

TEST(Logging, VerboseTracesNeedAHigherDetailLevel) {
    LogCapture log;
    log.enableTraces(5);
    emitVerbose();
    EXPECT_TRUE(log.debugLines().empty());
    log.enableTraces(6);
    emitVerbose();
    EXPECT_EQ(log.debugLines().size(), 1u);
}

TEST(Logging, ModeBitsSelectTheChannels) {
    struct Case {
        uint32_t mode;
        size_t debug;
        size_t unified;
    };
    for (const Case& c : {Case{0x0, 0, 0}, Case{0x1, 1, 0}, Case{0x2, 0, 1}, Case{0x8, 0, 1},
                          Case{0x4, 0, 0}, Case{0xB, 1, 1}}) {
        LogCapture log;
        log.enableTraces();
        log.setMode(c.mode);
        emitTrace(1);
        emitError(1);
        EXPECT_EQ(log.debugLines().size(), 2 * c.debug) << "mode " << c.mode;
        EXPECT_EQ(log.unifiedLines().size(), 2 * c.unified) << "mode " << c.mode;
    }
}

TEST(Logging, DebugPrintLevelFlagsGateEachLevel) {
    LogCapture log;
    log.enableTraces();
    log.setMode(0x1);
    g_logInfoLv[0].enabled = false;
    emitTrace(1);
    emitError(1);
    auto lines = log.debugLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 1);

    log.clear();
    g_logInfoLv[0].enabled = true;
    g_logInfoLv[1].enabled = false;
    emitTrace(1);
    emitError(1);
    lines = log.debugLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 0);
}

TEST(Logging, UnifiedLineIsCutAtTheBuffer) {
    LogCapture log;
    const std::string longText(3000, 'x');
    AOV_LOG_ERROR_AT(kPath, 1, "%s", longText.c_str());
    const auto unified = log.unifiedLines();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].text.size(), 1023u);
    EXPECT_EQ(
        unified[0].text.rfind("[hw/aov/src/plat/isp8/AOVSensor, TestBody, line0001] ERROR: xxx", 0),
        0u);
}

TEST(Logging, DisabledLinesDoNotEvaluateTheirArguments) {
    LogCapture log;
    log.setMode(0x1 | 0x2);
    int evaluated = 0;
    auto touch = [&evaluated] { return ++evaluated; };
    AOV_LOG_TRACE_AT(kPath, 1, "[%s] %d", __func__, touch());
    EXPECT_EQ(evaluated, 0);
    log.setMode(0);
    AOV_LOG_ERROR_AT(kPath, 1, "%d", touch());
    EXPECT_EQ(evaluated, 0);
}

}  // namespace
