// A small AOV driver prototype served through FUSE, as a platform engineer
// might write one on the desk before the kernel driver exists: one file,
// "kelo_aov", in the mounted directory, and nothing else (no counters, no
// status). It knows only the kernel interface header.
//
//   aov_third_party_node --mount DIR [--ready-fd FD] [--events N] [--period-ms MS]
//                        [--die-at-dequeue K]
//
// After START and SENSOR_ON it produces one event every MS milliseconds
// (default 10), at most N per session (default 5). Each event has a header
// (its sequence number, the events still pending, and "content" set), 40
// bytes of text in section 1 and 64 pattern bytes in section 2, with their
// lengths as the sections' info words. The node polls readable while an event
// is pending. "ready" goes to FD once the file system is mounted. With
// --die-at-dequeue, the server ends at its Kth dequeue without answering it,
// as a prototype that crashes does.
//
// FUSE hands a regular file's ioctl over in its restricted form: the records
// a code writes are copied in, those it reads are copied out, and nothing
// else. The dequeue record carries the caller's area addresses, so the node
// reads the record from the caller's memory and writes the areas into it
// itself, as a driver's copy to user space does.

#define FUSE_USE_VERSION 35

#include <fuse.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "kelo_aov.h"

namespace {

constexpr char kNodePath[] = "/" AOV_DEVICE_NAME;
constexpr uint32_t kPatternBytes = 64;

struct Driver {
    std::mutex mutex;
    std::condition_variable changed;
    bool quit = false;
    bool started = false;
    bool streaming = false;
    uint32_t produced = 0;  // this session
    std::deque<uint32_t> pending;
    fuse_pollhandle* poll = nullptr;  // the latest poller, told when an event comes

