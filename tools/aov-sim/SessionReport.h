#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "EventMonitor.h"
#include "aov_event.h"

namespace aovsimtool {

// Where the system layer times its calls into the library, when anything does.
class LibraryCallLog {
  public:
    virtual ~LibraryCallLog() = default;
    // The call `name` ran from `begin` until now and returned `result` (for a
    // list, its length; for a pointer, 1 when not null).
    virtual void libraryCall(const char* name, std::chrono::steady_clock::time_point begin,
                             long long result) = 0;
};

// Where the stand-in system layer reports a session, and the one component it
// borrows from the desk around it: the watcher of the device's descriptor. A
// system layer on the device would log and bring its own monitor; aov-sim's
// implementation is SimReport, which also checks what the simulated driver
// produced against what the callback received.
class SessionReport {
  public:
    virtual ~SessionReport() = default;

    // The session begins: what it runs against.
    virtual void begin() = 0;
    // One line of the system layer's own.
    virtual void say(const std::string& line) = 0;
    // A watcher for the device. `delivered` counts the events that reached the
    // callback: a notification that leaves the descriptor readable without
    // moving it makes the monitor back off rather than spin.
    virtual std::unique_ptr<EventMonitor> makeMonitor(int verbosity,
                                                      std::function<uint64_t()> delivered) = 0;
    // The callback received its `number`th event, from a device started in `aovMode`.
    virtual void event(uint64_t number, const aov_event& event, int32_t aovMode) = 0;
    // Where to time the library calls; null when nobody records them.
    virtual LibraryCallLog* libraryCalls() { return nullptr; }
    // The session has ended and `delivered` events reached the callback.
    virtual void summary(uint64_t delivered) = 0;
};

}  // namespace aovsimtool
