#include "LatencyBreakdown.h"

#include <algorithm>
#include <cmath>

#include "aovsim/Trace.h"

namespace aovsimtool {

double percentile(const std::vector<double>& sorted, double p) {
    const auto rank =
        static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(sorted.size())));
    return sorted[rank == 0 ? 0 : rank - 1];
}

std::string percentiles(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return aovsim::format("p50 %.3f ms, p99 %.3f ms", percentile(samples, 50) / 1000.0,
                          percentile(samples, 99) / 1000.0);
}

bool LatencyBreakdown::add(const EventStages& s) {
    if (!(s.signal <= s.wake && s.wake <= s.notify && s.notify <= s.dequeue_began &&
          s.dequeue_began <= s.dequeue_ended && s.dequeue_ended <= s.callback_entry &&
          s.callback_entry <= s.callback_return)) {
        return false;
    }
    const auto us = [](std::chrono::steady_clock::duration d) {
        return std::chrono::duration<double, std::micro>(d).count();
    };
    const auto dequeue = s.dequeue_ended - s.dequeue_began;
    wake_.push_back(us(s.wake - s.signal));
    dequeue_.push_back(us(dequeue));
    library_.push_back(us(s.callback_entry - s.notify - dequeue));
    callback_.push_back(us(s.callback_return - s.callback_entry));
    return true;
}

std::string LatencyBreakdown::line() const {
    if (wake_.empty()) {
        return "latency breakdown: no samples";
    }
    return "latency breakdown: wake " + percentiles(wake_) + "; dequeue in the driver " +
           percentiles(dequeue_) + "; library " + percentiles(library_) + "; callback " +
           percentiles(callback_) + aovsim::format(" (%zu events)", wake_.size());
}

}  // namespace aovsimtool
