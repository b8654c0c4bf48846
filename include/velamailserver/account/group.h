#pragma once

#include <vector>

#include <json/value.h>

#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/velasdk/vela_group.h>
#include <velamailserver/visibility.h>

namespace velamailserver::webapi {

/// Mailbox quota of groups. An object is made for one use, by one thread at a time; it keeps
/// nothing between calls beyond what its base keeps. Failures of its own are `LogException`s;
/// whatever the quota store and the account database throw passes through unchanged.
class VELAMAILSERVER_EXPORT Group : public account::MailboxQuota {
 public:
  Group();

  /// Sets the limit and the warning level of every group, both in bytes. Throws `LogException` with
  /// `ERR_INTERNAL`, before anything is written, when `warning` is larger than `limit`. The limit
  /// is written first: when writing the warning fails, the new limit stays beside the old warning.
  void SetQuota(const std::vector<velasdk::VelaGroup>& groups, unsigned long long limit,
                unsigned long long warning);

  /// Removes the limit and the warning level of every group, the limit first.
  void ClearQuota(const std::vector<velasdk::VelaGroup>& groups);

  /// Adds two figures, in bytes, to every member of `list`, an array of objects with a "name":
  ///   "quota"                         the group's limit
  ///   "remaining_usage_notification"  the limit less the warning level
  /// A figure that is not there (no limit, no warning level) is a signed 0; one that is there is an
  /// unsigned 64-bit number, even if it is 0. A name is that of a group in any letter case.
  ///
  /// Nothing is written when a name is no group's: what the lookup throws passes through. A member
  /// without a name has the empty one, which becomes a null "name" where that is a group's.
  ///
  /// Throws `LogException` with `ERR_INTERNAL` at the first member whose stored warning level is
  /// larger than its limit; what was written up to there stays. A member that is no object, and a
  /// "name" that is an array or an object, throw the JSON library's `Json::LogicError` before
  /// anything is written; numbers and booleans are read as text.
  void UpdateQuotaInfo(Json::Value& list);
};

}  // namespace velamailserver::webapi
