#include <strings.h>

#include <algorithm>

#include <fmt/format.h>

#include <vela/app_privilege.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/admin_group.h>
#include <velamailserver/velasdk/vela_group.h>
#include <velamailserver/velasdk/vela_user.h>

#include "recording_platform/world.h"

namespace velamailserver::velasdk {

struct AccountEntry {
  recording::Account account;
};

namespace {

using recording::Account;
using recording::TheWorld;

constexpr char kSourceFile[] = "recording_platform/accounts";
constexpr int kUnknownNameLine = 11;
constexpr int kUnknownIdLine = 12;

std::shared_ptr<const AccountEntry> FindName(const std::vector<Account>& accounts,
                                             const std::string& name, ErrorCode error) {
  const auto found = std::find_if(accounts.begin(), accounts.end(), [&](const Account& account) {
    return ::strcasecmp(account.name.c_str(), name.c_str()) == 0;
  });
  if (found == accounts.end()) {
    throw LogException(error, "no account " + name, 3, kSourceFile, kUnknownNameLine);
  }
  return std::make_shared<AccountEntry>(AccountEntry{*found});
}

std::shared_ptr<const AccountEntry> FindId(const std::vector<Account>& accounts, unsigned int id,
                                           ErrorCode error) {
  const auto found = std::find_if(accounts.begin(), accounts.end(),
                                  [&](const Account& account) { return account.id == id; });
  if (found == accounts.end()) {
    throw LogException(error, fmt::format("no account {}", id), 3, kSourceFile, kUnknownIdLine);
  }
  return std::make_shared<AccountEntry>(AccountEntry{*found});
}

}  // namespace

VelaUser::VelaUser(const std::string& name) {
  TheWorld().Call(fmt::format("VelaUser(name={})", name));
  entry_ = FindName(TheWorld().users, name, ERR_SDK_USER_GET);
}

VelaUser::VelaUser(unsigned int uid) {
  TheWorld().Call(fmt::format("VelaUser(uid={})", uid));
  entry_ = FindId(TheWorld().users, uid, ERR_SDK_USER_GET_BY_UID);
}

std::string VelaUser::Name() const {
  TheWorld().Call(fmt::format("Name({})", entry_->account.name));
  return entry_->account.name;
}

std::string VelaUser::RealName() const {
  TheWorld().Call(fmt::format("RealName({})", entry_->account.name));
  return entry_->account.real_name;
}

unsigned int VelaUser::Uid() const {
  TheWorld().Call(fmt::format("Uid({})", entry_->account.name));
  return entry_->account.id;
}

VelaGroup::VelaGroup(const std::string& name) {
  TheWorld().Call(fmt::format("VelaGroup(name={})", name));
  entry_ = FindName(TheWorld().groups, name, ERR_SDK_GROUP_GET);
}

VelaGroup::VelaGroup(unsigned int gid) {
  TheWorld().Call(fmt::format("VelaGroup(gid={})", gid));
  entry_ = FindId(TheWorld().groups, gid, ERR_SDK_GROUP_GET_BY_GID);
}

std::string VelaGroup::Name() const {
  TheWorld().Call(fmt::format("Name({})", entry_->account.name));
  return entry_->account.name;
}

unsigned int VelaGroup::Gid() const {
  TheWorld().Call(fmt::format("Gid({})", entry_->account.name));
  return entry_->account.id;
}

bool IsAdminGroupMember(const std::string& user) {
  TheWorld().Call(fmt::format("IsAdminGroupMember({})", user));
  return TheWorld().administrators.contains(user);
}

}  // namespace velamailserver::velasdk

int VLIBAppPrivUserHas(const char* user, const char* app, const char* reserved) {
  using recording::TheWorld;
  TheWorld().Call(fmt::format("VLIBAppPrivUserHas({}, {}, {})", user, app, reserved));
  const auto found = TheWorld().privileges.find(user);
  return found == TheWorld().privileges.end() ? 1 : found->second;
}
