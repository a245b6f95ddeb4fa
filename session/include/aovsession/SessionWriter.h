#pragma once

// Writes a session file: the header, then each record as one frame in one
// write, compressed with zstd when that is built in, asked for, and smaller.
// No exceptions and no allocation of its own: the caller provides the room
// for compressed frames (workBytes()).

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "aovsession/SessionFormat.h"

namespace aovrec {

class SessionWriter {
  public:
    SessionWriter() = default;
    ~SessionWriter();
    SessionWriter(const SessionWriter&) = delete;
    SessionWriter& operator=(const SessionWriter&) = delete;

    // Whether this build can compress.
    static bool zstdAvailable();
    // Room the writer needs for one compressed payload.
    static size_t workBytes();

    // Starts the file on `fd` (owned by the caller) and writes the header.
    // With compression asked for but unavailable the file is uncompressed.
    // False when the header cannot be written (errno tells why).
    bool begin(int fd, FileHeader header, uint8_t* work, size_t work_size);

    // Frames `payload` and writes it with one system call. False (errno set)
    // when the write fails or falls short; a short write leaves a cut frame
    // that readers stop at.
    bool write(RecordType type, const uint8_t* payload, size_t size);

    const FileHeader& header() const { return header_; }
    // Readable from another thread while the writer's thread writes (a
    // recorder's statistics); the count is all it tells.
    uint64_t records() const { return records_.load(std::memory_order_relaxed); }

  private:
    int fd_ = -1;
    FileHeader header_;
    uint8_t* work_ = nullptr;
    size_t work_size_ = 0;
    void* cctx_ = nullptr;
    std::atomic<uint64_t> records_{0};
};

}  // namespace aovrec
