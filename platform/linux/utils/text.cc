#include <algorithm>

#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "utils/decimal.h"
#include "utils/letter_case.h"

namespace velamailserver {

namespace utils {

namespace {

constexpr char kSourceFile[] = "platform/linux/utils/text";
constexpr int kNotANumberLine = 21;

}  // namespace

unsigned long long ToULL(const std::string& text) {
  const auto number = quillon::platform::ParseDecimal<unsigned long long>(text);
  if (!number) {
    throw LogException(ERR_INTERNAL, "not a decimal number of 64 bits: [" + text + "]", 3,
                       kSourceFile, kNotANumberLine);
  }
  return *number;
}

std::string ToLowerCase(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), quillon::platform::LowerCase);
  return lower;
}

}  // namespace utils

std::string Join(const std::vector<std::string>& items, const std::string& separator) {
  std::string joined;
  for (const std::string& item : items) {
    if (&item != &items.front()) {
      joined += separator;
    }
    joined += item;
  }
  return joined;
}

}  // namespace velamailserver
