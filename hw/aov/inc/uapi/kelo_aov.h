/*
 * Kernel interface of the AOV driver behind "/dev/kelo_aov": request codes,
 * the records that cross the boundary, and where the event sections sit in
 * the dequeue record and in the event buffer. Plain C, so that the driver
 * side and user space can share it; every offset and size is pinned below.
 */
#ifndef KELO_AOV_UAPI_H
#define KELO_AOV_UAPI_H

#include <linux/ioctl.h>
#include <linux/types.h>
#ifdef __KERNEL__
#include <linux/stddef.h>
#else
#include <stddef.h>
#endif

#include "aov_event.h"

#ifdef __cplusplus
#define AOV_UAPI_ASSERT(condition, message) static_assert(condition, message)
#else
#define AOV_UAPI_ASSERT(condition, message) _Static_assert(condition, message)
#endif

AOV_UAPI_ASSERT(sizeof(void*) == 8, "the driver ABI uses 64-bit pointers");

/* The driver's node: its name under /dev, and its path. */
#define AOV_DEVICE_NAME "kelo_aov"
#define AOV_DEVICE_NODE "/dev/" AOV_DEVICE_NAME

/* Sensor ids switched on or off by one request. */
#define AOV_MAX_SENSORS_PER_REQUEST 64

struct aov_sensor_list {
    __u32 count; /* valid entries in sensor_ids, 1 to AOV_MAX_SENSORS_PER_REQUEST */
    __s32 sensor_ids[AOV_MAX_SENSORS_PER_REQUEST];
};

AOV_UAPI_ASSERT(offsetof(struct aov_sensor_list, count) == 0x000, "aov_sensor_list ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_sensor_list, sensor_ids) == 0x004, "aov_sensor_list ABI");
AOV_UAPI_ASSERT(sizeof(struct aov_sensor_list) == 260, "aov_sensor_list ABI");

/*
 * Dequeue record: user space sets the ten data-area addresses and zeroes the
 * rest; the driver writes each area through its address and fills the words.
 */
struct aov_event_query {
    __u32 header[6];
    __u32 s1_info;
    void* s1_addr;
    __u32 s2_info;
    void* s2_addr;
    __u32 s3_info;
    void* s3_addr;
    __u32 s4_info[4];
    void* s4_addr;
    __u32 s5_info[4];
    void* s5_addr;
    __u32 s6_info[5];
    void* s6_addr;
    __u32 s7_info;
    void* s7_addr;
    __u32 s8_info;
    void* s8_addr;
    __u32 s9_info;
    void* s9_addr;
    __u32 s10_info;
    void* s10_addr;
};

AOV_UAPI_ASSERT(offsetof(struct aov_event_query, header) == 0x00, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s1_info) == 0x18, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s1_addr) == 0x20, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s2_info) == 0x28, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s2_addr) == 0x30, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s3_info) == 0x38, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s3_addr) == 0x40, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s4_info) == 0x48, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s4_addr) == 0x58, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s5_info) == 0x60, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s5_addr) == 0x70, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s6_info) == 0x78, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s6_addr) == 0x90, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s7_info) == 0x98, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s7_addr) == 0xA0, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s8_info) == 0xA8, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s8_addr) == 0xB0, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s9_info) == 0xB8, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s9_addr) == 0xC0, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s10_info) == 0xC8, "aov_event_query ABI");
AOV_UAPI_ASSERT(offsetof(struct aov_event_query, s10_addr) == 0xD0, "aov_event_query ABI");
AOV_UAPI_ASSERT(sizeof(struct aov_event_query) == 216, "aov_event_query ABI");

/*
 * Start record: the first AOV_START_RECORD_SIZE bytes of the start
 * parameters. The driver reads the words at these offsets.
 */
#define AOV_START_RECORD_SIZE 200
#define AOV_START_SENSOR_ID 0x04
#define AOV_START_SCENARIO 0x08
#define AOV_START_ORIENTATION 0x0C
#define AOV_START_FACE 0x10
#define AOV_START_MODE_HEAD 0x14     /* four words */
#define AOV_START_FRAME_INFO_LO 0x24 /* two words */
#define AOV_START_FRAME_INFO_HI 0x30 /* two words */
#define AOV_START_FRAME_RATE 0x3C
#define AOV_START_FRAME_INFO_SEL 0x40
#define AOV_START_AOV_MODE 0x48
#define AOV_START_SENSOR_IDX 0xC0

