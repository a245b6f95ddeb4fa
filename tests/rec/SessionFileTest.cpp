// The session file through the recorder's core and back through the reader:
// what each call leaves in the file, content modes, a file cut at every
// byte, and files whose lengths and fields lie; the writer thread (order
// while it is busy or blocked, exit, write failure) and when a data area is
// copied directly.

#include <dirent.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "OpenDescriptors.h"
#include "Recorder.h"
#include "WriterQueue.h"
#include "aovsession/SessionReader.h"
#include "aovsession/SessionWriter.h"
#include "kelo_aov.h"

// Built with a sanitizer whose runtime reserves address space of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define AOVREC_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define AOVREC_TEST_SANITIZED 1
#endif
#endif
#ifndef AOVREC_TEST_SANITIZED
#define AOVREC_TEST_SANITIZED 0
#endif

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
    explicit Recording(ContentMode mode, bool compress = true, std::string path = "",
                       int stall_limit_ms = 60000) {
        static int serial = 0;
        path_ = path.empty() ? ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_" +
                                   std::to_string(++serial) + ".rec"
                             : path;
        aovrec::RecorderConfig config;
        config.file = path_.c_str();
        config.content = mode;
        config.compress = compress;
        config.node = kNode;
        config.stall_limit_ms = stall_limit_ms;
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
        while ((next = reader_->next(&r)) == SessionReader::Next::kRecord) {
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
        void* area = aov_query_area(query, static_cast<unsigned>(s));
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
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            aov_query_set_area(&query, s, buffer.data() + aov_event_sections[s].data_offset);
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
    Recording rec(ContentMode::kWritten, GetParam());
    const uint64_t handed_off = aovrec::stats().handed_off;
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
    aovrec::recordPoll(aovrec::WaitKind::kPpoll, aovrec::monotonicNs(), fds, 2, 25, 1, EAGAIN);
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
    aovrec::recordEpollWait(aovrec::WaitKind::kEpollWait, aovrec::monotonicNs(), 99, got, -1, 2, 0);
    EXPECT_FALSE(aovrec::forgetOnClose(99)) << "an epoll descriptor is not the node";
    EXPECT_FALSE(aovrec::fdHas(99, aovrec::kFdEpoll));
    rec.closeNode(fd);
    EXPECT_FALSE(aovrec::fdHas(fd, aovrec::kFdNode));

    SessionReader::Next last;
    const std::vector<Record> r = rec.read(&last);
    EXPECT_EQ(last, SessionReader::Next::kEnd);
    ASSERT_EQ(r.size(), 8u);
    EXPECT_EQ(aovrec::stats().written, 8u);
    EXPECT_EQ(aovrec::stats().handed_off - handed_off, 8u) << "each record is handed over once";

    EXPECT_EQ(r[0].type, RecordType::kOpen);
    EXPECT_EQ(r[0].path, kNode);
    EXPECT_EQ(r[0].call.result, fd);
    EXPECT_EQ(r[0].open_flags, static_cast<uint32_t>(O_RDWR));

    EXPECT_EQ(r[1].type, RecordType::kIoctl);
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

    EXPECT_EQ(r[4].type, RecordType::kPoll);
    EXPECT_EQ(r[4].wait_kind, aovrec::WaitKind::kPpoll);
    EXPECT_EQ(r[4].timeout_ms, 25);
    ASSERT_EQ(r[4].entry_count, 1u) << "only the node's entry";
    EXPECT_EQ(r[4].entries[0].fd, fd);
    EXPECT_EQ(r[4].entries[0].revents, static_cast<uint32_t>(POLLIN));

    EXPECT_EQ(r[5].type, RecordType::kEpollCtl);
    EXPECT_EQ(r[5].ctl_fd, fd);
    EXPECT_EQ(r[5].ctl_data, 0xABCDu);

    EXPECT_EQ(r[6].type, RecordType::kEpollWait);
    ASSERT_EQ(r[6].entry_count, 1u);
    EXPECT_EQ(r[6].entries[0].fd, fd);
    EXPECT_EQ(r[6].entries[0].revents, static_cast<uint32_t>(EPOLLIN));

    EXPECT_EQ(r[7].type, RecordType::kClose);
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
    for (const Case c : {Case{ContentMode::kAll, 10, aov_event_sections[0].data_size},
                         Case{ContentMode::kWritten, 9, 100}, Case{ContentMode::kNone, 0, 0}}) {
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
        // The close after it carries nothing of the dequeue.
        EXPECT_EQ(r[2].sent_len + r[2].back_len + r[2].area_count, 0);
    }
}

TEST(SessionFile, MemoryThatCannotBeReadIsLeftOutAndTheCallStillHappens) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    void* hole = ::mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_START, hole), -1);
    EXPECT_EQ(errno, EIO);
    Dequeue dq;
    // Section 3's area cannot be read; the driver reports 300 bytes in it.
    aov_query_set_area(&dq.query, 2, hole);
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    // A START record whose first half is readable and whose second half is
    // not: the part that can be read is no record either.
    auto* pages = static_cast<uint8_t*>(
        ::mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(::mprotect(pages + 4096, 4096, PROT_NONE), 0);
    uint8_t* straddling = pages + 4096 - AOV_START_RECORD_SIZE / 2;
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_START, straddling), -1);
    rec.closeNode(fd);
    ::munmap(hole, 1 << 20);
    ::munmap(pages, 8192);

    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[1].arg_flags, aovrec::kArgUnreadable);
    EXPECT_EQ(r[1].sent_len, 0u);
    EXPECT_EQ(r[2].area_count, 8);
    for (uint8_t i = 0; i < r[2].area_count; ++i) {
        EXPECT_NE(r[2].areas[i].section, 3);
    }
    EXPECT_EQ(r[3].arg_flags, aovrec::kArgUnreadable);
    EXPECT_EQ(r[3].sent_len, 0u);
}

// A wait that failed (here EINTR) reports nothing ready, whatever the
// caller's entries held from an earlier wait.
// A wait that failed or timed out reports nothing ready, whatever the
// entries' revents held before it.
TEST(SessionFile, AFailedWaitReportsNothingReady) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    pollfd stale{fd, POLLIN, POLLIN};
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), &stale, 1, 10, -1, EINTR);
    EXPECT_EQ(errno, EINTR);
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), &stale, 1, 10, 0, 0);
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), &stale, 1, 10, 1, 0);
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 5u);
    ASSERT_EQ(r[3].entry_count, 1u);
    EXPECT_EQ(r[3].entries[0].revents, static_cast<uint32_t>(POLLIN)) << "a wait that found it";
    for (size_t i : {1, 2}) {
        ASSERT_EQ(r[i].entry_count, 1u) << i;
        EXPECT_EQ(r[i].call.fd, -1) << i;
        EXPECT_EQ(r[i].entries[0].events, static_cast<uint32_t>(POLLIN)) << i;
        EXPECT_EQ(r[i].entries[0].revents, 0u) << i;
    }
    EXPECT_EQ(r[1].call.err, EINTR);
    EXPECT_EQ(r[2].call.result, 0);
}

// A wait's timespec as poll's milliseconds: rounded down, capped at INT_MAX,
// -1 for none, a negative one or one that cannot be read.
TEST(SessionFile, ATimeoutIsMillisecondsCappedAndMinusOneWhenThereIsNone) {
    void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    const struct {
        timespec ts;
        int ms;
    } cases[] = {{{0, 0}, 0},
                 {{0, 999999}, 0},
                 {{0, 1000000}, 1},
                 {{1, 999999999}, 1999},
                 {{-1, 0}, -1},
                 {{2147482, 999999999}, 2147482999},
                 {{2147483, 0}, 2147483647},
                 {{time_t{1} << 40, 0}, 2147483647}};
    for (const auto& c : cases) {
        EXPECT_EQ(aovrec::timeoutMs(&c.ts), c.ms) << c.ts.tv_sec << " s " << c.ts.tv_nsec << " ns";
    }
    EXPECT_EQ(aovrec::timeoutMs(nullptr), -1);
    EXPECT_EQ(aovrec::timeoutMs(static_cast<const timespec*>(page)), -1);
    ::munmap(page, 4096);
}

int waitChild(pid_t pid);

// A failed request keeps the record it sent and nothing of an answer, and a
// request that succeeds leaves no errno in its record, whatever errno held
// before it.
// A process whose standard input is closed gets its session file as
// descriptor 0: the next recording closes it as it closes any other.
TEST(SessionFile, ASessionFileOpenedAsDescriptorZeroIsClosedWhenTheRecordingEnds) {
    const int saved = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 0) << std::strerror(errno);
    bool closed = false;
    {
        Recording rec(ContentMode::kNone);
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ::close(0);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
        EXPECT_EQ(::fcntl(0, F_GETFD), FD_CLOEXEC) << "the session file is not descriptor 0";
        EXPECT_TRUE(aovrec::stats().started);
        // A forked child does not keep its parent's file open either.
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(::fcntl(0, F_GETFD) == -1 ? 0 : 1);
        }
        ASSERT_GT(pid, 0);
        EXPECT_EQ(waitChild(pid), 0) << "a forked child kept the session file as descriptor 0";
        rec.closeNode(fd);
        EXPECT_EQ(rec.read().size(), 2u);
    }
    closed = ::fcntl(0, F_GETFD) == -1 && errno == EBADF;
    ::dup2(saved, 0);
    ::close(saved);
    EXPECT_TRUE(closed) << "the ended recording's file was left open as descriptor 0";
    // Once closed, it is not closed again: descriptor 0 is the process's now.
    aovrec::configure(aovrec::RecorderConfig{});
    EXPECT_NE(::fcntl(0, F_GETFD), -1) << "a later recording closed descriptor 0";
}

TEST(SessionFile, AFailedRequestKeepsWhatItSentAndASuccessKeepsNoErrno) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    Dequeue failing;
    const aov_event_query sent = failing.query;
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_DEQUEUE_EVENT, &failing.query), -1);
    EXPECT_EQ(errno, EIO);
    Dequeue dq;
    errno = EAGAIN;  // left over from an earlier call of the process
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    // A failure after a success, with the answered record's areas in place.
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), -1);
    rec.closeNode(fd);

    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[1].call.result, -1);
    EXPECT_EQ(r[1].call.err, EIO);
    ASSERT_EQ(r[1].sent_len, sizeof(sent));
    EXPECT_EQ(std::memcmp(r[1].sent, &sent, sizeof(sent)), 0);
    EXPECT_EQ(r[1].back_len, 0u) << "a failed dequeue has no answer";
    EXPECT_EQ(r[1].area_count, 0);
    EXPECT_EQ(r[2].call.result, 0);
    EXPECT_EQ(r[2].call.err, 0) << "a successful call recorded with a stale errno";
    EXPECT_EQ(r[2].area_count, 9);
    EXPECT_EQ(r[3].back_len, 0u);
    EXPECT_EQ(r[3].area_count, 0) << "a failed dequeue's areas were kept";
}

TEST(SessionFile, AreasThatDoNotCompressAreKeptAsTheyAre) {
    if (!aovrec::SessionWriter::zstdAvailable()) {
        GTEST_SKIP() << "built without zstd";
    }
    Recording rec(ContentMode::kAll);
    const int fd = rec.openNode();
    Dequeue dq;
    // Noise in every area: compressed, the record would grow.
    uint64_t x = 0x9E3779B97F4A7C15ull;
    for (uint8_t& byte : dq.buffer) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        byte = static_cast<uint8_t>(x);
    }
    const std::vector<uint8_t> noise = dq.buffer;
    auto answerWords = [](int, unsigned long, void* arg) -> int {
        static_cast<aov_event_query*>(arg)->header[5] = 1;
        return 0;
    };
    ASSERT_EQ(aovrec::trackedIoctl(answerWords, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    rec.closeNode(fd);
    SessionReader::Next last;
    const std::vector<Record> r = rec.read(&last);
    EXPECT_EQ(last, SessionReader::Next::kEnd) << "the file does not read back whole";
    ASSERT_EQ(r.size(), 3u);
    ASSERT_EQ(r[1].area_count, 10);
    for (uint8_t i = 0; i < r[1].area_count; ++i) {
        const aov_section_desc& section = aov_event_sections[r[1].areas[i].section - 1];
        ASSERT_EQ(r[1].areas[i].length, section.data_size);
        EXPECT_EQ(
            std::memcmp(r[1].areas[i].data, noise.data() + section.data_offset, section.data_size),
            0)
            << "section " << int{r[1].areas[i].section};
    }
}

// The file's name (%p), the node's path under AOV_DEV_DIR and compression,
// as a recorded process's environment gives them.
TEST(SessionFile, TheEnvironmentChoosesTheFileTheNodeAndCompression) {
    const std::string dir = ::testing::TempDir();
    const std::string pattern = dir + "aovrec_env_%p.rec";
    const std::string file = dir + "aovrec_env_" + std::to_string(::getpid()) + ".rec";
    ::unsetenv(aovrec::kEnvNode);
    ::unsetenv(aovrec::kEnvContent);
    ::setenv(aovrec::kEnvFile, pattern.c_str(), 1);
    // The node in AOV_DEV_DIR, a directory of one character too.
    const struct {
        const char* zstd;
        std::string devDir;
    } cases[] = {{nullptr, "/aov-rec-test-devdir"}, {"0", "."}};
    for (const auto& c : cases) {
        const char* zstd = c.zstd;
        const std::string& devDir = c.devDir;
        ::setenv("AOV_DEV_DIR", devDir.c_str(), 1);
        if (zstd == nullptr) {
            ::unsetenv(aovrec::kEnvCompress);
        } else {
            ::setenv(aovrec::kEnvCompress, zstd, 1);
        }
        ::unlink(file.c_str());
        aovrec::configureFromEnvironment();
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, (devDir + "/kelo_aov").c_str(), O_RDWR,
                           0, fd, 0);
        ::close(fd);
        aovrec::forgetOnClose(fd);
        ASSERT_TRUE(aovrec::drain());
        const std::vector<uint8_t> bytes = readFile(file);
        aovrec::configure(aovrec::RecorderConfig{});
        aovrec::MemorySource source(bytes.data(), bytes.size());
        SessionReader reader(source);
        ASSERT_TRUE(reader.start()) << file << ": " << reader.error();
        EXPECT_EQ(reader.header().pid, static_cast<uint32_t>(::getpid()));
        EXPECT_EQ(reader.header().content, ContentMode::kWritten);
        const bool compressed = zstd == nullptr && aovrec::SessionWriter::zstdAvailable();
        EXPECT_EQ(reader.header().compression,
                  compressed ? aovrec::Compression::kZstd : aovrec::Compression::kNone)
            << "AOV_REC_ZSTD " << (zstd == nullptr ? "unset" : zstd);
        Record r;
        ASSERT_EQ(reader.next(&r), SessionReader::Next::kRecord) << reader.error();
        EXPECT_EQ(r.path, devDir + "/kelo_aov");
        ::unlink(file.c_str());
    }
    ::unsetenv(aovrec::kEnvFile);
    ::unsetenv(aovrec::kEnvCompress);
    ::unsetenv("AOV_DEV_DIR");
}

// A recorder configured again keeps nothing of the previous recording: not
// its node's identity, nor, turned off or given a file name too long to
// keep, its file (it names none and records nothing).
TEST(SessionFile, ARecorderTurnedOffOrGivenANameTooLongRecordsNothing) {
    {
        Recording rec(ContentMode::kWritten);
        rec.closeNode(rec.openNode());
        EXPECT_EQ(rec.read().size(), 2u);
        EXPECT_STRNE(aovrec::sessionPath(), "");
    }
    // The node's identity learnt then (that of /dev/null) is forgotten by the
    // next recording: /dev/null by its own name is not its node.
    {
        Recording rec(ContentMode::kWritten);
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, "/dev/null", O_RDWR, 0, fd, 0);
        EXPECT_FALSE(aovrec::forgetOnClose(fd)) << "the last recording's node taken for this one's";
        ::close(fd);
    }
    // A name of 4096 bytes: one more than a setting holds with its end.
    const std::string too_long = "/" + std::string(4095, 'x');
    for (const char* file : {static_cast<const char*>(nullptr), too_long.c_str()}) {
        const char* what = file == nullptr ? "no file" : "a file name too long";
        aovrec::RecorderConfig config;
        config.file = file;
        config.node = kNode;
        aovrec::configure(config);
        EXPECT_FALSE(aovrec::g_armed.load()) << what;
        EXPECT_STREQ(aovrec::sessionPath(), "") << what;
        const uint64_t handed_off = aovrec::stats().handed_off;
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
        Dequeue dq;
        EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
        aovrec::forgetOnClose(fd);
        ::close(fd);
        const aovrec::RecorderStats after = aovrec::stats();
        EXPECT_EQ(after.handed_off, handed_off) << what;
        EXPECT_FALSE(after.started) << what;
        EXPECT_FALSE(after.failed) << what;
        EXPECT_STREQ(aovrec::sessionPath(), "") << what;
    }
    aovrec::configure(aovrec::RecorderConfig{});
}

// The session file a recording writes: the name it was given for its owner,
// with "%p" as the pid and any other '%' as it is; a process that does not
// own it adds ".PID". From the environment, the owner is a child of
// AOV_REC_PARENT, or, without one, the process itself, which then names its
// parent there. The file is readable by all, as the umask allows.
TEST(SessionFile, TheOwnerWritesTheNamedFileAndAnyOtherProcessOneWithItsPid) {
    const std::string dir = ::testing::TempDir() + "aovrec_naming_";
    const std::string pid = std::to_string(::getpid());
    const std::string ppid = std::to_string(::getppid());
    const mode_t umask_was = ::umask(022);
    // The path the recording writes, once the node is opened.
    auto pathOf = [](const aovrec::RecorderConfig* config) {
        if (config != nullptr) {
            aovrec::configure(*config);
        } else {
            aovrec::configureFromEnvironment();
        }
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
        aovrec::forgetOnClose(fd);
        ::close(fd);
        const std::string path = aovrec::sessionPath();
        aovrec::configure(aovrec::RecorderConfig{});
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0) << path << ": " << std::strerror(errno);
        EXPECT_EQ(info.st_mode & 0777, 0644u) << path;
        ::unlink(path.c_str());
        return path;
    };
    const struct {
        std::string file;
        bool owner;
        std::string path;
    } configured[] = {
        {dir + "a.rec", true, dir + "a.rec"},
        {dir + "a.rec", false, dir + "a.rec." + pid},
        {dir + "%p.rec", false, dir + pid + ".rec"},
        {dir + "%x%%p", true, dir + "%x%" + pid},
    };
    for (const auto& c : configured) {
        aovrec::RecorderConfig config;
        config.file = c.file.c_str();
        config.node = kNode;
        config.owner = c.owner;
        EXPECT_EQ(pathOf(&config), c.path) << c.file << (c.owner ? " by its owner" : "");
    }
    const std::string file = dir + "env.rec";
    ::setenv(aovrec::kEnvFile, file.c_str(), 1);
    ::setenv(aovrec::kEnvNode, kNode, 1);
    const struct {
        const char* parent;  // null: unset
        std::string path;
    } inherited[] = {
        {nullptr, file},
        {"", file},
        {ppid.c_str(), file},
        {"1", file + "." + pid},
    };
    const std::string with_text = ppid + "x";
    for (const auto& c : inherited) {
        if (c.parent == nullptr) {
            ::unsetenv(aovrec::kEnvParent);
        } else {
            ::setenv(aovrec::kEnvParent, c.parent, 1);
        }
        const std::string what =
            std::string("AOV_REC_PARENT ") + (c.parent == nullptr ? "unset" : c.parent);
        EXPECT_EQ(pathOf(nullptr), c.path) << what;
        const char* now = std::getenv(aovrec::kEnvParent);
        EXPECT_STREQ(now, c.parent == nullptr || c.parent[0] == '\0' ? ppid.c_str() : c.parent)
            << what;
    }
    ::setenv(aovrec::kEnvParent, with_text.c_str(), 1);
    EXPECT_EQ(pathOf(nullptr), file + "." + pid) << "AOV_REC_PARENT " << with_text;
    ::unsetenv(aovrec::kEnvParent);
    ::unsetenv(aovrec::kEnvFile);
    ::unsetenv(aovrec::kEnvNode);
    ::umask(umask_was);
}

