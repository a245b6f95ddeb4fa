#include "CheckTable.h"

#include <cstring>

namespace aovcompliance {

namespace {

using C = CheckId;
constexpr Verdict F = Verdict::kFail;
constexpr Verdict W = Verdict::kWarn;
constexpr Category kOpen = Category::kOpen;
constexpr Category kReq = Category::kRequests;
constexpr Category kDeq = Category::kDequeue;
constexpr Category kRdy = Category::kReadiness;
constexpr Category kLife = Category::kLifecycle;

const CheckEntry kTable[kCheckCount] = {
    {C::kOpenReadWrite, kOpen, "O_RDWR open", F},
    {C::kSecondOpen, kOpen, "second open while held", F},
    {C::kCloseReopen, kOpen, "close and reopen", F},
    {C::kNotReadableBeforeStart, kRdy, "not readable before START", F},
    {C::kUnknownIo, kReq, "unknown code _IO('H', 5) refused", F},
    {C::kUnknownIow, kReq, "unknown code _IOW('H', 8, 4) refused", F},
    {C::kUnknownIor, kReq, "unknown code _IOR('H', 200, 8) refused", F},
    {C::kStartWrongSize, kReq, "START with size 196 refused", F},
    {C::kSensorOnWrongSize, kReq, "SENSOR_ON with size 256 refused", F},
    {C::kSensorOffWrongSize, kReq, "SENSOR_OFF with size 264 refused", F},
    {C::kDequeueWrongSize, kReq, "DEQUEUE_EVENT with size 208 refused", F},
    {C::kStopWrongSize, kReq, "STOP with size 4 refused", F},
    {C::kStart, kReq, "START", F},
    {C::kUlposc3On, kReq, "ULPOSC3_ON", F, {C::kStart}},
    {C::kSensorOnOne, kReq, "SENSOR_ON with 1 id", F, {C::kUlposc3On}},
    {C::kSensorOnAll, kReq, "SENSOR_ON with 64 ids", F, {C::kSensorOnOne}},
    {C::kSensorOnCountZero, kReq, "SENSOR_ON with count 0 refused", W},
    {C::kSensorOnCountOver, kReq, "SENSOR_ON with count 65 refused", W},
    {C::kSensorOnNull, kReq, "SENSOR_ON with a null record refused", W},
    {C::kPollReadable,
     kRdy,
     "poll readable with an event pending",
     F,
     {C::kStart, C::kSensorOnOne}},
    {C::kPendingDequeued,
     kDeq,
     "pending event dequeued into the library's layout",
     F,
     {C::kPollReadable}},
    {C::kWritesInside, kDeq, "writes stay inside the areas", F},
    {C::kRecordUntouched, kDeq, "record's padding and addresses untouched", W},
    {C::kEpollReadable, kRdy, "epoll readable (empty mask, then modified)", F, {C::kPollReadable}},
    {C::kNotReadableDrained, kRdy, "not readable once drained", F, {C::kPendingDequeued}},
    {C::kEmptyDequeue, kDeq, "nothing pending returns promptly", W, {C::kNotReadableDrained}},
    {C::kFaultingArea,
     kDeq,
     "faulting area refused with EFAULT",
     F,
     {C::kNotReadableDrained, C::kPendingDequeued}},
    {C::kWorksAfterFault,
     kDeq,
     "works after a faulting area",
     F,
     {C::kFaultingArea, C::kNotReadableDrained, C::kPendingDequeued}},
    {C::kSensorOffAll, kReq, "SENSOR_OFF with 64 ids", F, {C::kSensorOnAll}},
    {C::kSensorOffOne, kReq, "SENSOR_OFF with 1 id", F, {C::kSensorOnOne}},
    {C::kUlposc3Off, kReq, "ULPOSC3_OFF", F, {C::kUlposc3On}},
    {C::kStop, kReq, "STOP", F, {C::kStart}},
    {C::kNothingAfterStop, kRdy, "nothing after STOP", F, {C::kStop}},
    {C::kStopWithoutStart, kLife, "STOP without START", W},
    {C::kStartTwice, kLife, "START twice", F, {C::kStart}},
    {C::kCloseWhileStarted, kLife, "close while started", W},
    {C::kReopenAfterClose,
     kLife,
     "reopen after close while started",
     F,
     {C::kCloseWhileStarted, C::kCloseReopen}},
    {C::kSecondSession,
     kLife,
     "second session works",
     F,
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
