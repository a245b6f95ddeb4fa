// The session file through the recorder's core and back through the reader:
// what each call leaves in the file, content modes, a file cut at every
// byte, and files whose lengths and fields lie.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Recorder.h"
#include "SessionReader.h"
#include "SessionWriter.h"
#include "kelo_aov.h"

namespace {

using aovrec::ContentMode;
using aovrec::Record;
using aovrec::RecordType;
using aovrec::SessionReader;

constexpr char kNode[] = "/aov-rec-test/kelo_aov";

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(text.data()),
                                reinterpret_cast<const uint8_t*>(text.data()) + text.size());
}

// A recording by the core into a file of its own, with the node's calls
// made by the test on descriptors of /dev/null.
class Recording {
  public:
    explicit Recording(ContentMode mode, bool compress = true, std::string path = "") {
        static int serial = 0;
        path_ = path.empty() ? ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_" +
                                   std::to_string(++serial) + ".rec"
                             : path;
        aovrec::RecorderConfig config;
        config.file = path_.c_str();
        config.content = mode;
        config.compress = compress;
        config.node = kNode;
        aovrec::configure(config);
    }
    ~Recording() {
        aovrec::configure(aovrec::RecorderConfig{});
        ::unlink(path_.c_str());
    }
    int openNode() {
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
        return fd;
    }
    void closeNode(int fd) {
        EXPECT_TRUE(aovrec::forgetOnClose(fd));
        const int result = ::close(fd);
        aovrec::recordClose(aovrec::monotonicNs(), fd, result, errno);
    }
    std::vector<Record> read(SessionReader::Next* last = nullptr) {
        EXPECT_TRUE(aovrec::drain()) << "the writer thread did not finish within its limit";
        bytes_ = readFile(path_);
        source_ = std::make_unique<aovrec::MemorySource>(bytes_.data(), bytes_.size());
        reader_ = std::make_unique<SessionReader>(*source_);
        std::vector<Record> records;
        EXPECT_TRUE(reader_->start()) << reader_->error();
        Record r;
        SessionReader::Next next;
        while ((next = reader_->next(&r)) == SessionReader::Next::Record) {
            records.push_back(keep(r));
        }
        if (last != nullptr) {
            *last = next;
        }
        return records;
    }
    // A record's bytes are the reader's until its next record: copies them.
    Record keep(Record r) {
        auto own = [this](const uint8_t* data, size_t size) -> const uint8_t* {
            kept_.emplace_back(data, data + size);
            return kept_.back().data();
        };
        r.sent = own(r.sent, r.sent_len);
        r.back = own(r.back, r.back_len);
        for (uint8_t i = 0; i < r.area_count; ++i) {
            r.areas[i].data = own(r.areas[i].data, r.areas[i].length);
        }
        return r;
    }
    const std::string& path() const { return path_; }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

  private:
    std::string path_;
    std::vector<uint8_t> bytes_;
    std::unique_ptr<aovrec::MemorySource> source_;
    std::unique_ptr<SessionReader> reader_;
    std::deque<std::vector<uint8_t>> kept_;
};

// A driver that answers a dequeue at once: section s (1-based) reports
// s * 100 bytes written and gets them, section 4 reports more than its area
// holds and section 7 nothing.
int answerDequeue(int, unsigned long request, void* arg) {
    if (request != AOV_IOC_DEQUEUE_EVENT) {
        errno = ENOTTY;
        return -1;
    }
    auto* query = static_cast<aov_event_query*>(arg);
    for (uint32_t i = 0; i < 6; ++i) {
        query->header[i] = 10 + i;
    }
    for (size_t s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        auto* base = reinterpret_cast<uint8_t*>(query);
        uint32_t bytes = static_cast<uint32_t>((s + 1) * 100);
        if (s == 3) {
            bytes = section.data_size + 10;
        } else if (s == 6) {
            bytes = 0;
        }
        std::memcpy(base + section.query_info_offset, &bytes, sizeof(bytes));
        void* area;
        std::memcpy(&area, base + section.query_addr_offset, sizeof(area));
        if (area != nullptr && bytes > 0 && s != 2) {
            std::memset(area, static_cast<int>(0x40 + s), std::min(bytes, section.data_size));
        }
    }
    return 0;
}

