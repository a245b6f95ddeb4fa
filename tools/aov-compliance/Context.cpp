#include "Context.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "MonitorWait.h"

namespace aovcompliance {

std::string pollBitsText(long revents) {
    static const struct {
        long bit;
        const char* name;
    } kBits[] = {{POLLIN, "POLLIN"},   {POLLPRI, "POLLPRI"}, {POLLOUT, "POLLOUT"},
                 {POLLERR, "POLLERR"}, {POLLHUP, "POLLHUP"}, {POLLNVAL, "POLLNVAL"}};
    std::string text;
    long rest = revents;
    for (const auto& b : kBits) {
        if ((revents & b.bit) != 0) {
            text += (text.empty() ? "" : "|") + std::string(b.name);
            rest &= ~b.bit;
        }
    }
    if (rest != 0) {
        char other[24];
        std::snprintf(other, sizeof(other), "0x%lx", rest);
        text += (text.empty() ? "" : "|") + std::string(other);
    }
    return text.empty() ? "0" : text;
}

std::string resultText(const CallResult& r) {
    if (r.value == -1) {
        return aovsimtool::errnoName(r.error);
    }
    if (r.value < 0) {
        return std::to_string(r.value) + " " + aovsimtool::errnoName(r.error);
    }
    return std::to_string(r.value);
}

std::string msText(int64_t micros) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f ms", static_cast<double>(micros) / 1000.0);
    return text;
}

Context::Context(const Options& options, Report& report) : options_(options), report_(report) {
    for (int& verdict : verdicts_) {
        verdict = kUnset;
    }
}

void Context::record(CheckId id, Verdict verdict, const std::string& detail) {
    const size_t i = index(id);
    if (verdicts_[i] != kUnset) {
        return;  // one line per check
    }
    std::string text = detail;
    if (verdict == Verdict::kFail || verdict == Verdict::kWarn) {
        for (CheckId earlier : entry(id).after) {
            if (earlier != CheckId::kCount && troubled(earlier)) {
                text = "after: " + std::string(entry(earlier).name) +
                       (text.empty() ? std::string() : "; " + text);
                break;
            }
        }
    }
    verdicts_[i] = static_cast<int>(verdict);
    report_.check(categoryName(entry(id).category), entry(id).name, verdict, text);
}

void Context::pass(CheckId id, const std::string& note) {
    record(id, Verdict::kOk, note);
}

void Context::problem(CheckId id, const std::string& detail) {
    record(id, entry(id).problem, detail);
}

void Context::fail(CheckId id, const std::string& detail) {
    record(id, Verdict::kFail, detail);
}

void Context::warn(CheckId id, const std::string& detail) {
    record(id, Verdict::kWarn, detail);
}

void Context::skip(CheckId id, const std::string& why) {
    record(id, Verdict::kSkip, why);
}

void Context::skipAll(std::initializer_list<CheckId> ids, const std::string& why) {
    for (CheckId id : ids) {
        skip(id, why);
    }
}

bool Context::troubled(CheckId id) const {
    const int v = verdicts_[index(id)];
    return v == static_cast<int>(Verdict::kFail) || v == static_cast<int>(Verdict::kWarn);
}

void Context::stop(const std::string& reason) {
    if (stop_reason_.empty()) {
        stop_reason_ = reason;
    }
}

bool Context::answered(CheckId id, const CallResult& r) {
    const char* name = entry(id).name;
    switch (r.status) {
        case CallResult::Status::kReturned:
            report_.note(std::string(name) + " -> " + resultText(r) + " in " +
                         std::to_string(r.elapsed_us) + " us");
            // A FUSE server that died answers ENOTCONN (ECONNABORTED for the
            // request in flight); a removed device answers ENODEV.
            if (r.value < 0 &&
                (r.error == ENOTCONN || r.error == ENODEV || r.error == ECONNABORTED)) {
                stop("the driver went away: " + std::string(name) + " got " +
                     aovsimtool::errnoName(r.error) + "; later checks not run");
                return false;
            }
            return true;
        case CallResult::Status::kTimedOut:
            fail(id, "expected an answer within " + std::to_string(options_.timeout_ms) +
                         " ms, got none: the request blocks");
            stop(std::string(name) + " never returned; later checks not run");
            return false;
        case CallResult::Status::kCloseHung:
            fail(id, "the call returned " + resultText(r) +
                         ", but closing the calling process's copy of the node did not finish "
                         "within " +
                         std::to_string(options_.timeout_ms) + " ms: a FLUSH that never returns");
            stop("a FLUSH after " + std::string(name) + " never returned; later checks not run");
            return false;
        case CallResult::Status::kDied:
            fail(id, "expected an answer, got none: the calling process died");
            return false;
        case CallResult::Status::kNoChild:
            fail(id, "expected to make the call, got no process for it: " +
                         aovsimtool::errnoName(r.error));
            stop("cannot fork");
            return false;
    }
    return false;
}

bool Context::openAnswered(CheckId id, const CallResult& r) {
    if (answered(id, r)) {
        return true;
    }
    if (r.passed_fd >= 0) {
        (void)close(r.passed_fd);
    }
    return false;
}

CallResult Context::request(unsigned long code, void* arg) {
    const int fd = fd_;
    return guard_.run(options_.timeout_ms,
                      [fd, code, arg]() -> long { return ::ioctl(fd, code, arg); });
}

