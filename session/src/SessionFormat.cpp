#include "aovsession/SessionFormat.h"

#include <initializer_list>

#include "kelo_aov.h"

namespace aovrec {
namespace {

struct CrcTable {
    uint32_t entry[256];
    constexpr CrcTable() : entry() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            entry[i] = c;
        }
    }
};
constexpr CrcTable kCrc;

void putLe(uint8_t* at, uint64_t v, int n) {
    for (int i = 0; i < n; ++i) {
        at[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint64_t getLe(const uint8_t* at, int n) {
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) {
        v |= static_cast<uint64_t>(at[i]) << (8 * i);
    }
    return v;
}

}  // namespace

uint32_t crc32(const void* data, size_t size, uint32_t crc) {
    const auto* p = static_cast<const uint8_t*>(data);
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) {
        crc = kCrc.entry[(crc ^ p[i]) & 0xFFu] ^ (crc >> 8);
    }
    return ~crc;
}

namespace {

constexpr uint64_t kP1 = 11400714785074694791ull;
constexpr uint64_t kP2 = 14029467366897019727ull;
constexpr uint64_t kP3 = 1609587929392839161ull;
constexpr uint64_t kP4 = 9650029242287828579ull;
constexpr uint64_t kP5 = 2870177450012600261ull;

uint64_t rotl(uint64_t v, int r) {
    return (v << r) | (v >> (64 - r));
}

uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;  // little-endian targets only, as the rest of the format
}

uint32_t load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

uint64_t xxRound(uint64_t acc, uint64_t input) {
    acc += input * kP2;
    acc = rotl(acc, 31);
    return acc * kP1;
}

uint64_t xxMerge(uint64_t acc, uint64_t val) {
    acc ^= xxRound(0, val);
    return acc * kP1 + kP4;
}

}  // namespace

uint64_t xxh64(const void* data, size_t size, uint64_t seed) {
    static const uint8_t kNothing = 0;
    // An empty range may come as a null pointer; no arithmetic is done on one.
    const auto* p = size == 0 ? &kNothing : static_cast<const uint8_t*>(data);
    const uint8_t* const end = p + size;
    uint64_t h;
    if (size >= 32) {
        uint64_t v1 = seed + kP1 + kP2;
        uint64_t v2 = seed + kP2;
        uint64_t v3 = seed;
        uint64_t v4 = seed - kP1;
        const uint8_t* const limit = end - 32;
        do {
            v1 = xxRound(v1, load64(p));
            v2 = xxRound(v2, load64(p + 8));
            v3 = xxRound(v3, load64(p + 16));
            v4 = xxRound(v4, load64(p + 24));
            p += 32;
        } while (p <= limit);
        h = rotl(v1, 1) + rotl(v2, 7) + rotl(v3, 12) + rotl(v4, 18);
        h = xxMerge(h, v1);
        h = xxMerge(h, v2);
        h = xxMerge(h, v3);
        h = xxMerge(h, v4);
    } else {
        h = seed + kP5;
    }
    h += static_cast<uint64_t>(size);
    for (; p + 8 <= end; p += 8) {
        h ^= xxRound(0, load64(p));
        h = rotl(h, 27) * kP1 + kP4;
    }
    if (p + 4 <= end) {
        h ^= static_cast<uint64_t>(load32(p)) * kP1;
        h = rotl(h, 23) * kP2 + kP3;
        p += 4;
    }
    for (; p < end; ++p) {
        h ^= static_cast<uint64_t>(*p) * kP5;
        h = rotl(h, 11) * kP1;
    }
    h ^= h >> 33;
    h *= kP2;
    h ^= h >> 29;
    h *= kP3;
    h ^= h >> 32;
    return h;
}

uint32_t frameCheck(const uint8_t head[kFrameHeaderSize], const void* stored, size_t size) {
    return static_cast<uint32_t>(xxh64(stored, size, xxh64(head, 12, 0)));
}

