// Command-line parsing. CLI11 reports through exceptions, so this file is
// built with them; nothing thrown leaves parseOptions.

#include "Options.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace aovsimtool {

namespace {

bool parseSize(const std::string& text, int* width, int* height) {
    int w = 0;
    int h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &w, &h, &tail) != 2 || w < 1 || h < 1) {
        return false;
    }
    *width = w;
    *height = h;
    return true;
}

}  // namespace

ParseOutcome parseOptions(int argc, char** argv, Options* options, std::string* error) {
    CLI::App app{
        "Runs the AOV platform layer on a simulated platform and driver: discovers the sensors,\n"
        "starts one in always-on mode, receives its events and stops it, printing a trace.",
        "aov-sim"};
    app.get_formatter()->column_width(30);
    Options& o = *options;
    std::string size;

    app.add_option("-s,--scenario", o.scenario_path,
                   "Scenario file (JSON) describing sensors, customisation and failures; "
                   "default: the embedded scenario");
    app.add_flag("--print-scenario", o.print_scenario,
                 "Print the embedded default scenario (a template for files) and exit");
    auto* sensor = app.add_option("--sensor", o.sensor, "Sensor id (default: the first one)");
    auto* sizeOpt =
        app.add_option("--size", size, "Requested size WIDTHxHEIGHT (default: the smallest)");
    auto* fps = app.add_option("--fps", o.fps,
                               "Frame rate, whole frames per second "
                               "(default: the highest of the size)");
    app.add_flag("--force", o.force,
                 "Pass a sensor, size or rate the catalogue lacks to the library anyway");
    app.add_option("--aov-mode", o.aov_mode, "user_param aov_mode (2: full event content)");
    app.add_option("--frame-info-sel", o.frame_info_sel, "user_param frame_info_sel");
    auto* events = app.add_option("-n,--events", o.events, "Events to receive (default 5)")
                       ->check(CLI::Range(1, 1000000));
    app.add_option("--duration", o.duration, "Run for this many seconds instead of an event count")
        ->check(CLI::PositiveNumber);
    app.add_option("--timeout", o.timeout, "Give up waiting for the events after this many seconds")
        ->check(CLI::PositiveNumber);
    auto* notify = app.add_option("--notify-ids", o.notify_ids,
                                  "Sensor ids relayed with notifySensor, comma-separated "
                                  "(default: the chosen sensor)")
                       ->delimiter(',');
    app.add_flag("--trace", o.trace, "Show the library's trace lines (errors are always shown)");
    app.add_option("--verbosity", o.verbosity, "Verbosity the monitor passes to notifyEvent");
    Options::Property* properties[] = {&o.test_model, &o.view_mode, &o.debug_device,
                                       &o.image_callback};
    const char* flags[] = {"--test-model", "--view-mode", "--debug-device", "--image-callback"};
    CLI::Option* propertyOptions[4];
    for (int i = 0; i < 4; ++i) {
        propertyOptions[i] = app.add_option(flags[i], properties[i]->value,
                                            std::string("Sets \"") + properties[i]->name + "\"");
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return ParseOutcome::kHelpShown;
    } catch (const CLI::ParseError& e) {
        *error = e.what();
        return ParseOutcome::kError;
    }

    o.sensor_given = sensor->count() > 0;
    o.fps_given = fps->count() > 0;
    o.events_given = events->count() > 0;
    o.notify_ids_given = notify->count() > 0;
    for (int i = 0; i < 4; ++i) {
        properties[i]->given = propertyOptions[i]->count() > 0;
    }
    if (sizeOpt->count() > 0) {
        if (!parseSize(size, &o.width, &o.height)) {
            *error = "--size: expected WIDTHxHEIGHT with positive numbers, got \"" + size + "\"";
            return ParseOutcome::kError;
        }
        o.size_given = true;
    }
    return ParseOutcome::kRun;
}

}  // namespace aovsimtool
