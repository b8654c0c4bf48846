#include "utils/random_bytes.h"

#include <sys/random.h>
#include <sys/types.h>

#include <cerrno>
#include <system_error>

namespace quillon::platform {

std::string RandomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t filled = 0; filled < count;) {
    const ssize_t got = ::getrandom(bytes.data() + filled, count - filled, 0);
    if (got < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "no random bytes");
    }
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    }
  }
  return bytes;
}

}  // namespace quillon::platform
