#include "FuseKernel.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "aovhost/Binding.h"

extern char** environ;

namespace aovsimtool {

namespace {

constexpr char kNodePath[] = "/dev/kelo_aov";
constexpr int kReadyTimeoutMs = 30000;
constexpr int kStopWaitMs = 5000;

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// aov-kdev: $AOV_KDEV, else next to this program, else in the build tree's sibling directory.
std::string kdevProgram() {
    if (const char* path = std::getenv("AOV_KDEV"); path != nullptr && *path != '\0') {
        return path;
    }
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) {
        return "aov-kdev";
    }
    std::string dir(self, static_cast<size_t>(length));
    dir.erase(dir.rfind('/') + 1);
    for (const std::string& candidate : {dir + "aov-kdev", dir + "../aov-kdev/aov-kdev"}) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "aov-kdev";
}

std::string exitText(int status) {
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

// Waits up to `ms` for `pid` to end; true with `status` set when it did.
bool waitFor(pid_t pid, int ms, int* status) {
    for (int waited = 0;; waited += 10) {
        const pid_t done = ::waitpid(pid, status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) {
            return done == pid;
        }
        if (waited >= ms) {
            return false;
        }
        ::usleep(10000);
    }
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
        if (name == "." || name == ".." || name == "kelo_aov") {
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
    return ok && bindEntry(node, kNodePath, nodeStat, problem);
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
        if (::stat((kdevDir + "/kelo_aov").c_str(), &st) != 0 ||
            ::access((kdevDir + "/status").c_str(), R_OK) != 0) {
            *problem = "--kdev: no aov-kdev serving on " + kdevDir + ": " +
                       errnoText(kdevDir + "/kelo_aov");
            return nullptr;
        }
    } else if (!kernel->start(scenarioPath, driverTrack, problem)) {
        return nullptr;
    }
    const std::string node = kernel->dir_ + "/kelo_aov";
    if (privateNamespace) {
        if (!bindNodeInPrivateDev(node, problem)) {
            return nullptr;
        }
        kernel->how_ = std::string("bound over ") + kNodePath + " in a private mount namespace";
    } else {
        ::setenv(aovhost::kDevDirEnv, kernel->dir_.c_str(), 1);
        kernel->how_ = std::string("reached as ") + kNodePath + " through " + aovhost::kDevDirEnv +
                       "=" + kernel->dir_;
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
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        *problem = errnoText("pipe");
        return false;
    }
    const std::string program = kdevProgram();
    std::vector<std::string> args = {program, "--mount", dir_, "--ready-fd", "3"};
    if (!scenarioPath.empty()) {
        args.insert(args.end(), {"--scenario", scenarioPath});
    }
    if (!driverTrack.empty()) {
        args.insert(args.end(), {"--timeline", driverTrack});
    }
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
    const int spawned =
        ::posix_spawnp(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ready[1]);
    if (spawned != 0) {
        ::close(ready[0]);
        pid_ = -1;
        *problem = "cannot start " + program + ": " + std::strerror(spawned);
        return false;
    }
    pollfd wait{ready[0], POLLIN, 0};
    char line[8] = {};
    const bool answered = ::poll(&wait, 1, kReadyTimeoutMs) == 1 &&
                          ::read(ready[0], line, sizeof(line) - 1) > 0 &&
                          std::strncmp(line, "ready", 5) == 0;
    ::close(ready[0]);
    if (!answered) {
        int status = 0;
        *problem = "aov-kdev did not come up on " + dir_ +
                   (waitFor(pid_, 0, &status) ? " (" + exitText(status) + ")" : " in time");
        if (!waitFor(pid_, 0, &status)) {
            ::kill(pid_, SIGKILL);
            waitFor(pid_, kStopWaitMs, &status);
        }
        pid_ = -1;
        return false;
    }
    return true;
}

std::string FuseKernel::describe() const {
    const std::string who =
        pid_ > 0 ? "aov-kdev (pid " + std::to_string(pid_) + ")" : std::string("aov-kdev");
    return who + " on " + dir_ + ", " + how_;
}

std::string FuseKernel::checkServer() {
    int status = 0;
    if (pid_ > 0 && waitFor(pid_, 0, &status)) {
        const std::string what = "aov-kdev (pid " + std::to_string(pid_) +
                                 ") died during the session (" + exitText(status) + ")";
        pid_ = -1;
        died_ = what;
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
    int status = 0;
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        if (!waitFor(pid_, kStopWaitMs, &status)) {
            ::kill(pid_, SIGKILL);
            waitFor(pid_, kStopWaitMs, &status);
        }
    }
    if (own_dir_) {
        ::rmdir(dir_.c_str());
    }
}

}  // namespace aovsimtool
