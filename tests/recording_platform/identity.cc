// The process's identity and the system's log: a program that has these functions has them in the
// place of the C library's, for the libraries that it uses, too.
//
// Without <syslog.h>, which may have a syslog() of its own for calls that are checked.
#include <unistd.h>

#include <cstdarg>
#include <deque>
#include <string>

#include <fmt/format.h>

#include "recording_platform/printf_text.h"
#include "recording_platform/world.h"

using recording::TheWorld;

namespace {

// The next of what is scripted, else `otherwise`.
template <typename Value>
Value Take(std::deque<Value>& script, Value otherwise) {
  if (script.empty()) {
    return otherwise;
  }
  const Value value = script.front();
  script.pop_front();
  return value;
}

int SetId(unsigned int& id, unsigned int effective) {
  const int result = Take(TheWorld().next_identity_results, 0);
  if (result == 0 && effective != static_cast<unsigned int>(-1)) {
    id = effective;
  }
  return result;
}

std::string Ids(unsigned int real, unsigned int effective, unsigned int saved) {
  return fmt::format("({}, {}, {})", static_cast<int>(real), static_cast<int>(effective),
                     static_cast<int>(saved));
}

void Log(int priority, const char* format, va_list arguments) {
  TheWorld().SystemLog({priority, format, recording::PrintfText(format, arguments)});
}

}  // namespace

extern "C" {

uid_t geteuid() noexcept {
  TheWorld().Note("geteuid()");
  return Take(TheWorld().next_euids, TheWorld().euid);
}

gid_t getegid() noexcept {
  TheWorld().Note("getegid()");
  return Take(TheWorld().next_egids, TheWorld().egid);
}

int setresuid(uid_t real, uid_t effective, uid_t saved) noexcept {
  TheWorld().Note("setresuid" + Ids(real, effective, saved));
  return SetId(TheWorld().euid, effective);
}

int setresgid(gid_t real, gid_t effective, gid_t saved) noexcept {
  TheWorld().Note("setresgid" + Ids(real, effective, saved));
  return SetId(TheWorld().egid, effective);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log(priority, format, arguments);
  va_end(arguments);
}

// What syslog() becomes where calls are checked.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's name
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
