#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ModeRequest.h"

namespace aovsimtool {

// Limits of the numbers the command line takes.
constexpr int kMaxEvents = 1000000;
constexpr double kMaxSeconds = 86400;  // --duration and --timeout: one day
constexpr int kMaxSize = 0xFFFF;       // sizes are 16-bit in the sensor's static info
constexpr size_t kMaxNotifyIds = 1024;
constexpr double kMaxReplaySpeed = 1000000;

// What the command line asks for. Optional numbers are "given" when set.
struct Options : ModeRequest {
    bool scenario_given = false;  // false: the embedded default scenario
    std::string scenario_path;
    bool print_scenario = false;

    int aov_mode = 0;
    int frame_info_sel = 0;

    bool events_given = false;
    int events = 5;
    double duration = 0;  // seconds, 0 < d <= kMaxSeconds; 0: run until `events` are delivered
    double timeout = 0;   // seconds, 0 < t <= kMaxSeconds; 0: derived from the count and rate

    bool notify_ids_given = false;
    std::vector<int> notify_ids;

    bool trace = false;  // the library's trace lines
    int verbosity = 0;   // passed by the monitor to notifyEvent

    bool timeline_given = false;  // write the session's timeline to timeline_path
    std::string timeline_path;

    // Where the driver runs: in this process, or behind a node of the kernel:
    // the one an aov-kdev started by aov-sim serves, kdev_dir/kelo_aov when
    // kdev_dir is given, or node_path when that is given.
    bool kernel_fuse = false;
    std::string kdev_dir;
    std::string node_path;

    // Or the driver answers from a session recorded by aov-rec, at
    // `replay_speed` times the recorded pace (0: as fast as the library takes
    // the events).
    bool replay_given = false;
    std::string replay_path;
    double replay_speed = 1;

    // Properties, set only when given.
    struct Property {
        const char* name;
        bool given;
        int value;
    };
    Property test_model{"vendor.aovstream.test_model", false, 0};
    Property view_mode{"vendor.aovstream.view_mode", false, 0};
    Property debug_device{"vendor.aovstream.debug_device", false, 0};
    Property image_callback{"vendor.aovstream.image_callback", false, 1};
};

// Parses the command line. On kHelp, `message` is the help text; on kError,
// one line saying what is wrong and with which option.
[[nodiscard]] ParseOutcome parseOptions(int argc, const char* const* argv, Options* options,
                                        std::string* message);

}  // namespace aovsimtool
