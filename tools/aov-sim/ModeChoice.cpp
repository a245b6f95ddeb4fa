#include "ModeChoice.h"

#include <algorithm>
#include <cstdint>

namespace aovsimtool {

namespace {

std::string sizeOf(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

std::string sizesOf(const std::vector<sensor_info>& infos) {
    std::string text;
    for (const sensor_info& info : infos) {
        text += (text.empty() ? "" : ", ") + sizeOf(info.width, info.height);
    }
    return text;
}

ModeChoice refused(ModeChoice::Outcome outcome, std::string problem) {
    ModeChoice choice;
    choice.outcome = outcome;
    choice.problem = std::move(problem);
    return choice;
}

ModeChoice badInput(std::string problem) {
    return refused(ModeChoice::Outcome::kBadInput, std::move(problem));
}

}  // namespace

ModeChoice chooseMode(const std::vector<CataloguedSensor>& sensors, const ModeRequest& request) {
    if (sensors.empty() && !request.force) {
        return refused(ModeChoice::Outcome::kNoSensor,
                       "the platform offers no AOV-capable sensor in this mode");
    }
    std::vector<int> ids;
    for (const CataloguedSensor& sensor : sensors) {
        ids.push_back(sensor.id);
    }
    if (ids.empty() && !request.sensor_given) {
        return badInput("no AOV-capable sensor to default to: give --sensor with --force");
    }
    ModeChoice choice;
    choice.sensor = request.sensor_given ? request.sensor : ids.front();
    const auto listed = std::find(ids.begin(), ids.end(), choice.sensor);
    if (listed == ids.end() && !request.force) {
        return badInput("unknown sensor " + std::to_string(choice.sensor) +
                        "; AOV-capable sensors: " + listOf(ids));
    }
    static const std::vector<sensor_info> kNoSizes;
    const std::vector<sensor_info>& sizes =
        listed == ids.end() ? kNoSizes : sensors[static_cast<size_t>(listed - ids.begin())].sizes;
    const std::string sensorName = "sensor " + std::to_string(choice.sensor);

    const sensor_info* entry = nullptr;
    if (request.size_given) {
        choice.width = request.width;
        choice.height = request.height;
        for (const sensor_info& info : sizes) {
            if (info.width == choice.width && info.height == choice.height) {
                entry = &info;
                break;
            }
        }
        if (entry == nullptr && !request.force) {
            return badInput(sensorName + " has no " + sizeOf(choice.width, choice.height) +
                            " mode; its sizes: " + sizesOf(sizes));
        }
    } else {
        // Always-on sensing wants the smallest frame.
        for (const sensor_info& info : sizes) {
            const long long area = 1LL * info.width * info.height;
            if (entry == nullptr || area < 1LL * entry->width * entry->height) {
                entry = &info;
            }
        }
        if (entry == nullptr) {
            return badInput(sensorName + " has no catalogued size: give --size");
        }
        choice.width = entry->width;
        choice.height = entry->height;
    }

    if (request.fps_given) {
        choice.fps = request.fps;
        const bool catalogued =
            entry != nullptr && std::find(entry->fps.begin(), entry->fps.end(),
                                          static_cast<uint32_t>(choice.fps)) != entry->fps.end();
        if (!catalogued && !request.force) {
            return badInput(sensorName + " at " + sizeOf(choice.width, choice.height) + " has no " +
                            std::to_string(choice.fps) +
                            " fps mode; its rates: " + (entry ? listOf(entry->fps) : "none"));
        }
    } else {
        if (entry == nullptr || entry->fps.empty()) {
            return badInput("no catalogued frame rate for this size: give --fps");
        }
        choice.fps = static_cast<int>(*std::max_element(entry->fps.begin(), entry->fps.end()));
    }
    return choice;
}

}  // namespace aovsimtool
