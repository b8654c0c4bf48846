#pragma once

#include <cstddef>

namespace quillon::platform {

/// What a synchronisation of the mail users changes: numbers of users.
struct MailUserChanges {
  std::size_t added = 0;      ///< who are new
  std::size_t changed = 0;    ///< whose name, primary group, mail directory or groups are others
  std::size_t removed = 0;    ///< who are gone
  std::size_t unchanged = 0;  ///< the others

  /// Whether nothing changes.
  bool IsNone() const { return added == 0 && changed == 0 && removed == 0; }
};

/// Has the quota store know the mail users that there are now, and their groups: what a mail server
/// reads from it, the effective limit included, is right until accounts or memberships change
/// again. Changes of limits need none of this. Nothing is written when nothing changed, or in a dry
/// run. Left out, with a line in the mail log, is who cannot have a mail directory, whose name is
/// no UTF-8, and of several accounts with one name all but the one that the name finds. Safe for
/// use from several threads and programs; the last one wins.
///
/// Throws `LogException`: `ERR_SDK_USER_ENUM` when the accounts cannot be listed, which includes a
/// line of an accounts file that does not parse, `ERR_SDK_GROUP_LIST_MEMBER` when somebody's groups
/// cannot be, and those of the quota store. Nothing has changed then.
MailUserChanges SyncMailUsers(bool is_dry_run);

}  // namespace quillon::platform
