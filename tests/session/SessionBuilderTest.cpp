// Sessions composed call by call read back as the recorder writes them: each
// call's fields at the builder's clock, a failed request without what it
// would have returned, and a record too large for a payload.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "aovsession/SessionBuilder.h"
#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

namespace {

using aovrec::Compression;
using aovrec::ContentMode;
using aovrec::Record;
using aovrec::RecordType;
using aovrec::SessionBuilder;
using aovrec::SessionReader;
using Bytes = std::vector<uint8_t>;

// A record with copies of what it points to, which the reader reuses.
struct ReadBack {
    Record record;
    Bytes sent;
    Bytes back;
    Bytes area;
};

std::vector<ReadBack> readBack(int fd, aovrec::FileHeader* header) {
    Bytes file(static_cast<size_t>(::lseek(fd, 0, SEEK_END)));
    EXPECT_EQ(::pread(fd, file.data(), file.size(), 0), static_cast<ssize_t>(file.size()));
    aovrec::MemorySource source(file.data(), file.size());
    SessionReader reader(source);
    std::vector<ReadBack> out;
    if (!reader.start()) {
        ADD_FAILURE() << reader.error();
        return out;
    }
    *header = reader.header();
    Record r;
    SessionReader::Next next;
    while ((next = reader.next(&r)) == SessionReader::Next::kRecord) {
        ReadBack read{
            r, Bytes(r.sent, r.sent + r.sent_len), Bytes(r.back, r.back + r.back_len), {}};
        if (r.area_count > 0) {
            read.area.assign(r.areas[0].data, r.areas[0].data + r.areas[0].length);
        }
        out.push_back(read);
    }
    EXPECT_EQ(next, SessionReader::Next::kEnd) << reader.error();
    return out;
}

int memoryFile() {
    const int fd = ::memfd_create("session", MFD_CLOEXEC);
    EXPECT_GE(fd, 0) << "memfd_create: " << errno;
    return fd;
}

TEST(SessionBuilderTest, EachCallReadsBackAsComposedAtTheBuildersClock) {
    const int fd = memoryFile();
    ASSERT_GE(fd, 0);
    SessionBuilder b(fd, ContentMode::kAll, Compression::kNone);
    ASSERT_TRUE(b.ok());
    const uint8_t list[8] = {1, 0, 0, 0, 2, 0, 0, 0};
    const uint8_t words[4] = {7, 6, 5, 4};
    const uint8_t data[3] = {0xA, 0xB, 0xC};
    const SessionBuilder::Area area{4, data, sizeof(data)};
    b.open("/dev/kelo_aov", O_RDWR, 3);
    b.advance(250);
    b.ioctl(3, AOV_IOC_DEQUEUE_EVENT, list, sizeof(list), 0, words, sizeof(words), &area, 1);
    // A failed call returns nothing: its record and areas are not kept.
    b.ioctl(3, AOV_IOC_DEQUEUE_EVENT, list, sizeof(list), -EIO, words, sizeof(words), &area, 1,
            aovrec::kArgContentDropped);
    b.ioctl(3, AOV_IOC_STOP, nullptr, 16, 0);
    b.close(3, -EINTR);
    ASSERT_TRUE(b.ok());

    aovrec::FileHeader header;
    const std::vector<ReadBack> got = readBack(fd, &header);
    ::close(fd);
    EXPECT_EQ(header.content, ContentMode::kAll);
    EXPECT_EQ(header.compression, Compression::kNone);
    EXPECT_EQ(header.start_ns, 1000u);
    EXPECT_EQ(header.pid, static_cast<uint32_t>(::getpid()));
    ASSERT_EQ(got.size(), 5u);

    const Record& open = got[0].record;
    EXPECT_EQ(open.type, RecordType::kOpen);
    EXPECT_EQ(open.call.begin_ns, 1000u);
    EXPECT_EQ(open.call.end_ns, 2000u);
    EXPECT_EQ(open.call.tid, static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(open.call.fd, -100);  // AT_FDCWD
    EXPECT_EQ(open.call.result, 3);
    EXPECT_EQ(open.call.err, 0);
    EXPECT_EQ(open.path, "/dev/kelo_aov");
    EXPECT_EQ(open.open_flags, static_cast<uint32_t>(O_RDWR));
    EXPECT_EQ(open.open_mode, 0u);

    const Record& dequeue = got[1].record;
    EXPECT_EQ(dequeue.type, RecordType::kIoctl);
    EXPECT_EQ(dequeue.call.begin_ns, 1250u);
    EXPECT_EQ(dequeue.call.end_ns, 2250u);
    EXPECT_EQ(dequeue.call.fd, 3);
    EXPECT_EQ(dequeue.call.result, 0);
    EXPECT_EQ(dequeue.call.err, 0);
    EXPECT_EQ(dequeue.request, AOV_IOC_DEQUEUE_EVENT);
    EXPECT_EQ(dequeue.arg_flags, 0u);
    EXPECT_EQ(got[1].sent, Bytes(list, list + sizeof(list)));
    EXPECT_EQ(got[1].back, Bytes(words, words + sizeof(words)));
    ASSERT_EQ(dequeue.area_count, 1u);
    EXPECT_EQ(dequeue.areas[0].section, 4u);
    EXPECT_EQ(got[1].area, Bytes(data, data + sizeof(data)));

    const Record& failed = got[2].record;
    EXPECT_EQ(failed.call.result, -1);
    EXPECT_EQ(failed.call.err, EIO);
    EXPECT_EQ(failed.arg_flags, aovrec::kArgContentDropped);
    EXPECT_EQ(got[2].sent, Bytes(list, list + sizeof(list)));
    EXPECT_EQ(failed.back_len, 0u);
    EXPECT_EQ(failed.area_count, 0u);

    const Record& stop = got[3].record;
    EXPECT_EQ(stop.request, AOV_IOC_STOP);
    EXPECT_EQ(stop.arg_flags, aovrec::kArgNull);
    EXPECT_EQ(stop.sent_len, 0u);
    EXPECT_EQ(stop.back_len, 0u);
    EXPECT_EQ(stop.area_count, 0u);

    const Record& close = got[4].record;
    EXPECT_EQ(close.type, RecordType::kClose);
    EXPECT_EQ(close.call.fd, 3);
    EXPECT_EQ(close.call.result, -1);
    EXPECT_EQ(close.call.err, EINTR);
}

// The record is not written, the builder says so, and the file keeps its header alone.
TEST(SessionBuilderTest, ARecordTooLargeForAPayloadIsNotWrittenAndTheBuilderIsNotOk) {
    const std::string path(aovrec::kMaxPayload, 'p');
    for (const bool as_open : {true, false}) {
        const int fd = memoryFile();
        ASSERT_GE(fd, 0);
        SessionBuilder b(fd, ContentMode::kWritten, Compression::kNone);
        ASSERT_TRUE(b.ok());
        if (as_open) {
            b.open(path.c_str(), O_RDWR, 3);
        } else {
            b.ioctl(3, AOV_IOC_START, path.data(), path.size(), 0);
        }
        EXPECT_FALSE(b.ok()) << (as_open ? "open" : "ioctl");
        EXPECT_EQ(::lseek(fd, 0, SEEK_END), static_cast<off_t>(aovrec::kHeaderSize))
            << (as_open ? "open" : "ioctl");
        ::close(fd);
    }
}

}  // namespace
