#pragma once

#include <cstdint>

// Customisation of the AOV feature: which detection mode and frame layout a
// sensor size wants. Implemented by the product's customisation library.
class IAOVCustom {
  public:
    static IAOVCustom* getInstance();

    // Detection mode for a sensor size; negative on failure.
    virtual int queryDetectMode(int width, int height, unsigned int& mode) = 0;
    // Four frame-layout words for a size and selector; negative on failure.
    virtual int queryFrameInfo(int width, int height, int selector, uint32_t& info0,
                               uint32_t& info1, uint32_t& info2, uint32_t& info3) = 0;

    virtual ~IAOVCustom() = default;
};
