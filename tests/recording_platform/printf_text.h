#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace recording {

/// The text that printf() makes of a format and its arguments.
inline std::string PrintfText(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, again)), '\0');
  va_end(again);
  static_cast<void>(std::vsnprintf(text.data(), text.size() + 1, format, arguments));
  return text;
}

}  // namespace recording
