#pragma once

// Every check the checker can report, declared once: its category, its name
// (the text of its line), the verdict it gets when the driver does not behave
// (FAIL where the library relies on the behaviour, WARN where it is good
// practice), and the earlier checks it follows from, whose failure makes its
// own a knock-on ("after: ...").

#include <cstddef>

#include "Report.h"

namespace aovcompliance {

enum class Category { kOpen, kRequests, kDequeue, kReadiness, kLifecycle };

// In the order a full run reports them.
enum class CheckId {
    kOpenReadWrite,
    kSecondOpen,
    kCloseReopen,
    kNotReadableBeforeStart,
    kUnknownIo,
    kUnknownIow,
    kUnknownIor,
    kStartWrongSize,
    kSensorOnWrongSize,
    kSensorOffWrongSize,
    kDequeueWrongSize,
    kStopWrongSize,
    kStart,
    kUlposc3On,
    kSensorOnOne,
    kSensorOnAll,
    kSensorOnCountZero,
    kSensorOnCountOver,
    kSensorOnNull,
    kPollReadable,
    kPendingDequeued,
    kWritesInside,
    kRecordUntouched,
    kEpollReadable,
    kNotReadableDrained,
    kEmptyDequeue,
    kFaultingArea,
    kWorksAfterFault,
    kSensorOffAll,
    kSensorOffOne,
    kUlposc3Off,
    kStop,
    kNothingAfterStop,
    kStopWithoutStart,
    kStartTwice,
    kCloseWhileStarted,
    kReopenAfterClose,
    kSecondSession,
    kCount
};

constexpr size_t kCheckCount = static_cast<size_t>(CheckId::kCount);
constexpr size_t kMaxAfter = 3;

struct CheckEntry {
    CheckId id;
    Category category;
    const char* name;
    Verdict problem;  // kFail or kWarn
    // The checks this one follows from; kCount ends the list.
    CheckId after[kMaxAfter] = {CheckId::kCount, CheckId::kCount, CheckId::kCount};
};

const CheckEntry& entry(CheckId id);
const char* categoryName(Category category);
// False when `name` is not a category.
bool categoryNamed(const char* name, Category* category);

// The table itself, for the tests: kCheckCount rows in CheckId order.
const CheckEntry* checkTable();

}  // namespace aovcompliance
