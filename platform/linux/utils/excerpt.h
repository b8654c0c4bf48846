#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillon::platform {

/// The beginning of a text that may be of any length, for a message.
inline std::string Excerpt(std::string_view text, std::size_t most_bytes = 40) {
  return std::string(text.substr(0, most_bytes)) + (text.size() > most_bytes ? "..." : "");
}

}  // namespace quillon::platform
