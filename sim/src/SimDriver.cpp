#include "aovsim/SimDriver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "aovsim/EventContent.h"
#include "kelo_aov.h"

namespace aovsim {

namespace {

constexpr TraceSource kKern = TraceSource::kKernel;
constexpr int32_t kMinFrameRate = 1;
constexpr int32_t kMaxFrameRate = 30;
constexpr size_t kMaxRecordSize = SimDriver::kMaxRecordSize;

static_assert(_IOC_SIZE(AOV_IOC_START) <= kMaxRecordSize, "record buffer");
static_assert(_IOC_SIZE(AOV_IOC_SENSOR_ON) <= kMaxRecordSize, "record buffer");
static_assert(_IOC_SIZE(AOV_IOC_DEQUEUE_EVENT) <= kMaxRecordSize, "record buffer");

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "aov driver: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

const char* directionOf(unsigned int request) {
    switch (_IOC_DIR(request)) {
        case _IOC_WRITE:
            return "W";
        case _IOC_READ:
            return "R";
        case _IOC_READ | _IOC_WRITE:
            return "RW";
        default:
            return "-";
    }
}

std::string headerOf(const char* name, unsigned int request) {
    return format("%s (0x%08x, %s, %u bytes)", name, request, directionOf(request),
                  _IOC_SIZE(request));
}

// Where the dequeue record holds info word `word` of `section`.
uint32_t& infoWordOf(aov_event_query& query, const aov_section_desc& section, uint32_t word) {
    return *reinterpret_cast<uint32_t*>(reinterpret_cast<uint8_t*>(&query) +
                                        section.query_info_offset + word * sizeof(uint32_t));
}

// How many bytes of an area of `size` the content writes.
size_t writtenLength(const AreaContent& content, uint32_t size) {
    if (content.bytes.empty()) {
        return 0;
    }
    return content.repeat ? size : std::min<size_t>(content.bytes.size(), size);
}

// Fills the record and the data areas behind it from a scripted event; 0, or
// the 1-based section whose area could not be written.
int writeScripted(aov_event_query& query, const ScriptedEvent& event, UserMemory& user) {
    std::memcpy(query.header, event.header.data(), sizeof(query.header));
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        for (uint32_t w = 0; w < section.info_words; ++w) {
            infoWordOf(query, section, w) = event.info[s][w];
        }
        const AreaContent& content = event.areas[s];
        const size_t length = writtenLength(content, section.data_size);
        if (length > 0 && user.write(aov_query_area(&query, s), length, [&](uint8_t* bytes) {
                writeArea(content, bytes, static_cast<uint32_t>(length));
            }) != 0) {
            return s + 1;
        }
    }
    return 0;
}

// Fills the record's padding (the bytes between a section's info words and its
// area address) as a kernel record on the stack that was never cleared would
// leave it.
void leakPadding(aov_event_query& query) {
    auto* bytes = reinterpret_cast<uint8_t*>(&query);
    for (const aov_section_desc& section : aov_event_sections) {
        const size_t from = section.query_info_offset + section.info_words * sizeof(uint32_t);
        for (size_t i = from; i < section.query_addr_offset; ++i) {
            bytes[i] = static_cast<uint8_t>(0xC0 + i % 16);
        }
    }
}

}  // namespace

SimDriver::SimDriver(std::string path, const DriverConfig& params, const FaultConfig& faults,
                     std::shared_ptr<Trace> trace)
    : path_(std::move(path)),
      params_(params),
      faults_(faults),
      trace_(std::move(trace)),
      timer_([this] { produceEvent(); }) {}

SimDriver::~SimDriver() {
    {
        aov::MutexLock control(control_mutex_);
        timer_.stop();
    }
    if (event_fd_ >= 0) {
        ::close(event_fd_);
    }
}

const char* SimDriver::requestName(unsigned int request) {
    return aov_ioc_name(request);
}