int failWithEio(int, unsigned long, void*) {
    errno = EIO;
    return -1;
}

// An event buffer and a dequeue record pointing into it, as the library builds them.
struct Dequeue {
    Dequeue() : buffer(sizeof(aov_event), 0) {
        for (const aov_section_desc& section : aov_event_sections) {
            void* area = buffer.data() + section.data_offset;
            std::memcpy(reinterpret_cast<uint8_t*>(&query) + section.query_addr_offset, &area,
                        sizeof(area));
        }
    }
    std::vector<uint8_t> buffer;
    aov_event_query query{};
};

uint32_t word(const uint8_t* bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes + offset, sizeof(v));
    return v;
}

class SessionRoundTrip : public ::testing::TestWithParam<bool> {};

TEST_P(SessionRoundTrip, EveryCallComesBackAsMadeWithItsResultAndErrno) {
    Recording rec(ContentMode::Written, GetParam());
    const int fd = rec.openNode();
    ASSERT_GE(fd, 0);

    uint8_t start[AOV_START_RECORD_SIZE];
    for (size_t i = 0; i < sizeof(start); ++i) {
        start[i] = static_cast<uint8_t>(i * 3);
    }
    errno = 0;
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_START, start), -1);
    EXPECT_EQ(errno, EIO) << "the caller sees the driver's errno";

    Dequeue dq;
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_STOP, nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);

    pollfd fds[2] = {{0, POLLIN, 0}, {fd, POLLIN, POLLIN}};
    errno = EAGAIN;
    aovrec::recordPoll(aovrec::WaitKind::Ppoll, aovrec::monotonicNs(), fds, 2, 25, 1, EAGAIN);
    EXPECT_EQ(errno, EAGAIN);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = 0xABCD;
    aovrec::recordEpollCtl(aovrec::monotonicNs(), 99, EPOLL_CTL_ADD, fd, &ev, 0, 0);
    EXPECT_TRUE(aovrec::fdHas(99, aovrec::kFdEpoll));
    epoll_event got[2] = {};
    got[0].data.u64 = 0x1111;  // another descriptor's
    got[1].events = EPOLLIN;
    got[1].data.u64 = 0xABCD;
    aovrec::recordEpollWait(aovrec::WaitKind::EpollWait, aovrec::monotonicNs(), 99, got, -1, 2, 0);
    EXPECT_FALSE(aovrec::forgetOnClose(99)) << "an epoll descriptor is not the node";
    EXPECT_FALSE(aovrec::fdHas(99, aovrec::kFdEpoll));
    rec.closeNode(fd);
    EXPECT_FALSE(aovrec::fdHas(fd, aovrec::kFdNode));

    SessionReader::Next last;
    const std::vector<Record> r = rec.read(&last);
    EXPECT_EQ(last, SessionReader::Next::End);
    ASSERT_EQ(r.size(), 8u);
    EXPECT_EQ(aovrec::stats().written, 8u);

    EXPECT_EQ(r[0].type, RecordType::Open);
    EXPECT_EQ(r[0].path, kNode);
    EXPECT_EQ(r[0].call.result, fd);
    EXPECT_EQ(r[0].open_flags, static_cast<uint32_t>(O_RDWR));

    EXPECT_EQ(r[1].type, RecordType::Ioctl);
    EXPECT_EQ(r[1].request, AOV_IOC_START);
    EXPECT_EQ(r[1].call.result, -1);
    EXPECT_EQ(r[1].call.err, EIO);
    ASSERT_EQ(r[1].sent_len, sizeof(start));
    EXPECT_EQ(std::memcmp(r[1].sent, start, sizeof(start)), 0);
    EXPECT_EQ(r[1].back_len, 0u) << "a write-only request has no answer record";
    EXPECT_LE(r[1].call.begin_ns, r[1].call.end_ns);

    const Record& d = r[2];
    EXPECT_EQ(d.request, AOV_IOC_DEQUEUE_EVENT);
    EXPECT_EQ(d.call.result, 0);
    ASSERT_EQ(d.sent_len, sizeof(aov_event_query));
    EXPECT_EQ(word(d.sent, 0), 0u) << "the record as sent: zero words, then the driver's";
    ASSERT_EQ(d.back_len, sizeof(aov_event_query));
    EXPECT_EQ(word(d.back, 0), 10u);
    EXPECT_EQ(word(d.back, 20), 15u);
    // Sections whose first info word is not zero, that many bytes, the
    // fourth capped at its area; section 3 was reported but not written.
    ASSERT_EQ(d.area_count, 9);
    for (uint8_t i = 0; i < d.area_count; ++i) {
        const aovrec::AreaView& a = d.areas[i];
        const size_t s = a.section - 1u;
        EXPECT_NE(s, 6u);
        const uint32_t expect =
            s == 3 ? aov_event_sections[3].data_size : static_cast<uint32_t>((s + 1) * 100);
        EXPECT_EQ(a.length, expect) << "section " << s + 1;
        EXPECT_EQ(
            std::memcmp(a.data, dq.buffer.data() + aov_event_sections[s].data_offset, a.length), 0)
            << "section " << s + 1;
    }

    EXPECT_EQ(r[3].request, AOV_IOC_STOP);
    EXPECT_EQ(r[3].arg_flags, aovrec::kArgNull);
    EXPECT_EQ(r[3].call.err, ENOTTY);

    EXPECT_EQ(r[4].type, RecordType::Poll);
    EXPECT_EQ(r[4].wait_kind, aovrec::WaitKind::Ppoll);
    EXPECT_EQ(r[4].timeout_ms, 25);
    ASSERT_EQ(r[4].entry_count, 1u) << "only the node's entry";
    EXPECT_EQ(r[4].entries[0].fd, fd);
    EXPECT_EQ(r[4].entries[0].revents, static_cast<uint32_t>(POLLIN));

    EXPECT_EQ(r[5].type, RecordType::EpollCtl);
    EXPECT_EQ(r[5].ctl_fd, fd);
    EXPECT_EQ(r[5].ctl_data, 0xABCDu);

    EXPECT_EQ(r[6].type, RecordType::EpollWait);
    ASSERT_EQ(r[6].entry_count, 1u);
    EXPECT_EQ(r[6].entries[0].fd, fd);
    EXPECT_EQ(r[6].entries[0].revents, static_cast<uint32_t>(EPOLLIN));

    EXPECT_EQ(r[7].type, RecordType::Close);
    EXPECT_EQ(r[7].call.fd, fd);
}

