// How the session tools name, compare and describe the node's requests.

#include <linux/ioctl.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "aovsession/RequestCodec.h"
#include "aovsession/SessionFormat.h"
#include "kelo_aov.h"

namespace {

using aovrec::comparedDigest;
using aovrec::describeRequest;
using aovrec::isAddressByte;
using aovrec::requestLabel;
using aovrec::requestRecordBytes;
using aovrec::sameRequestBytes;

std::vector<uint8_t> patterned(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    return bytes;
}

void putWord(std::vector<uint8_t>& bytes, size_t offset, int32_t v) {
    std::memcpy(bytes.data() + offset, &v, sizeof(v));
}

TEST(RequestCodecTest, KnownCodesGoByNameAndOthersByTheirCode) {
    EXPECT_EQ(requestLabel(AOV_IOC_START), "START");
    EXPECT_EQ(requestLabel(AOV_IOC_DEQUEUE_EVENT), "DEQUEUE_EVENT");
    EXPECT_EQ(requestLabel(0x12345678u), "ioctl 0x12345678");
}

TEST(RequestCodecTest, ARecordIsTheSizeItsCodeCarriesUpToTheKeptMaximum) {
    EXPECT_EQ(requestRecordBytes(AOV_IOC_START), size_t{AOV_START_RECORD_SIZE});
    EXPECT_EQ(requestRecordBytes(AOV_IOC_DEQUEUE_EVENT), sizeof(aov_event_query));
    EXPECT_EQ(requestRecordBytes(AOV_IOC_STOP), 0u);
    // The largest size a code can carry is cut to what the recorder keeps.
    EXPECT_EQ(requestRecordBytes(_IOW('H', 20, uint8_t[_IOC_SIZEMASK])), aovrec::kMaxArgBytes);
}

TEST(RequestCodecTest, OnlyTheDequeuesTenAreaPointersAreAddresses) {
    std::set<size_t> expected;
    for (const aov_section_desc& section : aov_event_sections) {
        for (size_t i = 0; i < sizeof(void*); ++i) {
            expected.insert(section.query_addr_offset + i);
        }
    }
    ASSERT_EQ(expected.size(), AOV_SECTION_COUNT * sizeof(void*));
    std::set<size_t> found;
    for (size_t at = 0; at < sizeof(aov_event_query); ++at) {
        if (isAddressByte(AOV_IOC_DEQUEUE_EVENT, at)) {
            found.insert(at);
        }
    }
    EXPECT_EQ(found, expected);
    for (size_t at = 0; at < AOV_START_RECORD_SIZE; ++at) {
        ASSERT_FALSE(isAddressByte(AOV_IOC_START, at)) << "START byte " << at;
    }
}

TEST(RequestCodecTest, DequeuesThatDifferOnlyInAddressesCompareEqualAndDigestAlike) {
    const size_t size = sizeof(aov_event_query);
    const std::vector<uint8_t> recorded = patterned(size);
    std::vector<uint8_t> replayed = recorded;
    for (const aov_section_desc& section : aov_event_sections) {
        std::memset(replayed.data() + section.query_addr_offset, 0xEE, sizeof(void*));
    }
    EXPECT_TRUE(sameRequestBytes(AOV_IOC_DEQUEUE_EVENT, recorded.data(), replayed.data(), size));
    EXPECT_EQ(comparedDigest(AOV_IOC_DEQUEUE_EVENT, recorded.data(), size),
              comparedDigest(AOV_IOC_DEQUEUE_EVENT, replayed.data(), size));
    // Addresses count as zero bytes, so that the digest can be checked elsewhere.
    std::vector<uint8_t> zeroed = recorded;
    for (const aov_section_desc& section : aov_event_sections) {
        std::memset(zeroed.data() + section.query_addr_offset, 0, sizeof(void*));
    }
    EXPECT_EQ(comparedDigest(AOV_IOC_DEQUEUE_EVENT, recorded.data(), size),
              aovrec::digest(zeroed.data(), size));

    // A byte just outside an address counts: the header's first, the one after
    // the first address and the one before the last (the record ends in one).
    const size_t last = aov_event_sections[AOV_SECTION_COUNT - 1].query_addr_offset;
    ASSERT_EQ(last + sizeof(void*), size);
    for (const size_t at :
         {size_t{0}, aov_event_sections[0].query_addr_offset + sizeof(void*), last - 1}) {
        std::vector<uint8_t> other = replayed;
        other[at] ^= 0x40;
        EXPECT_FALSE(sameRequestBytes(AOV_IOC_DEQUEUE_EVENT, recorded.data(), other.data(), size))
            << "byte " << at;
        EXPECT_NE(comparedDigest(AOV_IOC_DEQUEUE_EVENT, recorded.data(), size),
                  comparedDigest(AOV_IOC_DEQUEUE_EVENT, other.data(), size))
            << "byte " << at;
    }
}

TEST(RequestCodecTest, OtherRequestsCompareEveryByte) {
    const std::vector<uint8_t> recorded = patterned(AOV_START_RECORD_SIZE);
    // The bytes where a dequeue keeps an address are plain bytes of a START.
    std::vector<uint8_t> other = recorded;
    other[aov_event_sections[0].query_addr_offset] ^= 1;
    EXPECT_FALSE(
        sameRequestBytes(AOV_IOC_START, recorded.data(), other.data(), AOV_START_RECORD_SIZE));
    EXPECT_NE(comparedDigest(AOV_IOC_START, recorded.data(), AOV_START_RECORD_SIZE),
              comparedDigest(AOV_IOC_START, other.data(), AOV_START_RECORD_SIZE));
    EXPECT_TRUE(
        sameRequestBytes(AOV_IOC_START, recorded.data(), recorded.data(), AOV_START_RECORD_SIZE));
    EXPECT_TRUE(sameRequestBytes(AOV_IOC_STOP, nullptr, nullptr, 0));
}

TEST(RequestCodecTest, TheComparedDigestOfARecordWithoutAddressesIsItsDigest) {
    const std::vector<uint8_t> bytes = patterned(sizeof(aov_sensor_list));
    EXPECT_EQ(comparedDigest(AOV_IOC_SENSOR_ON, bytes.data(), bytes.size()),
              aovrec::digest(bytes.data(), bytes.size()));
}

TEST(RequestCodecTest, AStartIsDescribedByItsFields) {
    std::vector<uint8_t> start(AOV_START_RECORD_SIZE, 0);
    putWord(start, AOV_START_SENSOR_ID, 3);
    putWord(start, AOV_START_SCENARIO, -1);
    putWord(start, AOV_START_FRAME_RATE, 15);
    putWord(start, AOV_START_FRAME_INFO_SEL, 2);
    putWord(start, AOV_START_AOV_MODE, 1);
    putWord(start, AOV_START_SENSOR_IDX, 7);
    const std::string text = describeRequest(AOV_IOC_START, start.data(), start.size());
    EXPECT_EQ(text.rfind("START sensor_id 3 scenario -1 frame_rate 15 frame_info_sel 2 aov_mode 1 "
                         "sensor_idx 7 (200 bytes, xxh64 ",
                         0),
              0u)
        << text;
    // A START shorter than its record is named, not decoded.
    EXPECT_EQ(describeRequest(AOV_IOC_START, start.data(), 8).rfind("START (8 bytes, xxh64 ", 0),
              0u);
}

TEST(RequestCodecTest, ASensorListShowsItsFirstEightIds) {
    std::vector<uint8_t> list(sizeof(aov_sensor_list), 0);
    putWord(list, 0, 1);
    putWord(list, 4, 2);
    EXPECT_EQ(describeRequest(AOV_IOC_SENSOR_ON, list.data(), list.size())
                  .rfind("SENSOR_ON count 1 ids [2] (260 bytes, xxh64 ", 0),
              0u);
    putWord(list, 0, 9);
    for (int i = 0; i < 9; ++i) {
        putWord(list, 4 + 4 * static_cast<size_t>(i), 10 + i);
    }
    EXPECT_EQ(describeRequest(AOV_IOC_SENSOR_OFF, list.data(), list.size())
                  .rfind("SENSOR_OFF count 9 ids [10, 11, 12, 13, 14, 15, 16, 17, ...] (", 0),
              0u);
}

TEST(RequestCodecTest, ADequeueDescriptionCarriesTheDigestWithoutItsAddresses) {
    const size_t size = sizeof(aov_event_query);
    std::vector<uint8_t> query = patterned(size);
    char digest[40];
    std::snprintf(
        digest, sizeof(digest), "%016llx",
        static_cast<unsigned long long>(comparedDigest(AOV_IOC_DEQUEUE_EVENT, query.data(), size)));
    EXPECT_EQ(describeRequest(AOV_IOC_DEQUEUE_EVENT, query.data(), size),
              "DEQUEUE_EVENT (" + std::to_string(size) + " bytes without the addresses, xxh64 " +
                  digest + ")");
}

TEST(RequestCodecTest, ARequestSentWithoutItsRecordSaysSoOnlyWhenItHasOne) {
    EXPECT_EQ(describeRequest(AOV_IOC_SENSOR_ON, nullptr, 0), "SENSOR_ON (no record)");
    EXPECT_EQ(describeRequest(AOV_IOC_STOP, nullptr, 0), "STOP");
    EXPECT_EQ(describeRequest(0x0000ABCDu, nullptr, 0), "ioctl 0x0000abcd");
    // A record of one byte is a record still.
    EXPECT_EQ(describeRequest(_IOW('x', 1, uint8_t), nullptr, 0), "ioctl 0x40017801 (no record)");
}

}  // namespace
