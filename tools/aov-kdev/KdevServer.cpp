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

    static void release(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
        if (ino == kNodeIno) {
            serverOf(req).driver_->close(static_cast<int>(fi->fh));
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
        // The bytes the kernel moves are the caller's code's; a record never
        // exceeds the driver's largest.
        const size_t size = std::min<size_t>(_IOC_SIZE(request), aovsim::SimDriver::kMaxRecordSize);
        const bool known =
            aovsim::SimDriver::requestName(server.driver_->servedAs(request)) != nullptr;
        const aovsim::DriverBugs bugs = server.driver_->bugs();
        if (request == AOV_IOC_SENSOR_OFF && aovsim::has(bugs, aovsim::DriverBug::kHangSensorOff)) {
            server.trace_->recordf(aovsim::TraceSource::kKernel,
                                   "SENSOR_OFF: never answered (driver bug)");
            server.parked_.push_back(req);
            return;
        }
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
        if (request == AOV_IOC_DEQUEUE_EVENT) {
            ++server.dequeues_;
            if (server.dequeues_ == server.faults_.die_at_dequeue) {
                server.trace_->recordf(aovsim::TraceSource::kKernel,
                                       "aov-kdev: dying at DEQUEUE_EVENT %u (injected failure)",
                                       server.dequeues_);
                ::kill(::getpid(), SIGKILL);
            }
        }
        ProcessMemory memory(pid);
        const auto began = std::chrono::steady_clock::now();
        const int result =
            server.driver_->serve(static_cast<int>(fi->fh), request, argument, memory);
        if (request == AOV_IOC_DEQUEUE_EVENT && result == -EAGAIN &&
            aovsim::has(bugs, aovsim::DriverBug::kBlockEmptyDequeue)) {
            // Blocks as an interruptible wait does: until the caller gets a signal.
            server.trace_->recordf(aovsim::TraceSource::kKernel,
                                   "DEQUEUE_EVENT with nothing pending: blocks (driver bug)");
            server.parked_.push_back(req);
            fuse_req_interrupt_func(req, interrupted, &server);
            return;
        }
        if (aovsim::TimelineHooks* timeline = server.trace_->timeline()) {
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
        if (request == AOV_IOC_DEQUEUE_EVENT &&
            server.dequeues_ == server.faults_.overlong_reply_at_dequeue) {
            alignas(8) uint8_t overlong[sizeof(record) + 8] = {};
            std::memcpy(overlong, record, size);
            server.trace_->recordf(aovsim::TraceSource::kKernel,
                                   "aov-kdev: answering DEQUEUE_EVENT %u with %zu bytes where its "
                                   "code allows %zu (injected failure)",
                                   server.dequeues_, size + 8, outSize);
            fuse_reply_ioctl(req, result, overlong, size + 8);
            return;
        }
        fuse_reply_ioctl(req, result, record, std::min(size, outSize));
    }

    // A parked request whose caller got a signal: answered with EINTR.
    static void interrupted(fuse_req_t req, void* data) {
        auto& parked = static_cast<KdevServer*>(data)->parked_;
        const auto it = std::find(parked.begin(), parked.end(), req);
        if (it != parked.end()) {
            parked.erase(it);
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
        // is notified rather than missed.
        if (ph != nullptr) {
            aov::MutexLock guard(server.poll_mutex_);
            if (server.poll_handle_ != nullptr) {
                fuse_pollhandle_destroy(server.poll_handle_);
            }
            server.poll_handle_ = ph;
        }
        pollfd pending{static_cast<int>(fi->fh), POLLIN, 0};
        const bool ready = ::poll(&pending, 1, 0) == 1 && (pending.revents & POLLIN) != 0;
        fuse_reply_poll(req, ready ? POLLIN | POLLRDNORM : 0);
    }
};

KdevServer::KdevServer(std::shared_ptr<aovsim::SimDriver> driver,
                       std::shared_ptr<aovsim::Trace> trace, std::string scenario,
                       ServerFaults faults)
    : driver_(std::move(driver)),
      trace_(std::move(trace)),
      scenario_(std::move(scenario)),
      faults_(faults),
      stop_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    driver_->setReadyListener([this] { nodeReady(); });
}

KdevServer::~KdevServer() {
    driver_->setReadyListener(nullptr);
    for (fuse_req_t req : parked_) {
        fuse_reply_err(req, EIO);
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
}

bool KdevServer::mount(const std::string& dir, std::string* problem) {
    if (stop_fd_ < 0) {
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
        pollfd fds[2] = {{fuseFd, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            result = -errno;
            break;
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
    aov::MutexLock guard(poll_mutex_);
    if (poll_handle_ != nullptr) {
        fuse_lowlevel_notify_poll(poll_handle_);
    }
}

}  // namespace aovkdev
