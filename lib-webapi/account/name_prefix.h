#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velamailserver::webapi {

/// The first eight bytes of a name as a number of the same order. Names whose prefixes differ are
/// sorted without touching the names themselves, which lie all over the memory.
inline std::uint64_t PrefixOf(std::string_view name) {
  std::uint64_t prefix = 0;
  for (std::size_t i = 0; i < sizeof(prefix); ++i) {
    prefix = prefix << 8U | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0U);
  }
  return prefix;
}

}  // namespace velamailserver::webapi
