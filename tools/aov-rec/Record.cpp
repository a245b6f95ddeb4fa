// aov-rec record: runs a command with the preload library and the
// recorder's environment, and hands back its exit status.

#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Commands.h"
#include "Recorder.h"
#include "kelo_aov.h"

extern char** environ;

namespace aovrec {
namespace {

constexpr char kPreloadName[] = "libaov_rec_preload.so";
#ifndef AOV_REC_PRELOAD_RELDIR
#define AOV_REC_PRELOAD_RELDIR "../lib/aov-rec"
#endif

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

std::string watchedNode() {
    const char* node = std::getenv(kEnvNode);
    if (node != nullptr && node[0] != '\0') {
        return node;
    }
    const char* dir = std::getenv("AOV_DEV_DIR");
    if (dir != nullptr && dir[0] != '\0') {
        return std::string(dir) + "/" AOV_DEVICE_NAME " or " AOV_DEVICE_NODE;
    }
    return AOV_DEVICE_NODE;
}

int runRecord(const std::string& out_path, ContentMode content,
              const std::vector<std::string>& command, FILE* err) {
    // Next to aov-rec in a build folder; in its folder under lib/ once installed.
    const std::string here = selfDir() + "/" + kPreloadName;
    const std::string installed = selfDir() + "/" + AOV_REC_PRELOAD_RELDIR + "/" + kPreloadName;
    std::string lib = here;
    if (::access(lib.c_str(), R_OK) != 0) {
        lib = installed;
    }
    if (::access(lib.c_str(), R_OK) != 0) {
        std::fprintf(err, "aov-rec: the recorder library is missing: %s (or %s)\n", here.c_str(),
                     installed.c_str());
        return kExitBadInput;
    }
    const std::string file = absolute(out_path);
    // The recorded processes say where they record, and why a recording
    // stopped, in this file; the session file itself is replaced only by a
    // process that records something.
    const char* tmp = std::getenv("TMPDIR");
    std::string status =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/aov-rec-status-XXXXXX";
    const int status_fd = ::mkstemp(status.data());
    if (status_fd < 0) {
        std::fprintf(err, "aov-rec: %s: %s\n", status.c_str(), std::strerror(errno));
        return kExitBadInput;
    }
    ::close(status_fd);

    std::vector<std::string> env;
    std::string preload = lib;
    std::string asan = "verify_asan_link_order=0";
    const std::vector<std::string> ours = {kEnvFile, kEnvContent, kEnvParent, kEnvStatus};
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        bool own = false;
        for (const std::string& name : ours) {
            own = own || entry.rfind(name + "=", 0) == 0;
        }
        if (entry.rfind("LD_PRELOAD=", 0) == 0) {
            preload += ":" + entry.substr(11);
        } else if (entry.rfind("ASAN_OPTIONS=", 0) == 0) {
            asan = entry.substr(13) + ":" + asan;
        } else if (!own) {
            env.push_back(entry);
        }
    }
    env.push_back("LD_PRELOAD=" + preload);
    env.push_back(std::string(kEnvFile) + "=" + file);
    env.push_back(std::string(kEnvContent) + "=" + contentModeName(content));
    env.push_back(std::string(kEnvParent) + "=" + std::to_string(::getpid()));
    env.push_back(std::string(kEnvStatus) + "=" + status);
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
    int status_code = 0;
    if (spawned == 0) {
        while (::waitpid(pid, &status_code, 0) < 0 && errno == EINTR) {
        }
    }
    ::sigaction(SIGINT, &old_int, nullptr);
    ::sigaction(SIGQUIT, &old_quit, nullptr);
    if (spawned != 0) {
        ::unlink(status.c_str());
        std::fprintf(err, "aov-rec: cannot run %s: %s\n", argv[0], std::strerror(spawned));
        return kExitBadInput;
    }

    // "start PID PATH" and "stop PID REASON" lines, in the order written.
    std::vector<std::string> started;
    std::vector<std::string> stopped;
    if (FILE* in = std::fopen(status.c_str(), "r")) {
        char line[8192];
        while (std::fgets(line, sizeof(line), in) != nullptr) {
            std::string text(line);
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            const size_t space = text.find(' ');
            const size_t second = space == std::string::npos ? space : text.find(' ', space + 1);
            if (second == std::string::npos) {
                continue;
            }
            const std::string word = text.substr(0, space);
            const std::string rest = text.substr(second + 1);
            if (word == "start") {
                started.push_back(rest);
            } else if (word == "stop") {
                stopped.push_back(rest);
            }
        }
        std::fclose(in);
    }
    ::unlink(status.c_str());

    for (const std::string& reason : stopped) {
        std::fprintf(err, "aov-rec: recording stopped: %s\n", reason.c_str());
    }
    if (started.empty() && stopped.empty()) {
        std::fprintf(err,
                     "aov-rec: %s never opened the node %s; nothing recorded (AOV_REC_NODE=PATH "
                     "or AOV_DEV_DIR=DIR watches another)\n",
                     argv[0], watchedNode().c_str());
    }
    for (const std::string& path : started) {
        struct stat info {};
        if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
            std::fprintf(err, "aov-rec: session recorded in %s (%lld bytes)\n", path.c_str(),
                         static_cast<long long>(info.st_size));
        } else {
            std::fprintf(err, "aov-rec: session written to %s\n", path.c_str());
        }
    }
    if (WIFSIGNALED(status_code)) {
        return 128 + WTERMSIG(status_code);
    }
    const int code = WEXITSTATUS(status_code);
    return code == 0 && !stopped.empty() ? kExitRecordingStopped : code;
}

}  // namespace aovrec
