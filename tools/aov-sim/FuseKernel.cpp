#include "FuseKernel.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Excerpt.h"
#include "Failure.h"

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
[[nodiscard]] bool bindNodeFdInPrivateDev(int nodeFd, std::string* problem) {
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
    const std::string node = "/proc/self/fd/" + std::to_string(nodeFd);
    struct stat nodeStat;
    if (ok && ::fstat(nodeFd, &nodeStat) != 0) {
        *problem = errnoText(node);
        ok = false;
    }
    return ok && bindEntry(node, AOV_DEVICE_NODE, nodeStat, problem);
}

[[nodiscard]] bool bindNodeInPrivateDev(const std::string& node, std::string* problem) {
    // Held before /dev changes: the node may be an entry of the old /dev.
    const int nodeFd = ::open(node.c_str(), O_PATH | O_CLOEXEC);
    if (nodeFd < 0) {
        *problem = errnoText(node);
        return false;
    }
    const bool bound = bindNodeFdInPrivateDev(nodeFd, problem);
    ::close(nodeFd);
    return bound;
}

// True when `path` is a node a session can run against: a character device,
// or a file a FUSE driver serves, that opens read-write; `kind` says what the
// node is. Else false with `wrong` set to what is missing or wrong.
[[nodiscard]] bool checkNode(const std::string& path, std::string* kind, std::string* wrong) {
    const std::string where = pathExcerpt(path);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        const int error = errno;
        if (error == ENOENT) {
            return fail(wrong, "no node at " + where);
        }
        if (error == ENOTCONN) {
            return fail(wrong,
                        "the driver serving " + where + " is gone (" + std::strerror(error) + ")");
        }
        return fail(wrong, where + ": " + std::strerror(error));
    }
    if (S_ISDIR(st.st_mode)) {
        return fail(wrong, where + " is a directory, not a node");
    }
    if (S_ISCHR(st.st_mode)) {
        *kind = "a character device";
    } else if (S_ISREG(st.st_mode)) {
        struct statfs fs;
        if (::statfs(path.c_str(), &fs) != 0 || fs.f_type != FUSE_SUPER_MAGIC) {
            return fail(
                wrong,
                where +
                    " is a plain file, not a driver's node (a character device, or a file a FUSE "
                    "driver serves)");
        }
        *kind = "a file served through FUSE";
    } else {
        return fail(wrong, where + " is " +
                               (S_ISFIFO(st.st_mode)   ? "a fifo"
                                : S_ISSOCK(st.st_mode) ? "a socket"
                                : S_ISBLK(st.st_mode)  ? "a block device"
                                                       : "not a file") +
                               ", not a character device or a driver's file");
    }
    // Opened as the library opens it, and closed again at once.
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        if (error == EACCES || error == EPERM) {
            return fail(wrong, "permission denied: cannot open " + where + " read-write");
        }
        if (error == EBUSY) {
            return fail(
                wrong, where + " is busy: another process holds it (" + std::strerror(error) + ")");
        }
        if (error == ENXIO || error == ENODEV) {
            return fail(wrong, "no driver behind " + where + " (" + std::strerror(error) + ")");
        }
        return fail(wrong, "cannot open " + where + " read-write: " + std::strerror(error));
    }
    ::close(fd);
    return true;
}

std::string dirOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::unique_ptr<FuseKernel> FuseKernel::attach(const std::string& scenarioPath,
                                               const std::string& kdevDir,
                                               const std::string& nodePath, std::string* problem,
                                               const std::string& driverTrack) {
    std::unique_ptr<FuseKernel> kernel(new FuseKernel);
    // A private mount namespace first: a server started here mounts inside it,
    // so its mount goes away with this process whatever happens.
    const bool privateNamespace = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                                  ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!nodePath.empty()) {
        kernel->node_ = nodePath;
        kernel->dir_ = dirOf(nodePath);
        std::string wrong;
        if (!checkNode(nodePath, &kernel->kind_, &wrong)) {
            *problem = "--node: " + wrong;
            return nullptr;
        }
    } else if (!kdevDir.empty()) {
        kernel->dir_ = kdevDir;
        kernel->node_ = kdevDir + "/" AOV_DEVICE_NAME;
        struct stat st;
        if (::stat(kdevDir.c_str(), &st) != 0) {
            *problem = "--kdev: " + (errno == ENOENT ? "no directory " + pathExcerpt(kdevDir)
                                                     : errnoText(pathExcerpt(kdevDir)));
            return nullptr;
        }
        if (!S_ISDIR(st.st_mode)) {
            *problem = "--kdev: " + pathExcerpt(kdevDir) + " is not a directory (for a node, " +
                       "give --node " + pathExcerpt(kdevDir) + ")";
            return nullptr;
        }
        std::string wrong;
        if (!checkNode(kernel->node_, &kernel->kind_, &wrong)) {
            if (wrong.compare(0, 8, "no node ") == 0) {
                wrong += ": nothing serves a driver on " + pathExcerpt(kdevDir);
            }
            *problem = "--kdev: " + wrong;
            return nullptr;
        }
    } else if (!kernel->start(scenarioPath, driverTrack, problem)) {
        return nullptr;
    } else {
        kernel->node_ = kernel->dir_ + "/" AOV_DEVICE_NAME;
        kernel->kind_ = "a file served through FUSE";
    }
    if (privateNamespace) {
        if (!bindNodeInPrivateDev(kernel->node_, problem)) {
            *problem = "cannot put " + pathExcerpt(kernel->node_) + " in place of " +
                       AOV_DEVICE_NODE + ": " + *problem;
            return nullptr;
        }
        kernel->how_ =
            std::string("bound over ") + AOV_DEVICE_NODE + " in a private mount namespace";
    } else if (!kernel->reachThroughDevDir(problem)) {
        return nullptr;
    }
    // Let the server write event data into this process even where ptrace
    // is restricted to descendants.
    (void)::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    return kernel;
}

