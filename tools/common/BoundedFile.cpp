#include "BoundedFile.h"

#include "Failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace aovsimtool {

namespace {

// True for a regular file, else false with `problem` naming what it is.
[[nodiscard]] bool isRegular(mode_t mode, std::string* problem) {
    if (S_ISREG(mode)) {
        return true;
    }
    if (S_ISDIR(mode)) {
        return fail(problem, "it is a directory");
    }
    const char* kind = S_ISFIFO(mode)   ? "a FIFO"
                       : S_ISCHR(mode)  ? "a character device"
                       : S_ISBLK(mode)  ? "a block device"
                       : S_ISSOCK(mode) ? "a socket"
                                        : "not a file";
    return fail(problem, std::string("it is ") + kind + ", not a regular file");
}

std::string tooLarge(size_t limit) {
    return "it is larger than the limit of " + std::to_string(limit) + " bytes";
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

bool readRegularFile(const std::string& path, size_t limit, std::string* text,
                     std::string* problem) {
    if (path.empty()) {
        return fail(problem, "the path is empty");
    }
    // Checked before opening, as opening some devices does something, and
    // again on the open descriptor, in case the path changed in between.
    struct stat info;
    if (::stat(path.c_str(), &info) == 0 && !isRegular(info.st_mode, problem)) {
        return false;
    }
    // Non-blocking, so that a FIFO that slipped in opens without a writer.
    const Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) {
        return fail(problem, std::strerror(errno));
    }
    if (::fstat(fd.get(), &info) != 0) {
        return fail(problem, std::strerror(errno));
    }
    if (!isRegular(info.st_mode, problem)) {
        return false;
    }
    if (info.st_size < 0 || static_cast<unsigned long long>(info.st_size) > limit) {
        return fail(problem, tooLarge(limit));
    }
    // The size may change while reading (or be wrong, as for some kernel
    // files): read at most one byte past the limit to tell.
    std::string bytes(limit + 1, '\0');
    size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd.get(), &bytes[got], bytes.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return fail(problem, std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    if (got > limit) {
        return fail(problem, tooLarge(limit));
    }
    bytes.resize(got);
    *text = std::move(bytes);
    return true;
}

}  // namespace aovsimtool
