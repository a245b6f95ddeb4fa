// The platform's static entry points on the host: what is bound, or else an
// empty platform that has no sensors and refuses every bring-up step.

#include "aovhost/Binding.h"

namespace {

using namespace NSCam::camsys;

class EmptySensorList final : public NSCam::IHalSensorList {
  public:
    int32_t queryNumberOfSensors() const override { return 0; }
    int32_t queryFacingDirection(int32_t) const override { return 0; }
    int32_t querySensorDevIdx(int32_t) const override { return 0; }
    void querySensorStaticInfo(uint32_t, NSCam::SensorStaticInfo*) const override {}
    uint32_t searchSensors() override { return 0; }
    NSCam::IHalSensor* openSensorDevice(const char*, uint32_t) override { return nullptr; }
    int32_t querySensorId(uint32_t) const override { return -1; }
};

class EmptyCustom final : public IAOVCustom {
  public:
    int queryDetectMode(int, int, unsigned int&) override { return -1; }
    int queryFrameInfo(int, int, int, uint32_t&, uint32_t&, uint32_t&, uint32_t&) override {
        return -1;
    }
};

class EmptyCoordinator final : public camcoordinator::CamCoordinatorImp {
  public:
    uint64_t createAgent(camcoordinator::AgentParams&) override { return 0; }
    void destroyAgent(uint64_t) override {}

  protected:
    std::shared_ptr<camcoordinator::ICamAgent> lookupAgent(unsigned long) override { return {}; }
};

class EmptyPipeFactory final : public pipemgr::isp7::ISensorPipeFactory {
  public:
    std::shared_ptr<pipemgr::isp7::ISensorPipe> createPipe(uint32_t, int32_t, int32_t,
                                                           int32_t) override {
        return {};
    }
    int destroyPipe(uint32_t, int32_t) override { return -1; }
};

class EmptyPipeMgr final : public pipemgr::isp7::IPipeMgr {
  public:
    int uninit() override { return 0; }
    std::shared_ptr<pipemgr::isp7::ISensorPipeFactory> getSensorPipeFactory() override {
        return factory_;
    }

  private:
    std::shared_ptr<EmptyPipeFactory> factory_ = std::make_shared<EmptyPipeFactory>();
};

}  // namespace

NSCam::IHalSensorList* NSCam::IHalSensorList::get() {
    static EmptySensorList empty;
    // The binder keeps the bound list alive while it is bound.
    std::shared_ptr<IHalSensorList> bound = aovhost::boundObject<IHalSensorList>();
    return bound ? bound.get() : &empty;
}

IAOVCustom* IAOVCustom::getInstance() {
    static EmptyCustom empty;
    std::shared_ptr<IAOVCustom> bound = aovhost::boundObject<IAOVCustom>();
    return bound ? bound.get() : &empty;
}

std::shared_ptr<camcoordinator::ICamCoordinator> camcoordinator::ICamCoordinator::getInstance() {
    static const std::shared_ptr<ICamCoordinator> empty = std::make_shared<EmptyCoordinator>();
    if (auto source = aovhost::boundObject<aovhost::CamCoordinatorSource>()) {
        return source->getInstance();
    }
    std::shared_ptr<ICamCoordinator> bound = aovhost::boundObject<ICamCoordinator>();
    return bound ? bound : empty;
}

camcoordinator::CamCoordinatorImp::~CamCoordinatorImp() = default;

std::shared_ptr<camcoordinator::CamCoordinatorImp> camcoordinator::CamCoordinatorImp::castFrom(
    std::shared_ptr<ICamCoordinator> coordinator) {
    return std::dynamic_pointer_cast<CamCoordinatorImp>(std::move(coordinator));
}

std::shared_ptr<pipemgr::isp7::IPipeMgr> pipemgr::isp7::IPipeMgr::getInstance(PipeMgrMode) {
    std::shared_ptr<IPipeMgr> bound = aovhost::boundObject<IPipeMgr>();
    return bound ? bound : std::make_shared<EmptyPipeMgr>();
}
