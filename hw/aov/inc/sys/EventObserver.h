#pragma once

#include <string>

#include "AOVExport.h"

class EventMonitor;

// Opaque data that the system layer attaches to an observer.
struct UserCookie;

// Something that owns a file descriptor and wants to be told when it signals.
class AOV_EXPORT EventObserver {
  public:
    virtual ~EventObserver();

    virtual int setCookie(UserCookie* cookie) {
        cookie_ = cookie;
        return 0;
    }
    virtual UserCookie* getCookie() { return cookie_; }

    // Attaches the observer to `monitor` (null detaches); 0 on success.
    virtual int setMonitor(EventMonitor* monitor) = 0;
    virtual const std::string& getEventName() = 0;
    // The descriptor the monitor watches.
    virtual int getEventFD() = 0;
    virtual int getEventType() = 0;
    // Called by the monitor when the descriptor signals.
    virtual void notifyEvent(int event, int verbosity) = 0;

  protected:
    UserCookie* cookie_ = nullptr;
};
