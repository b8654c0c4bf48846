#include <cstdarg>
#include <cstdio>
#include <string>

#include <velamailserver/maillog.h>

#include "recording_platform/world.h"

namespace {

std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, again)), '\0');
  va_end(again);
  static_cast<void>(std::vsnprintf(text.data(), text.size() + 1, format, arguments));
  return text;
}

}  // namespace

extern "C" void maillog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Format(format, arguments);
  va_end(arguments);
  recording::TheWorld().Log({priority, format, text});
}
