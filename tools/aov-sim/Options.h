#pragma once

#include <string>
#include <vector>

namespace aovsimtool {

// What the command line asks for. Optional numbers are "given" when set.
struct Options {
    std::string scenario_path;  // empty: the embedded default scenario
    bool print_scenario = false;

    bool sensor_given = false;
    int sensor = 0;
    bool size_given = false;
    int width = 0;
    int height = 0;
    bool fps_given = false;
    int fps = 0;
    bool force = false;  // hand an uncatalogued request to the library anyway

    int aov_mode = 0;
    int frame_info_sel = 0;

    bool events_given = false;
    int events = 5;
    double duration = 0;  // seconds; 0: run until `events` are delivered
    double timeout = 0;   // seconds; 0: derived from the event count and rate

    bool notify_ids_given = false;
    std::vector<int> notify_ids;

    bool trace = false;  // the library's trace lines
    int verbosity = 0;   // passed by the monitor to notifyEvent

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

enum class ParseOutcome { kRun, kHelpShown, kError };

// Parses the command line. On kError, `error` says what is wrong.
ParseOutcome parseOptions(int argc, char** argv, Options* options, std::string* error);

}  // namespace aovsimtool
