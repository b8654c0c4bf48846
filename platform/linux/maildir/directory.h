#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <memory>

#include "utils/file_descriptor.h"

namespace quillon::platform {

/// How a folder is opened for reading whose owner may put anything in its place: a link is not
/// followed, a pipe or a device not waited for.
inline constexpr int kReadFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

/// Reads the entries of an open folder, or of none.
class Directory {
 public:
  Directory() = default;
  /// Of none, with errno as it was, when the descriptor is none; and when it is not that of a
  /// folder, with errno.
  explicit Directory(FileDescriptor folder);

  bool IsOpen() const { return stream_ != nullptr; }
  int Get() const { return ::dirfd(stream_.get()); }

  /// The next entry other than "." and "..", until the next call. Null at the end, with an errno of
  /// 0, and when it cannot be read. A folder that was removed meanwhile is at its end.
  const dirent* Next();

  /// Where reading goes on, and may be taken up again by another reader of the same folder.
  long Position() const { return ::telldir(stream_.get()); }
  void Seek(long position) { ::seekdir(stream_.get(), position); }

 private:
  struct Close {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };

  std::unique_ptr<DIR, Close> stream_;
};

}  // namespace quillon::platform
