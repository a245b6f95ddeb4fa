#include "FakeAovDriver.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace aovtest {
namespace {

// The largest record of the interface, aov_sensor_list.
constexpr size_t kMaxRecordSize = sizeof(aov_sensor_list);

}  // namespace

int FakeAovDriver::open(int flags) {
    Guard guard(mutex_);
    ++opens_;
    last_open_flags_ = flags;
    if (open_result_ < 0) {
        return open_result_;
    }
    const int fd = ::eventfd(0, EFD_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

int FakeAovDriver::close(int fd) {
    Guard guard(mutex_);
    ++closes_;
    if (!close_results_.empty()) {
        const int result = close_results_.front();
        close_results_.pop_front();
        if (result < 0) {
            return result;
        }
    }
    return ::close(fd) < 0 ? -errno : 0;
}

int FakeAovDriver::ioctl(int, unsigned int request, void* arg) {
    Guard guard(mutex_);
    const size_t size = _IOC_SIZE(request);
    if (size > kMaxRecordSize) {
        return -EINVAL;
    }
    uint8_t record[kMaxRecordSize] = {};
    if (size > 0) {
        if (arg == nullptr) {
            return -EFAULT;
        }
        std::memcpy(record, arg, size);
    }
    if (recording_) {
        requests_.push_back({request, std::vector<uint8_t>(record, record + size)});
    }

    int result = 0;
    auto queued = results_.find(request);
    if (queued != results_.end() && !queued->second.empty()) {
        result = queued->second.front();
        queued->second.pop_front();
    }
    if (result < 0) {
        return result;
    }

    if (request == AOV_IOC_DEQUEUE_EVENT) {
        aov_event_query query = event_;
        for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
            auto* data = static_cast<uint8_t*>(
                aov_query_area(reinterpret_cast<const aov_event_query*>(record), s));
            // The record goes back with the caller's addresses.
            aov_query_set_area(&query, s, data);
            data[0] = marker_;
            data[aov_event_sections[s].data_size - 1] = marker_;
        }
        std::memcpy(record, &query, sizeof(query));
    }
    if ((_IOC_DIR(request) & _IOC_READ) != 0 && size > 0) {
        std::memcpy(arg, record, size);
    }
    return result;
}

void FakeAovDriver::setEvent(const aov_event_query& words, uint8_t marker) {
    Guard guard(mutex_);
    event_ = words;
    marker_ = marker;
}

std::vector<unsigned int> FakeAovDriver::codes() const {
    std::vector<unsigned int> codes;
    for (const auto& request : requests()) {
        codes.push_back(request.code);
    }
    return codes;
}

size_t FakeAovDriver::count(unsigned int code) const {
    const std::vector<unsigned int> all = codes();
    return static_cast<size_t>(std::count(all.begin(), all.end(), code));
}

}  // namespace aovtest
