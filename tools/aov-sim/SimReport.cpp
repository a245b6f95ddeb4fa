#include "SimReport.h"

#include <algorithm>
#include <chrono>

#include "LatencyBreakdown.h"
#include "aovhost/Binding.h"
#include "aovsim/EventContent.h"
#include "aovsim/Trace.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using aovsim::format;
using aovsim::TraceSource;

}  // namespace

SimReport::SimReport(aovsim::Simulation& sim, DriverProbe& driver, Timeline* timeline)
    : sim_(sim), driver_(driver), timeline_(timeline) {}

void SimReport::begin() {
    if (!sim_.config().driver.script.empty()) {
        expected_ = std::make_unique<aovsim::ExpectedBuffer>();
        // The library reads the same property, with the same parser and default:
        // "0x0" or "0 " switch the word off there, so they must here too.
        std::string value;
        if (aovhost::findProperty("vendor.aovstream.image_callback", &value)) {
            image_callback_ = aovhost::parsePropertyInt32(value.c_str(), 1) != 0;
        }
    }
    say(format("scenario \"%s\": %zu sensors on the platform", sim_.config().name.c_str(),
               sim_.config().sensors.size()));
    aovsim::DriverStatus status;
    std::string noFigures;
    if (!driver_.offersFigures(&noFigures)) {
        // Said once, in the summary.
    } else if (!driver_.read(&status)) {
        say("the driver does not answer: its counters are unavailable");
    } else if (!status.scenario.empty() && status.scenario != sim_.config().name) {
        say(format("warning: the driver serves scenario \"%s\"", status.scenario.c_str()));
    }
    if (const char* missing = driver_.missingFigures()) {
        say(format("unavailable from this driver (shown as 0 below): %s", missing));
    }
}

void SimReport::say(const std::string& line) {
    if (timeline_ != nullptr && line.compare(0, 5, "step ") == 0) {
        timeline_->step(line);
    }
    sim_.trace().record(TraceSource::kSystem, line);
}

std::unique_ptr<EventMonitor> SimReport::makeMonitor(int verbosity,
                                                     std::function<uint64_t()> delivered) {
    auto monitor = std::make_unique<aovsim::EpollEventMonitor>(verbosity, aovsim::BackoffPolicy(),
                                                               std::move(delivered), timeline_);
    monitor_ = monitor.get();
    if (timeline_ != nullptr) {
        return timedMonitor(std::move(monitor), *timeline_);
    }
    return monitor;
}

void SimReport::event(uint64_t number, const aov_event& event, int32_t aovMode) {
    const auto entry = std::chrono::steady_clock::now();
    aovsim::NotificationTimes notification;
    const bool notified = monitor_ != nullptr && monitor_->currentNotification(&notification);
    // Without the driver's figures nothing is known of what it wrote or when.
    std::string noFigures;
    const bool figures = driver_.offersFigures(&noFigures);
    aovsim::DriverStatus status;
    const aovsim::DequeueMark mark =
        figures && driver_.read(&status) ? status.last : aovsim::DequeueMark();
    const uint32_t* h = event.header;
    // Whether the buffer holds what the driver's latest dequeue wrote: a
    // generated event carries its sequence number in the first header word.
    const bool latest = figures && (mark.sequence == h[0] || mark.scripted >= 0);
    if (timeline_ != nullptr) {
        timeline_->callbackEntry(h[0], latest, mark.produced_at);
    }
    std::string line = format("header=[%u, %u, %u, %u, %u, %u] s1_info=%u s4_info=[%u, %u, %u, %u]",
                              h[0], h[1], h[2], h[3], h[4], h[5], event.s1_info, event.s4_info[0],
                              event.s4_info[1], event.s4_info[2], event.s4_info[3]);
    if (aovMode == AOV_MODE_FULL_CONTENT) {
        line += format(" s6_info=[%u, %u, %u, %u, %u]", event.s6_info[0], event.s6_info[1],
                       event.s6_info[2], event.s6_info[3], event.s6_info[4]);
    }
    bool mismatch = false;
    if (content_check_) {
        line += content_check_(event, &mismatch);
    } else if (!figures) {
        // The content is the driver's own; nothing to compare it with.
    } else if (expected_ != nullptr) {
        // The script has no event without a pending mark; a generated one is not expected.
        std::string bad = "not a scripted event";
        if (mark.scripted >= 0) {
            expected_->deliver(sim_.config().driver.script[static_cast<size_t>(mark.scripted)],
                               aovMode, image_callback_);
            bad = expected_->differences(event);
        }
        mismatch = !bad.empty();
        line += format(" scripted event %d", mark.scripted + 1);
        line += mismatch ? " content MISMATCH in " + bad : " content ok";
    } else if (h[5] != 0) {
        const int sections =
            aovMode == AOV_MODE_FULL_CONTENT ? AOV_SECTION_COUNT : AOV_BASIC_SECTION_COUNT;
        const auto* buffer = reinterpret_cast<const uint8_t*>(&event);
        std::string bad;
        for (int s = 0; s < sections; ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            if (!aovsim::sectionContentMatches(buffer + section.data_offset, section.data_size,
                                               h[0], static_cast<uint32_t>(s + 1))) {
                bad += format("%s%d", bad.empty() ? "" : ",", s + 1);
            }
        }
        mismatch = !bad.empty();
        line += mismatch ? " content MISMATCH in sections " + bad
                         : format(" content ok (%d sections)", sections);
    } else {
        line += " no content";
    }
    sim_.trace().record(TraceSource::kEvent,
                        format("#%llu ", static_cast<unsigned long long>(number)) + line);
    // The callback is done once its line is out.
    const auto now = std::chrono::steady_clock::now();
    {
        aov::MutexLock guard(mutex_);
        content_mismatches_ += mismatch ? 1 : 0;
        if (latest) {
            latencies_us_.push_back(
                std::chrono::duration<double, std::micro>(now - mark.produced_at).count());
        }
        if (latest && notified) {
            breakdown_.add({mark.produced_at, notification.woke, notification.notified,
                            mark.dequeue_began, mark.dequeue_ended, entry, now});
        }
    }
    if (timeline_ != nullptr) {
        timeline_->callbackReturn(number);
    }
}