int SimDriver::fail(int result, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string what = vformat(fmt, args);
    va_end(args);
    {
        aov::MutexLock guard(mutex_);
        ++stats_.failed_requests;
    }
    trace_->refusal(kKern, "%s -> %d", what.c_str(), result);
    return result;
}

int SimDriver::open(int flags) {
    aov::MutexLock control(control_mutex_);
    const char* access = (flags & O_ACCMODE) == O_RDWR     ? "O_RDWR"
                         : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY"
                                                           : "O_RDONLY";
    if (faults_.open_node) {
        trace_->recordf(kKern, "open %s (%s) -> %d (injected failure)", path_.c_str(), access,
                        -ENODEV);
        return -ENODEV;
    }
    if (has(bugs_, DriverBug::kRefuseRdwr) && (flags & O_ACCMODE) != O_RDONLY) {
        trace_->refusal(kKern, "open %s (%s): only read access allowed (driver bug) -> %d",
                        path_.c_str(), access, -EACCES);
        return -EACCES;
    }
    aov::MutexLock guard(mutex_);
    if (event_fd_ >= 0 || held_after_close_) {
        trace_->refusal(kKern, "open %s (%s): the node is exclusive and already open%s -> %d",
                        path_.c_str(), access,
                        event_fd_ >= 0 ? "" : " (held since a close while started: driver bug)",
                        -EBUSY);
        return -EBUSY;
    }
    stopped_since_open_ = false;
    event_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event_fd_ < 0) {
        const int error = -errno;
        trace_->recordf(kKern, "open %s (%s) -> %d", path_.c_str(), access, error);
        return error;
    }
    trace_->recordf(kKern, "open %s (%s) -> fd %d", path_.c_str(), access, event_fd_);
    return event_fd_;
}

int SimDriver::close(int fd) {
    const int flushed = flush(fd);
    const int released = release(fd);
    return flushed != 0 ? flushed : released;
}

int SimDriver::flush(int fd) {
    aov::MutexLock guard(mutex_);
    if (has(bugs_, DriverBug::kFlushBusy) && started_ && fd == event_fd_) {
        ++stats_.failed_requests;
        trace_->refusal(kKern, "flush fd %d: a session is running (driver bug) -> %d", fd, -EBUSY);
        return -EBUSY;
    }
    return 0;
}

int SimDriver::release(int fd) {
    aov::MutexLock control(control_mutex_);
    bool wasStarted = false;
    {
        aov::MutexLock guard(mutex_);
        if (fd < 0 || fd != event_fd_) {
            trace_->refusal(kKern, "close fd %d: not a descriptor of %s -> %d", fd, path_.c_str(),
                            -EBADF);
            return -EBADF;
        }
        wasStarted = started_;
    }
    // Releasing the node ends a session that is still running.
    if (has(bugs_, DriverBug::kKeepSessionOnClose)) {
        trace_->recordf(kKern, "release: the session is left running (driver bug)");
    } else {
        stop(false);
    }
    aov::MutexLock guard(mutex_);
    if (wasStarted && has(bugs_, DriverBug::kBusyAfterStartedClose)) {
        // The early return of a release that finds a session running skips
        // dropping the node's open count.
        held_after_close_ = true;
        trace_->recordf(kKern, "release: the node stays held (driver bug)");
    }
    ::close(event_fd_);
    event_fd_ = -1;
    trace_->recordf(kKern, "close fd %d -> 0", fd);
    return 0;
}

int SimDriver::ioctl(int fd, unsigned int request, void* arg) {
    // Copy the argument in, as many bytes as the code says.
    const size_t size = _IOC_SIZE(request);
    alignas(8) uint8_t record[kMaxRecordSize] = {};
    if (size > 0 && arg != nullptr && size <= kMaxRecordSize) {
        std::memcpy(record, arg, size);
    }
    LocalMemory local;
    const int result = serve(fd, request, size > 0 && arg == nullptr ? nullptr : record, local);
    // Copy the result out for requests that return data.
    if (result >= 0 && (_IOC_DIR(request) & _IOC_READ) != 0) {
        std::memcpy(arg, record, size);
    }
    return result;
}