// Without a node setting, DIR/kelo_aov is the node for AOV_DEV_DIR=DIR, when
// that path fits; with one, or once configured without AOV_DEV_DIR, it is not.
TEST(SessionFile, TheDevDirsNodeIsWatchedOnlyWithoutANodeSettingAndWhenItsPathFits) {
    const std::string file = ::testing::TempDir() + "aovrec_devdir_" + std::to_string(::getpid());
    const std::string fits(4096 - 11, 'd');  // DIR/kelo_aov and its end: 4096 bytes
    const std::string longer = fits + "d";
    const struct {
        const char* node;
        std::string dev_dir;
        std::string path;
        bool watched;
    } cases[] = {
        {nullptr, "/" + fits.substr(1), "/" + fits.substr(1) + "/kelo_aov", true},
        {nullptr, "/" + longer.substr(1), "/" + longer.substr(1) + "/kelo_aov", false},
        {nullptr, "/" + longer.substr(1), "/" + longer.substr(1) + "/kelo_ao", false},
        {kNode, "/aov-rec-devdir", "/aov-rec-devdir/kelo_aov", false},
        {kNode, "/aov-rec-devdir", kNode, true},
        {nullptr, "", "/kelo_aov", false},
        {nullptr, "", AOV_DEVICE_NODE, true},
    };
    for (const auto& c : cases) {
        const std::string what = "node " + std::string(c.node == nullptr ? "unset" : c.node) +
                                 ", dev dir of " + std::to_string(c.dev_dir.size()) +
                                 " bytes: " + c.path.substr(0, 40);
        for (const bool before : {false, true}) {
            // Configured first with another dev dir, which the next
            // configuration forgets.
            aovrec::RecorderConfig config;
            config.file = file.c_str();
            config.node = c.node;
            config.dev_dir = before ? "/aov-rec-before" : c.dev_dir.c_str();
            aovrec::configure(config);
            config.dev_dir = c.dev_dir.c_str();
            if (before) {
                aovrec::configure(config);
            }
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, c.path.c_str(), O_RDWR, 0, fd, 0);
            EXPECT_EQ(aovrec::forgetOnClose(fd), c.watched) << what;
            ::close(fd);
            // Neither the last dev dir's node nor what is left of its path.
            for (const char* path : {"/aov-rec-before/kelo_aov", "/"}) {
                // Another file: /dev/null may be known as the node by now.
                const int other = ::open("/dev/zero", O_RDWR | O_CLOEXEC);
                aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, path, O_RDWR, 0, other, 0);
                EXPECT_FALSE(aovrec::forgetOnClose(other)) << what << ": " << path;
                ::close(other);
            }
            aovrec::configure(aovrec::RecorderConfig{});
            ::unlink(file.c_str());
        }
    }
}

// A node that exists when the recorder is configured, as the node setting
// or in AOV_DEV_DIR, is known by its identity from the start: its first
// open, through a symlink, is recorded.
TEST(SessionFile, ANodeThatExistsIsRecordedAtItsFirstOpenThroughAnyPath) {
    const std::string dir = ::testing::TempDir() + "aovrec_identity_" + std::to_string(::getpid());
    const std::string node = dir + "/kelo_aov";
    const std::string link = dir + "/link";
    const std::string file = dir + ".rec";
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0) << std::strerror(errno);
    ::close(::open(node.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::symlink(node.c_str(), link.c_str()), 0) << std::strerror(errno);
    for (const bool in_dev_dir : {false, true}) {
        aovrec::RecorderConfig config;
        config.file = file.c_str();
        config.node = in_dev_dir ? nullptr : node.c_str();
        config.dev_dir = in_dev_dir ? dir.c_str() : nullptr;
        aovrec::configure(config);
        const int fd = ::open(link.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, link.c_str(), O_RDWR, 0, fd, 0);
        EXPECT_TRUE(aovrec::forgetOnClose(fd))
            << (in_dev_dir ? "in AOV_DEV_DIR" : "the node setting");
        ::close(fd);
        aovrec::configure(aovrec::RecorderConfig{});
        ::unlink(file.c_str());
    }
    ::unlink(link.c_str());
    ::unlink(node.c_str());
    ::rmdir(dir.c_str());
}

// A duplicate onto a node's number records that number's close (the node
// stays there when the duplicate is the node's); one onto itself changes
// nothing.
TEST(SessionFile, ADuplicateOverANodeNumberRecordsItsCloseAndOneOntoItselfNothing) {
    Recording rec(ContentMode::kNone);
    const int a = rec.openNode();
    const int b = rec.openNode();
    const int other = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
    errno = EAGAIN;
    aovrec::recordDup(aovrec::monotonicNs(), b, b);
    EXPECT_TRUE(aovrec::fdHas(b, aovrec::kFdNode));
    aovrec::recordDup(aovrec::monotonicNs(), b, a);
    EXPECT_TRUE(aovrec::fdHas(a, aovrec::kFdNode)) << "the node's duplicate";
    epoll_event seven{};
    seven.events = EPOLLIN;
    seven.data.u64 = 7;
    aovrec::recordEpollCtl(aovrec::monotonicNs(), 1000, EPOLL_CTL_ADD, a, &seven, 0, 0);
    errno = EAGAIN;
    aovrec::recordDup(aovrec::monotonicNs(), other, a);
    EXPECT_FALSE(aovrec::fdHas(a, aovrec::kFdNode)) << "another file's duplicate";
    EXPECT_EQ(errno, EAGAIN) << "the caller's errno";
    // The number's registration went with it.
    aovrec::recordEpollWait(aovrec::WaitKind::kEpollWait, aovrec::monotonicNs(), 1000, &seven, 0, 1,
                            0);
    for (const int fd : {a, b, other}) {
        ::close(fd);
    }
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 6u);
    EXPECT_EQ(r[5].entry_count, 0u) << "a wait named the number another file took";
    for (size_t i : {2, 4}) {
        EXPECT_EQ(r[i].type, RecordType::kClose) << i;
        EXPECT_EQ(r[i].call.fd, a) << i;
        EXPECT_EQ(r[i].call.result, 0) << i;
    }
}

// A registration is known before its epoll_ctl (a wait the call itself
// wakes finds the node); a refused one leaves what was there before (the
// old data, or no epoll descriptor of the node's), a removal forgets it, and
// the record keeps the events and data only of a call that took them.
TEST(SessionFile, ARefusedRegistrationLeavesTheOneBeforeAndARemovalForgetsIt) {
    Recording rec(ContentMode::kNone);
    const int fd = rec.openNode();
    constexpr int kEp = 1000;
    constexpr int kOtherEp = 1001;
    epoll_event seven{};
    seven.events = EPOLLIN;
    seven.data.u64 = 7;
    epoll_event nine = seven;
    nine.data.u64 = 9;
    auto wait = [](int epfd, const epoll_event& reported) {
        aovrec::recordEpollWait(aovrec::WaitKind::kEpollWait, aovrec::monotonicNs(), epfd,
                                &reported, 0, 1, 0);
    };
    // `during`: the data a wait that returns during the call reports.
    auto ctl = [fd, &wait](int epfd, int op, epoll_event* event, int result, int err,
                           const epoll_event* during) {
        const aovrec::WatchBefore before = aovrec::watchBeforeCtl(epfd, op, fd, event);
        if (during != nullptr) {
            wait(epfd, *during);
        }
        aovrec::recordEpollCtl(aovrec::monotonicNs(), epfd, op, fd, event, result, err, before);
    };
    ctl(kEp, EPOLL_CTL_ADD, &seven, 0, 0, &seven);             // records 1, 2
    ctl(kEp, EPOLL_CTL_MOD, &nine, 0, 0, &nine);               // 3, 4
    ctl(kEp, EPOLL_CTL_MOD, &seven, -1, EINVAL, nullptr);      // 5
    ctl(kOtherEp, EPOLL_CTL_ADD, &seven, -1, EBADF, nullptr);  // 6
    ctl(kEp, EPOLL_CTL_DEL, nullptr, -1, EBADF, nullptr);      // 7
    EXPECT_TRUE(aovrec::fdHas(kEp, aovrec::kFdEpoll));
    EXPECT_FALSE(aovrec::fdHas(kOtherEp, aovrec::kFdEpoll)) << "after a refused first registration";
    wait(kEp, nine);                                  // 8
    wait(kEp, seven);                                 // 9
    wait(kOtherEp, seven);                            // 10
    ctl(kEp, EPOLL_CTL_DEL, nullptr, 0, 0, nullptr);  // 11
    wait(kEp, nine);                                  // 12
    wait(kEp, epoll_event{});                         // 13: another registration's, with data 0
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 15u);
    const struct {
        size_t at;
        int32_t op;
        uint32_t events;
        uint64_t data;
    } ctls[] = {{2, EPOLL_CTL_ADD, EPOLLIN, 7}, {4, EPOLL_CTL_MOD, EPOLLIN, 9},
                {5, EPOLL_CTL_MOD, 0, 0},       {6, EPOLL_CTL_ADD, 0, 0},
                {7, EPOLL_CTL_DEL, 0, 0},       {11, EPOLL_CTL_DEL, 0, 0}};
    for (const auto& c : ctls) {
        ASSERT_EQ(r[c.at].type, RecordType::kEpollCtl) << c.at;
        EXPECT_EQ(r[c.at].ctl_op, c.op) << c.at;
        EXPECT_EQ(r[c.at].ctl_fd, fd) << c.at;
        EXPECT_EQ(r[c.at].ctl_events, c.events) << c.at;
        EXPECT_EQ(r[c.at].ctl_data, c.data) << c.at;
    }
    // The node under its data of the moment on kEp only, until it was removed.
    std::vector<size_t> named;
    for (size_t at : {1, 3, 8, 9, 10, 12, 13}) {
        ASSERT_EQ(r[at].type, RecordType::kEpollWait) << at;
        named.push_back(r[at].entry_count);
        if (r[at].entry_count == 1) {
            EXPECT_EQ(r[at].entries[0].fd, fd) << at;
            EXPECT_EQ(r[at].entries[0].events, 0u) << at << ": epoll says only what it found";
        }
    }
    EXPECT_EQ(named, (std::vector<size_t>{1, 1, 1, 0, 0, 0, 0}));
}

// select: each node descriptor in the range, 0 and FD_SETSIZE - 1 included,
// with the sets it was asked in and those it was found in; other
// descriptors and those past the range are left out, a range past
// FD_SETSIZE is cut there, and no byte past the range is read.
TEST(SessionFile, ASelectRecordsEachNodeDescriptorOfItsRangeWithItsSets) {
    Recording rec(ContentMode::kNone);
    const int fd = rec.openNode();
    const int saved = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 0) << std::strerror(errno);
    const int last = FD_SETSIZE - 1;
    const int other = 1000;  // not the node's
    ASSERT_EQ(::dup2(fd, 0), 0);
    ASSERT_EQ(::dup2(fd, last), last) << std::strerror(errno);
    aovrec::recordDup(aovrec::monotonicNs(), fd, 0);
    aovrec::recordDup(aovrec::monotonicNs(), fd, last);
    auto setOf = [](std::initializer_list<int> fds) {
        fd_set s;
        FD_ZERO(&s);
        for (const int n : fds) {
            FD_SET(n, &s);
        }
        return s;
    };
    fd_set read = setOf({0});
    fd_set write = setOf({last, other});
    fd_set except = setOf({0, last});
    aovrec::SelectSets asked;
    for (const int nfds : {FD_SETSIZE, FD_SETSIZE + 100}) {
        ASSERT_TRUE(aovrec::copySelectSets(nfds, &read, &write, &except, &asked)) << nfds;
        // Found: 0 readable, the last with an exception; then 0 alone.
        fd_set found[3] = {setOf({0}), setOf({}), setOf({last})};
        aovrec::recordSelect(aovrec::WaitKind::kSelect, aovrec::monotonicNs(), nfds, asked,
                             &found[0], &found[1], &found[2], 250, 2, 0);
        fd_set alone[3] = {setOf({0}), setOf({}), setOf({})};
        aovrec::recordSelect(aovrec::WaitKind::kSelect, aovrec::monotonicNs(), nfds, asked,
                             &alone[0], &alone[1], &alone[2], 250, 1, 0);
    }
    // A range that stops short of the last, and sets without a node in range.
    fd_set both = setOf({0, last});
    ASSERT_TRUE(aovrec::copySelectSets(last, &both, nullptr, nullptr, &asked));
    aovrec::recordSelect(aovrec::WaitKind::kPselect, aovrec::monotonicNs(), last, asked, &both,
                         nullptr, nullptr, -1, 0, 0);
    fd_set only_last = setOf({last});
    fd_set only_other = setOf({other});
    EXPECT_FALSE(aovrec::copySelectSets(last, &only_last, nullptr, nullptr, &asked));
    EXPECT_FALSE(aovrec::copySelectSets(FD_SETSIZE, &only_other, nullptr, nullptr, &asked));
    EXPECT_FALSE(aovrec::copySelectSets(-1, &read, nullptr, nullptr, &asked));
    // A set that ends where readable memory ends.
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* room =
        ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(room, MAP_FAILED);
    ASSERT_EQ(::mprotect(static_cast<char*>(room) + page, page, PROT_NONE), 0);
    auto* edge = reinterpret_cast<fd_set*>(static_cast<char*>(room) + page - sizeof(fd_set));
    *edge = only_last;
    EXPECT_TRUE(aovrec::copySelectSets(FD_SETSIZE, edge, nullptr, nullptr, &asked))
        << "a set read past its range";
    ::munmap(room, 2 * page);
    for (const int n : {0, last}) {
        aovrec::forgetOnClose(n);
    }
    ::dup2(saved, 0);
    ::close(saved);
    ::close(last);
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 7u);
    for (size_t i : {1, 2, 3, 4}) {
        ASSERT_EQ(r[i].type, RecordType::kPoll) << i;
        EXPECT_EQ(r[i].wait_kind, aovrec::WaitKind::kSelect) << i;
        EXPECT_EQ(r[i].timeout_ms, 250) << i;
        EXPECT_EQ(r[i].call.fd, -1) << i;
        ASSERT_EQ(r[i].entry_count, 2u) << i;
        const bool both_found = i % 2 == 1;
        EXPECT_EQ(r[i].entries[0].fd, 0) << i;
        EXPECT_EQ(r[i].entries[0].events, static_cast<uint32_t>(POLLIN | POLLPRI)) << i;
        EXPECT_EQ(r[i].entries[0].revents, static_cast<uint32_t>(POLLIN)) << i;
        EXPECT_EQ(r[i].entries[1].fd, last) << i;
        EXPECT_EQ(r[i].entries[1].events, static_cast<uint32_t>(POLLOUT | POLLPRI)) << i;
        EXPECT_EQ(r[i].entries[1].revents, both_found ? static_cast<uint32_t>(POLLPRI) : 0u) << i;
    }
    EXPECT_EQ(r[5].wait_kind, aovrec::WaitKind::kPselect);
    ASSERT_EQ(r[5].entry_count, 1u) << "a node past the range";
    EXPECT_EQ(r[5].entries[0].fd, 0);
    EXPECT_EQ(r[5].entries[0].revents, 0u) << "a select that found nothing";
}

// An ioctl's argument record: kept whole up to 1024 bytes, cut there past
// it, and its answer of any size after a read-direction call; a null
// argument is said as such.
TEST(SessionFile, AnArgumentRecordIsKeptUpToItsLimitWithAnAnswerOfAnySize) {
    Recording rec(ContentMode::kNone);
    const int fd = rec.openNode();
    // Answers with each byte's complement.
    auto answer = [](int, unsigned long request, void* arg) -> int {
        auto* bytes = static_cast<uint8_t*>(arg);
        for (size_t i = 0; i < _IOC_SIZE(request); ++i) {
            bytes[i] = static_cast<uint8_t>(~bytes[i]);
        }
        return 0;
    };
    const size_t sizes[] = {1, 1024, 1025};
    std::vector<uint8_t> arg(1025);
    for (const size_t size : sizes) {
        for (size_t i = 0; i < arg.size(); ++i) {
            arg[i] = static_cast<uint8_t>(i * 7);
        }
        const unsigned long request = _IOC(_IOC_READ | _IOC_WRITE, 'x', 1, size);
        EXPECT_EQ(aovrec::trackedIoctl(answer, fd, request, arg.data()), 0) << size;
    }
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 6u);
    for (size_t k = 0; k < 3; ++k) {
        const Record& got = r[1 + k];
        const size_t kept = sizes[k] < 1024 ? sizes[k] : 1024;
        EXPECT_EQ(got.arg_flags, sizes[k] > 1024 ? aovrec::kArgCut : 0) << sizes[k];
        ASSERT_EQ(got.sent_len, kept) << sizes[k];
        ASSERT_EQ(got.back_len, kept) << sizes[k];
        for (size_t i = 0; i < kept; ++i) {
            ASSERT_EQ(got.sent[i], static_cast<uint8_t>(i * 7)) << sizes[k] << " at " << i;
            ASSERT_EQ(got.back[i], static_cast<uint8_t>(~(i * 7))) << sizes[k] << " at " << i;
        }
    }
    EXPECT_EQ(r[4].arg_flags, aovrec::kArgNull);
    EXPECT_EQ(r[4].sent_len, 0u);
}

