#pragma once

// The stand-in system layer's choice of sensor, size and frame rate, from the
// sensors the library lists and what the command line asks for.

#include <string>
#include <vector>

#include "IAOVSensor.h"

namespace aovsimtool {

// A sensor as the library catalogues it.
struct CataloguedSensor {
    int id = 0;
    std::vector<sensor_info> sizes;
};

// What the command line asks for; a value counts only when it is given.
struct ModeRequest {
    bool sensor_given = false;
    int sensor = 0;
    bool size_given = false;
    int width = 0;
    int height = 0;
    bool fps_given = false;
    int fps = 0;
    bool force = false;  // take a request the catalogue lacks anyway
};

struct ModeChoice {
    enum class Outcome {
        kChosen,
        kBadInput,  // the request names what the catalogue lacks, or leaves a gap
        kNoSensor,  // the platform lists no sensor at all
    };
    Outcome outcome = Outcome::kChosen;
    std::string problem;  // what is wrong, unless chosen
    int sensor = 0;
    int width = 0;
    int height = 0;
    int fps = 0;
};

// Without a request: the first sensor listed, its smallest size, that size's
// highest rate. A requested sensor, size or rate must be catalogued unless
// `force` is set.
ModeChoice chooseMode(const std::vector<CataloguedSensor>& sensors, const ModeRequest& request);

}  // namespace aovsimtool
