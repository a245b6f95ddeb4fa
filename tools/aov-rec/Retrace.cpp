// aov-rec retrace: sends a session's requests to a node in the recorded
// order and compares the answers with the recorded ones.

#include <fcntl.h>
#include <linux/ioctl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <map>
#include <memory>

#include "Commands.h"
#include "SessionReader.h"
#include "kelo_aov.h"

namespace aovrec {
namespace {

constexpr size_t kEventBufferBytes = sizeof(struct aov_event);

class Retracer {
  public:
    Retracer(const RetraceOptions& options, FILE* out) : options_(options), out_(out) {}
    ~Retracer() {
        for (const auto& [recorded, live] : fds_) {
            ::close(live);
        }
    }

    void apply(const Record& r) {
        switch (r.type) {
            case RecordType::Open:
                open(r);
                break;
            case RecordType::Close:
                close(r);
                break;
            case RecordType::Ioctl:
                ioctl(r);
                break;
            case RecordType::Poll:
            case RecordType::EpollWait:
                for (uint16_t i = 0; i < r.entry_count; ++i) {
                    if ((r.entries[i].revents & POLLIN) != 0) {
                        ready_seen_ = true;
                    }
                }
                break;
            case RecordType::EpollCtl:
                break;
        }
    }

    int finish(const std::string& path) {
        if (differences_ > static_cast<uint64_t>(options_.max_differences)) {
            std::fprintf(out_, "... and %" PRIu64 " more differences\n",
                         differences_ - static_cast<uint64_t>(options_.max_differences));
        }
        std::fprintf(out_,
                     "retrace: %s against %s: %" PRIu64 " calls sent (%" PRIu64
                     " requests, %" PRIu64 " dequeues), %" PRIu64 " differences\n",
                     path.c_str(), options_.node.c_str(), calls_, requests_, dequeues_,
                     differences_);
        std::fflush(out_);
        return differences_ == 0 ? 0 : 1;
    }

  private:
    void differ(const Record& r, const char* what, const std::string& detail) {
        ++differences_;
        if (differences_ <= static_cast<uint64_t>(options_.max_differences)) {
            std::fprintf(out_, "difference at record %" PRIu64 " (%s): %s: %s\n", r.index, what,
                         label(r).c_str(), detail.c_str());
        }
    }

    static std::string label(const Record& r) {
        if (r.type != RecordType::Ioctl) {
            return recordTypeName(r.type);
        }
        const char* name = requestName(r.request);
        char code[32];
        std::snprintf(code, sizeof(code), "ioctl 0x%08x", r.request);
        return name != nullptr ? name : code;
    }

    static std::string outcome(int result, int err) {
        if (result >= 0) {
            return std::to_string(result);
        }
        return std::to_string(result) + " (" + std::strerror(err) + ")";
    }

    // Results and errno of the live call against the recorded ones.
    bool sameOutcome(const Record& r, const char* what, int result, int err) {
        const bool recorded_ok = r.call.result >= 0;
        const bool live_ok = result >= 0;
        // An open's descriptor number is the process's, not the driver's.
        const bool same = r.type == RecordType::Open
                              ? recorded_ok == live_ok && (live_ok || err == r.call.err)
                              : result == r.call.result && (live_ok || err == r.call.err);
        if (!same) {
            differ(r, what,
                   "result " + outcome(result, err) + ", recorded " +
                       outcome(r.call.result, r.call.err));
        }
        return same;
    }

    int live(int recorded) const {
        const auto it = fds_.find(recorded);
        return it == fds_.end() ? -1 : it->second;
    }

    void open(const Record& r) {
        ++calls_;
        // A create or truncate of the node path would change the desk's file.
        const int flags = static_cast<int>(r.open_flags) & ~(O_CREAT | O_TRUNC | O_EXCL);
        const int fd = ::open(options_.node.c_str(), flags | O_CLOEXEC);
        const int err = errno;
        sameOutcome(r, "open", fd, err);
        if (fd >= 0 && r.call.result >= 0) {
            const int old = live(r.call.result);
            if (old >= 0) {
                ::close(old);
            }
            fds_[r.call.result] = fd;
        } else if (fd >= 0) {
            ::close(fd);
        }
    }

    void close(const Record& r) {
        ++calls_;
        const int fd = live(r.call.fd);
        fds_.erase(r.call.fd);
        const int result = ::close(fd);
        sameOutcome(r, "close", result, errno);
    }

    // Waits as the recorded session did: when it saw the node ready before
    // this dequeue, or the dequeue got an event, the node must become ready
    // within the limit.
    bool waitReady(const Record& r, int fd) {
        // A dequeue that got an event had the node ready, whether or not
        // the recording holds the wait that saw it.
        if (!ready_seen_ && r.call.result < 0) {
            return true;
        }
        ready_seen_ = false;
        pollfd p{fd, POLLIN, 0};
        int n;
        do {
            n = ::poll(&p, 1, options_.ready_timeout_ms);
        } while (n < 0 && errno == EINTR);
        if (n > 0 && (p.revents & POLLIN) != 0) {
            return true;
        }
        differ(r, "readiness",
               "the node was not ready within " + std::to_string(options_.ready_timeout_ms) +
                   " ms (the recorded session saw it ready); dequeue not sent");
        return false;
    }

