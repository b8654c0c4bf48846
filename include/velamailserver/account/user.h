#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/account/maildir.h>
#include <velamailserver/velasdk/vela_user.h>
#include <velamailserver/visibility.h>

namespace velamailserver::webapi {

/// What is to know about one user besides the report. A plain value.
struct MoreInfo {
  /// Whether the user may use the mail client, "VELA.WUI.MailClient.Application".
  bool has_app_privilege = true;
  std::optional<account::Maildir> maildir;  ///< absent when none was found
  /// What the platform lets the user store in the shared folder that holds the mail, in bytes;
  /// absent when that is without a limit.
  std::optional<unsigned long long> share_quota;
  /// The limit in bytes that applies to the mailbox, 0 for none; always present.
  std::optional<unsigned long long> quota_limit;
  /// Bytes of stored mail, as the usage store has them; absent when it has no entry.
  std::optional<unsigned long long> usage;
  std::string name;  ///< the real name
};

/// Mailbox quota, usage and storage of users. An object is made for one use, by one thread at a
/// time; it keeps nothing between calls beyond what its base keeps. Failures of its own are
/// `LogException`s; whatever the quota store, the usage store and the account database throw passes
/// through unchanged.
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
  /// "name" that is an array or an object, throw the JSON library's `Json::LogicError` before
  /// anything is written; numbers and booleans are read as text.
  void UpdateQuotaUsage(Json::Value& list);

  /// What is to know about each of `users`, in their order; about all users that have mail service
  /// when there are none. Nothing is caught: when one lookup fails, there is no answer about
  /// anybody.
  std::vector<MoreInfo> MoreInfos(const std::vector<velasdk::VelaUser>& users);

  /// Removes the mail directories of `users` for good and then, in one go, their entries in the
  /// usage store, both as root. A user without a mail directory is no failure.
  ///
  /// A directory that cannot be removed does not keep the others from going, and only the mail log
  /// tells: look again whoever needs to know. A lookup that fails does so before anything is
  /// removed. Throws `LogException` with `ERR_REDIS_DELETE_KEY`, its detail being the users' real
  /// names, when the usage store fails: the mail is gone then, and a second call finishes the job.
  void ClearStorage(const std::vector<velasdk::VelaUser>& users);
};

}  // namespace velamailserver::webapi