// An open is recorded with its flags, mode and directory when it named the
// node's path, even if it failed; an open that failed on an unreadable path
// (EFAULT) is left alone, and each leaves errno as the call did.
TEST(SessionFile, AFailedOpenOfTheNodesPathIsRecordedAndOneOfAnUnreadablePathIsNot) {
    Recording rec(ContentMode::kNone);
    void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, -1, ENOENT);
    EXPECT_EQ(errno, ENOENT);
    aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, static_cast<const char*>(page), O_RDWR, 0,
                       -1, EFAULT);
    EXPECT_EQ(errno, EFAULT);
    aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, "/aov-rec-test/other", O_RDWR, 0, -1,
                       ENOENT);
    const int dirfd = 7;
    const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    aovrec::recordOpen(aovrec::monotonicNs(), dirfd, kNode, O_RDWR | O_CREAT, 0640, fd, 0);
    EXPECT_EQ(errno, 0);
    rec.closeNode(fd);
    ::munmap(page, 4096);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].call.result, -1);
    EXPECT_EQ(r[0].call.err, ENOENT);
    EXPECT_EQ(r[0].call.fd, AT_FDCWD);
    EXPECT_EQ(r[0].path, kNode);
    EXPECT_EQ(r[1].type, RecordType::kOpen);
    EXPECT_EQ(r[1].call.result, fd);
    EXPECT_EQ(r[1].call.fd, dirfd);
    EXPECT_EQ(r[1].open_flags, static_cast<uint32_t>(O_RDWR | O_CREAT));
    EXPECT_EQ(r[1].open_mode, 0640u);
    EXPECT_EQ(r[1].path, kNode);
}

// A poll's entries are read 64 at a time: a node in any of them is recorded,
// each under its own number, and only the node's; nothing past the entries
// is read, and a poll without the node among them is not recorded.
TEST(SessionFile, APollOfManyEntriesRecordsTheNodesWhereverTheyAre) {
    Recording rec(ContentMode::kNone);
    const int fd = rec.openNode();
    std::vector<pollfd> fds(65, pollfd{-1, POLLIN, 0});
    fds[1] = pollfd{fd, POLLPRI, 0};
    fds[64] = pollfd{fd, POLLIN, POLLIN};
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), fds.data(), fds.size(), 5, 1,
                       0);
    fds.assign(130, pollfd{-1, POLLIN, 0});
    fds[129] = pollfd{fd, POLLIN, POLLIN};
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), fds.data(), fds.size(), 5, 1,
                       0);
    // One entry of another file, with the node's just after it.
    const pollfd beyond[2] = {{-1, POLLIN, 0}, {fd, POLLIN, POLLIN}};
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), beyond, 1, 5, 0, 0);
    rec.closeNode(fd);
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 4u);
    ASSERT_EQ(r[1].entry_count, 2u);
    EXPECT_EQ(r[1].entries[0].events, static_cast<uint32_t>(POLLPRI));
    EXPECT_EQ(r[1].entries[1].events, static_cast<uint32_t>(POLLIN));
    EXPECT_EQ(r[1].entries[1].revents, static_cast<uint32_t>(POLLIN));
    ASSERT_EQ(r[2].entry_count, 1u) << "a node past the first 64 entries";
    EXPECT_EQ(r[2].entries[0].revents, static_cast<uint32_t>(POLLIN));
}

// close_range: the node descriptors in the range, its last included, are
// forgotten before the call and recorded as closed once it succeeded.
TEST(SessionFile, ARangeClosedForgetsItsNodeDescriptorsAndRecordsTheirClosesIfItSucceeded) {
    Recording rec(ContentMode::kNone);
    const int a = rec.openNode();
    const int b = rec.openNode();
    const int c = rec.openNode();
    int fds[8] = {};
    ASSERT_EQ(aovrec::forgetRange(static_cast<unsigned>(a), static_cast<unsigned>(a), fds, 8), 1);
    EXPECT_EQ(fds[0], a);
    EXPECT_FALSE(aovrec::fdHas(a, aovrec::kFdNode)) << "the range's last descriptor";
    EXPECT_TRUE(aovrec::fdHas(b, aovrec::kFdNode));
    errno = 0;
    aovrec::recordCloseRange(aovrec::monotonicNs(), fds, 1, 0, 0);
    EXPECT_EQ(errno, 0);
    // A range to the largest number; the call failed: no close is recorded.
    const int n = aovrec::forgetRange(static_cast<unsigned>(b), ~0u, fds, 8);
    ASSERT_EQ(n, 2);
    EXPECT_FALSE(aovrec::fdHas(c, aovrec::kFdNode));
    aovrec::recordCloseRange(aovrec::monotonicNs(), fds, n, -1, EINVAL);
    EXPECT_EQ(errno, EINVAL);
    for (const int fd : {a, b, c}) {
        ::close(fd);
    }
    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 4u) << "one close, of the range that was closed";
    EXPECT_EQ(r[3].type, RecordType::kClose);
    EXPECT_EQ(r[3].call.fd, a);
    EXPECT_EQ(r[3].call.result, 0);
    EXPECT_EQ(r[3].call.err, 0);
}

// A small file of a few records, some compressed.
std::vector<uint8_t> smallSession(std::vector<uint64_t>* frame_ends) {
    Recording rec(ContentMode::kWritten);
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
        while ((next = reader.next(&r)) == SessionReader::Next::kRecord) {
            ++read;
        }
        uint64_t whole = 0;
        bool at_boundary = cut == aovrec::kHeaderSize;
        for (const uint64_t end : ends) {
            whole += end <= cut ? 1 : 0;
            at_boundary = at_boundary || end == cut;
        }
        EXPECT_EQ(read, whole) << "cut at " << cut;
        EXPECT_EQ(next, at_boundary ? SessionReader::Next::kEnd : SessionReader::Next::kCut)
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
    h.compression = aovrec::Compression::kZstd;
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
        *next = SessionReader::Next::kBad;
        return reader.error();
    }
    Record r;
    while ((*next = reader.next(&r)) == SessionReader::Next::kRecord) {
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

// Record payloads field by field, little-endian, for records at and past the
// reader's limits.
struct Payload {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(aovrec::kCallInfoSize, 0);
    Payload& le(uint64_t v, int n) {
        for (int i = 0; i < n; ++i) {
            bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
        }
        return *this;
    }
    Payload& fill(size_t n, uint8_t v) {
        bytes.insert(bytes.end(), n, v);
        return *this;
    }
    std::vector<uint8_t> framed(uint16_t type) const {
        return frame(type, bytes, static_cast<uint32_t>(bytes.size()));
    }
};

std::vector<uint8_t> openRecord(size_t path_len) {
    return Payload().le(2, 4).le(0, 4).le(path_len, 2).fill(path_len, 'p').framed(1);
}

// An ioctl record with `sent` and `back` argument bytes and no areas.
std::vector<uint8_t> ioctlRecord(size_t sent, size_t back, uint8_t flags = 0) {
    return Payload()
        .le(0xC0DE, 4)
        .le(flags, 1)
        .le(0, 1)
        .le(sent, 2)
        .le(back, 2)
        .fill(sent, 1)
        .fill(back, 2)
        .framed(3);
}

std::vector<uint8_t> waitRecord(uint16_t type, uint8_t kind, uint8_t pad, size_t count) {
    Payload p;
    p.le(kind, 1).le(pad, 1).le(count, 2).le(static_cast<uint32_t>(-1), 4);
    for (size_t i = 0; i < count; ++i) {
        p.le(100 + i, 4).le(1, 4).le(i, 4);
    }
    return p.framed(type);
}

TEST(SessionFile, HostileFilesAreRefusedWithAReasonAndBoundedWork) {
    struct Case {
        const char* name;
        std::vector<uint8_t> body;  // after a good header
        const char* reason;
    };
    std::vector<uint8_t> bad_crc = frame(2, std::vector<uint8_t>(aovrec::kCallInfoSize), 32);
    bad_crc.back() ^= 1;
    std::vector<uint8_t> retyped = frame(4, std::vector<uint8_t>(aovrec::kCallInfoSize + 8), 40);
    retyped[8] = 6;
    std::vector<std::vector<uint8_t>> padded;
    for (size_t pad = 1; pad <= 3; ++pad) {
        std::vector<uint8_t> payload = ioctlPayload(1, 1, 0);
        payload[aovrec::kCallInfoSize + 10 + pad] = 1;
        padded.push_back(frame(3, payload, 50));
    }
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
        {"one section kept twice", frame(3, ioctlPayload(2, 1, 0), 58), "malformed ioctl record"},
        {"an area head's first pad byte set", padded[0], "malformed ioctl record"},
        {"an area head's second pad byte set", padded[1], "malformed ioctl record"},
        {"an area head's third pad byte set", padded[2], "malformed ioctl record"},
        {"a poll record's type changed to epoll_wait (their payloads look alike)", retyped,
         "checksum mismatch"},
        {"a payload one byte over the limit", frame(2, {}, aovrec::kMaxPayload + 1),
         "payload of 4194305 bytes over the limit of 4194304"},
        {"a payload at the limit, stored short", frame(2, {}, aovrec::kMaxPayload),
         "inconsistent frame header"},
        {"record type 0", frame(0, {}, 0), "unknown record type 0"},
        {"record type 7", frame(7, {}, 0), "unknown record type 7"},
        {"a path one byte over the limit", openRecord(aovrec::kMaxPath + 1),
         "malformed open record"},
        {"a sent argument one byte over the limit", ioctlRecord(aovrec::kMaxArgBytes + 1, 0),
         "malformed ioctl record"},
        {"a returned argument one byte over the limit", ioctlRecord(0, aovrec::kMaxArgBytes + 1),
         "malformed ioctl record"},
        {"an unknown argument flag", ioctlRecord(0, 0, 16), "malformed ioctl record"},
        {"an area of section 0", frame(3, ioctlPayload(1, 0, 0), 50), "malformed ioctl record"},
        {"a wait of an unknown kind", waitRecord(4, aovrec::kLastWaitKind + 1, 0, 0),
         "malformed poll record"},
        {"a wait whose pad byte is set", waitRecord(6, 0, 1, 0), "malformed epoll_wait record"},
        {"a wait of 65 entries", waitRecord(4, 0, 0, aovrec::kMaxWaitEntries + 1),
         "malformed poll record"},
        {"an epoll_ctl record with a byte left over", Payload().fill(21, 0).framed(5),
         "malformed epoll_ctl record"},
        // Its one byte is read and checked, not taken as zero.
        {"a record of one byte", frame(2, {7}, 1), "malformed close record"},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> file = header();
        file.insert(file.end(), c.body.begin(), c.body.end());
        SessionReader::Next next;
        const std::string why = verdict(file, &next);
        EXPECT_EQ(next, SessionReader::Next::kBad) << c.name;
        EXPECT_NE(why.find(c.reason), std::string::npos) << c.name << ": " << why;
        EXPECT_EQ(why.find('\n'), std::string::npos) << c.name;
    }
}

