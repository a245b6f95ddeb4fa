#include "MonitorWait.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace aovsimtool {

long armAsMonitor(int epfd, int fd) {
    epoll_event event{};
    event.events = 0;
    event.data.fd = fd;
    if (::epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event) != 0) {
        return -1;
    }
    event.events = EPOLLIN;
    return ::epoll_ctl(epfd, EPOLL_CTL_MOD, fd, &event);
}

long waitAsMonitor(int epfd, int waitMs) {
    epoll_event event{};
    int ready;
    while ((ready = ::epoll_wait(epfd, &event, 1, waitMs)) < 0 && errno == EINTR) {
    }
    return ready > 0 ? static_cast<long>(event.events) : ready;
}

long pollAsMonitor(int fd, int waitMs) {
    const int epfd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        return -1;
    }
    long result = armAsMonitor(epfd, fd);
    if (result == 0) {
        result = waitAsMonitor(epfd, waitMs);
    }
    const int error = errno;
    ::close(epfd);
    errno = error;
    return result;
}

}  // namespace aovsimtool
