// The driver's interface header: C and C++ see one layout, and the section
// table covers the event buffer and the dequeue record in order, without gaps
// or overlaps, so that code iterating it reaches every area and word; the
// area-address accessors and the start decoder read what the fields hold.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "KernelInterfaceC.h"
#include "kelo_aov.h"
#include "user_param.h"

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

// The record's address fields by name, in section order.
void* aov_event_query::*const kAddressFields[AOV_SECTION_COUNT] = {
    &aov_event_query::s1_addr, &aov_event_query::s2_addr, &aov_event_query::s3_addr,
    &aov_event_query::s4_addr, &aov_event_query::s5_addr, &aov_event_query::s6_addr,
    &aov_event_query::s7_addr, &aov_event_query::s8_addr, &aov_event_query::s9_addr,
    &aov_event_query::s10_addr};

void* fakeAddress(unsigned s) {
    return reinterpret_cast<void*>(uintptr_t{0x1000} * (s + 1) + 0x7f00000000);
}

TEST(KernelInterface, AreaAccessorsReadAndWriteExactlyEachSectionsAddressField) {
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        SCOPED_TRACE(s + 1);
        aov_event_query query;
        std::memset(&query, 0x5A, sizeof(query));
        aov_event_query expected = query;
        expected.*kAddressFields[s] = fakeAddress(s);

        aov_query_set_area(&query, s, fakeAddress(s));
        EXPECT_EQ(0, std::memcmp(&query, &expected, sizeof(query)))
            << "setting the address changed other bytes of the record";
        EXPECT_EQ(fakeAddress(s), aov_query_area(&query, s));
    }
}

TEST(KernelInterface, AreaAccessorsWorkOnAnUnalignedCopyOfARecord) {
    aov_event_query query{};
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        query.*kAddressFields[s] = fakeAddress(s);
    }
    unsigned char bytes[sizeof(aov_event_query) + 1];
    std::memcpy(bytes + 1, &query, sizeof(query));
    auto* copy = reinterpret_cast<aov_event_query*>(bytes + 1);
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        EXPECT_EQ(fakeAddress(s), aov_query_area(copy, s)) << "section " << s + 1;
    }
    aov_query_set_area(copy, 9, nullptr);
    std::memcpy(&query, bytes + 1, sizeof(query));
    EXPECT_EQ(query.s10_addr, nullptr);
    EXPECT_EQ(query.s9_addr, fakeAddress(8));
}

TEST(KernelInterface, StartDecodeReadsEveryWordTheLibrarySends) {
    // Each field a value of its own, so that a word read from a neighbour's
    // offset shows.
    user_param param;
    std::memset(&param, 0xEE, sizeof(param));
    param.sensor_id = 101;
    param.scenario = 102;
    param.orientation = 270;
    param.face = 1;
    for (uint32_t i = 0; i < 4; ++i) {
        param.mode_head[i] = 200 + i;
    }
    param.frame_info0 = 301;
    param.frame_info1 = 302;
    param.frame_info2 = 303;
    param.frame_info3 = 304;
    param.frame_rate = 15;
    param.frame_info_sel = 7;
    param.aov_mode = AOV_MODE_FULL_CONTENT;
    param.sensor_idx = -3;
    static_assert(kUserParamKernelSize == AOV_START_RECORD_SIZE, "the part the driver gets");

    aov_start_params decoded;
    aov_start_decode(reinterpret_cast<const __u8*>(&param), &decoded);
    EXPECT_EQ(decoded.sensor_id, 101);
    EXPECT_EQ(decoded.scenario, 102);
    EXPECT_EQ(decoded.orientation, 270);
    EXPECT_EQ(decoded.face, 1);
    EXPECT_EQ(decoded.mode_head[0], 200u);
    EXPECT_EQ(decoded.mode_head[3], 203u);
    EXPECT_EQ(decoded.frame_info[0], 301u);
    EXPECT_EQ(decoded.frame_info[1], 302u);
    EXPECT_EQ(decoded.frame_info[2], 303u);
    EXPECT_EQ(decoded.frame_info[3], 304u);
    EXPECT_EQ(decoded.frame_rate, 15);
    EXPECT_EQ(decoded.frame_info_sel, 7);
    EXPECT_EQ(decoded.aov_mode, AOV_MODE_FULL_CONTENT);
    EXPECT_EQ(decoded.sensor_idx, -3);
}

}  // namespace
