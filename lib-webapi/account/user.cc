#include <algorithm>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <quillon/backend/quota_redis_client.h>
#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "origin_log.h"

namespace velamailserver::webapi {

namespace {

using account::UserRecord;
using velasdk::VelaUser;

constexpr char kSourceFile[] = "lib-webapi/account/user";
constexpr int kSetWarningAboveLimitLine = 67;
constexpr int kSkipUserLine = 88;
constexpr int kStoredWarningAboveLimitLine = 126;

// Keys that a document refers to instead of copying them; it may outlive every use of this library,
// which is linked never to be unloaded.
const Json::StaticString kQuota("quota");
const Json::StaticString kRemaining("remaining_usage_notification");
const Json::StaticString kUsage("usage");

void RequireWarningWithinLimit(unsigned long long limit, unsigned long long warning, int line) {
  if (warning > limit) {
    throw LogException(ERR_INTERNAL,
                       "warning byte [" + std::to_string(warning) +
                           "] can't be larger than limit byte [" + std::to_string(limit) + "]",
                       3, kSourceFile, line);
  }
}

using RecordsByName = std::map<std::string, UserRecord>;

// The first of several records of one name wins. Sorted first, because a map that is filled in
// order takes half the time: no comparisons on the way down, and neighbours that lie side by side
// in memory. Equal names stay in the order of their records.
RecordsByName IndexByRealName(const std::vector<UserRecord>& records) {
  std::vector<std::pair<std::string, const UserRecord*>> named;
  named.reserve(records.size());
  for (const UserRecord& record : records) {
    named.emplace_back(utils::ToLowerCase(VelaUser(record.id).RealName()), &record);
  }
  std::sort(named.begin(), named.end());
  RecordsByName index;
  for (auto& [name, record] : named) {
    index.emplace_hint(index.end(), std::move(name), *record);
  }
  return index;
}

// Read-only: a member without a name does not gain one.
std::string NameOf(const Json::Value& member) { return member["name"].asString(); }

}  // namespace

User::User() = default;

void User::SetQuota(const std::vector<VelaUser>& users, unsigned long long limit,
                    unsigned long long warning) {
  RequireWarningWithinLimit(limit, warning, kSetWarningAboveLimitLine);
  SetUserQuotaLimit(users, limit);
  SetUserQuotaWarning(users, warning);
}

void User::ClearQuota(const std::vector<VelaUser>& users) {
  ClearUserQuotaLimit(users);
  ClearUserQuotaWarning(users);
}

void User::UpdateQuotaUsage(Json::Value& list) {
  std::vector<VelaUser> users;
  std::vector<std::string> names;
  for (const Json::Value& member : list) {
    const std::string name = NameOf(member);
    try {
      users.emplace_back(name);
      names.push_back(name);
    } catch (const LogException&) {
      LogWithOrigin(2, kSourceFile, kSkipUserLine, "skip updating [%s]'s quota & usage",
                    name.c_str());
    }
  }

  const RecordsByName limits = IndexByRealName(ListUserQuotaLimit(users));
  const RecordsByName warnings = IndexByRealName(ListUserQuotaWarning(users));

  quillon::backend::QuotaRedisClient client;
  const std::unordered_map<std::string, std::string> usage = client.ListUsage(names);

  for (Json::Value& member : list) {
    const std::string name = NameOf(member);
    const std::string key = utils::ToLowerCase(name);

    Json::Value& quota = member[kQuota] = 0;
    unsigned long long limit = 0;
    if (const auto found = limits.find(key); found != limits.end()) {
      limit = utils::ToULL(found->second.value);
      quota = Json::UInt64{limit};
    }

    Json::Value& remaining = member[kRemaining] = 0;
    if (const auto found = warnings.find(key); found != warnings.end()) {
      const unsigned long long warning = utils::ToULL(found->second.value);
      RequireWarningWithinLimit(limit, warning, kStoredWarningAboveLimitLine);
      remaining = Json::UInt64{limit - warning};
    }

    Json::Value& used = member[kUsage] = 0;
    if (const auto found = usage.find(name); found != usage.end()) {
      used = Json::UInt64{utils::ToULL(found->second)};
    }
  }
}

}  // namespace velamailserver::webapi
