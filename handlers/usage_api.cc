#include "usage_api.h"

#include <string>
#include <vector>

#include <json/value.h>

#include <quillon/platform/usage_count.h>
#include <vela/api_runner.h>
#include <velamailserver/velasdk/file_lock_guard.h>
#include <velamailserver/velasdk/vela_user.h>

#include "parameters.h"
#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::velasdk::FileLockHeld;
using velamailserver::velasdk::VelaUser;

constexpr char kAPI[] = "Quillon.MailServer.Usage";
constexpr int kVersion = 1;

Json::Value Count(const Json::Value& params) {
  const Parameters parameters(params, {"names"});
  const std::vector<VelaUser> users = ResolveUsers(parameters.Texts("names"));

  Json::Value answer;
  Json::Value& counted = answer["counted"] = Json::Value(Json::arrayValue);
  Json::Value& kept = answer["kept"] = Json::Value(Json::arrayValue);
  Json::Value& skipped = answer["skipped"] = false;
  try {
    const platform::UsageCount count = platform::CountUsage(users);
    for (const platform::CountedUsage& usage : count.counted) {
      Json::Value& user = counted.append(Json::Value(Json::objectValue));
      user["name"] = usage.name;
      user["usage"] = Json::UInt64{usage.bytes};
    }
    for (const std::string& name : count.kept) {
      kept.append(name);
    }
  } catch (const FileLockHeld& held) {
    skipped = true;
    answer["reason"] = std::string("another usage count is running: ") + held.what();
  }
  return answer;
}

}  // namespace

void RegisterUsageAPI() { VELA::APIRunner::Register(kAPI, kVersion, "count", Count); }

}  // namespace quillon::handlers
