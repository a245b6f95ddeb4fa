#include "TraceWriter.h"

#include <cinttypes>

namespace aovsimtool {

namespace {

using nlohmann::json;

double micros(int64_t ns) {
    return static_cast<double>(ns) / 1000.0;
}

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json eventJson(const TraceEvent& event) {
    const TimelineRecord& record = *event.record;
    json out{{"ph", std::string(1, event.phase)},
             {"pid", event.pid},
             {"ts", micros(event.ts_ns)},
             {"name", record.name}};
    if (event.phase != 'C') {
        out["tid"] = event.tid;
    }
    if (event.phase == 'X') {
        out["dur"] = micros(event.dur_ns);
    } else if (event.phase == 'i') {
        out["s"] = "t";
    }
    if (!record.args.is_null() && event.phase != 'E') {
        out["args"] = record.args;
    }
    if (event.flow != 0) {
        char id[24];
        std::snprintf(id, sizeof(id), "0x%" PRIx64, event.flow);
        out["bind_id"] = id;
        if (event.flow_in) {
            out["flow_in"] = true;
        }
        if (event.flow_out) {
            out["flow_out"] = true;
        }
    }
    return out;
}

}  // namespace

bool writeTrace(std::FILE* file, const json& otherData, const TraceLayout& layout,
                std::string* problem) {
    bool ok = std::fputs("{\"displayTimeUnit\": \"ms\",\n\"otherData\": ", file) >= 0 &&
              std::fputs(dump(otherData).c_str(), file) >= 0 &&
              std::fputs(",\n\"traceEvents\": [", file) >= 0;
    const char* separator = "\n";
    for (const json& meta : layout.metadata) {
        if (!ok) {
            break;
        }
        ok = std::fputs(separator, file) >= 0 && std::fputs(dump(meta).c_str(), file) >= 0;
        separator = ",\n";
    }
    for (const TraceEvent& event : layout.events) {
        if (!ok) {
            break;
        }
        ok = std::fputs(separator, file) >= 0 &&
             std::fputs(dump(eventJson(event)).c_str(), file) >= 0;
        separator = ",\n";
    }
    ok = ok && std::fputs("\n]}\n", file) >= 0 && std::fflush(file) == 0;
    if (!ok) {
        *problem = "writing failed";
    }
    return ok;
}

}  // namespace aovsimtool
