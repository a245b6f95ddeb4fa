// A client of a node for the recorder's tests: makes a fixed series of calls
// on NODE (and one on OTHER) and prints each call's result and errno, so that
// a run under the recorder can be compared with a run without it.
// Usage: aov_rec_node_client NODE OTHER

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kelo_aov.h"

namespace {

void show(const char* what, long result) {
    std::printf("%s -> %ld errno %d\n", what, result, result < 0 ? errno : 0);
    errno = 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: aov_rec_node_client NODE OTHER\n");
        return 2;
    }
    const int fd = ::open(argv[1], O_RDWR);
    show("open node", fd);
    int pending = -1;
    show("ioctl FIONREAD", ::ioctl(fd, FIONREAD, &pending));
    std::printf("pending %d\n", pending);
    // A request the file does not know, with a record that cannot be read.
    void* hole = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    show("ioctl START unreadable", ::ioctl(fd, AOV_IOC_START, hole));
    unsigned char start[AOV_START_RECORD_SIZE] = {1, 2, 3};
    show("ioctl START", ::ioctl(fd, AOV_IOC_START, start));
    show("ioctl STOP", ::ioctl(fd, AOV_IOC_STOP, nullptr));
    pollfd p{fd, POLLIN, 0};
    show("poll", ::poll(&p, 1, 0));
    std::printf("revents %d\n", p.revents);
    // A wait for what a file never reports: it times out, nothing ready.
    pollfd priority{fd, POLLPRI, 0};
    show("poll priority", ::poll(&priority, 1, 0));
    std::printf("revents %d\n", priority.revents);
    const int ep = ::epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    show("epoll_ctl regular file", ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
    show("epoll_wait", ::epoll_wait(ep, &ev, 1, 0));

    const int other = ::open(argv[2], O_RDONLY);
    show("open other", other >= 0 ? 0 : -1);
    show("ioctl other FIONREAD", ::ioctl(other, FIONREAD, &pending));
    show("close other", ::close(other));

    const int again = ::openat(AT_FDCWD, argv[1], O_RDONLY);
    show("openat node", again >= 0 ? 0 : -1);
    show("close node", ::close(fd));
    show("close node twice", ::close(fd));
    show("ioctl closed node", ::ioctl(fd, AOV_IOC_STOP, nullptr));
    show("close openat node", ::close(again));
    show("close epoll", ::close(ep));
    show("open missing node", ::open("/nonexistent/kelo_aov", O_RDWR));
    return 0;
}
