#include "aovsim/DriverStatus.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace aovsim {

namespace {

int64_t nanosecondsOf(std::chrono::steady_clock::time_point at) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
}

}  // namespace

std::string formatDriverStatus(const DriverStatus& s) {
    std::string name;
    for (char c : s.scenario) {
        name += (c == '\n' || c == '\r') ? ' ' : c;
    }
    char text[1536];
    std::snprintf(text, sizeof(text),
                  "scenario %s\nstarted %d\nrefusals %" PRIu64 "\nrequests %" PRIu64
                  "\nproduced %" PRIu64 "\ndequeued %" PRIu64 "\noverruns %" PRIu64
                  "\nlost_on_failure %" PRIu64 "\ndiscarded_at_stop %" PRIu64
                  "\nfailed_requests %" PRIu64 "\nlast_sequence %" PRIu32
                  "\nlast_produced_ns %" PRId64 "\nlast_scripted %d\nlast_dequeue_began_ns %" PRId64
                  "\nlast_dequeue_ended_ns %" PRId64 "\n",
                  name.empty() ? "-" : name.c_str(), s.started ? 1 : 0, s.refusals,
                  s.stats.requests, s.stats.produced, s.stats.dequeued, s.stats.overruns,
                  s.stats.lost_on_failure, s.stats.discarded_at_stop, s.stats.failed_requests,
                  s.last.sequence, nanosecondsOf(s.last.produced_at), s.last.scripted,
                  nanosecondsOf(s.last.dequeue_began), nanosecondsOf(s.last.dequeue_ended));
    return text;
}

bool parseDriverStatus(const std::string& text, DriverStatus* status) {
    std::map<std::string, std::string> values;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(at, end - at);
        const size_t space = line.find(' ');
        if (space != std::string::npos) {
            values[line.substr(0, space)] = line.substr(space + 1);
        }
        at = end + 1;
    }
    bool ok = true;
    const auto number = [&](const char* key) -> long long {
        auto it = values.find(key);
        if (it == values.end() || it->second.empty()) {
            ok = false;
            return 0;
        }
        char* end = nullptr;
        const long long value = std::strtoll(it->second.c_str(), &end, 10);
        ok = ok && *end == '\0';
        return value;
    };
    const auto count = [&](const char* key) { return static_cast<uint64_t>(number(key)); };
    DriverStatus s;
    auto name = values.find("scenario");
    s.scenario = name == values.end() ? std::string() : name->second;
    s.started = number("started") != 0;
    s.refusals = count("refusals");
    s.stats.requests = count("requests");
    s.stats.produced = count("produced");
    s.stats.dequeued = count("dequeued");
    s.stats.overruns = count("overruns");
    s.stats.lost_on_failure = count("lost_on_failure");
    s.stats.discarded_at_stop = count("discarded_at_stop");
    s.stats.failed_requests = count("failed_requests");
    s.last.sequence = static_cast<uint32_t>(number("last_sequence"));
    s.last.produced_at =
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(number("last_produced_ns")));
    s.last.scripted = static_cast<int>(number("last_scripted"));
    const auto moment = [&](const char* key) {
        return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(number(key)));
    };
    s.last.produced_at = moment("last_produced_ns");
    s.last.dequeue_began = moment("last_dequeue_began_ns");
    s.last.dequeue_ended = moment("last_dequeue_ended_ns");
    if (ok) {
        *status = s;
    }
    return ok;
}

}  // namespace aovsim
