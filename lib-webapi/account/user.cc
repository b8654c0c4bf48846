#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <quillon/backend/quota_redis_client.h>
#include <vela/app_privilege.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/user.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/share_quota.h>
#include <velamailserver/utils/math.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "account/quota_records.h"
#include "origin_log.h"

namespace velamailserver::webapi {

namespace {

using account::Maildir;
using account::UserRecord;
using quillon::backend::QuotaRedisClient;
using velasdk::VelaUser;

constexpr char kSourceFile[] = "lib-webapi/account/user";
constexpr int kUsageNotDeletedLine = 59;
constexpr int kSetWarningAboveLimitLine = 67;
constexpr int kSkipUserLine = 88;
constexpr int kStoredWarningAboveLimitLine = 126;

constexpr char kMailClient[] = "VELA.WUI.MailClient.Application";

const Json::StaticString kUsage("usage");

RecordsByName<UserRecord> IndexByRealName(std::vector<UserRecord> records) {
  return {std::move(records), [](unsigned int uid) { return VelaUser(uid).RealName(); }};
}

// Read-only: a member without a name does not gain one.
std::string NameOf(const Json::Value& member) { return member["name"].asString(); }

// Everything but the usage and the limit, which the stores know by real name.
MoreInfo InfoOf(const VelaUser& user, const std::string& name) {
  MoreInfo info;
  info.name = name;
  if (const Maildir maildir(user.Uid()); maildir.flag) {
    info.maildir = maildir;
  }
  info.has_app_privilege = VLIBAppPrivUserHas(user.Name().c_str(), kMailClient, "ignore") != 0;
  const unsigned long long mb = tarn::GetUserQuillonSharedFolderQuotaMb(user.Name());
  if (mb != 0) {
    const double factor = utils::UnitFactor("M") / utils::UnitFactor("B");
    info.share_quota = mb * static_cast<unsigned long long>(factor);
  }
  return info;
}

}  // namespace

User::User() = default;

void User::SetQuota(const std::vector<VelaUser>& users, unsigned long long limit,
                    unsigned long long warning) {
  RequireWarningWithinLimit(limit, warning, kSourceFile, kSetWarningAboveLimitLine);
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
  users.reserve(list.size());
  names.reserve(list.size());
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

  RecordsByName<UserRecord> limits = IndexByRealName(ListUserQuotaLimit(users));
  RecordsByName<UserRecord> warnings = IndexByRealName(ListUserQuotaWarning(users));

  QuotaRedisClient client;
  const std::unordered_map<std::string, std::string> usage = client.ListUsage(names);

  for (Json::Value& member : list) {
    const std::string name = NameOf(member);
    const std::string key = utils::ToLowerCase(name);

    UpdateQuota(member, key, limits, warnings, kSourceFile, kStoredWarningAboveLimitLine);

    Json::Value& used = member[kUsage] = 0;
    if (const auto found = usage.find(name); found != usage.end()) {
      used = Json::UInt64{utils::ToULL(found->second)};
    }
  }
}

std::vector<MoreInfo> User::MoreInfos(const std::vector<VelaUser>& users) {
  const std::vector<VelaUser> chosen = users.empty() ? conf::SmtpExt().EnumUsers() : users;
  std::vector<MoreInfo> infos;
  std::vector<std::string> names;
  for (const VelaUser& user : chosen) {
    names.push_back(user.RealName());
    infos.push_back(InfoOf(user, names.back()));
  }

  QuotaRedisClient client;
  const std::unordered_map<std::string, std::string> usage = client.ListUsage(names);

  for (MoreInfo& info : infos) {
    if (const auto found = usage.find(info.name); found != usage.end() && !found->second.empty()) {
      info.usage = utils::ToULL(found->second);
    }
    info.quota_limit = account::GetResultUserQuotaLimit(info.name);
  }
  return infos;
}

void User::ClearStorage(const std::vector<VelaUser>& users) {
  std::vector<Maildir> maildirs;
  std::vector<std::string> names;
  for (const VelaUser& user : users) {
    if (const Maildir maildir(user.Uid()); maildir.flag) {
      maildirs.push_back(maildir);
    }
    names.push_back(user.RealName());
  }

  velasdk::RunAsRoot("clear user storage", [&] {
    for (const Maildir& maildir : maildirs) {
      maildir.Delete();
    }
    QuotaRedisClient client;
    if (!client.DeleteUsage(names)) {
      throw LogException(ERR_REDIS_DELETE_KEY, Join(names, ","), 3, kSourceFile,
                         kUsageNotDeletedLine);
    }
  });
}

}  // namespace velamailserver::webapi
