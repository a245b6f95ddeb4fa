#include "CheckTable.h"

#include <cstring>

namespace aovcompliance {

namespace {

using C = CheckId;
constexpr Verdict kFail = Verdict::kFail;
constexpr Verdict kWarn = Verdict::kWarn;
constexpr Category kOpen = Category::kOpen;
constexpr Category kReq = Category::kRequests;
constexpr Category kDeq = Category::kDequeue;
constexpr Category kRdy = Category::kReadiness;
constexpr Category kLife = Category::kLifecycle;

const CheckEntry kTable[kCheckCount] = {
    {C::kOpenReadWrite, kOpen, "O_RDWR open", kFail},
    {C::kSecondOpen, kOpen, "second open while held", kFail},
    {C::kCloseReopen, kOpen, "close and reopen", kFail},
    {C::kNotReadableBeforeStart, kRdy, "not readable before START", kFail},
    {C::kUnknownIo, kReq, "unknown code _IO('H', 5) refused", kFail},
    {C::kUnknownIow, kReq, "unknown code _IOW('H', 8, 4) refused", kFail},
    {C::kUnknownIor, kReq, "unknown code _IOR('H', 200, 8) refused", kFail},
    {C::kStartWrongSize, kReq, "START with size 196 refused", kFail},
    {C::kSensorOnWrongSize, kReq, "SENSOR_ON with size 256 refused", kFail},
    {C::kSensorOffWrongSize, kReq, "SENSOR_OFF with size 264 refused", kFail},
    {C::kDequeueWrongSize, kReq, "DEQUEUE_EVENT with size 208 refused", kFail},
    {C::kStopWrongSize, kReq, "STOP with size 4 refused", kFail},
    {C::kStart, kReq, "START", kFail},
    {C::kUlposc3On, kReq, "ULPOSC3_ON", kFail, {C::kStart}},
    {C::kSensorOnOne, kReq, "SENSOR_ON with 1 id", kFail, {C::kUlposc3On}},
    {C::kSensorOnAll, kReq, "SENSOR_ON with 64 ids", kFail, {C::kSensorOnOne}},
    {C::kSensorOnCountZero, kReq, "SENSOR_ON with count 0 refused", kWarn},
    {C::kSensorOnCountOver, kReq, "SENSOR_ON with count 65 refused", kWarn},
    {C::kSensorOnNull, kReq, "SENSOR_ON with a null record refused", kWarn},
    {C::kPollReadable,
     kRdy,
     "poll readable with an event pending",
     kFail,
     {C::kStart, C::kSensorOnOne}},
    {C::kPendingDequeued,
     kDeq,
     "pending event dequeued into the library's layout",
     kFail,
     {C::kPollReadable}},
    {C::kWritesInside, kDeq, "writes stay inside the areas", kFail},
    {C::kRecordUntouched, kDeq, "record's padding and addresses untouched", kWarn},
    {C::kEpollReadable,
     kRdy,
     "epoll readable (empty mask, then modified)",
     kFail,
     {C::kPollReadable}},
    {C::kNotReadableDrained, kRdy, "not readable once drained", kFail, {C::kPendingDequeued}},
    {C::kEmptyDequeue, kDeq, "nothing pending returns promptly", kWarn, {C::kNotReadableDrained}},
    {C::kFaultingArea,
     kDeq,
     "faulting area refused with EFAULT",
     kFail,
     {C::kNotReadableDrained, C::kPendingDequeued}},
    {C::kWorksAfterFault,
     kDeq,
     "works after a faulting area",
     kFail,
     {C::kFaultingArea, C::kNotReadableDrained, C::kPendingDequeued}},
    {C::kSensorOffAll, kReq, "SENSOR_OFF with 64 ids", kFail, {C::kSensorOnAll}},
    {C::kSensorOffOne, kReq, "SENSOR_OFF with 1 id", kFail, {C::kSensorOnOne}},
    {C::kUlposc3Off, kReq, "ULPOSC3_OFF", kFail, {C::kUlposc3On}},
    {C::kStop, kReq, "STOP", kFail, {C::kStart}},
    {C::kNothingAfterStop, kRdy, "nothing after STOP", kFail, {C::kStop}},
    {C::kStopWithoutStart, kLife, "STOP without START", kWarn},
    {C::kStartTwice, kLife, "START twice", kFail, {C::kStart}},
    {C::kCloseWhileStarted, kLife, "close while started", kWarn},
    {C::kReopenAfterClose,
     kLife,
     "reopen after close while started",
     kFail,
     {C::kCloseWhileStarted, C::kCloseReopen}},
    {C::kSecondSession,
     kLife,
     "second session works",
     kFail,
     {C::kReopenAfterClose, C::kStart, C::kPendingDequeued}},
};

const char* const kCategoryNames[] = {"open", "requests", "dequeue", "readiness", "lifecycle"};

}  // namespace

const CheckEntry& entry(CheckId id) {
    return kTable[static_cast<size_t>(id)];
}

const CheckEntry* checkTable() {
    return kTable;
}

const char* categoryName(Category category) {
    return kCategoryNames[static_cast<size_t>(category)];
}

bool categoryNamed(const char* name, Category* category) {
    for (size_t i = 0; i < sizeof(kCategoryNames) / sizeof(kCategoryNames[0]); ++i) {
        if (std::strcmp(name, kCategoryNames[i]) == 0) {
            *category = static_cast<Category>(i);
            return true;
        }
    }
    return false;
}

}  // namespace aovcompliance
