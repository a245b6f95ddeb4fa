#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"
#include "kelo_aov.h"

namespace aovtest {

// One request as the driver received it.
struct DriverRequest {
    unsigned int code;
    std::vector<uint8_t> in;  // the _IOC_SIZE bytes copied in from the argument
};

// An in-process stand-in for the AOV kernel driver. Like the real driver it
// copies in (and, for read requests, out) exactly the bytes the request
// code's size field names; open hands out an eventfd. Every dequeue delivers
// the standing event: its words go into the record, and `marker` is written
// through each data-area address into the first and last byte of the area.
// Thread-safe.
class FakeAovDriver : public aovhost::EmulatedNode {
  public:
    int open(int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned int request, void* arg) override;

    // A negative value makes every open fail with it.
    void setOpenResult(int result) {
        Guard guard(mutex_);
        open_result_ = result;
    }
    // Results of the next closes; an empty queue closes successfully.
    void queueCloseResult(int result) {
        Guard guard(mutex_);
        close_results_.push_back(result);
    }
    // Results of the next requests with `code`; afterwards they return 0.
    // A negative result skips the request's effect and copies nothing out.
    void queueResult(unsigned int code, int result) {
        Guard guard(mutex_);
        results_[code].push_back(result);
    }
    // Words of every later dequeue (the addresses in `words` are ignored).
    void setEvent(const aov_event_query& words, uint8_t marker);
    // Off: requests are not recorded (and the driver allocates nothing).
    void setRecording(bool on) {
        Guard guard(mutex_);
        recording_ = on;
    }

    std::vector<DriverRequest> requests() const {
        Guard guard(mutex_);
        return requests_;
    }
    std::vector<unsigned int> codes() const;
    size_t count(unsigned int code) const;
    void clearRequests() {
        Guard guard(mutex_);
        requests_.clear();
    }
    int opens() const { return opens_; }
    int closes() const { return closes_; }  // calls, successful or not
    int lastOpenFlags() const { return last_open_flags_; }

  private:
    using Guard = aov::MutexLock;
    mutable aov::Mutex mutex_;
    int open_result_ AOV_GUARDED_BY(mutex_) = 0;
    std::deque<int> close_results_ AOV_GUARDED_BY(mutex_);
    std::map<unsigned int, std::deque<int>> results_ AOV_GUARDED_BY(mutex_);
    aov_event_query event_ AOV_GUARDED_BY(mutex_){};
    uint8_t marker_ AOV_GUARDED_BY(mutex_) = 0;
    bool recording_ AOV_GUARDED_BY(mutex_) = true;
    std::vector<DriverRequest> requests_ AOV_GUARDED_BY(mutex_);
    std::atomic<int> opens_{0};
    std::atomic<int> closes_{0};
    std::atomic<int> last_open_flags_{-1};
};

}  // namespace aovtest
