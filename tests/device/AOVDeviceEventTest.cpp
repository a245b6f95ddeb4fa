#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "DeviceTestSupport.h"
#include "PlatformMocks.h"

namespace aovtest {
namespace {

using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::StrictMock;

constexpr char kImageCallbackProp[] = "vendor.aovstream.image_callback";
constexpr char kDebugDeviceProp[] = "vendor.aovstream.debug_device";

using AOVDeviceEventTest = DeviceTest;

TEST_F(AOVDeviceEventTest, SetMonitorMovesTheRegistration) {
    AOVDevice device(kTestNode);
    EventObserver* observer = &device;
    StrictMock<MockEventMonitor> first;
    StrictMock<MockEventMonitor> second;
    {
        InSequence order;
        EXPECT_CALL(first, addObserver(observer, -1));
        EXPECT_CALL(first, removeObserver(observer, -1));
        EXPECT_CALL(first, addObserver(observer, -1));
        EXPECT_CALL(first, removeObserver(observer, -1));
        EXPECT_CALL(second, addObserver(observer, -1));
        EXPECT_CALL(second, removeObserver(observer, -1));
    }
    EXPECT_EQ(0, device.setMonitor(nullptr));
    EXPECT_EQ(0, device.setMonitor(&first));
    EXPECT_EQ(0, device.setMonitor(&first));
    EXPECT_EQ(0, device.setMonitor(&second));
    EXPECT_EQ(0, device.setMonitor(nullptr));
    EXPECT_EQ(0, device.setMonitor(nullptr));
}

TEST_F(AOVDeviceEventTest, NotStartedIsSilentUnlessAsked) {
    logs_.enableTraces();
    {
        AOVDevice device(kTestNode);
        CallbackProbe probe;
        probe.attach(device);
        logs_.clear();
        device.notifyEvent(0, 0);
        EXPECT_THAT(logs_.unifiedLines(), IsEmpty());
        EXPECT_THAT(logs_.debugLines(), IsEmpty());
        device.notifyEvent(0, 1);
        EXPECT_THAT(traces(logs_), ElementsAre("[notifyEvent] AOV device is not started"));
        EXPECT_EQ(0, probe.calls);
    }
    aovhost::ScopedProperty debug(kDebugDeviceProp, "1");
    AOVDevice device(kTestNode);
    logs_.clear();
    device.notifyEvent(0, 0);
    EXPECT_THAT(traces(logs_), ElementsAre("[notifyEvent] AOV device is not started"));
    EXPECT_THAT(driver_->requests(), IsEmpty());
}

struct ContentRow {
    const char* name;
    int32_t mode;
    const char* imageCallback;
    bool contentFlag;
    bool sections1to5;  // info words of sections 1 to 5 copied
    bool imageWords;    // word 3 of sections 4 and 5 passed on
    bool sections6to10;
};

void PrintTo(const ContentRow& row, std::ostream* out) {
    *out << row.name;
}

class AOVDeviceContentTest : public DeviceTest, public ::testing::WithParamInterface<ContentRow> {};

TEST_P(AOVDeviceContentTest, CopiesTheWordsThatTheModeAndFlagsSelect) {
    const ContentRow& row = GetParam();
    aovhost::ScopedProperty imageCallback(kImageCallbackProp, row.imageCallback);
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    const aov_event_query words = makeEventWords(3, row.contentFlag);
    driver_->setEvent(words, 0x5A);
    user_param param = makeParam(row.mode);
    ASSERT_EQ(0, device.startDevice(param));
    const aov_event* event = deliverFirstEvent(device, probe);

    auto expected = [](bool copied, uint32_t word) { return copied ? word : 0u; };
    EXPECT_EQ(0u, event->word0);
    EXPECT_EQ(0, std::memcmp(words.header, event->header, sizeof(words.header)));
    EXPECT_EQ(expected(row.sections1to5, words.s1_info), event->s1_info);
    EXPECT_EQ(expected(row.sections1to5, words.s2_info), event->s2_info);
    EXPECT_EQ(expected(row.sections1to5, words.s3_info), event->s3_info);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(expected(row.sections1to5, words.s4_info[i]), event->s4_info[i]);
        EXPECT_EQ(expected(row.sections1to5, words.s5_info[i]), event->s5_info[i]);
    }
    EXPECT_EQ(expected(row.imageWords, words.s4_info[3]), event->s4_info[3]);
    EXPECT_EQ(expected(row.imageWords, words.s5_info[3]), event->s5_info[3]);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(expected(row.sections6to10, words.s6_info[i]), event->s6_info[i]);
    }
    EXPECT_EQ(expected(row.sections6to10, words.s7_info), event->s7_info);
    EXPECT_EQ(expected(row.sections6to10, words.s8_info), event->s8_info);
    EXPECT_EQ(expected(row.sections6to10, words.s9_info), event->s9_info);
    EXPECT_EQ(expected(row.sections6to10, words.s10_info), event->s10_info);

