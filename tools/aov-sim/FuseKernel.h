#pragma once

// The driver behind a real node: "/dev/kelo_aov" of this process becomes a
// node that the kernel serves, so the library's open, ioctl, poll and close
// are real system calls. The node is the file an aov-kdev started here
// serves through FUSE, DIR/kelo_aov of a driver already serving DIR, or any
// node path given: a device's character device or a prototype driver's file.
//
// As root the process moves to a private mount namespace, where /dev is a
// copy of the system's with the node bind-mounted as kelo_aov; nothing
// outside the process sees it, and it goes away with the process.
// Otherwise the host platform is told through AOV_DEV_DIR to open device
// paths under a directory that holds the node as kelo_aov.

#include <memory>
#include <string>

#include "DriverProbe.h"
#include "KdevLauncher.h"
#include "kelo_aov.h"

namespace aovsimtool {

class FuseKernel {
  public:
    // Where the node comes from: aov-kdev started here serving the scenario at
    // `scenarioPath` (empty: the embedded one) when `kdevDir` and `nodePath`
    // are both empty; else DIR/kelo_aov of `kdevDir`, or `nodePath`. Call it
    // before any thread starts. Null, with `problem` naming what is missing
    // or wrong, when it cannot. `driverTrack`, when not empty, is where the
    // aov-kdev started here writes its driver's track for a timeline.
    [[nodiscard]] static std::unique_ptr<FuseKernel> attach(const std::string& scenarioPath,
                                                            const std::string& kdevDir,
                                                            const std::string& nodePath,
                                                            std::string* problem,
                                                            const std::string& driverTrack = "");
    // Stops an aov-kdev it started. The library's services close the node
    // while the process exits, so keep this object until after them.
    ~FuseKernel();
    FuseKernel(const FuseKernel&) = delete;
    FuseKernel& operator=(const FuseKernel&) = delete;

    // An aov-kdev's status file next to the node (it may not exist).
    std::string statusPath() const { return dir_ + "/status"; }
    // The node itself.
    std::string nodePath() const { return node_; }
    // Where the driver's counters come from: the status file when it holds
    // an aov-kdev's figures, else a probe that says why there are none.
    std::unique_ptr<DriverProbe> makeProbe();
    // "aov-kdev (pid 123) on /tmp/aov-kdev.x, bound over /dev/kelo_aov ...".
    std::string describe() const;
    // True while the driver is there, else false with `ending` set to what
    // became of it.
    [[nodiscard]] bool checkServer(std::string* ending);

  private:
    FuseKernel() = default;
    [[nodiscard]] bool start(const std::string& scenarioPath, const std::string& driverTrack,
                             std::string* problem);
    // Makes the node reachable as /dev/kelo_aov without root.
    [[nodiscard]] bool reachThroughDevDir(std::string* problem);

    std::string dir_;      // the directory holding the node
    std::string node_;     // the node
    std::string kind_;     // what the node is, for describe()
    KdevLauncher server_;  // the aov-kdev started here, if any
    bool own_dir_ = false;
    bool figures_ = false;  // the status file held an aov-kdev's figures
    std::string link_dir_;  // a directory made here to link the node as kelo_aov
    std::string how_;       // how the node is reached
    std::string died_;      // how a server started here ended
};

}  // namespace aovsimtool
