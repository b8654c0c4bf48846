#pragma once

#include <optional>
#include <string>

#include <velamailserver/account/maildir.h>

namespace velamailserver::account {

/// A mail directory whose owner is a uid without a user.
class NoOwnerMaildir : public BaseMaildir {
 public:
  /// The bytes of all regular files in it, as the last recount found them; absent when it was never
  /// counted. Its removal frees as much.
  std::optional<unsigned long long> usage;
  /// What its account was called: "ACCOUNT", or "ACCOUNT@DOMAIN" in another than the default
  /// domain. Absent without the flag.
  std::optional<std::string> name;

  /// Looks at the directory at an absolute path. Needs root.
  ///
  /// The flag is set only for a real directory exactly two levels below the maildir root, without a
  /// link on the way, that looks like a maildir (or like what a removal that was cut short left of
  /// one) and whose uid is nobody's: not in the users file, and unknown to the name service. A uid
  /// whose owner cannot be found out is somebody's. Never throws for what the disk, the account
  /// database or the cache answer. Safe for use from several threads.
  explicit NoOwnerMaildir(const std::string& directory);

  /// Counts the bytes of all regular files in the directory, each once however many names it has,
  /// and stores the sum in the cache. Needs root. What is cached about a directory that is gone, or
  /// that is no longer an ownerless maildir, is dropped, as is what is cached about others like it.
  /// Throws `LogException` when the directory cannot be read (`ERR_SDK_FILE_ENUM_DIR`,
  /// `ERR_LSTAT_FILE`) or the cache cannot be written.
  void RefreshCache();
};

}  // namespace velamailserver::account
