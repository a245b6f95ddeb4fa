// Scenario files. The JSON library reports through exceptions, so this file
// is built with them; nothing thrown leaves the two entry points.

#include "ScenarioFile.h"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "BoundedFile.h"
#include "Excerpt.h"
#include "Failure.h"
#include "JsonReader.h"
#include "kelo_aov.h"

namespace aovsimtool {

namespace {

using aovsim::PipelineFault;
using nlohmann::json;

// Three sensors: a rear sensor with sensing modes inside and outside the
// always-on limits, a front sensor, and one that only has a viewing mode.
constexpr char kDefaultScenario[] = R"({
  "name": "default",
  "sensors": [
    {
      "id": 0, "device": 1, "facing": 0, "orientation": 90,
      "scenarios": [
        {"index": 0, "width": 4000, "height": 3000, "rate": 300, "ae": 0, "type": 0, "bit": 10},
        {"index": 1, "width": 1920, "height": 1080, "rate": 300, "ae": 0, "type": 0, "bit": 10},
        {"index": 2, "width": 640, "height": 480, "rate": 50, "ae": 0, "type": 1, "bit": 10},
        {"index": 3, "width": 640, "height": 480, "rate": 100, "ae": 0, "type": 1, "bit": 10,
         "mode_param": 2},
        {"index": 4, "width": 320, "height": 240, "rate": 100, "ae": 0, "type": 2, "bit": 8},
        {"index": 5, "width": 320, "height": 240, "rate": 100, "ae": 1, "type": 2, "bit": 8},
        {"index": 6, "width": 320, "height": 240, "rate": 10, "ae": 0, "type": 2, "bit": 8}
      ]
    },
    {
      "id": 1, "device": 4, "facing": 1, "orientation": 270,
      "scenarios": [
        {"index": 0, "width": 1280, "height": 720, "rate": 100, "ae": 0, "type": 1, "bit": 10},
        {"index": 1, "width": 1280, "height": 720, "rate": 50, "ae": 0, "type": 1, "bit": 10}
      ]
    },
    {
      "id": 2, "device": 2, "facing": 0, "orientation": 90,
      "scenarios": [
        {"index": 0, "width": 640, "height": 480, "rate": 100, "ae": 1, "type": 3, "bit": 8}
      ]
    }
  ],
  "custom": {"detect_mode": 1},
  "driver": {"queue_depth": 4, "content_every": 1},
  "failures": {}
}
)";

class ScenarioError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A value as an error line shows it: numbers, booleans and null as written,
// strings as a short excerpt, arrays and objects by their size.
std::string describe(const json& value) {
    if (value.is_string()) {
        return excerpt(value.get_ref<const std::string&>());
    }
    if (value.is_array()) {
        return "an array of " + std::to_string(value.size()) + " entries";
    }
    if (value.is_object()) {
        return "an object of " + std::to_string(value.size()) + " keys";
    }
    return value.dump();
}

const char* typeOf(const json& value) {
    if (value.is_number_integer()) {
        return "an integer";
    }
    return value.type_name();
}

void checkObject(const json& value, const std::string& where,
                 std::initializer_list<const char*> allowed) {
    if (!value.is_object()) {
        throw ScenarioError(where + ": expected an object, got " + typeOf(value));
    }
    for (const auto& item : value.items()) {
        bool known = false;
        for (const char* key : allowed) {
            known = known || item.key() == key;
        }
        if (!known) {
            throw ScenarioError(where + ": unknown key " + excerpt(item.key()));
        }
    }
}

constexpr char kTopLevel[] = "top level";

std::string at(const std::string& where, const char* key) {
    return memberPath(where == kTopLevel ? std::string() : where, key);
}

int64_t integerValue(const json& value, const std::string& where, int64_t min, int64_t max) {
    if (!value.is_number_integer() ||
        (value.is_number_unsigned() &&
         (value.get<uint64_t>() > static_cast<uint64_t>(max) ||
          (min > 0 && value.get<uint64_t>() < static_cast<uint64_t>(min)))) ||
        (!value.is_number_unsigned() &&
         (value.get<int64_t>() < min || value.get<int64_t>() > max))) {
        std::ostringstream what;
        what << where << ": expected an integer in " << min << ".." << max << ", got "
             << describe(value);
        throw ScenarioError(what.str());
    }
    return value.get<int64_t>();
}

template <class T>
void readInteger(const json& object, const char* key, const std::string& where, T* out,
                 bool required = false, int64_t max = std::numeric_limits<T>::max()) {
    const auto it = object.find(key);
    if (it == object.end()) {
        if (required) {
            throw ScenarioError(where + ": missing \"" + key + "\"");
        }
        return;
    }
    *out = static_cast<T>(integerValue(*it, at(where, key), std::numeric_limits<T>::min(), max));
}

