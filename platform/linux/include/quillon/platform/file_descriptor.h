#pragma once

#include <unistd.h>

#include <utility>

namespace quillon::platform {

/// Owns an open file descriptor, or none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes the descriptor over; none when it is negative.
  explicit FileDescriptor(int fd) : fd_(fd) {}
  /// Leaves none in `other`.
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.Release()) {}
  /// The old descriptor goes with `other`.
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }

  /// Whether it owns one.
  bool IsOpen() const { return fd_ >= 0; }
  /// The descriptor, which stays its own; -1 for none.
  int Get() const { return fd_; }
  /// Gives the descriptor up to the caller.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace quillon::platform
