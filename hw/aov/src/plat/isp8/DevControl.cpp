#include "DevControl.h"

#include <cerrno>

#include "AOVLog.h"
#include "cam/system/SystemCall.h"

namespace {

constexpr char kSourcePath[] = "hw/aov/src/plat/isp8/DevControl";

constexpr int kClosedFd = -1;
// The node is not open.
constexpr int kNotOpen = -EINVAL;
static_assert(kNotOpen == -22, "a closed node answers -22");

}  // namespace

#define DEV_TRACE(line, fmt, ...) AOV_LOG_TRACE_AT(kSourcePath, line, fmt, ##__VA_ARGS__)
#define DEV_VERBOSE(line, fmt, ...) AOV_LOG_VERBOSE_AT(kSourcePath, line, fmt, ##__VA_ARGS__)
#define DEV_ERROR(line, fmt, ...) AOV_LOG_ERROR_AT(kSourcePath, line, fmt, ##__VA_ARGS__)

DevControl::DevControl(const std::string& name) : name_(name), fd_(kClosedFd) {
    DEV_TRACE(__LINE__, "[%s] %s device", __func__, name_.c_str());
}

DevControl::~DevControl() {
    // A descriptor whose earlier close failed gets one more attempt here.
    if (fd_ != kClosedFd) {
        close();
    }
}

int DevControl::open(int flags) {
    if (fd_ != kClosedFd) {
        DEV_VERBOSE(__LINE__, "[%s] fd(%d) opened", __func__, fd_);
        return 0;
    }
    DEV_TRACE(__LINE__, "[%s] %s open+", __func__, name_.c_str());
    const int result = SystemCall::open(name_.c_str(), flags);
    DEV_TRACE(__LINE__, "[%s] %s open(%d)-", __func__, name_.c_str(), result);
    if (result < 0) {
        DEV_ERROR(__LINE__, "failed to open device: %d", result);
        return result;
    }
    fd_ = result;
    return 0;
}

int DevControl::close() {
    if (fd_ == kClosedFd) {
        DEV_TRACE(__LINE__, "[%s] device fd(%d) closed", __func__, fd_);
        return kNotOpen;
    }
    DEV_TRACE(__LINE__, "[%s] %s close+", __func__, name_.c_str());
    const int result = SystemCall::close(fd_);
    DEV_TRACE(__LINE__, "[%s] %s close(%d)-", __func__, name_.c_str(), result);
    if (result < 0) {
        // The descriptor stays recorded as open, so the destructor tries again.
        DEV_ERROR(__LINE__, "failed to close device: %s", name_.c_str());
        return result;
    }
    fd_ = kClosedFd;
    return 0;
}

int DevControl::ioctl(int cmd, void* arg, bool flag, const char* name) {
    if (fd_ == kClosedFd) {
        DEV_TRACE(__LINE__, "[%s] device fd(%d) closed", __func__, fd_);
        return kNotOpen;
    }
    // Callers log their own failures.
    return SystemCall::ioctl(fd_, cmd, arg, flag, name);
}