void readBool(const json& object, const char* key, const std::string& where, bool* out) {
    const auto it = object.find(key);
    if (it == object.end()) {
        return;
    }
    if (!it->is_boolean()) {
        throw ScenarioError(at(where, key) + ": expected true or false, got " + describe(*it));
    }
    *out = it->get<bool>();
}

template <class T>
void readSet(const json& object, const char* key, const std::string& where, std::set<T>* out) {
    const auto it = object.find(key);
    if (it == object.end()) {
        return;
    }
    const std::string here = at(where, key);
    if (!it->is_array()) {
        throw ScenarioError(here + ": expected an array of integers, got " + typeOf(*it));
    }
    for (size_t i = 0; i < it->size(); ++i) {
        out->insert(static_cast<T>(integerValue((*it)[i], elementPath(here, i),
                                                std::numeric_limits<T>::min(),
                                                std::numeric_limits<T>::max())));
    }
}

const json& arrayAt(const json& object, const char* key, const std::string& where) {
    const auto it = object.find(key);
    if (it == object.end()) {
        throw ScenarioError(where + ": missing \"" + key + "\"");
    }
    if (!it->is_array()) {
        throw ScenarioError(at(where, key) + ": expected an array, got " + typeOf(*it));
    }
    return *it;
}

aovsim::ScenarioConfig readScenario(const json& value, size_t position, const std::string& where) {
    checkObject(value, where,
                {"index", "width", "height", "rate", "ae", "type", "bit", "mode_param"});
    aovsim::ScenarioConfig s;
    s.index = static_cast<int>(position);
    readInteger(value, "index", where, &s.index);
    // The platform's static info holds 16-bit sizes.
    readInteger(value, "width", where, &s.width, true, 0xFFFF);
    readInteger(value, "height", where, &s.height, true, 0xFFFF);
    readInteger(value, "rate", where, &s.rate, true);
    readInteger(value, "ae", where, &s.ae);
    readInteger(value, "type", where, &s.type);
    readInteger(value, "bit", where, &s.bit);
    readInteger(value, "mode_param", where, &s.mode_param);
    return s;
}

aovsim::SensorConfig readSensor(const json& value, const std::string& where) {
    checkObject(value, where, {"id", "device", "facing", "orientation", "scenarios"});
    aovsim::SensorConfig sensor;
    readInteger(value, "id", where, &sensor.id, true);
    readInteger(value, "device", where, &sensor.device, true);
    readInteger(value, "facing", where, &sensor.facing);
    readInteger(value, "orientation", where, &sensor.orientation);
    const json& scenarios = arrayAt(value, "scenarios", where);
    for (size_t i = 0; i < scenarios.size(); ++i) {
        sensor.scenarios.push_back(
            readScenario(scenarios[i], i, elementPath(at(where, "scenarios"), i)));
    }
    return sensor;
}

PipelineFault pipelineFaultOf(const json& value, const std::string& where) {
    static const PipelineFault kFaults[] = {
        PipelineFault::kNone,     PipelineFault::kNoAgent,    PipelineFault::kConfigSensor,
        PipelineFault::kConfigP1, PipelineFault::kCreatePipe, PipelineFault::kStartPipe};
    std::string names;
    for (PipelineFault fault : kFaults) {
        if (value.is_string() && value.get<std::string>() == aovsim::pipelineFaultName(fault)) {
            return fault;
        }
        names += names.empty() ? "" : ", ";
        names += aovsim::pipelineFaultName(fault);
    }
    throw ScenarioError(where + ": expected one of " + names + ", got " + describe(value));
}

void readFailures(const json& value, const std::string& where, aovsim::FaultConfig* faults) {
    checkObject(
        value, where,
        {"open_sensor", "switch_mclk", "power_on", "detect_mode", "frame_info", "pipeline",
         "open_node", "start", "dequeue", "dequeue_error", "sensor_list", "sensor_list_error"});
    readSet(value, "open_sensor", where, &faults->open_sensor);
    readSet(value, "switch_mclk", where, &faults->switch_mclk);
    readSet(value, "power_on", where, &faults->power_on);
    readBool(value, "detect_mode", where, &faults->detect_mode);
    readBool(value, "frame_info", where, &faults->frame_info);
    if (value.contains("pipeline")) {
        faults->pipeline = pipelineFaultOf(value["pipeline"], at(where, "pipeline"));
    }
    readBool(value, "open_node", where, &faults->open_node);
    readInteger(value, "start", where, &faults->start_error);
    readSet(value, "dequeue", where, &faults->dequeue_calls);
    readInteger(value, "dequeue_error", where, &faults->dequeue_error);
    readSet(value, "sensor_list", where, &faults->sensor_list_calls);
    readInteger(value, "sensor_list_error", where, &faults->sensor_list_error);
}

