#include <cstdarg>
#include <string>

#include <velamailserver/maillog.h>

#include "recording_platform/printf_text.h"
#include "recording_platform/world.h"

extern "C" void maillog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = recording::PrintfText(format, arguments);
  va_end(arguments);
  recording::TheWorld().Log({priority, format, text});
}
