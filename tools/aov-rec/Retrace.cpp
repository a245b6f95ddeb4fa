// aov-rec retrace: sends a session's requests to a node in the recorded
// order and compares the answers with the recorded ones; then checks what
// any driver must do whatever the recording holds (a request it does not
// know or of the wrong size refused, an area it cannot write refused and no
// error signalled after it, no session left running after its node is
// closed, a monitor armed before START woken by its events). Readiness is
// always waited for as the library's event monitor waits: through an epoll.
//
// Every call into the node is a guarded call: made in a child process under
// a time limit, so a driver that never answers costs a process, never the
// retrace. The argument and the event buffer are shared memory, so that the
// parent sees what the driver wrote into the child's.

#include <fcntl.h>
#include <linux/ioctl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <map>
#include <vector>

#include "Commands.h"
#include "Guarded.h"
#include "MonitorWait.h"
#include "aovsession/RequestCodec.h"
#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

namespace aovrec {
namespace {

using aovsimtool::CallResult;
using aovsimtool::GuardedCaller;

// What the event buffer holds before each dequeue: a byte the driver did not
// write reads as this, never as what an earlier dequeue left there.
constexpr uint8_t kFill = 0xA5;
// Bytes checked past the end of the event buffer.
constexpr size_t kGuardBytes = 4096;
// Room for the largest record a request code can name.
constexpr size_t kArgBytes = 1u << 14;
// A request code no driver knows, and STOP's number with a size STOP has not.
constexpr uint32_t kUnknownRequest = _IO('H', 5);
constexpr uint32_t kStopWrongSize = _IOC(_IOC_NONE, 'H', 4, 8);
// Dequeues made at most to empty the queue; events come at 10 a second at most.
constexpr int kDrainRounds = 64;

// Anonymous shared memory: a guarded child writes it, the parent reads it.
class SharedPages {
  public:
    SharedPages() = default;
    SharedPages(const SharedPages&) = delete;
    SharedPages& operator=(const SharedPages&) = delete;
    ~SharedPages() {
        if (data_ != nullptr) {
            ::munmap(data_, size_);
        }
    }
    bool map(size_t size, int prot) {
        void* at = ::mmap(nullptr, size, prot, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (at == MAP_FAILED) {
            return false;
        }
        data_ = static_cast<uint8_t*>(at);
        size_ = size;
        return true;
    }
    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

  private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

// A call counts as sent once a process made it, whatever came back.
bool sent(const CallResult& c) {
    return c.status != CallResult::Status::kNoChild;
}

bool nodeGone(int error) {
    // A FUSE server that died answers ENOTCONN (ECONNABORTED for the request
    // in flight); a removed device answers ENODEV.
    return error == ENOTCONN || error == ENODEV || error == ECONNABORTED;
}

// An open failed before reaching a driver: nothing at the path, or nothing
// there that can be opened as a node.
bool noNodeThere(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case ENXIO:
            return true;
        default:
            return false;
    }
}

std::string outcome(long result, int err) {
    if (result >= 0) {
        return std::to_string(result);
    }
    return std::to_string(result) + " (" + std::strerror(err) + ")";
}

uint32_t word(const uint8_t* bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes + offset, sizeof(v));
    return v;
}

class Retracer {
  public:
    enum class Halt { kNone, kStopped, kGone, kNotOpened, kNoProcess };

    Retracer(const RetraceOptions& options, uint64_t records, FILE* out, FILE* err)
        : options_(options), records_(records), out_(out), err_(err) {}
    ~Retracer() { closeAll(nullptr); }

    bool prepare() {
        const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        const size_t event = (sizeof(struct aov_event) + kGuardBytes + page - 1) / page * page;
        if (!event_.map(event, PROT_READ | PROT_WRITE) ||
            !arg_.map(kArgBytes, PROT_READ | PROT_WRITE) || !unwritable_.map(page, PROT_NONE)) {
            std::fprintf(err_, "aov-rec: cannot map the event buffer: %s\n", std::strerror(errno));
            return false;
        }
        return true;
    }

    bool halted() const { return halt_ != Halt::kNone; }

    void apply(const Record& r) {
        switch (r.type) {
            case RecordType::kOpen:
                open(r);
                break;
            case RecordType::kClose:
                close(r);
                break;
            case RecordType::kIoctl:
                ioctl(r);
                break;
            case RecordType::kPoll:
            case RecordType::kEpollWait:
                for (uint16_t i = 0; i < r.entry_count; ++i) {
                    if ((r.entries[i].revents & POLLIN) != 0) {
                        ready_seen_ = true;
                    }
                }
                break;
            case RecordType::kEpollCtl:
                break;
        }
        ++applied_;
    }

