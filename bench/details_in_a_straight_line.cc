// details-in-a-straight-line WORLD: the same details by a program that makes the same calls of the
// platform and nothing else.
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include <quillon/backend/quota_redis_client.h>
#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>
#include <vela/app_privilege.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/user.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/utils/text.h>
#include <velamailserver/velasdk/admin_group.h>

#include "details.h"
#include "timing.h"

namespace {

using velamailserver::account::Maildir;
using velamailserver::velasdk::VelaUser;
using velamailserver::webapi::MoreInfo;

unsigned long long ShareQuotaMb(const std::string& name) {
  if (velamailserver::velasdk::IsAdminGroupMember(name)) {
    return 0;
  }
  Json::Value params;
  params["name"] = name;
  params["support_share_quota"] = true;
  Json::Value response;
  VELA::APIRunner::Exec(response, "VELA.Core.Quota", 1, "get", params, "admin");
  const Json::Value& entries = response["data"]["user_quota"];
  if (entries.empty()) {
    return 0;
  }
  const Json::Value& share = entries[0]["shares"][0];
  const unsigned long long quota = share["quota"].asUInt64();
  return quota != 0 ? quota : share["group_limit"].asUInt64();
}

std::vector<MoreInfo> Details() {
  std::vector<MoreInfo> infos;
  std::vector<std::string> names;
  for (const VelaUser& user : velamailserver::conf::SmtpExt().EnumUsers()) {
    MoreInfo& info = infos.emplace_back();
    info.name = user.RealName();
    names.push_back(info.name);
    const std::string account = user.Name();
    if (Maildir maildir(user.Uid()); maildir.flag) {
      info.maildir = std::move(maildir);
    }
    info.has_app_privilege =
        VLIBAppPrivUserHas(account.c_str(), "VELA.WUI.MailClient.Application", "ignore") != 0;
    if (const unsigned long long mb = ShareQuotaMb(account); mb != 0) {
      info.share_quota = mb << 20U;
    }
  }
  const auto usage = quillon::backend::QuotaRedisClient().ListUsage(names);
  for (MoreInfo& info : infos) {
    if (const auto found = usage.find(info.name); found != usage.end()) {
      info.usage = velamailserver::utils::ToULL(found->second);
    }
    info.quota_limit = velamailserver::account::GetResultUserQuotaLimit(info.name);
  }
  return infos;
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  std::vector<MoreInfo> infos;
  quillon::bench::Time([&] { infos = Details(); });
  quillon::bench::WriteDetails(infos, world + "/details-in-a-straight-line");
}
