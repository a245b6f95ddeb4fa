#pragma once

class EventObserver;

// The system layer's watcher of observer descriptors. It calls
// EventObserver::notifyEvent on its own thread, one notification at a time.
class EventMonitor {
  public:
    virtual ~EventMonitor() = default;

    // Starts watching `observer`. `fd` names the descriptor to watch; -1 means
    // the observer's own getEventFD(). Returns 0 on success.
    virtual int addObserver(EventObserver* observer, int fd) = 0;
    // Stops watching `observer`; `fd` as for addObserver. Returns 0 on success.
    virtual int removeObserver(EventObserver* observer, int fd) = 0;
};
