#pragma once

namespace quillon::platform {

/// A letter A to Z in lower case, every other byte as it is, whatever the locale.
inline char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace quillon::platform
