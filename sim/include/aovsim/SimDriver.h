#pragma once

// Emulated AOV kernel driver behind "/dev/kelo_aov".
//
// Behaviour, as the real driver's:
// - The node is exclusive: a second open while open fails with -EBUSY. The
//   descriptor handed out is an eventfd that is readable while an event is
//   pending.
// - Requests are matched on the full code; anything else is -ENOTTY. The
//   argument is copied in and out with the size the code's size field gives;
//   a null argument for a sized request is -EFAULT.
// - START while started is refused with -EBUSY (one session at a time; stop
//   first). A frame rate outside 1..30 is -EINVAL. START arms a frame timer at
//   the record's frame rate; each tick queues one event. The queue holds
//   queue_depth events; when full, the oldest is overwritten (an overrun).
// - DEQUEUE_EVENT before START is -EINVAL; with nothing pending -EAGAIN (the
//   node never blocks). It fills the header and info words and writes each
//   data area through the record's addresses, within the area's size. With a
//   script, each frame tick queues the scripted event for that tick, if any,
//   and dequeuing it writes exactly the scripted words and areas.
// - STOP succeeds in every state and discards pending events. Closing the
//   node stops a running session.
// Injected failures: the node's open, START, the n-th DEQUEUE_EVENT (the
// event it would have delivered is lost) and the n-th SENSOR_ON/OFF. Driver
// bugs (aovsim/DriverBugs.h) change the behaviour above where they say.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"
#include "aovsim/DriverBugs.h"
#include "aovsim/FrameTimer.h"
#include "aovsim/SimConfig.h"
#include "aovsim/Trace.h"
#include "aovsim/UserMemory.h"
#include "kelo_aov.h"

namespace aovsim {

struct DriverStats {
    uint64_t requests = 0;
    uint64_t produced = 0;           // events queued by the frame timer
    uint64_t dequeued = 0;           // events handed to user space
    uint64_t overruns = 0;           // events overwritten in a full queue
    uint64_t lost_on_failure = 0;    // events lost to an injected dequeue failure
    uint64_t discarded_at_stop = 0;  // events still queued at STOP or close
    uint64_t failed_requests = 0;    // requests answered with a negative result
};

// The event handed out by the last successful dequeue.
struct DequeueMark {
    uint32_t sequence = 0;
    std::chrono::steady_clock::time_point produced_at;
    int scripted = -1;  // index into the driver's script, -1 for a generated event
    // When the driver began handling the DEQUEUE_EVENT that handed it out, and
    // when it was done (event written, trace line out).
    std::chrono::steady_clock::time_point dequeue_began, dequeue_ended;
};

class SimDriver final : public aovhost::EmulatedNode {
  public:
    SimDriver(std::string path, const DriverConfig& params, const FaultConfig& faults,
              std::shared_ptr<Trace> trace);
    ~SimDriver() override;
    SimDriver(const SimDriver&) = delete;
    SimDriver& operator=(const SimDriver&) = delete;

    // The largest record a request code of this driver carries.
    static constexpr size_t kMaxRecordSize = sizeof(aov_sensor_list);

    int open(int flags) override;
    // A close from this process: flush, then release; the release happens
    // whatever the flush answers, and the flush's error is the result.
    int close(int fd) override;
    // A close of one descriptor (each close of a node calls it): 0, or the
    // error the close returns.
    int flush(int fd);
    // The release of the node when its last descriptor closes.
    int release(int fd);
    // The node's poll answer: POLLIN | POLLRDNORM while an event is pending,
    // and what the readiness bugs add or take away.
    unsigned pollMask(int fd) const;
    // A request from this process: the record is copied in and out through `arg`.
    int ioctl(int fd, unsigned int request, void* arg) override;
    // A request whose record has already been copied into `record` (as many
    // bytes as the code's size field says, within kMaxRecordSize); the data
    // areas of a dequeue are written to `user`. On success, a request that
    // returns data leaves it in `record` for the caller to copy out. A null
    // `record` stands for an argument that could not be read.
    int serve(int fd, unsigned int request, uint8_t* record, UserMemory& user);

    // Makes the driver behave with `bugs`; set them before the node is first opened.
    void setBugs(DriverBugs bugs) { bugs_ = bugs; }
    DriverBugs bugs() const { return bugs_; }
    // The code a request is served as: itself, or with kAcceptWrongSize the
    // known code of the same number.
    unsigned int servedAs(unsigned int request) const;

    // Called, with the driver's lock held, each time the node's descriptor
    // becomes readable. Set it before the node is first opened.
    void setReadyListener(std::function<void()> listener);

    // Queues one event, as a frame-timer tick does; ignored while not started
    // and, with event_every, on a tick without an event.
    void produceEvent() { queueEvent(false); }

    DriverStats stats() const;
    DequeueMark lastDequeue() const;
    bool started() const;

