// aov-kdev: serves the emulated AOV driver as a file of a FUSE file system,
// so that clients reach it through real open, ioctl, poll and close calls.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "DriverTrack.h"
#include "KdevOptions.h"
#include "KdevServer.h"
#include "ScenarioFile.h"
#include "aovsim/DriverBugs.h"
#include "aovsim/Simulation.h"
#include "kelo_aov.h"

namespace {

aovkdev::KdevServer* g_server = nullptr;

void onStopSignal(int) {
    if (g_server != nullptr) {
        g_server->stop();
    }
}

int badInput(const std::string& problem) {
    return aovsimtool::badInput("aov-kdev", problem);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    aovkdev::KdevOptions options;
    std::string message;
    switch (aovkdev::parseKdevOptions(argc, argv, &options, &message)) {
        case aovsimtool::ParseOutcome::kHelp:
            std::fputs(message.c_str(), stdout);
            return 0;
        case aovsimtool::ParseOutcome::kError:
            return badInput(message);
        case aovsimtool::ParseOutcome::kRun:
            break;
    }

    aovsim::SimConfig config;
    std::string problem;
    const bool loaded =
        options.scenario_path.empty()
            ? aovsimtool::parseScenario(aovsimtool::defaultScenarioText(), "(embedded default)",
                                        &config, &problem)
            : aovsimtool::loadScenarioFile(options.scenario_path, &config, &problem);
    if (!loaded) {
        return badInput(problem);
    }

    auto trace = std::make_shared<aovsim::Trace>();
    if (!options.quiet) {
        trace->setSink([](aovsim::TraceSource source, const std::string& line) {
            std::printf("[%s] %s\n", aovsim::traceSourceTag(source), line.c_str());
        });
    }
    std::unique_ptr<aovsimtool::DriverTrackWriter> track;
    if (!options.timeline_path.empty()) {
        std::string why;
        track = aovsimtool::DriverTrackWriter::open(options.timeline_path, &why);
        if (!track) {
            return badInput(why);
        }
        trace->setTimeline(track.get());
    }
    auto driver =
        std::make_shared<aovsim::SimDriver>(AOV_DEVICE_NODE, config.driver, config.faults, trace);
    driver->setBugs(options.bugs);
    aovkdev::KdevServer server(driver, trace, config.name, options.faults);
    std::string why;
    if (!server.mount(options.mount_dir, &why)) {
        return badInput(why);
    }
    g_server = &server;
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
    ::signal(SIGPIPE, SIG_IGN);
    if (options.exit_with_parent) {
        // A parent that dies without stopping us (a crash) must not leave the
        // mount served, nor the parent's output pipe held open.
        const pid_t parent = ::getppid();
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (parent == 1 || ::getppid() != parent) {
            ::raise(SIGTERM);
        }
    }
    if (options.ready_fd >= 0) {
        const char ready[] = "ready\n";
        (void)!::write(options.ready_fd, ready, sizeof(ready) - 1);
        ::close(options.ready_fd);
    }
    const int result = server.serve();
    g_server = nullptr;
    if (result < 0) {
        std::fprintf(stderr, "aov-kdev: error: serving stopped: %s\n", std::strerror(-result));
        return 1;
    }
    return 0;
}
