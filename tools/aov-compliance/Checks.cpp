#include "Checks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Guarded.h"
#include "Report.h"
#include "kelo_aov.h"

namespace aovcompliance {

namespace {

constexpr const char* kOpen = "open";
constexpr const char* kRequests = "requests";
constexpr const char* kDequeue = "dequeue";
constexpr const char* kReadiness = "readiness";
constexpr const char* kLifecycle = "lifecycle";

constexpr size_t kEventSize = sizeof(aov_event);
constexpr uint8_t kCanary = 0xA5;
constexpr int32_t kFrameRate = 10;
// How long the node must stay quiet after STOP: three frame periods.
constexpr int kQuietMs = 3 * 1000 / kFrameRate;
// Dequeues at most this many events to drain the queue.
constexpr int kMaxDrain = 64;
// Events tried to find one that carries content.
constexpr int kContentTries = 4;

// Where the checks' records and the event buffer live: shared with the
// children that make the requests, and fenced by pages nothing may touch.
//   [event buffer | canary tail to the page end] [guard]
//   [query record | canary to the page end] [guard]
//   [start record, sensor list, scratch] [guard = the faulting area]
class Arena {
  public:
    bool map() {
        page_ = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        event_span_ = roundUp(kEventSize + 64);
        size_ = event_span_ + page_ + page_ + page_ + roundUp(2048) + page_;
        void* base =
            ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) {
            return false;
        }
        base_ = static_cast<uint8_t*>(base);
        event_ = base_;
        query_ = base_ + event_span_ + page_;
        scratch_ = query_ + page_ + page_;
        fault_ = scratch_ + roundUp(2048);
        return ::mprotect(event_ + event_span_, page_, PROT_NONE) == 0 &&
               ::mprotect(query_ + page_, page_, PROT_NONE) == 0 &&
               ::mprotect(fault_, page_, PROT_NONE) == 0;
    }
    ~Arena() {
        if (base_ != nullptr) {
            ::munmap(base_, size_);
        }
    }

    uint8_t* event() { return event_; }
    size_t eventSpan() const { return event_span_; }
    aov_event_query* query() { return reinterpret_cast<aov_event_query*>(query_); }
    uint8_t* queryBytes() { return query_; }
    size_t page() const { return page_; }
    uint8_t* scratch() { return scratch_; }
    void* faulting() { return fault_; }

  private:
    size_t roundUp(size_t n) const { return (n + page_ - 1) / page_ * page_; }

    size_t page_ = 4096;
    size_t size_ = 0;
    size_t event_span_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* event_ = nullptr;
    uint8_t* query_ = nullptr;
    uint8_t* scratch_ = nullptr;
    uint8_t* fault_ = nullptr;
};

void*& addressOf(aov_event_query* query, const aov_section_desc& section) {
    return *reinterpret_cast<void**>(reinterpret_cast<uint8_t*>(query) + section.query_addr_offset);
}

std::string hex(unsigned long value) {
    char text[32];
    std::snprintf(text, sizeof(text), "0x%08lx", value);
    return text;
}

std::string resultText(const CallResult& r) {
    if (r.value == -1) {
        return errnoName(r.error);
    }
    if (r.value < 0) {
        return std::to_string(r.value) + " " + errnoName(r.error);
    }
    return std::to_string(r.value);
}

class Checker {
  public:
    Checker(const Options& options, Report& report) : options_(options), report_(report) {}

    int run() {
        report_.begin();
        if (!arena_.map()) {
            report_.check(kOpen, "memory for the checks", Verdict::kFail,
                          std::string("expected a mapping, got ") + errnoName(errno));
            report_.end();
            return 1;
        }
        openChecks();
        const bool session = report_.selected(kRequests) || report_.selected(kDequeue) ||
                             report_.selected(kReadiness);
        if (session && !stopped_) {
            sessionChecks();
        }
        if (report_.selected(kLifecycle) && !stopped_) {
            lifecycleChecks();
        }
        if (stopped_) {
            report_.bail(stop_reason_);
            return 1;
        }
        if (fd_ >= 0) {
            guard_.close(options_.timeout_ms, fd_);
            fd_ = -1;
        }
        report_.end();
        return report_.totals().failed == 0 ? 0 : 1;
    }

