// The timeline's three parts on their own: what the collector keeps of a
// session (complete events, missing stages, a failed dequeue, a session
// stopped mid-event, the record limit), how the layout binds flows and keeps
// the slices of a track from mis-nesting, and what the writer puts in a file.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "TimelineCollector.h"
#include "TraceWriter.h"
#include "TrackLayout.h"
#include "kelo_aov.h"

namespace {

using aovsimtool::FlowPart;
using aovsimtool::RecordKind;
using aovsimtool::TimelineCollector;
using aovsimtool::TimelineRecord;
using aovsimtool::TimelineRole;
using aovsimtool::TimelineTrack;
using aovsimtool::TraceEvent;
using aovsimtool::TraceLayout;
using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::nanoseconds;

const Clock::time_point t0 = Clock::time_point{} + std::chrono::seconds(100);

Clock::time_point us(int n) {
    return t0 + microseconds(n);
}

const TimelineRecord* findRecord(const TimelineCollector& c, const std::string& name) {
    for (const TimelineRecord& r : c.records()) {
        if (r.name == name) {
            return &r;
        }
    }
    return nullptr;
}

// One event through every stage: signal at 10 us, wake 20, notifyEvent 25..60
// with its dequeue 30..35 and the callback 40..50.
void deliverEvent(TimelineCollector& c, bool matched = true, int dequeueResult = 0,
                  bool woke = true) {
    c.eventQueued(false, 1, us(10), us(11), 1, false);
    if (woke) {
        c.monitorWoke(us(20));
    }
    c.notifyEntry(us(25));
    c.kernelRequest(TimelineRole::kMonitor, AOV_IOC_DEQUEUE_EVENT, "dequeue", us(30), us(35),
                    dequeueResult);
    c.callbackEntry(1, matched, us(10), us(40));
    c.callbackReturn(TimelineRole::kMonitor, 1, us(50));
    c.notifyExit(us(25), us(60));
}

TEST(TimelineCollectorTest, LinksAnEventWithAllItsStagesToItsSignalWakeAndNotification) {
    TimelineCollector c(t0, 100);
    deliverEvent(c);
    const TimelineRecord* callback = findRecord(c, "callback #1");
    const TimelineRecord* signal = findRecord(c, "signal #1");
    ASSERT_NE(callback, nullptr);
    ASSERT_NE(signal, nullptr);
    EXPECT_EQ(signal->kind, RecordKind::kSlice);
    EXPECT_EQ(signal->track, TimelineTrack::kTimer);
    EXPECT_EQ(signal->flow, FlowPart::kSignal);
    EXPECT_EQ(signal->end_ns - signal->begin_ns, 1000);
    EXPECT_EQ(callback->flow, FlowPart::kCallback);
    EXPECT_EQ(callback->stamp, signal->stamp);
    ASSERT_LT(callback->wake, c.records().size());
    ASSERT_LT(callback->notify, c.records().size());
    EXPECT_EQ(c.records()[callback->wake].name, "wake");
    EXPECT_EQ(c.records()[callback->notify].name, "notifyEvent");
    const nlohmann::json& stages = callback->args["stages"];
    const std::vector<std::pair<const char*, double>> expected = {
        {"signal", 10},         {"wake", 20},           {"notify", 25},
        {"dequeue_call", 30},   {"dequeue_return", 35}, {"callback_entry", 40},
        {"callback_return", 50}};
    for (const auto& [stage, at] : expected) {
        EXPECT_EQ(stages.value(stage, -1.0), at) << stage;
    }
}

TEST(TimelineCollectorTest, AnEventMissingAStageHasNoStagesAndNoFlow) {
    struct Case {
        const char* what;
        bool matched;
        int dequeue;
        bool woke;
    };
    for (const Case& k :
         {Case{"not the driver's latest", false, 0, true}, Case{"failed dequeue", true, -5, true},
          Case{"no wake", true, 0, false}}) {
        TimelineCollector c(t0, 100);
        deliverEvent(c, k.matched, k.dequeue, k.woke);
        const TimelineRecord* callback = findRecord(c, "callback #1");
        ASSERT_NE(callback, nullptr) << k.what;
        EXPECT_TRUE(callback->args["stages"].empty()) << k.what;
        EXPECT_EQ(callback->flow, FlowPart::kNone) << k.what;
        EXPECT_EQ(callback->notify, TimelineRecord::kNone) << k.what;
    }
}

TEST(TimelineCollectorTest, AFailedDequeueIsAKernelSliceWithItsResultAndEndsNoBufferTask) {
    TimelineCollector c(t0, 100);
    c.libraryCall("startDevice", us(1), us(2), 0);
    c.libraryCall("setMonitor", us(3), us(4), 0);  // no start: the task still began at 1
    c.kernelRequest(TimelineRole::kMonitor, AOV_IOC_DEQUEUE_EVENT, "refused", us(5), us(6), -5);
    const TimelineRecord* dequeue = findRecord(c, "DEQUEUE_EVENT");
    ASSERT_NE(dequeue, nullptr);
    EXPECT_EQ(dequeue->track, TimelineTrack::kKernelMonitor);
    EXPECT_EQ(dequeue->args["result"], -5);
    EXPECT_EQ(dequeue->args["decoded"], "refused");
    EXPECT_EQ(findRecord(c, "buffer task (at most)"), nullptr);
    // The first dequeue that succeeds bounds the buffer task from above.
    c.kernelRequest(TimelineRole::kMonitor, AOV_IOC_DEQUEUE_EVENT, "", us(7), us(9), 0);
    const TimelineRecord* task = findRecord(c, "buffer task (at most)");
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->begin_ns, 1000);
    EXPECT_EQ(task->end_ns, 9000);

