// The requests: codes the driver must refuse, and the session's requests in
// the library's order, each with the record the library sends.

#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "Suite.h"

namespace aovcompliance {

void refusalChecks(Context& ctx) {
    Arena& arena = ctx.arena();
    uint8_t* scratch = arena.scratch();
    std::memset(scratch, 0, 512);
    const struct {
        CheckId id;
        unsigned long code;
    } unknown[] = {
        {CheckId::kUnknownIo, _IO('H', 5)},
        {CheckId::kUnknownIow, _IOW('H', 8, uint32_t)},
        {CheckId::kUnknownIor, _IOR('H', 200, uint64_t)},
    };
    for (const auto& c : unknown) {
        ctx.expectRefused(c.id, c.code, scratch, ENOTTY);
        if (ctx.stopped()) {
            return;
        }
    }
    // Known numbers with a size the library never sends; a valid record
    // behind them, so that a driver that ignores the size acts on it.
    const struct {
        CheckId id;
        unsigned long code;
        void* arg;
    } wrongSize[] = {
        {CheckId::kStartWrongSize, _IOC(_IOC_WRITE, 'H', 0, 196), arena.startRecord()},
        {CheckId::kSensorOnWrongSize, _IOC(_IOC_WRITE, 'H', 1, 256), arena.sensorList(1)},
        {CheckId::kSensorOffWrongSize, _IOC(_IOC_WRITE, 'H', 2, 264), arena.sensorList(1)},
        {CheckId::kDequeueWrongSize, _IOC(_IOC_READ, 'H', 3, 208), scratch + 1536},
        {CheckId::kStopWrongSize, _IOC(_IOC_WRITE, 'H', 4, 4), scratch + 1536},
    };
    for (const auto& c : wrongSize) {
        ctx.expectRefused(c.id, c.code, c.arg, ENOTTY,
                          "an answer the right-sized request could give: the driver may match "
                          "the request on its number only and have acted on it");
        if (ctx.stopped()) {
            return;
        }
    }
}

bool startCheck(Context& ctx) {
    return ctx.expectSuccess(CheckId::kStart, AOV_IOC_START, ctx.arena().startRecord());
}

void notificationChecks(Context& ctx) {
    Arena& arena = ctx.arena();
    ctx.expectSuccess(CheckId::kUlposc3On, AOV_IOC_ULPOSC3_ON, nullptr);
    if (ctx.stopped()) {
        return;
    }
    ctx.expectSuccess(CheckId::kSensorOnOne, AOV_IOC_SENSOR_ON, arena.sensorList(1));
    if (ctx.stopped()) {
        return;
    }
    ctx.expectSuccess(CheckId::kSensorOnAll, AOV_IOC_SENSOR_ON, arena.sensorList(64));
    if (ctx.stopped()) {
        return;
    }
    ctx.expectRefused(CheckId::kSensorOnCountZero, AOV_IOC_SENSOR_ON, arena.sensorList(0), EINVAL);
    if (ctx.stopped()) {
        return;
    }
    ctx.expectRefused(CheckId::kSensorOnCountOver, AOV_IOC_SENSOR_ON, arena.sensorList(65), EINVAL);
    if (ctx.stopped()) {
        return;
    }
    ctx.expectRefused(CheckId::kSensorOnNull, AOV_IOC_SENSOR_ON, nullptr, EFAULT);
}

void endSessionChecks(Context& ctx) {
    Arena& arena = ctx.arena();
    ctx.expectSuccess(CheckId::kSensorOffAll, AOV_IOC_SENSOR_OFF, arena.sensorList(64));
    if (ctx.stopped()) {
        return;
    }
    ctx.expectSuccess(CheckId::kSensorOffOne, AOV_IOC_SENSOR_OFF, arena.sensorList(1));
    if (ctx.stopped()) {
        return;
    }
    ctx.expectSuccess(CheckId::kUlposc3Off, AOV_IOC_ULPOSC3_OFF, nullptr);
    if (ctx.stopped()) {
        return;
    }
    ctx.expectSuccess(CheckId::kStop, AOV_IOC_STOP, nullptr);
}

}  // namespace aovcompliance
