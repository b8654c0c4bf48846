#pragma once

#include <memory>
#include <vector>

#include <velamailserver/account/quota_record.h>
#include <velamailserver/velasdk/vela_group.h>
#include <velamailserver/velasdk/vela_user.h>

namespace velamailserver::account {

/// The quota store: a limit and a warning level in bytes for each user and each group that has one,
/// kept by uid and gid.
///
/// An implementation owes, for every operation: one transaction over the whole batch, all of it or
/// none of it; any number of subjects, none and repeated ones included; `LogException` on failure.
/// The constructor does not fail for a store that cannot be reached; the first operation that needs
/// the store does. One object is used by one thread at a time; objects of several threads and
/// processes may use one store.
class MailboxQuota {
 public:
  MailboxQuota();
  MailboxQuota(const MailboxQuota&) = delete;
  MailboxQuota& operator=(const MailboxQuota&) = delete;
  ~MailboxQuota();

  ///@{
  /// Stores `bytes` for each subject, in place of an earlier value. 0 is a value like any other: it
  /// means unlimited, which is not the same as having no limit of one's own.
  void SetUserQuotaLimit(const std::vector<velasdk::VelaUser>& users, unsigned long long bytes);
  void SetUserQuotaWarning(const std::vector<velasdk::VelaUser>& users, unsigned long long bytes);
  void SetGroupQuotaLimit(const std::vector<velasdk::VelaGroup>& groups, unsigned long long bytes);
  void SetGroupQuotaWarning(const std::vector<velasdk::VelaGroup>& groups,
                            unsigned long long bytes);
  ///@}

  ///@{
  /// Removes each subject's value; a subject without one is no failure.
  void ClearUserQuotaLimit(const std::vector<velasdk::VelaUser>& users);
  void ClearUserQuotaWarning(const std::vector<velasdk::VelaUser>& users);
  void ClearGroupQuotaLimit(const std::vector<velasdk::VelaGroup>& groups);
  void ClearGroupQuotaWarning(const std::vector<velasdk::VelaGroup>& groups);
  ///@}

  ///@{
  /// One valid record per subject that has the value, in ascending order of id.
  std::vector<UserRecord> ListUserQuotaLimit(const std::vector<velasdk::VelaUser>& users);
  std::vector<UserRecord> ListUserQuotaWarning(const std::vector<velasdk::VelaUser>& users);
  std::vector<GroupRecord> ListGroupQuotaLimit(const std::vector<velasdk::VelaGroup>& groups);
  std::vector<GroupRecord> ListGroupQuotaWarning(const std::vector<velasdk::VelaGroup>& groups);
  ///@}

 private:
  class Store;  // the implementation's own
  std::unique_ptr<Store> store_;
};

}  // namespace velamailserver::account
