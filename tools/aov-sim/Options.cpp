// Command-line parsing. CLI11 reports through exceptions, so this file is
// built with them; nothing thrown leaves parseOptions. Numbers are taken as
// text and read here, so that every one is range-checked with a clear message.

#include "Options.h"

#include <cstdint>
#include <limits>

#include "CliParse.h"
#include "Excerpt.h"
#include "NumberText.h"

namespace aovsimtool {

namespace {

constexpr int64_t kIntMin = std::numeric_limits<int>::min();
constexpr int64_t kIntMax = std::numeric_limits<int>::max();

// Reads a whole number given to `what` (e.g. "--fps") into `out`.
[[nodiscard]] bool readInt(const std::string& what, const std::string& text, int64_t min,
                           int64_t max, int* out, std::string* error) {
    int64_t value = 0;
    if (!readInteger(what, text, min, max, &value, error)) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

[[nodiscard]] bool readSeconds(const std::string& what, const std::string& text, double* out,
                               std::string* error) {
    switch (parseSeconds(text, kMaxSeconds, out)) {
        case NumberStatus::kOk:
            return true;
        case NumberStatus::kMalformed:
            *error = what + ": expected a number of seconds, got " + excerpt(text);
            return false;
        case NumberStatus::kOutOfRange:
            *error = what + ": " + excerpt(text) + " is out of range: more than 0, at most " +
                     std::to_string(static_cast<int>(kMaxSeconds)) + " seconds";
            return false;
    }
    return false;
}

// WIDTHxHEIGHT, each a whole number in 1..kMaxSize.
[[nodiscard]] bool readSize(const std::string& text, int* width, int* height, std::string* error) {
    const auto x = text.find('x');
    if (x == std::string::npos || text.find('x', x + 1) != std::string::npos) {
        *error = "--size: expected WIDTHxHEIGHT with positive numbers, got " + excerpt(text);
        return false;
    }
    std::string problem;
    if (!readInt("--size: width", text.substr(0, x), 1, kMaxSize, width, &problem) ||
        !readInt("--size: height", text.substr(x + 1), 1, kMaxSize, height, &problem)) {
        *error = problem;
        return false;
    }
    return true;
}

// Comma-separated sensor ids.
[[nodiscard]] bool readIds(const std::string& text, std::vector<int>* ids, std::string* error) {
    size_t start = 0;
    for (;;) {
        if (ids->size() == kMaxNotifyIds) {
            *error = "--notify-ids: more than " + std::to_string(kMaxNotifyIds) + " ids";
            return false;
        }
        const auto comma = text.find(',', start);
        const std::string id =
            text.substr(start, comma == std::string::npos ? comma : comma - start);
        int value = 0;
        if (!readInt("--notify-ids: id " + std::to_string(ids->size() + 1), id, kIntMin, kIntMax,
                     &value, error)) {
            return false;
        }
        ids->push_back(value);
        if (comma == std::string::npos) {
            return true;
        }
        start = comma + 1;
    }
}

}  // namespace

ParseOutcome parseOptions(int argc, const char* const* argv, Options* options,
                          std::string* message) {
    CLI::App app{
        "Runs the AOV platform layer on a simulated platform and driver: discovers the sensors,\n"
        "starts one in always-on mode, receives its events and stops it, printing a trace.",
        "aov-sim"};
    app.get_formatter()->column_width(30);
    Options& o = *options;

    // Whole-number options: their text, where the number goes, its range.
    struct Number {
        const char* flags;
        const char* help;
        int* out;
        bool* given;  // nullptr: the option has no "given" flag
        int64_t min;
        int64_t max;
        std::string text{};
        CLI::Option* option = nullptr;
    };
    Number numbers[] = {
        {"--sensor", "Sensor id (default: the first one)", &o.sensor, &o.sensor_given, kIntMin,
         kIntMax},
        {"--fps", "Frame rate, whole frames per second (default: the highest of the size)", &o.fps,
         &o.fps_given, kIntMin, kIntMax},
        {"--aov-mode", "user_param aov_mode (2: full event content)", &o.aov_mode, nullptr, kIntMin,
         kIntMax},
        {"--frame-info-sel", "user_param frame_info_sel", &o.frame_info_sel, nullptr, kIntMin,
         kIntMax},
        {"-n,--events", "Events to receive (default 5, at most 1000000)", &o.events,
         &o.events_given, 1, kMaxEvents},
        {"--verbosity", "Verbosity the monitor passes to notifyEvent", &o.verbosity, nullptr,
         kIntMin, kIntMax},
        {"--test-model", "Sets \"vendor.aovstream.test_model\"", &o.test_model.value,
         &o.test_model.given, kIntMin, kIntMax},
        {"--view-mode", "Sets \"vendor.aovstream.view_mode\"", &o.view_mode.value,
         &o.view_mode.given, kIntMin, kIntMax},
        {"--debug-device", "Sets \"vendor.aovstream.debug_device\"", &o.debug_device.value,
         &o.debug_device.given, kIntMin, kIntMax},
        {"--image-callback", "Sets \"vendor.aovstream.image_callback\"", &o.image_callback.value,
         &o.image_callback.given, kIntMin, kIntMax},
    };
    std::string size;
    std::string duration;
    std::string timeout;
    std::string notifyIds;

    auto* scenario = app.add_option("-s,--scenario", o.scenario_path,
                                    "Scenario file (JSON, at most 1 MiB) describing sensors, "
                                    "customisation and failures; default: the embedded scenario");
    app.add_flag("--print-scenario", o.print_scenario,
                 "Print the embedded default scenario (a template for files) and exit");
    auto* sizeOption = app.add_option("--size", size,
                                      "Requested size WIDTHxHEIGHT, each 1..65535 "
                                      "(default: the smallest)");
    app.add_flag("--force", o.force,
                 "Pass a sensor, size or rate the catalogue lacks to the library anyway");
    auto* durationOption = app.add_option(
        "--duration", duration, "Run for this many seconds (at most 86400) instead of a count");
    auto* timeoutOption =
        app.add_option("--timeout", timeout,
                       "Give up waiting for the events after this many seconds (at most "
                       "86400)");
    auto* notify = app.add_option("--notify-ids", notifyIds,
                                  "Sensor ids relayed with notifySensor, comma-separated, at most "
                                  "1024 (default: the chosen sensor)");
    app.add_flag("--trace", o.trace, "Show the library's trace lines (errors are always shown)");
    auto* timeline = app.add_option("--timeline", o.timeline_path,
                                    "Write the session as a trace-event JSON timeline to FILE "
                                    "(opens in Perfetto's UI or chrome://tracing)")
                         ->type_name("FILE");
    std::string kernel = "inproc";
    auto* kernelOption =
        app.add_option("--kernel", kernel,
                       "Where the driver runs: inproc (in this process) or fuse (in aov-kdev, "
                       "reached through a FUSE node with real system calls)")
            ->type_name("inproc|fuse");
    auto* kdev = app.add_option("--kdev", o.kdev_dir,
                                "With --kernel fuse: use the driver already serving DIR/kelo_aov "
                                "(aov-kdev or any other) instead of starting aov-kdev")
                     ->type_name("DIR");
    auto* node = app.add_option("--node", o.node_path,
                                "Run the session against the driver node at PATH (a device's "
                                "node, a prototype driver's file, an aov-kdev node); implies "
                                "--kernel fuse")
                     ->type_name("PATH");
    auto* replay = app.add_option("--replay", o.replay_path,
                                  "Replay a session recorded by aov-rec: the driver answers from "
                                  "FILE (the sensors still come from the scenario)")
                       ->type_name("FILE");
    std::string speed;
    auto* speedOption = app.add_option("--speed", speed,
                                       "With --replay: max (as fast as the library takes the "
                                       "events) or N, the recorded pace times N (default 1)")
                            ->type_name("max|N");
    for (Number& number : numbers) {
        number.option = app.add_option(number.flags, number.text, number.help)->type_name("INT");
    }

    if (const ParseOutcome outcome = parseCommandLine(app, argc, argv, message);
        outcome != ParseOutcome::kRun) {
        return outcome;
    }

    std::string error;
    const auto fail = [&error, message] {
        *message = oneLine(error);
        return ParseOutcome::kError;
    };
    for (const Number& number : numbers) {
        if (number.option->count() == 0) {
            continue;
        }
        if (!readInt(number.option->get_name(), number.text, number.min, number.max, number.out,
                     &error)) {
            return fail();
        }
        if (number.given != nullptr) {
            *number.given = true;
        }
    }
    if (kernel != "inproc" && kernel != "fuse") {
        *message = "--kernel: expected inproc or fuse, got " + excerpt(kernel);
        return ParseOutcome::kError;
    }
    if (node->count() > 0) {
        std::string problem;
        if (o.node_path.empty()) {
            problem = "--node: an empty path";
        } else if (kdev->count() > 0) {
            problem = "--node: excludes --kdev (give one node)";
        } else if (kernelOption->count() > 0 && kernel != "fuse") {
            problem = "--node: the driver is behind the node, not in this process (drop --kernel " +
                      excerpt(kernel) + ")";
        } else if (timeline->count() > 0) {
            problem = "--timeline: needs the aov-kdev that aov-sim starts (drop --node)";
        }
        if (!problem.empty()) {
            *message = problem;
            return ParseOutcome::kError;
        }
        kernel = "fuse";
    }
    o.kernel_fuse = kernel == "fuse";
    o.replay_given = replay->count() > 0;
    if (o.replay_given && (o.kernel_fuse || kdev->count() > 0)) {
        *message =
            "--replay: the driver answers from the recording (drop --kernel fuse, --kdev, --node)";
        return ParseOutcome::kError;
    }
    if (o.replay_given && o.replay_path.empty()) {
        *message = "--replay: an empty file name";
        return ParseOutcome::kError;
    }
    if (speedOption->count() > 0) {
        if (!o.replay_given) {
            *message = "--speed: needs --replay";
            return ParseOutcome::kError;
        }
        if (speed == "max") {
            o.replay_speed = 0;
        } else if (parseSeconds(speed, kMaxReplaySpeed, &o.replay_speed) != NumberStatus::kOk) {
            *message = "--speed: expected max or a number more than 0, at most 1000000, got " +
                       excerpt(speed);
            return ParseOutcome::kError;
        }
    }
    if (kdev->count() > 0 && (!o.kernel_fuse || o.kdev_dir.empty())) {
        *message =
            o.kdev_dir.empty() ? "--kdev: an empty directory name" : "--kdev: needs --kernel fuse";
        return ParseOutcome::kError;
    }
    if (kdev->count() > 0 && timeline->count() > 0) {
        *message = "--timeline: needs the aov-kdev that aov-sim starts (drop --kdev)";
        return ParseOutcome::kError;
    }
    o.scenario_given = scenario->count() > 0;
    o.timeline_given = timeline->count() > 0;
    if (o.timeline_given && o.timeline_path.empty()) {
        *message = "--timeline: an empty file name";
        return ParseOutcome::kError;
    }
    if (sizeOption->count() > 0) {
        if (!readSize(size, &o.width, &o.height, &error)) {
            return fail();
        }
        o.size_given = true;
    }
    if ((durationOption->count() > 0 &&
         !readSeconds("--duration", duration, &o.duration, &error)) ||
        (timeoutOption->count() > 0 && !readSeconds("--timeout", timeout, &o.timeout, &error))) {
        return fail();
    }
    if (notify->count() > 0) {
        if (!readIds(notifyIds, &o.notify_ids, &error)) {
            return fail();
        }
        o.notify_ids_given = true;
    }
    return ParseOutcome::kRun;
}

}  // namespace aovsimtool
