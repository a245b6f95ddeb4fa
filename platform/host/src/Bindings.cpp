#include "aovbase/Mutex.h"
#include "aovhost/Binding.h"

namespace aovhost {
namespace {

template <class T>
struct Slot {
    aov::Mutex mutex;
    std::shared_ptr<T> object AOV_GUARDED_BY(mutex);
};

// Never destroyed: the singletons' destructors reach the platform during process exit.
template <class T>
Slot<T>& slotOf() {
    static Slot<T>* slot = new Slot<T>;
    return *slot;
}

}  // namespace

template <class T>
std::shared_ptr<T> exchangeBinding(std::shared_ptr<T> object) {
    Slot<T>& slot = slotOf<T>();
    aov::MutexLock guard(slot.mutex);
    slot.object.swap(object);
    return object;
}

template <class T>
std::shared_ptr<T> boundObject() {
    Slot<T>& slot = slotOf<T>();
    aov::MutexLock guard(slot.mutex);
    return slot.object;
}

#define AOVHOST_BINDABLE(T)                                             \
    template std::shared_ptr<T> exchangeBinding<T>(std::shared_ptr<T>); \
    template std::shared_ptr<T> boundObject<T>();

AOVHOST_BINDABLE(NSCam::IHalSensorList)
AOVHOST_BINDABLE(IAOVCustom)
AOVHOST_BINDABLE(NSCam::camsys::camcoordinator::ICamCoordinator)
AOVHOST_BINDABLE(NSCam::camsys::pipemgr::isp7::IPipeMgr)
AOVHOST_BINDABLE(CamCoordinatorSource)
AOVHOST_BINDABLE(DebugPrintSink)

}  // namespace aovhost
