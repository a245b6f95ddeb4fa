#include "DetachedTask.h"

#include <pthread.h>

#include <utility>

DetachedTask::~DetachedTask() {
    wait();
}

DetachedTask& DetachedTask::operator=(DetachedTask&& other) noexcept {
    if (this != &other) {
        wait();
        state_ = std::move(other.state_);
    }
    return *this;
}

int DetachedTask::launch(Body body, void* context, DetachedTask* task) {
    auto state = std::make_shared<State>();
    state->body = body;
    state->context = context;
    // The thread holds its own reference, so the state outlives whichever of
    // the thread and the handle finishes last.
    auto* threadRef = new std::shared_ptr<State>(state);

    pthread_attr_t attr;
    int result = pthread_attr_init(&attr);
    if (result == 0) {
        result = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (result == 0) {
            pthread_t thread;
            result = pthread_create(&thread, &attr, &DetachedTask::run, threadRef);
        }
        pthread_attr_destroy(&attr);
    }
    if (result != 0) {
        delete threadRef;
        return result;
    }
    DetachedTask launched;
    launched.state_ = std::move(state);
    *task = std::move(launched);
    return 0;
}

void DetachedTask::wait() const {
    if (state_ == nullptr) {
        return;
    }
    aov::MutexLock lock(state_->mutex);
    while (!state_->done) {
        lock.wait(state_->finished);
    }
}

void* DetachedTask::run(void* arg) {
    auto* threadRef = static_cast<std::shared_ptr<State>*>(arg);
    State& state = **threadRef;
    state.body(state.context);
    {
        aov::MutexLock guard(state.mutex);
        state.done = true;
    }
    state.finished.notify_all();
    delete threadRef;
    return nullptr;
}
