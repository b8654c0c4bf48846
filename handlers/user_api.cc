#include "user_api.h"

#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include <vela/api_runner.h>
#include <velamailserver/account/user.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "clear_storage.h"
#include "parameters.h"
#include "quota_report.h"
#include "resolve_accounts.h"
#include "user_report.h"

namespace quillon::handlers {

namespace {

using velamailserver::conf::SmtpExt;
using velamailserver::velasdk::RunAsRoot;
using velamailserver::velasdk::VelaUser;
using velamailserver::webapi::MoreInfo;
using velamailserver::webapi::User;

constexpr char kAPI[] = "Quillon.MailServer.User";
constexpr int kVersion = 1;

UserReportOptions::Sort ReadSort(const Parameters& parameters) {
  using Sort = UserReportOptions::Sort;
  const std::string sort =
      parameters.Choice("sort", {"name", "limit", "warning", "usage", "percent"});
  return sort == "limit"     ? Sort::kLimit
         : sort == "warning" ? Sort::kWarning
         : sort == "usage"   ? Sort::kUsage
         : sort == "percent" ? Sort::kPercent
                             : Sort::kName;
}

UserReportOptions ReadReportOptions(const Parameters& parameters) {
  UserReportOptions options;
  if (parameters.Has("sort")) {
    options.sort = ReadSort(parameters);
  }
  options.page = ReadReportPage(parameters);
  if (parameters.Has("above")) {
    options.above = parameters.Number("above");
  }
  return options;
}

std::vector<VelaUser> ReadSelection(const Parameters& parameters) {
  return parameters.Has("names") ? ResolveUsers(parameters.Texts("names")) : SmtpExt().EnumUsers();
}

Json::Value List(const Json::Value& params) {
  const Parameters parameters(params, {"names", "sort", "direction", "offset", "limit", "above"});
  const UserReportOptions options = ReadReportOptions(parameters);
  return ReportUsers(ReadSelection(parameters), options);
}

Json::Value ChangedUsers(const std::vector<VelaUser>& users) {
  Json::Value answer;
  answer["users"] = NamesOf(users);
  return answer;
}

Json::Value SetQuota(const Json::Value& params) {
  const Parameters parameters(params, {"names", "limit", "warning"});
  const unsigned long long limit = parameters.Unsigned("limit");
  const unsigned long long warning = parameters.Unsigned("warning");
  const std::vector<VelaUser> users = ReadUsers(parameters);
  User().SetQuota(users, limit, warning);
  return ChangedUsers(users);
}

Json::Value ClearQuota(const Json::Value& params) {
  const std::vector<VelaUser> users = ReadUsers(Parameters(params, {"names"}));
  User().ClearQuota(users);
  return ChangedUsers(users);
}

Json::Value Names(const Json::Value& params) {
  Json::Value answer;
  answer["names"] = NamesOf(ReadSelection(Parameters(params, {"names"})));
  return answer;
}

Json::Value DetailsOf(const MoreInfo& info) {
  const auto bytes = [](const std::optional<unsigned long long>& figure) {
    return figure ? Json::Value(Json::UInt64{*figure}) : Json::Value();
  };
  Json::Value user;
  user["name"] = info.name;
  user["has_app_privilege"] = info.has_app_privilege;
  user["maildir"] = info.maildir ? Json::Value(info.maildir->path) : Json::Value();
  user["share_quota"] = bytes(info.share_quota);
  user["quota_limit"] = bytes(info.quota_limit);
  user["usage"] = bytes(info.usage);
  return user;
}

Json::Value Details(const Json::Value& params) {
  const Parameters parameters(params, {"names"});
  // No users are all of them to the library.
  const std::vector<VelaUser> users =
      parameters.Has("names") ? ReadUsers(parameters) : std::vector<VelaUser>();

  Json::Value answer;
  Json::Value& details = answer["users"] = Json::Value(Json::arrayValue);
  // Only root may look into everybody's mail directory.
  RunAsRoot("read user details", [&] {
    for (const MoreInfo& info : User().MoreInfos(users)) {
      details.append(DetailsOf(info));
    }
  });
  return answer;
}

}  // namespace

void RegisterUserAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "list", List);
  VELA::APIRunner::Register(kAPI, kVersion, "set_quota", SetQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "clear_quota", ClearQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "names", Names);
  VELA::APIRunner::Register(kAPI, kVersion, "details", Details);
  VELA::APIRunner::Register(kAPI, kVersion, "clear_storage", ClearStorage);
}

}  // namespace quillon::handlers