    // A startDevice that failed started no task.
    TimelineCollector failed(t0, 100);
    failed.libraryCall("startDevice", us(1), us(2), -1);
    failed.kernelRequest(TimelineRole::kMonitor, AOV_IOC_DEQUEUE_EVENT, "", us(7), us(9), 0);
    EXPECT_EQ(findRecord(failed, "buffer task (at most)"), nullptr);
}

TEST(TimelineCollectorTest, ANotificationCutShortByTheStopLeavesNoHalfRecords) {
    TimelineCollector c(t0, 100);
    c.step("step 7: stopping", us(1));
    c.monitorWoke(us(2));
    c.notifyEntry(us(3));
    c.finish(us(9));
    c.notifyExit(us(3), us(12));
    c.libraryCall("stopDevice", us(10), us(11), 0);
    EXPECT_EQ(findRecord(c, "notifyEvent"), nullptr);
    EXPECT_EQ(findRecord(c, "stopDevice"), nullptr);
    const TimelineRecord* step = findRecord(c, "step 7: stopping");
    ASSERT_NE(step, nullptr);
    EXPECT_EQ(step->kind, RecordKind::kStep);
    EXPECT_EQ(step->end_ns, 9000);
}

TEST(TimelineCollectorTest, StepsRunFromOneToTheNextWithoutSharingATime) {
    TimelineCollector c(t0, 100);
    c.step("step 1", us(1));
    c.step("step 2", us(5));
    c.step("", us(8));
    const TimelineRecord* one = findRecord(c, "step 1");
    const TimelineRecord* two = findRecord(c, "step 2");
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(one->end_ns, 5000);
    EXPECT_EQ(two->begin_ns, 5001);
    EXPECT_EQ(two->end_ns, 8000);
    EXPECT_EQ(c.records().size(), 2u);
}

TEST(TimelineCollectorTest, CountsTheRecordsPastItsLimit) {
    TimelineCollector c(t0, 3);
    for (int i = 0; i < 5; ++i) {
        c.platformCall(TimelineRole::kOther, "call", us(i), us(i + 1));
    }
    EXPECT_EQ(c.records().size(), 3u);
    EXPECT_EQ(c.recordsDropped(), 2u);
    EXPECT_EQ(c.records()[0].track, TimelineTrack::kPlatformOther);
}

TEST(TimelineCollectorTest, CountsDriverEventsDroppedOnTheDriversOwnTrack) {
    TimelineCollector c(t0, 100);
    c.eventQueued(true, 3, us(1), us(2), 4, true);
    c.queueDepth(true, us(3), 0, 2);
    std::vector<uint64_t> dropped;
    for (const TimelineRecord& r : c.records()) {
        if (r.kind == RecordKind::kCounter && r.name == "driver events dropped") {
            EXPECT_EQ(r.track, TimelineTrack::kServedTimer);
            dropped.push_back(r.args["dropped"].get<uint64_t>());
        }
    }
    EXPECT_EQ(dropped, (std::vector<uint64_t>{1, 3}));
}

const TraceEvent* findEvent(const TraceLayout& layout, const std::string& name, char phase = 'X') {
    for (const TraceEvent& e : layout.events) {
        if (e.record->name == name && e.phase == phase) {
            return &e;
        }
    }
    return nullptr;
}