INSTANTIATE_TEST_SUITE_P(SessionFile, SessionRoundTrip, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Zstd" : "Uncompressed";
                         });

TEST(SessionFile, ContentModesKeepAllAreasTheWrittenOnesOrNone) {
    struct Case {
        ContentMode mode;
        uint8_t areas;
        uint32_t first_area;
    };
    for (const Case c : {Case{ContentMode::All, 10, aov_event_sections[0].data_size},
                         Case{ContentMode::Written, 9, 100}, Case{ContentMode::None, 0, 0}}) {
        Recording rec(c.mode);
        const int fd = rec.openNode();
        Dequeue dq;
        ASSERT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
        rec.closeNode(fd);
        const std::vector<Record> r = rec.read();
        ASSERT_EQ(r.size(), 3u);
        EXPECT_EQ(r[1].area_count, c.areas) << aovrec::contentModeName(c.mode);
        if (c.areas > 0) {
            EXPECT_EQ(r[1].areas[0].length, c.first_area);
        }
        EXPECT_EQ(r[1].back_len, sizeof(aov_event_query)) << "words are kept in every mode";
    }
}

TEST(SessionFile, MemoryThatCannotBeReadIsLeftOutAndTheCallStillHappens) {
    Recording rec(ContentMode::Written);
    const int fd = rec.openNode();
    void* hole = ::mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_START, hole), -1);
    EXPECT_EQ(errno, EIO);
    Dequeue dq;
    // Section 3's area cannot be read; the driver reports 300 bytes in it.
    std::memcpy(reinterpret_cast<uint8_t*>(&dq.query) + aov_event_sections[2].query_addr_offset,
                &hole, sizeof(hole));
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    rec.closeNode(fd);
    ::munmap(hole, 1 << 20);

    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[1].arg_flags, aovrec::kArgUnreadable);
    EXPECT_EQ(r[1].sent_len, 0u);
    EXPECT_EQ(r[2].area_count, 8);
    for (uint8_t i = 0; i < r[2].area_count; ++i) {
        EXPECT_NE(r[2].areas[i].section, 3);
    }
}

