// aov-sim's choice of sensor, size and rate from the catalogue and the
// command line: the defaults, requests that the catalogue holds, and requests
// it lacks, with and without --force.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ModeChoice.h"

namespace {

using aovsimtool::CataloguedSensor;
using aovsimtool::chooseMode;
using aovsimtool::ModeChoice;
using aovsimtool::ModeRequest;
using Outcome = ModeChoice::Outcome;

sensor_info sizeWith(int width, int height, std::vector<uint32_t> fps) {
    sensor_info info{};
    info.width = width;
    info.height = height;
    info.fps = std::move(fps);
    return info;
}

// Sensor 3 lists its larger size first and its rates out of order.
const std::vector<CataloguedSensor> kCatalogue = {
    {3, {sizeWith(640, 480, {5, 10, 5}), sizeWith(320, 240, {10, 15, 12})}},
    {7, {sizeWith(1280, 720, {30})}},
};

ModeRequest sensor(int id, ModeRequest request = {}) {
    request.sensor_given = true;
    request.sensor = id;
    return request;
}
ModeRequest size(int width, int height, ModeRequest request = {}) {
    request.size_given = true;
    request.width = width;
    request.height = height;
    return request;
}
ModeRequest fps(int rate, ModeRequest request = {}) {
    request.fps_given = true;
    request.fps = rate;
    return request;
}
ModeRequest forced(ModeRequest request) {
    request.force = true;
    return request;
}

struct Case {
    const char* name;
    std::vector<CataloguedSensor> catalogue;
    ModeRequest request;
    Outcome outcome;
    int sensor, width, height, rate;  // when chosen
    std::string problem;              // otherwise
};

TEST(ModeChoice, ChoosesOrRefusesAsTheCatalogueAndRequestSay) {
    const Case cases[] = {
        {"first sensor, smallest size, its highest rate",
         kCatalogue,
         {},
         Outcome::kChosen,
         3,
         320,
         240,
         15,
         ""},
        {"given sensor", kCatalogue, sensor(7), Outcome::kChosen, 7, 1280, 720, 30, ""},
        {"given size", kCatalogue, size(640, 480), Outcome::kChosen, 3, 640, 480, 10, ""},
        {"given size and rate", kCatalogue, fps(5, size(640, 480)), Outcome::kChosen, 3, 640, 480,
         5, ""},
        {"given rate of the smallest size", kCatalogue, fps(12), Outcome::kChosen, 3, 320, 240, 12,
         ""},
        {"unknown sensor", kCatalogue, sensor(9), Outcome::kBadInput, 0, 0, 0, 0,
         "unknown sensor 9; AOV-capable sensors: 3, 7"},
        {"unknown sensor, forced without a size", kCatalogue, forced(sensor(9)), Outcome::kBadInput,
         0, 0, 0, 0, "sensor 9 has no catalogued size: give --size"},
        {"unknown sensor, forced with size and rate", kCatalogue,
         forced(fps(20, size(800, 600, sensor(9)))), Outcome::kChosen, 9, 800, 600, 20, ""},
        {"uncatalogued size", kCatalogue, size(800, 600), Outcome::kBadInput, 0, 0, 0, 0,
         "sensor 3 has no 800x600 mode; its sizes: 640x480, 320x240"},
        {"uncatalogued size, forced without a rate", kCatalogue, forced(size(800, 600)),
         Outcome::kBadInput, 0, 0, 0, 0, "no catalogued frame rate for this size: give --fps"},
        {"uncatalogued size, forced with a rate", kCatalogue, forced(fps(20, size(800, 600))),
         Outcome::kChosen, 3, 800, 600, 20, ""},
        {"uncatalogued rate", kCatalogue, fps(60), Outcome::kBadInput, 0, 0, 0, 0,
         "sensor 3 at 320x240 has no 60 fps mode; its rates: 10, 15, 12"},
        {"uncatalogued rate, forced", kCatalogue, forced(fps(60)), Outcome::kChosen, 3, 320, 240,
         60, ""},
        {"no sensor listed",
         {},
         {},
         Outcome::kNoSensor,
         0,
         0,
         0,
         0,
         "the platform offers no AOV-capable sensor in this mode"},
        {"no sensor listed, forced without a sensor",
         {},
         forced({}),
         Outcome::kBadInput,
         0,
         0,
         0,
         0,
         "no AOV-capable sensor to default to: give --sensor with --force"},
        {"no sensor listed, forced with sensor, size and rate",
         {},
         forced(fps(10, size(320, 240, sensor(4)))),
         Outcome::kChosen,
         4,
         320,
         240,
         10,
         ""},
        {"given size among sizes of one width",
         {{2, {sizeWith(640, 480, {10}), sizeWith(640, 360, {30}), sizeWith(320, 360, {15})}}},
         size(640, 360),
         Outcome::kChosen,
         2,
         640,
         360,
         30,
         ""},
        {"uncatalogued height of a catalogued width",
         {{2, {sizeWith(640, 480, {10}), sizeWith(320, 360, {15})}}},
         size(640, 360),
         Outcome::kBadInput,
         0,
         0,
         0,
         0,
         "sensor 2 has no 640x360 mode; its sizes: 640x480, 320x360"},
        // Ties go to the size listed first: by area, and for a size listed twice.
        {"smallest area listed twice, the first listed",
         {{2, {sizeWith(640, 480, {10}), sizeWith(320, 240, {15}), sizeWith(240, 320, {30})}}},
         {},
         Outcome::kChosen,
         2,
         320,
         240,
         15,
         ""},
        {"given size listed twice, the first entry's rates",
         {{2, {sizeWith(320, 240, {10}), sizeWith(320, 240, {30})}}},
         size(320, 240),
         Outcome::kChosen,
         2,
         320,
         240,
         10,
         ""},
        {"sensor without sizes",
         {{5, {}}},
         {},
         Outcome::kBadInput,
         0,
         0,
         0,
         0,
         "sensor 5 has no catalogued size: give --size"},
        {"size without rates",
         {{5, {sizeWith(320, 240, {})}}},
         {},
         Outcome::kBadInput,
         0,
         0,
         0,
         0,
         "no catalogued frame rate for this size: give --fps"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ModeChoice choice = chooseMode(c.catalogue, c.request);
        EXPECT_EQ(c.outcome, choice.outcome);
        if (c.outcome == Outcome::kChosen) {
            EXPECT_EQ(c.sensor, choice.sensor);
            EXPECT_EQ(c.width, choice.width);
            EXPECT_EQ(c.height, choice.height);
            EXPECT_EQ(c.rate, choice.fps);
            EXPECT_EQ("", choice.problem);
        } else {
            EXPECT_EQ(c.problem, choice.problem);
        }
    }
}

}  // namespace
