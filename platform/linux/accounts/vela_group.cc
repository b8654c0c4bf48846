#include <velamailserver/velasdk/vela_group.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"

namespace velamailserver::velasdk {

namespace {

using quillon::platform::AccountLookup;
using quillon::platform::ResolveAccount;

constexpr char kSourceFile[] = "platform/linux/accounts/vela_group";
constexpr AccountLookup kByName = {
    .code = ERR_SDK_GROUP_GET,
    .subject = "group",
    .absence = "no such group:",
    .source_file = kSourceFile,
    .absent_line = 22,
    .failed_line = 26,
};
constexpr AccountLookup kByGid = {
    .code = ERR_SDK_GROUP_GET_BY_GID,
    .subject = "gid",
    .absence = "no group has the gid",
    .source_file = kSourceFile,
    .absent_line = 35,
    .failed_line = 39,
};

constexpr auto kFind = [](const auto& key) { return quillon::platform::FindGroup(key); };

}  // namespace

VelaGroup::VelaGroup(const std::string& name) : entry_(ResolveAccount(kByName, kFind, name)) {}

VelaGroup::VelaGroup(unsigned int gid) : entry_(ResolveAccount(kByGid, kFind, gid)) {}

std::string VelaGroup::Name() const { return std::string(entry_->name); }

unsigned int VelaGroup::Gid() const { return entry_->id; }

}  // namespace velamailserver::velasdk
