#include "doctor/ownership.h"

#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "doctor/check.h"
#include "shell_word.h"

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return status;
}

void RequireRootsOwn(const std::string& path) {
  const struct stat status = StatusOf(path);
  const std::string word = ShellWord(path);
  if (S_ISLNK(status.st_mode)) {
    throw Problem(path + " is a link", "put what it leads to in its place, or name that");
  }
  if (status.st_uid != 0) {
    throw Problem(fmt::format("{} belongs to uid {}", path, status.st_uid), "chown root " + word);
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    const bool is_for_everybody = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    throw Problem("anybody may write to " + path,
                  is_for_everybody
                      ? "if everybody is to use this folder, have another one for what "
                        "is root's; if not, chmod o-w " +
                            word
                      : "chmod o-w " + word);
  }
  if ((status.st_mode & S_IWGRP) != 0 && (status.st_mode & S_ISVTX) == 0) {
    throw Problem(fmt::format("the group {} may change what is in {}", status.st_gid, path),
                  (S_ISDIR(status.st_mode) ? "chmod +t " : "chmod g-w ") + word);
  }
}
