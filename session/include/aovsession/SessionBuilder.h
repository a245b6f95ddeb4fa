#pragma once

// Composes a session file call by call, for programs that make recordings
// rather than record a process: tests and benchmarks of the tools that read
// them. Payloads are laid out as the recorder lays them out.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "aovsession/SessionWriter.h"

namespace aovrec {

class SessionBuilder {
  public:
    struct Area {
        uint8_t section;  // 1 to 10
        const uint8_t* data;
        uint32_t length;
    };

    // Writes the header to `fd` (owned by the caller); check ok().
    SessionBuilder(int fd, ContentMode content, Compression compression, uint64_t start_ns = 1000);
    bool ok() const { return ok_; }

    // Each call is recorded at the builder's clock, which advance() moves;
    // results below 0 are -errno.
    void advance(uint64_t ns) { now_ns_ += ns; }
    void open(const char* path, int flags, int result);
    void close(int fd, int result);
    // `sent` null: a null argument. `back` is the record after the call
    // (for a dequeue: the driver's words), written only when the call succeeded.
    // `arg_flags` are added to the record's argument flags (kArgContentDropped).
    void ioctl(int fd, uint32_t request, const void* sent, size_t sent_len, int result,
               const void* back = nullptr, size_t back_len = 0, const Area* areas = nullptr,
               size_t area_count = 0, uint8_t arg_flags = 0);

    // A poll(2) of `fd` alone, asking for POLLIN, that saw `revents`.
    void poll(int fd, uint32_t revents, int result);

  private:
    CallInfo call(int fd, int result) const;
    void put(RecordType type);

    bool ok_ = false;
    uint64_t now_ns_;
    SessionWriter writer_;
    std::vector<uint8_t> work_;
    std::vector<uint8_t> payload_;
};

}  // namespace aovrec
