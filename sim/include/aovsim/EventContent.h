#pragma once

// What the emulated driver writes into an event's data areas, so that a
// consumer can check that every area arrived where it belongs: each area
// starts with a stamp and the rest is one fill byte.

#include <cstdint>
#include <cstring>

namespace aovsim {

constexpr uint32_t kStampMagic = 0x53564F41;  // "AOVS" in memory order

struct ContentStamp {
    uint32_t magic;
    uint32_t sequence;  // header[0] of the event
    uint32_t section;   // 1 to 10
    uint32_t bytes;     // bytes written to the area, stamp included
};

inline uint8_t fillByteOf(uint32_t sequence, uint32_t section) {
    return static_cast<uint8_t>(sequence * 13u + section * 7u + 1u);
}

// Writes the stamp and fill into an area of `bytes` (at least the stamp's size).
inline void writeSectionContent(void* area, uint32_t bytes, uint32_t sequence, uint32_t section) {
    const ContentStamp stamp{kStampMagic, sequence, section, bytes};
    auto* out = static_cast<uint8_t*>(area);
    std::memcpy(out, &stamp, sizeof(stamp));
    std::memset(out + sizeof(stamp), fillByteOf(sequence, section), bytes - sizeof(stamp));
}

// True when the area holds what writeSectionContent wrote for this event.
inline bool sectionContentMatches(const void* area, uint32_t bytes, uint32_t sequence,
                                  uint32_t section) {
    ContentStamp stamp;
    const auto* in = static_cast<const uint8_t*>(area);
    std::memcpy(&stamp, in, sizeof(stamp));
    if (stamp.magic != kStampMagic || stamp.sequence != sequence || stamp.section != section ||
        stamp.bytes != bytes) {
        return false;
    }
    const uint8_t fill = fillByteOf(sequence, section);
    return in[sizeof(stamp)] == fill && in[bytes - 1] == fill;
}

}  // namespace aovsim
