#pragma once

// The driver in aov-kdev, behind a real node: "/dev/kelo_aov" of this process
// becomes a file that aov-kdev serves through FUSE, so the library's open,
// ioctl, poll and close are real system calls that the kernel hands over.
//
// As root the process moves to a private mount namespace, where /dev is a
// copy of the system's with the served file bind-mounted as kelo_aov;
// nothing outside the process sees it, and it goes away with the process.
// Otherwise the host platform is told through AOV_DEV_DIR to open device
// paths under the served directory.

#include <memory>
#include <string>

#include "KdevLauncher.h"
#include "kelo_aov.h"

namespace aovsimtool {

class FuseKernel {
  public:
    // Starts aov-kdev serving the scenario at `scenarioPath` (empty: the
    // embedded one), or uses the aov-kdev already serving on `kdevDir` when
    // that is not empty, and points the node at it. Call it before any
    // thread starts. Null, with `problem` set, when it cannot.
    // `driverTrack`, when not empty, is where the aov-kdev started here writes
    // its driver's track for a timeline.
    static std::unique_ptr<FuseKernel> attach(const std::string& scenarioPath,
                                              const std::string& kdevDir, std::string* problem,
                                              const std::string& driverTrack = "");
    // Stops an aov-kdev it started. The library's services close the node
    // while the process exits, so keep this object until after them.
    ~FuseKernel();
    FuseKernel(const FuseKernel&) = delete;
    FuseKernel& operator=(const FuseKernel&) = delete;

    std::string statusPath() const { return dir_ + "/status"; }
    // The served node itself, under the server's directory.
    std::string nodePath() const { return dir_ + "/" AOV_DEVICE_NAME; }
    // "aov-kdev (pid 123) on /tmp/aov-kdev.x, bound over /dev/kelo_aov".
    std::string describe() const;
    // Empty while the server is there, else what became of it.
    std::string checkServer();

  private:
    FuseKernel() = default;
    bool start(const std::string& scenarioPath, const std::string& driverTrack,
               std::string* problem);

    std::string dir_;
    KdevLauncher server_;  // the aov-kdev started here, if any
    bool own_dir_ = false;
    std::string how_;   // how the node is reached
    std::string died_;  // how a server started here ended
};

}  // namespace aovsimtool
