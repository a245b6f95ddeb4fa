#include "ReplayNode.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>

#include "aovsession/RequestCodec.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using aovrec::Record;
using aovrec::RecordType;

// How long a request waits for a dequeue that the recording has before it:
// the monitor's thread takes the event once the descriptor turns readable.
constexpr std::chrono::seconds kDequeueWait{2};
// An event that follows a START is not made ready sooner after it than in the
// recording, up to this long: the library allocates its event buffer in the
// background after a START, and a recorded session gave it that time.
constexpr std::chrono::milliseconds kStartHoldLimit{200};

uint32_t wordAt(const uint8_t* bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes + offset, sizeof(v));
    return v;
}

std::string describeRecord(const Record& r) {
    switch (r.type) {
        case RecordType::kOpen:
            return "open " + r.path;
        case RecordType::kClose:
            return "close";
        case RecordType::kIoctl:
            if ((r.arg_flags & aovrec::kArgUnreadable) != 0) {
                return aovrec::describeRequest(r.request, nullptr, 0) +
                       " (record unreadable when sent)";
            }
            return aovrec::describeRequest(
                r.request, (r.arg_flags & aovrec::kArgNull) ? nullptr : r.sent, r.sent_len);
        default:
            return aovrec::recordTypeName(r.type);
    }
}

int answerOf(const aovrec::CallInfo& call) {
    if (call.result >= 0) {
        return call.result;
    }
    return call.err > 0 ? -call.err : -EIO;
}

