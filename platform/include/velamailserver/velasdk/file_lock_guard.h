#pragma once

#include <stdexcept>
#include <string>

namespace velamailserver::velasdk {

/// The lock is held by somebody else.
class FileLockHeld : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Holds an exclusive advisory lock on a whole file for the lifetime of the object.
class FileLockGuard {
 public:
  /// Takes the lock without waiting and creates the file if it is missing; a link in its place is
  /// never followed. Throws `FileLockHeld` when another holder has the lock, in this process or
  /// another, and `LogException` with `ERR_OPEN_FILE` for every other failure.
  explicit FileLockGuard(const std::string& path);
  FileLockGuard(const FileLockGuard&) = delete;
  FileLockGuard& operator=(const FileLockGuard&) = delete;
  ~FileLockGuard();

 private:
  int fd_;
};

}  // namespace velamailserver::velasdk