void encodeHeader(const FileHeader& header, uint8_t out[kHeaderSize]) {
    std::memset(out, 0, kHeaderSize);
    std::memcpy(out, kMagic, sizeof(kMagic));
    putLe(out + 8, header.version, 2);
    putLe(out + 10, kHeaderSize, 2);
    out[12] = static_cast<uint8_t>(header.content);
    out[13] = static_cast<uint8_t>(header.compression);
    putLe(out + 16, header.start_ns, 8);
    putLe(out + 24, header.pid, 4);
    putLe(out + 28, crc32(out, 28), 4);
}

HeaderCheck decodeHeader(const uint8_t in[kHeaderSize], FileHeader* out) {
    if (std::memcmp(in, kMagic, sizeof(kMagic)) != 0) {
        return HeaderCheck::kBadMagic;
    }
    if (getLe(in + 28, 4) != crc32(in, 28)) {
        return HeaderCheck::kBadCrc;
    }
    const auto version = static_cast<uint16_t>(getLe(in + 8, 2));
    if (version != kVersion) {
        return HeaderCheck::kBadVersion;
    }
    if (getLe(in + 10, 2) != kHeaderSize || in[12] > static_cast<uint8_t>(ContentMode::kAll) ||
        in[13] > static_cast<uint8_t>(Compression::kZstd) || in[14] != 0 || in[15] != 0) {
        return HeaderCheck::kBadField;
    }
    out->version = version;
    out->content = static_cast<ContentMode>(in[12]);
    out->compression = static_cast<Compression>(in[13]);
    out->start_ns = getLe(in + 16, 8);
    out->pid = static_cast<uint32_t>(getLe(in + 24, 4));
    return HeaderCheck::kOk;
}

void encodeFrameHeader(const FrameHeader& frame, uint8_t out[kFrameHeaderSize]) {
    putLe(out, frame.stored_len, 4);
    putLe(out + 4, frame.raw_len, 4);
    putLe(out + 8, frame.type, 2);
    putLe(out + 10, frame.flags, 2);
    putLe(out + 12, frame.check, 4);
}

FrameHeader decodeFrameHeader(const uint8_t in[kFrameHeaderSize]) {
    FrameHeader frame;
    frame.stored_len = static_cast<uint32_t>(getLe(in, 4));
    frame.raw_len = static_cast<uint32_t>(getLe(in + 4, 4));
    frame.type = static_cast<uint16_t>(getLe(in + 8, 2));
    frame.flags = static_cast<uint16_t>(getLe(in + 10, 2));
    frame.check = static_cast<uint32_t>(getLe(in + 12, 4));
    return frame;
}

uint32_t keptAreaBytes(ContentMode mode, size_t section, uint32_t first_info_word) {
    if (section >= kSections) {
        return 0;
    }
    const uint32_t size = aov_event_sections[section].data_size;
    switch (mode) {
        case ContentMode::kAll:
            return size;
        case ContentMode::kWritten:
            return first_info_word < size ? first_info_word : size;
        case ContentMode::kNone:
            break;
    }
    return 0;
}

const char* contentModeName(ContentMode mode) {
    switch (mode) {
        case ContentMode::kNone:
            return "none";
        case ContentMode::kWritten:
            return "written";
        case ContentMode::kAll:
            return "all";
    }
    return "?";
}

bool parseContentMode(const char* text, ContentMode* out) {
    for (const ContentMode mode : {ContentMode::kNone, ContentMode::kWritten, ContentMode::kAll}) {
        if (text != nullptr && std::strcmp(text, contentModeName(mode)) == 0) {
            *out = mode;
            return true;
        }
    }
    return false;
}

void putCall(ByteWriter& out, const CallInfo& call) {
    out.u64(call.begin_ns);
    out.u64(call.end_ns);
    out.u32(call.tid);
    out.u32(static_cast<uint32_t>(call.fd));
    out.u32(static_cast<uint32_t>(call.result));
    out.u32(static_cast<uint32_t>(call.err));
}

CallInfo getCall(ByteReader& in) {
    CallInfo call;
    call.begin_ns = in.u64();
    call.end_ns = in.u64();
    call.tid = in.u32();
    call.fd = in.i32();
    call.result = in.i32();
    call.err = in.i32();
    return call;
}

}  // namespace aovrec
