#pragma once

// The session file of aov-rec: a fixed header, then framed records, each
// framed record whole so that a file cut off anywhere reads up to its last
// whole record. docs/session-format.md describes the layout byte by byte.
// Plain code without exceptions or allocation: the preload library uses it.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace aovrec {

constexpr uint8_t kMagic[8] = {'A', 'O', 'V', 'R', 'E', 'C', '\r', '\n'};
constexpr uint16_t kVersion = 1;
constexpr size_t kHeaderSize = 32;
constexpr size_t kFrameHeaderSize = 16;

// Limits a reader enforces and a writer keeps to.
constexpr uint32_t kMaxPayload = 4u << 20;  // decoded payload of one record
constexpr size_t kMaxPath = 4095;           // bytes of a recorded path
constexpr size_t kMaxArgBytes = 1024;       // bytes kept of an ioctl argument record
constexpr size_t kMaxWaitEntries = 64;      // node entries kept of one readiness call
constexpr size_t kSections = 10;

// Frame flags.
constexpr uint16_t kFrameZstd = 1;  // the stored payload is one zstd frame

// Ioctl argument flags.
constexpr uint8_t kArgNull = 1;            // the argument pointer was null
constexpr uint8_t kArgCut = 2;             // the record was longer than kMaxArgBytes
constexpr uint8_t kArgUnreadable = 4;      // the record could not be read before the call
constexpr uint8_t kArgContentDropped = 8;  // the areas were dropped: the writer was behind
constexpr uint8_t kArgFlagsKnown = 15;

enum class ContentMode : uint8_t { kNone = 0, kWritten = 1, kAll = 2 };
enum class Compression : uint8_t { kNone = 0, kZstd = 1 };

enum class RecordType : uint16_t {
    kOpen = 1,
    kClose = 2,
    kIoctl = 3,
    kPoll = 4,
    kEpollCtl = 5,
    kEpollWait = 6,
};
constexpr uint16_t kLastRecordType = 6;

// Which call of a readiness record.
enum class WaitKind : uint8_t {
    kPoll = 0,
    kPpoll = 1,
    kEpollWait = 2,
    kEpollPwait = 3,
    kSelect = 4,
    kPselect = 5,
    kEpollPwait2 = 6,
};
constexpr uint8_t kLastWaitKind = 6;

struct FileHeader {
    uint16_t version = kVersion;
    ContentMode content = ContentMode::kWritten;
    Compression compression = Compression::kNone;
    uint64_t start_ns = 0;  // CLOCK_MONOTONIC when the file was begun
    uint32_t pid = 0;
};

// What every call record begins with.
struct CallInfo {
    uint64_t begin_ns = 0;  // CLOCK_MONOTONIC on entry
    uint64_t end_ns = 0;    // and on return
    uint32_t tid = 0;
    int32_t fd = -1;  // the descriptor the call was made on (the directory for openat)
    int32_t result = 0;
    int32_t err = 0;  // errno when the call failed, else 0
};
constexpr size_t kCallInfoSize = 32;

struct FrameHeader {
    uint32_t stored_len = 0;  // payload bytes in the file
    uint32_t raw_len = 0;     // payload bytes once decoded
    uint16_t type = 0;
    uint16_t flags = 0;
    uint32_t check = 0;  // frameCheck() of the header's first 12 bytes and the stored payload
};

uint32_t crc32(const void* data, size_t size, uint32_t crc = 0);
// The 64-bit xxHash of `data` (XXH64 with `seed`).
uint64_t xxh64(const void* data, size_t size, uint64_t seed);
// The digest the tools print and compare bytes by: XXH64 with seed 0, what
// `xxhsum -H64` prints for the same bytes.
inline uint64_t digest(const void* data, size_t size) {
    return xxh64(data, size, 0);
}
// A frame's check value: XXH64 of the stored payload, seeded with XXH64 of
// the frame header's first 12 bytes, cut to its low 32 bits.
uint32_t frameCheck(const uint8_t head[kFrameHeaderSize], const void* stored, size_t size);

void encodeHeader(const FileHeader& header, uint8_t out[kHeaderSize]);
enum class HeaderCheck { kOk, kBadMagic, kBadVersion, kBadCrc, kBadField };
HeaderCheck decodeHeader(const uint8_t in[kHeaderSize], FileHeader* out);

void encodeFrameHeader(const FrameHeader& frame, uint8_t out[kFrameHeaderSize]);
FrameHeader decodeFrameHeader(const uint8_t in[kFrameHeaderSize]);

// Bytes of a section's data area that a dequeue record keeps under `mode`:
// all of it, the first info word's count (the driver puts the bytes it wrote
// there; capped at the area), or none.
uint32_t keptAreaBytes(ContentMode mode, size_t section, uint32_t first_info_word);

const char* contentModeName(ContentMode mode);
bool parseContentMode(const char* text, ContentMode* out);

// Little-endian appender into a fixed buffer; remembers an overflow instead of
// writing past the end.
class ByteWriter {
  public:
    ByteWriter(uint8_t* data, size_t capacity) : data_(data), capacity_(capacity) {}
    void u8(uint8_t v) { put(&v, 1); }
    void u16(uint16_t v) { le(v, 2); }
    void u32(uint32_t v) { le(v, 4); }
    void u64(uint64_t v) { le(v, 8); }
    void put(const void* bytes, size_t n) {
        // An empty payload may come as a null pointer, which memcpy must not see.
        if (n == 0) {
            return;
        }
        if (uint8_t* at = reserve(n)) {
            std::memcpy(at, bytes, n);
        }
    }
    // Room for `n` bytes written by the caller, or null (and overflowed).
    uint8_t* reserve(size_t n) {
        if (overflow_ || n > capacity_ - size_) {
            overflow_ = true;
            return nullptr;
        }
        uint8_t* at = data_ + size_;
        size_ += n;
        return at;
    }
    void truncate(size_t size) { size_ = size < size_ ? size : size_; }
    uint8_t* at(size_t offset) { return data_ + offset; }
    size_t size() const { return size_; }
    bool overflow() const { return overflow_; }

  private:
    void le(uint64_t v, int n) {
        if (uint8_t* at = reserve(static_cast<size_t>(n))) {
            for (int i = 0; i < n; ++i) {
                at[i] = static_cast<uint8_t>(v >> (8 * i));
            }
        }
    }
    uint8_t* data_;
    size_t capacity_;
    size_t size_ = 0;
    bool overflow_ = false;
};

// Little-endian reader over a bounded buffer; a read past the end fails and
// leaves the reader failed.
class ByteReader {
  public:
    ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return static_cast<uint8_t>(le(1)); }
    uint16_t u16() { return static_cast<uint16_t>(le(2)); }
    uint32_t u32() { return static_cast<uint32_t>(le(4)); }
    uint64_t u64() { return le(8); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    // `n` bytes in place, or null.
    const uint8_t* bytes(size_t n) {
        if (!ok_ || n > size_ - pos_) {
            ok_ = false;
            return nullptr;
        }
        const uint8_t* at = data_ + pos_;
        pos_ += n;
        return at;
    }
    bool ok() const { return ok_; }
    size_t left() const { return ok_ ? size_ - pos_ : 0; }

  private:
    uint64_t le(size_t n) {
        const uint8_t* at = bytes(n);
        uint64_t v = 0;
        for (size_t i = 0; at != nullptr && i < n; ++i) {
            v |= static_cast<uint64_t>(at[i]) << (8 * i);
        }
        return v;
    }
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
    bool ok_ = true;
};

void putCall(ByteWriter& out, const CallInfo& call);
CallInfo getCall(ByteReader& in);

}  // namespace aovrec
