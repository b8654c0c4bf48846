#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillon::platform {

/// What is in a mail directory.
struct MaildirContents {
  unsigned long long bytes = 0;     ///< of all regular files, each once: what removal frees
  unsigned long long messages = 0;  ///< files in "cur" and "new" of every folder
};

/// Looks through the mail directory at a path below the maildir root. Needs root. Answers nothing
/// when there is no mail directory. Throws `LogException` when it cannot be read. Safe for use from
/// several threads.
std::optional<MaildirContents> MeasureMaildir(const std::string& path);

/// Throws `LogException` with `ERR_SDK_USER_ENUM` when it cannot be found out whose a directory is,
/// because an accounts file or a name service cannot be used: every directory is somebody's then,
/// and a scan finds none. Needs what reading the accounts files needs.
void RequireKnownOwners();

/// How many recounts of the ownerless mail directories were brought to their end, 0 before the
/// first. Never falls. Throws `LogException` when the cache cannot be read.
std::uint64_t NoOwnerUsageGeneration();

/// Whether somebody holds the lock of the usage counts at this moment. Does not touch the lock.
/// Throws `LogException` with `ERR_OPEN_FILE` when that cannot be found out.
bool IsUsageCountRunning();

}  // namespace quillon::platform
