#include "aovsim/Trace.h"

#include <cstdio>
#include <vector>

namespace aovsim {

const char* traceSourceTag(TraceSource source) {
    switch (source) {
        case TraceSource::kPlatform:
            return "plat";
        case TraceSource::kKernel:
            return "kern";
        case TraceSource::kLibrary:
            return "lib ";
        case TraceSource::kSystem:
            return "sys ";
        case TraceSource::kEvent:
            return "evt ";
    }
    return "?   ";
}

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed <= 0) {
        return std::string();
    }
    std::vector<char> text(static_cast<size_t>(needed) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    return std::string(text.data(), static_cast<size_t>(needed));
}

std::string format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    return text;
}

void Trace::setSink(Sink sink) {
    aov::MutexLock guard(mutex_);
    sink_ = std::move(sink);
}

void Trace::record(TraceSource source, const std::string& line) {
    emit(source, line);
}

void Trace::recordf(TraceSource source, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string line = vformat(format, args);
    va_end(args);
    emit(source, line);
}

void Trace::refusal(TraceSource source, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string line = "REFUSED " + vformat(format, args);
    va_end(args);
    {
        aov::MutexLock guard(mutex_);
        ++refusals_;
    }
    emit(source, line);
}

uint64_t Trace::refusals() const {
    aov::MutexLock guard(mutex_);
    return refusals_;
}

void Trace::emit(TraceSource source, const std::string& line) {
    // The sink runs under the lock so that lines from different threads never interleave.
    aov::MutexLock guard(mutex_);
    if (sink_) {
        sink_(source, line);
    }
}

}  // namespace aovsim