// Reads a list of exactly `count` uint32 words.
void readWords(const json& value, const std::string& where, size_t count, uint32_t* out) {
    if (!value.is_array() || value.size() != count) {
        throw ScenarioError(where + ": expected an array of " + std::to_string(count) +
                            " integers, got " + describe(value));
    }
    for (size_t i = 0; i < count; ++i) {
        out[i] = static_cast<uint32_t>(
            integerValue(value[i], elementPath(where, i), 0, std::numeric_limits<uint32_t>::max()));
    }
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Where the scripted events' files are looked for, and how much of them is kept.
struct ScriptFiles {
    std::string base_dir;  // empty: the working directory
    size_t total = 0;      // bytes read so far
};

// One data area's content: {"fill": byte}, {"hex": "0a0b..."} or {"file": "path"}.
aovsim::AreaContent readArea(const json& value, const std::string& where, uint32_t areaSize,
                             ScriptFiles* files) {
    checkObject(value, where, {"fill", "hex", "file"});
    if (value.size() != 1) {
        throw ScenarioError(where + ": expected one of \"fill\", \"hex\" or \"file\", got " +
                            describe(value));
    }
    aovsim::AreaContent content;
    if (value.contains("fill")) {
        content.bytes.push_back(
            static_cast<uint8_t>(integerValue(value["fill"], at(where, "fill"), 0, 0xFF)));
        content.repeat = true;
        return content;
    }
    if (value.contains("hex")) {
        const std::string here = at(where, "hex");
        const json& hex = value["hex"];
        const bool isString = hex.is_string();
        const std::string text = isString ? hex.get<std::string>() : std::string();
        bool valid = isString && !text.empty() && text.size() % 2 == 0;
        for (size_t i = 0; valid && i < text.size(); i += 2) {
            const int high = hexDigit(text[i]);
            const int low = hexDigit(text[i + 1]);
            valid = high >= 0 && low >= 0;
            content.bytes.push_back(static_cast<uint8_t>(high * 16 + low));
        }
        if (!valid) {
            throw ScenarioError(here + ": expected a non-empty string of hex digit pairs, got " +
                                describe(hex));
        }
        if (content.bytes.size() > areaSize) {
            throw ScenarioError(here + ": " + std::to_string(content.bytes.size()) +
                                " bytes, more than the area's " + std::to_string(areaSize));
        }
        content.repeat = true;
        return content;
    }
    const std::string here = at(where, "file");
    const json& file = value["file"];
    if (!file.is_string() || file.get_ref<const std::string&>().empty()) {
        throw ScenarioError(here + ": expected a file path, got " + describe(file));
    }
    std::string path = file.get<std::string>();
    if (path[0] != '/' && !files->base_dir.empty()) {
        path = files->base_dir + "/" + path;
    }
    std::string bytes;
    std::string problem;
    if (!readRegularFile(path, areaSize, &bytes, &problem)) {
        throw ScenarioError(here + ": cannot read " + pathExcerpt(path) + ": " + problem);
    }
    files->total += bytes.size();
    if (files->total > kMaxScriptFileBytes) {
        throw ScenarioError(here + ": the script's files exceed " +
                            std::to_string(kMaxScriptFileBytes) + " bytes in all");
    }
    content.bytes.assign(bytes.begin(), bytes.end());
    return content;
}

aovsim::ScriptedEvent readScriptedEvent(const json& value, const std::string& where,
                                        uint32_t previousFrame, ScriptFiles* files) {
    checkObject(value, where, {"at_frame", "header", "info", "data"});
    aovsim::ScriptedEvent event;
    event.at_frame = previousFrame + 1;
    if (value.contains("at_frame")) {
        event.at_frame = static_cast<uint32_t>(
            integerValue(value["at_frame"], at(where, "at_frame"), int64_t{previousFrame} + 1,
                         std::numeric_limits<uint32_t>::max()));
    }
    if (!value.contains("header")) {
        throw ScenarioError(where + ": missing \"header\"");
    }
    readWords(value["header"], at(where, "header"), event.header.size(), event.header.data());
    std::vector<std::string> names;
    for (int s = 1; s <= AOV_SECTION_COUNT; ++s) {
        names.push_back("s" + std::to_string(s));
    }
    for (const char* group : {"info", "data"}) {
        if (!value.contains(group)) {
            continue;
        }
        const std::string here = at(where, group);
        const json& sections = value[group];
        if (!sections.is_object()) {
            throw ScenarioError(here + ": expected an object, got " + typeOf(sections));
        }
        for (const auto& item : sections.items()) {
            const auto found = std::find(names.begin(), names.end(), item.key());
            if (found == names.end()) {
                throw ScenarioError(here + ": unknown key " + excerpt(item.key()) +
                                    " (sections are s1 to s10)");
            }
            const auto s = static_cast<size_t>(found - names.begin());
            const aov_section_desc& section = aov_event_sections[s];
            const std::string key = memberPath(here, item.key());
            if (group[0] == 'i') {
                readWords(item.value(), key, section.info_words, event.info[s].data());
            } else {
                event.areas[s] = readArea(item.value(), key, section.data_size, files);
            }
        }
    }
    return event;
}

void readScript(const json& events, const std::string& baseDir,
                std::vector<aovsim::ScriptedEvent>* script) {
    if (events.size() > kMaxScriptedEvents) {
        throw ScenarioError("events: " + std::to_string(events.size()) + " entries, more than " +
                            std::to_string(kMaxScriptedEvents));
    }
    ScriptFiles files{baseDir};
    uint32_t frame = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        script->push_back(readScriptedEvent(events[i], elementPath("events", i), frame, &files));
        frame = script->back().at_frame;
    }
}

