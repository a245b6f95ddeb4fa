#include "aovsim/Trace.h"

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
