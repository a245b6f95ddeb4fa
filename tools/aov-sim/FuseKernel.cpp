#include "FuseKernel.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "aovhost/Binding.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Bind-mounts `source` onto `target`, creating `target` like `st` first.
bool bindEntry(const std::string& source, const std::string& target, const struct stat& st,
               std::string* problem) {
    if (S_ISDIR(st.st_mode)) {
        if (::mkdir(target.c_str(), st.st_mode & 07777) != 0) {
            *problem = errnoText("mkdir " + target);
            return false;
        }
    } else {
        const int fd = ::open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        if (fd < 0) {
            *problem = errnoText("create " + target);
            return false;
        }
        ::close(fd);
    }
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        *problem = errnoText("bind " + target);
        return false;
    }
    return true;
}

// In a private mount namespace: /dev becomes a tmpfs holding the system's
// entries, each bound from the original, and `node` bound as kelo_aov.
bool bindNodeInPrivateDev(const std::string& node, std::string* problem) {
    const int oldDev = ::open("/dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (oldDev < 0) {
        *problem = errnoText("/dev");
        return false;
    }
    const std::string oldPath = "/proc/self/fd/" + std::to_string(oldDev) + "/";
    if (::mount("aov-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        *problem = errnoText("mount a tmpfs on /dev");
        ::close(oldDev);
        return false;
    }
    DIR* entries = ::fdopendir(::dup(oldDev));
    bool ok = entries != nullptr;
    while (ok) {
        const dirent* entry = ::readdir(entries);
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || name == AOV_DEVICE_NAME) {
            continue;
        }
        struct stat st;
        if (::fstatat(oldDev, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        const std::string target = "/dev/" + name;
        if (S_ISLNK(st.st_mode)) {
            char link[4096];
            const ssize_t length = ::readlinkat(oldDev, name.c_str(), link, sizeof(link) - 1);
            if (length > 0 && ::symlink(std::string(link, static_cast<size_t>(length)).c_str(),
                                        target.c_str()) != 0) {
                *problem = errnoText("symlink " + target);
                ok = false;
            }
            continue;
        }
        ok = bindEntry(oldPath + name, target, st, problem);
    }
    if (entries != nullptr) {
        ::closedir(entries);
    }
    ::close(oldDev);
    struct stat nodeStat;
    if (ok && ::stat(node.c_str(), &nodeStat) != 0) {
        *problem = errnoText(node);
        ok = false;
    }
    return ok && bindEntry(node, AOV_DEVICE_NODE, nodeStat, problem);
}

}  // namespace

std::unique_ptr<FuseKernel> FuseKernel::attach(const std::string& scenarioPath,
                                               const std::string& kdevDir, std::string* problem,
                                               const std::string& driverTrack) {
    std::unique_ptr<FuseKernel> kernel(new FuseKernel);
    // A private mount namespace first: a server started here mounts inside it,
    // so its mount goes away with this process whatever happens.
    const bool privateNamespace = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                                  ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!kdevDir.empty()) {
        kernel->dir_ = kdevDir;
        struct stat st;
        if (::stat((kdevDir + "/" AOV_DEVICE_NAME).c_str(), &st) != 0 ||
            ::access((kdevDir + "/status").c_str(), R_OK) != 0) {
            *problem = "--kdev: no aov-kdev serving on " + kdevDir + ": " +
                       errnoText(kdevDir + "/" AOV_DEVICE_NAME);
            return nullptr;
        }
    } else if (!kernel->start(scenarioPath, driverTrack, problem)) {
        return nullptr;
    }
    const std::string node = kernel->dir_ + "/" AOV_DEVICE_NAME;
    if (privateNamespace) {
        if (!bindNodeInPrivateDev(node, problem)) {
            return nullptr;
        }
        kernel->how_ =
            std::string("bound over ") + AOV_DEVICE_NODE + " in a private mount namespace";
    } else {
        ::setenv(aovhost::kDevDirEnv, kernel->dir_.c_str(), 1);
        kernel->how_ = std::string("reached as ") + AOV_DEVICE_NODE + " through " +
                       aovhost::kDevDirEnv + "=" + kernel->dir_;
    }
    // Let the server write event data into this process even where ptrace
    // is restricted to descendants.
    (void)::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    return kernel;
}

bool FuseKernel::start(const std::string& scenarioPath, const std::string& driverTrack,
                       std::string* problem) {
    char dir[] = "/tmp/aov-kdev.XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        *problem = errnoText("mkdtemp /tmp/aov-kdev.XXXXXX");
        return false;
    }
    dir_ = dir;
    own_dir_ = true;
    // The server goes with aov-sim, however aov-sim ends.
    std::vector<std::string> extra = {"--exit-with-parent"};
    if (!scenarioPath.empty()) {
        extra.insert(extra.end(), {"--scenario", scenarioPath});
    }
    if (!driverTrack.empty()) {
        extra.insert(extra.end(), {"--timeline", driverTrack});
    }
    return server_.start(KdevLauncher::defaultProgram(), dir_, extra, problem);
}

std::string FuseKernel::describe() const {
    const std::string who = server_.running()
                                ? "aov-kdev (pid " + std::to_string(server_.pid()) + ")"
                                : std::string("aov-kdev");
    return who + " on " + dir_ + ", " + how_;
}

std::string FuseKernel::checkServer() {
    int status = 0;
    const pid_t pid = server_.pid();
    if (server_.running() && server_.waitExit(0, &status)) {
        died_ = "aov-kdev (pid " + std::to_string(pid) + ") died during the session (" +
                KdevLauncher::exitText(status) + ")";
    }
    if (!died_.empty()) {
        return died_;
    }
    // A read, since a cached name answers even from a file system whose server is gone.
    const int fd = ::open(statusPath().c_str(), O_RDONLY | O_CLOEXEC);
    char byte;
    const bool answered = fd >= 0 && ::read(fd, &byte, 1) == 1;
    if (fd >= 0) {
        ::close(fd);
    }
    if (!answered) {
        return "the aov-kdev on " + dir_ + " went away during the session";
    }
    return std::string();
}

FuseKernel::~FuseKernel() {
    server_.stop();
    if (own_dir_) {
        ::rmdir(dir_.c_str());
    }
}

}  // namespace aovsimtool
