#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/mail_users.h>
#include <quillon/platform/maildir_folder.h>
#include <quillon/platform/utf8.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"
#include "maildir/maildir.h"
#include "quota/quota_database.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/quota/mail_users";
constexpr int kNotListedLine = 34;
constexpr int kNoGroupsLine = 46;
constexpr int kLeftOutLine = 57;

// Who of several accounts with one name is the one that the name finds.
void KeepOnePerName(std::vector<MailUser>& users) {
  std::unordered_set<std::string_view> names;
  std::unordered_set<std::string> repeated;
  for (const MailUser& user : users) {
    if (!names.insert(user.name).second) {
      repeated.insert(user.name);
    }
  }
  if (!repeated.empty()) {
    std::erase_if(users, [&](const MailUser& user) {
      const auto found = repeated.contains(user.name) ? FindUser(user.name) : nullptr;
      return found != nullptr && found->id != user.uid;
    });
  }
}

bool CanHaveMaildir(const std::string& name) { return IsFolderName(name) && IsUtf8(name); }

// In ascending order of uids. Throws `std::runtime_error` when the accounts cannot be listed.
std::vector<MailUser> ListUsersWithoutGroups() {
  const auto configuration = CurrentConfiguration();
  RequireWholeAccountFiles();
  const std::vector<std::uint32_t> uids =
      ListUids(configuration->accounts.min_uid, configuration->accounts.max_uid);
  const std::string folder = MaildirFolder() + "/";
  std::vector<MailUser> users;
  users.reserve(uids.size());
  for (const std::uint32_t uid : uids) {
    const auto entry = FindUser(uid);
    if (entry == nullptr) {
      continue;  // gone by now
    }
    std::string name(entry->name);
    if (CanHaveMaildir(name)) {
      std::string home = folder + name;
      users.push_back({uid, std::move(name), entry->primary_gid, std::move(home), {}});
    }
  }
  KeepOnePerName(users);
  if (users.size() < uids.size()) {
    const auto first =
        std::mismatch(uids.begin(), uids.end(), users.begin(), users.end(),
                      [](std::uint32_t uid, const MailUser& user) { return uid == user.uid; });
    maillog(4, "%s:%d %zu accounts are left out of the mail users, the first is that of uid %u",
            kSourceFile, kLeftOutLine, uids.size() - users.size(), *first.first);
  }
  return users;
}

std::vector<MailUser> ListMailUsers() {
  std::vector<MailUser> users =
      AskAccounts(velamailserver::ERR_SDK_USER_ENUM, "list the mail users", kSourceFile,
                  kNotListedLine, ListUsersWithoutGroups);
  for (MailUser& user : users) {
    user.groups = AskAccounts(
        velamailserver::ERR_SDK_GROUP_LIST_MEMBER,
        fmt::format("list the groups of user [{}]", user.name), kSourceFile, kNoGroupsLine,
        [&] { return GroupsOf({.name = user.name, .id = user.uid, .primary_gid = user.gid}); });
  }
  return users;
}

}  // namespace

MailUserChanges SyncMailUsers(bool is_dry_run) {
  return QuotaDatabase().UpdateMailUsers(ListMailUsers, is_dry_run);
}

}  // namespace quillon::platform
