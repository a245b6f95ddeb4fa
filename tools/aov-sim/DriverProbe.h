#pragma once

// Where aov-sim reads the driver's counters and the event it last handed
// out: the driver object in this process, or the status file of an aov-kdev
// serving it elsewhere. Any other driver offers neither.

#include <memory>
#include <string>

#include "aovsim/DriverStatus.h"
#include "aovsim/SimDriver.h"

namespace aovsimtool {

class DriverProbe {
  public:
    virtual ~DriverProbe() = default;
    // False when the driver cannot be asked (its server has gone away).
    virtual bool read(aovsim::DriverStatus* status) = 0;
    // True when the driver offers its figures; else false with `why` set to
    // why it does not. Without them nothing is known of what the driver
    // produced, so neither its counts nor the content it wrote can be checked.
    [[nodiscard]] virtual bool offersFigures(std::string* why) const {
        (void)why;
        return true;
    }
    // The figures a driver that answers still cannot give, said once in the
    // report; null when it gives them all.
    virtual const char* missingFigures() const { return nullptr; }
};

// A driver that publishes nothing: a device's, a prototype's.
class NoFiguresProbe final : public DriverProbe {
  public:
    explicit NoFiguresProbe(std::string why) : why_(std::move(why)) {}
    bool read(aovsim::DriverStatus*) override { return false; }
    bool offersFigures(std::string* why) const override {
        *why = why_;
        return false;
    }

  private:
    std::string why_;
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
    // Why the file did not open (an errno value), 0 when it did.
    int openError() const { return open_error_; }
    bool read(aovsim::DriverStatus* status) override;

  private:
    int fd_ = -1;
    int open_error_ = 0;
};

// The status file at `path` when it holds an aov-kdev's figures now, else a
// probe that says why there are none (no such file, unreadable, not an
// aov-kdev's). `valid` is set when the figures were read.
std::unique_ptr<DriverProbe> probeStatusFile(const std::string& path, bool* valid);

}  // namespace aovsimtool