    // What any driver must do, on descriptors of its own once the recorded
    // ones are closed.
    void checkDuties() {
        closeAll("after the session");
        if (halted() || !opened_once_) {
            return;
        }
        const int fd = openProbe("request checks");
        if (fd < 0) {
            return;
        }
        refused(fd, kUnknownRequest, "unknown request",
                "a driver refuses a request code it does not know with ENOTTY");
        if (!halted()) {
            refused(fd, kStopWrongSize, "wrong size",
                    "a driver refuses a known number with another size with ENOTTY");
        }
        if (!halted() && !start_.empty()) {
            if (startProbe(fd, "faulting area",
                           "the session's START is accepted on a fresh open") &&
                readyProbe(fd, "faulting area") && faultingAreaProbe(fd)) {
                noErrorSignalledProbe(fd);
            }
        }
        // Closed without STOP: the release alone must end the session.
        closeProbe(fd, "faulting area");
        if (halted() || start_.empty()) {
            return;
        }
        const int again = openProbe("session after close");
        if (again < 0) {
            return;
        }
        // Armed before START, with nothing pending: only a wake-up can tell
        // this monitor of the session's first event.
        const int monitor = ::epoll_create1(EPOLL_CLOEXEC);
        const bool armed = monitor >= 0 && armMonitor(monitor, again);
        if (!halted() &&
            startProbe(again, "session after close",
                       "closing the node must end its session, so that START succeeds again")) {
            if (armed ? monitorWokenProbe(monitor) : readyProbe(again, "empty queue")) {
                emptyQueueProbe(again);
            }
            call(nullptr, "empty queue", "STOP",
                 [&] { return static_cast<long>(::ioctl(again, AOV_IOC_STOP, nullptr)); });
        }
        if (monitor >= 0) {
            // An epoll instance: its close is no call into the driver.
            ::close(monitor);
        }
        closeProbe(again, "session after close");
    }

    int finish(const std::string& path) {
        if (differences_ > static_cast<uint64_t>(options_.max_differences)) {
            std::fprintf(out_, "... and %" PRIu64 " more differences\n",
                         differences_ - static_cast<uint64_t>(options_.max_differences));
        }
        std::fprintf(out_,
                     "retrace: %s against %s: %" PRIu64 " calls sent (%" PRIu64
                     " requests, %" PRIu64 " dequeues), %" PRIu64 " driver checks, %" PRIu64
                     " differences\n",
                     path.c_str(), options_.node.c_str(), calls_, requests_, dequeues_, checks_,
                     differences_);
        std::fflush(out_);
        if (halt_ == Halt::kGone || halt_ == Halt::kNoProcess) {
            return kExitNodeUnavailable;
        }
        return differences_ == 0 ? 0 : 1;
    }

    Halt halt() const { return halt_; }

  private:
    // `r`: the record whose call differs; null for a driver check after the session.
    void differ(const Record* r, const char* what, const std::string& label,
                const std::string& detail) {
        ++differences_;
        if (differences_ > static_cast<uint64_t>(options_.max_differences)) {
            return;
        }
        if (r != nullptr) {
            std::fprintf(out_, "difference at record %" PRIu64 " (%s): %s: %s\n", r->index, what,
                         label.c_str(), detail.c_str());
        } else {
            std::fprintf(out_, "difference after the session (%s): %s: %s\n", what, label.c_str(),
                         detail.c_str());
        }
    }

    static std::string label(uint32_t request) { return requestLabel(request); }

    static std::string label(const Record& r) {
        return r.type == RecordType::kIoctl ? label(r.request) : recordTypeName(r.type);
    }

    // Ends the retrace: no record after this one is sent.
    void stop(Halt why, const std::string& line) {
        halt_ = why;
        if (applied_ >= records_) {
            std::fprintf(err_, "aov-rec: %s; the driver checks stop there\n", line.c_str());
            return;
        }
        std::fprintf(err_, "aov-rec: %s; %" PRIu64 " records not sent\n", line.c_str(),
                     records_ - applied_ - 1);
    }

