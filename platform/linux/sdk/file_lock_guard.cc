#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "utils/file_descriptor.h"

namespace velamailserver::velasdk {

namespace {

using quillon::platform::FileDescriptor;

constexpr char kSourceFile[] = "platform/linux/sdk/file_lock_guard";
constexpr int kBadPathLine = 38;
constexpr int kMakeFolderFailedLine = 50;
constexpr int kOpenFolderFailedLine = 58;
constexpr int kForeignFolderLine = 64;
constexpr int kWritableFolderLine = 67;
constexpr int kOpenFileFailedLine = 81;
constexpr int kNotAFileLine = 88;
constexpr int kLockFailedLine = 99;

[[noreturn]] void Fail(int line, const std::string& path, const std::string& reason) {
  throw LogException(ERR_OPEN_FILE, path + ": " + reason, 3, kSourceFile, line);
}

std::string Reason(int error) { return std::generic_category().message(error); }

bool IsLink(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

std::string FolderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == path.size()) {
    Fail(kBadPathLine, path, "is not the path of a file in a folder");
  }
  return path.substr(0, slash);
}

// The folder may lie in one that everybody writes to: what somebody else has put in its place must
// not decide where root opens a file.
FileDescriptor OpenFolder(const std::string& path) {
  if (::geteuid() == 0 && ::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    Fail(kMakeFolderFailedLine, path, Reason(errno));
  }
  FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder.IsOpen() || ::fstat(folder.Get(), &status) != 0) {
    const int error = errno;
    const bool is_for_root = error == ENOENT && ::geteuid() != 0;
    Fail(kOpenFolderFailedLine, path,
         IsLink(path) ? "is a link" : Reason(error) + (is_for_root ? " (root creates it)" : ""));
  }
  if (status.st_uid != 0) {
    Fail(kForeignFolderLine, path, "is not owned by root");
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    Fail(kWritableFolderLine, path, "may be written to by others than root");
  }
  return folder;
}

FileDescriptor OpenFile(const std::string& path) {
  const std::string folder_path = FolderOf(path);
  const FileDescriptor folder = OpenFolder(folder_path);
  const std::string name = path.substr(folder_path.size() + 1);
  FileDescriptor file(::openat(folder.Get(), name.c_str(),
                               O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                               0600));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    Fail(kOpenFileFailedLine, path, errno == ELOOP ? "is a link" : Reason(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    Fail(kNotAFileLine, path, "is not a regular file");
  }
  return file;
}

FileDescriptor Lock(const std::string& path) {
  FileDescriptor file = OpenFile(path);
  int result = 0;
  do {
    result = ::flock(file.Get(), LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result != 0 && errno == EWOULDBLOCK) {
    throw FileLockHeld(path + " is locked by another holder");
  }
  if (result != 0) {
    Fail(kLockFailedLine, path, Reason(errno));
  }
  return file;
}

}  // namespace

FileLockGuard::FileLockGuard(const std::string& path) : fd_(Lock(path).Release()) {}

FileLockGuard::~FileLockGuard() { ::close(fd_); }

}  // namespace velamailserver::velasdk
