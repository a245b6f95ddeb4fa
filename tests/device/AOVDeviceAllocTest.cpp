// The global allocation functions of this binary are replaced: they count the
// allocations of the calling thread, and they can hold back the allocation of
// the event buffer, so a test can look at the device before its buffer exists.
#include <gmock/gmock.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "BoundedWait.h"
#include "DeviceTestSupport.h"

namespace {

thread_local size_t tAllocations = 0;

// Closed: an allocation of the event buffer's size waits until it opens.
std::mutex gGateMutex;
std::condition_variable gGateOpened;
bool gGateClosed = false;

void* allocate(size_t size) {
    ++tAllocations;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(size_t size) {
    void* block = allocate(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}
void* operator new[](size_t size) {
    return ::operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (size == kEventBufferSize) {
        std::unique_lock<std::mutex> lock(gGateMutex);
        if (!gGateOpened.wait_for(lock, aovtest::kWaitLimit, [] { return !gGateClosed; })) {
            std::fprintf(stderr, "the event buffer's allocation waited %lld s for its gate\n",
                         static_cast<long long>(aovtest::kWaitLimit.count()));
            std::abort();
        }
    }
    return allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

namespace aovtest {
namespace {

using ::testing::ElementsAre;

// Keeps the event buffer's allocation waiting for its lifetime.
struct ClosedGate {
    ClosedGate() { set(true); }
    ~ClosedGate() { set(false); }
    static void set(bool closed) {
        {
            std::lock_guard<std::mutex> guard(gGateMutex);
            gGateClosed = closed;
        }
        gGateOpened.notify_all();
    }
};

using AOVDeviceAllocTest = DeviceTest;

TEST_F(AOVDeviceAllocTest, EventBeforeTheBufferExistsSendsNoCommand) {
    ProbedDevice d;
    user_param param = makeParam(0);
    {
        ClosedGate hold;
        ASSERT_EQ(0, d.device.startDevice(param));
        logs_.clear();
        d.device.notifyEvent(0, 0);
        EXPECT_EQ(0, d.calls);
        EXPECT_THAT(driver_->codes(), ElementsAre(AOV_IOC_START));
        expectErrorLine(logs_, kDeviceHeaderPath, "queryEvent", "event_ is nullptr");
        expectErrorLine(logs_, kDeviceHeaderPath, "notifyEvent", "failed to query event: -1");
        const auto lines = errors(logs_);
        ASSERT_EQ(2u, lines.size());
        EXPECT_NE(std::string::npos, lines[0].find("event_ is nullptr"));
    }
    // Waits for the allocation that the gate held back, then frees it.
    EXPECT_EQ(0, d.device.stopDevice());
}

TEST_F(AOVDeviceAllocTest, DeliveringAnEventAllocatesNothing) {
    // The counter sees this thread's allocations.
    const size_t counted = tAllocations;
    ::operator delete(::operator new(16));
    ASSERT_EQ(counted + 1, tAllocations);

    for (int32_t mode : {0, 2}) {
        SCOPED_TRACE(mode);
        ProbedDevice d;
        ASSERT_NE(nullptr, d.start(mode));
        driver_->setRecording(false);
        for (uint32_t seed = 0; seed < 4; ++seed) {
            driver_->setEvent(makeEventWords(seed, seed % 2 == 0), static_cast<uint8_t>(seed));
            const size_t before = tAllocations;
            d.device.notifyEvent(0, 0);
            const size_t after = tAllocations;
            EXPECT_EQ(before, after) << "event " << seed;
        }
        EXPECT_EQ(5, d.calls);
        driver_->setRecording(true);
        EXPECT_EQ(0, d.device.stopDevice());
    }
}

}  // namespace
}  // namespace aovtest