// Every field at its largest allowed value reads back whole, each record where
// its frame starts.
TEST(SessionFile, RecordsAtEveryLimitAreReadWhole) {
    std::vector<uint8_t> file = header();
    std::vector<uint64_t> starts;
    Payload areas;
    areas.le(0xC0DE, 4).le(aovrec::kArgFlagsKnown, 1).le(aovrec::kSections, 1).le(0, 2).le(0, 2);
    for (size_t s = 1; s <= aovrec::kSections; ++s) {
        const uint32_t size = aov_event_sections[s - 1].data_size;
        areas.le(s, 1).le(0, 3).le(size, 4).fill(size, static_cast<uint8_t>(s));
    }
    const std::vector<std::vector<uint8_t>> records = {
        openRecord(aovrec::kMaxPath),
        ioctlRecord(aovrec::kMaxArgBytes, aovrec::kMaxArgBytes),
        areas.framed(3),
        waitRecord(4, aovrec::kLastWaitKind, 0, aovrec::kMaxWaitEntries),
        waitRecord(aovrec::kLastRecordType, 2, 0, 1),
    };
    for (const auto& r : records) {
        starts.push_back(file.size());
        file.insert(file.end(), r.begin(), r.end());
    }
    aovrec::MemorySource source(file.data(), file.size());
    SessionReader reader(source);
    ASSERT_TRUE(reader.start()) << reader.error();
    // Argument and area bytes are views valid until the next record: each
    // record's last byte of each is taken as it is read.
    std::vector<Record> got(records.size());
    std::vector<std::vector<uint8_t>> last(records.size());
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(reader.next(&got[i]), SessionReader::Next::kRecord)
            << i << ": " << reader.error();
        EXPECT_EQ(got[i].index, i);
        EXPECT_EQ(got[i].offset, starts[i]);
        if (got[i].sent_len > 0 && got[i].back_len > 0) {
            last[i] = {got[i].sent[got[i].sent_len - 1], got[i].back[got[i].back_len - 1]};
        }
        for (size_t a = 0; a < got[i].area_count; ++a) {
            last[i].push_back(got[i].areas[a].data[got[i].areas[a].length - 1]);
        }
    }
    Record end;
    EXPECT_EQ(reader.next(&end), SessionReader::Next::kEnd) << reader.error();
    EXPECT_EQ(got[0].open_flags, 2u);
    EXPECT_EQ(got[0].path, std::string(aovrec::kMaxPath, 'p'));
    EXPECT_EQ(got[1].request, 0xC0DEu);
    ASSERT_EQ(got[1].sent_len, aovrec::kMaxArgBytes);
    ASSERT_EQ(got[1].back_len, aovrec::kMaxArgBytes);
    EXPECT_EQ(last[1], (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(got[2].arg_flags, aovrec::kArgFlagsKnown);
    ASSERT_EQ(got[2].area_count, aovrec::kSections);
    for (size_t s = 0; s < aovrec::kSections; ++s) {
        EXPECT_EQ(got[2].areas[s].section, s + 1);
        EXPECT_EQ(got[2].areas[s].length, aov_event_sections[s].data_size);
    }
    EXPECT_EQ(last[2], (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(got[3].type, RecordType::kPoll);
    EXPECT_EQ(got[3].wait_kind, aovrec::WaitKind::kEpollPwait2);
    EXPECT_EQ(got[3].timeout_ms, -1);
    ASSERT_EQ(got[3].entry_count, aovrec::kMaxWaitEntries);
    EXPECT_EQ(got[3].entries[63].fd, 163);
    EXPECT_EQ(got[3].entries[63].revents, 63u);
    EXPECT_EQ(got[4].type, RecordType::kEpollWait);
    EXPECT_EQ(got[4].entry_count, 1u);
}

// One Record read into again and again: a close record after records of every
// other kind holds nothing of theirs.
TEST(SessionFile, ARecordHoldsNothingOfTheRecordsReadBeforeIt) {
    std::vector<uint8_t> file = header();
    const std::vector<std::vector<uint8_t>> records = {
        Payload()
            .le(0xC0DE, 4)
            .le(aovrec::kArgNull, 1)
            .le(1, 1)
            .le(4, 2)
            .le(4, 2)
            .fill(8, 9)
            .le(5, 1)
            .le(0, 3)
            .le(4, 4)
            .fill(4, 5)
            .framed(3),
        waitRecord(4, 1, 0, 2),
        Payload().le(1, 4).le(7, 4).le(1, 4).le(0x1234, 8).framed(5),
        openRecord(3),
        Payload().framed(2),
    };
    for (const auto& r : records) {
        file.insert(file.end(), r.begin(), r.end());
    }
    aovrec::MemorySource source(file.data(), file.size());
    SessionReader reader(source);
    ASSERT_TRUE(reader.start()) << reader.error();
    Record r;
    for (size_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(reader.next(&r), SessionReader::Next::kRecord) << i << ": " << reader.error();
    }
    EXPECT_EQ(r.type, RecordType::kClose);
    EXPECT_EQ(r.open_flags, 0u);
    EXPECT_EQ(r.open_mode, 0u);
    EXPECT_EQ(r.path, "");
    EXPECT_EQ(r.request, 0u);
    EXPECT_EQ(r.arg_flags, 0u);
    EXPECT_EQ(r.sent, nullptr);
    EXPECT_EQ(r.sent_len, 0u);
    EXPECT_EQ(r.back, nullptr);
    EXPECT_EQ(r.back_len, 0u);
    EXPECT_EQ(r.area_count, 0u);
    EXPECT_EQ(r.areas[0].section, 0u);
    EXPECT_EQ(r.areas[0].length, 0u);
    EXPECT_EQ(r.areas[0].data, nullptr);
    EXPECT_EQ(r.wait_kind, aovrec::WaitKind::kPoll);
    EXPECT_EQ(r.timeout_ms, 0);
    EXPECT_EQ(r.entry_count, 0u);
    EXPECT_EQ(r.entries[0].fd, -1);
    EXPECT_EQ(r.entries[0].events, 0u);
    EXPECT_EQ(r.entries[0].revents, 0u);
    EXPECT_EQ(r.ctl_op, 0);
    EXPECT_EQ(r.ctl_fd, -1);
    EXPECT_EQ(r.ctl_events, 0u);
    EXPECT_EQ(r.ctl_data, 0u);
}

// Header fields past their ranges, one at a time; the largest allowed values
// are read as they were written.
TEST(SessionFile, HeaderFieldsOutOfRangeAreRefusedAndTheLargestAreRead) {
    aovrec::FileHeader h;
    h.content = ContentMode::kAll;
    h.compression = aovrec::Compression::kZstd;
    h.start_ns = 0x0102030405060708ull;
    h.pid = 0xA1B2C3D4u;
    uint8_t good[aovrec::kHeaderSize];
    aovrec::encodeHeader(h, good);
    // The layout other tools read: magic, version, header size, content mode,
    // compression, two zero bytes, the start and the pid, little-endian.
    const uint8_t layout[28] = {'A', 'O', 'V', 'R', 'E',  'C',  '\r', '\n', 1, 0,
                                32,  0,   2,   1,   0,    0,    8,    7,    6, 5,
                                4,   3,   2,   1,   0xD4, 0xC3, 0xB2, 0xA1};
    EXPECT_EQ(std::vector<uint8_t>(good, good + sizeof(layout)),
              std::vector<uint8_t>(layout, layout + sizeof(layout)));
    aovrec::FileHeader back;
    ASSERT_EQ(aovrec::decodeHeader(good, &back), aovrec::HeaderCheck::kOk);
    EXPECT_EQ(back.version, aovrec::kVersion);
    EXPECT_EQ(back.content, ContentMode::kAll);
    EXPECT_EQ(back.compression, aovrec::Compression::kZstd);
    EXPECT_EQ(back.start_ns, h.start_ns);
    EXPECT_EQ(back.pid, h.pid);
    for (const size_t at : {10, 11, 12, 13, 14, 15}) {
        std::vector<uint8_t> bad(good, good + sizeof(good));
        bad[at] = static_cast<uint8_t>(bad[at] + 1);
        const uint32_t crc = aovrec::crc32(bad.data(), 28);
        std::memcpy(bad.data() + 28, &crc, 4);
        SessionReader::Next next;
        EXPECT_EQ(verdict(bad, &next), "the header has a field out of range") << "byte " << at;
        EXPECT_EQ(next, SessionReader::Next::kBad) << "byte " << at;
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
    h.compression = aovrec::Compression::kZstd;
    ASSERT_TRUE(writer.begin(fd, h, work.data(), work.size()));
    std::vector<uint8_t> payload(64 * 1024, 0);
    ASSERT_TRUE(writer.write(RecordType::kClose, payload.data(), payload.size()));
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
    EXPECT_EQ(next, SessionReader::Next::kBad);
    EXPECT_NE(why.find("does not decode to 61440 bytes"), std::string::npos) << why;

    // The same frame in a file whose header says nothing is compressed.
    aovrec::FileHeader plain;
    plain.compression = aovrec::Compression::kNone;
    uint8_t head[aovrec::kHeaderSize];
    aovrec::encodeHeader(plain, head);
    std::vector<uint8_t> mislabelled(head, head + sizeof(head));
    const std::vector<uint8_t> honest = frame(2, stored, 64 * 1024, aovrec::kFrameZstd);
    mislabelled.insert(mislabelled.end(), honest.begin(), honest.end());
    EXPECT_EQ(verdict(mislabelled, &next),
              "record 0 at byte 32: compressed in a file that says it is not");
}

// A record of the largest payload a frame holds is written; one byte more is
// refused with EMSGSIZE and leaves the file as it was.
TEST(SessionFile, ARecordOverTheLargestPayloadIsRefusedAndNothingOfItWritten) {
    std::string path = ::testing::TempDir() + "aovrec_big_XXXXXX";
    const int fd = ::mkstemp(path.data());
    ASSERT_GE(fd, 0);
    aovrec::SessionWriter writer;
    aovrec::FileHeader h;
    h.compression = aovrec::Compression::kNone;
    ASSERT_TRUE(writer.begin(fd, h, nullptr, 0));
    std::vector<uint8_t> payload(aovrec::kMaxPayload + 1, 0);
    EXPECT_TRUE(writer.write(RecordType::kClose, payload.data(), aovrec::kMaxPayload));
    errno = 0;
    EXPECT_FALSE(writer.write(RecordType::kClose, payload.data(), payload.size()));
    EXPECT_EQ(errno, EMSGSIZE);
    ::close(fd);
    EXPECT_EQ(readFile(path).size(),
              aovrec::kHeaderSize + aovrec::kFrameHeaderSize + aovrec::kMaxPayload);
    ::unlink(path.c_str());
}

// Compression needs the whole work area and starts at 1 KiB of payload; a
// second file on the same writer counts its records from zero.
TEST(SessionFile, CompressionNeedsTheWholeWorkAreaAndStartsAtOneKibibyte) {
    if (!aovrec::SessionWriter::zstdAvailable()) {
        GTEST_SKIP() << "built without zstd";
    }
    std::vector<uint8_t> work(aovrec::SessionWriter::workBytes());
    const std::vector<uint8_t> zeros(1024, 0);
    std::string path = ::testing::TempDir() + "aovrec_pack_XXXXXX";
    const int fd = ::mkstemp(path.data());
    ASSERT_GE(fd, 0);
    aovrec::SessionWriter writer;
    aovrec::FileHeader h;
    h.compression = aovrec::Compression::kZstd;
    EXPECT_EQ(writer.records(), 0u);
    ASSERT_TRUE(writer.begin(fd, h, work.data(), work.size() - 1));
    EXPECT_EQ(writer.header().compression, aovrec::Compression::kNone);
    ASSERT_TRUE(writer.write(RecordType::kClose, zeros.data(), zeros.size()));
    EXPECT_EQ(writer.records(), 1u);
    const std::vector<uint8_t> uncompressed = readFile(path);
    ASSERT_EQ(uncompressed.size(), aovrec::kHeaderSize + aovrec::kFrameHeaderSize + 1024);
    EXPECT_EQ(aovrec::decodeFrameHeader(uncompressed.data() + aovrec::kHeaderSize).flags, 0);
    ASSERT_EQ(::ftruncate(fd, 0), 0);
    ASSERT_EQ(::lseek(fd, 0, SEEK_SET), 0);
    ASSERT_TRUE(writer.begin(fd, h, work.data(), work.size()));
    EXPECT_EQ(writer.records(), 0u);
    EXPECT_EQ(writer.header().compression, aovrec::Compression::kZstd);
    ASSERT_TRUE(writer.write(RecordType::kClose, zeros.data(), 1023));
    ASSERT_TRUE(writer.write(RecordType::kClose, zeros.data(), 1024));
    EXPECT_EQ(writer.records(), 2u);
    ::close(fd);
    const std::vector<uint8_t> file = readFile(path);
    ::unlink(path.c_str());
    ASSERT_GT(file.size(), aovrec::kHeaderSize + aovrec::kFrameHeaderSize + 1023);
    const aovrec::FrameHeader plain = aovrec::decodeFrameHeader(file.data() + aovrec::kHeaderSize);
    EXPECT_EQ(plain.flags, 0);
    EXPECT_EQ(plain.stored_len, 1023u);
    const size_t second = aovrec::kHeaderSize + aovrec::kFrameHeaderSize + 1023;
    ASSERT_GE(file.size(), second + aovrec::kFrameHeaderSize);
    const aovrec::FrameHeader packed = aovrec::decodeFrameHeader(file.data() + second);
    EXPECT_EQ(packed.flags, aovrec::kFrameZstd);
    EXPECT_EQ(packed.raw_len, 1024u);
    EXPECT_LT(packed.stored_len, 1024u);
    EXPECT_EQ(file.size(), second + aovrec::kFrameHeaderSize + packed.stored_len);
}

// Each is refused at the header: the reader does not go on to read records.
TEST(SessionFile, HeadersThatAreNotOursSayWhy) {
    std::vector<uint8_t> damaged = header();
    damaged[20] ^= 1;
    // The version is a 16-bit number.
    std::vector<uint8_t> high = header(0x0201);
    high[9] = 0x02;
    const uint32_t high_crc = aovrec::crc32(high.data(), 28);
    std::memcpy(high.data() + 28, &high_crc, 4);
    const std::vector<uint8_t> whole = header();
    const std::vector<uint8_t> magic(aovrec::kMagic, aovrec::kMagic + sizeof(aovrec::kMagic));
    std::vector<uint8_t> first_byte_off = magic;
    first_byte_off[0] = 'B';
    const struct {
        const char* name;
        std::vector<uint8_t> file;
        const char* reason;
    } cases[] = {
        {"text", std::vector<uint8_t>(64, 'x'), "not a session file (no AOVREC header)"},
        {"version 2", header(2), "format version 2 is not supported"},
        {"a damaged header", damaged, "the header's checksum does not match"},
        {"version 513", high, "format version 513 is not supported (this aov-rec reads version 1)"},
        // Eight bytes are enough to tell a file is not a session; seven are not.
        {"eight bytes of text", std::vector<uint8_t>(8, 'x'),
         "not a session file (no AOVREC header)"},
        {"eight bytes one off the magic", first_byte_off, "not a session file (no AOVREC header)"},
        {"seven bytes of text", std::vector<uint8_t>(7, 'x'),
         "cut off in the header (7 of 32 bytes)"},
        {"the magic alone", magic, "cut off in the header (8 of 32 bytes)"},
        {"a header cut at 20 bytes", std::vector<uint8_t>(whole.begin(), whole.begin() + 20),
         "cut off in the header (20 of 32 bytes)"},
        {"an empty file", {}, "cut off in the header (0 of 32 bytes)"},
    };
    for (const auto& c : cases) {
        SessionReader::Next next = SessionReader::Next::kRecord;
        const std::string why = verdict(c.file, &next);
        EXPECT_EQ(why.rfind(c.reason, 0), 0u) << c.name << ": " << why;
        EXPECT_EQ(next, SessionReader::Next::kBad) << c.name << ": the header was accepted";
    }
}

// A file source reads a whole file at any descriptor, 0 included, whatever
// errno held before each read, and closes it when done; a directory is a read
// error and a missing file a one-line reason.
TEST(SessionFile, AFileSourceReadsAWholeFileAndSaysWhyItCannot) {
    std::vector<uint64_t> ends;
    const std::vector<uint8_t> file = smallSession(&ends);
    const std::string path =
        ::testing::TempDir() + "aovrec_source_" + std::to_string(::getpid()) + ".rec";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    // Standard input moves away so that the file's descriptor is 0.
    const int saved_stdin = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved_stdin, 0);
    ::close(0);
    bool opened = false;
    bool at_zero = false;
    bool kept = false;
    size_t records = 0;
    SessionReader::Next next = SessionReader::Next::kBad;
    std::string error;
    {
        aovrec::FileSource source;
        std::string why;
        opened = source.open(path, &why);
        at_zero = ::fcntl(0, F_GETFD) >= 0;
        { aovrec::FileSource never_opened; }
        kept = ::fcntl(0, F_GETFD) >= 0;
        SessionReader reader(source);
        // An EINTR left over from an earlier call is no interrupted read.
        errno = EINTR;
        if (opened && reader.start()) {
            Record r;
            errno = EINTR;
            while ((next = reader.next(&r)) == SessionReader::Next::kRecord) {
                ++records;
                errno = EINTR;
            }
        }
        error = reader.error();
    }
    const bool closed = ::fcntl(0, F_GETFD) < 0;
    ::dup2(saved_stdin, 0);
    ::close(saved_stdin);
    ::unlink(path.c_str());
    EXPECT_TRUE(opened);
    EXPECT_TRUE(at_zero) << "the file was not opened as descriptor 0";
    EXPECT_TRUE(kept) << "a source never opened closed descriptor 0";
    EXPECT_EQ(records, ends.size()) << error;
    EXPECT_EQ(next, SessionReader::Next::kEnd) << error;
    EXPECT_TRUE(closed) << "descriptor 0 left open";

    aovrec::FileSource directory;
    std::string why;
    ASSERT_TRUE(directory.open(::testing::TempDir(), &why)) << why;
    SessionReader reader(directory);
    EXPECT_FALSE(reader.start());
    EXPECT_EQ(reader.error(), "cannot read: Is a directory");

    aovrec::FileSource missing;
    EXPECT_FALSE(missing.open(path, &why));
    EXPECT_EQ(why, path + ": No such file or directory");
}

TEST(SessionFile, FrameChecksAreXxh64AsPublished) {
    EXPECT_EQ(aovrec::xxh64("", 0, 0), 0xEF46DB3751D8E999ull);
    EXPECT_EQ(aovrec::xxh64("a", 1, 0), 0xD24EC4F1A98C6E5Bull);
    EXPECT_EQ(aovrec::xxh64("abc", 3, 0), 0x44BC2CF5AD770999ull);
    // The digest the tools print is the same, seed 0.
    EXPECT_EQ(aovrec::digest("abc", 3), 0x44BC2CF5AD770999ull);
    const char text[] = "Nobody inspects the spammish repetition";
    EXPECT_EQ(aovrec::xxh64(text, sizeof(text) - 1, 0), 0xFBCEA83C8A378BF1ull);
    // Each side of a 32-byte stripe (values from an independent implementation
    // that gives the four above): the short path at 31, one stripe at 32, one
    // stripe and a tail at 63, two stripes at 64.
    const std::string twice = std::string(text) + text;
    EXPECT_EQ(aovrec::xxh64(twice.data(), 31, 0), 0xC1A0E0AE86E1D78Cull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 32, 0), 0x96F5BFCBFE7F0D1Aull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 63, 0), 0x9C282837B18C4135ull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 64, 0), 0xC3391970D5FCC409ull);
    // Tails that end exactly on an 8- or 4-byte step, short and after a stripe.
    EXPECT_EQ(aovrec::xxh64(twice.data(), 4, 0), 0x265FAA35D7AFEC64ull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 8, 0), 0x93FC083B5A3F012Cull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 12, 0), 0xA45D439F3F93E297ull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 40, 0), 0xD9138FD97A74B6D8ull);
    EXPECT_EQ(aovrec::xxh64(twice.data(), 44, 0), 0xB7340EB2A8A201A8ull);
    // A frame's check: the payload's XXH64 seeded with the XXH64 (seed 0) of
    // the frame header's first 12 bytes, cut to 32 bits.
    const uint8_t head[aovrec::kFrameHeaderSize] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
    EXPECT_EQ(aovrec::frameCheck(head, text, 5),
              static_cast<uint32_t>(aovrec::xxh64(text, 5, aovrec::xxh64(head, 12, 0))));
}

// The header's check is the common CRC-32, so that other tools can verify a
// file; it may be taken over pieces.
TEST(SessionFile, TheHeaderCheckIsTheCommonCrc32) {
    const char text[] = "123456789";
    EXPECT_EQ(aovrec::crc32(text, 9), 0xCBF43926u);
    EXPECT_EQ(aovrec::crc32(text + 4, 5, aovrec::crc32(text, 4)), 0xCBF43926u);
    EXPECT_EQ(aovrec::crc32(text, 0), 0u);
}

// A writer stops at its capacity and says so; a reader stops at its end and
// reads nothing after.
TEST(SessionFile, ByteWritersAndReadersStopAtTheirBounds) {
    uint8_t buffer[8] = {};
    aovrec::ByteWriter out(buffer, 7);
    out.u32(0x04030201u);
    out.u16(0x0605);
    out.put(nullptr, 0);
    EXPECT_FALSE(out.overflow());
    out.u16(0x0807);  // one byte short of room
    EXPECT_TRUE(out.overflow());
    out.u8(9);  // it would fit, but nothing is written after an overflow
    EXPECT_EQ(out.size(), 6u);
    EXPECT_EQ(buffer[6], 0u);
    out.truncate(7);
    EXPECT_EQ(out.size(), 6u);
    out.truncate(2);
    EXPECT_EQ(out.size(), 2u);

    aovrec::ByteReader in(buffer, 6);
    EXPECT_EQ(in.u32(), 0x04030201u);
    EXPECT_EQ(in.left(), 2u);
    EXPECT_EQ(in.u32(), 0u);  // two bytes left
    EXPECT_FALSE(in.ok());
    EXPECT_EQ(in.left(), 0u);
    EXPECT_EQ(in.u8(), 0u);
    EXPECT_EQ(in.bytes(0), nullptr);
}

TEST(SessionFile, ContentModesGoByTheirNamesAndNothingElse) {
    for (const ContentMode mode : {ContentMode::kNone, ContentMode::kWritten, ContentMode::kAll}) {
        ContentMode parsed = mode == ContentMode::kAll ? ContentMode::kNone : ContentMode::kAll;
        EXPECT_TRUE(aovrec::parseContentMode(aovrec::contentModeName(mode), &parsed));
        EXPECT_EQ(parsed, mode) << aovrec::contentModeName(mode);
    }
    EXPECT_STREQ(aovrec::contentModeName(ContentMode::kWritten), "written");
    ContentMode untouched = ContentMode::kWritten;
    for (const char* text : {static_cast<const char*>(nullptr), "", "All", "written "}) {
        EXPECT_FALSE(aovrec::parseContentMode(text, &untouched)) << (text ? text : "null");
    }
    EXPECT_EQ(untouched, ContentMode::kWritten);
}

TEST(SessionFile, TheWrittenAreaRuleCapsAtTheAreaAndSkipsUnwrittenSections) {
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kWritten, 0, 0), 0u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kWritten, 0, 5), 5u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kWritten, 9, 0xFFFFFFFFu), 1024u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kAll, 5, 0), aov_event_sections[5].data_size);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kNone, 5, 100), 0u);
    EXPECT_EQ(aovrec::keptAreaBytes(ContentMode::kAll, 10, 0), 0u);
}

// A dequeue answered as answerDequeue does, numbered in its first header word.
std::atomic<uint32_t> g_dequeues{0};
int answerNumbered(int fd, unsigned long request, void* arg) {
    const int result = answerDequeue(fd, request, arg);
    static_cast<aov_event_query*>(arg)->header[0] = ++g_dequeues;
    return result;
}

// A readiness record whose timeout names it.
void smallRecord(int fd, int name) {
    pollfd p{fd, POLLIN, 0};
    aovrec::recordPoll(aovrec::WaitKind::kPoll, aovrec::monotonicNs(), &p, 1, name, 0, 0);
}

// Whether an area holds what answerDequeue put there (section 3: nothing).
bool filledAsAnswered(const aovrec::AreaView& area) {
    const size_t s = area.section - 1u;
    const uint8_t fill = s == 2 ? 0 : static_cast<uint8_t>(0x40 + s);
    const uint32_t want =
        s == 3 ? aov_event_sections[3].data_size : static_cast<uint32_t>((s + 1) * 100);
    if (area.length != want) {
        return false;
    }
    for (uint32_t i = 0; i < area.length; ++i) {
        if (area.data[i] != fill) {
            return false;
        }
    }
    return true;
}

// What a record says: "D<n>" for a dequeue numbered n whose nine areas came
// out whole, "P<timeout>" for a readiness record, "open", "close", or what
// is wrong with it.
std::string describe(const Record& r) {
    if (r.type == RecordType::kOpen || r.type == RecordType::kClose) {
        return r.type == RecordType::kOpen ? "open" : "close";
    }
    if (r.type == RecordType::kPoll) {
        return "P" + std::to_string(r.timeout_ms);
    }
    if (r.type == RecordType::kIoctl && r.request == AOV_IOC_STOP) {
        return "STOP";
    }
    if (r.type == RecordType::kIoctl && r.back_len == sizeof(aov_event_query)) {
        bool whole = r.area_count == 9;
        for (uint8_t i = 0; whole && i < r.area_count; ++i) {
            whole = filledAsAnswered(r.areas[i]);
        }
        return "D" + std::to_string(word(r.back, 0)) + (whole ? "" : " damaged");
    }
    return "unexpected record type " + std::to_string(static_cast<int>(r.type));
}

std::vector<std::string> describeAll(const std::vector<Record>& records) {
    std::vector<std::string> out;
    for (const Record& r : records) {
        out.push_back(describe(r));
    }
    return out;
}

// The records of a file's bytes, described; `error` tells why reading stopped early.
std::vector<std::string> describeBytes(const std::vector<uint8_t>& bytes, std::string* error) {
    aovrec::MemorySource source(bytes.data(), bytes.size());
    SessionReader reader(source);
    std::vector<std::string> out;
    if (!reader.start()) {
        *error = reader.error();
        return out;
    }
    Record r;
    SessionReader::Next next;
    while ((next = reader.next(&r)) == SessionReader::Next::kRecord) {
        out.push_back(describe(r));
    }
    if (next != SessionReader::Next::kEnd) {
        *error = reader.error();
    }
    return out;
}

