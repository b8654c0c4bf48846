#include "privilege_api.h"

#include <string>
#include <vector>

#include <json/value.h>

#include <quillon/platform/app_privileges.h>
#include <vela/api_runner.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "parameters.h"
#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::velasdk::RunAsRoot;
using velamailserver::velasdk::VelaUser;

constexpr char kAPI[] = "Quillon.MailServer.Privilege";
constexpr int kVersion = 1;

constexpr char kMailClient[] = "VELA.WUI.MailClient.Application";

using Change = void (*)(const std::vector<std::string>& users, const std::string& app);

template <Change kChange>
Json::Value Apply(const Json::Value& params) {
  const Parameters parameters(params, {"names", "app"});
  const std::string app = parameters.Has("app") ? parameters.Text("app") : kMailClient;
  const std::vector<VelaUser> users = ReadUsers(parameters);
  std::vector<std::string> accounts;
  accounts.reserve(users.size());
  for (const VelaUser& user : users) {
    accounts.push_back(user.Name());
  }
  RunAsRoot("change app privileges", [&] { kChange(accounts, app); });
  Json::Value answer;
  answer["users"] = NamesOf(users);
  answer["app"] = app;
  return answer;
}

Json::Value List(const Json::Value& params) {
  const Parameters parameters(params, {});
  Json::Value answer;
  Json::Value& revoked = answer["revoked"] = Json::Value(Json::arrayValue);
  for (const platform::RevokedPrivilege& privilege : platform::ListRevokedPrivileges()) {
    Json::Value& entry = revoked.append(Json::Value(Json::objectValue));
    entry["name"] = privilege.user;
    entry["app"] = privilege.app;
  }
  return answer;
}

}  // namespace

void RegisterPrivilegeAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "grant", Apply<platform::GrantPrivilege>);
  VELA::APIRunner::Register(kAPI, kVersion, "revoke", Apply<platform::RevokePrivilege>);
  VELA::APIRunner::Register(kAPI, kVersion, "list", List);
}

}  // namespace quillon::handlers
