#pragma once

#include <cstdio>

#include <velamailserver/maillog.h>

namespace velamailserver {

/// Writes a log line that names its origin, in two steps: "FILE:LINE MESSAGE" first, in a buffer of
/// 2048 bytes and cut there, then that buffer as the format of the message's own arguments.
template <typename... Args>
void LogWithOrigin(int priority, const char* file, int line, const char* message, Args... args) {
  char format[2048] = {};
  static_cast<void>(std::snprintf(format, sizeof(format), "%s:%d %s", file, line, message));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  maillog(priority, format, args...);
#pragma GCC diagnostic pop
}

}  // namespace velamailserver
