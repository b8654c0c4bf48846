#pragma once

#include <string>
#include <vector>

#include <velamailserver/velasdk/vela_user.h>

namespace quillon::platform {

/// The lock file that all usage counts of the host share: only one of them runs at a time.
inline constexpr char kUsageCountLockFile[] = "/var/lock/quillon_server/run_count_usage.lock";

/// What one user's mail directory was counted to hold.
struct CountedUsage {
  std::string name;              ///< the user's real name
  unsigned long long bytes = 0;  ///< of the messages of every folder; 0 without a mail directory
};

/// Counts the mail of every user and stores the figures in the usage store, in one go at the end,
/// holding the lock of the usage counts throughout. Answers the figures in the order of `users`.
/// Safe for use from several threads, of which one counts.
///
/// Throws `velamailserver::velasdk::FileLockHeld` when another count is running (nothing is counted
/// then) and `LogException` when the lock cannot be taken for another reason (`ERR_OPEN_FILE`) or a
/// directory cannot be read (`ERR_LSTAT_FILE`, `ERR_SDK_FILE_ENUM_DIR`; nothing is stored then), or
/// when the usage store fails (some figures may be stored then).
std::vector<CountedUsage> CountUsage(const std::vector<velamailserver::velasdk::VelaUser>& users);

}  // namespace quillon::platform
