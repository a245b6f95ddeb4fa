// aov-rec record: runs a command with the preload library and the
// recorder's environment, and hands back its exit status.

#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Commands.h"
#include "Recorder.h"

extern char** environ;

namespace aovrec {
namespace {

constexpr char kPreloadName[] = "libaov_rec_preload.so";

std::string selfDir() {
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) {
        return ".";
    }
    path[n] = '\0';
    std::string dir(path);
    const size_t slash = dir.rfind('/');
    return slash == std::string::npos ? "." : dir.substr(0, slash);
}

std::string absolute(const std::string& path) {
    if (!path.empty() && path[0] == '/') {
        return path;
    }
    char cwd[PATH_MAX];
    return ::getcwd(cwd, sizeof(cwd)) != nullptr ? std::string(cwd) + "/" + path : path;
}

}  // namespace

int runRecord(const std::string& out_path, ContentMode content,
              const std::vector<std::string>& command, FILE* err) {
    const std::string lib = selfDir() + "/" + kPreloadName;
    if (::access(lib.c_str(), R_OK) != 0) {
        std::fprintf(err, "aov-rec: the recorder library is missing: %s\n", lib.c_str());
        return kExitBadInput;
    }
    const std::string file = absolute(out_path);
    // The previous recording must not be taken for this one's. Only a
    // regular file is removed: an output such as /dev/null, a pipe or a
    // link stays what it is (as root, removing /dev/null would leave the
    // recorder to create a regular file in its place).
    struct stat before {};
    const bool regular = ::lstat(file.c_str(), &before) == 0 && S_ISREG(before.st_mode);
    if (regular && ::unlink(file.c_str()) != 0 && errno != ENOENT) {
        std::fprintf(err, "aov-rec: %s: %s\n", file.c_str(), std::strerror(errno));
        return kExitBadInput;
    }

    std::vector<std::string> env;
    std::string preload = lib;
    std::string asan = "verify_asan_link_order=0";
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (entry.rfind("LD_PRELOAD=", 0) == 0) {
            preload += ":" + entry.substr(11);
        } else if (entry.rfind("ASAN_OPTIONS=", 0) == 0) {
            asan = entry.substr(13) + ":" + asan;
        } else if (entry.rfind(std::string(kEnvFile) + "=", 0) != 0 &&
                   entry.rfind(std::string(kEnvContent) + "=", 0) != 0) {
            env.push_back(entry);
        }
    }
    env.push_back("LD_PRELOAD=" + preload);
    env.push_back(std::string(kEnvFile) + "=" + file);
    env.push_back(std::string(kEnvContent) + "=" + contentModeName(content));
    // A sanitizer build's runtime wants to be loaded first; the recorder is.
    env.push_back("ASAN_OPTIONS=" + asan);

    std::vector<char*> envp;
    for (std::string& e : env) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = command;
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);

    // As system() does: the terminal's interrupt goes to the command, and
    // aov-rec stays to report its status.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old_int {};
    struct sigaction old_quit {};
    ::sigaction(SIGINT, &ignore, &old_int);
    ::sigaction(SIGQUIT, &ignore, &old_quit);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int spawned = ::posix_spawnp(&pid, argv[0], nullptr, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    int status = 0;
    if (spawned == 0) {
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    ::sigaction(SIGINT, &old_int, nullptr);
    ::sigaction(SIGQUIT, &old_quit, nullptr);
    if (spawned != 0) {
        std::fprintf(err, "aov-rec: cannot run %s: %s\n", argv[0], std::strerror(spawned));
        return kExitBadInput;
    }

    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        std::fprintf(err, "aov-rec: %s never opened the node; nothing recorded\n", argv[0]);
    } else if (!S_ISREG(info.st_mode)) {
        std::fprintf(err, "aov-rec: session written to %s, if %s opened the node\n", file.c_str(),
                     argv[0]);
    } else {
        std::fprintf(err, "aov-rec: session recorded in %s (%lld bytes)\n", file.c_str(),
                     static_cast<long long>(info.st_size));
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

}  // namespace aovrec
