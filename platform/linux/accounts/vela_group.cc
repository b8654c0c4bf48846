#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_group.h>

#include "accounts/account_database.h"

namespace velamailserver::velasdk {

namespace {

constexpr char kSourceFile[] = "platform/linux/accounts/vela_group";
constexpr int kNoSuchNameLine = 22;
constexpr int kNameLookupFailedLine = 26;
constexpr int kNoSuchGidLine = 35;
constexpr int kGidLookupFailedLine = 39;

std::shared_ptr<const AccountEntry> Resolve(const std::string& name) {
  try {
    if (auto entry = quillon::platform::FindGroup(name)) {
      return entry;
    }
  } catch (const std::system_error& error) {
    throw LogException(ERR_SDK_GROUP_GET, "cannot look up group [" + name + "]: " + error.what(), 3,
                       kSourceFile, kNameLookupFailedLine);
  }
  throw LogException(ERR_SDK_GROUP_GET, "no such group: [" + name + "]", 3, kSourceFile,
                     kNoSuchNameLine);
}

std::shared_ptr<const AccountEntry> Resolve(unsigned int gid) {
  try {
    if (auto entry = quillon::platform::FindGroup(gid)) {
      return entry;
    }
  } catch (const std::system_error& error) {
    throw LogException(ERR_SDK_GROUP_GET_BY_GID,
                       "cannot look up gid [" + std::to_string(gid) + "]: " + error.what(), 3,
                       kSourceFile, kGidLookupFailedLine);
  }
  throw LogException(ERR_SDK_GROUP_GET_BY_GID, "no group has the gid [" + std::to_string(gid) + "]",
                     3, kSourceFile, kNoSuchGidLine);
}

}  // namespace

VelaGroup::VelaGroup(const std::string& name) : entry_(Resolve(name)) {}

VelaGroup::VelaGroup(unsigned int gid) : entry_(Resolve(gid)) {}

std::string VelaGroup::Name() const { return std::string(entry_->name); }

unsigned int VelaGroup::Gid() const { return entry_->id; }

}  // namespace velamailserver::velasdk
