#include "AOVLog.h"

#include <cstdarg>
#include <cstdio>

namespace aov {
namespace log {

void wrapFormat(char (&out)[kLineBufferSize], Level level, const char* path, int line,
                const char* function, const char* format) {
    std::snprintf(out, sizeof(out), "%s[%s] %s:%d %s() %s", g_logInfoLv[level].prefix, kTag,
                  get_filename_log_control(path), line, function, format);
}

void unified(Level level, const char* format, ...) {
    ULogger* logger = ULogger::sULogger;
    if (logger == nullptr) {
        return;
    }
    char text[kLineBufferSize];
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (written < 0) {
        return;
    }
    const size_t length = static_cast<size_t>(written) < sizeof(text) ? static_cast<size_t>(written)
                                                                      : sizeof(text) - 1;
    logger->printLog(kModuleId, kTag, level == kTrace ? 5 : 1, text, length);
}

}  // namespace log
}  // namespace aov