    // Runs one guarded call. False when it gave no usable answer: it hung,
    // its process died or could not be made, or the node went away; the
    // retrace then stops.
    template <typename Call>
    bool call(const Record* r, const char* what, const std::string& name, Call&& body,
              CallResult* result = nullptr, bool passFd = false, int limitMs = -1) {
        const int limit = limitMs >= 0 ? limitMs : options_.request_timeout_ms;
        const CallResult c = guard_.run(limit, body, passFd);
        if (result != nullptr) {
            *result = c;
        }
        return usable(r, what, name, c, limit);
    }

    bool usable(const Record* r, const char* what, const std::string& name, const CallResult& c,
                int limit) {
        switch (c.status) {
            case CallResult::Status::kReturned:
                if (c.value < 0 && nodeGone(c.error) &&
                    (r == nullptr || r->call.result >= 0 || r->call.err != c.error)) {
                    stop(Halt::kGone, options_.node + " went away: " + name + " got " +
                                          aovsimtool::errnoName(c.error));
                    return false;
                }
                return true;
            case CallResult::Status::kTimedOut:
                differ(
                    r, what, name,
                    "did not return within " + std::to_string(limit) + " ms: the request blocks");
                stop(Halt::kStopped, name + " never returned");
                return false;
            case CallResult::Status::kCloseHung:
                differ(r, what, name,
                       "returned " + outcome(c.value, c.error) +
                           ", but closing the calling process's copy of the node did not finish "
                           "within " +
                           std::to_string(limit) + " ms: a FLUSH that never returns");
                stop(Halt::kStopped, "a FLUSH after " + name + " never returned");
                return false;
            case CallResult::Status::kDied:
                differ(r, what, name, "no answer: the calling process died");
                stop(Halt::kStopped, "the process calling " + name + " died");
                return false;
            case CallResult::Status::kNoChild:
                break;
        }
        stop(Halt::kNoProcess, "cannot make a process for " + name + ": " + std::strerror(c.error));
        return false;
    }

    // Results and errno of the live call against the recorded ones.
    bool sameOutcome(const Record& r, const char* what, long result, int err) {
        const bool recorded_ok = r.call.result >= 0;
        const bool live_ok = result >= 0;
        // An open's descriptor number is the process's, not the driver's.
        const bool same = r.type == RecordType::kOpen
                              ? recorded_ok == live_ok && (live_ok || err == r.call.err)
                              : result == r.call.result && (live_ok || err == r.call.err);
        if (!same) {
            differ(&r, what, label(r),
                   "result " + outcome(result, err) + ", recorded " +
                       outcome(r.call.result, r.call.err));
        }
        return same;
    }

    int live(int recorded) const {
        const auto it = fds_.find(recorded);
        return it == fds_.end() ? -1 : it->second;
    }

    int openFlags() const {
        // A create or truncate of the node path would change the desk's file.
        return (open_flags_ & ~(O_CREAT | O_TRUNC | O_EXCL)) | O_CLOEXEC;
    }

    void open(const Record& r) {
        open_flags_ = static_cast<int>(r.open_flags);
        const std::string node = options_.node;
        const int flags = openFlags();
        CallResult c;
        const bool answered = call(
            &r, "open", "open", [&] { return static_cast<long>(::open(node.c_str(), flags)); }, &c,
            true);
        calls_ += sent(c) ? 1 : 0;
        if (!answered) {
            dropHandedOver(c);
            return;
        }
        const int fd = c.passed_fd;
        if (c.value >= 0 && fd == -1) {
            differ(&r, "open", "open", "the descriptor could not be handed over");
            stop(Halt::kNoProcess, "cannot take over the node's descriptor");
            return;
        }
        if (c.value < 0 && r.call.result >= 0 && !opened_once_ && noNodeThere(c.error)) {
            // Nothing of the session can be sent without the node. An open
            // the node itself refuses is the driver's answer: a difference.
            halt_ = Halt::kNotOpened;
            std::fprintf(err_, "aov-rec: cannot open %s: %s\n", options_.node.c_str(),
                         std::strerror(c.error));
            return;
        }
        sameOutcome(r, "open", c.value, c.error);
        if (fd < 0) {
            if (r.call.result >= 0) {
                stop(Halt::kStopped, "the recorded calls on descriptor " +
                                         std::to_string(r.call.result) + " need the failed open");
            }
            return;
        }
        opened_once_ = true;
        if (r.call.result < 0) {
            guard_.close(options_.request_timeout_ms, fd);
            return;
        }
        const int old = live(r.call.result);
        if (old >= 0) {
            guard_.close(options_.request_timeout_ms, old);
        }
        fds_[r.call.result] = fd;
    }

