// Delivers events whose dequeue words come from the fuzzer to devices in every
// aov_mode / image-callback combination, and checks the event buffer against a
// model of the copying rules after each event (words an event does not write
// keep what an earlier event left).

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "AOVDevice.h"
#include "FakeAovDriver.h"
#include "FuzzCheck.h"
#include "aovhost/Binding.h"

namespace {

using aovfuzz::check;

constexpr size_t kWordCount = 6 + 1 + 1 + 1 + 4 + 4 + 5 + 1 + 1 + 1 + 1;  // 26 words

// The words of an aov_event_query in record order, and where they land in the buffer.
struct WordPlace {
    size_t recordOffset;
    size_t bufferOffset;
};

constexpr std::array<WordPlace, kWordCount> kPlaces = {{
    {0x00, 0x000004}, {0x04, 0x000008}, {0x08, 0x00000C}, {0x0C, 0x000010}, {0x10, 0x000014},
    {0x14, 0x000018},                                                        // header[0..5]
    {0x18, 0x00001C}, {0x28, 0x008020}, {0x38, 0x008824},                    // s1..s3
    {0x48, 0x048840}, {0x4C, 0x048844}, {0x50, 0x048848}, {0x54, 0x04884C},  // s4
    {0x60, 0x0FC870}, {0x64, 0x0FC874}, {0x68, 0x0FC878}, {0x6C, 0x0FC87C},  // s5
    {0x78, 0x1298A0}, {0x7C, 0x1298A4}, {0x80, 0x1298A8}, {0x84, 0x1298AC}, {0x88, 0x1298B0},
    {0x98, 0x20A8D4}, {0xA8, 0x2320D8}, {0xB8, 0x2324DC}, {0xC8, 0x233CE0},  // s6..s10
}};

// A started device in one configuration, with the model of its buffer.
struct Rig {
    Rig(int32_t mode, int32_t imageCallbackValue, std::string nodePath)
        : aovMode(mode), imageCallback(imageCallbackValue), path(std::move(nodePath)) {}
    ~Rig() {
        if (device) {
            device->stopDevice();  // frees the buffer; the device then joins its task
        }
    }

    int32_t aovMode;
    int32_t imageCallback;
    std::string path;
    std::shared_ptr<aovtest::FakeAovDriver> driver = makeDriver();
    std::unique_ptr<aovhost::ScopedNode> node;
    std::unique_ptr<AOVDevice> device;
    aov_event* buffer = nullptr;
    std::array<uint32_t, kWordCount> model{};

    void start() {
        node = std::make_unique<aovhost::ScopedNode>(path, driver);
        aovhost::ScopedProperty property("vendor.aovstream.image_callback",
                                         std::to_string(imageCallback));
        device = std::make_unique<AOVDevice>(path);
        user_param param{};
        param.aov_mode = aovMode;
        device->startDevice(param);
        device->callback_ = [this](aov_event* event) { buffer = event; };
        NSCam::Utils::ULog::ULogger::sMode = 0;  // the warm-up may log "event_ is nullptr"
        while (buffer == nullptr) {
            device->notifyEvent(0, 0);
        }
        const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
        for (size_t i = 0; i < kWordCount; ++i) {
            std::memcpy(&model[i], bytes + kPlaces[i].bufferOffset, sizeof(uint32_t));
        }
    }

    static std::shared_ptr<aovtest::FakeAovDriver> makeDriver() {
        auto driver = std::make_shared<aovtest::FakeAovDriver>();
        driver->setRecording(false);
        return driver;
    }

    void deliver(const std::array<uint32_t, kWordCount>& words) {
        aov_event_query record{};
        for (size_t i = 0; i < kWordCount; ++i) {
            std::memcpy(reinterpret_cast<uint8_t*>(&record) + kPlaces[i].recordOffset, &words[i],
                        sizeof(uint32_t));
        }
        driver->setEvent(record, 0);
        device->notifyEvent(0, 0);
        for (size_t i = 0; i < 6; ++i) {
            model[i] = words[i];
        }
        if (words[5] != 0 || aovMode != 0) {
            for (size_t i = 6; i < 17; ++i) {
                model[i] = words[i];
            }
            if (aovMode != 2 && imageCallback == 0) {
                model[12] = 0;  // s4_info[3]
                model[16] = 0;  // s5_info[3]
            }
            if (aovMode == 2) {
                for (size_t i = 17; i < kWordCount; ++i) {
                    model[i] = words[i];
                }
            }
        }
        const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
        uint32_t word0;
        std::memcpy(&word0, bytes, sizeof(word0));
        check(word0 == 0);
        for (size_t i = 0; i < kWordCount; ++i) {
            uint32_t actual;
            std::memcpy(&actual, bytes + kPlaces[i].bufferOffset, sizeof(actual));
            check(actual == model[i]);
        }
    }
};

Rig* rigs() {
    // Started once: every input goes on with the buffers the earlier ones left.
    static Rig rigs[] = {{0, 0, "/dev/kelo_aov_fuzz0"}, {0, 1, "/dev/kelo_aov_fuzz1"},
                         {1, 0, "/dev/kelo_aov_fuzz2"}, {1, 1, "/dev/kelo_aov_fuzz3"},
                         {2, 0, "/dev/kelo_aov_fuzz4"}, {2, 1, "/dev/kelo_aov_fuzz5"}};
    static const bool started = [] {
        for (Rig& rig : rigs) {
            rig.start();
        }
        return true;
    }();
    (void)started;
    return rigs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Rig* all = rigs();
    constexpr size_t kEventBytes = 1 + kWordCount * sizeof(uint32_t);
    while (size >= kEventBytes) {
        Rig& rig = all[data[0] % 6];
        std::array<uint32_t, kWordCount> words;
        std::memcpy(words.data(), data + 1, sizeof(words));
        // Favour the content flag's two interesting values.
        if (data[0] & 0x80) {
            words[5] = 0;
        }
        rig.deliver(words);
        data += kEventBytes;
        size -= kEventBytes;
    }
    return 0;
}