/* aov_mode under which sections 6 to 10 carry content too. */
#define AOV_MODE_FULL_CONTENT 2

typedef __u8 aov_start_record[AOV_START_RECORD_SIZE];

/* The start record's words, as the driver reads them. */
struct aov_start_params {
    __s32 sensor_id;
    __s32 scenario;
    __s32 orientation;
    __s32 face;
    __u32 mode_head[4];
    __u32 frame_info[4]; /* the two words at AOV_START_FRAME_INFO_LO, then the two at _HI */
    __s32 frame_rate;
    __s32 frame_info_sel;
    __s32 aov_mode;
    __s32 sensor_idx;
};

/* Decodes a start record of AOV_START_RECORD_SIZE bytes, at any alignment. */
static inline void aov_start_decode(const __u8* record, struct aov_start_params* out) {
    __builtin_memcpy(&out->sensor_id, record + AOV_START_SENSOR_ID, sizeof(out->sensor_id));
    __builtin_memcpy(&out->scenario, record + AOV_START_SCENARIO, sizeof(out->scenario));
    __builtin_memcpy(&out->orientation, record + AOV_START_ORIENTATION, sizeof(out->orientation));
    __builtin_memcpy(&out->face, record + AOV_START_FACE, sizeof(out->face));
    __builtin_memcpy(out->mode_head, record + AOV_START_MODE_HEAD, sizeof(out->mode_head));
    __builtin_memcpy(out->frame_info, record + AOV_START_FRAME_INFO_LO, 2 * sizeof(__u32));
    __builtin_memcpy(out->frame_info + 2, record + AOV_START_FRAME_INFO_HI, 2 * sizeof(__u32));
    __builtin_memcpy(&out->frame_rate, record + AOV_START_FRAME_RATE, sizeof(out->frame_rate));
    __builtin_memcpy(&out->frame_info_sel, record + AOV_START_FRAME_INFO_SEL,
                     sizeof(out->frame_info_sel));
    __builtin_memcpy(&out->aov_mode, record + AOV_START_AOV_MODE, sizeof(out->aov_mode));
    __builtin_memcpy(&out->sensor_idx, record + AOV_START_SENSOR_IDX, sizeof(out->sensor_idx));
}

#define AOV_IOC_START _IOW('H', 0, aov_start_record)
#define AOV_IOC_SENSOR_ON _IOW('H', 1, struct aov_sensor_list)
#define AOV_IOC_SENSOR_OFF _IOW('H', 2, struct aov_sensor_list)
#define AOV_IOC_DEQUEUE_EVENT _IOR('H', 3, struct aov_event_query)
#define AOV_IOC_STOP _IO('H', 4)
#define AOV_IOC_ULPOSC3_ON _IO('H', 9)
#define AOV_IOC_ULPOSC3_OFF _IO('H', 10)

AOV_UAPI_ASSERT(AOV_IOC_START == 0x40C84800u, "AOV_IOC_START");
AOV_UAPI_ASSERT(AOV_IOC_SENSOR_ON == 0x41044801u, "AOV_IOC_SENSOR_ON");
AOV_UAPI_ASSERT(AOV_IOC_SENSOR_OFF == 0x41044802u, "AOV_IOC_SENSOR_OFF");
AOV_UAPI_ASSERT(AOV_IOC_DEQUEUE_EVENT == 0x80D84803u, "AOV_IOC_DEQUEUE_EVENT");
AOV_UAPI_ASSERT(AOV_IOC_STOP == 0x00004804u, "AOV_IOC_STOP");
AOV_UAPI_ASSERT(AOV_IOC_ULPOSC3_ON == 0x00004809u, "AOV_IOC_ULPOSC3_ON");
AOV_UAPI_ASSERT(AOV_IOC_ULPOSC3_OFF == 0x0000480Au, "AOV_IOC_ULPOSC3_OFF");
AOV_UAPI_ASSERT(AOV_IOC_SENSOR_OFF == AOV_IOC_SENSOR_ON + 1, "off is on + 1");
AOV_UAPI_ASSERT(AOV_IOC_ULPOSC3_OFF == AOV_IOC_ULPOSC3_ON + 1, "off is on + 1");

