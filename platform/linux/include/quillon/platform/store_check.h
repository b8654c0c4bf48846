#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quillon::platform {

/// Writes to the quota store what is there already, as the user that this process is. Throws
/// `LogException` that says what is wrong with it.
void CheckQuotaStore();

/// A mail user as the quota store has it for a mail server: a row of its view "mail_user_quota".
struct StoredMailUser {
  std::string name;     ///< of the account
  std::uint32_t uid;    ///< the user's number
  std::uint32_t gid;    ///< of the primary group
  std::string home;     ///< the mail directory
  std::string limit;    ///< the effective limit: bytes in decimal; empty for none
  std::string warning;  ///< the user's own warning level, likewise
};

/// All of them, by ascending uid. Throws `LogException`.
std::vector<StoredMailUser> StoredMailUsers();

/// Writes an entry into the usage store, one that is nobody's and soon goes by itself, as the user
/// that this process is. Answers by how many seconds the server's clock is ahead of this host's;
/// nothing when it cannot tell (a sharding proxy). Throws `LogException`, naming the server.
std::optional<double> CheckUsageStore();

}  // namespace quillon::platform
