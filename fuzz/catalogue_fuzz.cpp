// Builds the sensor catalogue from arbitrary static-info records and checks
// what the catalogue promises: the accepted scenarios and nothing else, grouped
// by resolution, in scenario order, with parallel rate and mode lists.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "AOVSensor.h"
#include "FakeSensorList.h"
#include "FuzzCheck.h"
#include "aovhost/Binding.h"

namespace {

using aovfuzz::check;

constexpr size_t kMaxSensors = 3;

bool accepted(const NSCam::SensorScenarioInfo& s, bool testModel, bool viewMode) {
    if (viewMode != (s.aeKind == 1)) {
        return false;
    }
    return testModel || (s.width >= 1 && s.width <= 1920 && s.height >= 1 && s.height <= 1080 &&
                         s.frameRate >= 10 && s.frameRate <= 109);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const bool testModel = (data[0] & 1) != 0;
    const bool viewMode = (data[0] & 2) != 0;
    ++data;
    --size;

    auto list = std::make_shared<aovtest::FakeSensorList>();
    for (size_t i = 0; i < kMaxSensors && size > 0; ++i) {
        // Unique one-hot device bits keep the static-info lookup unambiguous.
        NSCam::SensorStaticInfo info;
        const size_t n = size < sizeof(info) ? size : sizeof(info);
        std::memcpy(static_cast<void*>(&info), data, n);
        data += n;
        size -= n;
        const auto id = static_cast<int32_t>(i);
        list->sensors.push_back({id, 1 << i, static_cast<int32_t>(info.facingDirection), info});
    }

    aovhost::ScopedProperty testModelProperty("vendor.aovstream.test_model", testModel ? "1" : "0");
    aovhost::ScopedProperty viewProperty("vendor.aovstream.view_mode", viewMode ? "1" : "0");
    aovhost::ScopedBinding<NSCam::IHalSensorList> binding(list);
    AOVSensor sensor;
    const std::vector<int> ids = sensor.querySensors();
    check(std::set<int>(ids.begin(), ids.end()).size() == ids.size());
    check(std::is_sorted(ids.begin(), ids.end()));

    for (const aovtest::FakeSensor& listed : list->sensors) {
        const int32_t id = listed.id;
        const NSCam::SensorStaticInfo& info = listed.info;
        // Expected scenarios per resolution, in scenario order.
        std::map<std::pair<int, int>, std::vector<int>> expected;
        for (int s = 0; s < NSCam::kSensorScenarioCount; ++s) {
            if (accepted(info.scenarios[s], testModel, viewMode)) {
                expected[{info.scenarios[s].width, info.scenarios[s].height}].push_back(s);
            }
        }
        // Entries come in the scratch table's iteration order for the keys in
        // the order their first scenario inserted them.
        AOVSensor::ScratchTable scratch;
        for (int s = 0; s < NSCam::kSensorScenarioCount; ++s) {
            if (accepted(info.scenarios[s], testModel, viewMode)) {
                scratch[AOVSensor::SensorKey(id, static_cast<int>(info.scenarios[s].width),
                                             static_cast<int>(info.scenarios[s].height))];
            }
        }
        auto order = scratch.begin();
        const std::vector<sensor_info> entries = sensor.getSensorInfo(id);
        check(entries.size() == expected.size());
        check(std::count(ids.begin(), ids.end(), id) == (expected.empty() ? 0 : 1));
        for (const sensor_info& entry : entries) {
            const auto it = expected.find({entry.width, entry.height});
            check(it != expected.end());
            check(std::get<1>(order->first) == entry.width &&
                  std::get<2>(order->first) == entry.height);
            ++order;
            check(entry.fps.size() == it->second.size() && entry.mode.size() == it->second.size());
            check(entry.orientation == info.orientation);
            check(entry.face == (info.facingDirection != 0 ? 1 : 0));
            for (size_t k = 0; k < entry.mode.size(); ++k) {
                const sensor_mode& mode = entry.mode[k];
                const NSCam::SensorScenarioInfo& s = info.scenarios[it->second[k]];
                check(mode.scenario == it->second[k]);
                check(mode.fps == s.frameRate / 10 && entry.fps[k] == mode.fps);
                check(mode.type == s.type && mode.bit == s.bit && mode.sensor_ae == s.aeKind &&
                      mode.mode_param == s.modeParam);
            }
        }
    }
    return 0;
}