TEST(WriterThread, RecordsFromTwoThreadsComeOutCompleteAndEachThreadsInCallOrder) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    g_dequeues = 0;
    constexpr int kDequeues = 30;
    constexpr int kSmall = 150;
    std::atomic<long> other_tid{0};
    std::thread other([fd, &other_tid] {
        other_tid = ::syscall(SYS_gettid);
        for (int i = 0; i < kSmall; ++i) {
            smallRecord(fd, i);
        }
    });
    std::vector<Dequeue> buffers(2);
    for (int i = 0; i < kDequeues; ++i) {
        Dequeue& dq = buffers[static_cast<size_t>(i % 2)];
        aov_event_query query = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
    }
    other.join();
    rec.closeNode(fd);
    const std::vector<Record> records = rec.read();
    const std::vector<std::string> got = describeAll(records);
    // Each record names the thread that made the call.
    const long self = ::syscall(SYS_gettid);
    ASSERT_NE(other_tid.load(), self);
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].call.tid,
                  static_cast<uint32_t>(got[i][0] == 'P' ? other_tid.load() : self))
            << got[i];
    }
    std::vector<std::string> dequeues, small;
    for (const std::string& item : got) {
        if (item[0] == 'D' || item[0] == 'P') {
            (item[0] == 'D' ? dequeues : small).push_back(item);
        }
    }
    ASSERT_EQ(got.size(), size_t{2 + kDequeues + kSmall});
    EXPECT_EQ(got.front(), "open");
    EXPECT_EQ(got.back(), "close");
    ASSERT_EQ(dequeues.size(), size_t{kDequeues});
    for (int i = 0; i < kDequeues; ++i) {
        EXPECT_EQ(dequeues[static_cast<size_t>(i)], "D" + std::to_string(i + 1));
    }
    ASSERT_EQ(small.size(), size_t{kSmall});
    for (int i = 0; i < kSmall; ++i) {
        EXPECT_EQ(small[static_cast<size_t>(i)], "P" + std::to_string(i));
    }
    const aovrec::RecorderStats stats = aovrec::stats();
    EXPECT_EQ(stats.written, got.size());
    EXPECT_EQ(stats.dropped, 0u) << "no call was left unrecorded";
    EXPECT_GE(stats.handed_off, uint64_t{kDequeues}) << "every content dequeue is queued";
}

// A session file that is a pipe: the writer thread blocks in its write
// until the test reads, so the records after a content dequeue are queued
// for certain.
class PipeSession {
  public:
    PipeSession() {
        path_ = ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_pipe.rec";
        ::unlink(path_.c_str());
        EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0) << std::strerror(errno);
        reader_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(reader_, 0) << std::strerror(errno);
    }
    ~PipeSession() {
        if (drainer_.joinable()) {
            drainer_.join();
        }
        closeReader();
    }
    const std::string& path() const { return path_; }
    void closeReader() {
        if (reader_ >= 0) {
            ::close(reader_);
            reader_ = -1;
        }
    }
    // Reads on this thread until `n` bytes in all have come (10 s at most).
    bool readAtLeast(size_t n) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        uint8_t chunk[65536];
        while (bytes_.size() < n && std::chrono::steady_clock::now() < deadline) {
            pollfd p{reader_, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) {
                continue;
            }
            const size_t want =
                n - bytes_.size() < sizeof(chunk) ? n - bytes_.size() : sizeof(chunk);
            const ssize_t got = ::read(reader_, chunk, want);
            if (got == 0) {
                return false;
            }
            if (got > 0) {
                bytes_.insert(bytes_.end(), chunk, chunk + got);
            }
        }
        return bytes_.size() >= n;
    }
    // Reads on another thread until the writer closes its end.
    void startReading() {
        drainer_ = std::thread([this] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            uint8_t chunk[65536];
            while (std::chrono::steady_clock::now() < deadline) {
                pollfd p{reader_, POLLIN, 0};
                if (::poll(&p, 1, 100) <= 0) {
                    continue;
                }
                const ssize_t n = ::read(reader_, chunk, sizeof(chunk));
                if (n == 0) {
                    ended_ = true;
                    return;
                }
                if (n > 0) {
                    bytes_.insert(bytes_.end(), chunk, chunk + n);
                }
            }
        });
    }
    // The bytes once the writer's end is closed; false after 30 s without that.
    bool finish(std::vector<uint8_t>* bytes) {
        drainer_.join();
        *bytes = bytes_;
        return ended_;
    }

  private:
    std::string path_;
    int reader_ = -1;
    std::thread drainer_;
    std::vector<uint8_t> bytes_;
    bool ended_ = false;
};

TEST(WriterThread, WhileTheWriterIsBlockedSmallRecordsQueueBehindTheContentInCallOrder) {
    PipeSession pipe;
    std::vector<uint8_t> bytes;
    {
        // Uncompressed: each dequeue is far more than the pipe holds.
        Recording rec(ContentMode::kWritten, false, pipe.path());
        const int fd = rec.openNode();
        ASSERT_FALSE(aovrec::stats().failed);
        g_dequeues = 0;
        Dequeue dq;
        // Both content buffers and twelve queue entries, none written yet.
        for (int round = 0; round < 2; ++round) {
            aov_event_query query = dq.query;
            ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
            for (int i = 0; i < 5; ++i) {
                smallRecord(fd, round * 5 + i);
            }
        }
        pipe.startReading();
        aov_event_query query = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
        smallRecord(fd, 10);
        rec.closeNode(fd);
        const aovrec::RecorderStats stats = aovrec::stats();
        EXPECT_GE(stats.handed_off, 12u) << "the records behind the blocked write were queued";
        EXPECT_EQ(stats.written, 16u);
        aovrec::configure(aovrec::RecorderConfig{});  // closes the writer's end
        ASSERT_TRUE(pipe.finish(&bytes)) << "the session file was not closed within 30 s";
    }
    std::string error;
    const std::vector<std::string> got = describeBytes(bytes, &error);
    EXPECT_EQ(error, "");
    const std::vector<std::string> want = {"open", "D1", "P0", "P1", "P2", "P3", "P4",  "D2",
                                           "P5",   "P6", "P7", "P8", "P9", "D3", "P10", "close"};
    EXPECT_EQ(got, want);
}

// A record queued while the writer is inside a batch is written in the
// next one, in its place, and the records after it find room at once (a
// short stall limit would stop the recording otherwise).
TEST(WriterThread, ARecordQueuedDuringABatchIsWrittenNextAndTheQueueGoesOn) {
    PipeSession pipe;
    std::vector<uint8_t> bytes;
    {
        Recording rec(ContentMode::kWritten, false, pipe.path(), 2000);
        const int fd = rec.openNode();
        ASSERT_FALSE(aovrec::stats().failed);
        g_dequeues = 0;
        Dequeue dq;
        aov_event_query query = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
        // 128 KiB read and the pipe's 64 KiB are far less than the dequeue's
        // record: the writer is inside its write, its batch already taken.
        ASSERT_TRUE(pipe.readAtLeast(128 * 1024)) << "the writer wrote nothing within 10 s";
        smallRecord(fd, 0);
        pipe.startReading();
        ASSERT_TRUE(aovrec::drain());
        for (int i = 1; i <= 3; ++i) {
            smallRecord(fd, i);
        }
        rec.closeNode(fd);
        const aovrec::RecorderStats stats = aovrec::stats();
        EXPECT_FALSE(stats.failed);
        EXPECT_EQ(stats.written, 7u);
        EXPECT_EQ(stats.dropped, 0u);
        aovrec::configure(aovrec::RecorderConfig{});  // closes the writer's end
        ASSERT_TRUE(pipe.finish(&bytes)) << "the session file was not closed within 30 s";
    }
    std::string error;
    EXPECT_EQ(describeBytes(bytes, &error),
              (std::vector<std::string>{"open", "D1", "P0", "P1", "P2", "P3", "close"}));
    EXPECT_EQ(error, "");
}

// A session file a death test's child writes and its parent reads: the
// child runs the test again from its start, under a pid of its own, so the
// name comes from the parent through `variable`.
std::string fileOfDeathTest(const char* variable, const char* name) {
    if (std::getenv(variable) == nullptr) {
        const std::string path =
            ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_" + name;
        ::setenv(variable, path.c_str(), 1);
    }
    return std::getenv(variable);
}

TEST(WriterThread, ANormalExitWritesWhatIsStillQueued) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_EXIT_TEST_FILE", "exit.rec");
    EXPECT_EXIT(
        {
            aovrec::RecorderConfig config;
            config.file = path.c_str();
            config.content = ContentMode::kWritten;
            config.compress = false;
            config.node = kNode;
            config.stall_limit_ms = 60000;  // order, not a stall, is tested here
            aovrec::configure(config);
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
            Dequeue dq;
            for (int i = 0; i < 8; ++i) {
                aov_event_query query = dq.query;
                aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query);
            }
            smallRecord(fd, 7);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    std::string error;
    const std::vector<std::string> got = describeBytes(readFile(path), &error);
    ::unlink(path.c_str());
    EXPECT_EQ(error, "");
    const std::vector<std::string> want = {"open", "D1", "D2", "D3", "D4",
                                           "D5",   "D6", "D7", "D8", "P7"};
    EXPECT_EQ(got, want);
}

// True when a thread of this process other than the caller runs at
// SCHED_BATCH with every standard signal it can block blocked.
bool aBackgroundThreadBlocksEverySignal() {
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return false;
    }
    const long self = ::syscall(SYS_gettid);
    bool found = false;
    while (const dirent* entry = ::readdir(tasks)) {
        const long tid = std::strtol(entry->d_name, nullptr, 10);
        if (tid <= 0 || tid == self ||
            ::sched_getscheduler(static_cast<pid_t>(tid)) != SCHED_BATCH) {
            continue;
        }
        std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
        unsigned long long blocked = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) == 0) {
                blocked = std::strtoull(line.c_str() + 7, nullptr, 16);
            }
        }
        bool all = true;
        for (int sig = 1; sig < 32; ++sig) {
            all = all && (sig == SIGKILL || sig == SIGSTOP || ((blocked >> (sig - 1)) & 1) != 0);
        }
        found = found || all;
    }
    ::closedir(tasks);
    return found;
}

// The writer thread runs at background priority with every signal blocked
// in it; the thread whose call started it keeps its own mask, so that a
// recorded program's signals reach it as before (a child process: the
// writer starts once a process).
TEST(WriterThread, TheWriterRunsInTheBackgroundAndTheThreadThatStartsItKeepsItsSignalMask) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_MASK_TEST_FILE", "mask.rec");
    EXPECT_EXIT(
        {
            sigset_t usr1;
            sigemptyset(&usr1);
            sigaddset(&usr1, SIGUSR1);
            pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
            sigset_t before;
            pthread_sigmask(SIG_BLOCK, nullptr, &before);
            aovrec::RecorderConfig config;
            config.file = path.c_str();
            config.content = ContentMode::kWritten;
            config.node = kNode;
            aovrec::configure(config);
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
            Dequeue dq;
            aov_event_query query = dq.query;
            aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query);
            sigset_t after;
            pthread_sigmask(SIG_BLOCK, nullptr, &after);
            for (int sig = 1; sig < NSIG; ++sig) {
                if (sigismember(&before, sig) != sigismember(&after, sig)) {
                    std::fprintf(stderr, "signal %d: %s before, %s after\n", sig,
                                 sigismember(&before, sig) ? "blocked" : "open",
                                 sigismember(&after, sig) ? "blocked" : "open");
                    std::_Exit(2);
                }
            }
            if (!aBackgroundThreadBlocksEverySignal()) {
                std::fprintf(stderr, "no thread at SCHED_BATCH with every signal blocked\n");
                std::_Exit(3);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    std::string error;
    const std::vector<std::string> got = describeBytes(readFile(path), &error);
    ::unlink(path.c_str());
    EXPECT_EQ(error, "");
    EXPECT_EQ(got, (std::vector<std::string>{"open", "D1"})) << "the writer thread wrote them";
}

// Standard error into a file for the length of a test.
class CapturedStderr {
  public:
    CapturedStderr() {
        path_ = ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_stderr";
        file_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        saved_ = ::dup(2);
        ::dup2(file_, 2);
    }
    ~CapturedStderr() { restore(); }
    std::string text() {
        restore();
        const std::vector<uint8_t> bytes = readFile(path_);
        ::unlink(path_.c_str());
        return std::string(bytes.begin(), bytes.end());
    }

  private:
    void restore() {
        if (saved_ >= 0) {
            ::dup2(saved_, 2);
            ::close(saved_);
            ::close(file_);
            saved_ = -1;
        }
    }
    std::string path_;
    int file_ = -1;
    int saved_ = -1;
};

// A file that cannot be opened, or that opens but refuses the header: the
// recording stops with one line naming the file and the system's reason,
// and the calls go on with their own results.
TEST(SessionFile, AFileThatCannotBeWrittenStopsTheRecordingButNotTheCalls) {
    // A memory file sealed against writes opens, then refuses the header (EPERM).
    const int sealed = ::memfd_create("sealed", MFD_ALLOW_SEALING | MFD_CLOEXEC);
    ASSERT_GE(sealed, 0) << std::strerror(errno);
    ASSERT_EQ(::fcntl(sealed, F_ADD_SEALS, F_SEAL_WRITE), 0) << std::strerror(errno);
    const struct {
        std::string path;
        int err;
    } files[] = {{"/nonexistent-dir/session.rec", ENOENT},
                 {"/proc/self/fd/" + std::to_string(sealed), EPERM}};
    for (const auto& file : files) {
        CapturedStderr err;
        {
            Recording rec(ContentMode::kWritten, true, file.path);
            const int fd = rec.openNode();
            EXPECT_TRUE(aovrec::stats().failed) << file.path;
            EXPECT_FALSE(aovrec::g_armed.load()) << file.path;
            Dequeue dq;
            EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
            EXPECT_EQ(dq.query.header[0], 10u);
            EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
            EXPECT_EQ(errno, EIO);
            ::close(fd);
            aovrec::forgetOnClose(fd);
        }
        EXPECT_EQ(err.text(), "aov-rec: recording stopped: " + file.path + ": " +
                                  std::strerror(file.err) + "\n");
    }
    ::close(sealed);
}

// The recorder follows 32 registrations of the node in epoll at once; one
// more is not followed, which is said once, and the others still are.
TEST(SessionFile, ARegistrationPastTheWatchTableIsSaidOnceAndTheOthersAreFollowed) {
    CapturedStderr err;
    std::vector<Record> r;
    {
        Recording rec(ContentMode::kWritten);
        const int fd = rec.openNode();
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = 7;
        // Epoll descriptors by number only: the recorder keeps what the calls said.
        constexpr int kFirst = 1000;
        constexpr int kTable = 32;
        for (int i = 0; i <= kTable + 1; ++i) {
            aovrec::recordEpollCtl(aovrec::monotonicNs(), kFirst + i, EPOLL_CTL_ADD, fd, &ev, 0, 0);
        }
        for (const int epfd : {kFirst, kFirst + kTable - 1, kFirst + kTable}) {
            aovrec::recordEpollWait(aovrec::WaitKind::kEpollWait, aovrec::monotonicNs(), epfd, &ev,
                                    0, 1, 0);
        }
        rec.closeNode(fd);
        r = rec.read();
    }
    const std::string text = err.text();
    EXPECT_EQ(text,
              "aov-rec: the node is registered in epoll more than 32 times at once: waits "
              "through the others are recorded without it\n");
    const size_t waits = 1 + 32 + 2;
    ASSERT_EQ(r.size(), waits + 3 + 1);
    std::vector<int> named;
    for (size_t i = waits; i < waits + 3; ++i) {
        ASSERT_EQ(r[i].type, RecordType::kEpollWait);
        named.push_back(r[i].entry_count == 1 ? r[i].entries[0].fd : -1);
    }
    const int fd = r[0].call.result;
    EXPECT_EQ(named, (std::vector<int>{fd, fd, -1}));
}

// A setting of the environment the recorder cannot use turns the recording
// off with one line naming it: on standard error, or under aov-rec record as
// a "stop" line of its status file. Settings at their limits are taken.
TEST(SessionFile, ASettingTheRecorderCannotUseTurnsItOffWithOneLine) {
    struct Case {
        const char* variable;
        const char* value;
        const char* line;  // empty: the setting is taken
    };
    // The session and status files by names of one character, in the tests' directory.
    const int cwd = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::chdir(::testing::TempDir().c_str()), 0) << std::strerror(errno);
    const std::string file = "r";
    const std::string status = "s";
    const std::string pid = std::to_string(::getpid());
    ::setenv(aovrec::kEnvFile, file.c_str(), 1);
    for (const Case c :
         {Case{aovrec::kEnvContent, "some",
               "AOV_REC_CONTENT must be all, written or none, not some; recording off"},
          Case{aovrec::kEnvContent, "none", ""}, Case{aovrec::kEnvContent, "", ""},
          Case{aovrec::kEnvStallMs, "0",
               "AOV_REC_STALL_MS must be 1 to 600000, not 0; recording off"},
          Case{aovrec::kEnvStallMs, "600001",
               "AOV_REC_STALL_MS must be 1 to 600000, not 600001; recording off"},
          Case{aovrec::kEnvStallMs, "20ms",
               "AOV_REC_STALL_MS must be 1 to 600000, not 20ms; recording off"},
          Case{aovrec::kEnvStallMs, "1", ""}, Case{aovrec::kEnvStallMs, "600000", ""},
          Case{aovrec::kEnvStallMs, "", ""}}) {
        for (const bool under_record : {false, true}) {
            const std::string what = std::string(c.variable) + "=" + c.value +
                                     (under_record ? " with a status file" : "");
            aovrec::configure(aovrec::RecorderConfig{});
            ::unlink(status.c_str());
            if (under_record) {
                ::close(::open(status.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
                ::setenv(aovrec::kEnvStatus, status.c_str(), 1);
            } else {
                ::unsetenv(aovrec::kEnvStatus);
            }
            ::setenv(c.variable, c.value, 1);
            CapturedStderr err;
            aovrec::configureFromEnvironment();
            const std::string text = err.text();
            ::unsetenv(c.variable);
            const std::vector<uint8_t> said = readFile(status);
            const std::string line = c.line[0] == '\0' ? "" : std::string(c.line) + "\n";
            EXPECT_EQ(text, under_record || line.empty() ? "" : "aov-rec: " + line) << what;
            EXPECT_EQ(std::string(said.begin(), said.end()),
                      under_record && !line.empty() ? "stop " + pid + " " + line : "")
                << what;
            EXPECT_EQ(aovrec::g_armed.load(), line.empty()) << what;
        }
    }
    aovrec::configure(aovrec::RecorderConfig{});
    ::unlink(status.c_str());
    EXPECT_EQ(::fchdir(cwd), 0);
    ::close(cwd);
    ::unsetenv(aovrec::kEnvStatus);
    ::unsetenv(aovrec::kEnvFile);
    ::unsetenv(aovrec::kEnvParent);
}

// Under aov-rec record, a recording's start and its stop are lines of the
// status file and nothing goes to standard error; a status file that cannot
// be written, or none, leaves the stop on standard error.
TEST(SessionFile, AStatusFileGetsTheStartAndTheStopInsteadOfStandardError) {
    // The status file by a name of one character, in the tests' directory.
    const int cwd = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::chdir(::testing::TempDir().c_str()), 0) << std::strerror(errno);
    const std::string pid = std::to_string(::getpid());
    const std::string status = "s";
    const std::string good = ::testing::TempDir() + "aovrec_status_" + pid + ".rec";
    const std::string bad = "/nonexistent-dir/session.rec";
    ::close(::open(status.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const std::string stopped = bad + ": " + std::strerror(ENOENT) + "\n";
    const struct {
        const std::string& file;
        const char* status;
        std::string said;  // added to the status file
        std::string err;   // on standard error
        bool no_stdin;     // the status file is opened as descriptor 0
    } cases[] = {
        {good, status.c_str(), "start " + pid + " " + good + "\n", "", false},
        {bad, status.c_str(), "stop " + pid + " " + stopped, "", false},
        {bad, status.c_str(), "stop " + pid + " " + stopped, "", true},
        {bad, "/nonexistent-dir/status", "", "aov-rec: recording stopped: " + stopped, false},
        {bad, nullptr, "", "aov-rec: recording stopped: " + stopped, false},
    };
    std::string want;
    for (const auto& c : cases) {
        const std::string what =
            c.file +
            (c.status == nullptr ? " without a status file" : std::string(" status ") + c.status) +
            (c.no_stdin ? " and descriptor 0 free" : "");
        CapturedStderr err;
        const int saved = c.no_stdin ? ::fcntl(0, F_DUPFD_CLOEXEC, 3) : -1;
        if (c.no_stdin) {
            ::close(0);
        }
        aovrec::RecorderConfig config;
        config.file = c.file.c_str();
        config.node = kNode;
        config.status = c.status;
        aovrec::configure(config);
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
        aovrec::forgetOnClose(fd);
        ::close(fd);
        aovrec::configure(aovrec::RecorderConfig{});
        if (saved >= 0) {
            ::dup2(saved, 0);
            ::close(saved);
        }
        EXPECT_EQ(err.text(), c.err) << what;
        want += c.said;
        const std::vector<uint8_t> said = readFile(status);
        EXPECT_EQ(std::string(said.begin(), said.end()), want) << what;
    }
    ::unlink(good.c_str());
    ::unlink(status.c_str());
    EXPECT_EQ(::fchdir(cwd), 0);
    ::close(cwd);
}

TEST(WriterThread, AWriteThatFailsOnTheWriterThreadIsSaidOnceAndTheCallsGoOn) {
    PipeSession pipe;
    CapturedStderr err;
    {
        Recording rec(ContentMode::kWritten, false, pipe.path());
        const int fd = rec.openNode();
        ASSERT_FALSE(aovrec::stats().failed);
        pipe.closeReader();  // the next write fails (EPIPE; SIGPIPE stays blocked there)
        for (int i = 0; i < 3; ++i) {
            Dequeue dq;
            errno = 0;
            EXPECT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query),
                      0);
            EXPECT_EQ(dq.query.header[1], 11u) << "the caller gets the driver's answer";
            EXPECT_TRUE(aovrec::drain());
            EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
            EXPECT_EQ(errno, EIO);
        }
        EXPECT_TRUE(aovrec::stats().failed);
        EXPECT_FALSE(aovrec::g_armed.load());
        rec.closeNode(fd);
    }
    const std::string text = err.text();
    const std::string line = "aov-rec: recording stopped: cannot write the session file: ";
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_EQ(text.find(line), text.rfind(line)) << text;
}

// Records three failing STOPs with the session file limited to its size
// after the open record plus `room` bytes, then exits: 0 when the calls kept
// their results and errno and the recording stopped at the second at the
// latest. The size limit is finite from the start, as a process's would be.
[[noreturn]] void stopsAtASizeLimit(const std::string& path, rlim_t room) {
    std::signal(SIGXFSZ, SIG_DFL);
    // The limit holds for every file the process writes: its standard
    // output, a regular file when the tests' output is kept in one, would
    // raise SIGXFSZ when flushed at the exit. Only the session file may meet
    // the limit here; standard error carries what the death test matches.
    std::fflush(stdout);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    rlimit fsize{};
    fsize.rlim_cur = 1 << 20;
    fsize.rlim_max = 1 << 20;
    ::setrlimit(RLIMIT_FSIZE, &fsize);
    aovrec::RecorderConfig config;
    config.file = path.c_str();
    config.compress = false;
    config.node = kNode;
    config.stall_limit_ms = 60000;  // order, not a stall, is tested here
    aovrec::configure(config);
    const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
    aovrec::drain();
    struct stat info {};
    ::stat(path.c_str(), &info);
    fsize.rlim_cur = static_cast<rlim_t>(info.st_size) + room;
    fsize.rlim_max = fsize.rlim_cur;
    ::setrlimit(RLIMIT_FSIZE, &fsize);
    bool ok = true;
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        const int result = aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
        if (result != -1 || errno != EIO) {
            std::fprintf(stderr, "STOP %d: %d errno %d, expected -1 errno EIO\n", i, result, errno);
            ok = false;
        }
        if (i == 1 && !aovrec::stats().failed) {
            std::fprintf(stderr, "the failed write did not stop the recording\n");
            ok = false;
        }
    }
    std::exit(ok ? 0 : 1);
}

