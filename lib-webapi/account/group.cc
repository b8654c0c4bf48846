#include <string>
#include <utility>
#include <vector>

#include <velamailserver/account/group.h>

#include "account/quota_records.h"

namespace velamailserver::webapi {

namespace {

using account::GroupRecord;
using velasdk::VelaGroup;

constexpr char kSourceFile[] = "lib-webapi/account/group";
constexpr int kSetWarningAboveLimitLine = 26;
constexpr int kStoredWarningAboveLimitLine = 73;

const Json::StaticString kName("name");

// The store knows groups by gid: what the account database calls that one counts, not what it was
// called by whoever asked.
RecordsByName<GroupRecord> IndexByGroupName(std::vector<GroupRecord> records) {
  return {std::move(records), [](unsigned int gid) { return VelaGroup(gid).Name(); }};
}

}  // namespace

Group::Group() = default;

void Group::SetQuota(const std::vector<VelaGroup>& groups, unsigned long long limit,
                     unsigned long long warning) {
  RequireWarningWithinLimit(limit, warning, kSourceFile, kSetWarningAboveLimitLine);
  SetGroupQuotaLimit(groups, limit);
  SetGroupQuotaWarning(groups, warning);
}

void Group::ClearQuota(const std::vector<VelaGroup>& groups) {
  ClearGroupQuotaLimit(groups);
  ClearGroupQuotaWarning(groups);
}

void Group::UpdateQuotaInfo(Json::Value& list) {
  std::vector<VelaGroup> groups;
  groups.reserve(list.size());
  for (const Json::Value& member : list) {
    groups.emplace_back(member["name"].asString());
  }

  RecordsByName<GroupRecord> limits = IndexByGroupName(ListGroupQuotaLimit(groups));
  RecordsByName<GroupRecord> warnings = IndexByGroupName(ListGroupQuotaWarning(groups));

  for (Json::Value& member : list) {
    // The inserting accessor: a member without a name gains a null one.
    const std::string key = utils::ToLowerCase(member[kName].asString());
    UpdateQuota(member, key, limits, warnings, kSourceFile, kStoredWarningAboveLimitLine);
  }
}

}  // namespace velamailserver::webapi
