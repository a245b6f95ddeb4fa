// aov-sim: runs the AOV platform layer end to end on a simulated platform
// and driver, standing in for the feature's system layer.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "DriverProbe.h"
#include "Excerpt.h"
#include "FuseKernel.h"
#include "Options.h"
#include "ReplayNode.h"
#include "ReplayPlan.h"
#include "ScenarioFile.h"
#include "SimReport.h"
#include "SystemLayer.h"
#include "Timeline.h"
#include "aovhost/Binding.h"
#include "aovsim/Simulation.h"
#include "cam/utils/ULog.h"
#include "kelo_aov.h"

namespace {

using aovsimtool::kExitBadInput;

// The library's services are process-wide singletons that keep the platform
// objects they were given until exit. The simulation therefore lives in
// static storage too: constructed before the services, it is destroyed after
// them, and the bindings stay in place while their destructors run.
aovsim::Simulation& installSimulation(const aovsim::SimConfig& config,
                                      std::shared_ptr<aovsim::Trace> trace, bool bindNode) {
    static aovsim::Simulation simulation(config, std::move(trace), bindNode);
    return simulation;
}

// The node's server, when the driver runs in aov-kdev. Static for the same
// reason: the services close the node while the process exits.
std::unique_ptr<aovsimtool::FuseKernel>& fuseKernel() {
    static std::unique_ptr<aovsimtool::FuseKernel> kernel;
    return kernel;
}

// Bad input ends the run with one short line and exit 2.
int badInput(const std::string& problem) {
    return aovsimtool::badInput("aov-sim", problem);
}

// An empty file for aov-kdev's driver track; its path, or empty.
std::string makeDriverTrackFile() {
    char path[] = "/tmp/aov-sim-driver-track.XXXXXX";
    const int fd = ::mkstemp(path);
    if (fd < 0) {
        return "";
    }
    ::close(fd);
    return path;
}

void removeFile(const std::string& path) {
    if (!path.empty()) {
        ::unlink(path.c_str());
    }
}

void printLine(aovsim::TraceSource source, const std::string& line) {
    std::printf("%s[%s] %s\n", aovsimtool::ReplayProgressLine::clearsProgress(),
                aovsim::traceSourceTag(source), line.c_str());
}

// The library left the recording: the run ends here, with the two requests.
void replayDiverged(const aovsimtool::ReplayDivergence& d) {
    std::printf("%s", aovsimtool::ReplayProgressLine::clearsProgress());
    std::fflush(stdout);
    std::fprintf(stderr,
                 "aov-sim: replay diverged at request %llu (record %llu of the recording):\n"
                 "  library:  %s\n  recorded: %s\n",
                 static_cast<unsigned long long>(d.request),
                 static_cast<unsigned long long>(d.record), d.library.c_str(), d.recorded.c_str());
    std::printf("aov-sim: exit %d\n", aovsimtool::kExitRuntimeFailure);
    std::fflush(stdout);
    std::_Exit(aovsimtool::kExitRuntimeFailure);
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line, so that a reader of a pipe sees the trace as it happens.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    aovsimtool::Options options;
    std::string message;
    switch (aovsimtool::parseOptions(argc, argv, &options, &message)) {
        case aovsimtool::ParseOutcome::kHelp:
            std::fputs(message.c_str(), stdout);
            return 0;
        case aovsimtool::ParseOutcome::kError:
            return badInput(message + " (see --help)");
        case aovsimtool::ParseOutcome::kRun:
            break;
    }
    if (options.print_scenario) {
        std::fputs(aovsimtool::defaultScenarioText(), stdout);
        return 0;
    }

    aovsim::SimConfig config;
    std::string problem;
    const bool loaded = options.scenario_given
                            ? aovsimtool::loadScenarioFile(options.scenario_path, &config, &problem)
                            : aovsimtool::parseScenario(aovsimtool::defaultScenarioText(),
                                                        "(embedded default)", &config, &problem);
    if (!loaded) {
        return badInput(problem);
    }

    // With --replay the driver answers from a recording, checked whole first.
    std::shared_ptr<aovsimtool::ReplayNode> replay;
    if (options.replay_given) {
        std::string why;
        replay = aovsimtool::ReplayNode::loadFile(options.replay_path, options.replay_speed, &why);
        if (!replay) {
            return badInput(why);
        }
        std::string unfit;
        if (!aovsimtool::fitReplayOptions(replay->plan(), &options, &unfit)) {
            return badInput(unfit);
        }
        replay->setDivergenceHandler(replayDiverged);
    }

    // The node's server, before any thread starts (it may change the mount namespace).
    std::unique_ptr<aovsimtool::FuseKernel>& fuse = fuseKernel();
    // With a timeline, the aov-kdev started here writes its driver's track to
    // a file of its own, merged at the end.
    std::string driverTrack;
    if (options.kernel_fuse) {
        if (options.timeline_given) {
            driverTrack = makeDriverTrackFile();
            if (driverTrack.empty()) {
                return badInput("cannot create a file for the driver track in /tmp");
            }
        }
        std::string why;
        fuse =
            aovsimtool::FuseKernel::attach(options.scenario_given ? options.scenario_path : "",
                                           options.kdev_dir, options.node_path, &why, driverTrack);
        if (!fuse) {
            removeFile(driverTrack);
            return badInput(why);
        }
    }

    // Properties and log switches first: the services read them when created.
    for (const auto* property : {&options.test_model, &options.view_mode, &options.debug_device,
                                 &options.image_callback}) {
        if (property->given) {
            aovhost::setProperty(property->name, std::to_string(property->value));
        }
    }
    if (options.trace) {
        NSCam::Utils::ULog::ULogger::sDetailsLevel = 5;
        NSCam::Utils::ULog::ULogger::sNormalDetailsMask = 0x101000;
    }

    std::shared_ptr<aovsimtool::Timeline> timeline;
    if (options.timeline_given) {
        std::string why;
        timeline = aovsimtool::Timeline::open(options.timeline_path, &why);
        if (!timeline) {
            removeFile(driverTrack);
            return badInput(why);
        }
    }

    auto trace = std::make_shared<aovsim::Trace>();
    if (timeline) {
        trace->setSink([timeline](aovsim::TraceSource source, const std::string& line) {
            timeline->traceLine(source, line);
            printLine(source, line);
        });
    } else {
        trace->setSink(printLine);
    }
    aovsim::Simulation& sim = installSimulation(config, trace, fuse == nullptr && !replay);
    // With a timeline the driver's requests go through a timing node, bound
    // over the driver's own (or over the node aov-kdev serves) for the session.
    std::unique_ptr<aovhost::ScopedNode> timedNode;
    if (timeline) {
        trace->setTimeline(timeline.get());
        std::shared_ptr<aovhost::EmulatedNode> node =
            fuse     ? std::make_shared<aovsimtool::SystemNode>(fuse->nodePath())
            : replay ? replay
                     : aovsimtool::borrowedNode(sim.driver());
        timedNode = std::make_unique<aovhost::ScopedNode>(
            AOV_DEVICE_NODE, std::make_shared<aovsimtool::TimedNode>(std::move(node), timeline));
    }
    std::unique_ptr<aovhost::ScopedNode> replayNode;
    if (replay && !timedNode) {
        replayNode = std::make_unique<aovhost::ScopedNode>(AOV_DEVICE_NODE, replay);
    }
    std::unique_ptr<aovsimtool::DriverProbe> probe;
    if (replay) {
        probe = std::make_unique<aovsimtool::ReplayProbe>(*replay);
        trace->record(aovsim::TraceSource::kSystem,
                      "driver: replay of " + options.replay_path + " (" + replay->describe() + ")");
    } else if (fuse) {
        probe = fuse->makeProbe();
        trace->record(aovsim::TraceSource::kSystem, "driver: " + fuse->describe());
    } else {
        probe = std::make_unique<aovsimtool::InProcessProbe>(sim.driver());
    }
    aovsimtool::SimReport report(sim, *probe, timeline.get());
    std::unique_ptr<aovsimtool::ReplayProgressLine> progress;
    if (replay) {
        report.setContentCheck([replay](const aov_event& event, bool*) {
            return " replayed areas: " +
                   replay->lastAreaDigests(reinterpret_cast<const uint8_t*>(&event));
        });
        if (::isatty(STDOUT_FILENO)) {
            progress = std::make_unique<aovsimtool::ReplayProgressLine>(*replay, stdout);
        }
    }
    aovsimtool::SystemLayer layer(options, report);
    int status = layer.run();
    progress.reset();
    if (replay) {
        replay->finish();  // a request the library did not send ends the run here
    }
    if (fuse) {
        std::string ending;
        if (!fuse->checkServer(&ending)) {
            std::fprintf(stderr, "aov-sim: error: %s\n", ending.c_str());
            status = status == 0 ? 1 : status;
        }
    }
    if (timeline) {
        trace->setTimeline(nullptr);
        trace->setSink(printLine);
        if (!driverTrack.empty()) {
            std::string problem;
            if (!timeline->mergeDriverTrack(driverTrack, &problem)) {
                std::fprintf(stderr, "aov-sim: warning: the driver track: %s\n",
                             aovsimtool::oneLine(problem).c_str());
            }
            removeFile(driverTrack);
        }
        std::string why;
        if (!timeline->finish(&why)) {
            std::fprintf(stderr, "aov-sim: error: %s\n", why.c_str());
            status = kExitBadInput;
        }
    }
    std::printf("aov-sim: exit %d\n", status);
    return status;
}
