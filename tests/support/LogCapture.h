#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "aovhost/Binding.h"
#include "cam/utils/ULog.h"

namespace aovtest {

// One line as a channel received it.
struct CapturedLine {
    int level;  // debug-print: 0 trace, 1 error; unified logger: 5 trace, 1 error
    std::string text;
    uint32_t moduleId = 0;  // unified logger only
    std::string tag;        // unified logger only
};

// Captures both log channels for its lifetime and restores the logging
// switches afterwards. Starts with both channels open and traces off.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Opens the trace gate (detail level 5 and the module's mask bits).
    void enableTraces(int32_t level = 5);
    void setMode(uint32_t mode);

    std::vector<CapturedLine> debugLines() const;
    std::vector<CapturedLine> unifiedLines() const;
    // Texts of both channels that contain `needle`.
    std::vector<std::string> debugContaining(const std::string& needle) const;
    std::vector<std::string> unifiedContaining(const std::string& needle) const;
    void clear();

  private:
    class Store;
    std::shared_ptr<Store> store_;
    std::unique_ptr<aovhost::ScopedBinding<aovhost::DebugPrintSink>> sink_binding_;
    NSCam::Utils::ULog::ULogger* saved_logger_;
    uint32_t saved_mode_;
    int32_t saved_level_;
    uint32_t saved_mask_;
    LogLevelInfo saved_levels_[2];
};

}  // namespace aovtest
