#include "aovsim/FrameTimer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace aovsim {

namespace {

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "aov driver: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

}  // namespace

FrameTimer::FrameTimer(std::function<void()> tick) : tick_(std::move(tick)) {
    timer_fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    stop_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (timer_fd_ < 0 || stop_fd_ < 0) {
        fatal("cannot create the frame timer");
    }
}

FrameTimer::~FrameTimer() {
    stop();
    ::close(timer_fd_);
    ::close(stop_fd_);
}

void FrameTimer::start(int32_t frameRate) {
    const long periodNs = 1000000000L / frameRate;
    itimerspec period{};
    period.it_interval.tv_sec = periodNs / 1000000000L;
    period.it_interval.tv_nsec = periodNs % 1000000000L;
    period.it_value = period.it_interval;
    if (::timerfd_settime(timer_fd_, 0, &period, nullptr) != 0) {
        fatal("cannot arm the frame timer");
    }
    thread_ = std::thread(&FrameTimer::loop, this);
}

void FrameTimer::stop() {
    if (!thread_.joinable()) {
        return;
    }
    const uint64_t one = 1;
    if (::write(stop_fd_, &one, sizeof(one)) != sizeof(one)) {
        fatal("cannot stop the frame timer");
    }
    thread_.join();
    uint64_t value;
    (void)!::read(stop_fd_, &value, sizeof(value));
    const itimerspec disarm{};
    ::timerfd_settime(timer_fd_, 0, &disarm, nullptr);
    (void)!::read(timer_fd_, &value, sizeof(value));
}

void FrameTimer::loop() {
    for (;;) {
        pollfd fds[2] = {{timer_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            fatal("frame timer poll failed");
        }
        if (fds[1].revents != 0) {
            return;
        }
        uint64_t ticks = 0;
        if ((fds[0].revents & POLLIN) != 0 &&
            ::read(timer_fd_, &ticks, sizeof(ticks)) == sizeof(ticks)) {
            for (uint64_t i = 0; i < ticks; ++i) {
                tick_();
            }
        }
    }
}

}  // namespace aovsim
