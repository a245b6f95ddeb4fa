#define FUSE_USE_VERSION 35

#include "KdevServer.h"

#include <fuse_lowlevel.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "ProcessMemory.h"
#include "aovsim/DriverStatus.h"
#include "kelo_aov.h"

namespace aovkdev {

namespace {

constexpr fuse_ino_t kRootIno = FUSE_ROOT_ID;
constexpr fuse_ino_t kNodeIno = 2;
constexpr fuse_ino_t kStatusIno = 3;
constexpr double kAttrTimeout = 3600;

KdevServer& serverOf(fuse_req_t req) {
    return *static_cast<KdevServer*>(fuse_req_userdata(req));
}

bool attrOf(fuse_ino_t ino, struct stat* st) {
    std::memset(st, 0, sizeof(*st));
    st->st_ino = ino;
    st->st_uid = ::getuid();
    st->st_gid = ::getgid();
    switch (ino) {
        case kRootIno:
            st->st_mode = S_IFDIR | 0755;
            st->st_nlink = 2;
            return true;
        case kNodeIno:
            st->st_mode = S_IFREG | 0666;
            st->st_nlink = 1;
            return true;
        case kStatusIno:
            st->st_mode = S_IFREG | 0444;
            st->st_nlink = 1;
            return true;
        default:
            return false;
    }
}

}  // namespace

struct KdevServer::Ops {
    static void lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
        fuse_entry_param entry{};
        const fuse_ino_t ino = parent != kRootIno                    ? 0
                               : std::strcmp(name, kNodeName) == 0   ? kNodeIno
                               : std::strcmp(name, kStatusName) == 0 ? kStatusIno
                                                                     : 0;
        if (ino == 0) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        entry.ino = ino;
        entry.attr_timeout = kAttrTimeout;
        entry.entry_timeout = kAttrTimeout;
        attrOf(ino, &entry.attr);
        fuse_reply_entry(req, &entry);
    }

    static void getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
        struct stat st;
        if (!attrOf(ino, &st)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        fuse_reply_attr(req, &st, kAttrTimeout);
    }

