// The checker's parts on their own, without a driver: the check table, the
// verdict plumbing (one line per check, knock-on marking, the stop after a
// hung call or a vanished driver), the arena's damage reports, and whole runs
// against paths that are no AOV node.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "Arena.h"
#include "CheckTable.h"
#include "Checks.h"
#include "Context.h"
#include "Report.h"
#include "gtest/gtest.h"

namespace aovcompliance {
namespace {

// A report written to memory; text() is what it wrote so far.
class MemoryReport {
  public:
    explicit MemoryReport(Report::Format format = Report::Format::kPlain, std::string only = "")
        : out_(::open_memstream(&text_, &size_)), report_(out_, format, false, std::move(only)) {}
    ~MemoryReport() {
        std::fclose(out_);
        std::free(text_);
    }
    Report& report() { return report_; }
    std::string text() {
        std::fflush(out_);
        return std::string(text_, size_);
    }

  private:
    char* text_ = nullptr;
    size_t size_ = 0;
    std::FILE* out_;
    Report report_;
};

TEST(CheckTable, DeclaresEachCheckOnceInItsOwnRowWithAFailOrWarnVerdict) {
    std::set<std::string> names;
    for (size_t i = 0; i < kCheckCount; ++i) {
        const CheckEntry& check = checkTable()[i];
        EXPECT_EQ(static_cast<size_t>(check.id), i) << check.name;
        EXPECT_EQ(&entry(check.id), &check);
        EXPECT_TRUE(names.insert(check.name).second) << "twice: " << check.name;
        EXPECT_TRUE(check.problem == Verdict::kFail || check.problem == Verdict::kWarn)
            << check.name;
        for (CheckId earlier : check.after) {
            // A check follows only from checks reported before it.
            if (earlier != CheckId::kCount) {
                EXPECT_LT(static_cast<size_t>(earlier), i) << check.name;
            }
        }
    }
    EXPECT_EQ(names.size(), 38u);
    Category category;
    ASSERT_TRUE(categoryNamed("readiness", &category));
    EXPECT_EQ(category, Category::kReadiness);
    EXPECT_STREQ(categoryName(Category::kLifecycle), "lifecycle");
    EXPECT_FALSE(categoryNamed("ready", &category));
    EXPECT_TRUE(isCategory("dequeue"));
    EXPECT_FALSE(isCategory(""));
}

TEST(CheckerVerdicts, OneLinePerCheckAndKnockOnFailuresNameTheEarlierCheck) {
    Options options;
    MemoryReport memory;
    Context ctx(options, memory.report());
    ctx.fail(CheckId::kStart, "expected 0, got EIO");
    ctx.pass(CheckId::kStart);  // a second verdict for the same check is dropped
    ctx.problem(CheckId::kUlposc3On, "expected 0, got EINVAL");
    ctx.problem(CheckId::kSensorOnCountZero, "got 0");
    ctx.skip(CheckId::kSensorOnOne, "why");
    ctx.pass(CheckId::kSensorOnAll, "a note");
    ctx.skipAll({CheckId::kSensorOnAll, CheckId::kStop}, "no session");
    EXPECT_EQ(memory.text(),
              "requests: START: FAIL (expected 0, got EIO)\n"
              "requests: ULPOSC3_ON: FAIL (after: START; expected 0, got EINVAL)\n"
              "requests: SENSOR_ON with count 0 refused: WARN (got 0)\n"
              "requests: SENSOR_ON with 1 id: SKIP (why)\n"
              "requests: SENSOR_ON with 64 ids: OK (a note)\n"
              "requests: STOP: SKIP (no session)\n");
    EXPECT_TRUE(ctx.troubled(CheckId::kStart));
    EXPECT_TRUE(ctx.troubled(CheckId::kSensorOnCountZero));
    EXPECT_FALSE(ctx.troubled(CheckId::kSensorOnOne));
    EXPECT_FALSE(ctx.troubled(CheckId::kSensorOnAll));
    EXPECT_TRUE(ctx.reported(CheckId::kStop));
    EXPECT_FALSE(ctx.reported(CheckId::kUlposc3Off));
    const Totals& totals = memory.report().totals();
    EXPECT_EQ(totals.passed, 1);
    EXPECT_EQ(totals.failed, 2);
    EXPECT_EQ(totals.warnings, 1);
    EXPECT_EQ(totals.skipped, 2);
}

TEST(CheckerVerdicts, AKnockOnFollowsAWarningTooButNotAPassOrSkip) {
    Options options;
    MemoryReport memory;
    Context ctx(options, memory.report());
    ctx.warn(CheckId::kUlposc3On, "got 1");
    ctx.problem(CheckId::kSensorOnOne, "x");
    ctx.skip(CheckId::kPollReadable, "no event");
    ctx.problem(CheckId::kPendingDequeued, "y");
    ctx.pass(CheckId::kSensorOnAll);
    ctx.warn(CheckId::kSensorOffAll, "z");
    EXPECT_EQ(memory.text(),
              "requests: ULPOSC3_ON: WARN (got 1)\n"
              "requests: SENSOR_ON with 1 id: FAIL (after: ULPOSC3_ON; x)\n"
              "readiness: poll readable with an event pending: SKIP (no event)\n"
              "dequeue: pending event dequeued into the library's layout: FAIL (y)\n"
              "requests: SENSOR_ON with 64 ids: OK\n"
              "requests: SENSOR_OFF with 64 ids: WARN (z)\n");
}

TEST(CheckerVerdicts, AKnockOnNamesTheFirstEarlierCheckOnlyAndTheFirstStopReasonStays) {
    Options options;
    MemoryReport memory;
    Context ctx(options, memory.report());
    ctx.fail(CheckId::kPendingDequeued, "a");
    ctx.fail(CheckId::kNotReadableDrained, "b");
    ctx.fail(CheckId::kFaultingArea, "c");
    ctx.fail(CheckId::kWorksAfterFault, "d");
    EXPECT_EQ(memory.text(),
              "dequeue: pending event dequeued into the library's layout: FAIL (a)\n"
              "readiness: not readable once drained: FAIL (after: pending event dequeued into "
              "the library's layout; b)\n"
              "dequeue: faulting area refused with EFAULT: FAIL (after: not readable once "
              "drained; c)\n"
              "dequeue: works after a faulting area: FAIL (after: faulting area refused with "
              "EFAULT; d)\n");
    ctx.stop("first");
    ctx.stop("second");
    EXPECT_EQ(ctx.stopReason(), "first");
}

TEST(CheckerVerdicts, AHungCallFailsTheCheckAndStopsTheRunAVanishedDriverOnlyStopsIt) {
    Options options;
    options.timeout_ms = 1500;
    struct Case {
        CallResult::Status status;
        long value;
        int error;
        const char* line;  // empty: no line
        const char* stop;  // empty: the run goes on
    };
    const Case cases[] = {
        {CallResult::Status::kTimedOut, -1, 0,
         "requests: STOP: FAIL (expected an answer within 1500 ms, got none: the request "
         "blocks)\n",
         "STOP never returned; later checks not run"},
        {CallResult::Status::kCloseHung, 0, 0,
         "requests: STOP: FAIL (the call returned 0, but closing the calling process's copy of "
         "the node did not finish within 1500 ms: a FLUSH that never returns)\n",
         "a FLUSH after STOP never returned; later checks not run"},
        {CallResult::Status::kReturned, -1, ENOTCONN, "",
         "the driver went away: STOP got ENOTCONN; later checks not run"},
        {CallResult::Status::kReturned, -1, ENODEV, "",
         "the driver went away: STOP got ENODEV; later checks not run"},
        {CallResult::Status::kReturned, -1, ECONNABORTED, "",
         "the driver went away: STOP got ECONNABORTED; later checks not run"},
        {CallResult::Status::kDied, -1, 0,
         "requests: STOP: FAIL (expected an answer, got none: the calling process died)\n", ""},
        {CallResult::Status::kNoChild, -1, EAGAIN,
         "requests: STOP: FAIL (expected to make the call, got no process for it: EAGAIN)\n",
         "cannot fork"},
    };
    for (const Case& c : cases) {
        MemoryReport memory;
        Context ctx(options, memory.report());
        CallResult r;
        r.status = c.status;
        r.value = c.value;
        r.error = c.error;
        EXPECT_FALSE(ctx.answered(CheckId::kStop, r)) << c.stop;
        EXPECT_EQ(memory.text(), c.line);
        EXPECT_EQ(ctx.stopReason(), c.stop);
        EXPECT_EQ(ctx.stopped(), std::string(c.stop) != "");
    }
    // A plain refusal is an answer the check judges.
    MemoryReport memory;
    Context ctx(options, memory.report());
    CallResult refused;
    refused.status = CallResult::Status::kReturned;
    refused.value = -1;
    refused.error = EINVAL;
    EXPECT_TRUE(ctx.answered(CheckId::kStop, refused));
    EXPECT_FALSE(ctx.stopped());
    EXPECT_EQ(memory.text(), "");
}

TEST(CheckerVerdicts, AnOpenWhoseProcessCouldNotCloseItsCopyLeavesNoDescriptorBehind) {
    Options options;
    MemoryReport memory;
    Context ctx(options, memory.report());
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    CallResult r;
    r.status = CallResult::Status::kCloseHung;
    r.value = ends[0];
    r.passed_fd = ends[0];
    EXPECT_FALSE(ctx.openAnswered(CheckId::kOpenReadWrite, r));
    EXPECT_TRUE(ctx.stopped());
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), -1) << "the handed-over descriptor was closed";
    EXPECT_EQ(memory.text().rfind("open: O_RDWR open: FAIL (the call returned ", 0), 0u)
        << memory.text();
    ::close(ends[1]);