    // The driver wrote every data area in place, up to the end of the buffer.
    const uint8_t* areas[][2] = {
        {event->s1_data, std::end(event->s1_data)}, {event->s2_data, std::end(event->s2_data)},
        {event->s3_data, std::end(event->s3_data)}, {event->s4_data, std::end(event->s4_data)},
        {event->s5_data, std::end(event->s5_data)}, {event->s6_data, std::end(event->s6_data)},
        {event->s7_data, std::end(event->s7_data)}, {event->s8_data, std::end(event->s8_data)},
        {event->s9_data, std::end(event->s9_data)}, {event->s10_data, std::end(event->s10_data)},
    };
    for (const auto& area : areas) {
        EXPECT_EQ(0x5A, area[0][0]);
        EXPECT_EQ(0x5A, area[1][-1]);
    }
    EXPECT_EQ(0, device.stopDevice());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AOVDeviceContentTest,
    ::testing::Values(
        // mode, image_callback, header[5] -> sections 1-5, word 3, sections 6-10
        ContentRow{"Mode0Content", 0, "1", true, true, true, false},
        ContentRow{"Mode0NoContent", 0, "1", false, false, false, false},
        ContentRow{"Mode0ContentNoImage", 0, "0", true, true, false, false},
        ContentRow{"Mode1NoContentNoImage", 1, "0", false, true, false, false},
        ContentRow{"Mode1NoContent", 1, "1", false, true, true, false},
        ContentRow{"Mode2NoContentNoImage", 2, "0", false, true, true, true}),
    [](const ::testing::TestParamInfo<ContentRow>& info) { return std::string(info.param.name); });

TEST_F(AOVDeviceEventTest, WordsPersistUntilAnEventRewritesThem) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param = makeParam(0);
    ASSERT_EQ(0, device.startDevice(param));
    const aov_event_query first = makeEventWords(1, true);
    driver_->setEvent(first, 1);
    aov_event* event = deliverFirstEvent(device, probe);

    // No content: only the header changes.
    const aov_event_query second = makeEventWords(2, false);
    driver_->setEvent(second, 2);
    device.notifyEvent(0, 0);
    EXPECT_EQ(2, probe.calls);
    EXPECT_EQ(event, probe.last);
    EXPECT_EQ(0, std::memcmp(second.header, event->header, sizeof(second.header)));
    EXPECT_EQ(first.s1_info, event->s1_info);
    EXPECT_EQ(first.s4_info[3], event->s4_info[3]);
    EXPECT_EQ(first.s5_info[0], event->s5_info[0]);
    EXPECT_EQ(2, event->s3_data[0]);

    // A failed dequeue leaves the buffer alone and reaches no callback.
    logs_.clear();
    driver_->setEvent(makeEventWords(3, true), 3);
    driver_->queueResult(AOV_IOC_DEQUEUE_EVENT, -EIO);
    device.notifyEvent(0, 0);
    EXPECT_EQ(2, probe.calls);
    EXPECT_EQ(0, std::memcmp(second.header, event->header, sizeof(second.header)));
    EXPECT_EQ(first.s1_info, event->s1_info);
    expectErrorLine(logs_, kDeviceHeaderPath, "queryEvent", "failed to query evice event: -5");
    expectErrorLine(logs_, kDeviceHeaderPath, "notifyEvent", "failed to query event: -5");
    EXPECT_EQ(2u, errors(logs_).size());
    EXPECT_EQ(0, device.stopDevice());
}

TEST_F(AOVDeviceEventTest, EmptyCallbackStillConsumesTheEvent) {
    AOVDevice device(kTestNode);
    CallbackProbe probe;
    probe.attach(device);
    user_param param = makeParam(0);
    ASSERT_EQ(0, device.startDevice(param));
    deliverFirstEvent(device, probe);

    device.callback_ = nullptr;
    logs_.clear();
    logs_.enableTraces();
    device.notifyEvent(0, 0);
    EXPECT_EQ(2u, driver_->count(AOV_IOC_DEQUEUE_EVENT));
    EXPECT_THAT(traces(logs_), ElementsAre("[notifyEvent] null notify event callback"));
    EXPECT_EQ(0, device.stopDevice());
}

TEST_F(AOVDeviceEventTest, DebugDeviceTracesTheDequeueAndVerbosityTheCallback) {
    struct Row {
        const char* debugDevice;
        int verbosity;
        std::vector<std::string> lines;
    };
    const std::vector<Row> rows = {
        {"0", 0, {}},
        {"0", 1, {"[notifyEvent] notify event callback+", "[notifyEvent] notify event callback-"}},
        {"1",
         0,
         {"[queryEvent] Dequeue event+", "[queryEvent] Dequeue event-",
          "[notifyEvent] notify event callback+", "[notifyEvent] notify event callback-"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.debugDevice + std::to_string(row.verbosity));
        aovhost::ScopedProperty debug(kDebugDeviceProp, row.debugDevice);
        AOVDevice device(kTestNode);
        CallbackProbe probe;
        probe.attach(device);
        user_param param = makeParam(0);
        ASSERT_EQ(0, device.startDevice(param));
        deliverFirstEvent(device, probe);
        logs_.clear();
        logs_.enableTraces();
        device.notifyEvent(0, row.verbosity);
        EXPECT_EQ(2, probe.calls);
        EXPECT_EQ(row.lines, traces(logs_));
        logs_.enableTraces(0);
        EXPECT_EQ(0, device.stopDevice());
    }
}

}  // namespace
}  // namespace aovtest
