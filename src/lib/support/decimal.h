// Decimal texts to numbers, with the same result on 32-bit and 64-bit targets.
#ifndef CONF_SUPPORT_DECIMAL_H
#define CONF_SUPPORT_DECIMAL_H

#include "conf_def.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace support {

// Leading blanks and a sign are accepted, trailing characters ignored; no digits give 0. Beyond the
// range of an int the nearest int, so that a huge number never turns into a small valid one.
[[nodiscard]] inline int decimal_int(const char *text)
{
    const long long number = std::strtoll(text, nullptr, 10);
    return static_cast<int>(std::clamp<long long>(number, INT_MIN, INT_MAX));
}

// A message id: all 32 bits count, so that a reply echoes what the request carried.
[[nodiscard]] inline u32_t decimal_id(const char *text)
{
    return static_cast<u32_t>(std::strtoll(text, nullptr, 10));
}

} // namespace support

#endif