void SimReport::summary(uint64_t delivered) {
    aovsim::DriverStatus status;
    const bool answered = driver_.read(&status);
    const aovsim::DriverStats stats = status.stats;
    uint64_t mismatches;
    std::vector<double> latencies;
    LatencyBreakdown breakdown;
    {
        aov::MutexLock guard(mutex_);
        mismatches = content_mismatches_;
        latencies = latencies_us_;
        breakdown = breakdown_;
    }
    const auto u = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    std::string unavailable;
    if (!driver_.offersFigures(&unavailable)) {
        say("summary: driver figures and content checks unavailable: " + unavailable);
        say(format("summary: events delivered %llu", u(delivered)));
        say(format("summary: refused calls %llu, library error lines %llu",
                   u(sim_.trace().refusals()), u(sim_.logSink().errorLines())));
        monitorAndPlatformLines();
        return;
    }
    const uint64_t dropped = stats.produced > delivered ? stats.produced - delivered : 0;
    if (!answered) {
        say("summary: the driver did not answer: its counts below are zero");
    }
    say(
        format("summary: events delivered %llu, dropped %llu of %llu produced (overwritten in the "
               "driver queue %llu, lost to failed dequeues %llu, discarded at stop %llu)",
               u(delivered), u(dropped), u(stats.produced), u(stats.overruns),
               u(stats.lost_on_failure), u(stats.discarded_at_stop)));
    if (latencies.empty()) {
        say("summary: latency from descriptor signal to callback return: no samples");
    } else {
        std::sort(latencies.begin(), latencies.end());
        say(
            format("summary: latency from descriptor signal to callback return: p50 %.3f ms, p99 "
                   "%.3f ms (%zu events)",
                   percentile(latencies, 50) / 1000.0, percentile(latencies, 99) / 1000.0,
                   latencies.size()));
    }
    say("summary: " + breakdown.line());
    if (timeline_ != nullptr) {
        timeline_->setCounts(nlohmann::json{{"events_delivered", delivered},
                                            {"events_produced", stats.produced},
                                            {"events_dropped", dropped},
                                            {"kernel_requests", stats.requests},
                                            {"library_error_lines", sim_.logSink().errorLines()}});
    }
    say(format(
        "summary: kernel requests %llu (%llu failed), refused calls %llu, library error "
        "lines %llu, content mismatches %llu",
        u(stats.requests), u(stats.failed_requests), u(sim_.trace().refusals() + status.refusals),
        u(sim_.logSink().errorLines()), u(mismatches)));
    monitorAndPlatformLines();
}

void SimReport::monitorAndPlatformLines() {
    const auto u = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    const aovsim::PlatformSnapshot platform = sim_.platform().snapshot();
    if (monitor_ != nullptr) {
        const aovsim::MonitorStats m = monitor_->stats();
        say(
            format("summary: event monitor: wake-ups %llu, notifications %llu, back-offs %llu "
                   "(longest %lld ms)",
                   u(m.wakeups), u(m.notifications), u(m.stalls),
                   static_cast<long long>(m.longest_backoff.count())));
    }
    say(
        format("summary: platform after stop: %d sensors powered, %d on ULPOSC, %d devices open, "
               "%d agents, %d pipes (%d streaming)",
               platform.powered, platform.on_ulposc, platform.open_devices, platform.agents,
               platform.pipes, platform.started_pipes));
}

}  // namespace aovsimtool