    void ioctl(const Record& r) {
        ++calls_;
        ++requests_;
        const int fd = live(r.call.fd);
        const bool dequeue = r.request == AOV_IOC_DEQUEUE_EVENT;
        if (dequeue) {
            ++dequeues_;
            if (!waitReady(r, fd)) {
                return;
            }
        }
        const size_t size = _IOC_SIZE(r.request);
        arg_.assign(size, 0);
        void* arg = nullptr;
        if ((r.arg_flags & kArgNull) == 0) {
            std::memcpy(arg_.data(), r.sent, std::min<size_t>(r.sent_len, size));
            arg = arg_.data();
        }
        if (dequeue && arg != nullptr) {
            if (!event_) {
                event_.reset(new uint8_t[kEventBufferBytes]());
            }
            aov_event_query query{};
            for (const aov_section_desc& section : aov_event_sections) {
                void* area = event_.get() + section.data_offset;
                std::memcpy(reinterpret_cast<uint8_t*>(&query) + section.query_addr_offset, &area,
                            sizeof(area));
            }
            std::memcpy(arg_.data(), &query, sizeof(query));
        }
        const int result = ::ioctl(fd, static_cast<unsigned long>(r.request), arg);
        const int err = errno;
        if (!sameOutcome(r, "result", result, err) || !dequeue || result < 0 ||
            r.back_len < sizeof(aov_event_query)) {
            return;
        }
        compareWords(r);
        compareAreas(r);
    }

    void compareWords(const Record& r) {
        std::string detail;
        auto word = [](const uint8_t* bytes, size_t offset) {
            uint32_t v;
            std::memcpy(&v, bytes + offset, sizeof(v));
            return v;
        };
        for (size_t i = 0; i < 6 && detail.empty(); ++i) {
            if (word(arg_.data(), 4 * i) != word(r.back, 4 * i)) {
                detail = "header[" + std::to_string(i) + "] " +
                         std::to_string(word(arg_.data(), 4 * i)) + ", recorded " +
                         std::to_string(word(r.back, 4 * i));
            }
        }
        for (size_t s = 0; s < kSections && detail.empty(); ++s) {
            const aov_section_desc& section = aov_event_sections[s];
            for (uint32_t w = 0; w < section.info_words && detail.empty(); ++w) {
                const size_t at = section.query_info_offset + 4 * w;
                if (word(arg_.data(), at) != word(r.back, at)) {
                    detail = "s" + std::to_string(s + 1) + "_info[" + std::to_string(w) + "] " +
                             std::to_string(word(arg_.data(), at)) + ", recorded " +
                             std::to_string(word(r.back, at));
                }
            }
        }
        if (!detail.empty()) {
            differ(r, "words", detail);
        }
    }

    void compareAreas(const Record& r) {
        for (uint8_t i = 0; i < r.area_count; ++i) {
            const AreaView& a = r.areas[i];
            const aov_section_desc& section = aov_event_sections[a.section - 1];
            const uint64_t live = digest(event_.get() + section.data_offset, a.length);
            const uint64_t recorded = digest(a.data, a.length);
            if (live != recorded) {
                char detail[160];
                std::snprintf(detail, sizeof(detail),
                              "section %u, first %u bytes: xxh64 %016" PRIx64
                              ", recorded %016" PRIx64,
                              a.section, a.length, live, recorded);
                differ(r, "area", detail);
                return;
            }
        }
    }

    const RetraceOptions& options_;
    FILE* out_;
    std::map<int, int> fds_;  // recorded descriptor -> live one
    std::unique_ptr<uint8_t[]> event_;
    std::vector<uint8_t> arg_;
    bool ready_seen_ = false;
    uint64_t calls_ = 0;
    uint64_t requests_ = 0;
    uint64_t dequeues_ = 0;
    uint64_t differences_ = 0;
};

}  // namespace

int runRetrace(const std::string& path, const RetraceOptions& options, FILE* out, FILE* err) {
    FileSource file;
    std::string why;
    if (!file.open(path, &why)) {
        std::fprintf(err, "aov-rec: %s\n", why.c_str());
        return kExitBadInput;
    }
    SessionReader reader(file);
    if (!reader.start()) {
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return kExitBadInput;
    }
    Retracer retracer(options, out);
    Record record;
    SessionReader::Next next;
    while ((next = reader.next(&record)) == SessionReader::Next::Record) {
        retracer.apply(record);
    }
    const int status = retracer.finish(path);
    if (next != SessionReader::Next::End) {
        std::fprintf(err, "aov-rec: %s: %s\n", path.c_str(), reader.error().c_str());
        return kExitBadInput;
    }
    return status;
}

}  // namespace aovrec
