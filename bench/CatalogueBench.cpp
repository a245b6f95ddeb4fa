// Cost of building the sensor catalogue (50 scenarios per sensor), and of a
// log line whose gate is closed.

#include <benchmark/benchmark.h>

#include <vector>

#include "AOVLog.h"
#include "AOVSensor.h"
#include "aovhost/Binding.h"

namespace {

using NSCam::Utils::ULog::ULogger;

class GridSensorList : public NSCam::IHalSensorList {
  public:
    explicit GridSensorList(int sensors) : sensors_(sensors) {}
    int32_t queryNumberOfSensors() const override { return sensors_; }
    int32_t queryFacingDirection(int32_t id) const override { return id & 1; }
    int32_t querySensorDevIdx(int32_t id) const override { return 1 << id; }
    void querySensorStaticInfo(uint32_t, NSCam::SensorStaticInfo* info) const override {
        for (int s = 0; s < NSCam::kSensorScenarioCount; ++s) {
            // Eight resolutions, several rates each; a few out of range.
            info->scenarios[s].width = static_cast<uint16_t>(320 * (1 + s % 8));
            info->scenarios[s].height = static_cast<uint16_t>(240 * (1 + s % 8));
            info->scenarios[s].frameRate = static_cast<uint32_t>(10 + 10 * (s / 8));
        }
    }
    uint32_t searchSensors() override { return static_cast<uint32_t>(sensors_); }
    NSCam::IHalSensor* openSensorDevice(const char*, uint32_t) override { return nullptr; }
    int32_t querySensorId(uint32_t index) const override { return static_cast<int32_t>(index); }

  private:
    int sensors_;
};

class DropSink : public aovhost::DebugPrintSink {
  public:
    void write(int, const char* text) override { benchmark::DoNotOptimize(text); }
};

void BM_CatalogueBuild(benchmark::State& state) {
    aovhost::ScopedBinding<NSCam::IHalSensorList> list(
        std::make_shared<GridSensorList>(static_cast<int>(state.range(0))));
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
