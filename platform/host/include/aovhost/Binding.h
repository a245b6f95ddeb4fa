#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "cam/coordinator/ICamCoordinator.h"
#include "cam/custom/IAOVCustom.h"
#include "cam/pipemgr/IPipeMgr.h"
#include "cam/sensor/IHalSensor.h"

// Host binding API: which objects the platform's static entry points hand out.
//
// Nothing bound means the empty platform: a sensor list with no sensors, a
// customisation layer that answers -1, a coordinator that creates no agents,
// a pipe manager whose factory creates no pipes, and device nodes served by
// the operating system. Tests and the simulator bind their own objects for a
// scope; the previous binding comes back when the scope ends.
namespace aovhost {

// Receives the debug-print channel's lines, formatted, without a newline.
// A line keeps up to kDebugPrintLineBytes bytes of its text, as much as the
// device's log does; a longer one is cut there, back to the start of a UTF-8
// character, and ends in kDebugPrintCutMarker.
constexpr size_t kDebugPrintLineBytes = 4096;
constexpr char kDebugPrintCutMarker[] = "\u2026[cut]";

class DebugPrintSink {
  public:
    virtual ~DebugPrintSink() = default;
    virtual void write(int level, const char* text) = 0;
};

// Device paths that no node is bound to are opened by the operating system.
// When this environment variable names a directory, a path under /dev/ is
// opened under that directory instead ("/dev/kelo_aov" -> "$AOV_DEV_DIR/kelo_aov"),
// so that a node served elsewhere (a FUSE file, say) can stand in for the
// device without root.
constexpr char kDevDirEnv[] = "AOV_DEV_DIR";

// A device node emulated in the process. SystemCall routes a bound path's
// open to it and every later call on the descriptor it returned.
class EmulatedNode {
  public:
    virtual ~EmulatedNode() = default;
    // A descriptor (>= 0) standing for this open node, or a negative errno.
    // It should be a real descriptor (an eventfd, say) so that it is unique
    // in the process and can be watched with poll or epoll.
    virtual int open(int flags) = 0;
    // 0 or a negative errno; on success the descriptor is forgotten.
    virtual int close(int fd) = 0;
    // The driver's result for `request`, reading and writing through `arg`
    // as many bytes as the request's size field says.
    virtual int ioctl(int fd, unsigned int request, void* arg) = 0;
};

// Answers ICamCoordinator::getInstance() call by call, for doubles that must
// hand out different coordinators (or none) on successive calls. A bound
// source wins over a bound coordinator.
class CamCoordinatorSource {
  public:
    virtual ~CamCoordinatorSource() = default;
    virtual std::shared_ptr<NSCam::camsys::camcoordinator::ICamCoordinator> getInstance() = 0;
};

// Objects that can be bound. Each has its own slot.
template <class T>
struct Bindable : std::false_type {};
template <>
struct Bindable<NSCam::IHalSensorList> : std::true_type {};
template <>
struct Bindable<IAOVCustom> : std::true_type {};
template <>
struct Bindable<NSCam::camsys::camcoordinator::ICamCoordinator> : std::true_type {};
template <>
struct Bindable<NSCam::camsys::pipemgr::isp7::IPipeMgr> : std::true_type {};
template <>
struct Bindable<CamCoordinatorSource> : std::true_type {};
template <>
struct Bindable<DebugPrintSink> : std::true_type {};

// Puts `object` in T's slot (empty restores the default) and returns what was there.
template <class T>
std::shared_ptr<T> exchangeBinding(std::shared_ptr<T> object);

// What T's slot holds now; empty when nothing is bound.
template <class T>
std::shared_ptr<T> boundObject();

// Scopes of one slot must nest: end them in reverse order of their start.
template <class T>
class ScopedBinding {
    static_assert(Bindable<T>::value, "not a bindable platform object");

  public:
    explicit ScopedBinding(std::shared_ptr<T> object)
        : previous_(exchangeBinding<T>(std::move(object))) {}
    ~ScopedBinding() { exchangeBinding<T>(std::move(previous_)); }
    ScopedBinding(const ScopedBinding&) = delete;
    ScopedBinding& operator=(const ScopedBinding&) = delete;

  private:
    std::shared_ptr<T> previous_;
};

// Routes `path` to `node` for the scope (an earlier node of the path comes back afterwards).
class ScopedNode {
  public:
    ScopedNode(std::string path, std::shared_ptr<EmulatedNode> node);
    ~ScopedNode();
    ScopedNode(const ScopedNode&) = delete;
    ScopedNode& operator=(const ScopedNode&) = delete;

  private:
    std::string path_;
    std::shared_ptr<EmulatedNode> previous_;
};

// System properties of the process. A property that was never set takes its
// first value from the environment variable named by propertyEnvName.
void setProperty(const std::string& name, const std::string& value);
void clearProperty(const std::string& name);
// The property's value, if it has one (from the table or the environment).
bool findProperty(const std::string& name, std::string* value);
// "vendor.aovstream.test_model" -> "AOV_PROP_vendor_aovstream_test_model".
std::string propertyEnvName(const std::string& name);

// Sets a property for the scope and restores its earlier state afterwards.
class ScopedProperty {
  public:
    ScopedProperty(std::string name, const std::string& value);
    ~ScopedProperty();
    ScopedProperty(const ScopedProperty&) = delete;
    ScopedProperty& operator=(const ScopedProperty&) = delete;

  private:
    std::string name_;
    std::string previous_;  // before had_value_: the constructor fills it while setting had_value_
    bool had_value_;
};

// Parses a property value as the platform does: base 0, default when empty,
// not a number, or outside the int32 range.
int32_t parsePropertyInt32(const char* value, int32_t defaultValue);

}  // namespace aovhost