CallResult Context::openNode() {
    const std::string path = options_.node;
    return guard_.run(
        options_.timeout_ms, [&path]() -> long { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); },
        true);
}

CallResult Context::pollNode(int waitMs) {
    const int fd = fd_;
    return guard_.run(options_.timeout_ms + waitMs, [fd, waitMs]() -> long {
        pollfd watched{fd, POLLIN, 0};
        const int ready = ::poll(&watched, 1, waitMs);
        return ready > 0 ? watched.revents : ready;
    });
}

CallResult Context::dequeue(bool faulting) {
    arena_.prepareDequeue(faulting);
    return request(AOV_IOC_DEQUEUE_EVENT, arena_.query());
}

namespace {

int64_t nowUs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The drain as the child makes it; see drainNode.
long drainInChild(int fd, aov_event_query* query, DrainLog* log, int maxDequeues, int64_t budgetUs,
                  Context::AfterDrain then, int epfd) {
    const int64_t began = nowUs();
    aov_event_query before{};
    auto ended = [log, began](int32_t end, long value, int64_t callBegan) -> long {
        log->end = end;
        log->value = value;
        log->error = value < 0 ? errno : 0;
        const int64_t now = nowUs();
        log->call_us = now - callBegan;
        log->drain_us = now - began;
        return value < 0 ? value : 0;
    };
    for (;;) {
        pollfd watched{fd, POLLIN, 0};
        int64_t callBegan = nowUs();
        const int ready = ::poll(&watched, 1, 0);
        if (ready < 0) {
            return ended(DrainLog::kPollFailed, ready, callBegan);
        }
        log->revents = ready > 0 ? watched.revents : 0;
        if ((log->revents & POLLIN) == 0) {
            break;
        }
        if (log->dequeues == maxDequeues || nowUs() - began >= budgetUs) {
            return ended(DrainLog::kLimit, 0, callBegan);
        }
        callBegan = nowUs();
        const long r = ::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, query);
        ++log->dequeues;
        if (r < 0) {
            return ended(DrainLog::kDequeueFailed, r, callBegan);
        }
        if (log->dequeues > 1 && std::memcmp(&before, query, sizeof(before)) == 0) {
            ++log->repeats;
        }
        std::memcpy(&before, query, sizeof(before));
    }
    int64_t callBegan = nowUs();
    if (then == Context::AfterDrain::kDequeue) {
        log->end = DrainLog::kEmptyDequeue;
        const long r = ::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, query);
        return ended(DrainLog::kNoPollin, r, callBegan);
    }
    if (then == Context::AfterDrain::kNothing) {
        return ended(DrainLog::kNoPollin, 0, callBegan);
    }
    const long armed = aovsimtool::armAsMonitor(epfd, fd);
    if (armed < 0) {
        return ended(DrainLog::kArmFailed, armed, callBegan);
    }
    callBegan = nowUs();
    const long seen = aovsimtool::waitAsMonitor(epfd, 0);
    if (seen < 0) {
        return ended(DrainLog::kLookFailed, seen, callBegan);
    }
    log->armed = seen;
    return ended(DrainLog::kNoPollin, 0, callBegan);
}

}  // namespace

CallResult Context::drainNode(int maxDequeues, AfterDrain then, int epfd) {
    // The record's addresses are set once: the drain only needs the events
    // gone, not what they carry.
    arena_.prepareDequeue(false);
    DrainLog* log = arena_.drainLog();
    *log = DrainLog{};
    log->end = DrainLog::kPollFailed;
    const int fd = fd_;
    aov_event_query* query = arena_.query();
    // A driver slower than its own stream keeps the drain going: it ends
    // after half the request limit, and every call, the last one begun then
    // included, still has the whole limit.
    const int budgetMs = options_.timeout_ms / 2;
    const int64_t budgetUs = static_cast<int64_t>(budgetMs) * 1000;
    return guard_.run(options_.timeout_ms + budgetMs,
                      [fd, query, log, maxDequeues, budgetUs, then, epfd]() -> long {
                          return drainInChild(fd, query, log, maxDequeues, budgetUs, then, epfd);
                      });
}

void Context::note(CheckId id, const std::string& text) {
    report_.note(std::string(entry(id).name) + " " + text);
}

CallResult Context::close(int fd) {
    if (fd == fd_) {
        fd_ = -1;
    }
    return guard_.close(options_.timeout_ms, fd);
}

bool Context::expectSuccess(CheckId id, unsigned long code, void* arg) {
    const CallResult r = request(code, arg);
    if (!answered(id, r)) {
        return false;
    }
    if (r.value < 0) {
        last_error_ = r.error;
        problem(id, "expected 0, got " + resultText(r));
        return false;
    }
    if (r.value == 0) {
        pass(id);
    } else {
        warn(id, "expected 0, got " + resultText(r) +
                     " (the library takes any non-negative result as success)");
    }
    return true;
}

void Context::expectRefused(CheckId id, unsigned long code, void* arg, int expected,
                            const char* otherError) {
    const CallResult r = request(code, arg);
    if (!answered(id, r)) {
        return;
    }
    const std::string want = std::string("expected a negative result (") +
                             aovsimtool::errnoName(expected) + "), got " + resultText(r);
    if (r.value >= 0) {
        problem(id, want);
    } else if (r.error != expected) {
        warn(id, otherError == nullptr ? want : want + ": " + otherError);
    } else {
        pass(id);
    }
}

}  // namespace aovcompliance
