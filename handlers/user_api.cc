#include "user_api.h"

#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include <vela/api_runner.h>
#include <velamailserver/account/user.h>
#include <velamailserver/conf/smtp_ext.h>

#include "parameters.h"
#include "resolve_users.h"
#include "user_report.h"

namespace quillon::handlers {

namespace {

using velamailserver::conf::SmtpExt;
using velamailserver::velasdk::VelaUser;
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
  if (parameters.Has("direction")) {
    options.is_descending = parameters.Choice("direction", {"ASC", "DESC"}) == "DESC";
  }
  if (parameters.Has("offset")) {
    options.offset = parameters.Unsigned("offset");
  }
  if (parameters.Has("limit")) {
    if (const long long limit = parameters.Signed("limit"); limit >= 0) {
      options.limit = static_cast<unsigned long long>(limit);
    }
  }
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

// The users to change: at least one, and nobody unknown among them.
std::vector<VelaUser> ReadUsers(const Parameters& parameters) {
  const std::vector<std::string> names = parameters.Texts("names");
  if (names.empty()) {
    throw VELA::APIError(VELA::APIRunner::kBadParameters,
                         "parameter [names] must hold at least one name");
  }
  return ResolveUsers(names);
}

Json::Value ChangedUsers(const std::vector<VelaUser>& users) {
  Json::Value answer;
  answer["users"] = RealNames(users);
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
  answer["names"] = RealNames(ReadSelection(Parameters(params, {"names"})));
  return answer;
}

}  // namespace

void RegisterUserAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "list", List);
  VELA::APIRunner::Register(kAPI, kVersion, "set_quota", SetQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "clear_quota", ClearQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "names", Names);
}

}  // namespace quillon::handlers
