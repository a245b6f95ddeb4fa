// A library session on the AOV node with nothing but the library and the host
// platform (no simulator): starts the device, watches its descriptor with a
// minimal monitor, lets the library dequeue N events into its buffer and
// checks what the callback receives against the content the reference
// driver writes, then stops. Run inside the kernel harness's guests, where
// the Arm64 build has no aov-sim.
//
//   aov_ksession [EVENTS]      (default 5; exit 0 when all arrived intact)

#include <poll.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "EventMonitor.h"
#include "EventObserver.h"
#include "IAOVDevice.h"
#include "aov_event.h"
#include "aovsim/EventContent.h"
#include "kelo_aov.h"
#include "user_param.h"

namespace {

constexpr int kEventLimitMs = 3000;  // per event, from the last one
constexpr int kBasicSections = 5;

// Keeps the observer the device registers, so the loop can notify it.
class HeldMonitor : public EventMonitor {
  public:
    int addObserver(EventObserver* observer, int) override {
        observer_ = observer;
        return 0;
    }
    int removeObserver(EventObserver* observer, int) override {
        if (observer_ == observer) {
            observer_ = nullptr;
        }
        return 0;
    }
    EventObserver* observer() const { return observer_; }

  private:
    EventObserver* observer_ = nullptr;
};

struct Deliveries {
    int count = 0;
    int bad = 0;
    uint32_t last_sequence = 0;
};

// One delivered buffer: a newer sequence, and with the content flag the
// five basic areas as the driver stamps them.
void check(const aov_event* event, Deliveries* d) {
    const uint32_t sequence = event->header[0];
    bool ok = sequence > d->last_sequence;
    if (ok && event->header[kEventContentFlagIndex] != 0) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(event);
        for (int s = 0; s < kBasicSections; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            uint32_t written = 0;
            std::memcpy(&written, bytes + section.info_offset, sizeof(written));
            ok = ok && written == section.data_size &&
                 aovsim::sectionContentMatches(bytes + section.data_offset, section.data_size,
                                               sequence, static_cast<uint32_t>(s + 1));
        }
    }
    if (!ok) {
        std::printf("aov_ksession: event %d (sequence %u after %u): content not as written\n",
                    d->count + 1, sequence, d->last_sequence);
        ++d->bad;
    }
    d->last_sequence = sequence;
    ++d->count;
}

void pause1ms() {
    const timespec tick{0, 1000 * 1000};
    nanosleep(&tick, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    const int wanted = argc > 1 ? std::atoi(argv[1]) : 5;
    if (wanted < 1 || wanted > 10000) {
        std::fprintf(stderr, "aov_ksession: EVENTS must be 1 to 10000\n");
        return 2;
    }
    IAOVDevice* device = IAOVDevice::getInstance();
    const int fd = device->getEventFD();
    if (fd < 0) {
        std::printf("aov_ksession: the node did not open (descriptor %d)\n", fd);
        return 1;
    }
    Deliveries deliveries;
    device->callback_ = [&deliveries](aov_event* event) { check(event, &deliveries); };
    HeldMonitor monitor;
    device->setMonitor(&monitor);
    if (monitor.observer() == nullptr) {
        std::printf("aov_ksession: the device did not register with the monitor\n");
        return 1;
    }

    user_param param{};
    param.frame_rate = 10;
    int result = device->startDevice(param);
    if (result != 0) {
        std::printf("aov_ksession: startDevice -> %d\n", result);
        return 1;
    }
    // Notify while readable; a notification that delivers nothing (the
    // buffer still being allocated) is retried after a millisecond.
    int waitedMs = 0;
    while (deliveries.count < wanted && waitedMs < kEventLimitMs) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) != 1) {
            waitedMs += 100;
            continue;
        }
        const int before = deliveries.count;
        monitor.observer()->notifyEvent(fd, 0);
        if (deliveries.count == before) {
            pause1ms();
            ++waitedMs;
        } else {
            waitedMs = 0;
        }
    }
    result = device->stopDevice();
    device->setMonitor(nullptr);
    std::printf("aov_ksession: %d of %d events delivered, %d not as written, stopDevice -> %d\n",
                deliveries.count, wanted, deliveries.bad, result);
    return deliveries.count == wanted && deliveries.bad == 0 && result == 0 ? 0 : 1;
}