    void close(const Record& r) {
        const int fd = live(r.call.fd);
        fds_.erase(r.call.fd);
        const CallResult c = guard_.close(options_.request_timeout_ms, fd);
        calls_ += sent(c) ? 1 : 0;
        if (!usable(&r, "close", "close", c, options_.request_timeout_ms)) {
            return;
        }
        sameOutcome(r, "close", c.value, c.error);
    }

    // An open whose process hung or died after handing its descriptor over:
    // the descriptor is closed in a guarded child too, never by this process
    // (its FLUSH may never return, at this process's exit as anywhere).
    void dropHandedOver(const CallResult& c) {
        if (c.passed_fd >= 0) {
            guard_.close(options_.request_timeout_ms, c.passed_fd);
        }
    }

    // Closes the descriptors the recording left open, each under the limit.
    void closeAll(const char* why) {
        for (const auto& [recorded, fd] : fds_) {
            const CallResult c = guard_.close(options_.request_timeout_ms, fd);
            if (why != nullptr && !halted()) {
                usable(nullptr, why, "close", c, options_.request_timeout_ms);
            }
        }
        fds_.clear();
    }

    // Waits up to `waitMs` for `fd` as the library's event monitor would: 1
    // ready, 0 not, -1 when the wait gave no answer (reported as a
    // difference, or the retrace stopped). `revents` gets what woke it.
    int pollNode(const Record* r, const char* what, int fd, int waitMs, short* revents) {
        CallResult c;
        if (!call(
                r, what, "poll", [&] { return aovsimtool::pollAsMonitor(fd, waitMs); }, &c, false,
                waitMs + options_.request_timeout_ms)) {
            return -1;
        }
        *revents = c.value > 0 ? static_cast<short>(c.value) : 0;
        if (c.value < 0) {
            differ(r, what, "poll", "failed: " + outcome(c.value, c.error));
            return -1;
        }
        return (*revents & POLLIN) != 0 ? 1 : 0;
    }

    // An error instead of readiness: the node may be gone.
    bool goneAfter(const Record* r, const char* what, int fd) {
        struct stat* st = reinterpret_cast<struct stat*>(arg_.data());
        CallResult c;
        if (!call(
                r, what, "fstat", [&] { return static_cast<long>(::fstat(fd, st)); }, &c)) {
            return true;
        }
        if (c.value < 0 && nodeGone(c.error)) {
            stop(Halt::kGone,
                 options_.node + " went away: fstat got " + aovsimtool::errnoName(c.error));
            return true;
        }
        return false;
    }

