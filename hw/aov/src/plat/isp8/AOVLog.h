#pragma once

#include <cstddef>
#include <cstdint>

#include "cam/utils/ULog.h"

// Log lines of the AOV platform layer, on the camera logging facility under
// the tag "AOV". A line goes to the debug-print channel (mode bit 0 and the
// level's enable flag) and to the unified logger (mode bit 0x2 or 0x8). Trace
// lines need detail level 5 and the module's details bits; every gate is
// tested before anything is formatted.
//
// Call through the macros:
//   AOV_LOG_TRACE_AT(path, line, "[%s] message", __func__, ...)
//   AOV_LOG_ERROR_AT(path, line, "message %d", ...)
// An error line reads "[path, function, lineNNNN] ERROR: message"; the
// debug-print channel adds " (function){#line:path}".

namespace aov {
namespace log {

enum Level : int { kTrace = 0, kError = 1 };

constexpr const char* kTag = "AOV";
constexpr uint32_t kModuleId = 0x101005;
constexpr uint32_t kTraceDetailsMask = 0x101000;
constexpr int32_t kTraceDetailsLevel = 5;
constexpr int32_t kVerboseDetailsLevel = 6;
constexpr uint32_t kDebugPrintModeBit = 0x1;
constexpr uint32_t kUnifiedModeBits = 0x2 | 0x8;
constexpr size_t kLineBufferSize = 1024;

using NSCam::Utils::ULog::ULogger;

inline bool debugPrintOn(Level level) {
    return (ULogger::sMode & kDebugPrintModeBit) != 0 && g_logInfoLv[level].enabled;
}
inline bool unifiedOn() {
    return (ULogger::sMode & kUnifiedModeBits) != 0;
}
inline bool anyChannelOn(Level level) {
    return debugPrintOn(level) || unifiedOn();
}

inline bool detailsOn(int32_t minLevel) {
    return ULogger::sDetailsLevel >= minLevel &&
           (ULogger::sNormalDetailsMask & kTraceDetailsMask) == kTraceDetailsMask;
}
inline bool traceOn() {
    return detailsOn(kTraceDetailsLevel) && anyChannelOn(kTrace);
}
// The more verbose trace level, for lines that repeat on every call.
inline bool verboseOn() {
    return detailsOn(kVerboseDetailsLevel) && anyChannelOn(kTrace);
}
inline bool errorOn() {
    return anyChannelOn(kError);
}

// Wraps `format` in the debug-print line pattern for `level`.
void wrapFormat(char (&out)[kLineBufferSize], Level level, const char* path, int line,
                const char* function, const char* format);

// Formats a line and hands it to the unified logger; nothing is sent if
// formatting fails, and text beyond the line buffer is cut.
void unified(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace log
}  // namespace aov

#define AOV_LOG_EMIT_TRACE_(path, line, fmt, ...)                                              \
    do {                                                                                       \
        if (::aov::log::debugPrintOn(::aov::log::kTrace)) {                                    \
            char aovFormat_[::aov::log::kLineBufferSize];                                      \
            ::aov::log::wrapFormat(aovFormat_, ::aov::log::kTrace, path, line, __func__, fmt); \
            log_dbg_print(0, aovFormat_, ##__VA_ARGS__);                                       \
        }                                                                                      \
        if (::aov::log::unifiedOn())                                                           \
            ::aov::log::unified(::aov::log::kTrace, fmt, ##__VA_ARGS__);                       \
    } while (0)

#define AOV_LOG_TRACE_AT(path, line, fmt, ...)                   \
    do {                                                         \
        if (::aov::log::traceOn())                               \
            AOV_LOG_EMIT_TRACE_(path, line, fmt, ##__VA_ARGS__); \
    } while (0)

#define AOV_LOG_VERBOSE_AT(path, line, fmt, ...)                 \
    do {                                                         \
        if (::aov::log::verboseOn())                             \
            AOV_LOG_EMIT_TRACE_(path, line, fmt, ##__VA_ARGS__); \
    } while (0)

#define AOV_LOG_ERROR_AT(path, line, fmt, ...)                                                   \
    do {                                                                                         \
        if (::aov::log::errorOn()) {                                                             \
            const int aovLine_ = (line);                                                         \
            if (::aov::log::debugPrintOn(::aov::log::kError)) {                                  \
                char aovFormat_[::aov::log::kLineBufferSize];                                    \
                ::aov::log::wrapFormat(aovFormat_, ::aov::log::kError, path, aovLine_, __func__, \
                                       "[%s, %s, line%04d] ERROR: " fmt " (%s){#%d:%s}");        \
                log_dbg_print(1, aovFormat_, path, __func__, aovLine_, ##__VA_ARGS__, __func__,  \
                              aovLine_, path);                                                   \
            }                                                                                    \
            if (::aov::log::unifiedOn())                                                         \
                ::aov::log::unified(::aov::log::kError, "[%s, %s, line%04d] ERROR: " fmt, path,  \
                                    __func__, aovLine_, ##__VA_ARGS__);                          \
        }                                                                                        \
    } while (0)
