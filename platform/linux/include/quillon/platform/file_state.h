#pragma once

#include <sys/stat.h>

#include <ctime>
#include <utility>

namespace quillon::platform {

/// What tells one state of a file from another without reading it.
struct FileState {
  explicit FileState(const struct stat& status)
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        modified{status.st_mtim.tv_sec, status.st_mtim.tv_nsec},
        changed{status.st_ctim.tv_sec, status.st_ctim.tv_nsec} {}
  bool operator==(const FileState& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified == other.modified && changed == other.changed;
  }
  bool operator!=(const FileState& other) const { return !(*this == other); }

  dev_t device;
  ino_t inode;
  off_t size;
  std::pair<time_t, long> modified;
  std::pair<time_t, long> changed;
};

}  // namespace quillon::platform
