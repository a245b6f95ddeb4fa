#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace Properties {

// Reads an integer system property. The value is parsed as a base-0 integer
// (decimal, 0x-hex or 0-octal, leading sign allowed); `defaultValue` is returned
// when the property is absent, empty, not a number or outside the int32 range.
int32_t property_get_int32(const char* name, int32_t defaultValue);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
