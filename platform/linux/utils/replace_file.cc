#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>

#include <quillon/platform/replace_file.h>

#include "utils/file_descriptor.h"
#include "utils/file_text.h"

namespace quillon::platform {

namespace {

bool WriteAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    if (written > 0) {
      content.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  return true;
}

}  // namespace

void ReplaceFile(const std::string& path, std::string_view content, mode_t mode) {
  const std::filesystem::path target(path);
  const std::string name = target.filename();
  const std::string draft = name + ".new";
  const FileDescriptor folder(
      ::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.IsOpen()) {
    throw FileError(errno, target.parent_path());
  }
  // Whoever was killed in the middle has left one.
  ::unlinkat(folder.Get(), draft.c_str(), 0);
  const FileDescriptor file(::openat(folder.Get(), draft.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file.IsOpen()) {
    throw FileError(errno, path + ".new");
  }
  if (::fchmod(file.Get(), mode) != 0 || !WriteAll(file.Get(), content) ||
      ::fsync(file.Get()) != 0 ||
      ::renameat(folder.Get(), draft.c_str(), folder.Get(), name.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(folder.Get(), draft.c_str(), 0);
    throw FileError(error, path);
  }
  if (::fsync(folder.Get()) != 0) {
    throw FileError(errno, target.parent_path());
  }
}

}  // namespace quillon::platform
