// The report of users: User::UpdateQuotaUsage on any document and any world.
#include <strings.h>

#include <algorithm>
#include <memory>

#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>

#include "fuzz/report.h"

namespace quillon::fuzz {
namespace {

std::string RealNameOf(const recording::World& world, unsigned int uid) {
  const auto user = std::find_if(world.users.begin(), world.users.end(),
                                 [&](const auto& one) { return one.id == uid; });
  return user != world.users.end() ? user->real_name : throw Unreportable();
}

void ReportUsers(const recording::World& world, Json::Value& list) {
  const auto real_name = [&](unsigned int uid) { return RealNameOf(world, uid); };
  // Records of an id that is nobody's end also a report without members.
  static_cast<void>(FirstOf(world.user_limits, "", real_name));
  static_cast<void>(FirstOf(world.user_warnings, "", real_name));
  for (Json::Value& member : list) {
    const Json::Value& given = member;
    const std::string name = given["name"].asString();
    ReportQuota(member, LowerCase(name), world.user_limits, world.user_warnings, real_name);
    const auto used = world.usage.find(name);
    member["usage"] = used == world.usage.end() ? Json::Value(0)
                                                : Json::Value(Json::UInt64{Number(used->second)});
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  std::string_view input = TextOf(data, size);
  recording::World& world = recording::TheWorld();
  TakeReportWorld(input, world);
  const auto document = ParseDocument(input);
  if (!document) {
    return -1;
  }
  HoldAgainst<velamailserver::LogException>(
      *document, [](Json::Value& list) { velamailserver::webapi::User().UpdateQuotaUsage(list); },
      [&](Json::Value& list) { ReportUsers(world, list); });
  return 0;
}