TEST(TrackLayoutTest, BindsEachFlowToFourSlicesFromSignalToCallback) {
    TimelineCollector c(t0, 100);
    deliverEvent(c);
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    EXPECT_EQ(layout.flows, 1u);
    struct Point {
        const char* name;
        bool in;
        bool out;
    };
    for (const Point& p : {Point{"signal #1", false, true}, Point{"wake", true, true},
                           Point{"notifyEvent", true, true}, Point{"callback #1", true, false}}) {
        const TraceEvent* e = findEvent(layout, p.name);
        ASSERT_NE(e, nullptr) << p.name;
        EXPECT_EQ(e->flow, 1u) << p.name;
        EXPECT_EQ(e->flow_in, p.in) << p.name;
        EXPECT_EQ(e->flow_out, p.out) << p.name;
    }
    EXPECT_EQ(findEvent(layout, "wake")->dur_ns, 0);
}

TEST(TrackLayoutTest, NoFlowWhenTheSignalWasNotKept) {
    TimelineCollector c(t0, 100);
    c.monitorWoke(us(20));
    c.notifyEntry(us(25));
    c.kernelRequest(TimelineRole::kMonitor, AOV_IOC_DEQUEUE_EVENT, "", us(30), us(35), 0);
    c.callbackEntry(1, true, us(10), us(40));  // its signal never recorded
    c.callbackReturn(TimelineRole::kMonitor, 1, us(50));
    c.notifyExit(us(25), us(60));
    TraceLayout layout = aovsimtool::layOutTracks(c.records());
    EXPECT_EQ(layout.flows, 0u);
    for (const TraceEvent& e : layout.events) {
        EXPECT_EQ(e.flow, 0u) << e.record->name;
    }
}

TEST(TrackLayoutTest, MovesASliceThatBeginsWhereThePreviousEndsAndLanesAPartialOverlap) {
    TimelineCollector c(t0, 100);
    c.platformCall(TimelineRole::kOther, "first", us(1), us(5));
    c.platformCall(TimelineRole::kOther, "touching", us(5), us(7));
    c.platformCall(TimelineRole::kOther, "inside", us(5) + nanoseconds(500), us(6));
    c.platformCall(TimelineRole::kOther, "overlapping", us(6) + nanoseconds(500), us(9));
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    const TraceEvent* touching = findEvent(layout, "touching");
    ASSERT_NE(touching, nullptr);
    EXPECT_EQ(touching->ts_ns, 5001);
    EXPECT_EQ(touching->ts_ns + touching->dur_ns, 7000);
    EXPECT_EQ(findEvent(layout, "inside")->tid, 23);
    EXPECT_EQ(findEvent(layout, "first")->tid, 23);
    EXPECT_EQ(findEvent(layout, "overlapping")->tid, 23 + aovsimtool::kLaneStride);
    bool named = false;
    for (const nlohmann::json& m : layout.metadata) {
        if (m["name"] == "thread_name" && m.value("tid", 0) == 23 + aovsimtool::kLaneStride) {
            named = m["args"]["name"] == "platform calls: other threads (overlapping, lane 2)";
        }
    }
    EXPECT_TRUE(named);
}

// Five slices each overlapping the one before partly: four lanes, a hundred
// threads apart, each named and sorted after the one before; the fifth goes
// to the last lane as it is.
TEST(TrackLayoutTest, PartialOverlapsTakeUpToFourLanesThenShareTheLast) {
    const char* const names[] = {"slice 0", "slice 1", "slice 2", "slice 3", "slice 4"};
    TimelineCollector c(t0, 100);
    for (int i = 0; i < 5; ++i) {
        c.platformCall(TimelineRole::kOther, names[i], us(1 + i), us(10 + i));
    }
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    std::vector<int> tids;
    for (int i = 0; i < 5; ++i) {
        const TraceEvent* e = findEvent(layout, names[i]);
        ASSERT_NE(e, nullptr);
        tids.push_back(e->tid);
    }
    EXPECT_EQ(tids, (std::vector<int>{23, 123, 223, 323, 323}));
    std::vector<std::pair<int, int>> sorted;
    for (const nlohmann::json& m : layout.metadata) {
        if (m["name"] == "thread_sort_index" && m.value("tid", 0) % 100 == 23) {
            sorted.push_back({m["tid"].get<int>(), m["args"]["sort_index"].get<int>()});
        }
    }
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted,
              (std::vector<std::pair<int, int>>{{23, 92}, {123, 93}, {223, 94}, {323, 95}}));
}