void readScenarioDocument(const json& root, const std::string& baseDir, aovsim::SimConfig* config) {
    checkObject(root, kTopLevel, {"name", "sensors", "custom", "driver", "failures", "events"});
    if (root.contains("name")) {
        const json& name = root["name"];
        if (!name.is_string()) {
            throw ScenarioError("name: expected a string, got " + describe(name));
        }
        // The name is printed in the trace: one plain line.
        for (const char c : name.get_ref<const std::string&>()) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                throw ScenarioError("name: control characters are not allowed, got " +
                                    describe(name));
            }
        }
        config->name = name.get<std::string>();
    }
    const json& sensors = arrayAt(root, "sensors", kTopLevel);
    for (size_t i = 0; i < sensors.size(); ++i) {
        config->sensors.push_back(readSensor(sensors[i], elementPath("sensors", i)));
    }
    if (root.contains("custom")) {
        const json& custom = root["custom"];
        checkObject(custom, "custom", {"detect_mode", "frame_info"});
        readInteger(custom, "detect_mode", "custom", &config->custom.detect_mode);
        if (custom.contains("frame_info")) {
            const json& words = custom["frame_info"];
            if (!words.is_array() || words.size() != 4) {
                throw ScenarioError("custom.frame_info: expected an array of four integers, got " +
                                    describe(words));
            }
            for (size_t i = 0; i < 4; ++i) {
                config->custom.frame_info[i] = static_cast<uint32_t>(
                    integerValue(words[i], elementPath("custom.frame_info", i), 0,
                                 std::numeric_limits<uint32_t>::max()));
            }
            config->custom.frame_info_given = true;
        }
    }
    if (root.contains("driver")) {
        const json& driver = root["driver"];
        checkObject(driver, "driver", {"queue_depth", "content_every", "event_every"});
        readInteger(driver, "queue_depth", "driver", &config->driver.queue_depth);
        readInteger(driver, "content_every", "driver", &config->driver.content_every);
        readInteger(driver, "event_every", "driver", &config->driver.event_every);
    }
    if (root.contains("failures")) {
        readFailures(root["failures"], "failures", &config->faults);
    }
    if (root.contains("events")) {
        readScript(arrayAt(root, "events", kTopLevel), baseDir, &config->driver.script);
    }
}

}  // namespace

const char* defaultScenarioText() {
    return kDefaultScenario;
}

bool parseScenario(std::string_view text, const std::string& origin, aovsim::SimConfig* config,
                   std::string* problem, const std::string& baseDir) {
    aovsim::SimConfig parsed;
    try {
        json root;
        std::string unread;
        if (!readJson(text, JsonLimits(), &root, &unread)) {
            const bool syntax = unread.rfind("not valid JSON", 0) == 0;
            return fail(problem, "scenario " + origin + (syntax ? " is " : ": ") + unread);
        }
        readScenarioDocument(root, baseDir, &parsed);
    } catch (const std::exception& e) {
        return fail(problem, "scenario " + origin + ": " + e.what());
    }
    const std::string inconsistent = aovsim::validate(parsed);
    if (!inconsistent.empty()) {
        return fail(problem, "scenario " + origin + " is inconsistent: " + inconsistent);
    }
    *config = std::move(parsed);
    return true;
}

bool loadScenarioFile(const std::string& path, aovsim::SimConfig* config, std::string* problem) {
    if (path.empty()) {
        return fail(problem, "the scenario file path is empty");
    }
    std::string text;
    std::string unread;
    if (!readRegularFile(path, kMaxScenarioBytes, &text, &unread)) {
        return fail(problem, "cannot read scenario file " + pathExcerpt(path) + ": " + unread);
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string(".")
                            : slash == 0               ? std::string("/")
                                                       : path.substr(0, slash);
    return parseScenario(text, "file " + pathExcerpt(path), config, problem, dir);
}

}  // namespace aovsimtool