    static void readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t offset,
                        fuse_file_info*) {
        if (ino != kRootIno) {
            fuse_reply_err(req, ENOTDIR);
            return;
        }
        struct Entry {
            const char* name;
            fuse_ino_t ino;
        };
        const Entry entries[] = {
            {".", kRootIno}, {"..", kRootIno}, {kNodeName, kNodeIno}, {kStatusName, kStatusIno}};
        char buffer[512];
        size_t used = 0;
        for (off_t i = offset; i < static_cast<off_t>(std::size(entries)); ++i) {
            struct stat st;
            attrOf(entries[i].ino, &st);
            const size_t length = fuse_add_direntry(req, buffer + used, sizeof(buffer) - used,
                                                    entries[i].name, &st, i + 1);
            if (length > sizeof(buffer) - used) {
                break;
            }
            used += length;
        }
        fuse_reply_buf(req, buffer, std::min(used, size));
    }

    static void open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
        KdevServer& server = serverOf(req);
        fi->direct_io = 1;
        if (ino == kStatusIno) {
            if ((fi->flags & O_ACCMODE) != O_RDONLY) {
                fuse_reply_err(req, EACCES);
                return;
            }
            fi->fh = 0;
            fuse_reply_open(req, fi);
            return;
        }
        if (ino != kNodeIno) {
            fuse_reply_err(req, ino == kRootIno ? EISDIR : ENOENT);
            return;
        }
        const int fd = server.driver_->open(fi->flags);
        if (fd < 0) {
            fuse_reply_err(req, -fd);
            return;
        }
        fi->fh = static_cast<uint64_t>(fd);
        fi->nonseekable = 1;
        fuse_reply_open(req, fi);
    }

    // Every close of a descriptor of the node.
    static void flush(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
        KdevServer& server = serverOf(req);
        if (ino != kNodeIno) {
            fuse_reply_err(req, 0);
            return;
        }
        if (aovsim::has(server.driver_->bugs(), aovsim::DriverBug::kHangFlush)) {
            server.trace_->recordf(aovsim::TraceSource::kKernel,
                                   "flush: never answered (driver bug)");
            server.parked_.push_back(req);
            return;
        }
        fuse_reply_err(req, -server.driver_->flush(static_cast<int>(fi->fh)));
    }

    // The close of the node's last descriptor.
    static void release(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
        KdevServer& server = serverOf(req);
        if (ino == kNodeIno) {
            if (aovsim::has(server.driver_->bugs(), aovsim::DriverBug::kHangRelease)) {
                server.trace_->recordf(aovsim::TraceSource::kKernel,
                                       "release: never answered (driver bug)");
                server.parked_.push_back(req);
                return;
            }
            server.driver_->release(static_cast<int>(fi->fh));
        }
        fuse_reply_err(req, 0);
    }

    static void read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t offset, fuse_file_info*) {
        if (ino != kStatusIno) {
            fuse_reply_err(req, EINVAL);
            return;
        }
        const std::string text = serverOf(req).statusText();
        const size_t from = std::min(static_cast<size_t>(std::max<off_t>(offset, 0)), text.size());
        fuse_reply_buf(req, text.data() + from, std::min(size, text.size() - from));
    }

    static void ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int request, void* arg,
                      fuse_file_info* fi, unsigned flags, const void* in, size_t inSize,
                      size_t outSize) {
        KdevServer& server = serverOf(req);
        if (ino != kNodeIno) {
            fuse_reply_err(req, ENOTTY);
            return;
        }
        if ((flags & FUSE_IOCTL_COMPAT) != 0) {
            fuse_reply_err(req, ENOSYS);
            return;
        }
        const pid_t pid = fuse_req_ctx(req)->pid;
        if (server.observer_) {
            server.observer_(RequestSeen{request, inSize, outSize, pid});
        }
        if (request == AOV_IOC_SENSOR_OFF &&
            aovsim::has(server.driver_->bugs(), aovsim::DriverBug::kHangSensorOff)) {
            server.trace_->recordf(aovsim::TraceSource::kKernel,
                                   "SENSOR_OFF: never answered (driver bug)");
            server.parked_.push_back(req);
            return;
        }
        server.answerIoctl(req, static_cast<int>(fi->fh), request, arg, pid, in, inSize, outSize,
                           false);
    }

    // A parked request whose caller got a signal: answered with EINTR.
    static void interrupted(fuse_req_t req, void* data) {
        if (static_cast<KdevServer*>(data)->forget(req)) {
            fuse_reply_err(req, EINTR);
        }
    }

    static void poll(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi, fuse_pollhandle* ph) {
        KdevServer& server = serverOf(req);
        if (ino != kNodeIno) {
            if (ph != nullptr) {
                fuse_pollhandle_destroy(ph);
            }
            fuse_reply_poll(req, POLLIN | POLLRDNORM);
            return;
        }
        if (aovsim::has(server.driver_->bugs(), aovsim::DriverBug::kNoReadiness)) {
            if (ph != nullptr) {
                fuse_pollhandle_destroy(ph);
            }
            fuse_reply_poll(req, 0);
            return;
        }
        // Keep the handle before looking, so that an event queued in between
        // is notified rather than missed. A poll without one (epoll's
        // re-arm) keeps the earlier waiter.
        if (ph != nullptr) {
            aov::MutexLock guard(server.poll_mutex_);
            if (server.poll_handle_ != nullptr) {
                fuse_pollhandle_destroy(server.poll_handle_);
            }
            server.poll_handle_ = ph;
            server.poller_ = (fi->poll_events & POLLIN) == 0 ? Poller::kRegisteredWithoutIn
                             : server.poller_ == Poller::kRegisteredWithoutIn ? Poller::kRearmed
                                                                              : Poller::kWaiting;
        }
        fuse_reply_poll(req, server.driver_->pollMask(static_cast<int>(fi->fh)));
    }
};

KdevServer::KdevServer(std::shared_ptr<aovsim::SimDriver> driver,
                       std::shared_ptr<aovsim::Trace> trace, std::string scenario,
                       ServerFaults faults)
    : driver_(std::move(driver)),
      trace_(std::move(trace)),
      scenario_(std::move(scenario)),
      faults_(faults),
      stop_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wake_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    driver_->setReadyListener([this] { nodeReady(); });
}

KdevServer::~KdevServer() {
    driver_->setReadyListener(nullptr);
    for (fuse_req_t req : parked_) {
        fuse_reply_err(req, EIO);
    }
    for (const WaitingDequeue& waiting : waiting_) {
        fuse_reply_err(waiting.req, EIO);
    }
    if (session_ != nullptr) {
        if (mounted_) {
            fuse_session_unmount(session_);
        }
        fuse_session_destroy(session_);
    }
    if (poll_handle_ != nullptr) {
        fuse_pollhandle_destroy(poll_handle_);
    }
    if (stop_fd_ >= 0) {
        ::close(stop_fd_);
    }
    if (wake_fd_ >= 0) {
        ::close(wake_fd_);
    }
}

