#pragma once

// The memory of the process that made a request: where the driver writes an
// event's data areas, through the addresses the dequeue record holds.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace aovsim {

class UserMemory {
  public:
    // Fills `size` bytes of a buffer; the caller copies them to the user's address.
    using Producer = std::function<void(uint8_t* bytes)>;

    virtual ~UserMemory() = default;
    // Writes `size` bytes, made by `produce`, at the user's `address`: 0, or
    // -EFAULT when the address range cannot be written.
    virtual int write(void* address, size_t size, const Producer& produce) = 0;
};

// The caller shares the driver's address space: the producer writes in place.
class LocalMemory final : public UserMemory {
  public:
    int write(void* address, size_t size, const Producer& produce) override {
        if (address == nullptr && size > 0) {
            return -EFAULT;
        }
        produce(static_cast<uint8_t*>(address));
        return 0;
    }
};

}  // namespace aovsim
