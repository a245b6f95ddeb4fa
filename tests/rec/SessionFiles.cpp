#include "SessionFiles.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "kelo_aov.h"

namespace aovrectest {

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "aovrec_" + std::to_string(::getpid()) + "_" + name;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

ProcessResult rec(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    return runProcess(AOV_REC_PATH, args, env);
}

std::string sentCalls(const std::string& path, uint64_t records) {
    aovrec::FileSource source;
    std::string why;
    aovrec::SessionReader reader(source);
    if (!source.open(path, &why) || !reader.start()) {
        return why;
    }
    aovrec::Record r;
    int calls = 0, requests = 0, dequeues = 0;
    while (reader.records() < records && reader.next(&r) == aovrec::SessionReader::Next::kRecord) {
        if (r.type == aovrec::RecordType::kIoctl) {
            ++requests;
            dequeues += r.request == AOV_IOC_DEQUEUE_EVENT ? 1 : 0;
        }
        if (r.type == aovrec::RecordType::kIoctl || r.type == aovrec::RecordType::kOpen ||
            r.type == aovrec::RecordType::kClose) {
            ++calls;
        }
    }
    return ": " + std::to_string(calls) + " calls sent (" + std::to_string(requests) +
           " requests, " + std::to_string(dequeues) + " dequeues), ";
}

uint64_t recordsIn(const std::string& path) {
    aovrec::FileSource source;
    std::string why;
    aovrec::SessionReader reader(source);
    if (!source.open(path, &why) || !reader.start()) {
        return 0;
    }
    aovrec::Record r;
    while (reader.next(&r) == aovrec::SessionReader::Next::kRecord) {
    }
    return reader.records();
}

uint64_t recordsThroughDequeue(const std::string& path, int n) {
    aovrec::FileSource source;
    std::string why;
    aovrec::SessionReader reader(source);
    if (!source.open(path, &why) || !reader.start()) {
        return 0;
    }
    aovrec::Record r;
    while (n > 0 && reader.next(&r) == aovrec::SessionReader::Next::kRecord) {
        n -= r.type == aovrec::RecordType::kIoctl && r.request == AOV_IOC_DEQUEUE_EVENT ? 1 : 0;
    }
    return n == 0 ? reader.records() : 0;
}

std::string loadSession(const std::string& path, LoadedSession* out) {
    aovrec::FileSource source;
    std::string why;
    if (!source.open(path, &why)) {
        return why;
    }
    aovrec::SessionReader reader(source);
    if (!reader.start()) {
        return reader.error();
    }
    out->header = reader.header();
    auto own = [out](const uint8_t* data, size_t size) -> const uint8_t* {
        out->bytes.emplace_back(data, data + size);
        return out->bytes.back().data();
    };
    aovrec::Record r;
    aovrec::SessionReader::Next next;
    while ((next = reader.next(&r)) == aovrec::SessionReader::Next::kRecord) {
        r.sent = own(r.sent, r.sent_len);
        r.back = own(r.back, r.back_len);
        for (uint8_t i = 0; i < r.area_count; ++i) {
            r.areas[i].data = own(r.areas[i].data, r.areas[i].length);
        }
        out->records.push_back(r);
    }
    if (next != aovrec::SessionReader::Next::kEnd) {
        return reader.error().empty() ? path + ": not read to its end" : reader.error();
    }
    return "";
}

std::string writeSession(const LoadedSession& session, const std::string& to,
                         const SessionEdits& edits) {
    const int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return to + ": " + std::strerror(errno);
    }
    aovrec::SessionBuilder b(fd, session.header.content, session.header.compression);
    auto result = [](const aovrec::Record& x) {
        return x.call.result >= 0 ? x.call.result : -x.call.err;
    };
    for (size_t i = 0; i < session.records.size(); ++i) {
        const aovrec::Record& x = session.records[i];
        if (edits.before) {
            edits.before(i, x, &b);
        }
        if (x.type == aovrec::RecordType::kOpen) {
            b.open(x.path.c_str(), static_cast<int>(x.open_flags), result(x));
        } else if (x.type == aovrec::RecordType::kClose) {
            b.close(x.call.fd, result(x));
        } else if (x.type == aovrec::RecordType::kIoctl) {
            std::vector<uint8_t> back(x.back, x.back + x.back_len);
            std::vector<std::vector<uint8_t>> data;
            for (uint8_t a = 0; a < x.area_count; ++a) {
                data.emplace_back(x.areas[a].data, x.areas[a].data + x.areas[a].length);
            }
            if (edits.request) {
                edits.request(i, x, &back, &data);
            }
            std::vector<aovrec::SessionBuilder::Area> areas;
            for (uint8_t a = 0; a < x.area_count && a < data.size(); ++a) {
                areas.push_back({x.areas[a].section, data[a].data(), x.areas[a].length});
            }
            const bool dropped = x.area_count > 0 && data.empty();
            const bool null_arg = (x.arg_flags & aovrec::kArgNull) != 0;
            b.ioctl(x.call.fd, x.request, null_arg ? nullptr : x.sent, x.sent_len, result(x),
                    back.data(), back.size(), areas.data(), areas.size(),
                    dropped ? aovrec::kArgContentDropped : 0);
        }
        if (edits.after) {
            edits.after(i, x, &b);
        }
    }
    const bool ok = b.ok();
    ::close(fd);
    return ok ? "" : "cannot write " + to;
}

void ServedKdev::enterOrSkip(const std::string& prefix) {
    aovtest::enterFuseSandboxOrSkip(&sandbox_, prefix);
}

void ServedKdev::start(std::vector<std::string> options) {
    options.insert(options.begin(), "--quiet");
    std::string problem;
    ASSERT_TRUE(kdev_.start(AOV_KDEV_PATH, dir(), options, &problem)) << problem;
}

void ServedKdev::stop() {
    kdev_.stop();
    if (!dir().empty()) {
        ::umount2(dir().c_str(), MNT_DETACH);
    }
}

}  // namespace aovrectest
