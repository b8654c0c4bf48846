#pragma once

#include <map>
#include <string>

#include <velamailserver/log_exception.h>

namespace velamailserver::utils {

/// Number of bytes in one `unit`, which is exactly one of "B", "K", "M" and "G" (powers of 1024).
/// Dividing two factors converts between their units. Throws `LogException` with `ERR_INTERNAL` for
/// any other text, lower-case letters included. Safe for use from several threads.
inline double UnitFactor(const std::string& unit) {
  constexpr char kSourceFile[] = "include/velamailserver/utils/math";
  constexpr int kUnknownUnitLine = 29;

  static const std::map<std::string, double> factors = {
      {"B", 1.0}, {"K", 1024.0}, {"M", 1048576.0}, {"G", 1073741824.0}};
  const auto found = factors.find(unit);
  if (found == factors.end()) {
    throw LogException(ERR_INTERNAL, "error unit: " + unit, 3, kSourceFile, kUnknownUnitLine);
  }
  return found->second;
}

}  // namespace velamailserver::utils