    int events_per_session = 5;
    std::chrono::milliseconds period{10};
};

Driver driver;
int dieAtDequeue = 0;  // 0: never
std::atomic<int> dequeuesAsked{0};

// Drops what a session left; the caller holds the mutex.
void endSession() {
    driver.started = false;
    driver.streaming = false;
    driver.pending.clear();
}

void produce() {
    std::unique_lock<std::mutex> lock(driver.mutex);
    while (!driver.changed.wait_for(lock, driver.period, [] { return driver.quit; })) {
        if (!driver.started || !driver.streaming ||
            driver.produced >= static_cast<uint32_t>(driver.events_per_session)) {
            continue;
        }
        driver.pending.push_back(++driver.produced);
        if (driver.poll != nullptr) {
            fuse_notify_poll(driver.poll);
        }
    }
}

bool writeCaller(pid_t pid, const void* from, size_t size, void* to) {
    iovec local{const_cast<void*>(from), size};
    iovec remote{to, size};
    return ::process_vm_writev(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

// Hands out the oldest pending event into the caller's record at `arg`;
// `out` receives the record the kernel copies back.
int dequeue(pid_t pid, void* arg, void* out) {
    if (dieAtDequeue > 0 && dequeuesAsked.fetch_add(1) + 1 == dieAtDequeue) {
        ::_exit(3);
    }
    aov_event_query record;
    iovec local{&record, sizeof(record)};
    iovec remote{arg, sizeof(record)};
    if (::process_vm_readv(pid, &local, 1, &remote, 1, 0) != sizeof(record)) {
        return -EFAULT;
    }
    uint32_t sequence;
    uint32_t left;
    {
        std::lock_guard<std::mutex> lock(driver.mutex);
        if (driver.pending.empty()) {
            return -EAGAIN;
        }
        sequence = driver.pending.front();
        driver.pending.pop_front();
        left = static_cast<uint32_t>(driver.pending.size());
    }
    char text[40] = {};
    std::snprintf(text, sizeof(text), "third-party event %u", sequence);
    uint8_t pattern[kPatternBytes];
    for (uint32_t i = 0; i < kPatternBytes; ++i) {
        pattern[i] = static_cast<uint8_t>(sequence * 7 + i);
    }
    // An area that cannot be written fails the request; the event is lost.
    if (!writeCaller(pid, text, sizeof(text), record.s1_addr) ||
        !writeCaller(pid, pattern, sizeof(pattern), record.s2_addr)) {
        return -EFAULT;
    }
    std::memset(record.header, 0, sizeof(record.header));
    record.header[0] = sequence;
    record.header[1] = left;
    record.header[5] = 1;
    record.s1_info = sizeof(text);
    record.s2_info = kPatternBytes;
    std::memcpy(out, &record, sizeof(record));
    return 0;
}

int nodeIoctl(const char* path, unsigned int cmd, void* arg, fuse_file_info*, unsigned int flags,
              void* data) {
    if (std::strcmp(path, kNodePath) != 0) {
        return -ENOTTY;
    }
    if ((flags & FUSE_IOCTL_COMPAT) != 0) {
        return -ENOSYS;
    }
    switch (cmd) {
        case AOV_IOC_START: {
            std::lock_guard<std::mutex> lock(driver.mutex);
            endSession();
            driver.started = true;
            driver.produced = 0;
            return 0;
        }
        case AOV_IOC_STOP: {
            std::lock_guard<std::mutex> lock(driver.mutex);
            endSession();
            return 0;
        }
        case AOV_IOC_SENSOR_ON:
        case AOV_IOC_SENSOR_OFF: {
            aov_sensor_list list;
            std::memcpy(&list, data, sizeof(list));
            if (list.count < 1 || list.count > AOV_MAX_SENSORS_PER_REQUEST) {
                return -EINVAL;
            }
            std::lock_guard<std::mutex> lock(driver.mutex);
            driver.streaming = cmd == AOV_IOC_SENSOR_ON;
            return 0;
        }
        case AOV_IOC_ULPOSC3_ON:
        case AOV_IOC_ULPOSC3_OFF:
            return 0;
        case AOV_IOC_DEQUEUE_EVENT:
            return dequeue(fuse_get_context()->pid, arg, data);
        default:
            return -ENOTTY;
    }
}

int nodePoll(const char* path, fuse_file_info*, fuse_pollhandle* ph, unsigned* revents) {
    std::lock_guard<std::mutex> lock(driver.mutex);
    if (ph != nullptr) {
        if (driver.poll != nullptr) {
            fuse_pollhandle_destroy(driver.poll);
        }
        driver.poll = ph;
    }
    if (std::strcmp(path, kNodePath) == 0 && !driver.pending.empty()) {
        *revents |= POLLIN | POLLRDNORM;
    }
    return 0;
}

int nodeGetattr(const char* path, struct stat* st, fuse_file_info*) {
    std::memset(st, 0, sizeof(*st));
    st->st_uid = ::getuid();
    st->st_gid = ::getgid();
    if (std::strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    if (std::strcmp(path, kNodePath) == 0) {
        st->st_mode = S_IFREG | 0666;
        st->st_nlink = 1;
        return 0;
    }
    return -ENOENT;
}

int nodeReaddir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                fuse_readdir_flags) {
    if (std::strcmp(path, "/") != 0) {
        return -ENOTDIR;
    }
    fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, AOV_DEVICE_NAME, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int nodeOpen(const char* path, fuse_file_info* fi) {
    if (std::strcmp(path, kNodePath) != 0) {
        return -ENOENT;
    }
    fi->direct_io = 1;
    fi->nonseekable = 1;
    return 0;
}

// A session whose holder closed the node without STOP ends here.
int nodeRelease(const char*, fuse_file_info*) {
    std::lock_guard<std::mutex> lock(driver.mutex);
    endSession();
    return 0;
}

int usage(const char* problem) {
    std::fprintf(stderr, "aov_third_party_node: error: %s\n", problem);
    return 2;
}

bool readNumber(const char* text, int min, int max, int* out) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string mount;
    int readyFd = -1;
    int periodMs = 10;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 == argc) {
            return usage(("missing the value of " + option).c_str());
        }
        const char* value = argv[++i];
        if (option == "--mount") {
            mount = value;
        } else if (option == "--ready-fd") {
            if (!readNumber(value, 0, 1023, &readyFd)) {
                return usage("--ready-fd: expected a descriptor number");
            }
        } else if (option == "--events") {
            if (!readNumber(value, 0, 1000000, &driver.events_per_session)) {
                return usage("--events: expected 0 to 1000000");
            }
        } else if (option == "--period-ms") {
            if (!readNumber(value, 1, 60000, &periodMs)) {
                return usage("--period-ms: expected 1 to 60000");
            }
        } else if (option == "--die-at-dequeue") {
            if (!readNumber(value, 1, 1000000, &dieAtDequeue)) {
                return usage("--die-at-dequeue: expected 1 to 1000000");
            }
        } else {
            return usage(("unknown option " + option).c_str());
        }
    }
    if (mount.empty()) {
        return usage("--mount DIR is required");
    }
    driver.period = std::chrono::milliseconds(periodMs);

    fuse_operations ops{};
    ops.getattr = nodeGetattr;
    ops.readdir = nodeReaddir;
    ops.open = nodeOpen;
    ops.release = nodeRelease;
    ops.ioctl = nodeIoctl;
    ops.poll = nodePoll;
    char name[] = "aov_third_party_node";
    char* fuseArgv[] = {name};
    fuse_args args = FUSE_ARGS_INIT(1, fuseArgv);
    fuse* fs = fuse_new(&args, &ops, sizeof(ops), nullptr);
    if (fs == nullptr) {
        std::fprintf(stderr, "aov_third_party_node: cannot create a FUSE file system\n");
        return 1;
    }
    if (fuse_mount(fs, mount.c_str()) != 0) {
        std::fprintf(stderr, "aov_third_party_node: cannot mount on %s\n", mount.c_str());
        fuse_destroy(fs);
        return 1;
    }
    fuse_session* session = fuse_get_session(fs);
    fuse_set_signal_handlers(session);
    if (readyFd >= 0) {
        (void)!::write(readyFd, "ready\n", 6);
        ::close(readyFd);
    }
    std::thread producer(produce);
    const int result = fuse_loop(fs);
    {
        std::lock_guard<std::mutex> lock(driver.mutex);
        driver.quit = true;
        if (driver.poll != nullptr) {
            fuse_pollhandle_destroy(driver.poll);
            driver.poll = nullptr;
        }
    }
    driver.changed.notify_all();
    producer.join();
    fuse_remove_signal_handlers(session);
    fuse_unmount(fs);
    fuse_destroy(fs);
    // A stop by signal (the usual way to end it) is a normal end.
    return result == 0 || result == SIGTERM || result == SIGINT ? 0 : 1;
}
