#pragma once

// A whole simulated platform, bound for the object's lifetime: the sensor
// list, customisation layer, coordinator and pipe manager through the host
// bindings, the AOV driver on "/dev/kelo_aov", and the debug-print channel
// into the trace. Construct it before the library's services are first
// obtained (they look the platform up once) and keep it alive as long as
// they live.

#include <atomic>
#include <cstdint>
#include <memory>

#include "aovhost/Binding.h"
#include "aovsim/SimConfig.h"
#include "aovsim/SimDriver.h"
#include "aovsim/SimForwarders.h"
#include "aovsim/SimPlatform.h"
#include "aovsim/Trace.h"

namespace aovsim {

// Receives the library's debug-print lines and records them in the trace.
class TraceLogSink final : public aovhost::DebugPrintSink {
  public:
    explicit TraceLogSink(std::shared_ptr<Trace> trace) : trace_(std::move(trace)) {}
    void write(int level, const char* text) override;
    uint64_t errorLines() const { return errors_.load(); }

  private:
    std::shared_ptr<Trace> trace_;
    std::atomic<uint64_t> errors_{0};
};

class Simulation {
  public:
    // With `bindNode` false the driver is left unbound: "/dev/kelo_aov" is
    // then whatever the operating system serves there.
    Simulation(const SimConfig& config, std::shared_ptr<Trace> trace, bool bindNode = true);
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    const SimConfig& config() const { return config_; }
    SimPlatform& platform() { return *platform_; }
    SimDriver& driver() { return *driver_; }
    Trace& trace() { return *trace_; }
    const TraceLogSink& logSink() const { return *log_sink_; }

  private:
    const SimConfig config_;
    std::shared_ptr<Trace> trace_;
    std::shared_ptr<SimPlatform> platform_;
    std::shared_ptr<SimDriver> driver_;
    std::shared_ptr<TraceLogSink> log_sink_;
    aovhost::ScopedBinding<NSCam::IHalSensorList> sensor_list_;
    aovhost::ScopedBinding<IAOVCustom> custom_;
    aovhost::ScopedBinding<coord::ICamCoordinator> coordinator_;
    aovhost::ScopedBinding<pipes::IPipeMgr> pipe_mgr_;
    aovhost::ScopedBinding<aovhost::DebugPrintSink> debug_print_;
    std::unique_ptr<aovhost::ScopedNode> node_;
};

}  // namespace aovsim
