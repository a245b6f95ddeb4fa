#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "aovhost/Binding.h"
#include "cam/utils/ULog.h"

namespace {

// The unified logger on the host writes to standard error.
class StderrULogger final : public NSCam::Utils::ULog::ULogger {
  public:
    void onModuleEnter(uint32_t, const char*) override {}
    void onModuleExit(uint32_t, const char*) override {}
    void flush() override { std::fflush(stderr); }
    void printLog(uint32_t, const char* tag, int level, const char* text, size_t length) override {
        std::fprintf(stderr, "%s/%c: %.*s\n", tag, level <= 1 ? 'E' : 'D', static_cast<int>(length),
                     text);
    }
};

StderrULogger gStderrLogger;

}  // namespace

namespace NSCam {
namespace Utils {
namespace ULog {

// Host defaults: errors on the debug-print channel (standard error), traces off.
uint32_t ULogger::sMode = 0x1;
int32_t ULogger::sDetailsLevel = 0;
uint32_t ULogger::sNormalDetailsMask = 0x101000;
ULogger* ULogger::sULogger = &gStderrLogger;

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam

LogLevelInfo g_logInfoLv[2] = {{true, "[D]"}, {true, "[E]"}};

namespace {

// A cut line's text ends before `end`, moved back off UTF-8 continuation bytes
// so that no character is split.
size_t cutAt(const char* text, size_t end) {
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return end;
}

}  // namespace

void log_dbg_print(int level, const char* format, ...) {
    using aovhost::kDebugPrintCutMarker;
    using aovhost::kDebugPrintLineBytes;
    // One byte more than a line keeps, to tell a full line from a cut one;
    // room for the marker behind it.
    char line[kDebugPrintLineBytes + 1 + sizeof(kDebugPrintCutMarker)];
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(line, kDebugPrintLineBytes + 2, format, args);
    va_end(args);
    if (written < 0) {
        return;
    }
    if (static_cast<size_t>(written) > kDebugPrintLineBytes) {
        std::memcpy(line + cutAt(line, kDebugPrintLineBytes), kDebugPrintCutMarker,
                    sizeof(kDebugPrintCutMarker));
    }
    if (auto sink = aovhost::boundObject<aovhost::DebugPrintSink>()) {
        sink->write(level, line);
        return;
    }
    std::fprintf(stderr, "%s\n", line);
}

const char* get_filename_log_control(const char* sourcePath) {
    const char* slash = std::strrchr(sourcePath, '/');
    return slash ? slash + 1 : sourcePath;
}
