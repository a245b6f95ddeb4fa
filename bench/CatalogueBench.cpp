// Cost of building the sensor catalogue (50 scenarios per sensor), and of a
// log line whose gate is closed.

#include <benchmark/benchmark.h>

#include <vector>

#include "AOVLog.h"
#include "AOVSensor.h"
#include "FakeSensorList.h"
#include "aovhost/Binding.h"

namespace {

using NSCam::Utils::ULog::ULogger;

// Sensors 0 .. n-1 with eight resolutions and several rates each, a few of
// them outside the always-on limits.
std::shared_ptr<aovtest::FakeSensorList> gridSensors(int count) {
    auto list = std::make_shared<aovtest::FakeSensorList>();
    for (int id = 0; id < count; ++id) {
        aovtest::FakeSensor sensor{id, 1 << id, id & 1, {}};
        for (int s = 0; s < NSCam::kSensorScenarioCount; ++s) {
            sensor.info.scenarios[s].width = static_cast<uint16_t>(320 * (1 + s % 8));
            sensor.info.scenarios[s].height = static_cast<uint16_t>(240 * (1 + s % 8));
            sensor.info.scenarios[s].frameRate = static_cast<uint32_t>(10 + 10 * (s / 8));
        }
        list->sensors.push_back(sensor);
    }
    return list;
}

class DropSink : public aovhost::DebugPrintSink {
  public:
    void write(int, const char* text) override { benchmark::DoNotOptimize(text); }
};

void BM_CatalogueBuild(benchmark::State& state) {
    aovhost::ScopedBinding<NSCam::IHalSensorList> list(
        gridSensors(static_cast<int>(state.range(0))));
    aovhost::ScopedBinding<aovhost::DebugPrintSink> sink(std::make_shared<DropSink>());
    const bool traces = state.range(1) != 0;
    const uint32_t savedMode = ULogger::sMode;
    const int32_t savedLevel = ULogger::sDetailsLevel;
    ULogger::sMode = 0x1;
    ULogger::sDetailsLevel = traces ? 5 : 0;
    for (auto _ : state) {
        AOVSensor sensor;
        benchmark::DoNotOptimize(sensor.querySensors());
    }
    ULogger::sMode = savedMode;
    ULogger::sDetailsLevel = savedLevel;
    state.SetItemsProcessed(state.iterations() * state.range(0) * NSCam::kSensorScenarioCount);
    state.SetLabel(traces ? "traces on (formatted, dropped)" : "traces off");
}
BENCHMARK(BM_CatalogueBuild)->Args({1, 0})->Args({4, 0})->Args({4, 1});

void BM_DisabledTraceLine(benchmark::State& state) {
    const int32_t savedLevel = ULogger::sDetailsLevel;
    ULogger::sDetailsLevel = 0;
    int value = 0;
    for (auto _ : state) {
        AOV_LOG_TRACE_AT("hw/aov/bench", __LINE__, "[%s] value(%d)", __func__, ++value);
        benchmark::ClobberMemory();
    }
    ULogger::sDetailsLevel = savedLevel;
}
BENCHMARK(BM_DisabledTraceLine);

}  // namespace