    // Descriptor 0 too: run with standard input closed, the node may get it.
    const int input = ::dup(STDIN_FILENO);
    ASSERT_GE(input, 0);
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
    r.value = STDIN_FILENO;
    r.passed_fd = STDIN_FILENO;
    EXPECT_FALSE(ctx.openAnswered(CheckId::kOpenReadWrite, r));
    const int flags = ::fcntl(STDIN_FILENO, F_GETFD);
    ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
    EXPECT_EQ(flags, -1) << "descriptor 0 was left open";
    ::close(input);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(CheckerText, ReadinessBitsAndResultsAreNamed) {
    EXPECT_EQ(pollBitsText(0), "0");
    EXPECT_EQ(pollBitsText(POLLIN), "POLLIN");
    EXPECT_EQ(pollBitsText(POLLIN | POLLERR), "POLLIN|POLLERR");
    EXPECT_EQ(pollBitsText(POLLHUP | POLLNVAL | POLLOUT), "POLLOUT|POLLHUP|POLLNVAL");
    EXPECT_EQ(pollBitsText(POLLERR | 0x4000), "POLLERR|0x4000");
    EXPECT_NE(kWakingBits & POLLERR, 0);
    EXPECT_NE(kWakingBits & POLLHUP, 0);
    EXPECT_NE(kWakingBits & POLLIN, 0);
    EXPECT_EQ(kWakingBits & POLLOUT, 0) << "a monitor watching for input never hears POLLOUT";

    CallResult r;
    r.status = CallResult::Status::kReturned;
    r.value = -1;
    r.error = EAGAIN;
    EXPECT_EQ(resultText(r), "EAGAIN");
    r.value = -5;
    r.error = EIO;
    EXPECT_EQ(resultText(r), "-5 EIO");
    r.value = 3;
    EXPECT_EQ(resultText(r), "3");
    r.value = 0;
    EXPECT_EQ(resultText(r), "0");
    EXPECT_EQ(msText(1250), "1.2 ms");
    EXPECT_EQ(msText(20000), "20.0 ms");
}

class ArenaDamage : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(arena_.map()) << std::strerror(errno);
        arena_.prepareDequeue(false);
    }
    Arena arena_;
};

