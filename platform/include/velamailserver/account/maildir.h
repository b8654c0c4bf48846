#pragma once

#include <cstdint>
#include <string>

namespace velamailserver::account {

/// A mail directory as it was found on disk. A plain value that nothing keeps up to date.
class BaseMaildir {
 public:
  std::uint32_t uid = 0;  ///< the user that it belongs to
  std::string path;       ///< absolute path of the directory; empty when there can be none
  bool flag = false;      ///< whether a mail directory was found at the path
};

/// The mail directory of a user.
class Maildir : public BaseMaildir {
 public:
  /// Looks up the directory of the user with this uid. The flag is set only for a real directory,
  /// not a link, that looks like a maildir. Throws `LogException`: with `ERR_SDK_USER_GET_BY_UID`
  /// when no user has the uid, with `ERR_LSTAT_FILE` when the disk cannot tell: a directory cannot
  /// be looked into, or there is no maildir root. Safe for use from several threads.
  explicit Maildir(unsigned int uid);
};

}  // namespace velamailserver::account
