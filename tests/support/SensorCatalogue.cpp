#include "SensorCatalogue.h"

namespace aovtest {

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::Return;
using ::testing::SetArgPointee;

FakeSensor sensorWith(int32_t id, int32_t devIdx,
                      std::initializer_list<NSCam::SensorScenarioInfo> scenarios, int32_t facing,
                      int32_t orientation) {
    FakeSensor sensor{id, devIdx, facing, {}};
    sensor.info.orientation = orientation;
    int index = 0;
    for (const NSCam::SensorScenarioInfo& scenario : scenarios) {
        sensor.info.scenarios[index++] = scenario;
    }
    return sensor;
}

void serveSensors(MockSensorList& list, const std::vector<FakeSensor>& sensors) {
    const auto count = static_cast<int32_t>(sensors.size());
    EXPECT_CALL(list, searchSensors()).Times(AnyNumber()).WillRepeatedly(Return(count));
    EXPECT_CALL(list, queryNumberOfSensors()).Times(AnyNumber()).WillRepeatedly(Return(count));
    EXPECT_CALL(list, querySensorDevIdx(_))
        .Times(AnyNumber())
        .WillRepeatedly(Return(kUnlistedDevIdx));
    for (int32_t index = 0; index < count; ++index) {
        const FakeSensor& s = sensors[static_cast<size_t>(index)];
        EXPECT_CALL(list, querySensorId(static_cast<uint32_t>(index)))
            .Times(AnyNumber())
            .WillRepeatedly(Return(s.id));
        EXPECT_CALL(list, querySensorDevIdx(s.id))
            .Times(AnyNumber())
            .WillRepeatedly(Return(s.devIdx));
        EXPECT_CALL(list, queryFacingDirection(s.id))
            .Times(AnyNumber())
            .WillRepeatedly(Return(s.facing));
        EXPECT_CALL(list, querySensorStaticInfo(static_cast<uint32_t>(s.devIdx), _))
            .Times(AnyNumber())
            .WillRepeatedly(SetArgPointee<1>(s.info));
    }
}

}  // namespace aovtest