TEST(SessionFile, AFileThatCannotBeWrittenStopsTheRecordingButNotTheCalls) {
    Recording rec(ContentMode::Written, true, "/nonexistent-dir/session.rec");
    const int fd = rec.openNode();
    EXPECT_TRUE(aovrec::stats().failed);
    EXPECT_FALSE(aovrec::g_armed.load());
    Dequeue dq;
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    EXPECT_EQ(dq.query.header[0], 10u);
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    ::close(fd);
    aovrec::forgetOnClose(fd);
}

// A small file of a few records, some compressed.
std::vector<uint8_t> smallSession(std::vector<uint64_t>* frame_ends) {
    Recording rec(ContentMode::Written);
    const int fd = rec.openNode();
    Dequeue dq;
    aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query);
    aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    for (size_t i = 1; i < r.size(); ++i) {
        frame_ends->push_back(r[i].offset);
    }
    frame_ends->push_back(rec.bytes().size());
    return rec.bytes();
}

TEST(SessionFile, ACutFileReadsUpToItsLastWholeRecordWhereverItIsCut) {
    std::vector<uint64_t> ends;
    const std::vector<uint8_t> file = smallSession(&ends);
    ASSERT_EQ(ends.size(), 4u);
    for (size_t cut = 0; cut <= file.size(); ++cut) {
        aovrec::MemorySource source(file.data(), cut);
        SessionReader reader(source);
        if (cut < aovrec::kHeaderSize) {
            EXPECT_FALSE(reader.start()) << cut;
            continue;
        }
        ASSERT_TRUE(reader.start()) << cut;
        Record r;
        SessionReader::Next next;
        uint64_t read = 0;
        while ((next = reader.next(&r)) == SessionReader::Next::Record) {
            ++read;
        }
        uint64_t whole = 0;
        bool at_boundary = cut == aovrec::kHeaderSize;
        for (const uint64_t end : ends) {
            whole += end <= cut ? 1 : 0;
            at_boundary = at_boundary || end == cut;
        }
        EXPECT_EQ(read, whole) << "cut at " << cut;
        EXPECT_EQ(next, at_boundary ? SessionReader::Next::End : SessionReader::Next::Cut)
            << "cut at " << cut << ": " << reader.error();
    }
}

// A frame with a correct checksum around whatever the test puts in it.
std::vector<uint8_t> frame(uint16_t type, const std::vector<uint8_t>& stored, uint32_t raw_len,
                           uint16_t flags = 0) {
    aovrec::FrameHeader h;
    h.stored_len = static_cast<uint32_t>(stored.size());
    h.raw_len = raw_len;
    h.type = type;
    h.flags = flags;
    uint8_t head[aovrec::kFrameHeaderSize];
    aovrec::encodeFrameHeader(h, head);
    h.check = aovrec::frameCheck(head, stored.data(), stored.size());
    aovrec::encodeFrameHeader(h, head);
    std::vector<uint8_t> out(head, head + sizeof(head));
    out.insert(out.end(), stored.begin(), stored.end());
    return out;
}

