#pragma once

#include <string>
#include <vector>

// All of these are safe for use from several threads.

namespace velamailserver::utils {

/// The number that `text` spells in decimal digits only, of which there is at least one. Anything
/// else (a sign, a blank, a value above 18446744073709551615) throws `LogException` with
/// `ERR_INTERNAL`.
unsigned long long ToULL(const std::string& text);

/// `text` with the letters A to Z in lower case and every other byte as it was, whatever the
/// locale.
std::string ToLowerCase(const std::string& text);

}  // namespace velamailserver::utils

namespace velamailserver {

/// The items with `separator` between them; empty for no items.
std::string Join(const std::vector<std::string>& items, const std::string& separator);

}  // namespace velamailserver
