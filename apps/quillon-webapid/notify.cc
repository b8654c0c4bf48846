#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <quillon/platform/file_descriptor.h>

namespace quillon::webapid {

void Notify(const std::string& state) {
  const char* const path = ::secure_getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (path == nullptr || (path[0] != '/' && path[0] != '@') ||
      std::strlen(path) >= sizeof(address.sun_path)) {
    return;
  }
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path);
  if (path[0] == '@') {
    address.sun_path[0] = '\0';  // not in the file system
  }
  const platform::FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  static_cast<void>(
      ::sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path))));
}

std::chrono::milliseconds WatchdogInterval() {
  const char* const text = ::secure_getenv("WATCHDOG_USEC");
  long long microseconds = 0;
  if (text == nullptr ||
      std::from_chars(text, text + std::strlen(text), microseconds).ec != std::errc()) {
    return std::chrono::milliseconds(0);
  }
  return std::chrono::milliseconds(microseconds / 1000 / 2);
}

}  // namespace quillon::webapid
