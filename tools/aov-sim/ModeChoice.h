#pragma once

// The stand-in system layer's choice of sensor, size and frame rate, from the
// sensors the library lists and what the command line asks for.

#include <string>
#include <vector>

#include "IAOVSensor.h"
#include "ModeRequest.h"

namespace aovsimtool {

// "1, 2, 3": numbers as the tool's messages list them.
template <class T>
std::string listOf(const std::vector<T>& values) {
    std::string text;
    for (const T& value : values) {
        text += (text.empty() ? "" : ", ") + std::to_string(value);
    }
    return text;
}

// A sensor as the library catalogues it.
struct CataloguedSensor {
    int id = 0;
    std::vector<sensor_info> sizes;
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