unsigned int SimDriver::servedAs(unsigned int request) const {
    if (requestName(request) != nullptr || !has(bugs_, DriverBug::kAcceptWrongSize) ||
        _IOC_TYPE(request) != 'H') {
        return request;
    }
    static const unsigned int kKnown[] = {
        AOV_IOC_START, AOV_IOC_SENSOR_ON,  AOV_IOC_SENSOR_OFF, AOV_IOC_DEQUEUE_EVENT,
        AOV_IOC_STOP,  AOV_IOC_ULPOSC3_ON, AOV_IOC_ULPOSC3_OFF};
    for (unsigned int known : kKnown) {
        if (_IOC_NR(known) == _IOC_NR(request)) {
            return known;
        }
    }
    return request;
}

int SimDriver::serve(int fd, unsigned int request, uint8_t* record, UserMemory& user) {
    {
        aov::MutexLock guard(mutex_);
        ++stats_.requests;
        if (fd < 0 || fd != event_fd_) {
            ++stats_.failed_requests;
            trace_->refusal(kKern, "ioctl 0x%08x on fd %d: not a descriptor of %s -> %d", request,
                            fd, path_.c_str(), -EBADF);
            return -EBADF;
        }
    }
    request = servedAs(request);
    const char* name = requestName(request);
    if (has(bugs_, DriverBug::kMissingUlposc3) &&
        (request == AOV_IOC_ULPOSC3_ON || request == AOV_IOC_ULPOSC3_OFF)) {
        name = nullptr;  // a driver built before the ULPOSC3 requests existed
    }
    if (name == nullptr && has(bugs_, DriverBug::kAcceptUnknownCode)) {
        trace_->recordf(kKern, "ioctl 0x%08x: unknown request -> 0 (driver bug)", request);
        return 0;
    }
    if (name == nullptr) {
        return fail(has(bugs_, DriverBug::kWrongErrno) ? -EINVAL : -ENOTTY,
                    "ioctl 0x%08x (type 0x%02x, nr %u, %s, %u bytes): unknown request", request,
                    _IOC_TYPE(request), _IOC_NR(request), directionOf(request), _IOC_SIZE(request));
    }
    if (record == nullptr && has(bugs_, DriverBug::kAcceptNullSensorList) &&
        (request == AOV_IOC_SENSOR_ON || request == AOV_IOC_SENSOR_OFF)) {
        trace_->recordf(kKern, "%s: null list taken for no sensors -> 0 (driver bug)",
                        headerOf(name, request).c_str());
        return has(bugs_, DriverBug::kPositiveSuccess) ? 1 : 0;
    }
    if (record == nullptr) {
        return fail(-EFAULT, "%s: null argument", headerOf(name, request).c_str());
    }
    int result = 0;
    switch (request) {
        case AOV_IOC_START: {
            aov::MutexLock control(control_mutex_);
            result = start(record);
            break;
        }
        case AOV_IOC_STOP: {
            aov::MutexLock control(control_mutex_);
            result = stop(true);
            break;
        }
        case AOV_IOC_DEQUEUE_EVENT:
            result = dequeue(record, user);
            break;
        case AOV_IOC_SENSOR_ON:
        case AOV_IOC_SENSOR_OFF:
            result = sensorList(request, record);
            break;
        case AOV_IOC_ULPOSC3_ON:
        case AOV_IOC_ULPOSC3_OFF: {
            aov::MutexLock guard(mutex_);
            ulposc3_on_ = request == AOV_IOC_ULPOSC3_ON;
            trace_->recordf(kKern, "%s -> 0", headerOf(name, request).c_str());
            break;
        }
    }
    if (result == 0 && has(bugs_, DriverBug::kPositiveSuccess)) {
        result = 1;
    }
    return result;
}

