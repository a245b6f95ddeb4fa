#include "aovsession/SessionReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Zstd.h"

#include "kelo_aov.h"

namespace aovrec {
namespace {

std::string number(uint64_t v) {
    return std::to_string(v);
}

}  // namespace

bool FileSource::open(const std::string& path, std::string* why) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        *why = path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

FileSource::~FileSource() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

long FileSource::read(void* to, size_t size) {
    for (;;) {
        const ssize_t n = ::read(fd_, to, size);
        if (n >= 0 || errno != EINTR) {
            return static_cast<long>(n);
        }
    }
}

long MemorySource::read(void* to, size_t size) {
    const size_t n = size < size_ - pos_ ? size : size_ - pos_;
    if (n > 0) {
        std::memcpy(to, data_ + pos_, n);
    }
    pos_ += n;
    return static_cast<long>(n);
}

const char* recordTypeName(RecordType type) {
    switch (type) {
        case RecordType::kOpen:
            return "open";
        case RecordType::kClose:
            return "close";
        case RecordType::kIoctl:
            return "ioctl";
        case RecordType::kPoll:
            return "poll";
        case RecordType::kEpollCtl:
            return "epoll_ctl";
        case RecordType::kEpollWait:
            return "epoll_wait";
    }
    return "?";
}

SessionReader::SessionReader(ByteSource& source) : source_(source) {}

SessionReader::~SessionReader() {
#if AOV_REC_HAVE_ZSTD
    ZSTD_freeDCtx(static_cast<ZSTD_DCtx*>(dctx_));
#endif
}

long SessionReader::readFully(void* to, size_t size) {
    size_t got = 0;
    auto* bytes = static_cast<uint8_t*>(to);
    while (got < size) {
        const long n = source_.read(bytes + got, size - got);
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    offset_ += got;
    return static_cast<long>(got);
}

SessionReader::Next SessionReader::fail(Next kind, const std::string& what) {
    error_ = what;
    done_ = true;
    return kind;
}

bool SessionReader::start() {
    uint8_t bytes[kHeaderSize];
    const long got = readFully(bytes, sizeof(bytes));
    if (got < 0) {
        error_ = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    if (got >= static_cast<long>(sizeof(kMagic)) &&
        std::memcmp(bytes, kMagic, sizeof(kMagic)) != 0) {
        error_ = "not a session file (no AOVREC header)";
        return false;
    }
    if (got < static_cast<long>(sizeof(bytes))) {
        error_ = "cut off in the header (" + number(static_cast<uint64_t>(got)) + " of " +
                 number(kHeaderSize) + " bytes)";
        return false;
    }
    switch (decodeHeader(bytes, &header_)) {
        case HeaderCheck::kOk:
            break;
        case HeaderCheck::kBadMagic:
            error_ = "not a session file (no AOVREC header)";
            return false;
        case HeaderCheck::kBadCrc:
            error_ = "the header's checksum does not match";
            return false;
        case HeaderCheck::kBadVersion:
            error_ = "format version " + number(bytes[8] | (bytes[9] << 8)) +
                     " is not supported (this aov-rec reads version " + number(kVersion) + ")";
            return false;
        case HeaderCheck::kBadField:
            error_ = "the header has a field out of range";
            return false;
    }
#if !AOV_REC_HAVE_ZSTD
    if (header_.compression == Compression::kZstd) {
        error_ = "the file is compressed with zstd, which this build cannot read";
        return false;
    }
#endif
    return true;
}

SessionReader::Next SessionReader::next(Record* out) {
    if (done_) {
        return Next::kEnd;
    }
    const uint64_t at = offset_;
    const std::string where = "record " + number(records_) + " at byte " + number(at) + ": ";
    uint8_t head[kFrameHeaderSize];
    const long got = readFully(head, sizeof(head));
    if (got < 0) {
        return fail(Next::kBad, where + "cannot read: " + std::strerror(errno));
    }
    if (got == 0) {
        done_ = true;
        return Next::kEnd;
    }
    if (got < static_cast<long>(sizeof(head))) {
        return fail(Next::kCut, where + "cut off in the frame header (" +
                                    number(static_cast<uint64_t>(got)) + " of " +
                                    number(kFrameHeaderSize) + " bytes)");
    }
    const FrameHeader frame = decodeFrameHeader(head);
    if (frame.raw_len > kMaxPayload) {
        return fail(Next::kBad, where + "payload of " + number(frame.raw_len) +
                                    " bytes over the limit of " + number(kMaxPayload));
    }
    if ((frame.flags & ~kFrameZstd) != 0 ||
        ((frame.flags & kFrameZstd) == 0 && frame.stored_len != frame.raw_len) ||
        ((frame.flags & kFrameZstd) != 0 && frame.stored_len >= frame.raw_len)) {
        return fail(Next::kBad, where + "inconsistent frame header");
    }
    stored_.resize(frame.stored_len);
    const long body = readFully(stored_.data(), frame.stored_len);
    if (body < 0) {
        return fail(Next::kBad, where + "cannot read: " + std::strerror(errno));
    }
    if (body < static_cast<long>(frame.stored_len)) {
        return fail(Next::kCut, where + "cut off (" + number(static_cast<uint64_t>(body)) + " of " +
                                    number(frame.stored_len) + " payload bytes)");
    }
    if (frameCheck(head, stored_.data(), frame.stored_len) != frame.check) {
        return fail(Next::kBad, where + "checksum mismatch");
    }
    const uint8_t* payload = stored_.data();
    if ((frame.flags & kFrameZstd) != 0) {
#if AOV_REC_HAVE_ZSTD
        if (header_.compression != Compression::kZstd) {
            return fail(Next::kBad, where + "compressed in a file that says it is not");
        }
        if (dctx_ == nullptr) {
            dctx_ = ZSTD_createDCtx();
        }
        raw_.resize(frame.raw_len);
        const unsigned long long declared =
            ZSTD_getFrameContentSize(stored_.data(), frame.stored_len);
        const size_t n = dctx_ == nullptr || declared != frame.raw_len
                             ? 0
                             : ZSTD_decompressDCtx(static_cast<ZSTD_DCtx*>(dctx_), raw_.data(),
                                                   raw_.size(), stored_.data(), frame.stored_len);
        if (dctx_ == nullptr || declared != frame.raw_len || ZSTD_isError(n) ||
            n != frame.raw_len) {
            return fail(Next::kBad, where + "its zstd frame does not decode to " +
                                        number(frame.raw_len) + " bytes");
        }
        payload = raw_.data();
#else
        return fail(Next::kBad, where + "compressed, and this build has no zstd");
#endif
    }
    if (frame.type == 0 || frame.type > kLastRecordType) {
        return fail(Next::kBad, where + "unknown record type " + number(frame.type));
    }
    // Nothing of the previous record may show through a record of another type.
    *out = Record{};
    out->index = records_;
    out->offset = at;
    if (!decode(frame.type, payload, frame.raw_len, out)) {
        return fail(
            Next::kBad,
            where + "malformed " + recordTypeName(static_cast<RecordType>(frame.type)) + " record");
    }
    ++records_;
    return Next::kRecord;
}

bool SessionReader::decode(uint16_t type, const uint8_t* payload, size_t size, Record* out) {
    ByteReader in(payload, size);
    out->type = static_cast<RecordType>(type);
    out->call = getCall(in);
    out->area_count = 0;
    out->entry_count = 0;
    switch (out->type) {
        case RecordType::kOpen: {
            out->open_flags = in.u32();
            out->open_mode = in.u32();
            const uint16_t length = in.u16();
            if (length > kMaxPath) {
                return false;
            }
            const uint8_t* path = in.bytes(length);
            if (path == nullptr) {
                return false;
            }
            out->path.assign(reinterpret_cast<const char*>(path), length);
            break;
        }
        case RecordType::kClose:
            break;
        case RecordType::kIoctl: {
            out->request = in.u32();
            out->arg_flags = in.u8();
            const uint8_t areas = in.u8();
            out->sent_len = in.u16();
            out->back_len = in.u16();
            if (areas > kSections || out->sent_len > kMaxArgBytes || out->back_len > kMaxArgBytes ||
                (out->arg_flags & ~static_cast<unsigned>(kArgFlagsKnown)) != 0) {
                return false;
            }
            out->sent = in.bytes(out->sent_len);
            out->back = in.bytes(out->back_len);
            uint32_t seen = 0;
            for (uint8_t i = 0; i < areas && in.ok(); ++i) {
                AreaView& area = out->areas[i];
                area.section = in.u8();
                const uint8_t pad[3] = {in.u8(), in.u8(), in.u8()};
                area.length = in.u32();
                if (area.section < 1 || area.section > kSections ||
                    (seen & (1u << area.section)) != 0 || pad[0] != 0 || pad[1] != 0 ||
                    pad[2] != 0 || area.length > aov_event_sections[area.section - 1].data_size) {
                    return false;
                }
                seen |= 1u << area.section;
                area.data = in.bytes(area.length);
            }
            out->area_count = areas;
            break;
        }
        case RecordType::kPoll:
        case RecordType::kEpollWait: {
            const uint8_t kind = in.u8();
            const uint8_t pad = in.u8();
            const uint16_t count = in.u16();
            out->timeout_ms = in.i32();
            if (kind > kLastWaitKind || pad != 0 || count > kMaxWaitEntries) {
                return false;
            }
            out->wait_kind = static_cast<WaitKind>(kind);
            for (uint16_t i = 0; i < count; ++i) {
                out->entries[i].fd = in.i32();
                out->entries[i].events = in.u32();
                out->entries[i].revents = in.u32();
            }
            out->entry_count = count;
            break;
        }
        case RecordType::kEpollCtl:
            out->ctl_op = in.i32();
            out->ctl_fd = in.i32();
            out->ctl_events = in.u32();
            out->ctl_data = in.u64();
            break;
    }
    return in.ok() && in.left() == 0;
}

}  // namespace aovrec
