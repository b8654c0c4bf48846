#pragma once

#include <cstdint>
#include <string>

namespace velamailserver::account {

/// A mail directory as it was found on disk. A plain value that nothing keeps up to date.
class BaseMaildir {
 public:
  std::uint32_t uid = 0;  ///< the owner
  std::string path;       ///< absolute path of the directory
  bool flag = false;      ///< whether a mail directory was found at the path
};

/// The mail directory of a user.
class Maildir : public BaseMaildir {
 public:
  /// Looks up the directory of the user with this uid. The flag is set only for a real directory,
  /// not a link, that looks like a maildir. Throws `LogException` when no user has the uid.
  explicit Maildir(unsigned int uid);
};

}  // namespace velamailserver::account