void SimDriver::setReadyListener(std::function<void()> listener) {
    aov::MutexLock guard(mutex_);
    ready_listener_ = std::move(listener);
}

int SimDriver::start(const uint8_t* record) {
    aov_start_params params;
    aov_start_decode(record, &params);
    Session session;
    session.sensor_id = params.sensor_id;
    session.scenario = params.scenario;
    session.frame_rate = params.frame_rate;
    session.aov_mode = params.aov_mode;
    std::memcpy(session.frame_info, params.frame_info, sizeof(session.frame_info));
    const std::string decoded = format(
        "%s sensor_id=%d scenario=%d orientation=%d face=%d mode_head=[%u, %u, %u, %u] "
        "frame_info=[%u, %u, %u, %u] frame_rate=%d frame_info_sel=%d aov_mode=%d sensor_idx=%d",
        headerOf("START", AOV_IOC_START).c_str(), params.sensor_id, params.scenario,
        params.orientation, params.face, params.mode_head[0], params.mode_head[1],
        params.mode_head[2], params.mode_head[3], params.frame_info[0], params.frame_info[1],
        params.frame_info[2], params.frame_info[3], params.frame_rate, params.frame_info_sel,
        params.aov_mode, params.sensor_idx);

    {
        aov::MutexLock guard(mutex_);
        if (started_) {
            ++stats_.failed_requests;
            trace_->refusal(kKern, "%s: a session is already running -> %d", decoded.c_str(),
                            -EBUSY);
            return -EBUSY;
        }
    }
    if (faults_.start_error != 0) {
        aov::MutexLock guard(mutex_);
        ++stats_.failed_requests;
        trace_->recordf(kKern, "%s -> %d (injected failure)", decoded.c_str(), faults_.start_error);
        return faults_.start_error;
    }
    if (has(bugs_, DriverBug::kRefuseFullContent) && session.aov_mode == AOV_MODE_FULL_CONTENT) {
        return fail(-EINVAL, "%s: aov_mode %d unknown (driver bug)", decoded.c_str(),
                    session.aov_mode);
    }
    bool stoppedBefore = false;
    {
        aov::MutexLock guard(mutex_);
        stoppedBefore = stopped_since_open_;
    }
    if (has(bugs_, DriverBug::kStartOncePerOpen) && stoppedBefore) {
        return fail(-EINVAL, "%s: the session's state was freed at STOP (driver bug)",
                    decoded.c_str());
    }
    if (session.frame_rate < kMinFrameRate || session.frame_rate > kMaxFrameRate) {
        return fail(-EINVAL, "%s: frame rate outside %d..%d", decoded.c_str(), kMinFrameRate,
                    kMaxFrameRate);
    }
    {
        aov::MutexLock guard(mutex_);
        started_ = true;
        error_latched_ = false;
        session_ = session;
        sequence_ = 0;
        next_scripted_ = 0;
        pending_.clear();
        trace_->recordf(kKern, "%s -> 0", decoded.c_str());
    }
    bool timerRunning = false;
    {
        aov::MutexLock guard(mutex_);
        timerRunning = timer_after_stop_;
        timer_after_stop_ = false;
    }
    if (timerRunning) {
        timer_.stop();
    }
    if (params_.timer) {
        timer_.start(session.frame_rate);
    }
    return 0;
}

