#include "aovsession/SessionBuilder.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace aovrec {

SessionBuilder::SessionBuilder(int fd, ContentMode content, Compression compression,
                               uint64_t start_ns)
    : now_ns_(start_ns), work_(SessionWriter::workBytes()), payload_(kMaxPayload) {
    FileHeader header;
    header.content = content;
    header.compression = compression;
    header.start_ns = start_ns;
    header.pid = static_cast<uint32_t>(::getpid());
    ok_ = writer_.begin(fd, header, work_.data(), work_.size());
}

CallInfo SessionBuilder::call(int fd, int result) const {
    CallInfo c;
    c.begin_ns = now_ns_;
    c.end_ns = now_ns_ + 1000;
    c.tid = static_cast<uint32_t>(::getpid());
    c.fd = fd;
    c.result = result < 0 ? -1 : result;
    c.err = result < 0 ? -result : 0;
    return c;
}

void SessionBuilder::open(const char* path, int flags, int result) {
    ByteWriter out(payload_.data(), payload_.size());
    putCall(out, call(-100, result));
    const size_t length = std::strlen(path);
    out.u32(static_cast<uint32_t>(flags));
    out.u32(0);
    out.u16(static_cast<uint16_t>(length));
    out.put(path, length);
    ok_ = ok_ && !out.overflow() && writer_.write(RecordType::kOpen, payload_.data(), out.size());
}

void SessionBuilder::close(int fd, int result) {
    ByteWriter out(payload_.data(), payload_.size());
    putCall(out, call(fd, result));
    ok_ = ok_ && writer_.write(RecordType::kClose, payload_.data(), out.size());
}

void SessionBuilder::ioctl(int fd, uint32_t request, const void* sent, size_t sent_len, int result,
                           const void* back, size_t back_len, const Area* areas, size_t area_count,
                           uint8_t arg_flags) {
    if (result < 0) {
        back_len = 0;
        area_count = 0;
    }
    ByteWriter out(payload_.data(), payload_.size());
    putCall(out, call(fd, result));
    out.u32(request);
    out.u8(static_cast<uint8_t>((sent == nullptr ? kArgNull : 0) | arg_flags));
    out.u8(static_cast<uint8_t>(area_count));
    out.u16(static_cast<uint16_t>(sent == nullptr ? 0 : sent_len));
    out.u16(static_cast<uint16_t>(back_len));
    if (sent != nullptr) {
        out.put(sent, sent_len);
    }
    out.put(back, back_len);
    for (size_t i = 0; i < area_count; ++i) {
        out.u8(areas[i].section);
        out.u8(0);
        out.u16(0);
        out.u32(areas[i].length);
        out.put(areas[i].data, areas[i].length);
    }
    ok_ = ok_ && !out.overflow() && writer_.write(RecordType::kIoctl, payload_.data(), out.size());
}

void SessionBuilder::poll(int fd, uint32_t revents, int result) {
    ByteWriter out(payload_.data(), payload_.size());
    putCall(out, call(-1, result));
    out.u8(static_cast<uint8_t>(WaitKind::kPoll));
    out.u8(0);
    out.u16(1);
    out.u32(static_cast<uint32_t>(-1));  // no time limit
    out.u32(static_cast<uint32_t>(fd));
    out.u32(POLLIN);
    out.u32(revents);
    ok_ = ok_ && !out.overflow() && writer_.write(RecordType::kPoll, payload_.data(), out.size());
}

}  // namespace aovrec
