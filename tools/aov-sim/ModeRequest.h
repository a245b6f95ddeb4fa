#pragma once

namespace aovsimtool {

// The sensor, size and rate a run asks for; a value counts only when given.
struct ModeRequest {
    bool sensor_given = false;
    int sensor = 0;
    bool size_given = false;
    int width = 0;
    int height = 0;
    bool fps_given = false;
    int fps = 0;
    bool force = false;  // hand a request the catalogue lacks to the library anyway
};

}  // namespace aovsimtool
