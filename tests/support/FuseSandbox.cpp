#include "FuseSandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace aovtest {

std::string fuseUnavailable() {
    if (::geteuid() != 0) {
        return "FUSE tests need root (for the mount namespace and the mount)";
    }
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        return std::string("FUSE tests need /dev/fuse: ") + std::strerror(errno);
    }
    return std::string();
}

bool fuseRequired() {
    const char* ci = std::getenv("CI");
    return ci != nullptr && std::strcmp(ci, "true") == 0;
}

bool MountSandbox::enter(const std::string& prefix, std::string* problem) {
    if (::unshare(CLONE_NEWNS) != 0) {
        *problem = std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
        return false;
    }
    // Nothing mounted from here on propagates back to the host's namespace.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *problem = std::string("making / private: ") + std::strerror(errno);
        return false;
    }
    std::string pattern = "/tmp/" + prefix + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        *problem = "mkdtemp " + pattern + ": " + std::strerror(errno);
        return false;
    }
    dir_ = name.data();
    return true;
}

MountSandbox::~MountSandbox() {
    if (!dir_.empty()) {
        ::umount2(dir_.c_str(), MNT_DETACH);
        ::rmdir(dir_.c_str());
    }
}

}  // namespace aovtest
