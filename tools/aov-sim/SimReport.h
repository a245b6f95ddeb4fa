#pragma once

#include <vector>

#include "DriverProbe.h"
#include "LatencyBreakdown.h"
#include "SessionReport.h"
#include "Timeline.h"
#include "aovbase/Mutex.h"
#include "aovsim/EpollEventMonitor.h"
#include "aovsim/ScriptedEvent.h"
#include "aovsim/Simulation.h"

namespace aovsimtool {

// aov-sim's report of a session: the system layer's lines go to the
// simulation's trace; each delivered event is checked against the content the
// simulated driver wrote (for scripted events, against the library's copy
// rules applied to the script) and timed from the driver's signal to the callback,
// stage by stage; the summary adds the driver's, the platform's and the
// monitor's counts. A driver that publishes no figures gets none of the
// driver's side: the summary says so once and counts nothing against it.
class SimReport final : public SessionReport {
  public:
    // `driver` tells what the driver did; `timeline`, when given, records the
    // session as well.
    SimReport(aovsim::Simulation& sim, DriverProbe& driver, Timeline* timeline = nullptr);

    void begin() override;
    void say(const std::string& line) override;
    std::unique_ptr<EventMonitor> makeMonitor(int verbosity,
                                              std::function<uint64_t()> delivered) override;
    void event(uint64_t number, const aov_event& event, int32_t aovMode) override;
    LibraryCallLog* libraryCalls() override { return timeline_; }

    // Replaces the check of each event's content against the simulated
    // driver (a replay has its own): returns the end of the event's line and
    // sets `mismatch` when the content is wrong.
    using ContentCheck = std::function<std::string(const aov_event& event, bool* mismatch)>;
    void setContentCheck(ContentCheck check) { content_check_ = std::move(check); }
    void summary(uint64_t delivered) override;

  private:
    // The summary's lines on the event monitor and on the platform after stop.
    void monitorAndPlatformLines();

    aovsim::Simulation& sim_;
    DriverProbe& driver_;
    Timeline* const timeline_;
    // The monitor made for the session; the system layer owns it and keeps it
    // until after the summary.
    const aovsim::EpollEventMonitor* monitor_ = nullptr;

    aov::Mutex mutex_;
    uint64_t content_mismatches_ AOV_GUARDED_BY(mutex_) = 0;
    std::vector<double> latencies_us_ AOV_GUARDED_BY(mutex_);
    LatencyBreakdown breakdown_ AOV_GUARDED_BY(mutex_);
    // With a script: what the callback's buffer should hold, event by event.
    std::unique_ptr<aovsim::ExpectedBuffer> expected_;
    bool image_callback_ = true;
    ContentCheck content_check_;
};

}  // namespace aovsimtool
