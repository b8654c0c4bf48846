#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace quillon::platform {

/// The number that the whole text spells in decimal digits only; nothing for any other text and for
/// a number that `Number` cannot hold.
template <typename Number>
std::optional<Number> ParseDecimal(std::string_view text) {
  Number number = 0;
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const auto [rest, error] = std::from_chars(begin, end, number);
  if (error != std::errc() || rest != end) {
    return std::nullopt;
  }
  return number;
}

}  // namespace quillon::platform