  private:
    // --- calls, each under the timeout ---------------------------------

    // True when the call answered. A call that did not is a failure of
    // `category: name`; one that never returned also stops the run.
    bool answered(const char* category, const std::string& name, const CallResult& r) {
        switch (r.status) {
            case CallResult::Status::kReturned:
                report_.note(name + " -> " + resultText(r) + " in " + std::to_string(r.elapsed_us) +
                             " us");
                return true;
            case CallResult::Status::kTimedOut:
                report_.check(category, name, Verdict::kFail,
                              "expected an answer within " + std::to_string(options_.timeout_ms) +
                                  " ms, got none: the request blocks");
                stopped_ = true;
                stop_reason_ = name + " never returned; later checks not run";
                return false;
            case CallResult::Status::kDied:
                report_.check(category, name, Verdict::kFail,
                              "expected an answer, got none: the calling process died");
                return false;
            case CallResult::Status::kNoChild:
                report_.check(category, name, Verdict::kFail,
                              std::string("expected to make the call, got no process for it: ") +
                                  errnoName(r.error));
                stopped_ = true;
                stop_reason_ = "cannot fork";
                return false;
        }
        return false;
    }

    CallResult request(unsigned long code, void* arg) {
        const int fd = fd_;
        return guard_.run(options_.timeout_ms,
                          [fd, code, arg]() -> long { return ::ioctl(fd, code, arg); });
    }

    CallResult openNode() {
        const std::string path = options_.node;
        return guard_.run(
            options_.timeout_ms,
            [&path]() -> long { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); }, true);
    }

    // The node's poll readiness, waiting up to `waitMs`: revents, 0 when not
    // ready in time.
    CallResult pollNode(int waitMs) {
        const int fd = fd_;
        return guard_.run(options_.timeout_ms + waitMs, [fd, waitMs]() -> long {
            pollfd watched{fd, POLLIN, 0};
            const int ready = ::poll(&watched, 1, waitMs);
            return ready > 0 ? watched.revents : ready;
        });
    }

    // A request that must succeed: FAIL when negative, WARN when positive.
    bool expectSuccess(const char* category, const std::string& name, unsigned long code,
                       void* arg) {
        const CallResult r = request(code, arg);
        if (!answered(category, name, r)) {
            return false;
        }
        if (r.value < 0) {
            last_error_ = r.error;
            report_.check(category, name, Verdict::kFail, "expected 0, got " + resultText(r));
            return false;
        }
        report_.check(category, name, r.value == 0 ? Verdict::kOk : Verdict::kWarn,
                      r.value == 0 ? std::string()
                                   : "expected 0, got " + resultText(r) +
                                         " (the library takes any non-negative result as success)");
        return true;
    }

    // A request the driver must refuse: FAIL when accepted, WARN when refused
    // with another error than `expected`.
    void expectRefused(const char* category, const std::string& name, unsigned long code, void* arg,
                       int expected, bool required) {
        const CallResult r = request(code, arg);
        if (!answered(category, name, r)) {
            return;
        }
        const std::string want = std::string("expected a negative result (") + errnoName(expected) +
                                 "), got " + resultText(r);
        if (r.value >= 0) {
            report_.check(category, name, required ? Verdict::kFail : Verdict::kWarn, want);
        } else if (r.error != expected) {
            report_.check(category, name, Verdict::kWarn, want);
        } else {
            report_.check(category, name, Verdict::kOk);
        }
    }

    // --- records -----------------------------------------------------------

    uint8_t* startRecord() {
        uint8_t* record = arena_.scratch();
        std::memset(record, 0, 512);
        const int32_t rate = kFrameRate;
        const int32_t mode = AOV_MODE_FULL_CONTENT;
        std::memcpy(record + AOV_START_FRAME_RATE, &rate, sizeof(rate));
        std::memcpy(record + AOV_START_AOV_MODE, &mode, sizeof(mode));
        return record;
    }

    aov_sensor_list* sensorList(uint32_t count) {
        auto* list = reinterpret_cast<aov_sensor_list*>(arena_.scratch() + 1024);
        std::memset(list, 0, sizeof(*list));
        list->count = count;
        for (uint32_t i = 0; i < AOV_MAX_SENSORS_PER_REQUEST; ++i) {
            list->sensor_ids[i] = static_cast<int32_t>(i);
        }
        return list;
    }

