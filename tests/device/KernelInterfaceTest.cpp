// The driver's interface header: C and C++ see one layout, and the section
// table covers the event buffer and the dequeue record in order, without gaps
// or overlaps, so that code iterating it reaches every area and word.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "KernelInterfaceC.h"
#include "kelo_aov.h"

namespace {

constexpr size_t kWord = sizeof(uint32_t);

TEST(KernelInterface, CAndCxxSeeTheSameRecordsCodesAndSections) {
    aov_c_facts c{};
    aov_c_read_facts(&c);
    EXPECT_EQ(sizeof(aov_sensor_list), c.sensor_list_size);
    EXPECT_EQ(sizeof(aov_event_query), c.event_query_size);
    EXPECT_EQ(sizeof(aov_event), c.event_size);
    const unsigned long codes[] = {AOV_IOC_START,         AOV_IOC_SENSOR_ON, AOV_IOC_SENSOR_OFF,
                                   AOV_IOC_DEQUEUE_EVENT, AOV_IOC_STOP,      AOV_IOC_ULPOSC3_ON,
                                   AOV_IOC_ULPOSC3_OFF};
    for (size_t i = 0; i < std::size(codes); ++i) {
        EXPECT_EQ(codes[i], c.codes[i]) << "code " << i;
    }
    EXPECT_EQ(0, std::memcmp(aov_event_sections, aov_c_sections(), sizeof(aov_event_sections)));
}

TEST(KernelInterface, SectionsTileTheEventBuffer) {
    // Behind word0 and the six header words, each section is its info words
    // followed by its data area, up to the end of the buffer.
    size_t next = offsetof(aov_event, header) + sizeof(aov_event::header);
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        SCOPED_TRACE(s + 1);
        EXPECT_EQ(next, section.info_offset);
        EXPECT_GE(section.info_words, 1u);
        EXPECT_EQ(section.info_offset + section.info_words * kWord, section.data_offset);
        EXPECT_GT(section.data_size, 0u);
        next = section.data_offset + section.data_size;
    }
    EXPECT_EQ(sizeof(aov_event), next);
}

TEST(KernelInterface, SectionsTileTheDequeueRecord) {
    // Behind the header, each section is its info words and then, on the next
    // pointer boundary, its data-area address, up to the end of the record.
    size_t next = sizeof(aov_event_query::header);
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        SCOPED_TRACE(s + 1);
        EXPECT_EQ(next, section.query_info_offset);
        const size_t wordsEnd = section.query_info_offset + section.info_words * kWord;
        const size_t aligned = (wordsEnd + alignof(void*) - 1) / alignof(void*) * alignof(void*);
        EXPECT_EQ(aligned, section.query_addr_offset);
        next = section.query_addr_offset + sizeof(void*);
    }
    EXPECT_EQ(sizeof(aov_event_query), next);
}

}  // namespace
