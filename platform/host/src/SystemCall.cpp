#include "cam/system/SystemCall.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"

namespace {

// Emulated nodes by path, and the descriptors they handed out.
struct NodeTable {
    aov::Mutex mutex;
    std::map<std::string, std::shared_ptr<aovhost::EmulatedNode>> byPath AOV_GUARDED_BY(mutex);
    std::map<int, std::shared_ptr<aovhost::EmulatedNode>> byFd AOV_GUARDED_BY(mutex);
};

// Never destroyed: singletons close their nodes during process exit.
NodeTable& nodes() {
    static NodeTable* table = new NodeTable;
    return *table;
}

std::shared_ptr<aovhost::EmulatedNode> nodeOfFd(int fd) {
    NodeTable& table = nodes();
    aov::MutexLock guard(table.mutex);
    auto it = table.byFd.find(fd);
    return it == table.byFd.end() ? nullptr : it->second;
}

// Where the operating system is asked for a device path: the path itself, or
// with AOV_DEV_DIR set, the same name under that directory instead of /dev.
std::string hostPathOf(const char* path) {
    constexpr char kDev[] = "/dev/";
    const char* dir = std::getenv(aovhost::kDevDirEnv);
    if (dir == nullptr || *dir == '\0' || std::strncmp(path, kDev, sizeof(kDev) - 1) != 0) {
        return path;
    }
    return std::string(dir) + "/" + (path + sizeof(kDev) - 1);
}

}  // namespace

namespace aovhost {

ScopedNode::ScopedNode(std::string path, std::shared_ptr<EmulatedNode> node)
    : path_(std::move(path)) {
    NodeTable& table = nodes();
    aov::MutexLock guard(table.mutex);
    auto& slot = table.byPath[path_];
    previous_ = std::move(slot);
    slot = std::move(node);
}

ScopedNode::~ScopedNode() {
    NodeTable& table = nodes();
    aov::MutexLock guard(table.mutex);
    if (previous_) {
        table.byPath[path_] = std::move(previous_);
    } else {
        table.byPath.erase(path_);
    }
}

}  // namespace aovhost

int SystemCall::open(const char* path, int flags) {
    std::shared_ptr<aovhost::EmulatedNode> node;
    {
        NodeTable& table = nodes();
        aov::MutexLock guard(table.mutex);
        auto it = table.byPath.find(path);
        if (it != table.byPath.end()) {
            node = it->second;
        }
    }
    if (node) {
        const int fd = node->open(flags);
        if (fd >= 0) {
            NodeTable& table = nodes();
            aov::MutexLock guard(table.mutex);
            table.byFd[fd] = node;
        }
        return fd;
    }
    const int fd = ::open(hostPathOf(path).c_str(), flags | O_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

int SystemCall::close(int fd) {
    if (auto node = nodeOfFd(fd)) {
        const int result = node->close(fd);
        if (result == 0) {
            NodeTable& table = nodes();
            aov::MutexLock guard(table.mutex);
            table.byFd.erase(fd);
        }
        return result;
    }
    return ::close(fd) < 0 ? -errno : 0;
}

int SystemCall::ioctl(int fd, int request, void* arg, bool, const char*) {
    // The request is a 32-bit code; keep its high bit out of the sign.
    const unsigned int code = static_cast<uint32_t>(request);
    if (auto node = nodeOfFd(fd)) {
        return node->ioctl(fd, code, arg);
    }
    const int result = ::ioctl(fd, static_cast<unsigned long>(code), arg);
    return result < 0 ? -errno : result;
}
