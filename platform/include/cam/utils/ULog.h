#pragma once

#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace Utils {
namespace ULog {

// Unified logger of the camera stack. Messages reach it already formatted.
class ULogger {
  public:
    virtual void onModuleEnter(uint32_t moduleId, const char* tag) = 0;
    virtual void onModuleExit(uint32_t moduleId, const char* tag) = 0;
    virtual void flush() = 0;
    // level: 5 for traces, 1 for errors (smaller is more severe).
    virtual void printLog(uint32_t moduleId, const char* tag, int level, const char* text,
                          size_t length) = 0;
    virtual ~ULogger() = default;

    // Mode bits: 0x1 debug-print channel, 0x2 or 0x8 unified logger.
    static uint32_t sMode;
    // Trace lines need a detail level of at least 5 and the module's bits in the mask.
    static int32_t sDetailsLevel;
    static uint32_t sNormalDetailsMask;
    // Receiver of the unified-logger channel; never null on the host.
    static ULogger* sULogger;
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam

// Debug-print channel: one entry per level (0 trace, 1 error).
struct LogLevelInfo {
    bool enabled;
    const char* prefix;
};
extern LogLevelInfo g_logInfoLv[2];

// Prints a line on the debug-print channel at `level` (0 trace, 1 error).
void log_dbg_print(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The name under which a source path appears in debug-print lines.
const char* get_filename_log_control(const char* sourcePath);
