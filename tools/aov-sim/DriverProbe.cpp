#include "DriverProbe.h"

#include <fcntl.h>
#include <unistd.h>

namespace aovsimtool {

bool InProcessProbe::read(aovsim::DriverStatus* status) {
    status->started = driver_.started();
    status->stats = driver_.stats();
    status->last = driver_.lastDequeue();
    status->refusals = 0;
    return true;
}

StatusFileProbe::StatusFileProbe(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

StatusFileProbe::~StatusFileProbe() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool StatusFileProbe::read(aovsim::DriverStatus* status) {
    if (fd_ < 0) {
        return false;
    }
    char text[2048];
    const ssize_t length = ::pread(fd_, text, sizeof(text), 0);
    if (length <= 0) {
        return false;
    }
    return aovsim::parseDriverStatus(std::string(text, static_cast<size_t>(length)), status);
}

}  // namespace aovsimtool
