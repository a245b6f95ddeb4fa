#include "AOVDevice.h"

#include <fcntl.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cam/utils/Properties.h"

namespace {

constexpr char kSourcePath[] = "hw/aov/src/plat/isp8/AOVDevice";

constexpr char kPropDebugDevice[] = "vendor.aovstream.debug_device";
constexpr char kPropImageCallback[] = "vendor.aovstream.image_callback";

constexpr int kOpenReadWrite = O_RDWR;
static_assert(kOpenReadWrite == 2, "the node is opened with flags 2");

// The start command sends the caller's user_param as the driver's start record.
static_assert(kUserParamKernelSize == AOV_START_RECORD_SIZE, "start record size");
static_assert(offsetof(user_param, sensor_id) == AOV_START_SENSOR_ID, "start record");
static_assert(offsetof(user_param, scenario) == AOV_START_SCENARIO, "start record");
static_assert(offsetof(user_param, orientation) == AOV_START_ORIENTATION, "start record");
static_assert(offsetof(user_param, face) == AOV_START_FACE, "start record");
static_assert(offsetof(user_param, mode_head) == AOV_START_MODE_HEAD, "start record");
static_assert(offsetof(user_param, frame_info0) == AOV_START_FRAME_INFO_LO, "start record");
static_assert(offsetof(user_param, frame_info2) == AOV_START_FRAME_INFO_HI, "start record");
static_assert(offsetof(user_param, frame_rate) == AOV_START_FRAME_RATE, "start record");
static_assert(offsetof(user_param, frame_info_sel) == AOV_START_FRAME_INFO_SEL, "start record");
static_assert(offsetof(user_param, aov_mode) == AOV_START_AOV_MODE, "start record");
static_assert(offsetof(user_param, sensor_idx) == AOV_START_SENSOR_IDX, "start record");

static_assert(sizeof(int) == sizeof(int32_t), "sensor ids are copied as 32-bit words");

// The nothrow form of the replaceable allocation function: the library has no
// exceptions, so a failure shows up as null, and the task that allocates has
// no way to report it, so it aborts. Being the ordinary global allocator, it
// stays visible to whatever allocator the process installs.
aov_event* allocateEventBuffer() {
    void* block = ::operator new(kEventBufferSize, std::nothrow);
    if (block == nullptr) {
        AOV_LOG_ERROR_AT(kSourcePath, __LINE__, "failed to allocate the event buffer (%zu bytes)",
                         kEventBufferSize);
        std::abort();
    }
    std::memset(block, 0, kEventBufferSize);
    return static_cast<aov_event*>(block);
}

void freeEventBuffer(aov_event* event) {
    ::operator delete(static_cast<void*>(event));
}

}  // namespace

#define DEVICE_ERROR(line, fmt, ...) AOV_LOG_ERROR_AT(kSourcePath, line, fmt, ##__VA_ARGS__)

using NSCam::Utils::Properties::property_get_int32;

IAOVDevice* IAOVDevice::getInstance() {
    static AOVDevice instance{std::string(AOVDevice::kDevicePath)};
    return &instance;
}

AOVDevice::AOVDevice(const std::string& name)
    : IAOVDevice(),
      DevControl(name),
      EventObserver(),
      debug_device_(0),
      image_callback_(1),
      aov_mode_(0),
      monitor_(nullptr),
      event_(nullptr),
      started_(false),
      future_() {
    debug_device_ = property_get_int32(kPropDebugDevice, 0);
    image_callback_ = property_get_int32(kPropImageCallback, 1);
    // A node that cannot be opened leaves a usable object whose commands fail with -22.
    if (DevControl::open(kOpenReadWrite) < 0) {
        DEVICE_ERROR(__LINE__, "failed to open AOV device");
    }
}

// The event buffer is not freed here: only stopDevice releases it. future_ is
// destroyed after this body and waits for a task that is still running.
AOVDevice::~AOVDevice() {
    if (DevControl::close() < 0) {
        DEVICE_ERROR(__LINE__, "failed to close AOV device");
    }
}

bool AOVDevice::isSupport() {
    return true;
}