    // Waits as the recorded session did: when it saw the node ready before
    // this dequeue, or the dequeue got an event, the node must become ready
    // within the limit.
    bool waitReady(const Record& r, int fd) {
        // A dequeue that got an event had the node ready, whether or not
        // the recording holds the wait that saw it.
        if (!ready_seen_ && r.call.result < 0) {
            return true;
        }
        ready_seen_ = false;
        short revents = 0;
        const int ready = pollNode(&r, "readiness", fd, options_.ready_timeout_ms, &revents);
        if (ready != 0) {
            return ready > 0;
        }
        if ((revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            if (goneAfter(&r, "readiness", fd)) {
                return false;
            }
            differ(&r, "readiness", label(r),
                   std::string("the node answered the wait with ") +
                       ((revents & POLLERR) != 0   ? "POLLERR"
                        : (revents & POLLHUP) != 0 ? "POLLHUP"
                                                   : "POLLNVAL") +
                       " instead of readiness (the recorded session saw it ready); dequeue not "
                       "sent");
            return false;
        }
        differ(&r, "readiness", label(r),
               "the node was not ready within " + std::to_string(options_.ready_timeout_ms) +
                   " ms (the recorded session saw it ready); dequeue not sent");
        return false;
    }

    // Points the query in the argument at the event buffer's areas (or at
    // `areas` for every section) after refilling the buffer.
    void prepareDequeue(uint8_t* areas) {
        std::memset(event_.data(), kFill, event_.size());
        aov_event_query query{};
        for (unsigned int s = 0; s < kSections; ++s) {
            uint8_t* area =
                areas != nullptr ? areas : event_.data() + aov_event_sections[s].data_offset;
            aov_query_set_area(&query, s, area);
        }
        std::memcpy(arg_.data(), &query, sizeof(query));
    }

    void ioctl(const Record& r) {
        const int fd = live(r.call.fd);
        const bool dequeue = r.request == AOV_IOC_DEQUEUE_EVENT;
        if (dequeue && !waitReady(r, fd)) {
            return;
        }
        const size_t size = std::min<size_t>(_IOC_SIZE(r.request), kArgBytes);
        std::memset(arg_.data(), 0, size);
        void* arg = nullptr;
        if ((r.arg_flags & kArgNull) == 0) {
            std::memcpy(arg_.data(), r.sent, std::min<size_t>(r.sent_len, size));
            arg = arg_.data();
        }
        if (dequeue && arg != nullptr) {
            prepareDequeue(nullptr);
        }
        const unsigned long request = r.request;
        CallResult c;
        const bool answered = call(
            &r, "result", label(r), [&] { return static_cast<long>(::ioctl(fd, request, arg)); },
            &c);
        if (sent(c)) {
            ++calls_;
            ++requests_;
            dequeues_ += dequeue ? 1 : 0;
        }
        if (!answered) {
            return;
        }
        const bool same = sameOutcome(r, "result", c.value, c.error);
        noteStart(r, same);
        if (same && r.request == AOV_IOC_STOP && c.value >= 0) {
            checkNothingAfterStop(r, fd);
        }
        if (!same || !dequeue || c.value < 0 || r.back_len < sizeof(aov_event_query)) {
            return;
        }
        noteFirstEvent(r);
        compareWords(r);
        compareAreas(r);
        checkOutsideAreas(r);
    }

    // Keeps what the driver checks need of the session: its START record
    // and whether its first event wrote any area.
    void noteStart(const Record& r, bool same) {
        if (r.request == AOV_IOC_START && same && r.call.result >= 0 && start_.empty() &&
            r.sent_len > 0) {
            start_.assign(r.sent, r.sent + r.sent_len);
        }
    }

    void noteFirstEvent(const Record& r) {
        if (first_event_seen_) {
            return;
        }
        first_event_seen_ = true;
        for (const aov_section_desc& section : aov_event_sections) {
            first_event_wrote_ = first_event_wrote_ || word(r.back, section.query_info_offset) != 0;
        }
    }

    // Once STOP has returned, no event may be queued: the node is not ready.
    void checkNothingAfterStop(const Record& r, int fd) {
        ++checks_;
        short revents = 0;
        if (pollNode(&r, "after STOP", fd, 0, &revents) > 0) {
            differ(&r, "after STOP", label(r),
                   "the node is ready after STOP returned: an event was queued after the "
                   "session ended");
        }
    }

    // The name of the 32-bit word at `offset` of a dequeue record; empty for
    // the words of an area's address, which are the process's own.
    static std::string wordName(size_t offset) {
        constexpr size_t kHeaderBytes = sizeof(aov_event_query::header);
        if (offset < kHeaderBytes) {
            return "header[" + std::to_string(offset / 4) + "]";
        }
        if (isAddressByte(AOV_IOC_DEQUEUE_EVENT, offset)) {
            return std::string();
        }
        for (size_t s = 0; s < kSections; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            if (offset >= section.query_info_offset &&
                offset < section.query_info_offset + 4 * section.info_words) {
                return "s" + std::to_string(s + 1) + "_info[" +
                       std::to_string((offset - section.query_info_offset) / 4) + "]";
            }
        }
        char name[32];
        std::snprintf(name, sizeof(name), "padding at 0x%02zx", offset);
        return name;
    }

    // Every word the driver fills or must leave zero, in record order; the
    // first that differs is reported.
    void compareWords(const Record& r) {
        const uint8_t* live = arg_.data();
        for (size_t at = 0; at < sizeof(aov_event_query); at += 4) {
            const std::string name = wordName(at);
            if (name.empty() || word(live, at) == word(r.back, at)) {
                continue;
            }
            differ(&r, "words", label(r),
                   name + " " + std::to_string(word(live, at)) + ", recorded " +
                       std::to_string(word(r.back, at)));
            return;
        }
    }

    // A recorded byte matches when the driver wrote it, or when the driver
    // left it alone (it still holds the fill) and the recording holds what
    // the recorded program's buffer had there before: the driver does not
    // write every byte of an area kept in full.
    void compareAreas(const Record& r) {
        for (uint8_t i = 0; i < r.area_count && !areaDiffers(r, r.areas[i]); ++i) {
        }
        remember(r);
    }

    bool areaDiffers(const Record& r, const AreaView& a) {
        const size_t offset = aov_event_sections[a.section - 1].data_offset;
        const uint8_t* live = event_.data() + offset;
        const uint8_t* before = before_.data() + offset;
        for (size_t at = 0; at < a.length; ++at) {
            if (live[at] == a.data[at] || (live[at] == kFill && before[at] == a.data[at])) {
                continue;
            }
            char detail[200];
            std::snprintf(detail, sizeof(detail),
                          "section %u, first %u bytes: xxh64 %016" PRIx64 ", recorded %016" PRIx64
                          " (byte %zu: 0x%02x, recorded 0x%02x)",
                          a.section, a.length, digest(live, a.length), digest(a.data, a.length), at,
                          live[at], a.data[at]);
            differ(&r, "area", label(r), detail);
            return true;
        }
        return false;
    }

    // What the recorded program's buffer holds after this dequeue: the
    // recorded areas, elsewhere what the driver wrote.
    void remember(const Record& r) {
        for (const aov_section_desc& section : aov_event_sections) {
            const uint8_t* live = event_.data() + section.data_offset;
            uint8_t* before = before_.data() + section.data_offset;
            for (size_t at = 0; at < section.data_size; ++at) {
                before[at] = live[at] != kFill ? live[at] : before[at];
            }
        }
        for (uint8_t i = 0; i < r.area_count; ++i) {
            const AreaView& a = r.areas[i];
            std::memcpy(before_.data() + aov_event_sections[a.section - 1].data_offset, a.data,
                        a.length);
        }
    }

    // The first byte in [from, to) of the event buffer that is not the fill.
    size_t firstWritten(size_t from, size_t to) const {
        for (size_t at = from; at < to; ++at) {
            if (event_.data()[at] != kFill) {
                return at;
            }
        }
        return to;
    }

    // A driver writes only inside the data areas: the bytes between them and
    // those past the end of the buffer keep the fill.
    void checkOutsideAreas(const Record& r) {
        size_t from = 0;
        for (size_t s = 0; s <= kSections; ++s) {
            const size_t to = s < kSections ? aov_event_sections[s].data_offset : event_.size();
            const size_t at = firstWritten(from, to);
            if (at < to) {
                char detail[160];
                if (at >= sizeof(struct aov_event)) {
                    size_t changed = 0;
                    for (size_t i = at; i < to; ++i) {
                        changed += event_.data()[i] != kFill ? 1 : 0;
                    }
                    std::snprintf(detail, sizeof(detail),
                                  "the driver wrote past the end of the event buffer (%zu of the "
                                  "%zu bytes after it changed)",
                                  changed, to - sizeof(struct aov_event));
                } else {
                    std::snprintf(detail, sizeof(detail),
                                  "the driver wrote outside the data areas, at offset 0x%zx of the "
                                  "event buffer",
                                  at);
                }
                differ(&r, "outside the areas", label(r), detail);
                return;
            }
            if (s < kSections) {
                from = aov_event_sections[s].data_offset + aov_event_sections[s].data_size;
            }
        }
    }

    int openProbe(const char* what) {
        const std::string node = options_.node;
        const int flags = openFlags();
        CallResult c;
        if (!call(
                nullptr, what, "open",
                [&] { return static_cast<long>(::open(node.c_str(), flags)); }, &c, true)) {
            dropHandedOver(c);
            return -1;
        }
        ++checks_;
        if (c.value < 0 || c.passed_fd < 0) {
            differ(nullptr, what, "open",
                   "result " + outcome(c.value, c.error) +
                       ": the node cannot be opened again once the session's descriptors are "
                       "closed");
            return -1;
        }
        return c.passed_fd;
    }

    void closeProbe(int fd, const char* what) {
        // Closed even after a call hung: the process must not end holding it.
        const CallResult c = guard_.close(options_.request_timeout_ms, fd);
        if (halted()) {
            return;
        }
        if (!usable(nullptr, what, "close", c, options_.request_timeout_ms)) {
            return;
        }
        if (c.value < 0) {
            differ(nullptr, what, "close", "result " + outcome(c.value, c.error) + ", expected 0");
        }
    }

    void refused(int fd, uint32_t request, const char* what, const char* duty) {
        // Neither code carries a record; the pointer is a valid one all the same.
        void* arg = arg_.data();
        const unsigned long code = request;
        CallResult c;
        if (!call(
                nullptr, what, label(request),
                [&] { return static_cast<long>(::ioctl(fd, code, arg)); }, &c)) {
            return;
        }
        ++checks_;
        // A call that succeeded has error 0.
        if (c.error != ENOTTY) {
            differ(nullptr, what, label(request),
                   "result " + outcome(c.value, c.error) + ": " + duty);
        }
    }

    // The session's START again on a fresh descriptor: it must be answered
    // as in the recording.
    bool startProbe(int fd, const char* what, const char* duty) {
        const size_t size = std::min(start_.size(), kArgBytes);
        std::memcpy(arg_.data(), start_.data(), size);
        void* arg = arg_.data();
        CallResult c;
        if (!call(
                nullptr, what, "START",
                [&] { return static_cast<long>(::ioctl(fd, AOV_IOC_START, arg)); }, &c)) {
            return false;
        }
        ++checks_;
        if (c.value < 0) {
            differ(nullptr, what, "START",
                   "result " + outcome(c.value, c.error) + ", recorded 0: " + duty);
            return false;
        }
        return true;
    }

    bool readyProbe(int fd, const char* what) {
        short revents = 0;
        const int ready = pollNode(nullptr, what, fd, options_.ready_timeout_ms, &revents);
        if (ready == 0) {
            differ(nullptr, what, "poll",
                   "the node was not ready within " + std::to_string(options_.ready_timeout_ms) +
                       " ms of START");
        }
        return ready > 0;
    }

    // A dequeue into the event buffer, its areas refilled first.
    bool dequeueProbe(int fd, const char* what, CallResult* c) {
        prepareDequeue(nullptr);
        void* arg = arg_.data();
        return call(
            nullptr, what, "DEQUEUE_EVENT",
            [&] { return static_cast<long>(::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, arg)); }, c);
    }

