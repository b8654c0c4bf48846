#include "group_api.h"

#include <limits>
#include <string>
#include <vector>

#include <json/value.h>

#include <quillon/platform/group_list.h>
#include <vela/api_runner.h>
#include <velamailserver/account/group.h>
#include <velamailserver/share_quota.h>
#include <velamailserver/utils/math.h>

#include "group_report.h"
#include "parameters.h"
#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::velasdk::VelaGroup;
using velamailserver::webapi::Group;

constexpr char kAPI[] = "Quillon.MailServer.Group";
constexpr int kVersion = 1;

GroupReportOptions::Sort ReadSort(const Parameters& parameters) {
  using Sort = GroupReportOptions::Sort;
  const std::string sort = parameters.Choice("sort", {"name", "limit", "warning"});
  return sort == "limit" ? Sort::kLimit : sort == "warning" ? Sort::kWarning : Sort::kName;
}

Json::Value List(const Json::Value& params) {
  const Parameters parameters(params, {"names", "sort", "direction", "offset", "limit"});
  GroupReportOptions options;
  if (parameters.Has("sort")) {
    options.sort = ReadSort(parameters);
  }
  options.page = ReadReportPage(parameters);
  return ReportGroups(
      parameters.Has("names") ? ResolveGroups(parameters.Texts("names")) : platform::ListGroups(),
      options);
}

Json::Value ChangedGroups(const std::vector<VelaGroup>& groups) {
  Json::Value answer;
  answer["groups"] = NamesOf(groups);
  return answer;
}

Json::Value SetQuota(const Json::Value& params) {
  const Parameters parameters(params, {"names", "limit", "warning"});
  const unsigned long long limit = parameters.Unsigned("limit");
  const unsigned long long warning = parameters.Unsigned("warning");
  const std::vector<VelaGroup> groups = ReadGroups(parameters);
  Group().SetQuota(groups, limit, warning);
  return ChangedGroups(groups);
}

Json::Value ClearQuota(const Json::Value& params) {
  const std::vector<VelaGroup> groups = ReadGroups(Parameters(params, {"names"}));
  Group().ClearQuota(groups);
  return ChangedGroups(groups);
}

// Null for no quota. What does not fit 64 bits is as good as the largest value: no disk is of that
// size.
Json::Value BytesOf(unsigned long long mb) {
  using velamailserver::utils::UnitFactor;
  constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();
  if (mb == 0) {
    return Json::Value();
  }
  const auto factor = static_cast<unsigned long long>(UnitFactor("M") / UnitFactor("B"));
  return Json::Value(Json::UInt64{mb > kLargest / factor ? kLargest : mb * factor});
}

Json::Value ShareQuota(const Json::Value& params) {
  const Parameters parameters(params, {"name"});
  const std::string name = NameOf(ResolveGroups({parameters.Text("name")}).front());
  Json::Value answer;
  answer["name"] = name;
  answer["share_quota"] =
      BytesOf(velamailserver::webapi::tarn::GetGroupQuillonSharedFolderQuotaMb(name));
  return answer;
}

}  // namespace

void RegisterGroupAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "list", List);
  VELA::APIRunner::Register(kAPI, kVersion, "set_quota", SetQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "clear_quota", ClearQuota);
  VELA::APIRunner::Register(kAPI, kVersion, "share_quota", ShareQuota);
}

}  // namespace quillon::handlers