    // Fills the event buffer and what follows it with the canary and sets the
    // record's ten addresses as the library does (or all to the faulting page).
    void prepareDequeue(bool faulting) {
        std::memset(arena_.event(), kCanary, arena_.eventSpan());
        std::memset(arena_.queryBytes(), kCanary, arena_.page());
        aov_event_query* query = arena_.query();
        std::memset(query, 0, sizeof(*query));
        for (const aov_section_desc& section : aov_event_sections) {
            addressOf(query, section) =
                faulting ? arena_.faulting() : arena_.event() + section.data_offset;
        }
    }

    CallResult dequeue(bool faulting) {
        prepareDequeue(faulting);
        return request(AOV_IOC_DEQUEUE_EVENT, arena_.query());
    }

    // Empty when the driver wrote nothing outside the ten areas, else where it did.
    std::string writesOutsideAreas() {
        const uint8_t* event = arena_.event();
        size_t from = 0;
        for (int s = 0; s <= AOV_SECTION_COUNT; ++s) {
            const size_t to =
                s < AOV_SECTION_COUNT ? aov_event_sections[s].data_offset : arena_.eventSpan();
            size_t changed = 0;
            size_t first = 0;
            for (size_t i = from; i < to; ++i) {
                if (event[i] != kCanary && changed++ == 0) {
                    first = i;
                }
            }
            if (changed > 0) {
                const std::string where =
                    s == 0 ? "before section 1's area"
                    : s < AOV_SECTION_COUNT
                        ? "after section " + std::to_string(s) + "'s area"
                        : "after section 10's area, past the end of the event buffer";
                return std::to_string(changed) + " bytes written " + where + " (first at offset " +
                       hex(first) + ")";
            }
            if (s < AOV_SECTION_COUNT) {
                from = aov_event_sections[s].data_offset + aov_event_sections[s].data_size;
            }
        }
        return std::string();
    }

    // Empty when the record's padding, addresses and the bytes after it are as
    // they were sent, else what changed.
    std::string recordDamage(bool faulting) {
        const uint8_t* bytes = arena_.queryBytes();
        for (size_t i = sizeof(aov_event_query); i < arena_.page(); ++i) {
            if (bytes[i] != kCanary) {
                return "the bytes after the record were written (offset " + hex(i) + ")";
            }
        }
        aov_event_query* query = arena_.query();
        for (const aov_section_desc& section : aov_event_sections) {
            const void* want = faulting ? arena_.faulting() : arena_.event() + section.data_offset;
            if (addressOf(query, section) != want) {
                return "an area address was changed (record offset " +
                       hex(section.query_addr_offset) + ")";
            }
        }
        for (size_t padding : {0x1C, 0x2C, 0x3C, 0x8C, 0x9C, 0xAC, 0xBC, 0xCC}) {
            uint32_t word;
            std::memcpy(&word, bytes + padding, sizeof(word));
            if (word != 0) {
                return "padding word at record offset " + hex(padding) + " is " + hex(word);
            }
        }
        return std::string();
    }

    // --- readiness -----------------------------------------------------------

    enum class Wait { kReadable, kQuiet, kStopped };

    Wait waitReadable(const char* category, const std::string& name, int waitMs) {
        const CallResult r = pollNode(waitMs);
        if (!answered(category, name, r)) {
            return Wait::kStopped;
        }
        if (r.value > 0 && (r.value & POLLIN) != 0) {
            return Wait::kReadable;
        }
        return Wait::kQuiet;
    }

    std::string noEventWhy() const {
        return "no event within " + std::to_string(options_.event_timeout_ms) +
               " ms of START: events need a streaming sensor (on a device, start the sensor "
               "first), or the driver does not signal readiness";
    }

    // --- the checks ------------------------------------------------------------

