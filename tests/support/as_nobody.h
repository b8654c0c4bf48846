#pragma once

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace quillon::test {

/// While it lives, the process has the effective uid of a user without rights. Needs root.
class AsNobody {
 public:
  static constexpr uid_t kUid = 65534;

  AsNobody() {
    if (::seteuid(kUid) != 0) {
      throw std::system_error(errno, std::generic_category(), "seteuid");
    }
  }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;
  ~AsNobody() {
    if (::seteuid(0) == 0) {
      ::prctl(PR_SET_DUMPABLE, 1);  // lost with the uid, and the leak check needs it
    }
  }
};

}  // namespace quillon::test
