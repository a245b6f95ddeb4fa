// aov-rec dump and info: a session file as JSON lines without payloads
// (XXH64 digests instead), and as a summary.

#include <sys/epoll.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <map>
#include <set>

#include "Commands.h"
#include "ErrnoName.h"
#include "aovsession/RequestCodec.h"
#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

namespace aovrec {
namespace {

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u >= 0x7f) {
            char esc[8];
            std::snprintf(esc, sizeof(esc), "\\u%04x", u);
            out += esc;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string hex64(uint64_t v) {
    char text[24];
    std::snprintf(text, sizeof(text), "\"%016" PRIx64 "\"", v);
    return text;
}

uint32_t wordAt(const uint8_t* bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes + offset, sizeof(v));
    return v;
}

const char* epollOp(int32_t op) {
    switch (op) {
        case EPOLL_CTL_ADD:
            return "ADD";
        case EPOLL_CTL_MOD:
            return "MOD";
        case EPOLL_CTL_DEL:
            return "DEL";
        default:
            return "?";
    }
}

const char* waitKindName(WaitKind kind) {
    switch (kind) {
        case WaitKind::kPoll:
            return "poll";
        case WaitKind::kPpoll:
            return "ppoll";
        case WaitKind::kEpollWait:
            return "epoll_wait";
        case WaitKind::kEpollPwait:
            return "epoll_pwait";
        case WaitKind::kSelect:
            return "select";
        case WaitKind::kPselect:
            return "pselect";
        case WaitKind::kEpollPwait2:
            return "epoll_pwait2";
    }
    return "?";
}

// The dequeue answer's words: header and each section's info words.
std::string dequeueWords(const Record& r) {
    std::string out = ",\"header\":[";
    for (int i = 0; i < 6; ++i) {
        out += (i > 0 ? "," : "") + std::to_string(wordAt(r.back, 4u * i));
    }
    out += "],\"info\":[";
    for (size_t s = 0; s < kSections; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        out += s > 0 ? ",[" : "[";
        for (uint32_t w = 0; w < section.info_words; ++w) {
            out += (w > 0 ? "," : "") +
                   std::to_string(wordAt(r.back, section.query_info_offset + 4 * w));
        }
        out += "]";
    }
    return out + "]";
}

std::string describe(const Record& r, uint64_t start_ns) {
    char head[256];
    std::snprintf(head, sizeof(head),
                  "{\"i\":%" PRIu64 ",\"t_ns\":%" PRId64 ",\"dur_ns\":%" PRId64
                  ",\"tid\":%u,\"call\":\"%s\",\"fd\":%d,\"result\":%d,\"errno\":%d",
                  r.index, static_cast<int64_t>(r.call.begin_ns - start_ns),
                  static_cast<int64_t>(r.call.end_ns - r.call.begin_ns), r.call.tid,
                  recordTypeName(r.type), r.call.fd, r.call.result, r.call.err);
    std::string out = head;
    char text[96];
    switch (r.type) {
        case RecordType::kOpen:
            std::snprintf(text, sizeof(text), ",\"flags\":\"0x%x\",\"mode\":\"0%o\"", r.open_flags,
                          r.open_mode);
            out += ",\"path\":" + jsonString(r.path) + text;
            break;
        case RecordType::kClose:
            break;
        case RecordType::kIoctl: {
            // JSON fields, not describeRequest()'s line; digests of the kept bytes, addresses too.
            const char* name = requestName(r.request);
            std::snprintf(text, sizeof(text), ",\"code\":\"0x%08x\"", r.request);
            out +=
                std::string(",\"request\":") + (name != nullptr ? jsonString(name) : "null") + text;
            if ((r.arg_flags & kArgNull) != 0) {
                out += ",\"arg\":null";
            }
            if ((r.arg_flags & kArgCut) != 0) {
                out += ",\"arg_cut\":true";
            }
            if ((r.arg_flags & kArgUnreadable) != 0) {
                out += ",\"arg_unreadable\":true";
            }
            if ((r.arg_flags & kArgContentDropped) != 0) {
                out += ",\"content_dropped\":true";
            }
            if (r.sent_len > 0) {
                out += ",\"sent\":{\"bytes\":" + std::to_string(r.sent_len) +
                       ",\"xxh64\":" + hex64(digest(r.sent, r.sent_len)) + "}";
            }
            if ((r.request == AOV_IOC_SENSOR_ON || r.request == AOV_IOC_SENSOR_OFF) &&
                r.sent_len >= 4) {
                out += ",\"count\":" + std::to_string(wordAt(r.sent, 0));
            }
            if (r.back_len > 0) {
                out += ",\"back\":{\"bytes\":" + std::to_string(r.back_len) +
                       ",\"xxh64\":" + hex64(digest(r.back, r.back_len)) + "}";
            }
            if (r.request == AOV_IOC_DEQUEUE_EVENT && r.back_len >= sizeof(aov_event_query)) {
                out += dequeueWords(r);
            }
            if (r.area_count > 0) {
                out += ",\"areas\":[";
                for (uint8_t i = 0; i < r.area_count; ++i) {
                    const AreaView& a = r.areas[i];
                    out += (i > 0 ? ",{\"section\":" : "{\"section\":") +
                           std::to_string(a.section) + ",\"bytes\":" + std::to_string(a.length) +
                           ",\"xxh64\":" + hex64(digest(a.data, a.length)) + "}";
                }
                out += "]";
            }
            break;
        }
        case RecordType::kPoll:
        case RecordType::kEpollWait:
            out += std::string(",\"kind\":\"") + waitKindName(r.wait_kind) +
                   "\",\"timeout_ms\":" + std::to_string(r.timeout_ms) + ",\"node\":[";
            for (uint16_t i = 0; i < r.entry_count; ++i) {
                std::snprintf(text, sizeof(text), "%s{\"fd\":%d,\"events\":%u,\"revents\":%u}",
                              i > 0 ? "," : "", r.entries[i].fd, r.entries[i].events,
                              r.entries[i].revents);
                out += text;
            }
            out += "]";
            break;
        case RecordType::kEpollCtl:
            std::snprintf(text, sizeof(text),
                          ",\"op\":\"%s\",\"target\":%d,\"events\":%u,\"data\":", epollOp(r.ctl_op),
                          r.ctl_fd, r.ctl_events);
            out += text + hex64(r.ctl_data);
            break;
    }
    return out + "}";
}

// Opens the file and its header; false after printing the one line.
bool openSession(const std::string& path, FileSource& file, SessionReader& reader, FILE* err) {
    std::string why;
    if (!file.open(path, &why)) {
        std::fprintf(err, "aov-rec: %s\n", why.c_str());
        return false;
    }
    if (!reader.start()) {
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return false;
    }
    return true;
}

int endOf(SessionReader::Next last, const SessionReader& reader, const std::string& path,
          FILE* err) {
    if (last == SessionReader::Next::kEnd) {
        return 0;
    }
    std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
    return kExitBadInput;
}

}  // namespace