bool KdevServer::mount(const std::string& dir, std::string* problem) {
    if (stop_fd_ < 0 || wake_fd_ < 0) {
        *problem = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        *problem = std::string("/dev/fuse: ") + std::strerror(errno);
        return false;
    }
    // Others may open the node too when the server runs as root.
    const char* argv[] = {"aov-kdev", "-o", "fsname=aov-kdev,subtype=aov-kdev", "-o",
                          "allow_other"};
    fuse_args args = FUSE_ARGS_INIT(::geteuid() == 0 ? 5 : 3, const_cast<char**>(argv));
    static const fuse_lowlevel_ops ops = [] {
        fuse_lowlevel_ops o{};
        o.lookup = Ops::lookup;
        o.getattr = Ops::getattr;
        o.readdir = Ops::readdir;
        o.open = Ops::open;
        o.flush = Ops::flush;
        o.release = Ops::release;
        o.read = Ops::read;
        o.ioctl = Ops::ioctl;
        o.poll = Ops::poll;
        return o;
    }();
    session_ = fuse_session_new(&args, &ops, sizeof(ops), this);
    fuse_opt_free_args(&args);  // the session keeps what it parsed from them
    if (session_ == nullptr) {
        *problem = "cannot create a FUSE session";
        return false;
    }
    if (fuse_session_mount(session_, dir.c_str()) != 0) {
        *problem = "cannot mount a FUSE file system on " + dir;
        return false;
    }
    mounted_ = true;
    dir_ = dir;
    return true;
}

