// aov-sim: runs the AOV platform layer end to end on a simulated platform
// and driver, standing in for the feature's system layer.

#include <cstdio>
#include <memory>
#include <string>

#include "Excerpt.h"
#include "Options.h"
#include "ScenarioFile.h"
#include "SimReport.h"
#include "SystemLayer.h"
#include "Timeline.h"
#include "aovhost/Binding.h"
#include "aovsim/Simulation.h"
#include "cam/utils/ULog.h"

namespace {

using aovsimtool::kExitBadInput;

// The library's services are process-wide singletons that keep the platform
// objects they were given until exit. The simulation therefore lives in
// static storage too: constructed before the services, it is destroyed after
// them, and the bindings stay in place while their destructors run.
aovsim::Simulation& installSimulation(const aovsim::SimConfig& config,
                                      std::shared_ptr<aovsim::Trace> trace) {
    static aovsim::Simulation simulation(config, std::move(trace));
    return simulation;
}

// Bad input ends the run with one short line and exit 2.
int badInput(const std::string& problem) {
    std::fprintf(stderr, "aov-sim: error: %s\n", aovsimtool::oneLine(problem).c_str());
    return kExitBadInput;
}

void printLine(aovsim::TraceSource source, const std::string& line) {
    std::printf("[%s] %s\n", aovsim::traceSourceTag(source), line.c_str());
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
    const std::string problem = options.scenario_given
                                    ? aovsimtool::loadScenarioFile(options.scenario_path, &config)
                                    : aovsimtool::parseScenario(aovsimtool::defaultScenarioText(),
                                                                "(embedded default)", &config);
    if (!problem.empty()) {
        return badInput(problem);
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
    aovsim::Simulation& sim = installSimulation(config, trace);
    // With a timeline the driver's requests go through a timing node, bound
    // over the driver's own for the session.
    std::unique_ptr<aovhost::ScopedNode> timedNode;
    if (timeline) {
        trace->setTimeline(timeline.get());
        timedNode = std::make_unique<aovhost::ScopedNode>(
            aovsim::kAovNodePath, std::make_shared<aovsimtool::TimedNode>(sim.driver(), timeline));
    }
    aovsimtool::SimReport report(sim, timeline.get());
    aovsimtool::SystemLayer layer(options, report);
    int status = layer.run();
    if (timeline) {
        trace->setTimeline(nullptr);
        trace->setSink(printLine);
        std::string why;
        if (!timeline->finish(&why)) {
            std::fprintf(stderr, "aov-sim: error: %s\n", why.c_str());
            status = kExitBadInput;
        }
    }
    std::printf("aov-sim: exit %d\n", status);
    return status;
}