// A disk that fills up mid-recording (a file size limit here): the write
// that is cut short stops the recording at once, said once, and the
// process's requests keep their own results and errno.
TEST(WriterThread, AFullDiskStopsTheRecordingAndTheCallerKeepsItsErrno) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_FULL_TEST_FILE", "full.rec");
    // Room for one more STOP record (58 bytes) and half of the next.
    EXPECT_EXIT(
        stopsAtASizeLimit(path, 58 + 29), ::testing::ExitedWithCode(0),
        "aov-rec: recording stopped: cannot write the session file: No space left on device");
    std::string error;
    describeBytes(readFile(path), &error);
    ::unlink(path.c_str());
    EXPECT_NE(error.find("cut off"), std::string::npos) << error;
}

// A write at the size limit raises SIGXFSZ, whose default action would end
// the process.
TEST(WriterThread, AFileAtItsSizeLimitStopsTheRecordingAndTheProcessGoesOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_LIMIT_TEST_FILE", "limit.rec");
    EXPECT_EXIT(stopsAtASizeLimit(path, 0), ::testing::ExitedWithCode(0),
                "aov-rec: recording stopped: cannot write the session file: ");
    ::unlink(path.c_str());
}

// The writer thread blocks every signal, but the file's header is written by
// the thread that first opens the node: a header refused at the size limit
// raises SIGXFSZ there, and that must not end the process either.
TEST(WriterThread, AHeaderRefusedAtTheSizeLimitStopsTheRecordingAndTheProcessGoesOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_HEADER_TEST_FILE", "header.rec");
    EXPECT_EXIT(
        {
            std::signal(SIGXFSZ, SIG_DFL);
            // The limit holds for every file the process writes: its output
            // and errors go nowhere until it is lifted.
            std::fflush(stdout);
            std::fflush(stderr);
            const int saved = ::dup(STDERR_FILENO);
            const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            rlimit fsize{};
            ::getrlimit(RLIMIT_FSIZE, &fsize);
            const rlimit unlimited = fsize;
            fsize.rlim_cur = 0;
            ::setrlimit(RLIMIT_FSIZE, &fsize);
            aovrec::RecorderConfig config;
            config.file = path.c_str();
            config.compress = false;
            config.node = kNode;
            aovrec::configure(config);
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
            ::setrlimit(RLIMIT_FSIZE, &unlimited);
            ::dup2(saved, STDERR_FILENO);
            if (!aovrec::stats().failed) {
                std::fprintf(stderr, "the refused header did not stop the recording\n");
                std::exit(1);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    ::unlink(path.c_str());
}

// What the process has mapped, from /proc/self/status; 0 when unknown.
rlim_t mappedBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmSize:", 0) == 0) {
            return static_cast<rlim_t>(std::strtoull(line.c_str() + 7, nullptr, 10)) * 1024;
        }
    }
    return 0;
}

// A process whose address space has no room for the recorder's buffers
// (taken at the first call on the node) goes on unrecorded, said once.
TEST(SessionFile, NoRoomForTheRecordersBuffersStopsTheRecordingAndTheCallsGoOn) {
#if AOVREC_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer's own allocations need the address space this test takes away";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = fileOfDeathTest("AOVREC_NOMEM_TEST_FILE", "nomem.rec");
    EXPECT_EXIT(
        {
            aovrec::RecorderConfig config;
            config.file = path.c_str();
            config.node = kNode;
            aovrec::configure(config);
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            // 1 MiB more than the process has mapped: less than the buffers need.
            const rlim_t mapped = mappedBytes();
            if (mapped == 0) {
                std::fprintf(stderr, "no VmSize in /proc/self/status\n");
                std::exit(2);
            }
            rlimit as{};
            as.rlim_cur = mapped + (1 << 20);
            as.rlim_max = as.rlim_cur;
            ::setrlimit(RLIMIT_AS, &as);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
            errno = 0;
            const int result = aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
            std::exit(result == -1 && errno == EIO && aovrec::stats().failed ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "aov-rec: recording stopped: .*nomem.rec: no memory for the recorder's buffers");
    ::unlink(path.c_str());
}

// A session file that is a pipe whose reader has gone: a record its caller
// writes raises SIGPIPE, which must not end the process.
TEST(WriterThread, APipeWhoseReaderHasGoneStopsTheRecordingAndTheProcessGoesOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_DFL);
            PipeSession pipe;
            Recording rec(ContentMode::kWritten, false, pipe.path());
            const int fd = rec.openNode();
            bool ok = !aovrec::stats().failed;
            pipe.closeReader();
            for (int i = 0; i < 3; ++i) {
                errno = 0;
                const int result = aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
                if (result != -1 || errno != EIO) {
                    std::fprintf(stderr, "STOP %d: %d errno %d, expected -1 errno EIO\n", i, result,
                                 errno);
                    ok = false;
                }
            }
            if (!aovrec::stats().failed) {
                std::fprintf(stderr, "the failed write did not stop the recording\n");
                ok = false;
            }
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "aov-rec: recording stopped: cannot write the session file: ");
}

// An event buffer of its own pages, so that parts of it can be made unreadable.
struct MappedDequeue {
    MappedDequeue() {
        room = ::mmap(nullptr, sizeof(aov_event), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(room, MAP_FAILED);
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            aov_query_set_area(&query, s,
                               static_cast<uint8_t*>(room) + aov_event_sections[s].data_offset);
        }
    }
    ~MappedDequeue() { ::munmap(room, sizeof(aov_event)); }
    void* room = MAP_FAILED;
    aov_event_query query{};
};

// The driver answers section 1 at this address instead of the one sent.
void* g_moved_area = nullptr;
int answerElsewhere(int fd, unsigned long request, void* arg) {
    const int result = answerDequeue(fd, request, arg);
    aov_query_set_area(static_cast<aov_event_query*>(arg), 0, g_moved_area);
    return result;
}

// Each data area is read through a copy that cannot fault, by
// process_vm_readv or, where a sandbox refuses it, through a pipe.
using aovtest::openDescriptors;

class AreaCopy : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override { aovrec::forcePipeCopies(GetParam()); }
    void TearDown() override { aovrec::forcePipeCopies(false); }
};

// As answerDequeue, without touching section 4's area (it may not be writable).
int answerWithoutSection4(int fd, unsigned long request, void* arg) {
    auto* query = static_cast<aov_event_query*>(arg);
    void* s4 = aov_query_area(query, 3);
    aov_query_set_area(query, 3, nullptr);
    const int result = answerDequeue(fd, request, arg);
    aov_query_set_area(query, 3, s4);
    return result;
}

TEST_P(AreaCopy, AreasTheProcessCannotReadAreLeftOutWhereverTheDriverPointed) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    const int fds_before = openDescriptors();
    MappedDequeue first;
    const aovrec::RecorderStats before = aovrec::stats();
    aov_event_query q1 = first.query;
    ASSERT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &q1), 0);
    aov_event_query q2 = first.query;
    ASSERT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &q2), 0);
    const aovrec::RecorderStats twice = aovrec::stats();
    EXPECT_EQ(twice.areas_read - before.areas_read, 18u);
    EXPECT_EQ(twice.areas_unreadable, before.areas_unreadable);

    // Section 1 of the first buffer, read twice before, becomes unreadable;
    // the driver answers with that address for a record that named another.
    ASSERT_EQ(::mprotect(first.room, 4096, PROT_NONE), 0);
    MappedDequeue second;
    g_moved_area = static_cast<uint8_t*>(first.room) + aov_event_sections[0].data_offset;
    aov_event_query q3 = second.query;
    ASSERT_EQ(aovrec::trackedIoctl(answerElsewhere, fd, AOV_IOC_DEQUEUE_EVENT, &q3), 0);
    // A sent address that is not mapped (section 3, which the driver says
    // it wrote but does not touch).
    void* hole = ::mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    aov_event_query q4 = second.query;
    aov_query_set_area(&q4, 2, hole);
    ASSERT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &q4), 0);
    // One page in the middle of section 4's large area cannot be read.
    const aov_section_desc& s4 = aov_event_sections[3];
    const auto s4Start = reinterpret_cast<uintptr_t>(second.room) + s4.data_offset;
    void* s4Page = reinterpret_cast<void*>((s4Start + s4.data_size / 2) & ~uintptr_t{4095});
    aov_event_query q5 = second.query;
    ASSERT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &q5), 0);
    ASSERT_EQ(::mprotect(s4Page, 4096, PROT_NONE), 0);
    aov_event_query q6 = second.query;
    // The driver says it wrote the area again but leaves it as it was.
    ASSERT_EQ(aovrec::trackedIoctl(answerWithoutSection4, fd, AOV_IOC_DEQUEUE_EVENT, &q6), 0);
    ASSERT_EQ(::mprotect(s4Page, 4096, PROT_READ | PROT_WRITE), 0);
    const aovrec::RecorderStats after = aovrec::stats();
    EXPECT_EQ(openDescriptors(), fds_before) << "a copy left a descriptor open";
    rec.closeNode(fd);
    ::munmap(hole, 1 << 20);

    const std::vector<Record> r = rec.read();
    ASSERT_EQ(r.size(), 8u);
    for (size_t i = 1; i <= 5; ++i) {
        for (uint8_t a = 0; a < r[i].area_count; ++a) {
            EXPECT_TRUE(filledAsAnswered(r[i].areas[a]))
                << "dequeue " << i << " section " << int{r[i].areas[a].section};
        }
    }
    EXPECT_EQ(r[1].area_count, 9);
    EXPECT_EQ(r[2].area_count, 9);
    // Section 1 moved to unreadable memory: read by the kernel, left out.
    ASSERT_EQ(r[3].area_count, 8);
    EXPECT_NE(r[3].areas[0].section, 1);
    // Section 3 unmapped where the caller sent it: left out as well.
    ASSERT_EQ(r[4].area_count, 8);
    for (uint8_t a = 0; a < r[4].area_count; ++a) {
        EXPECT_NE(r[4].areas[a].section, 3);
    }
    // Section 4 with a page that cannot be read: left out whole.
    EXPECT_EQ(r[5].area_count, 9);
    ASSERT_EQ(r[6].area_count, 8);
    for (uint8_t a = 0; a < r[6].area_count; ++a) {
        EXPECT_NE(r[6].areas[a].section, 4);
    }
    EXPECT_EQ(after.areas_read - twice.areas_read, 36u);
    EXPECT_EQ(after.areas_unreadable - twice.areas_unreadable, 3u);
    if (GetParam()) {
        EXPECT_GT(after.pipe_copies, before.pipe_copies) << "the pipe was not used";
    } else {
        EXPECT_EQ(after.pipe_copies, before.pipe_copies);
    }
}

INSTANTIATE_TEST_SUITE_P(SessionFile, AreaCopy, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? std::string("ThroughAPipe")
                                               : std::string("ThroughProcessVmReadv");
                         });

// A session file on a pipe whose reader is alive but reads nothing: the
// calls keep going. Content that finds no free buffer within the stall
// limit is dropped and the record says so; call records are not dropped
// but, once the queue is full for the limit, the recording stops.
TEST(StalledOutput, ContentIsDroppedAndCountedAndTheCallRecordKept) {
    PipeSession pipe;
    std::vector<uint8_t> bytes;
    uint64_t dropped = 0;
    {
        Recording rec(ContentMode::kWritten, false, pipe.path(), 20);
        const int fd = rec.openNode();
        g_dequeues = 0;
        // Each is far more than the pipe holds: the first blocks the writer,
        // the second waits in the other buffer, the third finds none.
        for (int i = 0; i < 3; ++i) {
            Dequeue dq;
            ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query),
                      0);
            EXPECT_EQ(dq.query.header[0], static_cast<uint32_t>(i + 1));
        }
        pipe.startReading();
        rec.closeNode(fd);
        const aovrec::RecorderStats stats = aovrec::stats();
        dropped = stats.content_dropped;
        EXPECT_FALSE(stats.failed);
        aovrec::configure(aovrec::RecorderConfig{});
        ASSERT_TRUE(pipe.finish(&bytes)) << "the session file was not closed within 30 s";
    }
    EXPECT_EQ(dropped, 1u);
    aovrec::MemorySource source(bytes.data(), bytes.size());
    SessionReader reader(source);
    ASSERT_TRUE(reader.start()) << reader.error();
    std::vector<std::string> got;
    Record r;
    while (reader.next(&r) == SessionReader::Next::kRecord) {
        const bool flagged = (r.arg_flags & aovrec::kArgContentDropped) != 0;
        got.push_back(describe(r) + (r.type == RecordType::kIoctl && flagged ? " dropped" : ""));
    }
    const std::vector<std::string> want = {"open", "D1", "D2", "D3 damaged dropped", "close"};
    EXPECT_EQ(got, want);
}

TEST(StalledOutput, ACallNeverWaitsLongerThanTheLimitAndTheRecordingStopsOnce) {
    PipeSession pipe;
    CapturedStderr err;
    {
        Recording rec(ContentMode::kWritten, false, pipe.path(), 20);
        const int fd = rec.openNode();
        // More call records than the queue holds, none taken by the reader.
        for (int i = 0; i < 6000; ++i) {
            errno = 0;
            ASSERT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
            ASSERT_EQ(errno, EIO);
        }
        // The writer is still blocked on the full pipe: what it holds is
        // never written, and nobody waits for it.
        EXPECT_TRUE(aovrec::drain()) << "a drain waited for the stopped recording's writer";
        EXPECT_TRUE(aovrec::stats().failed);
        rec.closeNode(fd);
        pipe.closeReader();  // lets the writer's blocked write end
    }
    const std::string text = err.text();
    // The limit named is the one this recording was configured with.
    const std::string line = "took nothing within the stall limit, 20 ms";
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_EQ(text.find(line), text.rfind(line)) << text;
}