    void openChecks() {
        CallResult r = openNode();
        if (!answered(kOpen, "O_RDWR open", r)) {
            return;
        }
        if (r.value < 0) {
            report_.check(kOpen, "O_RDWR open", Verdict::kFail,
                          "expected a descriptor of " + options_.node + ", got " + resultText(r));
            stopped_ = true;
            stop_reason_ = "the node cannot be opened";
            return;
        }
        fd_ = r.passed_fd;
        report_.check(kOpen, "O_RDWR open", Verdict::kOk);

        // The library opens the node once per process; either answer is fine.
        r = openNode();
        if (!answered(kOpen, "second open while held", r)) {
            return;
        }
        if (r.value >= 0) {
            report_.check(kOpen, "second open while held", Verdict::kOk,
                          "allowed: the node is not exclusive");
            const CallResult closed = guard_.close(options_.timeout_ms, r.passed_fd);
            if (!answered(kOpen, "close of the second descriptor", closed)) {
                return;
            }
        } else {
            report_.check(kOpen, "second open while held", Verdict::kOk,
                          "refused with " + resultText(r) + ": the node is exclusive");
        }

        const CallResult closed = guard_.close(options_.timeout_ms, fd_);
        fd_ = -1;
        if (!answered(kOpen, "close and reopen", closed)) {
            return;
        }
        r = openNode();
        if (!answered(kOpen, "close and reopen", r)) {
            return;
        }
        if (closed.value < 0 || r.value < 0) {
            report_.check(kOpen, "close and reopen", Verdict::kFail,
                          "expected close 0 and a descriptor, got close " + resultText(closed) +
                              " and open " + resultText(r));
            if (r.value < 0) {
                stopped_ = true;
                stop_reason_ = "the node cannot be opened again";
            }
            return;
        }
        fd_ = r.passed_fd;
        report_.check(kOpen, "close and reopen", Verdict::kOk);

        const Wait w = waitReadable(kReadiness, "not readable before START", 0);
        if (w == Wait::kReadable) {
            report_.check(kReadiness, "not readable before START", Verdict::kFail,
                          "expected not readable, got readable: a monitor would spin, as the "
                          "library dequeues only once started");
        } else if (w == Wait::kQuiet) {
            report_.check(kReadiness, "not readable before START", Verdict::kOk);
        }
    }

    void refusalChecks() {
        uint8_t* scratch = arena_.scratch();
        std::memset(scratch, 0, 512);
        const struct {
            const char* name;
            unsigned long code;
        } unknown[] = {
            {"unknown code _IO('H', 5) refused", _IO('H', 5)},
            {"unknown code _IOW('H', 8, 4) refused", _IOW('H', 8, uint32_t)},
            {"unknown code _IOR('H', 200, 8) refused", _IOR('H', 200, uint64_t)},
        };
        for (const auto& c : unknown) {
            expectRefused(kRequests, c.name, c.code, scratch, ENOTTY, true);
            if (stopped_) {
                return;
            }
        }
        // Known numbers with a size the library never sends; a valid record
        // behind them, so a driver that ignores the size would act on it.
        const struct {
            const char* name;
            unsigned long code;
            void* arg;
        } wrongSize[] = {
            {"START with size 196 refused", _IOC(_IOC_WRITE, 'H', 0, 196), startRecord()},
            {"SENSOR_ON with size 256 refused", _IOC(_IOC_WRITE, 'H', 1, 256), sensorList(1)},
            {"SENSOR_OFF with size 264 refused", _IOC(_IOC_WRITE, 'H', 2, 264), sensorList(1)},
            {"DEQUEUE_EVENT with size 208 refused", _IOC(_IOC_READ, 'H', 3, 208),
             arena_.scratch() + 1536},
            {"STOP with size 4 refused", _IOC(_IOC_WRITE, 'H', 4, 4), arena_.scratch() + 1536},
        };
        for (const auto& c : wrongSize) {
            expectRefused(kRequests, c.name, c.code, c.arg, ENOTTY, true);
            if (stopped_) {
                return;
            }
        }
    }

