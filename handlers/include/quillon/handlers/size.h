#pragma once

#include <string>

namespace quillon::handlers {

/// The bytes of a size: a whole number, followed by B, K, M or G (powers of 1024) or nothing.
/// Throws `std::invalid_argument` that says what is wrong with any other text and with more than 64
/// bits.
unsigned long long ParseSize(const std::string& text);

/// A size for people: "0B", "10G", "1.5M". A decimal is shown unless the size is a whole number of
/// the largest unit that it reaches.
std::string FormatSize(unsigned long long bytes);

}  // namespace quillon::handlers
