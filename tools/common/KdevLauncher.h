#pragma once

// Starts and stops an aov-kdev process: the one way the tools and the tests
// run the FUSE driver server. The server mounts on a given directory and
// says "ready" on a pipe once it serves; every wait here has a limit, and a
// failure says what did not happen.

#include <sys/types.h>

#include <string>
#include <vector>

namespace aovsimtool {

class KdevLauncher {
  public:
    static constexpr int kReadyTimeoutMs = 30000;
    static constexpr int kStopTimeoutMs = 5000;

    KdevLauncher() = default;
    // Stops a server still running.
    ~KdevLauncher();
    KdevLauncher(const KdevLauncher&) = delete;
    KdevLauncher& operator=(const KdevLauncher&) = delete;

    // aov-kdev: $AOV_KDEV, else next to this program, else in the build
    // tree's sibling directory, else "aov-kdev" from PATH.
    static std::string defaultProgram();
    // "exit status 3" or "killed by signal 9".
    static std::string exitText(int status);

    // Runs `program --mount mountDir --ready-fd 3 extra...` and waits up to
    // `readyTimeoutMs` for its "ready" line. False, with `problem` naming
    // what did not happen (it did not start, it ended first, it did not
    // answer in time), and no process left behind.
    [[nodiscard]] bool start(const std::string& program, const std::string& mountDir,
                             const std::vector<std::string>& extra, std::string* problem,
                             int readyTimeoutMs = kReadyTimeoutMs);

    // Waits up to `ms` for the server to end; true with `status` set when it
    // did (the server is then no longer running).
    bool waitExit(int ms, int* status);
    // SIGTERM, then SIGKILL if it has not ended within kStopTimeoutMs; true
    // when the server ended on the SIGTERM. Nothing to do when none runs.
    bool stop();
    // SIGKILL, and reaps it (waiting up to kStopTimeoutMs).
    void kill();

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

}  // namespace aovsimtool