    void sessionChecks() {
        refusalChecks();
        if (stopped_) {
            return;
        }
        if (!expectSuccess(kRequests, "START", AOV_IOC_START, startRecord())) {
            if (!stopped_) {
                skipSession(last_error_ == ENOSYS
                                ? "START failed with ENOSYS: the requests do not reach a driver "
                                  "(an emulator that does not pass them on?)"
                                : "START failed");
            }
            return;
        }
        const bool notified =
            expectSuccess(kRequests, "ULPOSC3_ON", AOV_IOC_ULPOSC3_ON, nullptr) &&
            expectSuccess(kRequests, "SENSOR_ON with 1 id", AOV_IOC_SENSOR_ON, sensorList(1)) &&
            expectSuccess(kRequests, "SENSOR_ON with 64 ids", AOV_IOC_SENSOR_ON, sensorList(64));
        if (stopped_) {
            return;
        }
        (void)notified;
        expectRefused(kRequests, "SENSOR_ON with count 0 refused", AOV_IOC_SENSOR_ON, sensorList(0),
                      EINVAL, false);
        if (stopped_) {
            return;
        }
        expectRefused(kRequests, "SENSOR_ON with count 65 refused", AOV_IOC_SENSOR_ON,
                      sensorList(65), EINVAL, false);
        if (stopped_) {
            return;
        }
        expectRefused(kRequests, "SENSOR_ON with a null record refused", AOV_IOC_SENSOR_ON, nullptr,
                      EFAULT, false);
        if (stopped_) {
            return;
        }

        eventChecks();
        if (stopped_) {
            return;
        }

        if (!expectSuccess(kRequests, "SENSOR_OFF with 64 ids", AOV_IOC_SENSOR_OFF,
                           sensorList(64)) &&
            stopped_) {
            return;
        }
        if (!expectSuccess(kRequests, "SENSOR_OFF with 1 id", AOV_IOC_SENSOR_OFF, sensorList(1)) &&
            stopped_) {
            return;
        }
        if (!expectSuccess(kRequests, "ULPOSC3_OFF", AOV_IOC_ULPOSC3_OFF, nullptr) && stopped_) {
            return;
        }
        if (!expectSuccess(kRequests, "STOP", AOV_IOC_STOP, nullptr)) {
            return;
        }
        const Wait w = waitReadable(kReadiness, "nothing after STOP", kQuietMs);
        if (w == Wait::kReadable) {
            report_.check(kReadiness, "nothing after STOP", Verdict::kFail,
                          "expected not readable for " + std::to_string(kQuietMs) +
                              " ms after STOP, got readable: the library no longer dequeues, so "
                              "a monitor would spin");
        } else if (w == Wait::kQuiet) {
            report_.check(kReadiness, "nothing after STOP", Verdict::kOk);
        }
    }

    void skipSession(const std::string& why) {
        for (const char* name :
             {"poll readable with an event pending", "epoll readable (empty mask, then modified)",
              "not readable once drained", "nothing after STOP"}) {
            report_.check(kReadiness, name, Verdict::kSkip, why);
        }
        for (const char* name :
             {"pending event dequeued into the library's layout", "writes stay inside the areas",
              "record's padding and addresses untouched", "faulting area refused with EFAULT",
              "works after a faulting area", "nothing pending returns promptly"}) {
            report_.check(kDequeue, name, Verdict::kSkip, why);
        }
    }

