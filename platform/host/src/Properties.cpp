#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <map>
#include <optional>

#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"
#include "cam/utils/Properties.h"

namespace aovhost {
namespace {

// A name in the table is settled: its value, or nullopt when cleared. A name
// that is not in the table yet takes its value from the environment.
struct PropertyTable {
    aov::Mutex mutex;
    std::map<std::string, std::optional<std::string>> values AOV_GUARDED_BY(mutex);
};

// Never destroyed: properties may be read during process exit.
PropertyTable& table() {
    static PropertyTable* instance = new PropertyTable;
    return *instance;
}

}  // namespace

std::string propertyEnvName(const std::string& name) {
    std::string env = "AOV_PROP_";
    for (char c : name) {
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        env += plain ? c : '_';
    }
    return env;
}

void setProperty(const std::string& name, const std::string& value) {
    aov::MutexLock guard(table().mutex);
    table().values[name] = value;
}

void clearProperty(const std::string& name) {
    aov::MutexLock guard(table().mutex);
    table().values[name] = std::nullopt;
}

bool findProperty(const std::string& name, std::string* value) {
    aov::MutexLock guard(table().mutex);
    auto it = table().values.find(name);
    if (it == table().values.end()) {
        const char* preset = std::getenv(propertyEnvName(name).c_str());
        it = table()
                 .values.emplace(name, preset ? std::optional<std::string>(preset) : std::nullopt)
                 .first;
    }
    if (!it->second) {
        return false;
    }
    *value = *it->second;
    return true;
}

ScopedProperty::ScopedProperty(std::string name, const std::string& value)
    : name_(std::move(name)), previous_(), had_value_(findProperty(name_, &previous_)) {
    setProperty(name_, value);
}

ScopedProperty::~ScopedProperty() {
    if (had_value_) {
        setProperty(name_, previous_);
    } else {
        clearProperty(name_);
    }
}

int32_t parsePropertyInt32(const char* value, int32_t defaultValue) {
    if (value == nullptr || value[0] == '\0') {
        return defaultValue;
    }
    const int savedErrno = errno;
    errno = 0;
    char* end = nullptr;
    const intmax_t parsed = std::strtoimax(value, &end, 0);
    const bool overflow = errno == ERANGE;
    errno = savedErrno;
    if (end == value || overflow || parsed < INT32_MIN || parsed > INT32_MAX) {
        return defaultValue;
    }
    return static_cast<int32_t>(parsed);
}

}  // namespace aovhost

namespace NSCam {
namespace Utils {
namespace Properties {

int32_t property_get_int32(const char* name, int32_t defaultValue) {
    if (name == nullptr) {
        return defaultValue;
    }
    std::string value;
    if (!aovhost::findProperty(name, &value)) {
        return defaultValue;
    }
    return aovhost::parsePropertyInt32(value.c_str(), defaultValue);
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
