#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/printable.h>
#include <velamailserver/maillog.h>

#include "conf/find_configuration.h"
#include "utils/file_descriptor.h"

namespace quillon::platform {

namespace {

constexpr std::size_t kLongestRecord = 8192;  // bytes, before escaping
constexpr char kCutMark[] = " [cut]";

std::string Format(const char* format, va_list arguments) {
  std::array<char, kLongestRecord + 1> text{};
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  if (length < 0) {
    return Printable(format);
  }
  return Printable(text.data()) +
         (static_cast<std::size_t>(length) > kLongestRecord ? kCutMark : "");
}

const char* PriorityName(int priority) {
  constexpr std::array kNames = {"emerg",   "alert",  "crit", "err",
                                 "warning", "notice", "info", "debug"};
  return kNames[static_cast<std::size_t>(LOG_PRI(priority))];
}

std::string Line(int priority, const std::string& text) {
  const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ} {}[{}] {}: {}\n", fmt::gmtime(now),
                     program_invocation_short_name, ::getpid(), PriorityName(priority), text);
}

// One system call for the whole line: lines of several processes do not mix.
bool WriteLine(int fd, const std::string& line) {
  return ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

// Opened for every record, so that the log may be renamed and replaced at any time.
bool WriteToFile(const std::string& path, const std::string& line) {
  const FileDescriptor file(
      ::open(path.c_str(),
             O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0640));
  return file.IsOpen() && WriteLine(file.Get(), line);
}

bool WriteToConfiguredTarget(int priority, const std::string& text) {
  const auto configuration = FindConfiguration();
  const Configuration::Log& log = configuration->log;
  if (log.target == "file") {
    return WriteToFile(log.file, Line(priority, text));
  }
  return log.target == "stderr" && WriteLine(STDERR_FILENO, Line(priority, text));
}

void Write(int priority, const std::string& text) {
  bool is_written = false;
  try {
    is_written = WriteToConfiguredTarget(priority, text);
  } catch (const ConfigurationError&) {
    // Whoever needs the configuration reports it.
  }
  if (!is_written) {
    ::syslog(LOG_MAIL | LOG_PRI(priority), "%s", text.c_str());
  }
}

}  // namespace

}  // namespace quillon::platform

void maillog(int priority, const char* format, ...) {
  const int saved_errno = errno;
  va_list arguments;
  va_start(arguments, format);
  try {
    quillon::platform::Write(priority, quillon::platform::Format(format, arguments));
  } catch (const std::exception&) {
    // Out of memory: a record is lost, its writer goes on.
  }
  va_end(arguments);
  errno = saved_errno;
}
