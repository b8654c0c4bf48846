#pragma once

#include <vector>

#include <json/value.h>

#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/velasdk/vela_user.h>
#include <velamailserver/visibility.h>

namespace velamailserver::webapi {

/// Mailbox quota and usage of users. An object is made for one use, by one thread at a time; it
/// keeps nothing between calls beyond what its base keeps. Failures of its own are `LogException`s;
/// whatever the quota store, the usage store and the account database throw passes through
/// unchanged.
class VELAMAILSERVER_EXPORT User : public account::MailboxQuota {
 public:
  User();

  /// Sets the limit and the warning level of every user, both in bytes. Throws `LogException` with
  /// `ERR_INTERNAL`, before anything is written, when `warning` is larger than `limit`. The limit
  /// is written first: when writing the warning fails, the new limit stays beside the old warning.
  void SetQuota(const std::vector<velasdk::VelaUser>& users, unsigned long long limit,
                unsigned long long warning);

  /// Removes the limit and the warning level of every user, the limit first.
  void ClearQuota(const std::vector<velasdk::VelaUser>& users);

  /// Adds three figures, in bytes, to every member of `list`, an array of objects with a "name":
  ///   "quota"                         the user's limit
  ///   "remaining_usage_notification"  the limit less the warning level
  ///   "usage"                         the mail that the user stores
  /// A figure that is not there (no limit, no warning level, no entry in the usage store) is a
  /// signed 0; one that is there is an unsigned 64-bit number, even if it is 0.
  ///
  /// A name whose lookup fails with a `LogException`, for whatever reason, is logged and not asked
  /// about: it gets zeros, unless another member's user has the same name in another letter case.
  /// Limits and warnings are found in any letter case of the name, the usage by the name exactly as
  /// given.
  ///
  /// Throws `LogException` with `ERR_INTERNAL` at the first member whose stored warning level is
  /// larger than its limit; what was written up to there stays. A member that is no object, and a
  /// "name" that is no text, throw the JSON library's `Json::LogicError` before anything is
  /// written.
  void UpdateQuotaUsage(Json::Value& list);
};

}  // namespace velamailserver::webapi
