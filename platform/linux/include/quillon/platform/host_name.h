#pragma once

#include <unistd.h>

#include <array>
#include <string>

namespace quillon::platform {

/// What this host is called, "localhost" when it has no name.
inline std::string HostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data()
                                                                             : "localhost";
}

}  // namespace quillon::platform
