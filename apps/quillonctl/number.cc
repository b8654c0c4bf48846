#include "number.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

namespace {

template <typename Number>
std::optional<Number> ParseAll(const std::string& text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

}  // namespace

unsigned long long ParseWholeNumber(const std::string& text, unsigned long long most) {
  const auto number = ParseAll<unsigned long long>(text);
  if (!number || *number > most) {
    throw std::invalid_argument(fmt::format("[{}] is not a whole number from 0 to {}", text, most));
  }
  return *number;
}

double ParseNumber(const std::string& text) {
  const auto number = ParseAll<double>(text);
  if (!number || !std::isfinite(*number)) {
    throw std::invalid_argument(fmt::format("[{}] is not a number", text));
  }
  return *number;
}
