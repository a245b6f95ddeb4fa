#pragma once

// The emulated AOV driver served through FUSE: a file system of two files,
// "kelo_aov", the node (open, release, ioctl and poll go to the driver), and
// "status", the driver's counters as text (see aovsim/DriverStatus.h).
//
// FUSE hands a regular file's ioctl over in its restricted form: the kernel
// copies in and out exactly as many bytes as the request code's direction
// and size fields say, and passes the caller's pid and argument address. A
// DEQUEUE_EVENT record (read-only by its code) is read from the caller's
// memory, and the event's data areas are written through the record's
// addresses, with process_vm_readv and process_vm_writev. The node's
// readiness reaches the caller's poll and epoll through FUSE poll
// notifications.
//
// Driver bugs that belong to the node's file operations are made here: a
// request, flush or release left unanswered (answered with EIO when the
// server ends), a dequeue that waits for the next event, and a wake-up only
// for pollers that asked for POLLIN.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "aovbase/Mutex.h"
#include "aovsim/SimDriver.h"
#include "aovsim/Trace.h"
#include "kelo_aov.h"

struct fuse_session;
struct fuse_pollhandle;
struct fuse_req;

namespace aovkdev {

constexpr const char* kNodeName = AOV_DEVICE_NAME;
constexpr const char* kStatusName = "status";

// Failures of the server itself, for showing what a client sees of them.
struct ServerFaults {
    uint32_t die_at_dequeue = 0;  // the n-th DEQUEUE_EVENT kills the server before it answers
    // The n-th DEQUEUE_EVENT is answered with more bytes than its code allows,
    // which the kernel refuses.
    uint32_t overlong_reply_at_dequeue = 0;
    // How long a dequeue with nothing pending waits under kBlockEmptyDequeue.
    uint32_t empty_dequeue_wait_ms = aovsim::kEmptyDequeueWaitMs;
};

// An ioctl as the server received it.
struct RequestSeen {
    unsigned int request = 0;
    size_t in_bytes = 0;   // bytes the kernel copied in
    size_t out_bytes = 0;  // bytes the kernel will copy out at most
    pid_t pid = 0;         // the caller
};

class KdevServer {
  public:
    KdevServer(std::shared_ptr<aovsim::SimDriver> driver, std::shared_ptr<aovsim::Trace> trace,
               std::string scenario, ServerFaults faults = ServerFaults());
    // Unmounts, if mounted.
    ~KdevServer();
    KdevServer(const KdevServer&) = delete;
    KdevServer& operator=(const KdevServer&) = delete;

    // Mounts the file system on the directory `dir`; false with `problem` set.
    [[nodiscard]] bool mount(const std::string& dir, std::string* problem);
    // Serves requests until stop() or until the file system goes away; 0 or a
    // negative errno.
    int serve();
    // Makes serve() return. Safe from any thread and from a signal handler.
    void stop();

    // Called on the serving thread with every ioctl, before it is served.
    void setRequestObserver(std::function<void(const RequestSeen&)> observer);

    std::string nodePath() const { return dir_ + "/" + kNodeName; }
    std::string statusText() const;

    // The file-system operations, called by FUSE on the serving thread.
    struct Ops;

  private:
    // A DEQUEUE_EVENT waiting for the next event (kBlockEmptyDequeue).
    struct WaitingDequeue {
        fuse_req* req;
        int fd;
        void* arg;
        pid_t pid;
        size_t out_size;
        std::chrono::steady_clock::time_point deadline;
    };

    void nodeReady();
    // Serves an ioctl the file-system operation has checked and answers it,
    // unless it is left waiting. `in` holds what the kernel copied in; a
    // `retry` is a waiting dequeue served again.
    void answerIoctl(fuse_req* req, int fd, unsigned int request, void* arg, pid_t pid,
                     const void* in, size_t inSize, size_t outSize, bool retry);
    // Serves the waiting dequeues again: all of them when an event was
    // queued (`woken`), else those whose wait is over.
    void serviceWaiting(bool woken);
    // How long poll() in serve() may sleep before a waiting dequeue's deadline.
    int waitingTimeoutMs() const;
    // Drops a request from the parked and waiting lists; true if it was there.
    bool forget(fuse_req* req);

    std::shared_ptr<aovsim::SimDriver> driver_;
    std::shared_ptr<aovsim::Trace> trace_;
    const std::string scenario_;
    const ServerFaults faults_;
    std::function<void(const RequestSeen&)> observer_;
    std::string dir_;
    fuse_session* session_ = nullptr;
    bool mounted_ = false;
    int stop_fd_ = -1;
    uint32_t dequeues_ = 0;

    // Requests a driver bug leaves unanswered; answered with EIO at the end.
    std::vector<fuse_req*> parked_;
    std::vector<WaitingDequeue> waiting_;
    // Written when an event is queued, so serve() looks at the waiting dequeues.
    int wake_fd_ = -1;

    aov::Mutex poll_mutex_;
    // The node's, kept to notify readiness.
    fuse_pollhandle* poll_handle_ AOV_GUARDED_BY(poll_mutex_) = nullptr;
    // The poller that left poll_handle_, as kWakePollinWaitersOnly sees it:
    // one that registered without asking for POLLIN (epoll's empty mask) is
    // never put on the wait queue, and neither is its re-arm (the next poll,
    // EPOLL_CTL_MOD asking for POLLIN); any later poll is another waiter.
    enum class Poller { kWaiting, kRegisteredWithoutIn, kRearmed };
    Poller poller_ AOV_GUARDED_BY(poll_mutex_) = Poller::kWaiting;
};

}  // namespace aovkdev
