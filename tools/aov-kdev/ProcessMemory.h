#pragma once

// Another process's memory, reached the way a driver's copy to and from user
// space reaches its caller's: through process_vm_readv and process_vm_writev.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "aovsim/UserMemory.h"

namespace aovkdev {

// Reads `size` bytes at `address` in process `pid`: 0, or -EFAULT when any
// of them cannot be read (or -EPERM, -ESRCH from the system).
int readProcessMemory(pid_t pid, const void* address, void* out, size_t size);

class ProcessMemory final : public aovsim::UserMemory {
  public:
    explicit ProcessMemory(pid_t pid) : pid_(pid) {}
    int write(void* address, size_t size, const Producer& produce) override;

  private:
    pid_t pid_;
    std::vector<uint8_t> scratch_;
};

}  // namespace aovkdev
