#include "aovsession/RequestCodec.h"

#include <linux/ioctl.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "aovsession/SessionFormat.h"
#include "kelo_aov.h"

namespace aovrec {

namespace {

uint32_t wordAt(const uint8_t* bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes + offset, sizeof(v));
    return v;
}

int32_t intAt(const uint8_t* bytes, size_t offset) {
    return static_cast<int32_t>(wordAt(bytes, offset));
}

}  // namespace

const char* requestName(uint32_t request) {
    return aov_ioc_name(request);
}

std::string requestLabel(uint32_t request) {
    if (const char* name = requestName(request)) {
        return name;
    }
    char code[32];
    std::snprintf(code, sizeof(code), "ioctl 0x%08x", request);
    return code;
}

size_t requestRecordBytes(uint32_t request) {
    return std::min<size_t>(_IOC_SIZE(request), kMaxArgBytes);
}

bool isAddressByte(uint32_t request, size_t at) {
    if (request != AOV_IOC_DEQUEUE_EVENT) {
        return false;
    }
    for (const aov_section_desc& section : aov_event_sections) {
        if (at >= section.query_addr_offset && at < section.query_addr_offset + sizeof(void*)) {
            return true;
        }
    }
    return false;
}

bool sameRequestBytes(uint32_t request, const uint8_t* a, const uint8_t* b, size_t size) {
    if (request != AOV_IOC_DEQUEUE_EVENT) {
        return size == 0 || std::memcmp(a, b, size) == 0;
    }
    for (size_t i = 0; i < size; ++i) {
        if (a[i] != b[i] && !isAddressByte(request, i)) {
            return false;
        }
    }
    return true;
}

uint64_t comparedDigest(uint32_t request, const uint8_t* bytes, size_t size) {
    uint8_t masked[kMaxArgBytes];
    size = std::min(size, sizeof(masked));
    for (size_t i = 0; i < size; ++i) {
        masked[i] = isAddressByte(request, i) ? 0 : bytes[i];
    }
    return digest(masked, size);
}

std::string describeRequest(uint32_t request, const uint8_t* bytes, size_t size) {
    std::string out = requestLabel(request);
    if (bytes == nullptr) {
        return _IOC_SIZE(request) > 0 ? out + " (no record)" : out;
    }
    char text[256];
    if (request == AOV_IOC_START && size >= AOV_START_RECORD_SIZE) {
        aov_start_params params;
        aov_start_decode(bytes, &params);
        std::snprintf(text, sizeof(text),
                      " sensor_id %d scenario %d frame_rate %d frame_info_sel %d aov_mode %d "
                      "sensor_idx %d",
                      params.sensor_id, params.scenario, params.frame_rate, params.frame_info_sel,
                      params.aov_mode, params.sensor_idx);
        out += text;
    } else if ((request == AOV_IOC_SENSOR_ON || request == AOV_IOC_SENSOR_OFF) &&
               size >= sizeof(aov_sensor_list)) {
        const uint32_t count = wordAt(bytes, 0);
        out += " count " + std::to_string(count) + " ids [";
        const uint32_t shown = std::min<uint32_t>(count, 8);
        for (uint32_t i = 0; i < shown; ++i) {
            out += (i > 0 ? ", " : "") + std::to_string(intAt(bytes, 4 + 4 * i));
        }
        out += count > shown ? ", ...]" : "]";
    }
    std::snprintf(text, sizeof(text), " (%zu bytes%s, xxh64 %016" PRIx64 ")", size,
                  request == AOV_IOC_DEQUEUE_EVENT ? " without the addresses" : "",
                  comparedDigest(request, bytes, size));
    return out + text;
}

}  // namespace aovrec
