#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "accounts/account_entry.h"

namespace quillon::platform {

/// The host's own users file and groups file.
inline constexpr char kHostPasswdFile[] = "/etc/passwd";
inline constexpr char kHostGroupFile[] = "/etc/group";

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

/// Throws `std::system_error` when a file of users or groups that counts cannot be read, or has a
/// line that does not parse. Whoever else asks goes on without such a line.
void RequireWholeAccountFiles();

/// The uids in the given range, ends included, each once and in ascending order: those of the users
/// file and, when that is the host's own, those that NSS lists besides. Throws `std::system_error`.
std::vector<std::uint32_t> ListUids(std::uint32_t lowest, std::uint32_t highest);
/// The same for gids and the groups file.
std::vector<std::uint32_t> ListGids(std::uint32_t lowest, std::uint32_t highest);

/// The gids of a user's groups, each once and in ascending order: the primary group's, whether or
/// not there is such a group, and those of all groups in whose lists of members the user is. A name
/// in such a list is that of the account that `FindUser` finds by it.
///
/// Which lists count depends on where the user comes from. For one of a file of virtual users it is
/// the groups file that the configuration names, and nothing else: that the host has a user of the
/// same name, who may be an administrator there, gives the virtual one nothing. For the host's own
/// users it is that file, the host's own besides when that is another, and what each of the host's
/// name services answers. Throws `std::runtime_error` when one of these cannot tell.
std::vector<std::uint32_t> GroupsOf(const velamailserver::velasdk::AccountEntry& user);

}  // namespace quillon::platform
