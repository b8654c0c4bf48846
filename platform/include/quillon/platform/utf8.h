#pragma once

#include <algorithm>
#include <cstddef>
#include <cwchar>
#include <locale>
#include <string_view>

namespace quillon::platform {

/// Whether `text` is well-formed UTF-8. Safe for use from several threads.
inline bool IsUtf8(std::string_view text) {
  using Decoder = std::codecvt<char32_t, char, std::mbstate_t>;
  const auto& decoder = std::use_facet<Decoder>(std::locale::classic());
  std::mbstate_t state{};
  const int length = decoder.length(state, text.data(), text.data() + text.size(), text.size());
  // The decoder takes halves of surrogate pairs, which UTF-8 has not: "\xed" begins them, and that
  // is never a byte within a character.
  const auto* const half =
      std::adjacent_find(text.begin(), text.end(), [](char first, char second) {
        return first == '\xed' && static_cast<unsigned char>(second) >= 0xa0;
      });
  return static_cast<std::size_t>(length) == text.size() && half == text.end();
}

}  // namespace quillon::platform
