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

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AOVThreadSafety.h"
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
    bool mount(const std::string& dir, std::string* problem);
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
    void nodeReady();

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

    aov::Mutex poll_mutex_;
    // The node's, kept to notify readiness.
    fuse_pollhandle* poll_handle_ AOV_GUARDED_BY(poll_mutex_) = nullptr;
};

}  // namespace aovkdev
