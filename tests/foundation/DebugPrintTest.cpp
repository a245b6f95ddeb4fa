// The host's debug-print channel: how long a line may be, and how a line
// that had to be cut is marked. Lines are read through the bound sink.

#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "aovhost/Binding.h"
#include "cam/utils/ULog.h"

namespace {

using aovhost::kDebugPrintCutMarker;
using aovhost::kDebugPrintLineBytes;
using aovtest::LogCapture;

std::string printed(const std::string& text, int level = 1) {
    LogCapture log;
    log_dbg_print(level, "%s", text.c_str());
    const auto lines = log.debugLines();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? std::string() : lines[0].text;
}

TEST(DebugPrint, KeepsAtLeastAsMuchAsTheDeviceLog) {
    // The device's log keeps about 4,000 bytes of a line.
    EXPECT_GE(kDebugPrintLineBytes, 4000u);
    const std::string full(kDebugPrintLineBytes, 'x');
    EXPECT_EQ(printed(full), full);
}

TEST(DebugPrint, LongerLineIsCutAndMarked) {
    const std::string text = std::string(kDebugPrintLineBytes, 'a') + "tail";
    const std::string line = printed(text);
    EXPECT_EQ(line, std::string(kDebugPrintLineBytes, 'a') + kDebugPrintCutMarker);
    // Much longer lines too: formatting stops at the line, not at the input.
    EXPECT_EQ(printed(std::string(3 * kDebugPrintLineBytes, 'b')),
              std::string(kDebugPrintLineBytes, 'b') + kDebugPrintCutMarker);
}

TEST(DebugPrint, CutNeverSplitsAMultiByteCharacter) {
    // "é" is two bytes; the second would be the first one cut.
    const std::string text = std::string(kDebugPrintLineBytes - 1, 'c') + "\xC3\xA9" + "d";
    EXPECT_EQ(printed(text), std::string(kDebugPrintLineBytes - 1, 'c') + kDebugPrintCutMarker);
    // A four-byte character ending exactly at the limit is kept whole.
    const std::string fits = std::string(kDebugPrintLineBytes - 4, 'e') + "\xF0\x9F\x93\xB7" + "f";
    EXPECT_EQ(printed(fits), std::string(kDebugPrintLineBytes - 4, 'e') + "\xF0\x9F\x93\xB7" +
                                 kDebugPrintCutMarker);
}

TEST(DebugPrint, ShortLinesArriveUnchangedAtTheirLevel) {
    LogCapture log;
    log_dbg_print(0, "trace %d", 7);
    log_dbg_print(1, "error %s", "here");
    const auto lines = log.debugLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(lines[0].text, "trace 7");
    EXPECT_EQ(lines[1].level, 1);
    EXPECT_EQ(lines[1].text, "error here");
}

}  // namespace
