#pragma once

#include <condition_variable>
#include <memory>

#include "aovbase/Mutex.h"

// A function run once on a new, detached thread, and the one handle that
// waits for it. The handle behaves like the future of an asynchronous launch:
// wait() blocks until the function has returned, and destroying or replacing
// a handle waits for its task too, so a task never outlives what it touches.
//
// It is built on the operating system's threads rather than the standard
// library's launch facility so that a failed thread creation comes back as a
// result that the caller can report, whichever standard library is in use,
// instead of an exception crossing code built without exceptions.
class DetachedTask {
  public:
    using Body = void (*)(void* context);

    DetachedTask() = default;
    ~DetachedTask();
    DetachedTask(DetachedTask&& other) noexcept = default;
    // Waits for the task this handle held before taking the other's.
    DetachedTask& operator=(DetachedTask&& other) noexcept;
    DetachedTask(const DetachedTask&) = delete;
    DetachedTask& operator=(const DetachedTask&) = delete;

    // Runs body(context) on a new detached thread. Returns 0 and sets `task`,
    // or the thread creation's error number and leaves `task` as it was.
    static int launch(Body body, void* context, DetachedTask* task);

    // True while the handle holds a task, finished or not.
    bool valid() const { return state_ != nullptr; }
    // Blocks until the task's function has returned; at once if there is none.
    void wait() const;

  private:
    struct State {
        Body body;
        void* context;
        aov::Mutex mutex;
        std::condition_variable finished;
        bool done AOV_GUARDED_BY(mutex) = false;
    };
    static void* run(void* state);

    std::shared_ptr<State> state_;
};