TEST_F(ArenaDamage, AnUntouchedBufferAndRecordReportNothing) {
    // Writing every byte of every area is allowed.
    for (const aov_section_desc& section : aov_event_sections) {
        std::memset(arena_.event() + section.data_offset, 0, section.data_size);
    }
    std::string why;
    EXPECT_TRUE(arena_.writesOnlyInAreas(&why)) << why;
    EXPECT_TRUE(arena_.recordIntact(false, &why)) << why;
    arena_.prepareDequeue(true);
    EXPECT_TRUE(arena_.recordIntact(true, &why)) << why;
    EXPECT_FALSE(arena_.recordIntact(false, &why)) << "the addresses point at the faulting page";
}

TEST_F(ArenaDamage, AWriteOutsideTheAreasNamesTheAreaItFollowsAndItsFirstOffset) {
    std::string outside;
    const aov_section_desc& s2 = aov_event_sections[1];
    uint8_t* behind = arena_.event() + s2.data_offset + s2.data_size;
    behind[1] = 0;
    behind[3] = 0;
    EXPECT_FALSE(arena_.writesOnlyInAreas(&outside));
    EXPECT_EQ(outside, "2 bytes written after section 2's area (first at offset " +
                           hex(s2.data_offset + s2.data_size + 1) + ")");

    arena_.prepareDequeue(false);
    arena_.event()[4] = 1;  // the header the library fills itself
    EXPECT_FALSE(arena_.writesOnlyInAreas(&outside));
    EXPECT_EQ(outside, "1 bytes written before section 1's area (first at offset 0x00000004)");

    arena_.prepareDequeue(false);
    arena_.event()[sizeof(aov_event) + 7] = 0;
    EXPECT_FALSE(arena_.writesOnlyInAreas(&outside));
    EXPECT_EQ(outside,
              "1 bytes written after section 10's area, past the end of the event buffer (first "
              "at offset " +
                  hex(sizeof(aov_event) + 7) + ")");
}

