#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <system_error>

#include <quillon/handlers/size.h>
#include <velamailserver/utils/math.h>

namespace quillon::handlers {

namespace {

struct Unit {
  char letter;
  double factor;
};

const std::array<Unit, 4>& Units() {
  using velamailserver::utils::UnitFactor;
  static const std::array<Unit, 4> units = {{{'B', UnitFactor("B")},
                                             {'K', UnitFactor("K")},
                                             {'M', UnitFactor("M")},
                                             {'G', UnitFactor("G")}}};
  return units;
}

// The factor of a unit letter, 0 for a letter that is no unit.
unsigned long long FactorOf(char letter) {
  for (const Unit& unit : Units()) {
    if (unit.letter == letter) {
      return static_cast<unsigned long long>(unit.factor);
    }
  }
  return 0;
}

}  // namespace

unsigned long long ParseSize(const std::string& text) {
  unsigned long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const unsigned long long factor = rest == end ? 1 : rest + 1 == end ? FactorOf(*rest) : 0;
  if (error == std::errc::invalid_argument || factor == 0) {
    throw std::invalid_argument("[" + text +
                                "] is not a size: a whole number, then B, K, M, G or nothing");
  }
  if (error == std::errc::result_out_of_range ||
      number > std::numeric_limits<unsigned long long>::max() / factor) {
    throw std::invalid_argument("[" + text + "] is too large, a size has at most " +
                                std::to_string(std::numeric_limits<unsigned long long>::max()) +
                                " bytes");
  }
  return number * factor;
}

std::string FormatSize(unsigned long long bytes) {
  constexpr double kStep = 1024;
  double amount = 0;
  char letter = 0;
  for (const Unit& unit : Units()) {
    amount = static_cast<double>(bytes) / unit.factor;
    letter = unit.letter;
    // What would be rounded up to 1024.0 is one of the next unit.
    if (std::round(amount * 10) < kStep * 10) {
      break;
    }
  }
  std::array<char, 32> digits{};
  const int decimals = amount == std::floor(amount) ? 0 : 1;
  const auto end =
      std::to_chars(digits.begin(), digits.end(), amount, std::chars_format::fixed, decimals);
  return std::string(digits.begin(), end.ptr) + letter;
}

}  // namespace quillon::handlers