timespec toTimespec(std::chrono::steady_clock::time_point at) {
    const auto ns = std::max<int64_t>(
        1, std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count());
    return timespec{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

class FileFactory {
  public:
    explicit FileFactory(std::string path) : path_(std::move(path)) {}
    std::unique_ptr<aovrec::ByteSource> operator()(std::string* why) const {
        auto file = std::make_unique<aovrec::FileSource>();
        if (!file->open(path_, why)) {
            return nullptr;
        }
        return file;
    }

  private:
    std::string path_;
};

}  // namespace

std::shared_ptr<ReplayNode> ReplayNode::loadFile(const std::string& path, double speed,
                                                 std::string* problem) {
    std::shared_ptr<ReplayNode> node = load(FileFactory(path), speed, problem);
    if (!node) {
        *problem = path + ": " + *problem;
    }
    return node;
}

void ReplayNode::markProbes(aovrec::ByteSource& source) {
    aovrec::SessionReader reader(source);
    if (!reader.start()) {
        return;  // the check that follows reports it
    }
    // A descriptor opened and closed without a request is a probe (aov-sim
    // --node checks the node this way) once another open follows it.
    std::map<int32_t, uint64_t> openedAt;
    std::set<int32_t> requested;
    std::vector<uint64_t> probes;
    Record record;
    while (reader.next(&record) == aovrec::SessionReader::Next::kRecord) {
        if (skippedLocked(record)) {
            continue;
        }
        if (record.type == RecordType::kOpen && record.call.result >= 0) {
            probe_records_.insert(probes.begin(), probes.end());
            probes.clear();
            openedAt[record.call.result] = record.index;
            requested.erase(record.call.result);
        } else if (record.type == RecordType::kClose) {
            const auto it = openedAt.find(record.call.fd);
            if (it != openedAt.end()) {
                if (requested.count(record.call.fd) == 0) {
                    probes.push_back(it->second);
                    probes.push_back(record.index);
                }
                openedAt.erase(it);
            }
        } else if (record.type == RecordType::kIoctl) {
            requested.insert(record.call.fd);
        }
    }
    skipped_fds_.clear();
}

std::shared_ptr<ReplayNode> ReplayNode::load(SourceFactory factory, double speed,
                                             std::string* problem) {
    std::shared_ptr<ReplayNode> node(new ReplayNode(speed));
    // Nobody else sees the node yet; the lock is for the analysis.
    aov::MutexLock guard(node->mutex_);
    // Probes first, so that every pass after this one passes over them.
    std::unique_ptr<aovrec::ByteSource> source = factory(problem);
    if (!source) {
        return nullptr;
    }
    node->markProbes(*source);
    // First pass: the whole file must read, and hold requests.
    source = factory(problem);
    if (!source) {
        return nullptr;
    }
    aovrec::SessionReader check(*source);
    if (!check.start()) {
        *problem = check.error();
        return nullptr;
    }
    Record record;
    aovrec::SessionReader::Next next;
    bool opened = false;
    uint64_t opened_ns = 0;
    uint64_t delivered_ns = 0;
    while ((next = check.next(&record)) == aovrec::SessionReader::Next::kRecord) {
        if (node->skippedLocked(record)) {
            continue;
        }
        if (record.type == RecordType::kOpen && record.call.result >= 0) {
            if (!opened) {
                opened_ns = record.call.begin_ns;
            }
            opened = true;
        } else if (record.type == RecordType::kIoctl) {
            ++node->total_requests_;
            if (record.request == AOV_IOC_DEQUEUE_EVENT) {
                ++node->total_events_;
                node->last_event_ns_ = record.call.begin_ns;
                if (record.call.result >= 0) {
                    ++node->plan_.events;
                    delivered_ns = record.call.begin_ns;
                }
            }
        }
    }
    node->plan_.span_s =
        delivered_ns > opened_ns ? static_cast<double>(delivered_ns - opened_ns) / 1e9 : 0;
    if (next == aovrec::SessionReader::Next::kCut) {
        *problem = "the recording is cut off (" + check.error() + ")";
        return nullptr;
    }
    if (next == aovrec::SessionReader::Next::kBad) {
        *problem = check.error();
        return nullptr;
    }
    if (!opened) {
        *problem = "the recording holds no successful open of the node";
        return nullptr;
    }
    node->skipped_fds_.clear();
    // Second pass: the replay itself, as a stream.
    node->source_ = factory(problem);
    if (!node->source_) {
        return nullptr;
    }
    node->reader_ = std::make_unique<aovrec::SessionReader>(*node->source_);
    if (!node->reader_->start()) {
        *problem = node->reader_->error();
        return nullptr;
    }
    node->header_ = node->reader_->header();
    node->factory_ = std::move(factory);
    node->advanceLocked();
    return node;
}

ReplayNode::~ReplayNode() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void ReplayNode::setDivergenceHandler(std::function<void(const ReplayDivergence&)> handler) {
    aov::MutexLock guard(mutex_);
    on_divergence_ = std::move(handler);
}

bool ReplayNode::diverged(ReplayDivergence* out) const {
    aov::MutexLock guard(mutex_);
    if (diverged_ && out != nullptr) {
        *out = divergence_;
    }
    return diverged_;
}

void ReplayNode::advanceLocked() {
    has_current_ = false;
    for (;;) {
        const aovrec::SessionReader::Next next = reader_->next(&current_);
        if (next == aovrec::SessionReader::Next::kRecord) {
            if (skippedLocked(current_)) {
                continue;
            }
            has_current_ = true;
            break;
        }
        if (next != aovrec::SessionReader::Next::kEnd) {
            read_problem_ = reader_->error();
        }
        break;
    }
    armLocked();
    advanced_.notify_all();
}

bool ReplayNode::skippedLocked(const Record& r) {
    if (probe_records_.count(r.index) != 0) {
        return true;
    }
    switch (r.type) {
        case RecordType::kOpen:
            // A driver's node is opened, never created: an open that creates
            // the path is the desk making a mount point (aov-sim --kernel
            // fuse binds its node over it), not the library; its descriptor's
            // calls are skipped with it.
            if ((r.open_flags & O_CREAT) != 0) {
                if (r.call.result >= 0) {
                    skipped_fds_.push_back(r.call.result);
                }
                return true;
            }
            return false;
        case RecordType::kClose:
        case RecordType::kIoctl: {
            const auto it = std::find(skipped_fds_.begin(), skipped_fds_.end(), r.call.fd);
            if (it == skipped_fds_.end()) {
                return false;
            }
            if (r.type == RecordType::kClose) {
                skipped_fds_.erase(it);
            }
            return true;
        }
        default:
            return true;  // readiness calls: the monitor makes its own
    }
}

void ReplayNode::armLocked() {
    if (fd_ < 0) {
        return;
    }
    if (has_current_ && current_.type == RecordType::kIoctl &&
        current_.request == AOV_IOC_DEQUEUE_EVENT) {
        const uint64_t at_ns = current_.call.begin_ns;
        Clock::time_point at = Clock::now();
        if (speed_ > 0 && at_ns > origin_ns_) {
            at = std::max(
                at, replay_origin_ + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double, std::nano>(
                                             static_cast<double>(at_ns - origin_ns_) / speed_)));
        }
        if (after_start_) {
            const auto gap = std::chrono::nanoseconds(
                at_ns > start_answered_ns_ ? at_ns - start_answered_ns_ : 0);
            at = std::max(at, start_answered_at_ + std::min<Clock::duration>(gap, kStartHoldLimit));
        }
        ready_at_ = at;
        // A timer that has expired stays readable until it is read: events
        // that are due one after another cost no call.
        const Clock::time_point now = Clock::now();
        if (timer_set_ && timer_at_ <= now && at <= now) {
            return;
        }
        itimerspec when{};
        when.it_value = toTimespec(at);
        ::timerfd_settime(fd_, TFD_TIMER_ABSTIME, &when, nullptr);
        timer_set_ = true;
        timer_at_ = at;
        return;
    }
    if (timer_set_) {
        uint64_t ticks;
        while (::read(fd_, &ticks, sizeof(ticks)) > 0) {
        }
        itimerspec off{};
        ::timerfd_settime(fd_, 0, &off, nullptr);
        timer_set_ = false;
    }
}

