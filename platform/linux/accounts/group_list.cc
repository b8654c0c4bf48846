#include <cstdint>
#include <vector>

#include <quillon/platform/configuration.h>
#include <quillon/platform/group_list.h>
#include <velamailserver/log_exception.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/accounts/group_list";
constexpr int kFailedLine = 24;

}  // namespace

std::vector<velamailserver::velasdk::VelaGroup> ListGroups() {
  const auto configuration = CurrentConfiguration();
  const std::vector<std::uint32_t> gids = AskAccounts(
      velamailserver::ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR, "list the groups", kSourceFile,
      kFailedLine,
      [&] { return ListGids(configuration->accounts.min_gid, configuration->accounts.max_gid); });
  return {gids.begin(), gids.end()};
}

}  // namespace quillon::platform
