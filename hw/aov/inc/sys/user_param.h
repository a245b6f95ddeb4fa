#pragma once

#include <cstddef>
#include <cstdint>

// Start parameters of an AOV session. The system layer owns the record; the
// sensor service completes it and the device sends its first
// kUserParamKernelSize bytes to the driver. The requested width and height
// sit behind that part on purpose: only the sensor service reads them.
struct user_param {
    uint32_t reserved_00;
    int32_t sensor_id;      // in: sensor id, key of the sensor catalogue
    int32_t scenario;       // out: scenario of the chosen sensor mode
    int32_t orientation;    // out
    int32_t face;           // out: 1 facing, 0 otherwise
    uint32_t mode_head[4];  // out: type, bit, sensor_ae, mode_param of the mode
    int32_t frame_info0;    // out: customisation frame-information words
    int32_t frame_info1;
    uint32_t reserved_2c;
    int32_t frame_info2;
    int32_t frame_info3;
    uint32_t reserved_38;
    int32_t frame_rate;      // in: whole frames per second
    int32_t frame_info_sel;  // in: selector for the frame-information query
    uint32_t reserved_44;
    int32_t aov_mode;  // in: 2 selects the full event content
    uint32_t reserved_4c[29];
    int32_t sensor_idx;  // out: camera id of the sensor pipe
    uint32_t reserved_c4;
    int32_t width;   // in: requested width, not sent to the driver
    int32_t height;  // in: requested height, not sent to the driver
};

// Bytes of user_param that cross into the kernel with the start command.
constexpr size_t kUserParamKernelSize = 200;

static_assert(offsetof(user_param, sensor_id) == 0x04, "user_param ABI");
static_assert(offsetof(user_param, scenario) == 0x08, "user_param ABI");
static_assert(offsetof(user_param, orientation) == 0x0C, "user_param ABI");
static_assert(offsetof(user_param, face) == 0x10, "user_param ABI");
static_assert(offsetof(user_param, mode_head) == 0x14, "user_param ABI");
static_assert(sizeof(user_param::mode_head) == 16, "user_param ABI");
static_assert(offsetof(user_param, frame_info0) == 0x24, "user_param ABI");
static_assert(offsetof(user_param, frame_info1) == 0x28, "user_param ABI");
static_assert(offsetof(user_param, frame_info2) == 0x30, "user_param ABI");
static_assert(offsetof(user_param, frame_info3) == 0x34, "user_param ABI");
static_assert(offsetof(user_param, frame_rate) == 0x3C, "user_param ABI");
static_assert(offsetof(user_param, frame_info_sel) == 0x40, "user_param ABI");
static_assert(offsetof(user_param, aov_mode) == 0x48, "user_param ABI");
static_assert(offsetof(user_param, reserved_4c) == 0x4C, "user_param ABI");
static_assert(sizeof(user_param::reserved_4c) == 116, "user_param ABI");
static_assert(offsetof(user_param, sensor_idx) == 0xC0, "user_param ABI");
static_assert(offsetof(user_param, width) == 0xC8, "user_param ABI");
static_assert(offsetof(user_param, height) == 0xCC, "user_param ABI");
static_assert(offsetof(user_param, width) == kUserParamKernelSize, "size kept out of the kernel");
static_assert(sizeof(user_param) >= 208, "user_param ABI");
