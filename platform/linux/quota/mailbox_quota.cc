#include <cstdint>

#include <velamailserver/account/mailbox_quota.h>

#include "quota/quota_database.h"

namespace velamailserver::account {

namespace {

using quillon::platform::kGroupLimitTable;
using quillon::platform::kGroupWarningTable;
using quillon::platform::kUserLimitTable;
using quillon::platform::kUserWarningTable;
using quillon::platform::QuotaDatabase;
using velasdk::VelaGroup;
using velasdk::VelaUser;

unsigned int IdOf(const VelaUser& user) { return user.Uid(); }
unsigned int IdOf(const VelaGroup& group) { return group.Gid(); }

template <typename Account>
std::vector<std::uint32_t> IdsOf(const std::vector<Account>& accounts) {
  std::vector<std::uint32_t> ids;
  ids.reserve(accounts.size());
  for (const Account& account : accounts) {
    ids.push_back(IdOf(account));
  }
  return ids;
}

template <typename Account>
std::vector<QuotaDatabase::Subject> SubjectsOf(const std::vector<Account>& accounts) {
  std::vector<QuotaDatabase::Subject> subjects;
  subjects.reserve(accounts.size());
  for (const Account& account : accounts) {
    subjects.push_back({IdOf(account), account.Name()});
  }
  return subjects;
}

}  // namespace

class MailboxQuota::Store : public QuotaDatabase {};

MailboxQuota::MailboxQuota() : store_(std::make_unique<Store>()) {}

MailboxQuota::~MailboxQuota() = default;

void MailboxQuota::SetUserQuotaLimit(const std::vector<VelaUser>& users, unsigned long long bytes) {
  store_->Set(kUserLimitTable, SubjectsOf(users), bytes);
}

void MailboxQuota::SetUserQuotaWarning(const std::vector<VelaUser>& users,
                                       unsigned long long bytes) {
  store_->Set(kUserWarningTable, SubjectsOf(users), bytes);
}

void MailboxQuota::SetGroupQuotaLimit(const std::vector<VelaGroup>& groups,
                                      unsigned long long bytes) {
  store_->Set(kGroupLimitTable, SubjectsOf(groups), bytes);
}

void MailboxQuota::SetGroupQuotaWarning(const std::vector<VelaGroup>& groups,
                                        unsigned long long bytes) {
  store_->Set(kGroupWarningTable, SubjectsOf(groups), bytes);
}

void MailboxQuota::ClearUserQuotaLimit(const std::vector<VelaUser>& users) {
  store_->Clear(kUserLimitTable, IdsOf(users));
}

void MailboxQuota::ClearUserQuotaWarning(const std::vector<VelaUser>& users) {
  store_->Clear(kUserWarningTable, IdsOf(users));
}

void MailboxQuota::ClearGroupQuotaLimit(const std::vector<VelaGroup>& groups) {
  store_->Clear(kGroupLimitTable, IdsOf(groups));
}

void MailboxQuota::ClearGroupQuotaWarning(const std::vector<VelaGroup>& groups) {
  store_->Clear(kGroupWarningTable, IdsOf(groups));
}

std::vector<UserRecord> MailboxQuota::ListUserQuotaLimit(const std::vector<VelaUser>& users) {
  return store_->List<UserRecord>(kUserLimitTable, IdsOf(users));
}

std::vector<UserRecord> MailboxQuota::ListUserQuotaWarning(const std::vector<VelaUser>& users) {
  return store_->List<UserRecord>(kUserWarningTable, IdsOf(users));
}

std::vector<GroupRecord> MailboxQuota::ListGroupQuotaLimit(const std::vector<VelaGroup>& groups) {
  return store_->List<GroupRecord>(kGroupLimitTable, IdsOf(groups));
}

std::vector<GroupRecord> MailboxQuota::ListGroupQuotaWarning(const std::vector<VelaGroup>& groups) {
  return store_->List<GroupRecord>(kGroupWarningTable, IdsOf(groups));
}

}  // namespace velamailserver::account
