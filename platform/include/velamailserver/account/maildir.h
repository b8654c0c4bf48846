#pragma once

#include <cstdint>
#include <string>

namespace velamailserver::account {

/// A mail directory as it was found on disk. A plain value that nothing keeps up to date.
class BaseMaildir {
 public:
  std::uint32_t uid = 0;  ///< whom it belongs to
  std::string path;       ///< absolute path of the directory; empty when there can be none
  bool flag = false;      ///< whether a mail directory was found at the path
  std::string account;    ///< name of the account that it belongs to; empty when that is nobody

  /// Removes the directory with everything in it, and what is cached about it. Needs root. Answers
  /// whether it is gone; the mail log has the reason when it is not, and the record stays as it is.
  ///
  /// Nothing is removed when the flag is not set, and when the directory at the path is not, or no
  /// longer, a mail directory that belongs to whom the record says. Of a directory that was
  /// found to be nobody's it is asked again whether its uid is nobody's, past everything that
  /// remembers an earlier answer: a uid whose owner cannot be found out is not. Follows no link and
  /// enters nothing that is mounted, the directory itself included. What cannot be removed does not
  /// keep the rest from going; the directory stays recognisable as a mail directory as long as
  /// anything is left in it.
  bool Delete() const;
};

/// The mail directory of a user.
class Maildir : public BaseMaildir {
 public:
  /// Looks up the directory of the user with this uid. The flag is set only for a real directory,
  /// not a link, that looks like a maildir, or like what a removal that was cut short has left of
  /// one. Throws `LogException`: with `ERR_SDK_USER_GET_BY_UID` when no user has the uid, with
  /// `ERR_LSTAT_FILE` or `ERR_SDK_FILE_ENUM_DIR` when the disk cannot tell: a directory cannot be
  /// looked into, or there is no maildir root. Safe for use from several threads.
  explicit Maildir(unsigned int user_id);
};

}  // namespace velamailserver::account