int ReplayNode::open(int flags) {
    aov::MutexLock lock(mutex_);
    if (diverged_) {
        return -EPROTO;
    }
    ++requests_;
    if (!has_current_ || current_.type != RecordType::kOpen ||
        (static_cast<int>(current_.open_flags) & O_ACCMODE) != (flags & O_ACCMODE)) {
        char text[64];
        std::snprintf(text, sizeof(text), "open (flags 0x%x)", static_cast<unsigned>(flags));
        const std::function<void()> report = divergeLocked(text);
        lock.unlock();
        return reportDivergence(report);
    }
    int result = answerOf(current_.call);
    if (result >= 0) {
        if (fd_ >= 0) {
            result = -EBUSY;  // the replay keeps one descriptor of the node
        } else {
            fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
            result = fd_ >= 0 ? fd_ : -errno;
            origin_ns_ = current_.call.begin_ns;
            replay_origin_ = Clock::now();
        }
    }
    advanceLocked();
    return result;
}

int ReplayNode::close(int fd) {
    aov::MutexLock guard(mutex_);
    if (fd < 0 || fd != fd_) {
        return -EBADF;
    }
    ::close(fd_);
    fd_ = -1;
    timer_set_ = false;
    // The close comes as the process exits; it is answered, not checked.
    if (!diverged_ && has_current_ && current_.type == RecordType::kClose) {
        const int result = answerOf(current_.call);
        advanceLocked();
        return result;
    }
    return 0;
}

bool ReplayNode::matchesLocked(unsigned int request, const void* arg) const {
    if (!has_current_ || current_.type != RecordType::kIoctl || current_.request != request) {
        return false;
    }
    const bool recorded_null = (current_.arg_flags & aovrec::kArgNull) != 0;
    if (recorded_null != (arg == nullptr)) {
        return false;
    }
    if (arg == nullptr || (current_.arg_flags & aovrec::kArgUnreadable) != 0) {
        return true;
    }
    const size_t size = aovrec::requestRecordBytes(request);
    if (current_.sent_len != size) {
        return false;
    }
    return aovrec::sameRequestBytes(request, static_cast<const uint8_t*>(arg), current_.sent, size);
}