    void eventChecks() {
        // Readiness through poll, as soon as an event is pending.
        const Wait w = waitReadable(kReadiness, "poll readable with an event pending",
                                    options_.event_timeout_ms);
        if (w == Wait::kStopped) {
            return;
        }
        if (w == Wait::kQuiet) {
            // Not readable: either nothing arrived, or the driver does not say so.
            const CallResult r = dequeue(false);
            if (!answered(kReadiness, "poll readable with an event pending", r)) {
                return;
            }
            if (r.value >= 0) {
                report_.check(kReadiness, "poll readable with an event pending", Verdict::kFail,
                              "expected readable within " +
                                  std::to_string(options_.event_timeout_ms) +
                                  " ms, got not readable while a dequeue returned an event: the "
                                  "library dequeues only when the monitor sees readiness");
                skipEventsRest("the node does not signal readiness");
            } else {
                report_.check(kReadiness, "poll readable with an event pending", Verdict::kSkip,
                              noEventWhy());
                skipEventsRest("no event arrived");
            }
            return;
        }
        report_.check(kReadiness, "poll readable with an event pending", Verdict::kOk);

        // One event into the buffer laid out as the library lays it.
        bool content = false;
        for (int attempt = 0; attempt < kContentTries && !content; ++attempt) {
            if (attempt > 0 &&
                waitReadable(kDequeue, "pending event dequeued into the library's layout",
                             options_.event_timeout_ms) != Wait::kReadable) {
                break;
            }
            const CallResult r = dequeue(false);
            if (!answered(kDequeue, "pending event dequeued into the library's layout", r)) {
                return;
            }
            if (r.value < 0) {
                report_.check(kDequeue, "pending event dequeued into the library's layout",
                              Verdict::kFail,
                              "expected 0 with the node readable, got " + resultText(r));
                return;
            }
            content = arena_.query()->header[5] != 0;
            const std::string outside = writesOutsideAreas();
            if (content || attempt + 1 == kContentTries || !outside.empty()) {
                report_.check(kDequeue, "pending event dequeued into the library's layout",
                              Verdict::kOk, content ? std::string() : "no event carried content");
                report_.check(kDequeue, "writes stay inside the areas",
                              outside.empty() ? Verdict::kOk : Verdict::kFail,
                              outside.empty()
                                  ? std::string()
                                  : "expected writes only inside the ten areas, got " + outside);
                const std::string damage = recordDamage(false);
                report_.check(kDequeue, "record's padding and addresses untouched",
                              damage.empty() ? Verdict::kOk : Verdict::kWarn,
                              damage.empty() ? std::string()
                                             : "expected them as sent, got " + damage +
                                                   " (the library never reads them)");
                break;
            }
        }

        epollCheck();
        if (stopped_) {
            return;
        }
        faultingAreaChecks();
        if (stopped_) {
            return;
        }
        drainChecks();
    }

    void skipEventsRest(const std::string& why) {
        report_.check(kReadiness, "epoll readable (empty mask, then modified)", Verdict::kSkip,
                      why);
        report_.check(kReadiness, "not readable once drained", Verdict::kSkip, why);
        for (const char* name :
             {"pending event dequeued into the library's layout", "writes stay inside the areas",
              "record's padding and addresses untouched", "faulting area refused with EFAULT",
              "works after a faulting area", "nothing pending returns promptly"}) {
            report_.check(kDequeue, name, Verdict::kSkip, why);
        }
    }

