#ifndef AOV_EVENT_H
#define AOV_EVENT_H

#ifdef __KERNEL__
#include <linux/stddef.h>
#include <linux/types.h>
#else
#include <stddef.h>
#include <stdint.h>
#endif

// The event buffer handed to the system layer's callback. Each section's info
// words sit right before its data area; the driver writes the data areas in
// place and the device copies the header and info words of each event.
// Plain C, as the driver's interface header builds on it.
struct aov_event {
    uint32_t word0;  // never written
    uint32_t header[6];
    uint32_t s1_info;
    uint8_t s1_data[32768];
    uint32_t s2_info;
    uint8_t s2_data[2048];
    uint32_t s3_info;
    uint8_t s3_data[262168];
    uint32_t s4_info[4];
    uint8_t s4_data[737312];
    uint32_t s5_info[4];
    uint8_t s5_data[184352];
    uint32_t s6_info[5];
    uint8_t s6_data[921632];
    uint32_t s7_info;
    uint8_t s7_data[161792];
    uint32_t s8_info;
    uint8_t s8_data[1024];
    uint32_t s9_info;
    uint8_t s9_data[6144];
    uint32_t s10_info;
    uint8_t s10_data[1024];
};

#ifdef __cplusplus
constexpr size_t kEventBufferSize = 2310372;  // 0x2340E4

// header[5] non-zero: the event carries section content.
constexpr int kEventContentFlagIndex = 5;

static_assert(sizeof(aov_event) == kEventBufferSize, "aov_event ABI");
#define AOV_EVENT_ASSERT_(condition) static_assert(condition, "aov_event ABI")
#else
#define AOV_EVENT_ASSERT_(condition) _Static_assert(condition, "aov_event ABI")
#endif

AOV_EVENT_ASSERT_(sizeof(struct aov_event) == 0x2340E4);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, header) == 0x000004);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s1_info) == 0x00001C);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s1_data) == 0x000020);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s2_info) == 0x008020);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s2_data) == 0x008024);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s3_info) == 0x008824);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s3_data) == 0x008828);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s4_info) == 0x048840);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s4_data) == 0x048850);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s5_info) == 0x0FC870);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s5_data) == 0x0FC880);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s6_info) == 0x1298A0);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s6_data) == 0x1298B4);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s7_info) == 0x20A8D4);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s7_data) == 0x20A8D8);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s8_info) == 0x2320D8);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s8_data) == 0x2320DC);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s9_info) == 0x2324DC);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s9_data) == 0x2324E0);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s10_info) == 0x233CE0);
AOV_EVENT_ASSERT_(offsetof(struct aov_event, s10_data) == 0x233CE4);

#undef AOV_EVENT_ASSERT_

#endif  // AOV_EVENT_H