    // With an event pending, dequeues until the queue is empty: a dequeue
    // with nothing pending answers EAGAIN at once, and the node is then not
    // ready, unless an event came in between, which the next dequeue gets.
    void emptyQueueProbe(int fd) {
        for (int round = 0; round < kDrainRounds; ++round) {
            CallResult c;
            if (!dequeueProbe(fd, "empty queue", &c)) {
                return;
            }
            if (c.value >= 0 || c.error != EAGAIN) {
                continue;
            }
            ++checks_;
            short revents = 0;
            if (pollNode(nullptr, "empty queue", fd, 0, &revents) <= 0 ||
                !dequeueProbe(fd, "empty queue", &c)) {
                return;
            }
            if (c.value < 0 && c.error == EAGAIN) {
                differ(nullptr, "empty queue", "poll",
                       "the node is ready with no event pending (the dequeue after it got EAGAIN)");
                return;
            }
        }
        differ(nullptr, "empty queue", "DEQUEUE_EVENT",
               "the queue was not empty after " + std::to_string(kDrainRounds) + " dequeues");
    }

    // Registers `fd` on `monitor` as the library's event monitor does; false
    // when the node cannot be watched so (a difference) or gave no answer.
    bool armMonitor(int monitor, int fd) {
        CallResult c;
        if (!call(
                nullptr, "session after close", "epoll_ctl",
                [&] { return aovsimtool::armAsMonitor(monitor, fd); }, &c)) {
            return false;
        }
        ++checks_;
        if (c.value < 0) {
            differ(nullptr, "session after close", "epoll_ctl",
                   "result " + outcome(c.value, c.error) +
                       ": the node cannot be watched as the event monitor watches it");
            return false;
        }
        return true;
    }