int KdevServer::serve() {
    if (session_ == nullptr || !mounted_) {
        return -ENOTCONN;
    }
    fuse_buf buffer{};
    int result = 0;
    const int fuseFd = fuse_session_fd(session_);
    while (!fuse_session_exited(session_)) {
        pollfd fds[3] = {{fuseFd, POLLIN, 0}, {stop_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        const int ready = ::poll(fds, 3, waitingTimeoutMs());
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            result = -errno;
            break;
        }
        if (fds[2].revents != 0) {
            uint64_t count;
            (void)!::read(wake_fd_, &count, sizeof(count));
        }
        serviceWaiting(fds[2].revents != 0);
        if (ready == 0 || (fds[0].revents == 0 && fds[1].revents == 0)) {
            continue;
        }
        // Requests already queued (a release at the client's exit, say) are
        // served before a stop.
        if (fds[0].revents == 0 && fds[1].revents != 0) {
            break;
        }
        const int received = fuse_session_receive_buf(session_, &buffer);
        if (received == -EINTR || received == -EAGAIN) {
            continue;
        }
        if (received <= 0) {
            // 0: the file system was unmounted.
            result = received;
            break;
        }
        fuse_session_process_buf(session_, &buffer);
    }
    std::free(buffer.mem);
    return result;
}

void KdevServer::stop() {
    const uint64_t one = 1;
    (void)!::write(stop_fd_, &one, sizeof(one));
}

void KdevServer::setRequestObserver(std::function<void(const RequestSeen&)> observer) {
    observer_ = std::move(observer);
}

std::string KdevServer::statusText() const {
    aovsim::DriverStatus status;
    status.scenario = scenario_;
    status.started = driver_->started();
    status.refusals = trace_->refusals();
    status.stats = driver_->stats();
    status.last = driver_->lastDequeue();
    return aovsim::formatDriverStatus(status);
}

void KdevServer::nodeReady() {
    const uint64_t one = 1;
    (void)!::write(wake_fd_, &one, sizeof(one));
    aov::MutexLock guard(poll_mutex_);
    // With kWakePollinWaitersOnly the driver put a poller on its wait queue
    // only when it asked for POLLIN.
    const bool skipped = poller_ != Poller::kWaiting &&
                         aovsim::has(driver_->bugs(), aovsim::DriverBug::kWakePollinWaitersOnly);
    if (poll_handle_ != nullptr && !skipped) {
        fuse_lowlevel_notify_poll(poll_handle_);
    }
}

void KdevServer::answerIoctl(fuse_req_t req, int fd, unsigned int request, void* arg, pid_t pid,
                             const void* in, size_t inSize, size_t outSize, bool retry) {
    // The bytes the kernel moves are the caller's code's; a record never
    // exceeds the driver's largest.
    const size_t size = std::min<size_t>(_IOC_SIZE(request), aovsim::SimDriver::kMaxRecordSize);
    const bool known = aovsim::SimDriver::requestName(driver_->servedAs(request)) != nullptr;
    alignas(8) uint8_t record[aovsim::SimDriver::kMaxRecordSize] = {};
    uint8_t* argument = record;
    if (known && size > 0) {
        if ((_IOC_DIR(request) & _IOC_WRITE) != 0) {
            std::memcpy(record, in, std::min(inSize, size));
        } else if (readProcessMemory(pid, arg, record, size) != 0) {
            // A record the driver reads itself, as with copy_from_user.
            argument = nullptr;
        }
    }
    if (request == AOV_IOC_DEQUEUE_EVENT && !retry) {
        ++dequeues_;
        if (dequeues_ == faults_.die_at_dequeue) {
            trace_->recordf(aovsim::TraceSource::kKernel,
                            "aov-kdev: dying at DEQUEUE_EVENT %u (injected failure)", dequeues_);
            ::kill(::getpid(), SIGKILL);
        }
    }
    ProcessMemory memory(pid);
    const auto began = std::chrono::steady_clock::now();
    const int result = driver_->serve(fd, request, argument, memory);
    if (request == AOV_IOC_DEQUEUE_EVENT && result == -EAGAIN &&
        aovsim::has(driver_->bugs(), aovsim::DriverBug::kBlockEmptyDequeue)) {
        if (!retry) {
            // Waits as an interruptible, bounded wait does: for the next
            // event, a signal, or the end of the wait.
            trace_->recordf(aovsim::TraceSource::kKernel,
                            "DEQUEUE_EVENT with nothing pending: waits for the next event "
                            "(driver bug)");
            waiting_.push_back(
                WaitingDequeue{req, fd, arg, pid, outSize,
                               began + std::chrono::milliseconds(faults_.empty_dequeue_wait_ms)});
            fuse_req_interrupt_func(req, Ops::interrupted, this);
            return;
        }
        const auto it = std::find_if(waiting_.begin(), waiting_.end(),
                                     [req](const WaitingDequeue& w) { return w.req == req; });
        if (it != waiting_.end() && began < it->deadline) {
            return;  // still waiting
        }
    }
    if (retry) {
        forget(req);  // answered below
    }
    if (aovsim::TimelineHooks* timeline = trace_->timeline()) {
        timeline->requestServed(request, began, std::chrono::steady_clock::now(), result);
    }
    if (result < 0) {
        fuse_reply_err(req, -result);
        return;
    }
    if ((_IOC_DIR(request) & _IOC_READ) == 0) {
        fuse_reply_ioctl(req, result, nullptr, 0);
        return;
    }
    if (request == AOV_IOC_DEQUEUE_EVENT && dequeues_ == faults_.overlong_reply_at_dequeue) {
        alignas(8) uint8_t overlong[sizeof(record) + 8] = {};
        std::memcpy(overlong, record, size);
        trace_->recordf(aovsim::TraceSource::kKernel,
                        "aov-kdev: answering DEQUEUE_EVENT %u with %zu bytes where its code "
                        "allows %zu (injected failure)",
                        dequeues_, size + 8, outSize);
        fuse_reply_ioctl(req, result, overlong, size + 8);
        return;
    }
    fuse_reply_ioctl(req, result, record, std::min(size, outSize));
}

void KdevServer::serviceWaiting(bool woken) {
    const auto now = std::chrono::steady_clock::now();
    // Each retry may answer (and remove) its request: work on a copy.
    const std::vector<WaitingDequeue> waiting = waiting_;
    for (const WaitingDequeue& w : waiting) {
        const bool still = std::any_of(waiting_.begin(), waiting_.end(),
                                       [&w](const WaitingDequeue& x) { return x.req == w.req; });
        if (still && (woken || now >= w.deadline)) {
            answerIoctl(w.req, w.fd, AOV_IOC_DEQUEUE_EVENT, w.arg, w.pid, nullptr, 0, w.out_size,
                        true);
        }
    }
}

int KdevServer::waitingTimeoutMs() const {
    if (waiting_.empty()) {
        return -1;
    }
    auto first = waiting_.front().deadline;
    for (const WaitingDequeue& w : waiting_) {
        first = std::min(first, w.deadline);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          first - std::chrono::steady_clock::now())
                          .count();
    // Rounded up, so the wake-up comes at or after the deadline.
    return left <= 0 ? 0 : static_cast<int>(left) + 1;
}

bool KdevServer::forget(fuse_req_t req) {
    const auto parked = std::find(parked_.begin(), parked_.end(), req);
    if (parked != parked_.end()) {
        parked_.erase(parked);
        return true;
    }
    const auto waiting = std::find_if(waiting_.begin(), waiting_.end(),
                                      [req](const WaitingDequeue& w) { return w.req == req; });
    if (waiting != waiting_.end()) {
        waiting_.erase(waiting);
        return true;
    }
    return false;
}

}  // namespace aovkdev
