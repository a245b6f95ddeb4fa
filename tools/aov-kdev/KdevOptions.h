#pragma once

// aov-kdev's command line.

#include <string>

#include "CommandLine.h"
#include "KdevServer.h"

namespace aovkdev {

struct KdevOptions {
    std::string mount_dir;          // an existing directory to mount on
    std::string scenario_path;      // empty: the embedded scenario
    int ready_fd = -1;              // where to say "ready", if given
    bool quiet = false;             // no driver trace
    bool exit_with_parent = false;  // stop when the process that started it ends
    std::string timeline_path;      // where to write the driver track, if given
    ServerFaults faults;
    aovsim::DriverBugs bugs = 0;  // driver bugs made on purpose (--fault)
};

// Whether `dir`, an existing directory, can be mounted on; false with
// `problem` set when it is already a FUSE mount (served), or not empty.
[[nodiscard]] bool mountPointUsable(const std::string& dir, std::string* problem);

// Parses the command line. On kHelp, `message` is the help text; on kError,
// one line saying what is wrong and with which option.
[[nodiscard]] aovsimtool::ParseOutcome parseKdevOptions(int argc, const char* const* argv,
                                                        KdevOptions* options, std::string* message);

}  // namespace aovkdev