TEST(TrackLayoutTest, StepsBecomeBeginEndPairsAndEveryUsedTrackIsNamedAndSorted) {
    TimelineCollector c(t0, 100);
    c.step("step 1", us(1));
    c.libraryCall("querySensors", us(2), us(3), 2);
    c.step("step 2", us(4));
    c.requestServed(AOV_IOC_START, us(5), us(6), 0);
    c.eventQueued(true, 1, us(7), us(8), 1, false);
    c.finish(us(9));
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    const TraceEvent* begin = findEvent(layout, "step 1", 'B');
    const TraceEvent* end = findEvent(layout, "step 1", 'E');
    const TraceEvent* next = findEvent(layout, "step 2", 'B');
    ASSERT_TRUE(begin && end && next);
    EXPECT_LT(end->ts_ns, next->ts_ns);
    EXPECT_EQ(findEvent(layout, "START")->pid, aovsimtool::kKdevPid);
    EXPECT_EQ(findEvent(layout, "signal #1")->pid, aovsimtool::kKdevPid);
    for (size_t i = 1; i < layout.events.size(); ++i) {
        EXPECT_LE(layout.events[i - 1].ts_ns, layout.events[i].ts_ns);
    }
    std::vector<std::string> names;
    int sortIndexes = 0;
    for (const nlohmann::json& m : layout.metadata) {
        if (m["name"] == "thread_name" || m["name"] == "process_name") {
            names.push_back(m["args"]["name"]);
        } else {
            ++sortIndexes;
        }
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"aov-sim", "aov-kdev (driver through FUSE)", "system layer",
                                        "driver timer (aov-kdev)", "requests served (aov-kdev)"}));
    EXPECT_EQ(sortIndexes, 5);
}

// A process whose only records are counters or markers (the driver's queue
// depth, a marker of aov-sim's) is named all the same, once.
TEST(TrackLayoutTest, AProcessWithOnlyCountersAndMarkersIsNamed) {
    TimelineCollector c(t0, 100);
    c.queueDepth(true, us(1), 2, 0);
    c.marker(us(2), "stopped", nlohmann::json::object());
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    std::vector<int> eventPids;
    for (const TraceEvent& e : layout.events) {
        EXPECT_NE(e.phase, 'X') << e.record->name;
        eventPids.push_back(e.pid);
    }
    std::sort(eventPids.begin(), eventPids.end());
    std::vector<int> namedPids;
    for (const nlohmann::json& m : layout.metadata) {
        if (m["name"] == "process_name") {
            namedPids.push_back(m["pid"].get<int>());
        }
    }
    std::sort(namedPids.begin(), namedPids.end());
    EXPECT_EQ(namedPids, (std::vector<int>{aovsimtool::kSimPid, aovsimtool::kKdevPid}));
    EXPECT_EQ(eventPids, namedPids);
    // The marker's thread is named; a counter belongs to no thread.
    std::set<std::pair<int, int>> namedThreads;
    std::set<std::pair<int, int>> eventThreads;
    for (const nlohmann::json& m : layout.metadata) {
        if (m["name"] == "thread_name") {
            namedThreads.insert({m["pid"].get<int>(), m["tid"].get<int>()});
        }
    }
    for (const TraceEvent& e : layout.events) {
        if (e.phase != 'C') {
            eventThreads.insert({e.pid, e.tid});
        }
    }
    EXPECT_EQ(namedThreads, eventThreads);
}