/* The request's name ("START", ...), or a null pointer for a code the driver does not know. */
static inline const char* aov_ioc_name(unsigned int code) {
    switch (code) {
        case AOV_IOC_START:
            return "START";
        case AOV_IOC_SENSOR_ON:
            return "SENSOR_ON";
        case AOV_IOC_SENSOR_OFF:
            return "SENSOR_OFF";
        case AOV_IOC_DEQUEUE_EVENT:
            return "DEQUEUE_EVENT";
        case AOV_IOC_STOP:
            return "STOP";
        case AOV_IOC_ULPOSC3_ON:
            return "ULPOSC3_ON";
        case AOV_IOC_ULPOSC3_OFF:
            return "ULPOSC3_OFF";
        default:
            return NULL;
    }
}

/*
 * The ten event sections, in order. Sections 1 to AOV_BASIC_SECTION_COUNT
 * carry content whenever an event does; the rest only under
 * AOV_MODE_FULL_CONTENT.
 */
#define AOV_SECTION_COUNT 10
#define AOV_BASIC_SECTION_COUNT 5

struct aov_section_desc {
    __u32 data_offset;       /* of the data area in struct aov_event */
    __u32 data_size;         /* room the driver may write behind the address */
    __u32 info_offset;       /* of the info words in struct aov_event */
    __u32 info_words;        /* 32-bit info words of the section */
    __u32 query_info_offset; /* of the info words in struct aov_event_query */
    __u32 query_addr_offset; /* of the data-area address in struct aov_event_query */
};

#define AOV_SECTION_DESC_(n)                                                                  \
    {                                                                                         \
        offsetof(struct aov_event, s##n##_data), sizeof(((struct aov_event*)0)->s##n##_data), \
            offsetof(struct aov_event, s##n##_info),                                          \
            sizeof(((struct aov_event*)0)->s##n##_info) / sizeof(__u32),                      \
            offsetof(struct aov_event_query, s##n##_info),                                    \
            offsetof(struct aov_event_query, s##n##_addr)                                     \
    }

#ifdef __cplusplus
inline constexpr
#else
static const
#endif
    struct aov_section_desc aov_event_sections[AOV_SECTION_COUNT] = {
        AOV_SECTION_DESC_(1), AOV_SECTION_DESC_(2),  AOV_SECTION_DESC_(3), AOV_SECTION_DESC_(4),
        AOV_SECTION_DESC_(5), AOV_SECTION_DESC_(6),  AOV_SECTION_DESC_(7), AOV_SECTION_DESC_(8),
        AOV_SECTION_DESC_(9), AOV_SECTION_DESC_(10),
};

#undef AOV_SECTION_DESC_

/*
 * The data-area address of section `index` (0 to AOV_SECTION_COUNT - 1) in a
 * dequeue record, and setting it. Copied bytewise: the record may be a copy
 * at any alignment (a recording, a byte buffer).
 */
static inline void* aov_query_area(const struct aov_event_query* query, unsigned int index) {
    void* area;
    __builtin_memcpy(&area,
                     (const unsigned char*)query + aov_event_sections[index].query_addr_offset,
                     sizeof(area));
    return area;
}

static inline void aov_query_set_area(struct aov_event_query* query, unsigned int index,
                                      void* area) {
    __builtin_memcpy((unsigned char*)query + aov_event_sections[index].query_addr_offset, &area,
                     sizeof(area));
}

/* The record carries as many info words of a section as the buffer keeps. */
AOV_UAPI_ASSERT(sizeof(((struct aov_event*)0)->s4_info) ==
                    sizeof(((struct aov_event_query*)0)->s4_info),
                "section 4 info words");
AOV_UAPI_ASSERT(sizeof(((struct aov_event*)0)->s5_info) ==
                    sizeof(((struct aov_event_query*)0)->s5_info),
                "section 5 info words");
AOV_UAPI_ASSERT(sizeof(((struct aov_event*)0)->s6_info) ==
                    sizeof(((struct aov_event_query*)0)->s6_info),
                "section 6 info words");

#endif /* KELO_AOV_UAPI_H */
