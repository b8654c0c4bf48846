#pragma once

#include <stdexcept>
#include <string>

#include <velamailserver/visibility.h>

namespace velamailserver::velasdk {

/// The lock is held by somebody else.
class VELAMAILSERVER_EXPORT FileLockHeld : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Holds an exclusive advisory lock on a whole file for the lifetime of the object. A child process
/// that is forked meanwhile holds it, too, until it ends or executes another program.
class FileLockGuard {
 public:
  /// Takes the lock without waiting. The file is created if it is missing; so is the last folder of
  /// the path, by root only. The file must be a regular file, its folder a real one that is owned
  /// by root and that nobody else may write to: a link in the place of either is never followed.
  /// Throws `FileLockHeld` when another holder has the lock, in this process or another, and
  /// `LogException` with `ERR_OPEN_FILE`, naming the path, for every other failure.
  explicit FileLockGuard(const std::string& path);
  FileLockGuard(const FileLockGuard&) = delete;
  FileLockGuard& operator=(const FileLockGuard&) = delete;
  ~FileLockGuard();

 private:
  int fd_;
};

}  // namespace velamailserver::velasdk
