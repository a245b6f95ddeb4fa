#include "DriverProbe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Excerpt.h"

namespace aovsimtool {

bool InProcessProbe::read(aovsim::DriverStatus* status) {
    status->started = driver_.started();
    status->stats = driver_.stats();
    status->last = driver_.lastDequeue();
    status->refusals = 0;
    return true;
}

StatusFileProbe::StatusFileProbe(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), open_error_(fd_ < 0 ? errno : 0) {}

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

std::unique_ptr<DriverProbe> probeStatusFile(const std::string& path, bool* valid) {
    *valid = false;
    const std::string where = pathExcerpt(path);
    auto probe = std::make_unique<StatusFileProbe>(path);
    if (!probe->ok()) {
        if (probe->openError() == ENOENT) {
            return std::make_unique<NoFiguresProbe>(
                "the driver publishes none (no aov-kdev status file " + where + ")");
        }
        return std::make_unique<NoFiguresProbe>(
            where + " cannot be read: " + std::strerror(probe->openError()));
    }
    aovsim::DriverStatus status;
    if (!probe->read(&status)) {
        return std::make_unique<NoFiguresProbe>(where + " does not hold an aov-kdev's figures");
    }
    *valid = true;
    return probe;
}

}  // namespace aovsimtool
