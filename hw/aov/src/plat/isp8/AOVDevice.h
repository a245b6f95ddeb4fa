#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "AOVLog.h"
#include "DetachedTask.h"
#include "DevControl.h"
#include "EventMonitor.h"
#include "EventObserver.h"
#include "IAOVDevice.h"
#include "cam/utils/ULog.h"
#include "kelo_aov.h"

// The AOV device service: drives "/dev/kelo_aov" and delivers its events.
class AOVDevice : public IAOVDevice, public DevControl, public EventObserver {
  public:
    static constexpr const char* kDevicePath = AOV_DEVICE_NODE;
    static constexpr int kEventType = 2;
    // aov_mode that selects the full event content.
    static constexpr int32_t kFullContentMode = AOV_MODE_FULL_CONTENT;

    explicit AOVDevice(const std::string& name);
    ~AOVDevice() override;

    bool isSupport() override;
    int startDevice(user_param& param) override;
    int setMonitor(EventMonitor* monitor) override;
    int getEventFD() override;
    int notifyUlposc3(bool enable) override;
    int notifySensor(const std::vector<int>& sensors, bool enable) override;
    int stopDevice() override;

    virtual const std::string& getEventName() override;
    virtual int getEventType() override;
    virtual void notifyEvent(int event, int verbosity) override;

    // Dequeues one event into the event buffer; the command's result, or -1 without a buffer.
    int queryEvent();

  private:
    // Body of the task that prepares the event buffer off the caller's thread.
    static void prepareEventBuffer(void* device);

    // The event path below is written in this header; its log lines carry this path.
    static constexpr char kHeaderSourcePath[] = "hw/aov/src/plat/isp8/AOVDevice.h";

    int32_t debug_device_;
    int32_t image_callback_;
    // Written by startDevice, read by the event path; a second start may land
    // while events are delivered, and either mode is then a valid answer.
    std::atomic<int32_t> aov_mode_;
    EventMonitor* monitor_;
    // Written by the allocation task, read by the event path.
    std::atomic<aov_event*> event_;
    std::atomic<bool> started_;
    // Completion of the task that allocates event_.
    DetachedTask future_;
};

#define AOV_DEVICE_H_TRACE(line, fmt, ...) \
    AOV_LOG_TRACE_AT(AOVDevice::kHeaderSourcePath, line, fmt, ##__VA_ARGS__)
#define AOV_DEVICE_H_ERROR(line, fmt, ...) \
    AOV_LOG_ERROR_AT(AOVDevice::kHeaderSourcePath, line, fmt, ##__VA_ARGS__)

inline void AOVDevice::notifyEvent(int /*event*/, int verbosity) {
    // Pairs with the release stores of startDevice and stopDevice.
    if (!started_.load(std::memory_order_acquire)) {
        if ((debug_device_ | verbosity) != 0) {
            AOV_DEVICE_H_TRACE(__LINE__, "[%s] AOV device is not started", __func__);
        }
        return;
    }
    const int result = queryEvent();
    if (result < 0) {
        AOV_DEVICE_H_ERROR(__LINE__, "failed to query event: %d", result);
        return;
    }
    if (!callback_) {
        // The event has been taken from the driver and is dropped.
        AOV_DEVICE_H_TRACE(__LINE__, "[%s] null notify event callback", __func__);
        return;
    }
    if ((debug_device_ | verbosity) != 0) {
        AOV_DEVICE_H_TRACE(__LINE__, "[%s] notify event callback+", __func__);
    }
    // queryEvent already loaded the pointer with acquire on this thread.
    callback_(event_.load(std::memory_order_relaxed));
    if ((debug_device_ | verbosity) != 0) {
        AOV_DEVICE_H_TRACE(__LINE__, "[%s] notify event callback-", __func__);
    }
}

inline int AOVDevice::queryEvent() {
    // Pairs with the release store of the allocation task, so the zero fill is
    // visible before the driver and this function write into the buffer.
    aov_event* const event = event_.load(std::memory_order_acquire);
    if (event == nullptr) {
        AOV_DEVICE_H_ERROR(__LINE__, "event_ is nullptr");
        return -1;
    }

    // The driver writes each data area in place through these addresses.
    aov_event_query query;
    std::memset(&query, 0, sizeof(query));
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        aov_query_set_area(&query, s,
                           reinterpret_cast<uint8_t*>(event) + aov_event_sections[s].data_offset);
    }

    if (debug_device_ != 0) {
        AOV_DEVICE_H_TRACE(__LINE__, "[%s] Dequeue event+", __func__);
    }
    const int result =
        DevControl::ioctl(static_cast<int>(AOV_IOC_DEQUEUE_EVENT), &query, false, nullptr);
    if (debug_device_ != 0) {
        AOV_DEVICE_H_TRACE(__LINE__, "[%s] Dequeue event-", __func__);
    }
    if (result < 0) {
        AOV_DEVICE_H_ERROR(__LINE__, "failed to query evice event: %d", result);
        return result;
    }

    // Words that are not copied keep what an earlier event left in the buffer.
    std::memcpy(event->header, query.header, sizeof(event->header));
    const int32_t mode = aov_mode_.load(std::memory_order_relaxed);
    if (event->header[kEventContentFlagIndex] == 0 && mode == 0) {
        return result;
    }
    std::memcpy(event->s4_info, query.s4_info, 3 * sizeof(uint32_t));
    std::memcpy(event->s5_info, query.s5_info, 3 * sizeof(uint32_t));
    const bool passImageWord = mode == kFullContentMode || image_callback_ != 0;
    event->s4_info[3] = passImageWord ? query.s4_info[3] : 0;
    event->s5_info[3] = passImageWord ? query.s5_info[3] : 0;
    event->s1_info = query.s1_info;
    event->s2_info = query.s2_info;
    event->s3_info = query.s3_info;
    if (mode == kFullContentMode) {
        std::memcpy(event->s6_info, query.s6_info, sizeof(event->s6_info));
        event->s7_info = query.s7_info;
        event->s8_info = query.s8_info;
        event->s9_info = query.s9_info;
        event->s10_info = query.s10_info;
    }
    return result;
}

#undef AOV_DEVICE_H_TRACE
#undef AOV_DEVICE_H_ERROR