int SimDriver::stop(bool byRequest) {
    uint64_t discarded = 0;
    bool wasStarted = false;
    if (byRequest) {
        bool clockOn = false;
        {
            aov::MutexLock guard(mutex_);
            wasStarted = started_;
            clockOn = ulposc3_on_;
            stopped_since_open_ = true;
        }
        const std::string head = headerOf("STOP", AOV_IOC_STOP);
        if (!wasStarted && has(bugs_, DriverBug::kRefuseIdleStop)) {
            return fail(-EINVAL, "%s: no session (driver bug)", head.c_str());
        }
        if (wasStarted && !clockOn && has(bugs_, DriverBug::kStopNeedsUlposc3)) {
            return fail(-EIO, "%s: the sensor cannot be reached with ULPOSC3 off (driver bug)",
                        head.c_str());
        }
    }
    {
        aov::MutexLock guard(mutex_);
        wasStarted = started_;
        started_ = false;
        discarded = pending_.size();
        stats_.discarded_at_stop += discarded;
        pending_.clear();
        unsignalLocked();
        if (discarded > 0) {
            depthChangedLocked(discarded);
        }
    }
    const bool keepTimer = byRequest && has(bugs_, DriverBug::kEventsAfterStop) && wasStarted;
    if (keepTimer) {
        {
            aov::MutexLock guard(mutex_);
            timer_after_stop_ = true;
        }
        // The frame in flight at STOP is queued at once, then the timer's.
        queueEvent(true);
    } else {
        timer_.stop();
        aov::MutexLock guard(mutex_);
        timer_after_stop_ = false;
    }
    const std::string what = byRequest ? headerOf("STOP", AOV_IOC_STOP) : "release";
    if (wasStarted) {
        trace_->recordf(kKern, "%s -> 0 (session ended, %llu pending events discarded)",
                        what.c_str(), static_cast<unsigned long long>(discarded));
    } else if (byRequest) {
        trace_->recordf(kKern, "%s -> 0 (no session)", what.c_str());
    }
    return 0;
}

int SimDriver::sensorList(unsigned int request, const uint8_t* record) {
    aov_sensor_list list;
    std::memcpy(&list, record, sizeof(list));
    const char* name = requestName(request);
    uint32_t call;
    {
        aov::MutexLock guard(mutex_);
        call = ++sensor_list_calls_;
    }
    uint32_t count = list.count;
    if (has(bugs_, DriverBug::kLenientSensorCount)) {
        if (count == 0) {
            trace_->recordf(kKern, "%s count=0 -> 0 (nothing to do: driver bug)",
                            headerOf(name, request).c_str());
            return 0;
        }
        count = std::min<uint32_t>(count, AOV_MAX_SENSORS_PER_REQUEST);
    }
    // With kSensorCountOffByOne the bound check is `count >= max`.
    const int max =
        AOV_MAX_SENSORS_PER_REQUEST - (has(bugs_, DriverBug::kSensorCountOffByOne) ? 1 : 0);
    if (count < 1 || count > static_cast<uint32_t>(max)) {
        return fail(-EINVAL, "%s count=%u: count outside 1..%d", headerOf(name, request).c_str(),
                    list.count, max);
    }
    if (has(bugs_, DriverBug::kRefuseSensorIdZero)) {
        for (uint32_t i = 0; i < count; ++i) {
            if (list.sensor_ids[i] == 0) {
                return fail(-EINVAL, "%s: sensor id 0 taken for none (driver bug)",
                            headerOf(name, request).c_str());
            }
        }
    }
    std::string ids;
    for (uint32_t i = 0; i < count; ++i) {
        ids += format(i == 0 ? "%d" : ", %d", list.sensor_ids[i]);
    }
    const std::string decoded =
        format("%s count=%u ids=[%s]", headerOf(name, request).c_str(), count, ids.c_str());
    aov::MutexLock guard(mutex_);
    if (faults_.sensor_list_calls.count(call)) {
        ++stats_.failed_requests;
        trace_->recordf(kKern, "%s -> %d (injected failure of sensor-list request %u)",
                        decoded.c_str(), faults_.sensor_list_error, call);
        return faults_.sensor_list_error;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (request == AOV_IOC_SENSOR_ON) {
            sensors_on_.insert(list.sensor_ids[i]);
        } else {
            sensors_on_.erase(list.sensor_ids[i]);
        }
    }
    trace_->recordf(kKern, "%s -> 0", decoded.c_str());
    return 0;
}

