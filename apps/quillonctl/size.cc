#include "size.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

unsigned long long TotalUsage(const Json::Value& entries) {
  constexpr auto kLargest = std::numeric_limits<unsigned long long>::max();
  unsigned long long total = 0;
  for (const Json::Value& entry : entries) {
    total += std::min<unsigned long long>(entry["usage"].asUInt64(), kLargest - total);
  }
  return total;
}

std::string SizeCell(const Json::Value& bytes, bool in_bytes) {
  if (bytes.isNull()) {
    return "-";
  }
  return in_bytes ? fmt::to_string(bytes.asUInt64()) : FormatSize(bytes.asUInt64());
}

std::string StoredLimitCell(const Json::Value& limit, bool in_bytes) {
  const bool is_unlimited = !limit.isNull() && limit.asUInt64() == 0;
  return is_unlimited ? "unlimited" : SizeCell(limit, in_bytes);
}