int ReplayNode::ioctl(int fd, unsigned int request, void* arg) {
    const Clock::time_point began = Clock::now();
    aov::MutexLock lock(mutex_);
    if (diverged_) {
        return -EPROTO;
    }
    if (fd < 0 || fd != fd_) {
        return -EBADF;
    }
    ++requests_;
    for (;;) {
        if (matchesLocked(request, arg)) {
            return answerLocked(request, arg, began);
        }
        // Another thread's request can come before a dequeue that the
        // recording has first; the monitor takes the event once the
        // descriptor turns readable.
        if (request != AOV_IOC_DEQUEUE_EVENT && has_current_ &&
            current_.type == RecordType::kIoctl && current_.request == AOV_IOC_DEQUEUE_EVENT) {
            const uint64_t index = current_.index;
            const Clock::time_point deadline = std::max(ready_at_, Clock::now()) + kDequeueWait;
            bool moved = movedPastLocked(index);
            while (!moved) {
                const bool notified = lock.waitUntil(advanced_, deadline);
                moved = movedPastLocked(index);
                if (!notified) {
                    break;
                }
            }
            if (moved) {
                if (diverged_) {
                    return -EPROTO;
                }
                continue;
            }
        }
        const std::function<void()> report = divergeLocked(
            aovrec::describeRequest(request, static_cast<const uint8_t*>(arg),
                                    arg != nullptr ? aovrec::requestRecordBytes(request) : 0));
        lock.unlock();
        return reportDivergence(report);
    }
}

int ReplayNode::answerLocked(unsigned int request, void* arg, Clock::time_point began) {
    const Record& r = current_;
    const int result = answerOf(r.call);
    ++stats_.requests;
    if (result < 0) {
        ++stats_.failed_requests;
    }
    if (request == AOV_IOC_START && result >= 0) {
        started_ = true;
        after_start_ = true;
        start_answered_ns_ = r.call.end_ns;
        start_answered_at_ = Clock::now();
    } else if (request == AOV_IOC_STOP) {
        started_ = false;
    } else if (request == AOV_IOC_DEQUEUE_EVENT) {
        if (events_++ == 0) {
            first_event_at_ = began;
        }
        after_start_ = false;
        if (result >= 0 && arg != nullptr && r.back_len >= sizeof(aov_event_query)) {
            auto* query = static_cast<aov_event_query*>(arg);
            // The words as the driver wrote them; the addresses stay the caller's.
            void* addresses[AOV_SECTION_COUNT];
            for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
                addresses[s] = aov_query_area(query, s);
            }
            std::memcpy(query, r.back, sizeof(aov_event_query));
            for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
                aov_query_set_area(query, s, addresses[s]);
            }
            last_area_count_ = 0;
            for (uint8_t i = 0; i < r.area_count; ++i) {
                const aovrec::AreaView& area = r.areas[i];
                const aov_section_desc& section = aov_event_sections[area.section - 1];
                const uint32_t length = std::min(area.length, section.data_size);
                void* to = addresses[area.section - 1];
                if (to == nullptr) {
                    continue;
                }
                std::memcpy(to, area.data, length);
                last_areas_[last_area_count_++] = Area{area.section, length};
            }
            ++stats_.dequeued;
            last_.sequence = wordAt(r.back, 0);
            last_.produced_at = ready_at_;
            last_.scripted = -1;
            last_.dequeue_began = began;
            last_.dequeue_ended = Clock::now();
        }
    }
    advanceLocked();
    return result;
}

bool ReplayNode::movedPastLocked(uint64_t index) const {
    return diverged_ || !has_current_ || current_.index != index;
}

std::function<void()> ReplayNode::divergeLocked(const std::string& library) {
    diverged_ = true;
    divergence_.request = requests_;
    divergence_.record = has_current_ ? current_.index : reader_->records();
    divergence_.library = library;
    divergence_.recorded = has_current_ ? describeRecord(current_)
                           : read_problem_.empty()
                               ? "(no more requests)"
                               : "(the recording could not be read: " + read_problem_ + ")";
    if (fd_ >= 0) {
        has_current_ = false;
        armLocked();  // never readable again
    }
    advanced_.notify_all();
    if (!on_divergence_) {
        return {};
    }
    return [handler = on_divergence_, copy = divergence_] { handler(copy); };
}

int ReplayNode::reportDivergence(const std::function<void()>& report) {
    if (report) {
        report();
    }
    return -EPROTO;
}

