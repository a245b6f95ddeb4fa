#include "DeviceTestSupport.h"

#include <cstring>

#include "BoundedWait.h"

// GCC says AddressSanitizer with a macro, clang with a feature test.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AOV_TEST_ASAN 1
#endif
#endif
#if (defined(__SANITIZE_ADDRESS__) || defined(AOV_TEST_ASAN)) && \
    __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define AOV_TEST_HAS_LSAN 1
#endif

namespace aovtest {

void expectErrorLine(const LogCapture& logs, const std::string& path, const std::string& function,
                     const std::string& text) {
    const std::string head = "[" + path + ", " + function + ", line";
    const std::string tail = "] ERROR: " + text;
    std::vector<CapturedLine> shortForms;
    for (const CapturedLine& line : logs.unifiedLines()) {
        if (line.text.size() > tail.size() &&
            line.text.compare(line.text.size() - tail.size(), tail.size(), tail) == 0) {
            shortForms.push_back(line);
        }
    }
    ASSERT_EQ(1u, shortForms.size()) << "error line: " << text;
    const CapturedLine& shortForm = shortForms.front();
    ASSERT_EQ(0u, shortForm.text.rfind(head, 0)) << shortForm.text;
    const std::string number =
        shortForm.text.substr(head.size(), shortForm.text.size() - head.size() - tail.size());
    ASSERT_EQ(4u, number.size()) << shortForm.text;
    const int line = std::stoi(number);
    EXPECT_EQ(1, shortForm.level);
    EXPECT_EQ(0x101005u, shortForm.moduleId);
    EXPECT_EQ("AOV", shortForm.tag);

    const std::string fileName = path.substr(path.rfind('/') + 1);
    const std::string longForm = "[E][AOV] " + fileName + ":" + std::to_string(line) + " " +
                                 function + "() " + shortForm.text + " (" + function + "){#" +
                                 std::to_string(line) + ":" + path + "}";
    int found = 0;
    for (const CapturedLine& debug : logs.debugLines()) {
        if (debug.text.find(tail + " (") != std::string::npos) {
            ++found;
            EXPECT_EQ(longForm, debug.text);
            EXPECT_EQ(1, debug.level);
        }
    }
    EXPECT_EQ(1, found) << "debug-print line: " << longForm;
}

std::vector<std::string> unifiedAt(const LogCapture& logs, int level) {
    std::vector<std::string> texts;
    for (const CapturedLine& line : logs.unifiedLines()) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

ProbedDevice::ProbedDevice() {
    device.callback_ = [this](aov_event* event) {
        ++calls;
        last = event;
    };
}

aov_event* ProbedDevice::deliver() {
    const int before = calls;
    const bool delivered = retryUntil([&] {
        device.notifyEvent(0, 0);
        return calls != before;
    });
    if (!delivered) {
        ADD_FAILURE() << "no event delivered within " << kWaitLimit.count()
                      << " s: the event buffer was not stored";
    }
    return last;
}

aov_event* ProbedDevice::start(int32_t aovMode) {
    user_param param = makeParam(aovMode);
    const int result = device.startDevice(param);
    if (result != 0) {
        ADD_FAILURE() << "startDevice: " << result;
        return nullptr;
    }
    return deliver();
}

aov_event_query makeEventWords(uint32_t seed, bool content) {
    aov_event_query words;
    std::memset(&words, 0, sizeof(words));
    uint32_t next = seed * 0x100u;
    for (uint32_t& word : words.header) word = ++next;
    words.header[5] = content ? 1u : 0u;
    for (const aov_section_desc& section : aov_event_sections) {
        for (uint32_t i = 0; i < section.info_words; ++i) {
            ++next;
            std::memcpy(reinterpret_cast<uint8_t*>(&words) + section.query_info_offset +
                            i * sizeof(uint32_t),
                        &next, sizeof(next));
        }
    }
    return words;
}

user_param makeParam(int32_t aovMode) {
    user_param param;
    std::memset(&param, 0, sizeof(param));
    param.aov_mode = aovMode;
    return param;
}

void ignoreLeak(const void* block) {
#ifdef AOV_TEST_HAS_LSAN
    __lsan_ignore_object(block);
#else
    (void)block;
#endif
}

}  // namespace aovtest
