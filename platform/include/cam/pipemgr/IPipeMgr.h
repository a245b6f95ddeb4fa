#pragma once

#include <cstdint>
#include <memory>

namespace NSCam {
namespace camsys {
namespace pipemgr {
namespace isp7 {

enum class PipeMgrMode : int32_t {
    Normal = 0,
    AlwaysOn = 1,
};

// A sensor pipe: streams one camera's sensor into the ISP.
class ISensorPipe {
  public:
    virtual uint32_t getPipeId() = 0;
    // mode 1: normal streaming, 2: test-model streaming.
    virtual int startPipe(int mode) = 0;
    virtual int stopPipe(int mode) = 0;
    virtual ~ISensorPipe() = default;
};

class ISensorPipeFactory {
  public:
    virtual std::shared_ptr<ISensorPipe> createPipe(uint32_t cameraId, int32_t pipeType,
                                                    int32_t sharedPipeId, int32_t flags) = 0;
    virtual int destroyPipe(uint32_t pipeId, int32_t pipeType) = 0;
    virtual ~ISensorPipeFactory() = default;
};

class IPipeMgr {
  public:
    static std::shared_ptr<IPipeMgr> getInstance(PipeMgrMode mode);

    // Drops what the manager keeps for the caller; called before the caller lets go.
    virtual int uninit() = 0;
    virtual std::shared_ptr<ISensorPipeFactory> getSensorPipeFactory() = 0;
    virtual ~IPipeMgr() = default;
};

}  // namespace isp7
}  // namespace pipemgr
}  // namespace camsys
}  // namespace NSCam
