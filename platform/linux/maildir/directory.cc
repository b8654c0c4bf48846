#include "maildir/directory.h"

#include <cerrno>
#include <string_view>

namespace quillon::platform {

Directory::Directory(FileDescriptor folder) {
  if (!folder.IsOpen()) {
    return;
  }
  stream_.reset(::fdopendir(folder.Get()));
  if (stream_ != nullptr) {
    static_cast<void>(folder.Release());
  }
}

const dirent* Directory::Next() {
  while (true) {
    errno = 0;
    const dirent* const entry = ::readdir(stream_.get());
    if (entry == nullptr) {
      errno = errno == ENOENT ? 0 : errno;
      return nullptr;
    }
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      return entry;
    }
  }
}

}  // namespace quillon::platform