    static const char* requestName(unsigned int request);

  private:
    struct Pending {
        uint32_t sequence;
        std::chrono::steady_clock::time_point produced_at;
        int scripted;
    };
    struct Session {
        int32_t sensor_id = 0;
        int32_t scenario = 0;
        int32_t frame_rate = 0;
        int32_t aov_mode = 0;
        uint32_t frame_info[4] = {};
    };

    // A tick's event; `anyTick`: whatever event_every says (the frame in
    // flight at STOP).
    void queueEvent(bool anyTick) AOV_EXCLUDES(mutex_);
    int start(const uint8_t* record) AOV_REQUIRES(control_mutex_) AOV_EXCLUDES(mutex_);
    // Ends the session: by the STOP request, or implicitly when the node is released.
    int stop(bool byRequest) AOV_REQUIRES(control_mutex_) AOV_EXCLUDES(mutex_);
    int dequeue(uint8_t* record, UserMemory& user) AOV_EXCLUDES(mutex_);
    // Dequeues the pending event, which is a scripted one,
    // for a request whose handling began at `began`.
    int dequeueScripted(uint8_t* record, aov_event_query& query, const std::string& head,
                        UserMemory& user, std::chrono::steady_clock::time_point began)
        AOV_REQUIRES(mutex_);
    // `event`, just taken out, could not be written to the caller's memory
    // at section `section` (1-based); it is lost.
    int areaFault(int section, const std::string& head, const Pending& event) AOV_REQUIRES(mutex_);
    // Takes the oldest pending event out of the queue, as a dequeue does.
    void takeOldestLocked() AOV_REQUIRES(mutex_);
    // A request without an address for one of `sections` (bit s: section s + 1)
    // is refused and counted; true when it was.
    bool missingArea(aov_event_query& query, unsigned sections, const std::string& head)
        AOV_REQUIRES(mutex_);
    int sensorList(unsigned int request, const uint8_t* record) AOV_EXCLUDES(mutex_);
    int fail(int result, const char* format, ...) AOV_EXCLUDES(mutex_)
        __attribute__((format(printf, 3, 4)));

    // Keep the descriptor readable exactly while events are pending.
    void signalLocked() AOV_REQUIRES(mutex_);
    void unsignalLocked() AOV_REQUIRES(mutex_);
    // Tells the timeline, if any, how many events are
    // pending, `dropped` of those just taken out lost.
    void depthChangedLocked(uint64_t dropped) AOV_REQUIRES(mutex_);

    const std::string path_;
    const DriverConfig params_;
    const FaultConfig faults_;
    std::shared_ptr<Trace> trace_;
    std::function<void()> ready_listener_ AOV_GUARDED_BY(mutex_);
    DriverBugs bugs_ = 0;
    // With kBusyAfterStartedClose: a close while started left the node held.
    bool held_after_close_ AOV_GUARDED_BY(mutex_) = false;

    // Serialises the control path (open, close, START, STOP) so the timer
    // is started and stopped by one caller at a time.
    aov::Mutex control_mutex_;
    FrameTimer timer_ AOV_GUARDED_BY(control_mutex_);

    // Event state, shared with the timer thread and the dequeuing thread.
    mutable aov::Mutex mutex_;
    int event_fd_ AOV_GUARDED_BY(mutex_) = -1;
    bool started_ AOV_GUARDED_BY(mutex_) = false;
    // With kEventsAfterStop: the timer still runs after STOP.
    bool timer_after_stop_ AOV_GUARDED_BY(mutex_) = false;
    bool ulposc3_on_ AOV_GUARDED_BY(mutex_) = false;
    // With kStartOncePerOpen: a STOP came since the node was opened.
    bool stopped_since_open_ AOV_GUARDED_BY(mutex_) = false;
    // With kStuckAfterAreaFault: the busy flag a failed copy left set.
    bool dequeue_stuck_ AOV_GUARDED_BY(mutex_) = false;
    // With kPollerrAfterError: a copy failed since the last START.
    bool error_latched_ AOV_GUARDED_BY(mutex_) = false;
    Session session_ AOV_GUARDED_BY(mutex_);
    uint32_t sequence_ AOV_GUARDED_BY(mutex_) = 0;
    size_t next_scripted_ AOV_GUARDED_BY(mutex_) = 0;
    std::deque<Pending> pending_ AOV_GUARDED_BY(mutex_);
    std::set<int32_t> sensors_on_ AOV_GUARDED_BY(mutex_);
    uint32_t dequeue_calls_ AOV_GUARDED_BY(mutex_) = 0;
    uint32_t sensor_list_calls_ AOV_GUARDED_BY(mutex_) = 0;
    DequeueMark last_ AOV_GUARDED_BY(mutex_);
    DriverStats stats_ AOV_GUARDED_BY(mutex_);
};

}  // namespace aovsim