int SimDriver::dequeue(uint8_t* record, UserMemory& user) {
    const auto began = std::chrono::steady_clock::now();
    aov_event_query query;
    std::memcpy(&query, record, sizeof(query));
    const std::string head = headerOf("DEQUEUE_EVENT", AOV_IOC_DEQUEUE_EVENT);

    aov::MutexLock guard(mutex_);
    const uint32_t call = ++dequeue_calls_;
    if (!started_) {
        ++stats_.failed_requests;
        trace_->refusal(kKern, "%s: no session started -> %d", head.c_str(), -EINVAL);
        return -EINVAL;
    }
    if (dequeue_stuck_) {
        ++stats_.failed_requests;
        trace_->refusal(kKern, "%s: busy since a failed copy (driver bug) -> %d", head.c_str(),
                        -EBUSY);
        return -EBUSY;
    }
    if (faults_.dequeue_calls.count(call)) {
        ++stats_.failed_requests;
        // The frame is gone, as when the driver fails to copy it out.
        if (!pending_.empty()) {
            const uint32_t lost = pending_.front().sequence;
            pending_.pop_front();
            ++stats_.lost_on_failure;
            depthChangedLocked(1);
            if (pending_.empty()) {
                unsignalLocked();
            }
            trace_->recordf(kKern, "%s -> %d (injected failure of dequeue %u, event %u lost)",
                            head.c_str(), faults_.dequeue_error, call, lost);
        } else {
            trace_->recordf(kKern, "%s -> %d (injected failure of dequeue %u)", head.c_str(),
                            faults_.dequeue_error, call);
        }
        return faults_.dequeue_error;
    }
    if (pending_.empty()) {
        ++stats_.failed_requests;
        trace_->recordf(kKern, "%s -> %d (no event pending)", head.c_str(), -EAGAIN);
        return -EAGAIN;
    }

    const Pending event = pending_.front();
    if (event.scripted >= 0) {
        return dequeueScripted(record, query, head, user, began);
    }
    const bool content = event.sequence % params_.content_every == 0;
    const bool full = content && session_.aov_mode == AOV_MODE_FULL_CONTENT;
    const int sections = full ? AOV_SECTION_COUNT : content ? AOV_BASIC_SECTION_COUNT : 0;
    if (full && has(bugs_, DriverBug::kBasicSectionsOnly)) {
        ++stats_.failed_requests;
        trace_->refusal(kKern, "%s: %d sections asked for, %d known (driver bug) -> %d",
                        head.c_str(), sections, AOV_BASIC_SECTION_COUNT, -EINVAL);
        return -EINVAL;
    }
    if (missingArea(query, (1u << sections) - 1u, head)) {
        return -EFAULT;
    }
    takeOldestLocked();

    const uint32_t seq = event.sequence;
    const auto rate = static_cast<uint32_t>(session_.frame_rate);
    query.header[0] = seq;
    query.header[1] = static_cast<uint32_t>(session_.sensor_id);
    query.header[2] = static_cast<uint32_t>(static_cast<uint64_t>(seq) * 1000u / rate);
    query.header[3] = static_cast<uint32_t>(session_.scenario);
    query.header[4] = static_cast<uint32_t>(stats_.overruns);
    query.header[5] = content ? 1u : 0u;
    // Each section written gets its content and, as its first info word, its size.
    for (int s = 0; s < sections; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        const auto number = static_cast<uint32_t>(s + 1);
        // With kOverrunArea, section 2's area gets 64 bytes more than it holds;
        // with kOverrunBuffer, section 10's, the last of the event buffer.
        const bool overrun = (s == 1 && has(bugs_, DriverBug::kOverrunArea)) ||
                             (s == AOV_SECTION_COUNT - 1 && has(bugs_, DriverBug::kOverrunBuffer));
        const uint32_t length = section.data_size + (overrun ? 64u : 0u);
        if (user.write(aov_query_area(&query, s), length, [&](uint8_t* bytes) {
                writeSectionContent(bytes, length, seq, number);
            }) != 0) {
            if (has(bugs_, DriverBug::kIgnoreAreaFault)) {
                continue;
            }
            return areaFault(s + 1, head, event);
        }
        infoWordOf(query, section, 0) = section.data_size;
    }
    if (content) {
        query.s4_info[1] = session_.frame_info[0];
        query.s4_info[2] = session_.frame_info[1];
        query.s4_info[3] = seq;
        query.s5_info[1] = session_.frame_info[2];
        query.s5_info[2] = session_.frame_info[3];
        query.s5_info[3] = seq;
    }
    if (full) {
        query.s6_info[1] = seq;
        query.s6_info[2] = static_cast<uint32_t>(session_.sensor_id);
        query.s6_info[3] = static_cast<uint32_t>(session_.scenario);
        query.s6_info[4] = rate;
    }
    if (has(bugs_, DriverBug::kLeakPadding)) {
        leakPadding(query);
    }
    std::memcpy(record, &query, sizeof(query));

    ++stats_.dequeued;
    last_.sequence = seq;
    last_.produced_at = event.produced_at;
    last_.scripted = -1;
    trace_->recordf(kKern, "%s -> 0 header=[%u, %u, %u, %u, %u, %u] sections written %d",
                    head.c_str(), query.header[0], query.header[1], query.header[2],
                    query.header[3], query.header[4], query.header[5], sections);
    last_.dequeue_began = began;
    last_.dequeue_ended = std::chrono::steady_clock::now();
    return 0;
}

