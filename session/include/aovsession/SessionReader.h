#pragma once

// Reads a session file record by record, with bounded memory: every length
// is checked against the format's limits before anything is read or
// decoded, and each record's checksum before it is decoded. A file cut off
// mid-record reads up to its last whole record and then reports the cut.
// What a record points to stays valid until the next call to next().

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "aovsession/SessionFormat.h"

namespace aovrec {

// Where the reader's bytes come from.
class ByteSource {
  public:
    virtual ~ByteSource() = default;
    // Up to `size` bytes; 0 at the end; -1 on an error (errno set).
    virtual long read(void* to, size_t size) = 0;
};

class FileSource : public ByteSource {
  public:
    // Opens `path`; false with a one-line reason.
    [[nodiscard]] bool open(const std::string& path, std::string* why);
    ~FileSource() override;
    long read(void* to, size_t size) override;

  private:
    int fd_ = -1;
};

class MemorySource : public ByteSource {
  public:
    MemorySource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    long read(void* to, size_t size) override;

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

struct AreaView {
    uint8_t section = 0;  // 1 to 10
    uint32_t length = 0;
    const uint8_t* data = nullptr;
};

struct WaitEntry {
    int32_t fd = -1;
    uint32_t events = 0;   // asked for (poll)
    uint32_t revents = 0;  // returned
};

struct Record {
    RecordType type = RecordType::kOpen;
    uint64_t index = 0;   // 0-based position in the file
    uint64_t offset = 0;  // of its frame in the file
    CallInfo call;

    // Open
    uint32_t open_flags = 0;
    uint32_t open_mode = 0;
    std::string path;

    // Ioctl
    uint32_t request = 0;
    uint8_t arg_flags = 0;
    const uint8_t* sent = nullptr;
    uint16_t sent_len = 0;
    const uint8_t* back = nullptr;  // the record after a successful read-direction call
    uint16_t back_len = 0;
    AreaView areas[kSections];
    uint8_t area_count = 0;

    // Poll, EpollWait
    WaitKind wait_kind = WaitKind::kPoll;
    int32_t timeout_ms = 0;
    WaitEntry entries[kMaxWaitEntries];
    uint16_t entry_count = 0;

    // EpollCtl
    int32_t ctl_op = 0;
    int32_t ctl_fd = -1;
    uint32_t ctl_events = 0;
    uint64_t ctl_data = 0;
};

const char* recordTypeName(RecordType type);

class SessionReader {
  public:
    explicit SessionReader(ByteSource& source);
    ~SessionReader();
    SessionReader(const SessionReader&) = delete;
    SessionReader& operator=(const SessionReader&) = delete;

    // Reads and checks the header; false with error() set.
    bool start();

    enum class Next {
        kRecord,  // *out holds the next record
        kEnd,     // the file ended after a whole record
        kCut,     // the file ends inside a record (a recording cut off); error() says where
        kBad,     // the file is damaged or not a session file; error() says how
    };
    Next next(Record* out);

    const FileHeader& header() const { return header_; }
    const std::string& error() const { return error_; }
    uint64_t records() const { return records_; }
    uint64_t offset() const { return offset_; }

  private:
    // Reads exactly `size` bytes; the count read when fewer, -1 on an error.
    long readFully(void* to, size_t size);
    Next fail(Next kind, const std::string& what);
    bool decode(uint16_t type, const uint8_t* payload, size_t size, Record* out);

    ByteSource& source_;
    FileHeader header_;
    std::string error_;
    uint64_t records_ = 0;
    uint64_t offset_ = 0;
    std::vector<uint8_t> stored_;
    std::vector<uint8_t> raw_;
    [[maybe_unused]] void* dctx_ = nullptr;  // unused in a build without zstd
    bool done_ = false;
};

}  // namespace aovrec
