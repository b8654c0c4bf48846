#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <system_error>

namespace recording {

/// The number that `text` spells in decimal digits only.
inline std::optional<unsigned long long> ParseDecimal(const std::string& text) {
  unsigned long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) {
    return std::nullopt;
  }
  return number;
}

}  // namespace recording