// Waits up to 30 s for a child to exit; its exit code, or -1 (killed then).
int waitChild(pid_t pid) {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd p{pidfd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 30000);
        ::close(pidfd);
        if (ready <= 0) {
            ::kill(pid, SIGKILL);
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether this process has `path` open.
bool holdsFile(const std::string& path) {
    DIR* dir = ::opendir("/proc/self/fd");
    bool found = false;
    while (dirent* e = dir != nullptr ? ::readdir(dir) : nullptr) {
        char target[4096];
        const std::string link = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
        found = found || (n > 0 && std::string(target, static_cast<size_t>(n)) == path);
    }
    if (dir != nullptr) {
        ::closedir(dir);
    }
    return found;
}

// Set by the test's own fork handler, which runs before the recorder's.
std::mutex g_fork_mutex;
std::condition_variable g_fork_cv;
bool g_fork_watch = false;
bool g_fork_begun = false;
bool g_lock_held = false;

void forkBegins() {
    std::lock_guard<std::mutex> lock(g_fork_mutex);
    if (g_fork_watch) {
        g_fork_begun = true;
        g_fork_cv.notify_all();
    }
}

void holdUntilForkBegins(void*) {
    std::unique_lock<std::mutex> lock(g_fork_mutex);
    g_lock_held = true;
    g_fork_cv.notify_all();
    g_fork_cv.wait_for(lock, std::chrono::seconds(30), [] { return g_fork_begun; });
}

// Another thread holds the recorder's lock when fork() is called: the fork
// waits for it, and the child's calls on an inherited node descriptor take
// a lock that works, into a file of the child's own.
TEST(Fork, AChildForkedWhileAnotherThreadHoldsTheLockRecordsIntoAFileOfItsOwn) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    ASSERT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
    static const bool registered = pthread_atfork(forkBegins, nullptr, nullptr) == 0;
    ASSERT_TRUE(registered);
    {
        std::lock_guard<std::mutex> lock(g_fork_mutex);
        g_fork_watch = true;
        g_fork_begun = false;
        g_lock_held = false;
    }
    std::thread holder([] { aovrec::withRecorderLocked(holdUntilForkBegins, nullptr); });
    {
        std::unique_lock<std::mutex> lock(g_fork_mutex);
        ASSERT_TRUE(g_fork_cv.wait_for(lock, std::chrono::seconds(30), [] { return g_lock_held; }))
            << "the other thread never took the recorder's lock";
    }
    const std::string parentFile = aovrec::sessionPath();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // In the child: no file of its own before its first call, nor the
        // parent's open, then a call and a close on the inherited descriptor.
        const bool fresh =
            !aovrec::stats().started && aovrec::sessionPath()[0] == '\0' && !holdsFile(parentFile);
        const int result = aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
        // More dequeues with content than there are content buffers.
        for (int i = 0; i < 3; ++i) {
            Dequeue dq;
            aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query);
        }
        rec.closeNode(fd);
        const bool drained = aovrec::drain();
        const std::string own = std::string(aovrec::sessionPath());
        const bool named =
            own.size() > 0 && own.substr(own.rfind('.') + 1) == std::to_string(::getpid());
        ::_exit(fresh && result == -1 && drained && named ? 0 : 1);
    }
    holder.join();
    {
        std::lock_guard<std::mutex> lock(g_fork_mutex);
        g_fork_watch = false;
    }
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitChild(pid), 0) << "the child's calls did not go through";
    const std::string childFile = parentFile + "." + std::to_string(pid);
    rec.closeNode(fd);
    // The parent's file: its open, its STOP, its close; the child's: its own.
    const std::vector<Record> parent = rec.read();
    EXPECT_EQ(describeAll(parent), (std::vector<std::string>{"open", "STOP", "close"}));
    std::string error;
    const std::vector<uint8_t> childBytes = readFile(childFile);
    EXPECT_EQ(describeBytes(childBytes, &error),
              (std::vector<std::string>{"STOP", "D10", "D10", "D10", "close"}));
    EXPECT_EQ(error, "");
    // The child's only thread is the child: its records carry its own id.
    aovrec::MemorySource source(childBytes.data(), childBytes.size());
    SessionReader reader(source);
    ASSERT_TRUE(reader.start()) << reader.error();
    Record r;
    while (reader.next(&r) == SessionReader::Next::kRecord) {
        EXPECT_EQ(r.call.tid, static_cast<uint32_t>(pid)) << describe(r);
    }
    ::unlink(childFile.c_str());
}

// The descriptor table on its own: numbers 0 and the last one it tracks,
// numbers outside it, duplicates onto and away from a node descriptor, and
// the count of node descriptors that lets a close_range skip its scan.
TEST(NodeDescriptors, NumbersFromZeroToTheLastAreFollowedThroughDuplicatesAndCountedOnce) {
    using aovrec::fdHas;
    using aovrec::kFdEpoll;
    using aovrec::kFdNode;
    const int last = aovrec::kMaxTrackedFd - 1;
    const int outside = aovrec::kMaxTrackedFd;
    ASSERT_EQ(aovrec::g_node_fds.load(), 0);
    int out[3] = {-7, -7, -7};
    EXPECT_EQ(aovrec::nodeFdsIn(0, ~0u, out, 3), 0) << "no node descriptor is open";
    EXPECT_TRUE(aovrec::watchSetLocked(outside, 7, 1));
    EXPECT_EQ(aovrec::g_node_fds.load(), 0) << "an epoll number outside the table was marked";
    aovrec::watchClearLocked();
    aovrec::markNode(-1);
    EXPECT_EQ(aovrec::forgetFd(-1), 0);
    EXPECT_FALSE(fdHas(-1, kFdNode));

    aovrec::markNode(0);
    aovrec::markNode(0);
    EXPECT_EQ(aovrec::g_node_fds.load(), 1) << "a descriptor marked twice counts once";
    EXPECT_EQ(aovrec::nodeFdsIn(0, ~0u, out, 3), 1);
    aovrec::markNode(last);
    EXPECT_TRUE(fdHas(0, kFdNode));
    EXPECT_TRUE(fdHas(last, kFdNode));
    EXPECT_EQ(aovrec::nodeFdsIn(0, ~0u, out, 3), 2);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], last);
    out[1] = -7;
    EXPECT_EQ(aovrec::nodeFdsIn(0, ~0u, out, 1), 1) << "more than `max` returned";
    EXPECT_EQ(out[1], -7);
    EXPECT_EQ(aovrec::nodeFdsIn(1, static_cast<unsigned>(last) - 1, out, 3), 0);
    EXPECT_EQ(aovrec::nodeFdsIn(static_cast<unsigned>(last), static_cast<unsigned>(last), out, 3),
              1);
    // The number just past the table, in each call that takes one.
    aovrec::markNode(outside);
    EXPECT_FALSE(fdHas(outside, kFdNode));
    EXPECT_EQ(aovrec::forgetFd(outside), 0);
    EXPECT_FALSE(aovrec::followDup(outside, 6));
    EXPECT_FALSE(fdHas(6, kFdEpoll));
    aovrec::unmarkEpoll(outside);
    EXPECT_EQ(aovrec::g_node_fds.load(), 2) << "a number outside the table was counted";

    // Duplicates: onto a plain number, onto itself, a plain one over a node
    // descriptor, one onto descriptor 0, from and onto numbers outside the table.
    EXPECT_TRUE(aovrec::followDup(0, 5));
    EXPECT_TRUE(fdHas(5, kFdNode));
    EXPECT_EQ(aovrec::g_node_fds.load(), 3);
    EXPECT_TRUE(aovrec::followDup(5, 5));
    EXPECT_EQ(aovrec::g_node_fds.load(), 3);
    EXPECT_FALSE(aovrec::followDup(6, 0));
    EXPECT_FALSE(fdHas(0, kFdNode));
    EXPECT_EQ(aovrec::g_node_fds.load(), 2);
    EXPECT_TRUE(aovrec::followDup(5, 0));
    EXPECT_TRUE(fdHas(0, kFdNode));
    EXPECT_FALSE(aovrec::followDup(6, 5));
    EXPECT_FALSE(fdHas(5, kFdNode));
    EXPECT_FALSE(aovrec::followDup(-1, last));
    EXPECT_FALSE(fdHas(last, kFdNode));
    EXPECT_EQ(aovrec::g_node_fds.load(), 1);
    EXPECT_FALSE(aovrec::followDup(0, -1));
    EXPECT_FALSE(aovrec::followDup(0, outside));
    EXPECT_EQ(aovrec::g_node_fds.load(), 1);
    // An epoll descriptor's duplicate watches the node as well; it is no node.
    ASSERT_TRUE(aovrec::watchSetLocked(7, 0, 42));
    EXPECT_FALSE(aovrec::followDup(7, 8));
    EXPECT_TRUE(fdHas(8, kFdEpoll));
    EXPECT_FALSE(fdHas(8, kFdNode));
    EXPECT_EQ(aovrec::g_node_fds.load(), 1);
    aovrec::watchClearLocked();
    aovrec::unmarkEpoll(7);
    EXPECT_EQ(aovrec::forgetFd(8), kFdEpoll);

    EXPECT_EQ(aovrec::forgetFd(0), kFdNode);
    EXPECT_FALSE(fdHas(0, kFdNode));
    EXPECT_EQ(aovrec::forgetFd(0), 0);
    EXPECT_EQ(aovrec::g_node_fds.load(), 0);
    EXPECT_EQ(aovrec::nodeFdsIn(0, ~0u, out, 3), 0);
}

// The node is a character device known by its number, or any other file by
// its file system and inode; a file that shares only part of an identity is
// not the node, and a reset forgets both.
TEST(NodeDescriptors, TheNodeIsKnownByItsDeviceNumberOrByItsFileSystemAndInode) {
    const std::string dir = ::testing::TempDir() + "aovrec_ids_" + std::to_string(::getpid());
    const std::string a = dir + "_a";
    const std::string b = dir + "_b";
    for (const std::string& path : {a, b}) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
        ::close(fd);
    }
    struct stat null_dev {};
    struct stat zero_dev {};
    struct stat file_a {};
    struct stat file_b {};
    ASSERT_EQ(::stat("/dev/null", &null_dev), 0);
    ASSERT_EQ(::stat("/dev/zero", &zero_dev), 0);
    ASSERT_EQ(::stat(a.c_str(), &file_a), 0);
    ASSERT_EQ(::stat(b.c_str(), &file_b), 0);
    // A regular file whose device-number field is the node's, a character
    // device with the file's identity, the file's inode on another file system.
    struct stat plain_with_rdev {};
    plain_with_rdev.st_mode = S_IFREG | 0600;
    plain_with_rdev.st_rdev = null_dev.st_rdev;
    struct stat chr_with_ino = file_a;
    chr_with_ino.st_mode = S_IFCHR | 0600;
    chr_with_ino.st_rdev = 0;
    struct stat other_fs = file_a;
    other_fs.st_dev = file_a.st_dev + 1;

    aovrec::identityReset();
    EXPECT_FALSE(aovrec::identityMatches(null_dev));
    EXPECT_FALSE(aovrec::identityFromPath(0, nullptr));
    EXPECT_FALSE(aovrec::identityFromPath(0, ""));
    EXPECT_FALSE(aovrec::identityFromPath(0, "/nonexistent-aov-rec/kelo_aov"));
    ASSERT_TRUE(aovrec::identityFromPath(0, "/dev/null"));
    ASSERT_TRUE(aovrec::identityFromPath(1, a.c_str()));
    EXPECT_TRUE(aovrec::identityMatches(null_dev));
    EXPECT_TRUE(aovrec::identityMatches(file_a));
    struct {
        const char* what;
        const struct stat& info;
    } const others[] = {{"another device", zero_dev},
                        {"another file", file_b},
                        {"a file with the node's number", plain_with_rdev},
                        {"a device with the file's inode", chr_with_ino},
                        {"the inode on another file system", other_fs}};
    for (const auto& other : others) {
        EXPECT_FALSE(aovrec::identityMatches(other.info)) << other.what;
    }
    aovrec::identityReset();
    EXPECT_FALSE(aovrec::identityMatches(null_dev)) << "a reset kept the device";
    EXPECT_FALSE(aovrec::identityMatches(file_a)) << "a reset kept the file";
    ::unlink(a.c_str());
    ::unlink(b.c_str());
}

// The epoll registrations of node descriptors: found by both numbers and by
// data, replaced in place, 32 at once, forgotten by either number; 0 is a
// number like any other on both sides.
TEST(NodeDescriptors, EpollRegistrationsAreKeptByBothNumbersAndZeroIsANumberLikeAnyOther) {
    using aovrec::watchDataLocked;
    using aovrec::watchFindLocked;
    using aovrec::watchSetLocked;
    aovrec::watchClearLocked();
    uint64_t data = 0;
    EXPECT_FALSE(watchDataLocked(0, 0, &data)) << "an empty table holds a registration";
    EXPECT_EQ(watchFindLocked(0, 0), -1);
    EXPECT_EQ(watchFindLocked(-1, 0), -1);

    ASSERT_TRUE(watchSetLocked(0, 7, 0xA0));  // epoll descriptor 0
    ASSERT_TRUE(watchSetLocked(9, 0, 0xB0));  // node descriptor 0
    ASSERT_TRUE(watchSetLocked(9, 7, 0xC0));
    ASSERT_TRUE(watchSetLocked(9, 7, 0xC1));  // changed: the same entry
    EXPECT_TRUE(aovrec::fdHas(0, aovrec::kFdEpoll));
    EXPECT_TRUE(aovrec::fdHas(9, aovrec::kFdEpoll));
    // Table full: 32 registrations in all. One more is refused; a change is not.
    for (int i = 3; i < aovrec::kMaxWatches; ++i) {
        ASSERT_TRUE(watchSetLocked(100 + i, 7, static_cast<uint64_t>(i))) << i;
    }
    EXPECT_FALSE(watchSetLocked(200, 7, 1));
    EXPECT_TRUE(watchSetLocked(9, 7, 0xC2));

    const struct {
        int epfd;
        int fd;
        bool found;
        uint64_t data;
    } registrations[] = {{0, 7, true, 0xA0}, {9, 0, true, 0xB0}, {9, 7, true, 0xC2},
                         {0, 0, false, 0},   {9, 8, false, 0},   {200, 7, false, 0}};
    for (const auto& r : registrations) {
        data = 0;
        EXPECT_EQ(watchDataLocked(r.epfd, r.fd, &data), r.found) << r.epfd << " " << r.fd;
        EXPECT_EQ(data, r.data) << r.epfd << " " << r.fd;
    }
    EXPECT_EQ(watchFindLocked(9, 0xB0), 0);
    EXPECT_EQ(watchFindLocked(9, 0xC2), 7);
    EXPECT_EQ(watchFindLocked(9, 0xC0), -1) << "a changed registration found by its old data";
    EXPECT_EQ(watchFindLocked(0, 0xA0), 7);
    EXPECT_EQ(watchFindLocked(0, 0xB0), -1);

    aovrec::watchRemoveLocked(9, 7);
    EXPECT_FALSE(watchDataLocked(9, 7, &data));
    EXPECT_TRUE(watchDataLocked(9, 0, &data));
    EXPECT_TRUE(watchDataLocked(0, 7, &data));
    aovrec::watchForgetLocked(0, -1);  // epoll descriptor 0 closed
    EXPECT_FALSE(watchDataLocked(0, 7, &data));
    EXPECT_TRUE(watchDataLocked(9, 0, &data));
    EXPECT_TRUE(watchDataLocked(103, 7, &data));
    aovrec::watchForgetLocked(-1, 0);  // node descriptor 0 closed
    EXPECT_FALSE(watchDataLocked(9, 0, &data));
    EXPECT_TRUE(watchDataLocked(103, 7, &data));
    aovrec::watchForgetLocked(-1, 7);
    EXPECT_FALSE(watchDataLocked(103, 7, &data));
    EXPECT_FALSE(watchDataLocked(100 + aovrec::kMaxWatches - 1, 7, &data));
    EXPECT_TRUE(watchSetLocked(200, 7, 1)) << "forgotten registrations still take room";

    aovrec::unmarkEpoll(0);
    EXPECT_FALSE(aovrec::fdHas(0, aovrec::kFdEpoll));
    aovrec::watchClearLocked();
    EXPECT_EQ(watchFindLocked(200, 1), -1);
    for (const int epfd : {0, 9, 200}) {
        aovrec::forgetFd(epfd);
    }
    for (int i = 3; i < aovrec::kMaxWatches; ++i) {
        aovrec::forgetFd(100 + i);
    }
}

// A readiness wait's payload, byte for byte: the call, the wait's kind, a
// zero byte, the entry count, the timeout, then each entry; the call keeps
// an errno only when it failed, and an untimed call begins where it ends.
TEST(RecordEncoder, AWaitPayloadIsTheCallKindCountTimeoutAndEachEntryInOrder) {
    const aovrec::CallInfo call = aovrec::callInfo(1234, 5, 0, EIO);
    EXPECT_EQ(call.begin_ns, 1234u);
    EXPECT_EQ(call.fd, 5);
    EXPECT_EQ(call.result, 0);
    EXPECT_EQ(call.err, 0) << "a call that returned 0 kept an errno";
    EXPECT_EQ(call.tid, static_cast<uint32_t>(::syscall(SYS_gettid)));
    const aovrec::CallInfo failed = aovrec::callInfo(0, 5, -1, EIO);
    EXPECT_EQ(failed.begin_ns, failed.end_ns);
    EXPECT_GE(failed.end_ns, call.end_ns);
    EXPECT_EQ(failed.err, EIO);

    std::vector<uint8_t> got(1024, 0xEE);
    aovrec::ByteWriter out(got.data(), got.size());
    aovrec::WaitPayload wait(out, call, aovrec::WaitKind::kEpollPwait, -1);
    const int entries = static_cast<int>(aovrec::kMaxWaitEntries);
    for (int i = 0; i < entries; ++i) {
        EXPECT_FALSE(wait.full()) << i;
        wait.add(i, POLLIN | POLLPRI, i == 1 ? POLLIN : 0);
    }
    EXPECT_TRUE(wait.full());
    wait.finish();
    got.resize(out.size());

    std::vector<uint8_t> want(1024);
    aovrec::ByteWriter ref(want.data(), want.size());
    aovrec::putCall(ref, call);
    for (const uint8_t byte : {uint8_t{3}, uint8_t{0}, static_cast<uint8_t>(entries), uint8_t{0},
                               uint8_t{0xFF}, uint8_t{0xFF}, uint8_t{0xFF}, uint8_t{0xFF}}) {
        ref.u8(byte);
    }
    for (int i = 0; i < entries; ++i) {
        ref.u32(static_cast<uint32_t>(i));
        ref.u32(POLLIN | POLLPRI);
        ref.u32(i == 1 ? POLLIN : 0);
    }
    want.resize(ref.size());
    EXPECT_EQ(got, want);
}