int AOVDevice::startDevice(user_param& param) {
    aov_mode_.store(param.aov_mode, std::memory_order_relaxed);
    // The start command carries the first kUserParamKernelSize bytes of the caller's record.
    const int result = DevControl::ioctl(static_cast<int>(AOV_IOC_START), &param, false, nullptr);
    if (result < 0) {
        DEVICE_ERROR(__LINE__, "failed to set sensor info: %d", result);
        return result;
    }
    // The 2.3 MB buffer is prepared off the caller's thread. Replacing future_
    // waits for an earlier task that is still running. A thread that cannot be
    // created cannot be reported through the result: it is fatal.
    const int launched = DetachedTask::launch(&AOVDevice::prepareEventBuffer, this, &future_);
    if (launched != 0) {
        DEVICE_ERROR(__LINE__, "thread constructor failed: %s", std::strerror(launched));
        std::abort();
    }
    started_.store(true, std::memory_order_release);
    return 0;
}

void AOVDevice::prepareEventBuffer(void* device) {
    // A buffer of an earlier start that was never stopped is overwritten, not
    // freed: the leak is deliberate, the system layer relies on start being
    // repeatable without a stop. Release: the zero fill is visible to whoever
    // acquires the pointer.
    static_cast<AOVDevice*>(device)->event_.store(allocateEventBuffer(), std::memory_order_release);
}

int AOVDevice::stopDevice() {
    // Deliveries that start after this return without touching the buffer.
    started_.store(false, std::memory_order_release);
    if (future_.valid()) {
        future_.wait();
    }
    // The wait above synchronises with the task, so relaxed suffices here.
    aov_event* const event = event_.load(std::memory_order_relaxed);
    if (event != nullptr) {
        freeEventBuffer(event);
        event_.store(nullptr, std::memory_order_relaxed);
    }
    const int result = DevControl::ioctl(static_cast<int>(AOV_IOC_STOP), nullptr, false, nullptr);
    if (result < 0) {
        DEVICE_ERROR(__LINE__, "failed to stop device: %d", result);
        return result;
    }
    return 0;
}

int AOVDevice::setMonitor(EventMonitor* monitor) {
    EventObserver* const observer = this;
    if (monitor_ != nullptr) {
        monitor_->removeObserver(observer, -1);
    }
    monitor_ = monitor;
    if (monitor_ != nullptr) {
        monitor_->addObserver(observer, -1);
    }
    return 0;
}

int AOVDevice::getEventFD() {
    return fd_;
}

const std::string& AOVDevice::getEventName() {
    return name_;
}

int AOVDevice::getEventType() {
    return kEventType;
}

int AOVDevice::notifyUlposc3(bool enable) {
    const unsigned int command = enable ? AOV_IOC_ULPOSC3_ON : AOV_IOC_ULPOSC3_OFF;
    const int result = DevControl::ioctl(static_cast<int>(command), nullptr, false, nullptr);
    if (result < 0) {
        DEVICE_ERROR(__LINE__, "failed to notify ulposc3: ret(%d), enable(%d)", result,
                     enable ? 1 : 0);
        return result;
    }
    return 0;
}

int AOVDevice::notifySensor(const std::vector<int>& sensors, bool enable) {
    const int32_t count = static_cast<int32_t>(sensors.size());
    if (count < 1) {
        return 0;
    }
    // Zeroed once: a short last chunk keeps the previous chunk's ids behind
    // `count`, which alone tells the driver how many entries are valid.
    aov_sensor_list record;
    std::memset(&record, 0, sizeof(record));
    const unsigned int command = enable ? AOV_IOC_SENSOR_ON : AOV_IOC_SENSOR_OFF;

    int32_t remaining = count;
    int32_t first = 0;
    for (;;) {
        const int32_t chunk =
            remaining <= AOV_MAX_SENSORS_PER_REQUEST ? remaining : AOV_MAX_SENSORS_PER_REQUEST;
        record.count = static_cast<uint32_t>(chunk);
        std::memcpy(record.sensor_ids, sensors.data() + first,
                    static_cast<size_t>(chunk) * sizeof(int32_t));
        const int result = DevControl::ioctl(static_cast<int>(command), &record, false, nullptr);
        if (result < 0) {
            // Chunks already sent stay sent.
            DEVICE_ERROR(__LINE__, "failed to notify sensor: %d", result);
            return result;
        }
        if (remaining <= AOV_MAX_SENSORS_PER_REQUEST) {
            break;
        }
        remaining -= AOV_MAX_SENSORS_PER_REQUEST;
        first += AOV_MAX_SENSORS_PER_REQUEST;
    }
    return 0;
}
