#pragma once

#include <sys/stat.h>

#include <ctime>
#include <utility>

namespace quillon::platform {

/// What tells one state of a file from another without reading it.
struct FileState {
  /// The state that stat() told.
  explicit FileState(const struct stat& status)
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        modified{status.st_mtim.tv_sec, status.st_mtim.tv_nsec},
        changed{status.st_ctim.tv_sec, status.st_ctim.tv_nsec} {}
  ///@{
  /// Whether nothing shows that the file was changed or replaced in between.
  bool operator==(const FileState& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified == other.modified && changed == other.changed;
  }
  bool operator!=(const FileState& other) const { return !(*this == other); }
  ///@}

  dev_t device;                      ///< of the file system
  ino_t inode;                       ///< the file's number there
  off_t size;                        ///< bytes
  std::pair<time_t, long> modified;  ///< when its content was: seconds, nanoseconds
  std::pair<time_t, long> changed;   ///< when anything of it was, which nobody can set
};

}  // namespace quillon::platform
