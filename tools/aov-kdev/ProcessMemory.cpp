#include "ProcessMemory.h"

#include <sys/uio.h>

#include <cerrno>

namespace aovkdev {

namespace {

// Moves `size` bytes between `local` and `remote` in `pid`, resuming after a
// partial transfer; 0 or a negative errno.
template <class Transfer>
int transferAll(pid_t pid, uint8_t* local, uintptr_t remote, size_t size, Transfer transfer) {
    size_t done = 0;
    while (done < size) {
        iovec mine{local + done, size - done};
        iovec theirs{reinterpret_cast<void*>(remote + done), size - done};
        const ssize_t moved = transfer(pid, &mine, 1, &theirs, 1, 0);
        if (moved < 0) {
            return errno == EFAULT || errno == ENOMEM ? -EFAULT : -errno;
        }
        if (moved == 0) {
            return -EFAULT;
        }
        done += static_cast<size_t>(moved);
    }
    return 0;
}

}  // namespace

int readProcessMemory(pid_t pid, const void* address, void* out, size_t size) {
    if (address == nullptr) {
        return -EFAULT;
    }
    return transferAll(pid, static_cast<uint8_t*>(out), reinterpret_cast<uintptr_t>(address), size,
                       ::process_vm_readv);
}

int ProcessMemory::write(void* address, size_t size, const Producer& produce) {
    if (address == nullptr) {
        return -EFAULT;
    }
    if (scratch_.size() < size) {
        scratch_.resize(size);
    }
    produce(scratch_.data());
    return transferAll(pid_, scratch_.data(), reinterpret_cast<uintptr_t>(address), size,
                       ::process_vm_writev);
}

}  // namespace aovkdev
