// aov-compliance: checks an AOV driver node against what the AOV library
// relies on, with plain system calls, one line per check. CLI11 reports
// through exceptions, so this file is built with them; they are caught here.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Checks.h"

namespace {

constexpr int kExitBadInput = 2;
constexpr long kMaxMs = 600000;

int badInput(const std::string& problem) {
    std::string line = problem;
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    if (line.size() > 200) {
        line = line.substr(0, 200) + "...";
    }
    std::fprintf(stderr, "aov-compliance: error: %s\n", line.c_str());
    return kExitBadInput;
}

// A whole number of milliseconds, 1 to kMaxMs; false with `problem` set.
bool readMs(const std::string& what, const std::string& text, int* out, std::string* problem) {
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || text[0] == '+' || text[0] == ' ') {
        *problem =
            what + ": expected a whole number of milliseconds, got \"" + text.substr(0, 40) + "\"";
        return false;
    }
    if (errno == ERANGE || value < 1 || value > kMaxMs) {
        *problem =
            what + ": " + text.substr(0, 40) + " is out of range 1.." + std::to_string(kMaxMs);
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

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
    app.add_option("-d,--device", options.node, "the node to check (default /dev/kelo_aov)")
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return 0;
    } catch (const CLI::ParseError& e) {
        return badInput(std::string(e.what()) + " (see --help)");
    }

    std::string problem;
    if (!readMs("--timeout-ms", timeout, &options.timeout_ms, &problem) ||
        !readMs("--event-timeout-ms", eventTimeout, &options.event_timeout_ms, &problem)) {
        return badInput(problem);
    }
    if (!options.only.empty() && !aovcompliance::isCategory(options.only)) {
        return badInput("--only: unknown category \"" + options.only.substr(0, 40) +
                        "\" (open, requests, dequeue, readiness, lifecycle)");
    }
    if (options.node.empty()) {
        return badInput("-d: the node path is empty");
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
