#include <algorithm>
#include <string>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/admin_group.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/accounts/admin_group";
constexpr int kFailedLine = 26;

bool IsMember(const std::string& user_name, const std::string& group_name) {
  const auto group = FindGroup(group_name);
  const auto user = group == nullptr ? nullptr : FindUser(user_name);
  if (user == nullptr) {
    return false;
  }
  const auto gids = GroupsOf(*user);
  return std::binary_search(gids.begin(), gids.end(), group->id);
}

}  // namespace

}  // namespace quillon::platform

namespace velamailserver::velasdk {

bool IsAdminGroupMember(const std::string& user) {
  namespace platform = quillon::platform;
  const std::string group = platform::CurrentConfiguration()->accounts.admin_group;
  return platform::AskAccounts(
      ERR_SDK_GROUP_IS_ADMIN_MEMBER,
      fmt::format("find out whether user [{}] is in group [{}]", user, group),
      platform::kSourceFile, platform::kFailedLine,
      [&] { return platform::IsMember(user, group); });
}

}  // namespace velamailserver::velasdk