    // The monitor armed before START must be woken by the session's first
    // event, whichever mask it registered with first.
    bool monitorWokenProbe(int monitor) {
        const int waitMs = options_.ready_timeout_ms;
        CallResult c;
        if (!call(
                nullptr, "monitor", "epoll_wait",
                [&] { return aovsimtool::waitAsMonitor(monitor, waitMs); }, &c, false,
                waitMs + options_.request_timeout_ms)) {
            return false;
        }
        ++checks_;
        if (c.value <= 0 || (c.value & POLLIN) == 0) {
            differ(nullptr, "monitor", "epoll_wait",
                   (c.value < 0 ? "failed: " + outcome(c.value, c.error) + ": "
                                : "not woken within " + std::to_string(waitMs) + " ms of START: ") +
                       "a monitor registered with an empty mask, then EPOLLIN, before START "
                       "never hears of the session's events");
            return false;
        }
        return true;
    }

    // After a refused dequeue the node signals no error: the library's
    // monitor hears POLLERR and POLLHUP at every wait, and would call it
    // again and again.
    void noErrorSignalledProbe(int fd) {
        short revents = 0;
        if (pollNode(nullptr, "after a refused dequeue", fd, 0, &revents) < 0) {
            return;
        }
        ++checks_;
        if ((revents & (POLLERR | POLLHUP)) != 0) {
            differ(nullptr, "after a refused dequeue", "poll",
                   std::string("the node signals ") +
                       ((revents & POLLERR) != 0 ? "POLLERR" : "POLLHUP") +
                       " after the faulting-area dequeue was refused: the event monitor would "
                       "wake at every wait");
        }
    }

