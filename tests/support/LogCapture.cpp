#include "LogCapture.h"

namespace aovtest {

using NSCam::Utils::ULog::ULogger;

class LogCapture::Store : public aovhost::DebugPrintSink, public ULogger {
  public:
    void write(int level, const char* text) override {
        std::lock_guard<std::mutex> guard(mutex_);
        debug_.push_back({level, text});
    }
    void onModuleEnter(uint32_t, const char*) override {}
    void onModuleExit(uint32_t, const char*) override {}
    void flush() override {}
    void printLog(uint32_t moduleId, const char* tag, int level, const char* text,
                  size_t length) override {
        std::lock_guard<std::mutex> guard(mutex_);
        unified_.push_back({level, std::string(text, length), moduleId, tag});
    }

    std::vector<CapturedLine> debug() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return debug_;
    }
    std::vector<CapturedLine> unified() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return unified_;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        debug_.clear();
        unified_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<CapturedLine> debug_;
    std::vector<CapturedLine> unified_;
};

namespace {

std::vector<std::string> containing(const std::vector<CapturedLine>& lines,
                                    const std::string& needle) {
    std::vector<std::string> found;
    for (const auto& line : lines) {
        if (line.text.find(needle) != std::string::npos) {
            found.push_back(line.text);
        }
    }
    return found;
}

}  // namespace

LogCapture::LogCapture()
    : store_(std::make_shared<Store>()),
      saved_logger_(ULogger::sULogger),
      saved_mode_(ULogger::sMode),
      saved_level_(ULogger::sDetailsLevel),
      saved_mask_(ULogger::sNormalDetailsMask),
      saved_levels_{g_logInfoLv[0], g_logInfoLv[1]} {
    sink_binding_ = std::make_unique<aovhost::ScopedBinding<aovhost::DebugPrintSink>>(store_);
    ULogger::sULogger = store_.get();
    ULogger::sMode = 0x1 | 0x2;
    ULogger::sDetailsLevel = 0;
    ULogger::sNormalDetailsMask = 0;
    g_logInfoLv[0] = {true, "[D]"};
    g_logInfoLv[1] = {true, "[E]"};
}

LogCapture::~LogCapture() {
    ULogger::sULogger = saved_logger_;
    ULogger::sMode = saved_mode_;
    ULogger::sDetailsLevel = saved_level_;
    ULogger::sNormalDetailsMask = saved_mask_;
    g_logInfoLv[0] = saved_levels_[0];
    g_logInfoLv[1] = saved_levels_[1];
    sink_binding_.reset();
}

void LogCapture::enableTraces(int32_t level) {
    ULogger::sDetailsLevel = level;
    ULogger::sNormalDetailsMask = 0x101000;
}

void LogCapture::setMode(uint32_t mode) {
    ULogger::sMode = mode;
}

std::vector<CapturedLine> LogCapture::debugLines() const {
    return store_->debug();
}
std::vector<CapturedLine> LogCapture::unifiedLines() const {
    return store_->unified();
}

std::vector<std::string> LogCapture::debugContaining(const std::string& needle) const {
    return containing(store_->debug(), needle);
}

std::vector<std::string> LogCapture::unifiedContaining(const std::string& needle) const {
    return containing(store_->unified(), needle);
}

void LogCapture::clear() {
    store_->clear();
}

}  // namespace aovtest
