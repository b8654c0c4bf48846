#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <soci/soci.h>

#include <quillon/platform/mail_users.h>

#include "quota/quota_dialect.h"

namespace quillon::platform {

/// A user as mail servers find it in the quota store.
struct MailUser {
  std::uint32_t uid = 0;
  std::string name;
  std::uint32_t gid = 0;
  std::string home;                   ///< absolute path of the mail directory
  std::vector<std::uint32_t> groups;  ///< gids in ascending order, each once

  bool operator==(const MailUser&) const = default;
};

/// What makes the store's mail users those of a list. May throw `soci::soci_error`.
class MailUserUpdate {
 public:
  /// Compares the list, which is in ascending order of uids, with the store.
  MailUserUpdate(soci::session& session, std::vector<MailUser> wanted);

  const MailUserChanges& changes() const { return changes_; }

  /// Makes the changes, in the transaction that the comparison was in, too.
  void Write(soci::session& session, const QuotaDialect& dialect) const;

 private:
  const std::vector<MailUser> wanted_;
  MailUserChanges changes_;
  std::vector<std::uint32_t> outdated_;  // in the store: who is changed or removed
  std::vector<const MailUser*> news_;    // in the list: who is added or changed
};

}  // namespace quillon::platform