    // A dequeue whose areas cannot be written is refused with EFAULT when the
    // event writes any; only checked when the session's first event did.
    // True when it was refused so.
    bool faultingAreaProbe(int fd) {
        if (!first_event_wrote_) {
            return false;
        }
        prepareDequeue(unwritable_.data());
        void* arg = arg_.data();
        CallResult c;
        if (!call(
                nullptr, "faulting area", "DEQUEUE_EVENT",
                [&] { return static_cast<long>(::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, arg)); }, &c)) {
            return false;
        }
        ++checks_;
        if (c.error != EFAULT) {
            differ(nullptr, "faulting area", "DEQUEUE_EVENT",
                   "result " + outcome(c.value, c.error) +
                       " with every data area unwritable: a driver refuses it with EFAULT");
            return false;
        }
        return true;
    }

    const RetraceOptions& options_;
    const uint64_t records_;
    FILE* out_;
    FILE* err_;
    GuardedCaller guard_;
    SharedPages event_;       // the event buffer, then kGuardBytes and more
    SharedPages arg_;         // the request's record
    SharedPages unwritable_;  // areas a driver cannot write
    std::vector<uint8_t> before_ = std::vector<uint8_t>(sizeof(struct aov_event));
    std::map<int, int> fds_;      // recorded descriptor -> live one
    std::vector<uint8_t> start_;  // the first START the driver accepted as recorded
    int open_flags_ = O_RDWR;
    bool opened_once_ = false;
    bool first_event_seen_ = false;
    bool first_event_wrote_ = false;
    bool ready_seen_ = false;
    Halt halt_ = Halt::kNone;
    uint64_t applied_ = 0;
    uint64_t calls_ = 0;
    uint64_t requests_ = 0;
    uint64_t dequeues_ = 0;
    uint64_t checks_ = 0;
    uint64_t differences_ = 0;
};

// Reads the whole file; its record count, or false with the reason printed.
bool checkWhole(const std::string& path, uint64_t* records, FILE* err) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        std::fprintf(err,
                     "aov-rec: %s: not a regular file (retrace reads the session twice: whole "
                     "before sending anything)\n",
                     path.c_str());
        return false;
    }
    FileSource file;
    std::string why;
    if (!file.open(path, &why)) {
        std::fprintf(err, "aov-rec: %s\n", why.c_str());
        return false;
    }
    SessionReader reader(file);
    if (!reader.start()) {
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return false;
    }
    Record record;
    SessionReader::Next next;
    while ((next = reader.next(&record)) == SessionReader::Next::kRecord) {
    }
    // A recording cut off by a crash is retraced up to its last whole record.
    if (next != SessionReader::Next::kEnd && next != SessionReader::Next::kCut) {
        std::fprintf(err, "aov-rec: %s: %s; nothing sent\n", path.c_str(), reader.error().c_str());
        return false;
    }
    *records = reader.records();
    return true;
}

}  // namespace

int runRetrace(const std::string& path, const RetraceOptions& options, FILE* out, FILE* err) {
    uint64_t records = 0;
    if (!checkWhole(path, &records, err)) {
        return kExitBadInput;
    }
    FileSource file;
    std::string why;
    if (!file.open(path, &why)) {
        std::fprintf(err, "aov-rec: %s\n", why.c_str());
        return kExitBadInput;
    }
    SessionReader reader(file);
    if (!reader.start()) {
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return kExitBadInput;
    }
    Retracer retracer(options, records, out, err);
    if (!retracer.prepare()) {
        return kExitNodeUnavailable;
    }
    Record record;
    SessionReader::Next next = SessionReader::Next::kEnd;
    while (!retracer.halted() && (next = reader.next(&record)) == SessionReader::Next::kRecord) {
        retracer.apply(record);
    }
    if (retracer.halt() == Retracer::Halt::kNotOpened) {
        return kExitNodeUnavailable;
    }
    retracer.checkDuties();
    const int status = retracer.finish(path);
    if (next != SessionReader::Next::kEnd && next != SessionReader::Next::kRecord) {
        // Cut off, or changed since it was checked.
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return kExitBadInput;
    }
    return status;
}

}  // namespace aovrec
