#pragma once

// Where aov-sim reads the driver's counters and the event it last handed
// out: the driver object in this process, or the status file of an aov-kdev
// serving it elsewhere.

#include <string>

#include "aovsim/DriverStatus.h"
#include "aovsim/SimDriver.h"

namespace aovsimtool {

class DriverProbe {
  public:
    virtual ~DriverProbe() = default;
    // False when the driver cannot be asked (its server has gone away).
    virtual bool read(aovsim::DriverStatus* status) = 0;
    // The figures this driver cannot give, said once in the report; null when it gives them all.
    virtual const char* unavailable() const { return nullptr; }
};

// Refusals are left at 0: the driver records them in the session's own trace.
class InProcessProbe final : public DriverProbe {
  public:
    explicit InProcessProbe(aovsim::SimDriver& driver) : driver_(driver) {}
    bool read(aovsim::DriverStatus* status) override;

  private:
    aovsim::SimDriver& driver_;
};

class StatusFileProbe final : public DriverProbe {
  public:
    // Opens `path` for reading; check ok().
    explicit StatusFileProbe(const std::string& path);
    ~StatusFileProbe() override;
    StatusFileProbe(const StatusFileProbe&) = delete;
    StatusFileProbe& operator=(const StatusFileProbe&) = delete;

    bool ok() const { return fd_ >= 0; }
    bool read(aovsim::DriverStatus* status) override;

  private:
    int fd_ = -1;
};

}  // namespace aovsimtool