// The area bytes a dequeue answer asks to keep, and the areas as they are
// appended: each behind a header of its section's number, three zero bytes
// and its length, and their count where the record keeps it.
TEST(RecordEncoder, ADequeueKeepsEachWrittenAreaBehindItsHeaderAndCountsThem) {
    Dequeue dq;
    ASSERT_EQ(answerDequeue(-1, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    const auto* back = reinterpret_cast<const uint8_t*>(&dq.query);
    const uint64_t s4 = aov_event_sections[3].data_size;
    uint64_t all = 0;
    for (const aov_section_desc& section : aov_event_sections) {
        all += section.data_size;
    }
    const size_t whole = sizeof(aov_event_query);
    EXPECT_EQ(aovrec::contentBytes(ContentMode::kWritten, back, whole), 4400 + s4);
    EXPECT_EQ(aovrec::contentBytes(ContentMode::kAll, back, whole), all);
    EXPECT_EQ(aovrec::contentBytes(ContentMode::kNone, back, whole), 0u);
    EXPECT_EQ(aovrec::contentBytes(ContentMode::kWritten, back, whole - 1), 0u)
        << "a short answer has no areas";

    // Section 1 without an address: neither counted nor read.
    aov_query_set_area(&dq.query, 0, nullptr);
    EXPECT_EQ(aovrec::contentBytes(ContentMode::kWritten, back, whole), 4300 + s4);
    const aovrec::CopyCounters before = aovrec::copyCounters();
    std::vector<uint8_t> room(sizeof(aov_event) + 1024);
    aovrec::ByteWriter out(room.data(), room.size());
    out.u8(0xEE);  // the count's place
    aovrec::putAreas(out, ContentMode::kWritten, 0, back);
    ASSERT_FALSE(out.overflow());
    const aovrec::CopyCounters after = aovrec::copyCounters();
    EXPECT_EQ(after.areas_read - before.areas_read, 8u);
    EXPECT_EQ(after.areas_unreadable, before.areas_unreadable);

    EXPECT_EQ(room[0], 8) << "the area count";
    size_t at = 1;
    std::vector<int> sections;
    while (at + 8 <= out.size()) {
        const uint8_t section = room[at];
        const size_t s = section - 1u;
        ASSERT_LT(s, size_t{AOV_SECTION_COUNT});
        sections.push_back(section);
        EXPECT_EQ(room[at + 1], 0);
        EXPECT_EQ(room[at + 2], 0);
        EXPECT_EQ(room[at + 3], 0);
        const uint32_t length = word(room.data(), at + 4);
        EXPECT_EQ(length, s == 3 ? aov_event_sections[3].data_size : (s + 1) * 100) << s + 1;
        ASSERT_LE(at + 8 + length, out.size());
        EXPECT_EQ(std::memcmp(room.data() + at + 8,
                              dq.buffer.data() + aov_event_sections[s].data_offset, length),
                  0)
            << "section " << s + 1;
        at += 8 + length;
    }
    EXPECT_EQ(at, out.size());
    EXPECT_EQ(sections, (std::vector<int>{2, 3, 4, 5, 6, 8, 9, 10}));
}
// A large area is read after a probe of each of its pages, a small one by
// the kernel in one go: an area that ends where an unreadable page begins is
// read whole, one whose first or last byte lies in such a page is refused
// (last pages of either parity: the probe steps page by page), and each copy
// through the pipe is one pipe.
TEST_P(AreaCopy, AnAreaIsReadToItsLastByteAndRefusedWhenItsFirstOrLastPageCannotBeRead) {
    constexpr size_t kPage = 4096;
    constexpr size_t kPages = 300;
    auto* map = static_cast<uint8_t*>(::mmap(nullptr, kPages * kPage, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(map, MAP_FAILED);
    for (size_t i = 0; i < kPages * kPage; ++i) {
        map[i] = static_cast<uint8_t>(i * 7 + i / kPage);
    }
    std::vector<uint8_t> to(kPages * kPage);
    const uint64_t pipes = aovrec::copyCounters().pipe_copies;
    uint64_t copies = 0;
    auto copied = [&](const uint8_t* from, size_t size) {
        ++copies;
        std::fill(to.begin(), to.end(), 0);
        return aovrec::safeCopy(to.data(), from, size) && std::memcmp(to.data(), from, size) == 0;
    };
    EXPECT_TRUE(aovrec::safeCopy(to.data(), nullptr, 0)) << "nothing to copy is a copy";
    EXPECT_FALSE(aovrec::safeCopy(to.data(), nullptr, 1));
    EXPECT_TRUE(copied(map + 5, 1));
    EXPECT_TRUE(copied(map + 100, 3 * kPage + 5)) << "more than a pipe takes at once";
    const size_t large = 16 * kPage + 100;
    for (const size_t bad : {size_t{280}, size_t{281}}) {
        uint8_t* page = map + bad * kPage;
        ASSERT_EQ(::mprotect(page, kPage, PROT_NONE), 0);
        EXPECT_TRUE(copied(page - large, large)) << "ending at page " << bad;
        EXPECT_TRUE(copied(page - 20, 20)) << "ending at page " << bad;
        EXPECT_FALSE(copied(page - large + 1, large)) << "last byte in page " << bad;
        EXPECT_FALSE(copied(page + kPage - 1, large)) << "first byte in page " << bad;
        ASSERT_EQ(::mprotect(page, kPage, PROT_READ | PROT_WRITE), 0);
    }
    // 257 pages, the last unreadable: the probe's batch of 256 ends just before it.
    uint8_t* page = map + 280 * kPage;
    ASSERT_EQ(::mprotect(page, kPage, PROT_NONE), 0);
    EXPECT_FALSE(copied(page - 256 * kPage + 4000, 256 * kPage - 4000 + 1));
    EXPECT_TRUE(copied(page - 256 * kPage + 4000, 256 * kPage - 4000));
    ASSERT_EQ(::mprotect(page, kPage, PROT_READ | PROT_WRITE), 0);
    EXPECT_EQ(aovrec::copyCounters().pipe_copies - pipes, GetParam() ? copies : 0u);
    ::munmap(map, kPages * kPage);
}

// With no descriptor left for its pipe, a copy through the pipe fails rather
// than claim bytes it never read; the kernel's copy needs no descriptor.
TEST(SessionFile, ACopyThatFindsNoDescriptorForItsPipeFails) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        static uint8_t from[128 * 1024];
        static uint8_t to[sizeof(from)];
        std::memset(from, 0x5A, sizeof(from));
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        int code = 0;
        aovrec::forcePipeCopies(false);
        code |= aovrec::safeCopy(to, from, 16) ? 0 : 1;
        aovrec::forcePipeCopies(true);
        code |= aovrec::safeCopy(to, from, 16) ? 2 : 0;
        code |= aovrec::safeCopy(to, from, sizeof(from)) ? 4 : 0;
        ::_exit(code);
    }
    ASSERT_GT(pid, 0) << std::strerror(errno);
    EXPECT_EQ(waitChild(pid), 0) << "1: the kernel's copy failed; 2: a small copy without a pipe "
                                    "succeeded; 4: a large one did";
}

// A call record is queued whole into the ring or refused at once: up to half
// the ring (512 KiB), so that it fits after any wrap. A stall limit of 0 or
// less is the default, 200 ms.
TEST(WriterThread, ARecordOfHalfTheRingIsQueuedAndALargerOneRefusedAndTheLimitHasADefault) {
    for (const int ms : {0, -5}) {
        aovrec::queueSetStallLimit(ms);
        EXPECT_EQ(aovrec::queueStallLimit(), 200) << ms;
    }
    aovrec::queueSetStallLimit(1);
    EXPECT_EQ(aovrec::queueStallLimit(), 1);
    aovrec::queueSetStallLimit(60000);
    ASSERT_TRUE(aovrec::queueSetUp());
    ASSERT_TRUE(aovrec::queueAttach(nullptr, false, nullptr));  // takes records, writes none
    const uint64_t handed_off = aovrec::queueHandedOff();
    const std::vector<uint8_t> record(512 * 1024 + 1, 0x33);
    EXPECT_TRUE(aovrec::queueSmall(RecordType::kPoll, record.data(), record.size() - 1));
    EXPECT_FALSE(aovrec::queueSmall(RecordType::kPoll, record.data(), record.size()));
    EXPECT_TRUE(aovrec::queueDrain(10)) << "the writer thread did not take the record in 10 s";
    EXPECT_EQ(aovrec::queueHandedOff() - handed_off, 1u);
}

// The size of the file at `path` once it passes `size`, waiting for its
// writes up to `seconds`; what it was then if it never did.
off_t sizeOnceOver(const std::string& path, off_t size, int seconds) {
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    EXPECT_GE(watch, 0) << std::strerror(errno);
    ::inotify_add_watch(watch, path.c_str(), IN_MODIFY);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    struct stat info {};
    while (::stat(path.c_str(), &info) == 0 && info.st_size <= size &&
           std::chrono::steady_clock::now() < deadline) {
        pollfd p{watch, POLLIN, 0};
        if (::poll(&p, 1, 100) > 0) {
            char events[4096];
            while (::read(watch, events, sizeof(events)) > 0) {
            }
        }
    }
    ::close(watch);
    return info.st_size;
}

// The writer thread takes call records within its linger time even when
// none came for a while: a call record that finds the writer idle is in the
// file soon after, with no drain, no content and no 63 records behind it;
// so is a dequeue's record after it.
TEST(WriterThread, ACallRecordThatFindsTheWriterIdleIsWrittenWithoutADrain) {
    Recording rec(ContentMode::kWritten, false);
    const int fd = rec.openNode();
    const off_t opened = sizeOnceOver(rec.path(), static_cast<off_t>(aovrec::kHeaderSize), 10);
    EXPECT_GT(opened, static_cast<off_t>(aovrec::kHeaderSize))
        << "the open record was not written within 10 s";
    EXPECT_EQ(aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr), -1);
    const off_t stopped = sizeOnceOver(rec.path(), opened, 10);
    EXPECT_GT(stopped, opened) << "the STOP record was not written within 10 s";
    Dequeue dq;
    EXPECT_EQ(aovrec::trackedIoctl(answerDequeue, fd, AOV_IOC_DEQUEUE_EVENT, &dq.query), 0);
    EXPECT_GT(sizeOnceOver(rec.path(), stopped, 10), stopped)
        << "the dequeue's record was not written within 10 s";
    rec.closeNode(fd);
    EXPECT_EQ(describeAll(rec.read()), (std::vector<std::string>{"open", "STOP", "D10", "close"}));
}

// A forked child writes its records itself: one its file refuses (at the
// size limit) stops the child's recording with one line, SIGXFSZ does not
// end it, its calls keep their results and its signal mask, nothing more is
// written once there is room again, and the parent's file is untouched.
TEST(Fork, AChildWhoseFileCannotBeWrittenSaysSoOnceAndItsCallsGoOn) {
    Recording rec(ContentMode::kWritten);
    const int fd = rec.openNode();
    int errors[2];
    ASSERT_EQ(::pipe2(errors, O_CLOEXEC), 0) << std::strerror(errno);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Standard error into the pipe: a regular file would meet the limit too.
        ::dup2(errors[1], STDERR_FILENO);
        std::signal(SIGXFSZ, SIG_DFL);
        // Room for the header of the child's own file, and not one byte more.
        rlimit fsize{aovrec::kHeaderSize, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &fsize);
        sigset_t before;
        pthread_sigmask(SIG_BLOCK, nullptr, &before);
        bool ok = true;
        for (int i = 0; i < 3; ++i) {
            errno = 0;
            ok = aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr) == -1 &&
                 errno == EIO && ok;
        }
        sigset_t after;
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (const int sig : {SIGPIPE, SIGXFSZ}) {
            ok = sigismember(&before, sig) == sigismember(&after, sig) && ok;
        }
        // With room again, nothing more goes to the file of a stopped recording.
        fsize.rlim_cur = RLIM_INFINITY;
        ::setrlimit(RLIMIT_FSIZE, &fsize);
        aovrec::trackedIoctl(failWithEio, fd, AOV_IOC_STOP, nullptr);
        ::_exit(ok && aovrec::stats().failed ? 0 : 1);
    }
    ::close(errors[1]);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitChild(pid), 0)
        << "the child's calls failed, its signal mask changed or its recording went on";
    std::string text;
    char chunk[512];
    for (ssize_t n; (n = ::read(errors[0], chunk, sizeof(chunk))) > 0;) {
        text.append(chunk, static_cast<size_t>(n));
    }
    ::close(errors[0]);
    EXPECT_EQ(text, "aov-rec: recording stopped: cannot write the session file: File too large\n");
    const std::string childFile = std::string(aovrec::sessionPath()) + "." + std::to_string(pid);
    EXPECT_EQ(readFile(childFile).size(), aovrec::kHeaderSize) << "records after the failure";
    ::unlink(childFile.c_str());
    rec.closeNode(fd);
    EXPECT_EQ(describeAll(rec.read()), (std::vector<std::string>{"open", "close"}));
}

// Records still queued when the writer ends a batch keep their place in the
// ring: those queued after it, while the writer is busy with the next batch,
// go behind them and overwrite none. The writer is held inside its writes by
// a pipe read only as far as the test needs: into the first dequeue, then
// into the second, whose batch holds the two call records queued with it.
TEST(WriterThread, RecordsQueuedAfterABatchNeverOverwriteTheOnesStillWaiting) {
    // Where the first dequeue's record ends in an uncompressed file.
    uint64_t end_of_first = 0;
    {
        Recording rec(ContentMode::kWritten, false);
        const int fd = rec.openNode();
        Dequeue dq;
        aov_event_query query = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &query), 0);
        rec.closeNode(fd);
        const std::vector<Record> r = rec.read();
        ASSERT_EQ(r.size(), 3u);
        end_of_first = r[2].offset;
    }
    PipeSession pipe;
    // A pipe of one page: the writer is never more than a page ahead of the reader.
    const int small = ::open(pipe.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(small, 0) << std::strerror(errno);
    ASSERT_EQ(::fcntl(small, F_SETPIPE_SZ, 4096), 4096) << std::strerror(errno);
    std::vector<uint8_t> bytes;
    {
        Recording rec(ContentMode::kWritten, false, pipe.path());
        const int fd = rec.openNode();
        g_dequeues = 0;
        Dequeue dq;
        aov_event_query first = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &first), 0);
        ASSERT_TRUE(pipe.readAtLeast(end_of_first - 4096 - 1))
            << "the first dequeue was not being written";
        aov_event_query second = dq.query;
        ASSERT_EQ(aovrec::trackedIoctl(answerNumbered, fd, AOV_IOC_DEQUEUE_EVENT, &second), 0);
        smallRecord(fd, 0);
        smallRecord(fd, 1);
        ASSERT_TRUE(pipe.readAtLeast(end_of_first + 1))
            << "the second dequeue was not being written";
        for (int i = 2; i < 8; ++i) {
            smallRecord(fd, i);
        }
        pipe.startReading();
        rec.closeNode(fd);
        EXPECT_TRUE(aovrec::drain());
        aovrec::configure(aovrec::RecorderConfig{});  // closes the writer's end
        ASSERT_TRUE(pipe.finish(&bytes)) << "the session file was not closed within 30 s";
    }
    ::close(small);
    std::string error;
    EXPECT_EQ(describeBytes(bytes, &error),
              (std::vector<std::string>{"open", "D1", "D2", "P0", "P1", "P2", "P3", "P4", "P5",
                                        "P6", "P7", "close"}));
    EXPECT_EQ(error, "");
}

// Installs a filter in this process, as a sandbox would, that refuses
// madvise(MADV_POPULATE_READ) (EINVAL, as an older kernel does) and, with
// `refuse_copy`, process_vm_readv (EPERM). False when it cannot.
bool refuseCalls(bool refuse_copy) {
    constexpr uint32_t kPopulateRead = 22;  // MADV_POPULATE_READ
    const uint32_t copy = refuse_copy ? SECCOMP_RET_ERRNO | EPERM : SECCOMP_RET_ALLOW;
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_madvise, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 2 * sizeof(uint64_t)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kPopulateRead, 0, 3),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_vm_readv, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, copy),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Under a sandbox that refuses the page check a large area is probed a byte
// a page by the kernel's copy; one that refuses that copy too moves every
// copy to the pipe from the first refusal on, met by a large copy or a small
// one. Either way each area is read whole or, with a page that cannot be
// read, refused.
TEST(SessionFile, UnderASandboxThatRefusesThePageCheckOrTheKernelsCopyAreasAreStillReadOrRefused) {
    const struct {
        bool refuse_copy;
        bool small_first;  // the first refusal met by a small copy, not a large one
    } sandboxes[] = {{false, false}, {true, false}, {true, true}};
    for (const auto& sandbox : sandboxes) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            constexpr size_t kPage = 4096;
            constexpr size_t kLarge = 16 * kPage + 100;
            auto* map = static_cast<uint8_t*>(::mmap(nullptr, 40 * kPage, PROT_READ | PROT_WRITE,
                                                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            static uint8_t to[40 * kPage];
            if (map == MAP_FAILED || !refuseCalls(sandbox.refuse_copy)) {
                ::_exit(16);
            }
            for (size_t i = 0; i < 40 * kPage; ++i) {
                map[i] = static_cast<uint8_t>(i * 13 + i / kPage);
            }
            uint8_t* bad = map + 30 * kPage;
            ::mprotect(bad, kPage, PROT_NONE);
            auto whole = [](const uint8_t* from, size_t size) {
                return aovrec::safeCopy(to, from, size) && std::memcmp(to, from, size) == 0;
            };
            const uint64_t pipes = aovrec::copyCounters().pipe_copies;
            int code = 0;
            code |= sandbox.small_first && !whole(map + 7, 50) ? 2 : 0;
            code |= whole(map + 100, kLarge) ? 0 : 1;
            code |= whole(map + 5, 100) ? 0 : 2;
            code |= aovrec::safeCopy(to, bad - kLarge + 1, kLarge) ? 4 : 0;
            code |= (aovrec::copyCounters().pipe_copies > pipes) == sandbox.refuse_copy ? 0 : 8;
            ::_exit(code);
        }
        ASSERT_GT(pid, 0) << std::strerror(errno);
        EXPECT_EQ(waitChild(pid), 0)
            << (sandbox.refuse_copy ? "process_vm_readv refused too" : "the page check refused")
            << (sandbox.small_first ? ", a small copy first" : "")
            << "; 1: a large area, 2: a small one not read whole; 4: an unreadable page not "
               "refused; 8: the pipe used when it should not be, or not used; 16: no sandbox";
    }
}

// A child forked after its parent's recording stopped records on its own,
// into a file of its own, and says why that stopped too. Configured more
// than once, the recorder still prepares for fork() once: a second handler
// would wait for the lock the first took.
TEST(Fork, AChildOfAStoppedRecordingTriesAFileOfItsOwnAndSaysWhyItStopped) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::alarm(30);  // ends a fork that waits for a lock it holds
            aovrec::RecorderConfig config;
            config.file = "/nonexistent-dir/session.rec";
            config.node = kNode;
            aovrec::configure(aovrec::RecorderConfig{});
            aovrec::configure(config);
            const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, fd, 0);
            const pid_t pid = ::fork();
            if (pid == 0) {
                const int again = ::open("/dev/null", O_RDWR | O_CLOEXEC);
                aovrec::recordOpen(aovrec::monotonicNs(), AT_FDCWD, kNode, O_RDWR, 0, again, 0);
                ::_exit(aovrec::stats().failed ? 0 : 1);
            }
            std::exit(pid > 0 && waitChild(pid) == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "recording stopped: /nonexistent-dir/session\\.rec: .*"
        "recording stopped: /nonexistent-dir/session\\.rec\\.[0-9]+: ");
}

}  // namespace
