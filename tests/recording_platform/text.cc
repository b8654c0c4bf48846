#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "recording_platform/decimal.h"
#include "recording_platform/world.h"

namespace velamailserver {

using recording::TheWorld;

namespace utils {

namespace {

constexpr char kSourceFile[] = "recording_platform/text";
constexpr int kNotANumberLine = 11;

}  // namespace

unsigned long long ToULL(const std::string& text) {
  TheWorld().Call(fmt::format("ToULL({})", text));
  const auto number = recording::ParseDecimal(text);
  if (!number) {
    throw LogException(ERR_INTERNAL, "not a number: " + text, 3, kSourceFile, kNotANumberLine);
  }
  return *number;
}

std::string ToLowerCase(const std::string& text) {
  TheWorld().Call(fmt::format("ToLowerCase({})", text));
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

}  // namespace utils

std::string Join(const std::vector<std::string>& items, const std::string& separator) {
  TheWorld().Call(fmt::format("Join([{}], \"{}\")", fmt::join(items, ", "), separator));
  return fmt::format("{}", fmt::join(items, separator));
}

}  // namespace velamailserver
