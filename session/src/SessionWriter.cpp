#include "aovsession/SessionWriter.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "Zstd.h"

namespace aovrec {
namespace {

#if AOV_REC_HAVE_ZSTD
// Payloads below this size are written as they are.
constexpr size_t kCompressFrom = 1024;
// zstd's fastest regular level: recording sits in the caller's path.
constexpr int kZstdLevel = 1;
#endif

bool writeAll(int fd, const iovec* parts, int count, size_t total) {
    const ssize_t n = ::writev(fd, parts, count);
    if (n == static_cast<ssize_t>(total)) {
        return true;
    }
    if (n >= 0) {
        errno = ENOSPC;
    }
    return false;
}

}  // namespace

SessionWriter::~SessionWriter() {
#if AOV_REC_HAVE_ZSTD
    ZSTD_freeCCtx(static_cast<ZSTD_CCtx*>(cctx_));
#endif
}

bool SessionWriter::zstdAvailable() {
    return AOV_REC_HAVE_ZSTD != 0;
}

size_t SessionWriter::workBytes() {
#if AOV_REC_HAVE_ZSTD
    return ZSTD_COMPRESSBOUND(kMaxPayload);
#else
    return 0;
#endif
}

bool SessionWriter::begin(int fd, FileHeader header, uint8_t* work, size_t work_size) {
    fd_ = fd;
    records_.store(0, std::memory_order_relaxed);
    work_ = work;
    work_size_ = work_size;
#if AOV_REC_HAVE_ZSTD
    if (header.compression == Compression::kZstd && cctx_ == nullptr) {
        cctx_ = ZSTD_createCCtx();
        if (cctx_ != nullptr) {
            ZSTD_CCtx_setParameter(static_cast<ZSTD_CCtx*>(cctx_), ZSTD_c_compressionLevel,
                                   kZstdLevel);
            ZSTD_CCtx_setParameter(static_cast<ZSTD_CCtx*>(cctx_), ZSTD_c_contentSizeFlag, 1);
            ZSTD_CCtx_setParameter(static_cast<ZSTD_CCtx*>(cctx_), ZSTD_c_checksumFlag, 0);
        }
    }
#endif
    if (cctx_ == nullptr || work_ == nullptr || work_size_ < workBytes()) {
        header.compression = Compression::kNone;
    }
    header_ = header;
    uint8_t bytes[kHeaderSize];
    encodeHeader(header_, bytes);
    iovec part{bytes, sizeof(bytes)};
    return writeAll(fd_, &part, 1, sizeof(bytes));
}

bool SessionWriter::write(RecordType type, const uint8_t* payload, size_t size) {
    if (size > kMaxPayload) {
        errno = EMSGSIZE;
        return false;
    }
    FrameHeader frame;
    frame.raw_len = static_cast<uint32_t>(size);
    frame.stored_len = static_cast<uint32_t>(size);
    frame.type = static_cast<uint16_t>(type);
    const uint8_t* stored = payload;
#if AOV_REC_HAVE_ZSTD
    if (header_.compression == Compression::kZstd && size >= kCompressFrom) {
        const size_t packed =
            ZSTD_compress2(static_cast<ZSTD_CCtx*>(cctx_), work_, work_size_, payload, size);
        if (!ZSTD_isError(packed) && packed < size) {
            stored = work_;
            frame.stored_len = static_cast<uint32_t>(packed);
            frame.flags = kFrameZstd;
        }
    }
#endif
    uint8_t head[kFrameHeaderSize];
    encodeFrameHeader(frame, head);
    frame.check = frameCheck(head, stored, frame.stored_len);
    encodeFrameHeader(frame, head);
    iovec parts[2] = {{head, sizeof(head)}, {const_cast<uint8_t*>(stored), frame.stored_len}};
    if (!writeAll(fd_, parts, 2, sizeof(head) + frame.stored_len)) {
        return false;
    }
    records_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

}  // namespace aovrec
