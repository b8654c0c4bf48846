#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "accounts/account_entry.h"

namespace quillon::platform {

/// The host's own users file.
inline constexpr char kHostPasswdFile[] = "/etc/passwd";

/// A user or group by name or id: from the file that the configuration names, else from NSS. Null
/// when both know that there is none; throws `std::system_error` when one of them cannot tell. Safe
/// for use from several threads.
std::shared_ptr<const velamailserver::velasdk::AccountEntry> FindUser(const std::string& name);
std::shared_ptr<const velamailserver::velasdk::AccountEntry> FindUser(std::uint32_t uid);
std::shared_ptr<const velamailserver::velasdk::AccountEntry> FindGroup(const std::string& name);
std::shared_ptr<const velamailserver::velasdk::AccountEntry> FindGroup(std::uint32_t gid);

/// A user by NSS alone, which may remember an earlier answer.
std::shared_ptr<const velamailserver::velasdk::AccountEntry> FindHostUser(std::uint32_t uid);

/// Whether the users file, or the host's own, has a user with this uid. Throws `std::system_error`
/// when one of them cannot be read, or has a line that does not parse.
bool IsInUsersFiles(std::uint32_t uid);

/// The uids in the given range, ends included, each once and in ascending order: those of the users
/// file and, when that is the host's own, those that NSS lists besides. Throws `std::system_error`.
std::vector<std::uint32_t> ListUids(std::uint32_t lowest, std::uint32_t highest);

}  // namespace quillon::platform
