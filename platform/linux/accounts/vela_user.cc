#include <velamailserver/velasdk/vela_user.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"

namespace velamailserver::velasdk {

namespace {

using quillon::platform::AccountLookup;
using quillon::platform::ResolveAccount;

constexpr char kSourceFile[] = "platform/linux/accounts/vela_user";
constexpr AccountLookup kByName = {
    .code = ERR_SDK_USER_GET,
    .subject = "user",
    .absence = "no such user:",
    .source_file = kSourceFile,
    .absent_line = 22,
    .failed_line = 26,
};
constexpr AccountLookup kByUid = {
    .code = ERR_SDK_USER_GET_BY_UID,
    .subject = "uid",
    .absence = "no user has the uid",
    .source_file = kSourceFile,
    .absent_line = 35,
    .failed_line = 39,
};

constexpr auto kFind = [](const auto& key) { return quillon::platform::FindUser(key); };

}  // namespace

VelaUser::VelaUser(const std::string& name) : entry_(ResolveAccount(kByName, kFind, name)) {}

VelaUser::VelaUser(unsigned int uid) : entry_(ResolveAccount(kByUid, kFind, uid)) {}

std::string VelaUser::Name() const { return std::string(entry_->name); }

std::string VelaUser::RealName() const { return std::string(entry_->name); }

unsigned int VelaUser::Uid() const { return entry_->id; }

}  // namespace velamailserver::velasdk
