#include <fmt/format.h>
#include <fmt/ranges.h>

#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/mailbox_quota.h>

#include "recording_platform/decimal.h"
#include "recording_platform/world.h"

namespace velamailserver {

using recording::TheWorld;

db_query::Record::~Record() = default;

}  // namespace velamailserver

namespace veladbquery {

Insertable::~Insertable() = default;
Updatable::~Updatable() = default;

}  // namespace veladbquery

namespace velamailserver::account {

using velasdk::VelaGroup;
using velasdk::VelaUser;

UGRecord::~UGRecord() = default;
UserRecord::~UserRecord() = default;
GroupRecord::~GroupRecord() = default;

bool UGRecord::IsValid() const {
  TheWorld().Call(fmt::format("IsValid({})", id));
  return recording::ParseDecimal(value).has_value();
}

class MailboxQuota::Store {};

namespace {

template <typename Subject>
void Call(const std::string& operation, const std::vector<Subject>& subjects,
          const std::string& further_arguments = "") {
  std::vector<std::string> names;
  {
    const recording::Pause pause;
    for (const Subject& subject : subjects) {
      names.push_back(subject.Name());
    }
  }
  TheWorld().Call(fmt::format("{}([{}]{})", operation, fmt::join(names, ", "), further_arguments));
}

template <typename Subject>
void Call(const std::string& operation, const std::vector<Subject>& subjects,
          unsigned long long bytes) {
  Call(operation, subjects, fmt::format(", {}", bytes));
}

template <typename Record>
std::vector<Record> Records(const recording::StoredValues& values) {
  std::vector<Record> records;
  for (const auto& [id, value] : values) {
    Record& record = records.emplace_back();
    record.id = id;
    record.text = "the store's own";
    record.value = value;
  }
  return records;
}

}  // namespace

MailboxQuota::MailboxQuota() { TheWorld().Call("MailboxQuota()"); }

MailboxQuota::~MailboxQuota() { TheWorld().Note("~MailboxQuota()"); }

void MailboxQuota::SetUserQuotaLimit(const std::vector<VelaUser>& users, unsigned long long bytes) {
  Call("SetUserQuotaLimit", users, bytes);
}

void MailboxQuota::SetUserQuotaWarning(const std::vector<VelaUser>& users,
                                       unsigned long long bytes) {
  Call("SetUserQuotaWarning", users, bytes);
}

void MailboxQuota::SetGroupQuotaLimit(const std::vector<VelaGroup>& groups,
                                      unsigned long long bytes) {
  Call("SetGroupQuotaLimit", groups, bytes);
}

void MailboxQuota::SetGroupQuotaWarning(const std::vector<VelaGroup>& groups,
                                        unsigned long long bytes) {
  Call("SetGroupQuotaWarning", groups, bytes);
}

void MailboxQuota::ClearUserQuotaLimit(const std::vector<VelaUser>& users) {
  Call("ClearUserQuotaLimit", users);
}

void MailboxQuota::ClearUserQuotaWarning(const std::vector<VelaUser>& users) {
  Call("ClearUserQuotaWarning", users);
}

void MailboxQuota::ClearGroupQuotaLimit(const std::vector<VelaGroup>& groups) {
  Call("ClearGroupQuotaLimit", groups);
}

void MailboxQuota::ClearGroupQuotaWarning(const std::vector<VelaGroup>& groups) {
  Call("ClearGroupQuotaWarning", groups);
}

std::vector<UserRecord> MailboxQuota::ListUserQuotaLimit(const std::vector<VelaUser>& users) {
  Call("ListUserQuotaLimit", users);
  return Records<UserRecord>(TheWorld().user_limits);
}

std::vector<UserRecord> MailboxQuota::ListUserQuotaWarning(const std::vector<VelaUser>& users) {
  Call("ListUserQuotaWarning", users);
  return Records<UserRecord>(TheWorld().user_warnings);
}

std::vector<GroupRecord> MailboxQuota::ListGroupQuotaLimit(const std::vector<VelaGroup>& groups) {
  Call("ListGroupQuotaLimit", groups);
  return Records<GroupRecord>(TheWorld().group_limits);
}

std::vector<GroupRecord> MailboxQuota::ListGroupQuotaWarning(const std::vector<VelaGroup>& groups) {
  Call("ListGroupQuotaWarning", groups);
  return Records<GroupRecord>(TheWorld().group_warnings);
}

unsigned long long GetResultUserQuotaLimit(const std::string& name) {
  TheWorld().Call(fmt::format("GetResultUserQuotaLimit({})", name));
  const auto found = TheWorld().effective_limits.find(name);
  return found == TheWorld().effective_limits.end() ? 0 : found->second;
}

}  // namespace velamailserver::account
