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

/// What came of a usage count.
struct UsageCount {
  std::vector<CountedUsage> counted;  ///< the figures that were stored, in the order of the users
  /// The real names of the others, in the same order: each time they were counted their entry in
  /// the usage store changed meanwhile, so the mail server keeps it, and it is as that has it.
  std::vector<std::string> kept;
};

/// Counts the mail of every user and stores the figures in the usage store, a hundred users at a
/// time, holding the lock of the usage counts throughout. A user whose entry in the usage store has
/// changed since before the count is counted again, five times at most. Safe for use from several
/// threads, of which one counts.
///
/// Throws `velamailserver::velasdk::FileLockHeld` when another count is running (nothing is counted
/// then) and `LogException` when the lock cannot be taken for another reason (`ERR_OPEN_FILE`; the
/// same), when a directory cannot be read (`ERR_LSTAT_FILE`, `ERR_SDK_FILE_ENUM_DIR`) or when the
/// usage store fails (`ERR_BAD_DB_SESSION`). Some figures may be stored then.
UsageCount CountUsage(const std::vector<velamailserver::velasdk::VelaUser>& users);

}  // namespace quillon::platform
