#pragma once

// Where the checks' records and the event buffer live: MAP_SHARED, so that the
// children that make the requests write into the parent's copy, and fenced by
// pages nothing may touch.
//   [event buffer | canary tail to the page end] [guard]
//   [query record | canary to the page end] [guard]
//   [start record, sensor list, scratch, drain log] [guard = the faulting area]

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelo_aov.h"

namespace aovcompliance {

// What a drain made in one child leaves for the parent (Context::drainNode).
struct DrainLog {
    enum End : int32_t {
        kNoPollin,       // a poll showed no POLLIN: `revents` are its bits; with a
                         // dequeue after the drain, `value`, `error` and `call_us` are its
        kEmptyDequeue,   // drained, and in the dequeue after it (a child killed there
                         // was stuck in it)
        kPollFailed,     // a poll failed: `value` and `error`
        kDequeueFailed,  // POLLIN, but a dequeue failed: `value` and `error`
        kLimit,          // still POLLIN after the most dequeues or the time allowed
        kArmFailed,      // drained, but epoll_ctl failed: `value` and `error`
        kLookFailed,     // drained and armed, but epoll_wait failed: `value` and `error`
    };
    int32_t end;
    int32_t dequeues;
    int64_t revents;   // the last poll's bits
    int64_t value;     // the failed call's result
    int32_t error;     // and its errno
    int64_t call_us;   // how long the last call took
    int64_t drain_us;  // how long the whole drain took
    int64_t armed;     // with a watch to arm: what it showed at once (0, or its bits)
    // Dequeues that returned the same record, byte for byte, as the one before.
    int32_t repeats;
};

class Arena {
  public:
    static constexpr uint8_t kCanary = 0xA5;
    static constexpr int32_t kFrameRate = 10;

    Arena() = default;
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // False, errno set, when the memory cannot be mapped or fenced.
    bool map();

    uint8_t* event() { return event_; }
    size_t eventSpan() const { return event_span_; }
    aov_event_query* query() { return reinterpret_cast<aov_event_query*>(query_); }
    uint8_t* queryBytes() { return query_; }
    size_t page() const { return page_; }
    uint8_t* scratch() { return scratch_; }
    void* faulting() { return fault_; }
    DrainLog* drainLog() { return reinterpret_cast<DrainLog*>(scratch_ + kDrainLogAt); }

    // A 200-byte START record: frame rate 10, full-content mode, the rest 0.
    uint8_t* startRecord();
    // A sensor list of `count` (ids 0, 1, ...), behind the start record.
    aov_sensor_list* sensorList(uint32_t count);
    // Fills the event buffer and what follows it with the canary and sets the
    // record's ten addresses as the library does, or all to the faulting page.
    void prepareDequeue(bool faulting);

    // True when nothing outside the ten areas changed since prepareDequeue,
    // else false with `outside` set to how many bytes, after which area, and
    // the first offset.
    [[nodiscard]] bool writesOnlyInAreas(std::string* outside) const;
    // True when the record's padding, its addresses and the bytes after it
    // are as prepareDequeue left them, else false with `damage` set to the
    // first change.
    [[nodiscard]] bool recordIntact(bool faulting, std::string* damage) const;

  private:
    // Behind the start record, the sensor list and the wrong-size records.
    static constexpr size_t kDrainLogAt = 2048;

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

// "0x00008824".
std::string hex(unsigned long value);

}  // namespace aovcompliance
