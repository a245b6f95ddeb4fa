#include "aovsim/Simulation.h"

#include "kelo_aov.h"

namespace aovsim {

void TraceLogSink::write(int level, const char* text) {
    if (level >= 1) {
        ++errors_;
        if (TimelineHooks* timeline = trace_->timeline()) {
            timeline->libraryError(text ? text : "");
        }
    }
    trace_->record(TraceSource::kLibrary, text ? text : "");
}

Simulation::Simulation(const SimConfig& config, std::shared_ptr<Trace> trace, bool bindNode)
    : config_(config),
      trace_(std::move(trace)),
      platform_(std::make_shared<SimPlatform>(config_, trace_)),
      driver_(std::make_shared<SimDriver>(AOV_DEVICE_NODE, config_.driver, config_.faults, trace_)),
      log_sink_(std::make_shared<TraceLogSink>(trace_)),
      sensor_list_(std::make_shared<SimSensorList>(platform_)),
      custom_(std::make_shared<SimCustom>(platform_)),
      coordinator_(std::make_shared<SimCoordinator>(platform_)),
      pipe_mgr_(std::make_shared<SimPipeMgr>(platform_)),
      debug_print_(log_sink_),
      node_(bindNode ? std::make_unique<aovhost::ScopedNode>(AOV_DEVICE_NODE, driver_) : nullptr) {}

}  // namespace aovsim
