// The expected-buffer model behind aov-sim's check of scripted events: it
// must name the words and areas that differ, in the section they belong to,
// so that a wrong copy in the library cannot pass unnoticed.

#include "aovsim/ScriptedEvent.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using aovsim::ExpectedBuffer;
using aovsim::ScriptedEvent;

std::unique_ptr<aov_event> zeroedEvent() {
    auto event = std::make_unique<aov_event>();
    std::memset(event.get(), 0, sizeof(aov_event));
    return event;
}

ScriptedEvent contentEvent() {
    ScriptedEvent event;
    event.header = {7, 0, 0, 0, 0, 1};
    event.info[3] = {40, 41, 42, 43, 0};
    event.areas[6].bytes = {1, 2, 3};  // does not divide the area's size
    event.areas[6].repeat = true;
    return event;
}

TEST(ScriptedEventTest, DifferencesNameEachWrongPartAndItsSection) {
    const ScriptedEvent scripted = contentEvent();
    ExpectedBuffer expected;
    expected.deliver(scripted, AOV_MODE_FULL_CONTENT, true);
    auto actual = zeroedEvent();
    EXPECT_EQ(expected.differences(*actual), "header, s4 info, s7 data");

    // What a correct delivery leaves: the repeated pattern runs to the area's last byte.
    std::memcpy(actual->header, scripted.header.data(), sizeof(actual->header));
    std::memcpy(actual->s4_info, scripted.info[3].data(), sizeof(actual->s4_info));
    aovsim::writeArea(scripted.areas[6], actual->s7_data, sizeof(actual->s7_data));
    EXPECT_EQ(actual->s7_data[sizeof(actual->s7_data) - 1], (sizeof(actual->s7_data) - 1) % 3 + 1);
    EXPECT_EQ(expected.differences(*actual), "");

    actual->s7_data[sizeof(actual->s7_data) - 1] ^= 0xFF;
    EXPECT_EQ(expected.differences(*actual), "s7 data");
}

TEST(ScriptedEventTest, ImageWordAndLaterSectionsFollowTheModeAndTheProperty) {
    ScriptedEvent scripted = contentEvent();
    scripted.info[5] = {60, 61, 62, 63, 64};

    // Mode 1 without the image callback: no image word, no section 6 words.
    ExpectedBuffer basic;
    basic.deliver(scripted, 1, false);
    auto actual = zeroedEvent();
    std::memcpy(actual->header, scripted.header.data(), sizeof(actual->header));
    aovsim::writeArea(scripted.areas[6], actual->s7_data, sizeof(actual->s7_data));
    std::memcpy(actual->s4_info, scripted.info[3].data(), sizeof(actual->s4_info));
    EXPECT_EQ(basic.differences(*actual), "s4 info");
    actual->s4_info[3] = 0;
    EXPECT_EQ(basic.differences(*actual), "");

    // A later event without content in mode 0 leaves every info word as it was.
    scripted.header[5] = 0;
    scripted.info[3] = {90, 91, 92, 93, 0};
    basic.deliver(scripted, 0, true);
    actual->header[5] = 0;
    EXPECT_EQ(basic.differences(*actual), "");
}

}  // namespace
