#include <json/value.h>

#include <velamailserver/run_api.h>
#include <velamailserver/share_quota.h>
#include <velamailserver/velasdk/admin_group.h>

namespace velamailserver::webapi::tarn {

namespace {

constexpr char kShare[] = "Quillon";

// 0 when the object has no such member.
unsigned long long NumberOf(const Json::Value& object, const char* member) {
  return object.isMember(member) ? object[member].asUInt64() : 0;
}

unsigned long long GetQuillonSharedFolderQuotaMb(const std::string& name, bool is_group) {
  Json::Value params;
  params["name"] = name;
  params["support_share_quota"] = true;
  if (is_group) {
    params["subject_type"] = "group";
  }
  const Json::Value response = RunWebapi("VELA.Core.Quota", "get", params, 1);

  for (const Json::Value& entry : response["data"][is_group ? "group_quota" : "user_quota"]) {
    if (!entry.isMember("support_share_quota") || !entry["support_share_quota"].asBool()) {
      continue;
    }
    for (const Json::Value& share : entry["shares"]) {
      if (!share.isMember("name") || share["name"].asString() != kShare) {
        continue;
      }
      if (const auto quota = NumberOf(share, "quota"); quota != 0) {
        return quota;
      }
      if (const auto limit = NumberOf(share, "group_limit"); limit != 0) {
        return limit;
      }
    }
  }
  return 0;
}

}  // namespace

unsigned long long GetUserQuillonSharedFolderQuotaMb(const std::string& user) {
  return velasdk::IsAdminGroupMember(user) ? 0 : GetQuillonSharedFolderQuotaMb(user, false);
}

unsigned long long GetGroupQuillonSharedFolderQuotaMb(const std::string& group) {
  return GetQuillonSharedFolderQuotaMb(group, true);
}

}  // namespace velamailserver::webapi::tarn