bool FuseKernel::reachThroughDevDir(std::string* problem) {
    std::string dir = dir_;
    const std::string name = node_.substr(node_.rfind('/') + 1);
    if (name != AOV_DEVICE_NAME) {
        // The node under another name: a directory of this run's links it as kelo_aov.
        char made[] = "/tmp/aov-node.XXXXXX";
        if (::mkdtemp(made) == nullptr) {
            *problem = errnoText("mkdtemp /tmp/aov-node.XXXXXX");
            return false;
        }
        link_dir_ = made;
        char* real = ::realpath(node_.c_str(), nullptr);
        const std::string target = real != nullptr ? real : node_;
        std::free(real);
        if (::symlink(target.c_str(), (link_dir_ + "/" AOV_DEVICE_NAME).c_str()) != 0) {
            *problem = errnoText("symlink " + link_dir_ + "/" AOV_DEVICE_NAME);
            return false;
        }
        dir = link_dir_;
    }
    ::setenv(aovhost::kDevDirEnv, dir.c_str(), 1);
    how_ = std::string("reached as ") + AOV_DEVICE_NODE + " through " + aovhost::kDevDirEnv + "=" +
           dir;
    return true;
}

std::unique_ptr<DriverProbe> FuseKernel::makeProbe() {
    std::unique_ptr<DriverProbe> probe = probeStatusFile(statusPath(), &figures_);
    return probe;
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
    if (server_.running() || !died_.empty()) {
        return "aov-kdev (pid " + std::to_string(server_.pid()) + ") on " + dir_ + ", " + how_;
    }
    const std::string who = figures_ ? "aov-kdev's node " : "the node ";
    return who + node_ + " (" + kind_ + "), " + how_;
}

bool FuseKernel::checkServer(std::string* ending) {
    int status = 0;
    const pid_t pid = server_.pid();
    if (server_.running() && server_.waitExit(0, &status)) {
        died_ = "aov-kdev (pid " + std::to_string(pid) + ") died during the session (" +
                KdevLauncher::exitText(status) + ")";
    }
    if (!died_.empty()) {
        return fail(ending, died_);
    }
    if (figures_) {
        // A read, since a cached name answers even from a file system whose server is gone.
        const int fd = ::open(statusPath().c_str(), O_RDONLY | O_CLOEXEC);
        char byte;
        const bool answered = fd >= 0 && ::read(fd, &byte, 1) == 1;
        if (fd >= 0) {
            ::close(fd);
        }
        if (!answered) {
            return fail(ending, "the aov-kdev on " + dir_ + " went away during the session");
        }
        return true;
    }
    // Nothing to read of another driver's: its file system is asked for its
    // figures, which a FUSE driver whose server died refuses (a stat may be
    // answered from the attribute cache, and an open would reach a live driver).
    struct statfs fs;
    if (::statfs(node_.c_str(), &fs) != 0 && errno == ENOTCONN) {
        return fail(ending, "the driver serving " + node_ + " went away during the session");
    }
    return true;
}

FuseKernel::~FuseKernel() {
    server_.stop();
    if (own_dir_) {
        ::rmdir(dir_.c_str());
    }
    if (!link_dir_.empty()) {
        ::unlink((link_dir_ + "/" AOV_DEVICE_NAME).c_str());
        ::rmdir(link_dir_.c_str());
    }
}

}  // namespace aovsimtool