bool ReplayNode::finish() {
    aov::MutexLock lock(mutex_);
    if (diverged_) {
        return false;
    }
    if (has_current_ && current_.type != RecordType::kClose) {
        ++requests_;
        const std::function<void()> report = divergeLocked("(no more requests)");
        lock.unlock();
        reportDivergence(report);
        return false;
    }
    return true;
}

ReplayProgress ReplayNode::progress() const {
    aov::MutexLock guard(mutex_);
    ReplayProgress p;
    p.events = events_;
    p.total = total_events_;
    const Clock::time_point now = Clock::now();
    if (events_ >= total_events_ || fd_ < 0) {
        return p;
    }
    if (speed_ > 0) {
        const double end_s = static_cast<double>(last_event_ns_ - origin_ns_) / 1e9 / speed_;
        const double elapsed = std::chrono::duration<double>(now - replay_origin_).count();
        p.seconds_left = std::max(0.0, end_s - elapsed);
    } else if (events_ > 0) {
        const double elapsed = std::chrono::duration<double>(now - first_event_at_).count();
        p.seconds_left =
            elapsed / static_cast<double>(events_) * static_cast<double>(total_events_ - events_);
    }
    return p;
}

aovsim::DriverStatus ReplayNode::status() const {
    aov::MutexLock guard(mutex_);
    aovsim::DriverStatus status;
    status.started = started_;
    status.stats = stats_;
    status.last = last_;
    return status;
}

std::string ReplayNode::lastAreaDigests(const uint8_t* event) const {
    aov::MutexLock guard(mutex_);
    if (last_area_count_ == 0) {
        return "no areas";
    }
    std::string out;
    char text[64];
    for (uint8_t i = 0; i < last_area_count_; ++i) {
        const Area& a = last_areas_[i];
        std::snprintf(
            text, sizeof(text), "%ss%u %u %016" PRIx64, i > 0 ? ", " : "", a.section, a.length,
            aovrec::digest(event + aov_event_sections[a.section - 1].data_offset, a.length));
        out += text;
    }
    return out;
}

std::string ReplayNode::describe() const {
    std::string speed = "max";
    if (speed_ > 0) {
        char text[32];
        std::snprintf(text, sizeof(text), "%g", speed_);
        speed = text;
    }
    const auto counted = [](uint64_t n, const char* one, const char* many) {
        return std::to_string(n) + " " + (n == 1 ? one : many);
    };
    return counted(total_requests_, "request", "requests") + ", " +
           counted(total_events_, "event", "events") + ", content " +
           aovrec::contentModeName(header_.content) + ", speed " + speed;
}

namespace {
std::atomic<bool> g_progress_shown{false};
}  // namespace

ReplayProgressLine::ReplayProgressLine(const ReplayNode& node, FILE* out) : node_(node), out_(out) {
    g_progress_shown = true;
    thread_ = std::thread(&ReplayProgressLine::run, this);
}

ReplayProgressLine::~ReplayProgressLine() {
    {
        aov::MutexLock guard(mutex_);
        stop_ = true;
    }
    stop_cv_.notify_all();
    thread_.join();
    g_progress_shown = false;
    std::fputs("\r\033[K", out_);
    std::fflush(out_);
}

const char* ReplayProgressLine::clearsProgress() {
    return g_progress_shown ? "\r\033[K" : "";
}

void ReplayProgressLine::run() {
    // Shown at once (the total is known from the start), then every quarter second.
    aov::MutexLock lock(mutex_);
    do {
        const ReplayProgress p = node_.progress();
        std::fprintf(out_, "\r\033[Kreplay: %llu of %llu events, %.1f s left",
                     static_cast<unsigned long long>(p.events),
                     static_cast<unsigned long long>(p.total), p.seconds_left);
        std::fflush(out_);
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
        while (!stop_ && lock.waitUntil(stop_cv_, next)) {
        }
    } while (!stop_);
}

bool ReplayProbe::read(aovsim::DriverStatus* status) {
    *status = node_.status();
    return true;
}

const char* ReplayProbe::missingFigures() const {
    return "events produced, overwritten, lost or discarded by the driver are not in a recording";
}

}  // namespace aovsimtool
