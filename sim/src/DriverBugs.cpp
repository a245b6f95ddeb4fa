#include "aovsim/DriverBugs.h"

namespace aovsim {

namespace {

struct Named {
    DriverBug bug;
    const char* name;
};

constexpr Named kBugs[] = {
    {DriverBug::kOverrunArea, "overrun-area"},
    {DriverBug::kAcceptUnknownCode, "accept-unknown-code"},
    {DriverBug::kAcceptWrongSize, "accept-wrong-size"},
    {DriverBug::kNoReadiness, "no-readiness"},
    {DriverBug::kReadableAfterDrain, "readable-after-drain"},
    {DriverBug::kEventsAfterStop, "events-after-stop"},
    {DriverBug::kIgnoreAreaFault, "ignore-area-fault"},
    {DriverBug::kHangSensorOff, "hang-sensor-off"},
    {DriverBug::kBlockEmptyDequeue, "block-empty-dequeue"},
    {DriverBug::kKeepSessionOnClose, "keep-session-on-close"},
    {DriverBug::kOverrunBuffer, "overrun-buffer"},
};

}  // namespace

const char* driverBugName(DriverBug bug) {
    for (const Named& named : kBugs) {
        if (named.bug == bug) {
            return named.name;
        }
    }
    return "unknown";
}

bool driverBugFromName(const std::string& name, DriverBug* bug) {
    for (const Named& named : kBugs) {
        if (name == named.name) {
            *bug = named.bug;
            return true;
        }
    }
    return false;
}

std::string driverBugNames() {
    std::string names;
    for (const Named& named : kBugs) {
        names += names.empty() ? named.name : std::string(", ") + named.name;
    }
    return names;
}

}  // namespace aovsim