int runDump(const std::string& path, FILE* out, FILE* err) {
    FileSource file;
    SessionReader reader(file);
    if (!openSession(path, file, reader, err)) {
        return kExitBadInput;
    }
    const FileHeader& h = reader.header();
    std::fprintf(out,
                 "{\"format\":%u,\"content\":\"%s\",\"compression\":\"%s\",\"pid\":%u,"
                 "\"start_ns\":%" PRIu64 ",\"digest\":\"xxh64\"}\n",
                 h.version, contentModeName(h.content),
                 h.compression == Compression::kZstd ? "zstd" : "none", h.pid, h.start_ns);
    Record record;
    SessionReader::Next next;
    while ((next = reader.next(&record)) == SessionReader::Next::kRecord) {
        std::fprintf(out, "%s\n", describe(record, h.start_ns).c_str());
    }
    std::fflush(out);
    return endOf(next, reader, path, err);
}

int runInfo(const std::string& path, FILE* out, FILE* err) {
    FileSource file;
    SessionReader reader(file);
    if (!openSession(path, file, reader, err)) {
        return kExitBadInput;
    }
    const FileHeader& h = reader.header();
    std::map<std::string, uint64_t> calls;
    struct Requests {
        uint64_t sent = 0;
        uint64_t failed = 0;
    };
    std::map<std::string, Requests> requests;
    std::map<int, uint64_t> errors;
    std::set<uint32_t> threads;
    uint64_t events = 0, with_content = 0, areas = 0, area_bytes = 0, ready = 0, failed = 0;
    uint64_t content_dropped = 0;
    uint64_t first = 0, last = 0;
    Record r;
    SessionReader::Next next;
    while ((next = reader.next(&r)) == SessionReader::Next::kRecord) {
        if (r.index == 0) {
            first = r.call.begin_ns;
        }
        last = std::max(last, r.call.end_ns);
        ++calls[recordTypeName(r.type)];
        threads.insert(r.call.tid);
        if (r.call.result < 0) {
            ++failed;
            ++errors[r.call.err];
        }
        if (r.type == RecordType::kIoctl) {
            // The bare code, not requestLabel(): "ioctl 0x..." overflows the table's name column.
            const char* name = requestName(r.request);
            char code[32];
            std::snprintf(code, sizeof(code), "0x%08x", r.request);
            Requests& q = requests[name != nullptr ? name : code];
            ++q.sent;
            q.failed += r.call.result < 0 ? 1 : 0;
            content_dropped += (r.arg_flags & kArgContentDropped) != 0 ? 1 : 0;
            if (r.request == AOV_IOC_DEQUEUE_EVENT && r.call.result >= 0) {
                ++events;
                with_content += r.back_len >= 24 && wordAt(r.back, 20) != 0 ? 1 : 0;
                areas += r.area_count;
                for (uint8_t i = 0; i < r.area_count; ++i) {
                    area_bytes += r.areas[i].length;
                }
            }
        }
        if (r.type == RecordType::kPoll || r.type == RecordType::kEpollWait) {
            for (uint16_t i = 0; i < r.entry_count; ++i) {
                ready += r.entries[i].revents != 0 ? 1 : 0;
            }
        }
    }
    std::fprintf(out, "session: %s, format %u, content %s, %s, pid %u\n", path.c_str(), h.version,
                 contentModeName(h.content),
                 h.compression == Compression::kZstd ? "zstd" : "uncompressed", h.pid);
    std::fprintf(out, "duration: %.6f s (first call to last return), %zu threads\n",
                 last > first ? static_cast<double>(last - first) / 1e9 : 0.0, threads.size());
    std::fprintf(out, "records: %" PRIu64, reader.records());
    const char* sep = " (";
    for (const auto& [name, count] : calls) {
        std::fprintf(out, "%s%s %" PRIu64, sep, name.c_str(), count);
        sep = ", ";
    }
    std::fprintf(out, "%s\n", reader.records() > 0 ? ")" : "");
    std::fprintf(out, "requests:\n");
    for (const auto& [name, q] : requests) {
        std::fprintf(out, "  %-14s %8" PRIu64 "  failed %" PRIu64 "\n", name.c_str(), q.sent,
                     q.failed);
    }
    std::fprintf(out,
                 "events: %" PRIu64 " dequeued, %" PRIu64 " with the content flag, %" PRIu64
                 " areas kept (%" PRIu64 " bytes); node ready %" PRIu64 " times\n",
                 events, with_content, areas, area_bytes, ready);
    if (content_dropped > 0) {
        std::fprintf(out,
                     "content dropped: %" PRIu64
                     " dequeues kept without their areas (the writer was behind)\n",
                     content_dropped);
    }
    std::fprintf(out, "errors: %" PRIu64, failed);
    sep = " (";
    for (const auto& [code, count] : errors) {
        std::fprintf(out, "%s%s %" PRIu64, sep, aovsimtool::errnoName(code).c_str(), count);
        sep = ", ";
    }
    std::fprintf(out, "%s\n", failed > 0 ? ")" : "");
    std::fflush(out);
    return endOf(next, reader, path, err);
}

}  // namespace aovrec
