#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_user.h>

#include "accounts/account_database.h"

namespace velamailserver::velasdk {

namespace {

constexpr char kSourceFile[] = "platform/linux/accounts/vela_user";
constexpr int kNoSuchNameLine = 22;
constexpr int kNameLookupFailedLine = 26;
constexpr int kNoSuchUidLine = 35;
constexpr int kUidLookupFailedLine = 39;

std::shared_ptr<const AccountEntry> Resolve(const std::string& name) {
  try {
    if (auto entry = quillon::platform::FindUser(name)) {
      return entry;
    }
  } catch (const std::system_error& error) {
    throw LogException(ERR_SDK_USER_GET, "cannot look up user [" + name + "]: " + error.what(), 3,
                       kSourceFile, kNameLookupFailedLine);
  }
  throw LogException(ERR_SDK_USER_GET, "no such user: [" + name + "]", 3, kSourceFile,
                     kNoSuchNameLine);
}

std::shared_ptr<const AccountEntry> Resolve(unsigned int uid) {
  try {
    if (auto entry = quillon::platform::FindUser(uid)) {
      return entry;
    }
  } catch (const std::system_error& error) {
    throw LogException(ERR_SDK_USER_GET_BY_UID,
                       "cannot look up uid [" + std::to_string(uid) + "]: " + error.what(), 3,
                       kSourceFile, kUidLookupFailedLine);
  }
  throw LogException(ERR_SDK_USER_GET_BY_UID, "no user has the uid [" + std::to_string(uid) + "]",
                     3, kSourceFile, kNoSuchUidLine);
}

}  // namespace

VelaUser::VelaUser(const std::string& name) : entry_(Resolve(name)) {}

VelaUser::VelaUser(unsigned int uid) : entry_(Resolve(uid)) {}

std::string VelaUser::Name() const { return std::string(entry_->name); }

std::string VelaUser::RealName() const { return std::string(entry_->name); }

unsigned int VelaUser::Uid() const { return entry_->id; }

}  // namespace velamailserver::velasdk