std::vector<uint8_t> header(uint16_t version = aovrec::kVersion) {
    aovrec::FileHeader h;
    h.compression = aovrec::Compression::Zstd;
    uint8_t bytes[aovrec::kHeaderSize];
    aovrec::encodeHeader(h, bytes);
    bytes[8] = static_cast<uint8_t>(version);
    const uint32_t crc = aovrec::crc32(bytes, 28);
    std::memcpy(bytes + 28, &crc, 4);
    return std::vector<uint8_t>(bytes, bytes + sizeof(bytes));
}

// The reader's verdict on a file: the error of its first bad record.
std::string verdict(const std::vector<uint8_t>& file, SessionReader::Next* next) {
    aovrec::MemorySource source(file.data(), file.size());
    SessionReader reader(source);
    if (!reader.start()) {
        *next = SessionReader::Next::Bad;
        return reader.error();
    }
    Record r;
    while ((*next = reader.next(&r)) == SessionReader::Next::Record) {
    }
    return reader.error();
}

std::vector<uint8_t> ioctlPayload(uint8_t area_count, uint8_t section, uint32_t area_len) {
    std::vector<uint8_t> p(aovrec::kCallInfoSize + 10, 0);
    p[aovrec::kCallInfoSize + 5] = area_count;
    for (uint8_t i = 0; i < area_count; ++i) {
        const uint8_t head[8] = {section,
                                 0,
                                 0,
                                 0,
                                 static_cast<uint8_t>(area_len),
                                 static_cast<uint8_t>(area_len >> 8),
                                 static_cast<uint8_t>(area_len >> 16),
                                 static_cast<uint8_t>(area_len >> 24)};
        p.insert(p.end(), head, head + 8);
    }
    return p;
}

TEST(SessionFile, HostileFilesAreRefusedWithAReasonAndBoundedWork) {
    struct Case {
        const char* name;
        std::vector<uint8_t> body;  // after a good header
        const char* reason;
    };
    std::vector<uint8_t> bad_crc = frame(2, std::vector<uint8_t>(aovrec::kCallInfoSize), 32);
    bad_crc.back() ^= 1;
    const std::vector<Case> cases = {
        {"a length of 4 GiB", frame(2, {}, 0xFFFFFFFFu), "over the limit"},
        {"a raw length that differs from the stored one", frame(2, {1, 2, 3}, 4),
         "inconsistent frame header"},
        {"a compressed frame no smaller than its content", frame(2, {1, 2, 3}, 3, 1),
         "inconsistent frame header"},
        {"a compressed frame that is not zstd", frame(2, {1, 2, 3}, 4000, 1), "does not decode"},
        {"an unknown flag", frame(2, {}, 0, 8), "inconsistent frame header"},
        {"a damaged payload", bad_crc, "checksum mismatch"},
        {"an unknown record type", frame(99, {}, 0), "unknown record type 99"},
        {"a record shorter than its call", frame(2, {1, 2}, 2), "malformed close record"},
        {"eleven areas", frame(3, ioctlPayload(11, 1, 0), 130), "malformed ioctl record"},
        {"an area larger than its section", frame(3, ioctlPayload(1, 8, 1025), 50),
         "malformed ioctl record"},
        {"an area of section 11", frame(3, ioctlPayload(1, 11, 0), 50), "malformed ioctl record"},
        {"an area longer than the record", frame(3, ioctlPayload(1, 1, 100), 50),
         "malformed ioctl record"},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> file = header();
        file.insert(file.end(), c.body.begin(), c.body.end());
        SessionReader::Next next;
        const std::string why = verdict(file, &next);
        EXPECT_EQ(next, SessionReader::Next::Bad) << c.name;
        EXPECT_NE(why.find(c.reason), std::string::npos) << c.name << ": " << why;
        EXPECT_EQ(why.find('\n'), std::string::npos) << c.name;
    }
}

