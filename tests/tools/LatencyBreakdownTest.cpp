// The latency breakdown: how one event's times split into the four stages,
// which events it refuses, and the nearest-rank percentiles of its line.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "LatencyBreakdown.h"

namespace {

using aovsimtool::EventStages;
using aovsimtool::LatencyBreakdown;
using std::chrono::microseconds;

// Signal at 0, wake 100 us, notify 150, dequeue 160..200, callback 230..260.
EventStages ordered() {
    const std::chrono::steady_clock::time_point t0{};
    return EventStages{t0,
                       t0 + microseconds(100),
                       t0 + microseconds(150),
                       t0 + microseconds(160),
                       t0 + microseconds(200),
                       t0 + microseconds(230),
                       t0 + microseconds(260)};
}

TEST(LatencyBreakdownTest, SplitsAnEventIntoItsStagesWithTheDequeueTakenOutOfTheLibrary) {
    LatencyBreakdown breakdown;
    EXPECT_EQ(breakdown.line(), "latency breakdown: no samples");
    ASSERT_TRUE(breakdown.add(ordered()));
    EXPECT_EQ(breakdown.line(),
              "latency breakdown: wake p50 0.100 ms, p99 0.100 ms; dequeue in the driver p50 "
              "0.040 ms, p99 0.040 ms; library p50 0.040 ms, p99 0.040 ms; callback p50 0.030 "
              "ms, p99 0.030 ms (1 events)");
}

TEST(LatencyBreakdownTest, RefusesAnEventWhoseTimesAreOutOfOrder) {
    LatencyBreakdown breakdown;
    // Signalled after the wake-up that led to its delivery.
    EventStages late = ordered();
    late.signal = late.wake + microseconds(1);
    // Dequeued before this notification began: another notification's dequeue.
    EventStages stale = ordered();
    stale.dequeue_began = stale.notify - microseconds(20);
    stale.dequeue_ended = stale.notify - microseconds(10);
    // A dequeue that ends after the callback began.
    EventStages overlapping = ordered();
    overlapping.dequeue_ended = overlapping.callback_entry + microseconds(1);
    for (const EventStages& stages : {late, stale, overlapping}) {
        EXPECT_FALSE(breakdown.add(stages));
    }
    EXPECT_EQ(breakdown.events(), 0u);
    EXPECT_EQ(breakdown.line(), "latency breakdown: no samples");
}

TEST(LatencyBreakdownTest, PercentilesAreNearestRank) {
    std::vector<double> hundred;
    for (int i = 100; i >= 1; --i) {
        hundred.push_back(i * 1000.0);  // 1..100 ms, unsorted
    }
    EXPECT_EQ(aovsimtool::percentiles(hundred), "p50 50.000 ms, p99 99.000 ms");
    EXPECT_EQ(aovsimtool::percentiles({3000.0, 1000.0}), "p50 1.000 ms, p99 3.000 ms");
    EXPECT_EQ(aovsimtool::percentile({7.0}, 50), 7.0);
    EXPECT_EQ(aovsimtool::percentile({1.0, 2.0, 3.0}, 100), 3.0);
}

}  // namespace