    // Registered with no events first and then modified, as the system
    // layer's monitor does.
    void epollCheck() {
        const char* name = "epoll readable (empty mask, then modified)";
        const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
        if (epfd < 0) {
            report_.check(kReadiness, name, Verdict::kSkip,
                          std::string("no epoll instance: ") + errnoName(errno));
            return;
        }
        const int fd = fd_;
        const int waitMs = options_.event_timeout_ms;
        CallResult r = guard_.run(options_.timeout_ms, [epfd, fd]() -> long {
            epoll_event event{};
            event.events = 0;
            event.data.fd = fd;
            if (::epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event) != 0) {
                return -1;
            }
            event.events = EPOLLIN;
            return ::epoll_ctl(epfd, EPOLL_CTL_MOD, fd, &event);
        });
        if (answered(kReadiness, name, r)) {
            if (r.value < 0) {
                report_.check(kReadiness, name, Verdict::kFail,
                              "expected the node to be watchable, got epoll_ctl " + resultText(r));
            } else {
                r = guard_.run(options_.timeout_ms + waitMs, [epfd, waitMs]() -> long {
                    epoll_event event{};
                    const int ready = ::epoll_wait(epfd, &event, 1, waitMs);
                    return ready > 0 ? static_cast<long>(event.events) : ready;
                });
                if (answered(kReadiness, name, r)) {
                    const bool readable = r.value > 0 && (r.value & EPOLLIN) != 0;
                    report_.check(kReadiness, name, readable ? Verdict::kOk : Verdict::kFail,
                                  readable ? std::string()
                                           : "expected EPOLLIN within " + std::to_string(waitMs) +
                                                 " ms with events arriving, got " + resultText(r));
                }
            }
        }
        ::close(epfd);
    }

    void faultingAreaChecks() {
        const char* name = "faulting area refused with EFAULT";
        bool decided = false;
        for (int attempt = 0; attempt < kContentTries && !decided; ++attempt) {
            const Wait w = waitReadable(kDequeue, name, options_.event_timeout_ms);
            if (w == Wait::kStopped) {
                return;
            }
            if (w == Wait::kQuiet) {
                report_.check(kDequeue, name, Verdict::kSkip, "no further event arrived");
                report_.check(kDequeue, "works after a faulting area", Verdict::kSkip,
                              "no further event arrived");
                return;
            }
            const CallResult r = dequeue(true);
            if (!answered(kDequeue, name, r)) {
                return;
            }
            if (r.value < 0) {
                report_.check(kDequeue, name, r.error == EFAULT ? Verdict::kOk : Verdict::kWarn,
                              r.error == EFAULT
                                  ? std::string()
                                  : "expected EFAULT, got " + resultText(r) +
                                        " (the library needs a negative result only)");
                decided = true;
            } else if (arena_.query()->header[5] != 0) {
                report_.check(kDequeue, name, Verdict::kFail,
                              "expected a negative result (EFAULT) with every area address "
                              "unwritable, got " +
                                  resultText(r) +
                                  " for an event carrying content: its data are silently missing");
                decided = true;
            }
            // An event without content writes no area: try the next one.
        }
        if (!decided) {
            report_.check(kDequeue, name, Verdict::kSkip, "no event carried content");
        }

        const char* after = "works after a faulting area";
        const Wait w = waitReadable(kDequeue, after, options_.event_timeout_ms);
        if (w == Wait::kStopped) {
            return;
        }
        if (w == Wait::kQuiet) {
            report_.check(kDequeue, after, Verdict::kFail,
                          "expected a further event within " +
                              std::to_string(options_.event_timeout_ms) +
                              " ms, got none: the driver stopped delivering");
            return;
        }
        const CallResult r = dequeue(false);
        if (!answered(kDequeue, after, r)) {
            return;
        }
        report_.check(kDequeue, after, r.value >= 0 ? Verdict::kOk : Verdict::kFail,
                      r.value >= 0 ? std::string() : "expected 0, got " + resultText(r));
    }

    void drainChecks() {
        const char* name = "not readable once drained";
        // Events keep arriving: dequeue while readable, a bounded number of times.
        for (int round = 0; round < kMaxDrain; ++round) {
            const Wait w = waitReadable(kReadiness, name, 0);
            if (w == Wait::kStopped) {
                return;
            }
            if (w == Wait::kQuiet) {
                report_.check(kReadiness, name, Verdict::kOk);
                emptyDequeueCheck();
                return;
            }
            const CallResult r = dequeue(false);
            if (!answered(kReadiness, name, r)) {
                return;
            }
            if (r.value < 0) {
                report_.check(kReadiness, name, Verdict::kFail,
                              "expected not readable with nothing to dequeue, got readable while "
                              "a dequeue returned " +
                                  resultText(r) +
                                  ": the monitor would call the library again and again");
                report_.check(kDequeue, "nothing pending returns promptly", Verdict::kOk,
                              "returned " + resultText(r));
                return;
            }
        }
        report_.check(kReadiness, name, Verdict::kFail,
                      "expected not readable after at most " + std::to_string(kMaxDrain) +
                          " dequeues, got readable still: a readiness storm");
        report_.check(kDequeue, "nothing pending returns promptly", Verdict::kSkip,
                      "the queue never drained");
    }

    // With nothing pending, the dequeue should come back at once. The library
    // dequeues only when readable, so a blocking one is a warning.
    void emptyDequeueCheck() {
        const char* name = "nothing pending returns promptly";
        const CallResult r = dequeue(false);
        if (r.status == CallResult::Status::kTimedOut) {
            report_.check(kDequeue, name, Verdict::kWarn,
                          "expected an answer within " + std::to_string(options_.timeout_ms) +
                              " ms, got none: the dequeue blocks with nothing pending; a monitor "
                              "that misreads readiness would stall");
            return;
        }
        if (!answered(kDequeue, name, r)) {
            return;
        }
        report_.check(kDequeue, name, Verdict::kOk,
                      r.value < 0 ? "returned " + resultText(r) : "an event arrived meanwhile");
    }

    void lifecycleChecks() {
        if (fd_ < 0) {
            return;
        }
        // STOP with no session: the library sends it from stopDevice whatever
        // the state, and logs a negative result as an error.
        CallResult r = request(AOV_IOC_STOP, nullptr);
        if (!answered(kLifecycle, "STOP without START", r)) {
            return;
        }
        report_.check(kLifecycle, "STOP without START",
                      r.value >= 0 ? Verdict::kOk : Verdict::kWarn,
                      r.value >= 0 ? std::string()
                                   : "expected 0, got " + resultText(r) +
                                         " (the library logs \"failed to stop device\")");

        // START twice: the library sends START again on a second startDevice.
        r = request(AOV_IOC_START, startRecord());
        if (!answered(kLifecycle, "START twice", r)) {
            return;
        }
        if (r.value < 0) {
            report_.check(kLifecycle, "START twice", Verdict::kFail,
                          "expected the first START to succeed, got " + resultText(r));
        } else {
            const CallResult second = request(AOV_IOC_START, startRecord());
            if (!answered(kLifecycle, "START twice", second)) {
                return;
            }
            report_.check(kLifecycle, "START twice", Verdict::kOk,
                          "second START " +
                              std::string(second.value < 0 ? "refused with " : "-> ") +
                              resultText(second));
        }

        // Close while started, as a process that dies mid-session does.
        const CallResult closed = guard_.close(options_.timeout_ms, fd_);
        fd_ = -1;
        if (!answered(kLifecycle, "close while started", closed)) {
            return;
        }
        report_.check(kLifecycle, "close while started",
                      closed.value == 0 ? Verdict::kOk : Verdict::kWarn,
                      closed.value == 0 ? std::string() : "expected 0, got " + resultText(closed));

        r = openNode();
        if (!answered(kLifecycle, "reopen after close while started", r)) {
            return;
        }
        if (r.value < 0) {
            report_.check(
                kLifecycle, "reopen after close while started", Verdict::kFail,
                "expected a descriptor, got " + resultText(r) +
                    (r.error == EBUSY ? ": the closed descriptor still holds the node" : ""));
            report_.check(kLifecycle, "second session works", Verdict::kSkip, "no descriptor");
            return;
        }
        fd_ = r.passed_fd;
        report_.check(kLifecycle, "reopen after close while started", Verdict::kOk);
        secondSession();
    }

    void secondSession() {
        const char* name = "second session works";
        CallResult r = request(AOV_IOC_START, startRecord());
        if (!answered(kLifecycle, name, r)) {
            return;
        }
        if (r.value < 0) {
            report_.check(kLifecycle, name, Verdict::kFail,
                          "expected START to succeed, got " + resultText(r) +
                              (r.error == EBUSY ? ": the driver kept the first session after its "
                                                  "descriptor closed"
                                                : ""));
            return;
        }
        const Wait w = waitReadable(kLifecycle, name, options_.event_timeout_ms);
        if (w == Wait::kStopped) {
            return;
        }
        std::string problem;
        bool skipped = false;
        if (w == Wait::kQuiet) {
            skipped = true;
        } else {
            r = dequeue(false);
            if (!answered(kLifecycle, name, r)) {
                return;
            }
            if (r.value < 0) {
                problem = "expected an event, got " + resultText(r);
            }
        }
        r = request(AOV_IOC_STOP, nullptr);
        if (!answered(kLifecycle, name, r)) {
            return;
        }
        if (problem.empty() && r.value < 0) {
            problem = "expected STOP to succeed, got " + resultText(r);
        }
        if (!problem.empty()) {
            report_.check(kLifecycle, name, Verdict::kFail, problem);
        } else if (skipped) {
            report_.check(kLifecycle, name, Verdict::kSkip, noEventWhy());
        } else {
            report_.check(kLifecycle, name, Verdict::kOk);
        }
    }

    const Options& options_;
    Report& report_;
    GuardedCaller guard_;
    Arena arena_;
    int fd_ = -1;
    int last_error_ = 0;  // of the last request expected to succeed that failed
    bool stopped_ = false;
    std::string stop_reason_;
};

}  // namespace

bool isCategory(const std::string& name) {
    for (const char* category : {kOpen, kRequests, kDequeue, kReadiness, kLifecycle}) {
        if (name == category) {
            return true;
        }
    }
    return false;
}

int runChecks(const Options& options, std::FILE* out) {
    Report report(out, options.tap ? Report::Format::kTap : Report::Format::kPlain, options.verbose,
                  options.only);
    Checker checker(options, report);
    return checker.run();
}

}  // namespace aovcompliance
