#include <algorithm>
#include <charconv>
#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

namespace velamailserver {

namespace utils {

namespace {

constexpr char kSourceFile[] = "platform/linux/utils/text";
constexpr int kNotANumberLine = 21;

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

unsigned long long ToULL(const std::string& text) {
  unsigned long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) {
    throw LogException(ERR_INTERNAL, "not a decimal number of 64 bits: [" + text + "]", 3,
                       kSourceFile, kNotANumberLine);
  }
  return number;
}

std::string ToLowerCase(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), LowerCase);
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
