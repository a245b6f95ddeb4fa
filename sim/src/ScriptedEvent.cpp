#include "aovsim/ScriptedEvent.h"

#include <algorithm>
#include <cstring>

namespace aovsim {

namespace {

uint8_t* bytesOf(aov_event* event) {
    return reinterpret_cast<uint8_t*>(event);
}

const uint8_t* bytesOf(const aov_event* event) {
    return reinterpret_cast<const uint8_t*>(event);
}

}  // namespace

void writeArea(const AreaContent& content, uint8_t* area, uint32_t size) {
    const size_t length = std::min<size_t>(content.bytes.size(), size);
    if (length == 0) {
        return;
    }
    if (!content.repeat) {
        std::memcpy(area, content.bytes.data(), length);
        return;
    }
    // Double the written prefix until the area is full.
    std::memcpy(area, content.bytes.data(), length);
    size_t done = length;
    while (done < size) {
        const size_t step = std::min<size_t>(done - done % length, size - done);
        std::memcpy(area + done, area, step);
        done += step;
    }
}

ExpectedBuffer::ExpectedBuffer() : expected_(std::make_unique<aov_event>()) {
    std::memset(expected_.get(), 0, sizeof(aov_event));
}

void ExpectedBuffer::deliver(const ScriptedEvent& event, int32_t aovMode, bool imageCallback) {
    std::memcpy(expected_->header, event.header.data(), sizeof(expected_->header));
    const bool full = aovMode == AOV_MODE_FULL_CONTENT;
    const bool copyInfo = event.header[5] != 0 || aovMode != 0;
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        writeArea(event.areas[s], bytesOf(expected_.get()) + section.data_offset,
                  section.data_size);
        if (!copyInfo || (s >= AOV_BASIC_SECTION_COUNT && !full)) {
            continue;
        }
        for (uint32_t w = 0; w < section.info_words; ++w) {
            // The fourth info word of sections 4 and 5 belongs to the image callback.
            const bool imageWord = (s == 3 || s == 4) && w == 3;
            const uint32_t value = imageWord && !imageCallback && !full ? 0 : event.info[s][w];
            std::memcpy(bytesOf(expected_.get()) + section.info_offset + w * sizeof(uint32_t),
                        &value, sizeof(value));
        }
    }
}

std::string ExpectedBuffer::differences(const aov_event& actual) const {
    std::string out;
    const auto note = [&out](const std::string& what) { out += (out.empty() ? "" : ", ") + what; };
    if (std::memcmp(actual.header, expected_->header, sizeof(actual.header)) != 0) {
        note("header");
    }
    for (int s = 0; s < AOV_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        const std::string name = "s" + std::to_string(s + 1);
        if (std::memcmp(bytesOf(&actual) + section.info_offset,
                        bytesOf(expected_.get()) + section.info_offset,
                        section.info_words * sizeof(uint32_t)) != 0) {
            note(name + " info");
        }
        if (std::memcmp(bytesOf(&actual) + section.data_offset,
                        bytesOf(expected_.get()) + section.data_offset, section.data_size) != 0) {
            note(name + " data");
        }
    }
    return out;
}

}  // namespace aovsim
