#pragma once

// The AOV driver's side of the kernel interface, declared by the emulated
// driver itself: request codes and the records that cross the boundary. The
// layouts are a kernel ABI, so every offset and size is pinned below.

#include <linux/ioctl.h>

#include <cstddef>
#include <cstdint>

namespace aovsim {
namespace kabi {

static_assert(sizeof(void*) == 8, "the driver ABI uses 64-bit pointers");

constexpr uint32_t kStartRecordSize = 200;
constexpr int kMaxSensorsPerRequest = 64;

// SENSOR_ON / SENSOR_OFF argument.
struct aov_sensor_list {
    uint32_t count;
    int32_t sensor_ids[kMaxSensorsPerRequest];
};

static_assert(offsetof(aov_sensor_list, sensor_ids) == 0x004, "aov_sensor_list ABI");
static_assert(sizeof(aov_sensor_list) == 260, "aov_sensor_list ABI");

// DEQUEUE_EVENT argument: user space supplies the ten data-area addresses,
// the driver fills the words and writes the areas through the addresses.
struct aov_event_query {
    uint32_t header[6];
    uint32_t s1_info;
    void* s1_addr;
    uint32_t s2_info;
    void* s2_addr;
    uint32_t s3_info;
    void* s3_addr;
    uint32_t s4_info[4];
    void* s4_addr;
    uint32_t s5_info[4];
    void* s5_addr;
    uint32_t s6_info[5];
    void* s6_addr;
    uint32_t s7_info;
    void* s7_addr;
    uint32_t s8_info;
    void* s8_addr;
    uint32_t s9_info;
    void* s9_addr;
    uint32_t s10_info;
    void* s10_addr;
};

static_assert(offsetof(aov_event_query, header) == 0x00, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s1_info) == 0x18, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s1_addr) == 0x20, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s2_info) == 0x28, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s2_addr) == 0x30, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s3_info) == 0x38, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s3_addr) == 0x40, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s4_info) == 0x48, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s4_addr) == 0x58, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s5_info) == 0x60, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s5_addr) == 0x70, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s6_info) == 0x78, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s6_addr) == 0x90, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s7_info) == 0x98, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s7_addr) == 0xA0, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s8_info) == 0xA8, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s8_addr) == 0xB0, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s9_info) == 0xB8, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s9_addr) == 0xC0, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s10_info) == 0xC8, "aov_event_query ABI");
static_assert(offsetof(aov_event_query, s10_addr) == 0xD0, "aov_event_query ABI");
static_assert(sizeof(aov_event_query) == 216, "aov_event_query ABI");

// Fields of the 200-byte start record that the driver reads.
constexpr size_t kStartSensorIdOffset = 0x04;
constexpr size_t kStartScenarioOffset = 0x08;
constexpr size_t kStartFrameRateOffset = 0x3C;
constexpr size_t kStartAovModeOffset = 0x48;
constexpr size_t kStartSensorIdxOffset = 0xC0;

// aov_mode value under which the driver also fills sections 6 to 10.
constexpr int32_t kFullContentMode = 2;

using start_record = uint8_t[kStartRecordSize];

constexpr unsigned int AOV_IOC_START = _IOW('H', 0, start_record);
constexpr unsigned int AOV_IOC_SENSOR_ON = _IOW('H', 1, aov_sensor_list);
constexpr unsigned int AOV_IOC_SENSOR_OFF = _IOW('H', 2, aov_sensor_list);
constexpr unsigned int AOV_IOC_DEQUEUE_EVENT = _IOR('H', 3, aov_event_query);
constexpr unsigned int AOV_IOC_STOP = _IO('H', 4);
constexpr unsigned int AOV_IOC_ULPOSC3_ON = _IO('H', 9);
constexpr unsigned int AOV_IOC_ULPOSC3_OFF = _IO('H', 10);

static_assert(AOV_IOC_START == 0x40C84800u, "AOV_IOC_START");
static_assert(AOV_IOC_SENSOR_ON == 0x41044801u, "AOV_IOC_SENSOR_ON");
static_assert(AOV_IOC_SENSOR_OFF == 0x41044802u, "AOV_IOC_SENSOR_OFF");
static_assert(AOV_IOC_DEQUEUE_EVENT == 0x80D84803u, "AOV_IOC_DEQUEUE_EVENT");
static_assert(AOV_IOC_STOP == 0x00004804u, "AOV_IOC_STOP");
static_assert(AOV_IOC_ULPOSC3_ON == 0x00004809u, "AOV_IOC_ULPOSC3_ON");
static_assert(AOV_IOC_ULPOSC3_OFF == 0x0000480Au, "AOV_IOC_ULPOSC3_OFF");

// The ten data areas of an event, in section order: room the driver may
// write behind each address.
constexpr int kSectionCount = 10;
constexpr uint32_t kSectionSize[kSectionCount] = {32768,  2048,   262168, 737312, 184352,
                                                  921632, 161792, 1024,   6144,   1024};
// Sections 1 to 5 carry content whenever an event does; 6 to 10 only in full-content mode.
constexpr int kBasicSectionCount = 5;

}  // namespace kabi
}  // namespace aovsim
