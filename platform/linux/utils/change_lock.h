#pragma once

#include <string>

#include <velamailserver/velasdk/file_lock_guard.h>

namespace quillon::platform {

/// Keeps other processes from changing a file, as long as they ask, too, and while the result
/// lives. Waits for them for 5 seconds. The lock is on a file of root's beside it, `path` +
/// ".lock": one on the folder, which everybody may open, could be held by anybody. Throws
/// `std::runtime_error`.
velamailserver::velasdk::FileLockGuard LockForChange(const std::string& path);

}  // namespace quillon::platform