void SimDriver::takeOldestLocked() {
    if (has(bugs_, DriverBug::kDequeueKeepsEvent)) {
        // The event is copied out but stays queued (driver bug).
        return;
    }
    pending_.pop_front();
    if (pending_.empty() && !has(bugs_, DriverBug::kReadableAfterDrain)) {
        unsignalLocked();
    }
    depthChangedLocked(0);
}

bool SimDriver::missingArea(aov_event_query& query, unsigned sections, const std::string& head) {
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        if ((sections & (1u << s)) != 0 && aov_query_area(&query, s) == nullptr) {
            ++stats_.failed_requests;
            trace_->refusal(kKern, "%s: no address for section %d -> %d", head.c_str(), s + 1,
                            -EFAULT);
            return true;
        }
    }
    return false;
}

int SimDriver::areaFault(int section, const std::string& head, const Pending& event) {
    ++stats_.failed_requests;
    if (has(bugs_, DriverBug::kPollerrAfterError)) {
        // This driver puts the event back for another try.
        pending_.push_front(event);
        signalLocked();
    } else {
        ++stats_.lost_on_failure;
    }
    // Bugs of the error path: another errno, a busy flag left set, an error
    // that poll keeps reporting.
    const int result = has(bugs_, DriverBug::kAreaFaultEio) ? -EIO : -EFAULT;
    dequeue_stuck_ = has(bugs_, DriverBug::kStuckAfterAreaFault);
    error_latched_ = true;
    trace_->refusal(kKern, "%s: the data area of section %d cannot be written -> %d (event %s)",
                    head.c_str(), section, result,
                    has(bugs_, DriverBug::kPollerrAfterError) ? "kept" : "lost");
    return result;
}

unsigned SimDriver::pollMask(int fd) const {
    aov::MutexLock guard(mutex_);
    if (has(bugs_, DriverBug::kNoReadiness) || fd != event_fd_ || fd < 0) {
        return 0;
    }
    unsigned mask = 0;
    pollfd pending{event_fd_, POLLIN, 0};
    if (::poll(&pending, 1, 0) == 1 && (pending.revents & POLLIN) != 0) {
        mask |= POLLIN | POLLRDNORM;
    }
    if (has(bugs_, DriverBug::kReadableWhenStopped) && !started_) {
        // "A read would not block": it would fail at once.
        mask |= POLLIN | POLLRDNORM;
    }
    if (has(bugs_, DriverBug::kPollerrAfterError) && error_latched_) {
        mask |= POLLERR;
    }
    return mask;
}

