// Command-line parsing. CLI11 reports through exceptions, so this file is
// built with them; nothing thrown leaves parseKdevOptions. Numbers are taken
// as text and read here, so that every one is range-checked with a clear
// message.

#include "KdevOptions.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "CliParse.h"
#include "Excerpt.h"
#include "Failure.h"
#include "NumberText.h"

namespace aovkdev {

using aovsimtool::fail;
using aovsimtool::ParseOutcome;

bool mountPointUsable(const std::string& dir, std::string* problem) {
    // A FUSE file system's magic number: the directory is already served.
    constexpr long kFuseMagic = 0x65735546;
    struct statfs fs;
    if (::statfs(dir.c_str(), &fs) != 0) {
        return fail(problem, std::strerror(errno));
    }
    if (static_cast<long>(fs.f_type) == kFuseMagic) {
        return fail(problem, "already served by a FUSE file system (another aov-kdev?)");
    }
    DIR* listing = ::opendir(dir.c_str());
    if (listing == nullptr) {
        return fail(problem, std::strerror(errno));
    }
    bool empty = true;
    errno = 0;
    while (const dirent* entry = ::readdir(listing)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            empty = false;
            break;
        }
    }
    const int error = errno;
    ::closedir(listing);
    if (empty && error != 0) {
        return fail(problem, std::strerror(error));
    }
    if (!empty) {
        return fail(problem, "not empty (mounting would hide what it holds)");
    }
    return true;
}

aovsimtool::ParseOutcome parseKdevOptions(int argc, const char* const* argv, KdevOptions* options,
                                          std::string* message) {
    CLI::App app{
        "Serves the emulated AOV driver as DIR/kelo_aov (and its counters as DIR/status)\n"
        "until it gets SIGTERM or SIGINT, or DIR is unmounted.",
        "aov-kdev"};
    app.get_formatter()->column_width(34);
    app.footer(
        "Faults (--fault NAME), each a bug a real driver could have; docs/compliance.md\n"
        "names the check that catches each:\n" +
        aovsim::driverBugHelp());
    KdevOptions& o = *options;

    // Required, but checked after the parse, so that an unknown option is
    // what a command line with both problems is told about.
    auto* mount = app.add_option("--mount", o.mount_dir,
                                 "An existing, empty directory to mount on (required)")
                      ->type_name("DIR");
    app.add_option("--scenario", o.scenario_path,
                   "The scenario whose driver settings, script and driver failures to use "
                   "(default: the embedded one)")
        ->type_name("FILE");
    app.add_flag("--quiet", o.quiet, "Do not print the driver's trace");
    app.add_flag("--exit-with-parent", o.exit_with_parent,
                 "Stop serving when the process that started aov-kdev ends, even if it crashed");
    app.add_option("--timeline", o.timeline_path,
                   "Write the driver's track (events queued, queue depth, requests served) to "
                   "FILE for aov-sim's timeline")
        ->type_name("FILE");

    std::vector<std::string> faultNames;
    app.add_option("--fault", faultNames,
                   "Make a driver bug on purpose (repeatable); NAME is one of the faults below")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);

    // Whole-number options: their text, where the number goes, its range.
    struct Number {
        const char* flags;
        const char* help;
        int64_t max;
        std::string text{};
        CLI::Option* option = nullptr;
        int64_t value = 0;
    };
    Number numbers[] = {
        {"--ready-fd", "Write \"ready\\n\" to descriptor N once mounted", 1 << 20},
        {"--die-at-dequeue", "Get killed at the N-th DEQUEUE_EVENT", 1000000000},
        {"--overlong-reply-at-dequeue",
         "Answer the N-th DEQUEUE_EVENT with more bytes than its code allows (the kernel "
         "refuses the answer)",
         1000000000},
    };
    for (Number& number : numbers) {
        number.option = app.add_option(number.flags, number.text, number.help)->type_name("N");
    }

    if (const ParseOutcome outcome = aovsimtool::parseCommandLine(app, argc, argv, message);
        outcome != ParseOutcome::kRun) {
        return outcome;
    }

    std::string error;
    for (Number& number : numbers) {
        if (number.option->count() > 0 &&
            !aovsimtool::readInteger(number.option->get_name(), number.text, 1, number.max,
                                     &number.value, &error)) {
            *message = aovsimtool::oneLine(error);
            return ParseOutcome::kError;
        }
    }
    for (const std::string& name : faultNames) {
        aovsim::DriverBug bug;
        if (!aovsim::driverBugFromName(name, &bug)) {
            *message = aovsimtool::oneLine("--fault: expected one of " + aovsim::driverBugNames() +
                                           ", got " + aovsimtool::excerpt(name));
            return ParseOutcome::kError;
        }
        o.bugs |= static_cast<aovsim::DriverBugs>(bug);
    }
    o.ready_fd = numbers[0].option->count() > 0 ? static_cast<int>(numbers[0].value) : -1;
    o.faults.die_at_dequeue = static_cast<uint32_t>(numbers[1].value);
    o.faults.overlong_reply_at_dequeue = static_cast<uint32_t>(numbers[2].value);

    if (mount->count() == 0) {
        *message = "--mount DIR is required (see --help)";
        return ParseOutcome::kError;
    }
    struct stat st;
    if (::stat(o.mount_dir.c_str(), &st) != 0) {
        *message = aovsimtool::oneLine("--mount " + aovsimtool::excerpt(o.mount_dir) + ": " +
                                       std::strerror(errno));
        return ParseOutcome::kError;
    }
    if (!S_ISDIR(st.st_mode)) {
        *message = aovsimtool::oneLine("--mount " + aovsimtool::excerpt(o.mount_dir) +
                                       ": not a directory");
        return ParseOutcome::kError;
    }
    std::string problem;
    if (!mountPointUsable(o.mount_dir, &problem)) {
        *message =
            aovsimtool::oneLine("--mount " + aovsimtool::excerpt(o.mount_dir) + ": " + problem);
        return ParseOutcome::kError;
    }
    return ParseOutcome::kRun;
}

}  // namespace aovkdev
