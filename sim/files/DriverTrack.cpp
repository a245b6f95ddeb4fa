#include "DriverTrack.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "BoundedFile.h"
#include "Failure.h"
#include "NumberText.h"

namespace aovsimtool {

namespace {

constexpr char kHeader[] = "aov-kdev driver track 1";

int64_t nanos(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

std::chrono::steady_clock::time_point fromNanos(int64_t ns) {
    return std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::nanoseconds(ns)));
}

// The line's words, or false when it has more than `count` or fewer.
bool words(const std::string& line, size_t count, std::vector<std::string>* out) {
    size_t at = 0;
    for (;;) {
        at = line.find_first_not_of(" \t\r", at);
        if (at == std::string::npos) {
            return out->size() == count;
        }
        if (out->size() == count) {
            return false;
        }
        const size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
        out->push_back(line.substr(at, end - at));
        at = end;
    }
}

bool number(const std::string& text, int64_t min, int64_t max, int64_t* out) {
    return parseInteger(text.c_str(), min, max, out) == NumberStatus::kOk;
}

}  // namespace

std::unique_ptr<DriverTrackWriter> DriverTrackWriter::open(const std::string& path,
                                                           std::string* problem,
                                                           uint64_t maxLines) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        *problem = "cannot write the driver track to " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<DriverTrackWriter> writer(new DriverTrackWriter(file, maxLines));
    std::fprintf(file, "%s\n", kHeader);
    std::fflush(file);
    return writer;
}

DriverTrackWriter::~DriverTrackWriter() {
    std::fclose(file_);
}

void DriverTrackWriter::line(const char* text) {
    aov::MutexLock guard(mutex_);
    if (lines_ > max_lines_) {
        return;
    }
    // Each line goes out at once: aov-sim reads the file while this runs.
    std::fputs(++lines_ > max_lines_ ? "full\n" : text, file_);
    std::fflush(file_);
}

void DriverTrackWriter::eventQueued(uint32_t sequence, Clock::time_point at, size_t depth,
                                    bool overwrote) {
    char text[128];
    std::snprintf(text, sizeof(text), "queued %" PRIu32 " %" PRId64 " %" PRId64 " %zu %d\n",
                  sequence, nanos(at), nanos(Clock::now()), depth, overwrote ? 1 : 0);
    line(text);
}

void DriverTrackWriter::queueDepth(size_t depth, uint64_t dropped) {
    char text[128];
    std::snprintf(text, sizeof(text), "depth %" PRId64 " %zu %" PRIu64 "\n", nanos(Clock::now()),
                  depth, dropped);
    line(text);
}

void DriverTrackWriter::requestServed(unsigned int request, Clock::time_point begin,
                                      Clock::time_point end, int result) {
    char text[128];
    std::snprintf(text, sizeof(text), "request %u %" PRId64 " %" PRId64 " %d\n", request,
                  nanos(begin), nanos(end), result);
    line(text);
}

bool parseDriverTrackLine(const std::string& line, DriverTrackRecord* record, bool* full) {
    constexpr int64_t kMaxTime = INT64_MAX / 2;
    std::vector<std::string> w;
    int64_t a = 0, b = 0, c = 0, d = 0, e = 0;
    if (line == "full") {
        *full = true;
        return true;
    }
    if (line.compare(0, 7, "queued ") == 0) {
        if (!words(line, 6, &w) || !number(w[1], 0, UINT32_MAX, &a) ||
            !number(w[2], 0, kMaxTime, &b) || !number(w[3], 0, kMaxTime, &c) ||
            !number(w[4], 0, INT32_MAX, &d) || !number(w[5], 0, 1, &e) || c < b) {
            return false;
        }
        record->kind = DriverTrackRecord::Kind::kQueued;
        record->sequence = static_cast<uint32_t>(a);
        record->begin = fromNanos(b);
        record->end = fromNanos(c);
        record->depth = static_cast<uint64_t>(d);
        record->overwrote = e == 1;
        return true;
    }
    if (line.compare(0, 6, "depth ") == 0) {
        if (!words(line, 4, &w) || !number(w[1], 0, kMaxTime, &a) ||
            !number(w[2], 0, INT32_MAX, &b) || !number(w[3], 0, kMaxTime, &c)) {
            return false;
        }
        record->kind = DriverTrackRecord::Kind::kDepth;
        record->begin = record->end = fromNanos(a);
        record->depth = static_cast<uint64_t>(b);
        record->dropped = static_cast<uint64_t>(c);
        return true;
    }
    if (line.compare(0, 8, "request ") == 0) {
        if (!words(line, 5, &w) || !number(w[1], 0, UINT32_MAX, &a) ||
            !number(w[2], 0, kMaxTime, &b) || !number(w[3], 0, kMaxTime, &c) ||
            !number(w[4], INT32_MIN, INT32_MAX, &d) || c < b) {
            return false;
        }
        record->kind = DriverTrackRecord::Kind::kRequest;
        record->request = static_cast<unsigned int>(a);
        record->begin = fromNanos(b);
        record->end = fromNanos(c);
        record->result = static_cast<int>(d);
        return true;
    }
    return false;
}

bool readDriverTrack(const std::string& path, size_t limit, DriverTrack* track,
                     std::string* problem) {
    std::string text;
    if (!readRegularFile(path, limit, &text, problem)) {
        return false;
    }
    size_t from = 0;
    bool first = true;
    while (from < text.size()) {
        size_t end = text.find('\n', from);
        // A last line without its newline was cut short while being written.
        const bool whole = end != std::string::npos;
        if (!whole) {
            end = text.size();
        }
        const std::string line = text.substr(from, end - from);
        from = end + 1;
        if (first) {
            first = false;
            if (line != kHeader) {
                return fail(problem, "not a driver track");
            }
            continue;
        }
        DriverTrackRecord record;
        bool full = false;
        if (!whole || !parseDriverTrackLine(line, &record, &full)) {
            ++track->bad_lines;
        } else if (full) {
            track->full = true;
        } else {
            track->records.push_back(record);
        }
    }
    if (first) {
        return fail(problem, "not a driver track");
    }
    return true;
}

}  // namespace aovsimtool