int SimDriver::dequeueScripted(uint8_t* record, aov_event_query& query, const std::string& head,
                               UserMemory& user, std::chrono::steady_clock::time_point began) {
    const Pending event = pending_.front();
    const ScriptedEvent& scripted = params_.script[static_cast<size_t>(event.scripted)];
    unsigned written = 0;
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        written |= scripted.areas[s].bytes.empty() ? 0u : 1u << s;
    }
    if (missingArea(query, written, head)) {
        return -EFAULT;
    }
    takeOldestLocked();
    if (const int section = writeScripted(query, scripted, user)) {
        return areaFault(section, head, event);
    }
    std::memcpy(record, &query, sizeof(query));

    ++stats_.dequeued;
    last_.sequence = query.header[0];
    last_.produced_at = event.produced_at;
    last_.scripted = event.scripted;
    trace_->recordf(kKern, "%s -> 0 header=[%u, %u, %u, %u, %u, %u] scripted event %d",
                    head.c_str(), query.header[0], query.header[1], query.header[2],
                    query.header[3], query.header[4], query.header[5], event.scripted + 1);
    last_.dequeue_began = began;
    last_.dequeue_ended = std::chrono::steady_clock::now();
    return 0;
}

void SimDriver::queueEvent(bool anyTick) {
    aov::MutexLock guard(mutex_);
    if (!started_ && !timer_after_stop_) {
        return;
    }
    const uint32_t seq = ++sequence_;
    int scripted = -1;
    if (params_.script.empty() && !anyTick && seq % params_.event_every != 0) {
        return;  // a tick without an event
    }
    if (!params_.script.empty()) {
        // Only the ticks the script names queue an event.
        if (next_scripted_ >= params_.script.size() ||
            params_.script[next_scripted_].at_frame != seq) {
            return;
        }
        scripted = static_cast<int>(next_scripted_++);
    }
    const bool overwrote = pending_.size() >= params_.queue_depth;
    if (overwrote) {
        const uint32_t lost = pending_.front().sequence;
        pending_.pop_front();
        ++stats_.overruns;
        trace_->recordf(kKern, "event %u overwrites event %u (queue of %u full)", seq, lost,
                        params_.queue_depth);
    }
    pending_.push_back(Pending{seq, std::chrono::steady_clock::now(), scripted});
    ++stats_.produced;
    signalLocked();
    if (TimelineHooks* timeline = trace_->timeline()) {
        timeline->eventQueued(seq, pending_.back().produced_at, pending_.size(), overwrote);
    }
}

void SimDriver::signalLocked() {
    // The counter only ever moves between 0 and 1: readable iff something is pending.
    if (pending_.size() == 1 && event_fd_ >= 0) {
        const uint64_t one = 1;
        if (::write(event_fd_, &one, sizeof(one)) != sizeof(one)) {
            fatal("cannot signal the event descriptor");
        }
        if (ready_listener_) {
            ready_listener_();
        }
    }
}

void SimDriver::depthChangedLocked(uint64_t dropped) {
    if (TimelineHooks* timeline = trace_->timeline()) {
        timeline->queueDepth(pending_.size(), dropped);
    }
}

void SimDriver::unsignalLocked() {
    if (event_fd_ >= 0) {
        uint64_t value;
        // EAGAIN when it was not signalled: nothing to clear.
        (void)!::read(event_fd_, &value, sizeof(value));
    }
}

DriverStats SimDriver::stats() const {
    aov::MutexLock guard(mutex_);
    return stats_;
}

DequeueMark SimDriver::lastDequeue() const {
    aov::MutexLock guard(mutex_);
    return last_;
}

bool SimDriver::started() const {
    aov::MutexLock guard(mutex_);
    return started_;
}

}  // namespace aovsim
