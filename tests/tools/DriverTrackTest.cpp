// The driver track aov-kdev writes for aov-sim's timeline: what is written
// comes back with the same stamps, the writer stops at its limit and says so,
// and a broken or cut file is counted, never taken for records.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "DriverTrack.h"
#include "Timeline.h"
#include "kelo_aov.h"

namespace {

using aovsimtool::DriverTrack;
using aovsimtool::DriverTrackRecord;
using aovsimtool::DriverTrackWriter;
using Clock = std::chrono::steady_clock;

std::string tempPath(const char* name) {
    return ::testing::TempDir() + name + std::to_string(::getpid());
}

TEST(DriverTrackTest, WhatTheWriterRecordsReadsBackWithTheDriversStamps) {
    const std::string path = tempPath("track_roundtrip");
    const Clock::time_point at = Clock::now();
    {
        std::string problem;
        auto writer = DriverTrackWriter::open(path, &problem);
        ASSERT_NE(writer, nullptr) << problem;
        writer->eventQueued(7, at, 2, true);
        writer->queueDepth(1, 3);
        writer->requestServed(AOV_IOC_DEQUEUE_EVENT, at, at + std::chrono::microseconds(5), -14);
    }
    DriverTrack track;
    std::string problem;
    ASSERT_TRUE(aovsimtool::readDriverTrack(path, 1 << 20, &track, &problem)) << problem;
    ASSERT_EQ(track.records.size(), 3u);
    EXPECT_FALSE(track.full);
    EXPECT_EQ(track.bad_lines, 0u);
    const DriverTrackRecord& queued = track.records[0];
    EXPECT_EQ(queued.kind, DriverTrackRecord::Kind::kQueued);
    EXPECT_EQ(queued.sequence, 7u);
    EXPECT_EQ(queued.begin, at);
    EXPECT_GE(queued.end, at);
    EXPECT_EQ(queued.depth, 2u);
    EXPECT_TRUE(queued.overwrote);
    EXPECT_EQ(track.records[1].kind, DriverTrackRecord::Kind::kDepth);
    EXPECT_EQ(track.records[1].dropped, 3u);
    const DriverTrackRecord& request = track.records[2];
    EXPECT_EQ(request.kind, DriverTrackRecord::Kind::kRequest);
    EXPECT_EQ(request.request, AOV_IOC_DEQUEUE_EVENT);
    EXPECT_EQ(request.end - request.begin, std::chrono::microseconds(5));
    EXPECT_EQ(request.result, -14);
    ::unlink(path.c_str());
}

TEST(DriverTrackTest, TheWriterStopsAtItsLimitAndTheReaderSeesIt) {
    const std::string path = tempPath("track_full");
    {
        std::string problem;
        auto writer = DriverTrackWriter::open(path, &problem, 2);
        ASSERT_NE(writer, nullptr) << problem;
        for (int i = 0; i < 5; ++i) {
            writer->queueDepth(static_cast<size_t>(i), 0);
        }
    }
    DriverTrack track;
    std::string problem;
    ASSERT_TRUE(aovsimtool::readDriverTrack(path, 1 << 20, &track, &problem)) << problem;
    EXPECT_EQ(track.records.size(), 2u);
    EXPECT_TRUE(track.full);
    ::unlink(path.c_str());
}

TEST(DriverTrackTest, BrokenLinesAreCountedAndACutLastLineIsNotARecord) {
    const std::string path = tempPath("track_broken");
    {
        std::ofstream out(path);
        out << "aov-kdev driver track 1\n"
               "queued 1 100 200 1 0\n"
               "queued 1 300 200 1 0\n"  // signalled before its stamp
               "queued 1 100 200 1 2\n"  // not a flag
               "depth 100 1\n"           // a field missing
               "request 1 2 3 4 5\n"     // one too many
               "hello\n"
               "request 3221 100 200 -5";  // cut while being written
    }
    DriverTrack track;
    std::string problem;
    ASSERT_TRUE(aovsimtool::readDriverTrack(path, 1 << 20, &track, &problem)) << problem;
    EXPECT_EQ(track.records.size(), 1u);
    EXPECT_EQ(track.bad_lines, 6u);
    ::unlink(path.c_str());
}

// A request served, or an event signalled, within one tick of the clock ends
// when it began: a record still. One that ends before it began is not.
TEST(DriverTrackTest, ARecordMayEndWhenItBeganButNotBefore) {
    struct Case {
        const char* line;
        bool record;
    };
    for (const Case& c :
         {Case{"request 3221 400 400 0", true}, Case{"request 3221 400 399 0", false},
          Case{"queued 2 300 300 1 0", true}, Case{"queued 2 300 299 1 0", false}}) {
        DriverTrackRecord record;
        bool full = false;
        EXPECT_EQ(aovsimtool::parseDriverTrackLine(c.line, &record, &full), c.record) << c.line;
        if (c.record) {
            EXPECT_EQ(record.end, record.begin) << c.line;
        }
        EXPECT_FALSE(full);
    }
}

TEST(DriverTrackTest, RefusesAFileThatIsNotATrack) {
    const std::string path = tempPath("track_other");
    {
        std::ofstream out(path);
        out << "queued 1 100 200 1 0\n";
    }
    DriverTrack track;
    std::string problem;
    EXPECT_FALSE(aovsimtool::readDriverTrack(path, 1 << 20, &track, &problem));
    EXPECT_EQ(problem, "not a driver track");
    problem.clear();
    EXPECT_FALSE(aovsimtool::readDriverTrack(path + ".missing", 1 << 20, &track, &problem));
    EXPECT_NE(problem, "");
    { std::ofstream out(path, std::ios::trunc); }
    EXPECT_FALSE(aovsimtool::readDriverTrack(path, 1 << 20, &track, &problem));
    EXPECT_EQ(problem, "not a driver track");
    ::unlink(path.c_str());
}

// aov-sim merges the track into its timeline: a whole track is said merged,
// one the writer cut at its limit or with lines that are not records is named
// as such, and the timeline's file keeps the counts and the problem.
TEST(DriverTrackTest, TheTimelineSaysWhetherTheTrackMergedAndKeepsItsCounts) {
    struct Case {
        const char* name;
        std::string text;
        bool merged;
        const char* problem;
        nlohmann::json kept;
    };
    const std::string header = "aov-kdev driver track 1\n";
    const std::string records = "queued 1 100 200 1 0\ndepth 300 0 0\nrequest 3221 400 500 0\n";
    const Case cases[] = {
        {"whole",
         header + records,
         true,
         "",
         {{"records", 3}, {"lines_unread", 0}, {"full", false}}},
        {"full",
         header + records + "full\n",
         false,
         "aov-kdev stopped recording at its limit",
         {{"records", 3},
          {"lines_unread", 0},
          {"full", true},
          {"problem", "aov-kdev stopped recording at its limit"}}},
        {"broken",
         header + records + "hello\ndepth 1\n",
         false,
         "2 lines are not records",
         {{"records", 3},
          {"lines_unread", 2},
          {"full", false},
          {"problem", "2 lines are not records"}}},
    };
    for (const Case& c : cases) {
        const std::string track = tempPath("merge_track");
        const std::string trace = tempPath("merge_trace");
        std::ofstream(track) << c.text;
        std::string problem;
        const std::shared_ptr<aovsimtool::Timeline> timeline =
            aovsimtool::Timeline::open(trace, &problem);
        ASSERT_NE(timeline, nullptr) << problem;
        EXPECT_EQ(timeline->mergeDriverTrack(track, &problem), c.merged) << c.name;
        EXPECT_EQ(problem, c.problem) << c.name;
        ASSERT_TRUE(timeline->finish(&problem)) << problem;
        std::ifstream in(trace);
        const nlohmann::json doc = nlohmann::json::parse(
            std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), nullptr, false);
        ASSERT_FALSE(doc.is_discarded()) << c.name;
        EXPECT_EQ(doc["otherData"]["driver_track"], c.kept) << c.name;
        ::unlink(track.c_str());
        ::unlink(trace.c_str());
    }
}

}  // namespace
