#include "size.h"

#include <algorithm>
#include <limits>

unsigned long long TotalUsage(const Json::Value& entries) {
  constexpr auto kLargest = std::numeric_limits<unsigned long long>::max();
  unsigned long long total = 0;
  for (const Json::Value& entry : entries) {
    total += std::min<unsigned long long>(entry["usage"].asUInt64(), kLargest - total);
  }
  return total;
}
