#pragma once

#include <functional>
#include <vector>

#include "AOVExport.h"
#include "aov_event.h"
#include "user_param.h"

class EventMonitor;

// The AOV device service: drives the AOV kernel driver and delivers its events.
class AOV_EXPORT IAOVDevice {
  public:
    static IAOVDevice* getInstance();

    virtual bool isSupport() = 0;
    // Sends the start record to the driver and prepares the event buffer; 0 on success.
    virtual int startDevice(user_param& param) = 0;
    virtual int setMonitor(EventMonitor* monitor) = 0;
    virtual int getEventFD() = 0;
    virtual int notifyUlposc3(bool enable) = 0;
    virtual int notifySensor(const std::vector<int>& sensors, bool enable) = 0;
    virtual int stopDevice() = 0;
    virtual ~IAOVDevice();

    // Receives each dequeued event, synchronously on the monitor's thread. The
    // buffer is valid until the next event and never after stopDevice. Assign it
    // before events can arrive and leave it alone while they can.
    std::function<void(aov_event*)> callback_;
};