TEST(SessionFile, AZstdFrameThatClaimsMoreThanTheRecordSaysIsRefused) {
    if (!aovrec::SessionWriter::zstdAvailable()) {
        GTEST_SKIP() << "built without zstd";
    }
    // A real record of 64 KiB compressed; the frame header says 60 KiB.
    std::vector<uint8_t> work(aovrec::SessionWriter::workBytes());
    char path[] = "/tmp/aovrec_zstd_XXXXXX";
    const int fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    aovrec::SessionWriter writer;
    aovrec::FileHeader h;
    h.compression = aovrec::Compression::Zstd;
    ASSERT_TRUE(writer.begin(fd, h, work.data(), work.size()));
    std::vector<uint8_t> payload(64 * 1024, 0);
    ASSERT_TRUE(writer.write(RecordType::Close, payload.data(), payload.size()));
    ::close(fd);
    std::vector<uint8_t> file = readFile(path);
    ::unlink(path);
    ASSERT_GT(file.size(), aovrec::kHeaderSize + aovrec::kFrameHeaderSize);
    aovrec::FrameHeader f = aovrec::decodeFrameHeader(file.data() + aovrec::kHeaderSize);
    ASSERT_EQ(f.flags, aovrec::kFrameZstd);
    const std::vector<uint8_t> stored(file.begin() + aovrec::kHeaderSize + 16, file.end());
    std::vector<uint8_t> lying = header();
    const std::vector<uint8_t> liar = frame(2, stored, 60 * 1024, aovrec::kFrameZstd);
    lying.insert(lying.end(), liar.begin(), liar.end());
    SessionReader::Next next;
    const std::string why = verdict(lying, &next);
    EXPECT_EQ(next, SessionReader::Next::Bad);
    EXPECT_NE(why.find("does not decode to 61440 bytes"), std::string::npos) << why;
}

TEST(SessionFile, HeadersThatAreNotOursSayWhy) {
    std::vector<uint8_t> text(64, 'x');
    SessionReader::Next next;
    EXPECT_NE(verdict(text, &next).find("not a session file"), std::string::npos);
    EXPECT_NE(verdict(header(2), &next).find("format version 2 is not supported"),
              std::string::npos);
    std::vector<uint8_t> damaged = header();
    damaged[20] ^= 1;
    EXPECT_NE(verdict(damaged, &next).find("checksum"), std::string::npos);
    const std::vector<uint8_t> whole = header();
    const std::vector<uint8_t> cut(whole.begin(), whole.begin() + 20);
    EXPECT_NE(verdict(cut, &next).find("cut off in the header (20 of 32 bytes)"),
              std::string::npos);
}

TEST(SessionFile, FrameChecksAreXxh64AsPublished) {
    EXPECT_EQ(aovrec::xxh64("", 0, 0), 0xEF46DB3751D8E999ull);
    EXPECT_EQ(aovrec::xxh64("a", 1, 0), 0xD24EC4F1A98C6E5Bull);
    EXPECT_EQ(aovrec::xxh64("abc", 3, 0), 0x44BC2CF5AD770999ull);
    const char text[] = "Nobody inspects the spammish repetition";
    EXPECT_EQ(aovrec::xxh64(text, sizeof(text) - 1, 0), 0xFBCEA83C8A378BF1ull);
}

TEST(SessionFile, TheWrittenAreaRuleCapsAtTheAreaAndSkipsUnwrittenSections) {
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::Written, 0, 0), 0u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::Written, 0, 5), 5u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::Written, 9, 0xFFFFFFFFu), 1024u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::All, 5, 0), aov_event_sections[5].data_size);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::None, 5, 100), 0u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::All, 10, 0), 0u);
}

}  // namespace
