#include "Arena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Failure.h"

namespace aovcompliance {

using aovsimtool::fail;

namespace {

constexpr size_t kEventSize = sizeof(aov_event);
constexpr size_t kScratch = 2048 + sizeof(DrainLog);

}  // namespace

std::string hex(unsigned long value) {
    char text[32];
    std::snprintf(text, sizeof(text), "0x%08lx", value);
    return text;
}

bool Arena::map() {
    page_ = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    event_span_ = roundUp(kEventSize + 64);
    size_ = event_span_ + page_ + page_ + page_ + roundUp(kScratch) + page_;
    void* base = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return false;
    }
    base_ = static_cast<uint8_t*>(base);
    event_ = base_;
    query_ = base_ + event_span_ + page_;
    scratch_ = query_ + page_ + page_;
    fault_ = scratch_ + roundUp(kScratch);
    return ::mprotect(event_ + event_span_, page_, PROT_NONE) == 0 &&
           ::mprotect(query_ + page_, page_, PROT_NONE) == 0 &&
           ::mprotect(fault_, page_, PROT_NONE) == 0;
}

Arena::~Arena() {
    if (base_ != nullptr) {
        ::munmap(base_, size_);
    }
}

uint8_t* Arena::startRecord() {
    uint8_t* record = scratch_;
    std::memset(record, 0, 512);
    const int32_t rate = kFrameRate;
    const int32_t mode = AOV_MODE_FULL_CONTENT;
    std::memcpy(record + AOV_START_FRAME_RATE, &rate, sizeof(rate));
    std::memcpy(record + AOV_START_AOV_MODE, &mode, sizeof(mode));
    return record;
}

aov_sensor_list* Arena::sensorList(uint32_t count) {
    auto* list = reinterpret_cast<aov_sensor_list*>(scratch_ + 1024);
    std::memset(list, 0, sizeof(*list));
    list->count = count;
    for (uint32_t i = 0; i < AOV_MAX_SENSORS_PER_REQUEST; ++i) {
        list->sensor_ids[i] = static_cast<int32_t>(i);
    }
    return list;
}

void Arena::prepareDequeue(bool faulting) {
    std::memset(event_, kCanary, event_span_);
    std::memset(query_, kCanary, page_);
    aov_event_query* record = query();
    std::memset(record, 0, sizeof(*record));
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        aov_query_set_area(record, s,
                           faulting ? fault_ : event_ + aov_event_sections[s].data_offset);
    }
}

bool Arena::writesOnlyInAreas(std::string* outside) const {
    size_t from = 0;
    for (int s = 0; s <= AOV_SECTION_COUNT; ++s) {
        const size_t to = s < AOV_SECTION_COUNT ? aov_event_sections[s].data_offset : event_span_;
        size_t changed = 0;
        size_t first = 0;
        for (size_t i = from; i < to; ++i) {
            if (event_[i] != kCanary && changed++ == 0) {
                first = i;
            }
        }
        if (changed > 0) {
            const std::string where =
                s == 0 ? "before section 1's area"
                : s < AOV_SECTION_COUNT
                    ? "after section " + std::to_string(s) + "'s area"
                    : "after section 10's area, past the end of the event buffer";
            return fail(outside, std::to_string(changed) + " bytes written " + where +
                                     " (first at offset " + hex(first) + ")");
        }
        if (s < AOV_SECTION_COUNT) {
            from = aov_event_sections[s].data_offset + aov_event_sections[s].data_size;
        }
    }
    return true;
}

bool Arena::recordIntact(bool faulting, std::string* damage) const {
    for (size_t i = sizeof(aov_event_query); i < page_; ++i) {
        if (query_[i] != kCanary) {
            return fail(damage, "the bytes after the record were written (offset " + hex(i) + ")");
        }
    }
    const auto* record = reinterpret_cast<const aov_event_query*>(query_);
    for (unsigned s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        const void* want = faulting ? static_cast<const void*>(fault_)
                                    : static_cast<const void*>(event_ + section.data_offset);
        if (aov_query_area(record, s) != want) {
            return fail(damage, "an area address was changed (record offset " +
                                    hex(section.query_addr_offset) + ")");
        }
    }
    for (size_t padding : {0x1C, 0x2C, 0x3C, 0x8C, 0x9C, 0xAC, 0xBC, 0xCC}) {
        uint32_t word;
        std::memcpy(&word, query_ + padding, sizeof(word));
        if (word != 0) {
            return fail(damage,
                        "padding word at record offset " + hex(padding) + " is " + hex(word));
        }
    }
    return true;
}

}  // namespace aovcompliance
