#pragma once

#include <string>
#include <string_view>

namespace quillon::platform {

/// The beginning of a text that may be of any length, for a message.
inline std::string Excerpt(std::string_view text) {
  constexpr std::size_t kMostBytes = 40;
  return std::string(text.substr(0, kMostBytes)) + (text.size() > kMostBytes ? "..." : "");
}

}  // namespace quillon::platform
