#pragma once

#include <limits>

namespace quillon::platform {

/// The sum, or the largest number when it is beyond that.
inline unsigned long long SaturatingAdd(unsigned long long a, unsigned long long b) {
  constexpr auto kMost = std::numeric_limits<unsigned long long>::max();
  return b <= kMost - a ? a + b : kMost;
}

}  // namespace quillon::platform