TEST(TraceWriterTest, WritesTheObjectFormWithFlowsCountersAndMarkers) {
    TimelineCollector c(t0, 100);
    deliverEvent(c);
    c.marker(us(70), "library error", {{"line", "bad"}});
    const TraceLayout layout = aovsimtool::layOutTracks(c.records());
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    std::string problem;
    ASSERT_TRUE(aovsimtool::writeTrace(file, {{"events_delivered", 1}}, layout, &problem));
    std::rewind(file);
    std::string text;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) {
        text.append(buffer, n);
    }
    std::fclose(file);
    const nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << text;
    EXPECT_EQ(doc["otherData"]["events_delivered"], 1);
    const nlohmann::json& events = doc["traceEvents"];
    EXPECT_EQ(events.size(), layout.metadata.size() + layout.events.size());
    int flows = 0, counters = 0, markers = 0;
    for (const nlohmann::json& e : events) {
        if (e.contains("bind_id")) {
            ++flows;
            EXPECT_EQ(e["bind_id"], "0x1");
            EXPECT_EQ(e["ph"], "X");
        }
        if (e["ph"] == "C") {
            ++counters;
            EXPECT_FALSE(e.contains("tid"));
        }
        if (e["ph"] == "i") {
            ++markers;
            EXPECT_EQ(e["s"], "t");
            EXPECT_EQ(e["args"]["line"], "bad");
        }
        if (e["name"] == "callback #1") {
            EXPECT_EQ(e["ts"], 40.0);
            EXPECT_EQ(e["dur"], 10.0);
        }
    }
    EXPECT_EQ(flows, 4);
    EXPECT_EQ(counters, 2);  // queue depth, events delivered
    EXPECT_EQ(markers, 1);
}

// The whole file of a layout made by hand, one event of each phase: what each
// phase carries (a thread, a duration, a scope, arguments except on an end)
// and how a flow is bound, compared as text.
TEST(TraceWriterTest, WritesEachPhaseWithExactlyItsOwnFields) {
    TimelineRecord named, bare;
    named.name = "dequeue";
    named.args = {{"result", -5}};
    bare.name = "queue depth";
    TraceLayout layout;
    layout.metadata.push_back({{"name", "process_name"}, {"ph", "M"}, {"pid", 1}});
    const auto event = [](char phase, int64_t ts, const TimelineRecord& r) {
        TraceEvent e;
        e.phase = phase;
        e.pid = 2;
        e.tid = 7;
        e.ts_ns = ts;
        e.dur_ns = phase == 'X' ? 2500 : 0;
        e.record = &r;
        return e;
    };
    layout.events = {event('X', 1500, named), event('B', 2000, named), event('E', 3000, named),
                     event('i', 4000, bare),  event('C', 5000, named), event('X', 6000, bare)};
    layout.events[0].flow = 0x1f;
    layout.events[0].flow_out = true;
    layout.events[5].flow = 0x1f;
    layout.events[5].flow_in = true;
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    std::string problem;
    ASSERT_TRUE(aovsimtool::writeTrace(file, {{"a", 1}}, layout, &problem));
    EXPECT_EQ(problem, "");
    std::rewind(file);
    std::string text(4096, '\0');
    text.resize(std::fread(&text[0], 1, text.size(), file));
    std::fclose(file);
    EXPECT_EQ(
        text,
        "{\"displayTimeUnit\": \"ms\",\n\"otherData\": {\"a\":1},\n\"traceEvents\": [\n"
        "{\"name\":\"process_name\",\"ph\":\"M\",\"pid\":1},\n"
        "{\"args\":{\"result\":-5},\"bind_id\":\"0x1f\",\"dur\":2.5,\"flow_out\":true,"
        "\"name\":\"dequeue\",\"ph\":\"X\",\"pid\":2,\"tid\":7,\"ts\":1.5},\n"
        "{\"args\":{\"result\":-5},\"name\":\"dequeue\",\"ph\":\"B\",\"pid\":2,\"tid\":7,"
        "\"ts\":2.0},\n"
        "{\"name\":\"dequeue\",\"ph\":\"E\",\"pid\":2,\"tid\":7,\"ts\":3.0},\n"
        "{\"name\":\"queue depth\",\"ph\":\"i\",\"pid\":2,\"s\":\"t\",\"tid\":7,\"ts\":4.0},\n"
        "{\"args\":{\"result\":-5},\"name\":\"dequeue\",\"ph\":\"C\",\"pid\":2,\"ts\":5.0},\n"
        "{\"bind_id\":\"0x1f\",\"dur\":2.5,\"flow_in\":true,\"name\":\"queue depth\","
        "\"ph\":\"X\",\"pid\":2,\"tid\":7,\"ts\":6.0}\n]}\n");
}

TEST(TraceWriterTest, ReportsAFullDevice) {
    std::FILE* full = std::fopen("/dev/full", "w");
    if (full == nullptr) {
        GTEST_SKIP() << "no /dev/full";
    }
    TimelineCollector c(t0, 100);
    deliverEvent(c);
    std::string problem;
    EXPECT_FALSE(aovsimtool::writeTrace(full, {}, aovsimtool::layOutTracks(c.records()), &problem));
    EXPECT_EQ(problem, "writing failed");
    std::fclose(full);
}

}  // namespace
