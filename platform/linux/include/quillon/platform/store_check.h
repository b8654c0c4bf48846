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
  std::string name;   ///< of the account
  std::uint32_t uid;  ///< the user's number
  std::uint32_t gid;  ///< of the primary group
  std::string home;   ///< the mail directory
  std::string limit;  ///< the effective limit: bytes in decimal; empty for none
};

/// All of them, by ascending uid. Throws `LogException`.
std::vector<StoredMailUser> StoredMailUsers();

/// Writes an entry into the usage store, one that is nobody's and soon goes by itself, as the user
/// that this process is. Throws `LogException`, naming the server.
void CheckUsageStore();

/// By how many seconds the clock of the usage store's server is ahead of this host's, give or take
/// half a second; nothing when it does not tell (a sharding proxy, or a server that fails, which
/// the mail log has).
std::optional<double> ClockOffsetOfUsageStore();

}  // namespace quillon::platform
