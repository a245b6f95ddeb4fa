// aov-compliance: checks an AOV driver node against what the AOV library
// relies on, with plain system calls, one line per check. CLI11's headers
// throw, so this file is built with exceptions; parsing catches them.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "Checks.h"
#include "CliParse.h"
#include "CommandLine.h"
#include "NumberText.h"
#include "kelo_aov.h"

namespace {

constexpr const char* kTool = "aov-compliance";
constexpr int kMaxMs = 600000;

}  // namespace

int main(int argc, char** argv) {
    aovcompliance::Options options;
    std::string timeout = std::to_string(options.timeout_ms);
    std::string eventTimeout = std::to_string(options.event_timeout_ms);

    CLI::App app(
        "Checks an AOV driver node against what the AOV library relies on: every request with "
        "good and bad arguments, the dequeue into the library's buffer layout, the node's "
        "readiness and its lifecycle. One line per check, then the totals; exit 0 only without "
        "failures, 2 on bad options.",
        "aov-compliance");
    app.add_option("-d,--device", options.node, "the node to check (default " AOV_DEVICE_NODE ")")
        ->type_name("PATH");
    app.add_flag("-v,--verbose", options.verbose, "also show every request's result and time");
    app.add_flag("--tap", options.tap, "write TAP version 13 instead of plain lines");
    app.add_option("--only", options.only,
                   "run the checks of one category: open, requests, dequeue, readiness, lifecycle")
        ->type_name("CATEGORY");
    app.add_option("--timeout-ms", timeout,
                   "the longest a request may take before it counts as blocked (default 2000)")
        ->type_name("N");
    app.add_option("--event-timeout-ms", eventTimeout,
                   "the longest to wait for an event after START (default 3000)")
        ->type_name("N");
    std::string message;
    switch (aovsimtool::parseCommandLine(app, argc, argv, &message)) {
        case aovsimtool::ParseOutcome::kHelp:
            std::fputs(message.c_str(), stdout);
            return aovsimtool::kExitOk;
        case aovsimtool::ParseOutcome::kError:
            return aovsimtool::badInput(kTool, message + " (see --help)");
        case aovsimtool::ParseOutcome::kRun:
            break;
    }

    std::string problem;
    if (!aovsimtool::readInteger("--timeout-ms", timeout, 1, kMaxMs, &options.timeout_ms,
                                 &problem) ||
        !aovsimtool::readInteger("--event-timeout-ms", eventTimeout, 1, kMaxMs,
                                 &options.event_timeout_ms, &problem)) {
        return aovsimtool::badInput(kTool, problem);
    }
    if (!options.only.empty() && !aovcompliance::isCategory(options.only)) {
        return aovsimtool::badInput(kTool,
                                    "--only: unknown category \"" + options.only.substr(0, 40) +
                                        "\" (open, requests, dequeue, readiness, lifecycle)");
    }
    if (options.node.empty()) {
        return aovsimtool::badInput(kTool, "-d: the node path is empty");
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int code = aovcompliance::runChecks(options, stdout);
    // A close left stuck in the driver shares this process's descriptor
    // table: closing the output here keeps it from holding a reader's pipe
    // open after the exit.
    std::fflush(stdout);
    std::fflush(stderr);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    return code;
}
