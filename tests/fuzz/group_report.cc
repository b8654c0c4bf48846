// The report of groups: Group::UpdateQuotaInfo on any document and any world.
#include <strings.h>

#include <algorithm>
#include <memory>

#include <velamailserver/account/group.h>
#include <velamailserver/log_exception.h>

#include "fuzz/report.h"

namespace quillon::fuzz {
namespace {

std::string NameOf(const recording::World& world, unsigned int gid) {
  const auto group = std::find_if(world.groups.begin(), world.groups.end(),
                                  [&](const auto& one) { return one.id == gid; });
  return group != world.groups.end() ? group->name : throw Unreportable();
}

// One group that there is not ends the whole report.
void RequireGroup(const recording::World& world, const std::string& name) {
  if (std::none_of(world.groups.begin(), world.groups.end(), [&](const auto& group) {
        return ::strcasecmp(group.name.c_str(), name.c_str()) == 0;
      })) {
    throw Unreportable();
  }
}

void ReportGroups(const recording::World& world, Json::Value& list) {
  const auto name_of = [&](unsigned int gid) { return NameOf(world, gid); };
  static_cast<void>(FirstOf(world.group_limits, "", name_of));
  static_cast<void>(FirstOf(world.group_warnings, "", name_of));
  for (Json::Value& member : list) {
    // A member without a name gains a null one.
    const std::string name = member["name"].asString();
    RequireGroup(world, name);
    ReportQuota(member, LowerCase(name), world.group_limits, world.group_warnings, name_of);
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  std::string_view input = TextOf(data, size);
  recording::World& world = recording::TheWorld();
  TakeReportWorld(input, world);
  world.group_limits = world.user_limits;
  world.group_warnings = world.user_warnings;
  const auto document = ParseDocument(input);
  if (!document) {
    return -1;
  }
  HoldAgainst<velamailserver::LogException>(
      *document, [](Json::Value& list) { velamailserver::webapi::Group().UpdateQuotaInfo(list); },
      [&](Json::Value& list) { ReportGroups(world, list); });
  return 0;
}