TEST_F(ArenaDamage, RecordDamageNamesTheBytesAfterTheAddressesAndThePadding) {
    std::string damage;
    arena_.queryBytes()[sizeof(aov_event_query) + 2] = 0;
    EXPECT_FALSE(arena_.recordIntact(false, &damage));
    EXPECT_EQ(damage, "the bytes after the record were written (offset " +
                          hex(sizeof(aov_event_query) + 2) + ")");

    arena_.prepareDequeue(false);
    const aov_section_desc& s3 = aov_event_sections[2];
    arena_.queryBytes()[s3.query_addr_offset] ^= 0x10;
    EXPECT_FALSE(arena_.recordIntact(false, &damage));
    EXPECT_EQ(damage,
              "an area address was changed (record offset " + hex(s3.query_addr_offset) + ")");

    arena_.prepareDequeue(false);
    arena_.queryBytes()[0x9C] = 7;
    EXPECT_FALSE(arena_.recordIntact(false, &damage));
    EXPECT_EQ(damage, "padding word at record offset 0x0000009c is 0x00000007");
}

TEST(ArenaRecords, StartRecordAndSensorListsAreWhatTheLibrarySends) {
    Arena arena;
    ASSERT_TRUE(arena.map());
    const uint8_t* start = arena.startRecord();
    int32_t rate = 0;
    int32_t mode = 0;
    std::memcpy(&rate, start + AOV_START_FRAME_RATE, sizeof(rate));
    std::memcpy(&mode, start + AOV_START_AOV_MODE, sizeof(mode));
    EXPECT_EQ(rate, 10);
    EXPECT_EQ(mode, AOV_MODE_FULL_CONTENT);
    const aov_sensor_list* list = arena.sensorList(64);
    EXPECT_EQ(list->count, 64u);
    EXPECT_EQ(list->sensor_ids[63], 63);
    EXPECT_EQ(arena.sensorList(0)->count, 0u);
}

// Whole runs against paths that are no AOV node: one plain line, exit 1.
std::string runOn(const std::string& path, int* exitCode, bool tap = false) {
    Options options;
    options.node = path;
    options.tap = tap;
    options.timeout_ms = 5000;
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = ::open_memstream(&text, &size);
    *exitCode = runChecks(options, out);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(CheckerOnOtherPaths, ADirectoryAPlainFileAndDevNullAreSaidNotToBeAovNodes) {
    char dir[] = "/tmp/aov-compliance-paths.XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/plain";
    std::FILE* f = std::fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("not a driver\n", f);
    std::fclose(f);

    int code = -1;
    EXPECT_EQ(runOn(dir, &code), "aov-compliance: stopped: " + std::string(dir) +
                                     " is a directory, not an AOV node\n"
                                     "aov-compliance: 0 passed, 0 failed, 0 warnings, 0 skipped\n");
    EXPECT_EQ(code, 1);

    for (const std::string& path : {file, std::string("/dev/null")}) {
        EXPECT_EQ(runOn(path, &code),
                  "open: O_RDWR open: OK\n"
                  "aov-compliance: stopped: " +
                      path +
                      " is not an AOV node: it answers STOP with ENOTTY, as a file that knows no "
                      "AOV request does\n"
                      "aov-compliance: 1 passed, 0 failed, 0 warnings, 0 skipped\n");
        EXPECT_EQ(code, 1);
    }

    EXPECT_EQ(runOn(file + ".missing", &code),
              "open: O_RDWR open: FAIL (expected a descriptor of " + file +
                  ".missing, got ENOENT)\n"
                  "aov-compliance: stopped: the node cannot be opened\n"
                  "aov-compliance: 0 passed, 1 failed, 0 warnings, 0 skipped\n");
    EXPECT_EQ(code, 1);

    EXPECT_EQ(runOn("/dev/null", &code, true),
              "TAP version 13\n"
              "ok 1 - open: O_RDWR open\n"
              "1..1\n"
              "Bail out! /dev/null is not an AOV node: it answers STOP with ENOTTY, as a file "
              "that knows no AOV request does\n"
              "# aov-compliance: 1 passed, 0 failed, 0 warnings, 0 skipped\n");
    ::unlink(file.c_str());
    ::rmdir(dir);
}

}  // namespace
}  // namespace aovcompliance
