#pragma once

// The emulated driver's frame timer: calls `tick` once per frame period, on a
// thread of its own, from start() until stop(). Missed periods are caught up
// with one call each.

#include <cstdint>
#include <functional>
#include <thread>

namespace aovsim {

class FrameTimer {
  public:
    explicit FrameTimer(std::function<void()> tick);
    ~FrameTimer();
    FrameTimer(const FrameTimer&) = delete;
    FrameTimer& operator=(const FrameTimer&) = delete;

    // Starts ticking at `frameRate` per second (1 or more); the timer must be stopped.
    void start(int32_t frameRate);
    // Stops ticking; once it returns no tick runs. Nothing to do when stopped.
    // Not from within `tick`.
    void stop();

  private:
    void loop();

    std::function<void()> tick_;
    std::thread thread_;
    int timer_fd_ = -1;
    int stop_fd_ = -1;
};

}  // namespace aovsim
