// aov-kdev: serves the emulated AOV driver as a file of a FUSE file system,
// so that clients reach it through real open, ioctl, poll and close calls.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "DriverTrack.h"
#include "Excerpt.h"
#include "KdevServer.h"
#include "NumberText.h"
#include "ScenarioFile.h"
#include "aovsim/Simulation.h"

namespace {

constexpr int kExitBadInput = 2;

const char kUsage[] =
    "Usage: aov-kdev --mount DIR [options]\n"
    "Serves the emulated AOV driver as DIR/kelo_aov (and its counters as DIR/status)\n"
    "until it gets SIGTERM or SIGINT, or DIR is unmounted.\n"
    "\n"
    "Options:\n"
    "  --mount DIR                  an existing, empty directory to mount on\n"
    "  --scenario FILE              the scenario whose driver settings, script and\n"
    "                               driver failures to use (default: the embedded one)\n"
    "  --ready-fd N                 write \"ready\\n\" to descriptor N once mounted\n"
    "  --quiet                      do not print the driver's trace\n"
    "  --timeline FILE              write the driver's track (events queued, queue\n"
    "                               depth, requests served) to FILE for aov-sim's timeline\n"
    "  --die-at-dequeue N           get killed at the N-th DEQUEUE_EVENT\n"
    "  --overlong-reply-at-dequeue N\n"
    "                               answer the N-th DEQUEUE_EVENT with more bytes than\n"
    "                               its code allows (the kernel refuses the answer)\n"
    "  -h, --help                   this text\n";

aovkdev::KdevServer* gServer = nullptr;

void onStopSignal(int) {
    if (gServer != nullptr) {
        gServer->stop();
    }
}

int badInput(const std::string& problem) {
    std::fprintf(stderr, "aov-kdev: error: %s\n", aovsimtool::oneLine(problem).c_str());
    return kExitBadInput;
}

bool readCount(const char* what, const char* text, int64_t max, int64_t* out,
               std::string* problem) {
    switch (aovsimtool::parseInteger(text, 1, max, out)) {
        case aovsimtool::NumberStatus::kOk:
            return true;
        case aovsimtool::NumberStatus::kMalformed:
            *problem =
                std::string(what) + ": expected a whole number, got " + aovsimtool::excerpt(text);
            return false;
        case aovsimtool::NumberStatus::kOutOfRange:
            *problem = std::string(what) + ": " + aovsimtool::excerpt(text) +
                       " is out of range 1.." + std::to_string(max);
            return false;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string mountDir;
    std::string scenarioPath;
    std::string timelinePath;
    bool quiet = false;
    int64_t readyFd = -1;
    aovkdev::ServerFaults faults;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--quiet") {
            quiet = true;
            continue;
        }
        const bool takesValue = arg == "--mount" || arg == "--scenario" || arg == "--ready-fd" ||
                                arg == "--timeline" || arg == "--die-at-dequeue" ||
                                arg == "--overlong-reply-at-dequeue";
        if (!takesValue) {
            return badInput("unknown option " + aovsimtool::excerpt(arg) + " (see --help)");
        }
        if (i + 1 >= argc) {
            return badInput(arg + ": a value is missing");
        }
        const char* value = argv[++i];
        std::string problem;
        int64_t number = 0;
        if (arg == "--mount") {
            mountDir = value;
        } else if (arg == "--scenario") {
            scenarioPath = value;
        } else if (arg == "--timeline") {
            timelinePath = value;
        } else if (!readCount(arg.c_str(), value, arg == "--ready-fd" ? 1 << 20 : 1000000000,
                              &number, &problem)) {
            return badInput(problem);
        } else if (arg == "--ready-fd") {
            readyFd = number;
        } else if (arg == "--die-at-dequeue") {
            faults.die_at_dequeue = static_cast<uint32_t>(number);
        } else {
            faults.overlong_reply_at_dequeue = static_cast<uint32_t>(number);
        }
    }
    if (mountDir.empty()) {
        return badInput("--mount DIR is required (see --help)");
    }
    struct stat st;
    if (::stat(mountDir.c_str(), &st) != 0) {
        return badInput("--mount " + aovsimtool::excerpt(mountDir) + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(st.st_mode)) {
        return badInput("--mount " + aovsimtool::excerpt(mountDir) + ": not a directory");
    }

    aovsim::SimConfig config;
    const std::string problem = scenarioPath.empty()
                                    ? aovsimtool::parseScenario(aovsimtool::defaultScenarioText(),
                                                                "(embedded default)", &config)
                                    : aovsimtool::loadScenarioFile(scenarioPath, &config);
    if (!problem.empty()) {
        return badInput(problem);
    }

    auto trace = std::make_shared<aovsim::Trace>();
    if (!quiet) {
        trace->setSink([](aovsim::TraceSource source, const std::string& line) {
            std::printf("[%s] %s\n", aovsim::traceSourceTag(source), line.c_str());
        });
    }
    std::unique_ptr<aovsimtool::DriverTrackWriter> track;
    if (!timelinePath.empty()) {
        std::string why;
        track = aovsimtool::DriverTrackWriter::open(timelinePath, &why);
        if (!track) {
            return badInput(why);
        }
        trace->setTimeline(track.get());
    }
    auto driver = std::make_shared<aovsim::SimDriver>(aovsim::kAovNodePath, config.driver,
                                                      config.faults, trace);
    aovkdev::KdevServer server(driver, trace, config.name, faults);
    std::string why;
    if (!server.mount(mountDir, &why)) {
        return badInput(why);
    }
    gServer = &server;
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
    ::signal(SIGPIPE, SIG_IGN);
    if (readyFd >= 0) {
        const char ready[] = "ready\n";
        (void)!::write(static_cast<int>(readyFd), ready, sizeof(ready) - 1);
        ::close(static_cast<int>(readyFd));
    }
    const int result = server.serve();
    gServer = nullptr;
    if (result < 0) {
        std::fprintf(stderr, "aov-kdev: error: serving stopped: %s\n", std::strerror(-result));
        return 1;
    }
    return 0;
}
