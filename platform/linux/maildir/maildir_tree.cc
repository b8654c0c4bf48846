#include "maildir/maildir_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <system_error>
#include <tuple>

#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "maildir/tree_walk.h"
#include "utils/excerpt.h"
#include "utils/saturating_add.h"

namespace quillon::platform {

namespace {

using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/maildir/maildir_tree";
constexpr int kNotEnteredLine = 47;
constexpr int kNotReadLine = 53;
constexpr int kWayLostLine = 58;
constexpr int kNotStattedLine = 74;
constexpr int kNotRemovedLine = 121;

constexpr char kMoved[] = "moved or replaced meanwhile";

// The reason, which follows it, must not fall off the end of a log record.
constexpr std::size_t kMostPathBytes = 4096;

// In the order in which they go.
constexpr std::array kMaildirFolders = {"tmp", "new", "cur"};

std::string Message(const std::string& path, const std::string& reason) {
  return Excerpt(path, kMostPathBytes) + ": " + reason;
}

std::string Reason(int error) { return std::generic_category().message(error); }

bool IsReplaced(int error) { return error == ENOTDIR || error == ELOOP; }

class Measuring final : private TreeWalk {
 public:
  explicit Measuring(const std::string& path) : TreeWalk(path) {}

  MaildirContents Measure(const FileDescriptor& maildir) {
    Walk(maildir);
    return contents_;
  }

 private:
  [[noreturn]] static void Fail(ErrorCode code, int line, const std::string& path,
                                const std::string& reason) {
    throw LogException(code, Message(path, reason), 3, kSourceFile, line);
  }

  bool Visit(const char* name, unsigned char type) override {
    if (type != DT_REG && type != DT_UNKNOWN) {
      return type == DT_DIR;
    }
    // It tells of a mount point what fstatat does not, in the same time.
    struct statx status {};
    if (::statx(Folder(), name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS,
                &status) != 0) {
      if (errno != ENOENT) {
        Fail(velamailserver::ERR_LSTAT_FILE, kNotStattedLine, PathOf(name), Reason(errno));
      }
      return false;
    }
    const bool is_mounted = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    if (S_ISREG(status.stx_mode) && !is_mounted) {
      Count(name, status);
    }
    return S_ISDIR(status.stx_mode);
  }

  void Leave(const char* /*name*/) override {}

  void CannotEnter(const char* name, int error) override {
    if (error != ENOENT && !IsReplaced(error) && error != EXDEV) {
      Fail(velamailserver::ERR_SDK_FILE_ENUM_DIR, kNotEnteredLine, PathOf(name), Reason(error));
    }
  }

  void CannotRead(int error) override {
    Fail(velamailserver::ERR_SDK_FILE_ENUM_DIR, kNotReadLine, FolderPath(), Reason(error));
  }

  void LoseWay() override {
    Fail(velamailserver::ERR_SDK_FILE_ENUM_DIR, kWayLostLine, FolderPath(), kMoved);
  }

  void Count(const char* name, const struct statx& status) {
    const bool is_in_messages = FolderName() == "cur" || FolderName() == "new";
    if (is_in_messages && name[0] != '.') {
      ++contents_.messages;
    }
    if (status.stx_nlink == 1 || IsFirstName(status)) {
      contents_.bytes = SaturatingAdd(contents_.bytes, status.stx_size);
    }
  }

  bool IsFirstName(const struct statx& status) {
    return linked_.emplace(status.stx_dev_major, status.stx_dev_minor, status.stx_ino).second;
  }

  MaildirContents contents_;
  // The files with several names that were met: device and inode.
  std::set<std::tuple<unsigned, unsigned, unsigned long long>> linked_;
};

class Removal final : private TreeWalk {
 public:
  explicit Removal(const std::string& path) : TreeWalk(path) {}

  bool Remove(const FileDescriptor& parent, const std::string& name,
              const FileDescriptor& maildir) {
    Walk(maildir);
    if (left_ == 0 && !RemoveMaildirItself(parent, name, maildir)) {
      PutFoldersBack(maildir);
    }
    if (left_ > 0) {
      maillog(4, "%s:%d not removed, %llu left: %s", kSourceFile, kNotRemovedLine, left_,
              reason_.c_str());
    }
    return left_ == 0;
  }

 private:
  bool Visit(const char* name, unsigned char type) override {
    if (type == DT_DIR) {
      return true;
    }
    if (Unlink(Folder(), name, 0)) {
      return false;
    }
    if (errno != EISDIR) {
      NoteLeft(name, errno);
      return false;
    }
    return true;
  }

  void Leave(const char* name) override {
    if (!IsInTopFolder() || !IsMaildirFolder(name)) {
      RemoveEntry(Folder(), name, AT_REMOVEDIR);
    }
  }

  void CannotEnter(const char* name, int error) override {
    if (IsReplaced(error)) {
      RemoveEntry(Folder(), name, 0);
    } else if (error != ENOENT) {
      // EXDEV tells a reader less than what the removal of a mount point fails with.
      NoteLeft(name, error == EXDEV ? EBUSY : error);
    }
  }

  void CannotRead(int error) override { NoteFolderLeft(Reason(error)); }
  void LoseWay() override { NoteFolderLeft(kMoved); }

  // The walk is over, so that `FolderPath` is that of the mail directory.
  bool RemoveMaildirItself(const FileDescriptor& parent, const std::string& name,
                           const FileDescriptor& maildir) {
    for (const char* folder : kMaildirFolders) {
      if (!RemoveEntry(maildir.Get(), folder, AT_REMOVEDIR)) {
        return false;
      }
    }
    struct stat status {};
    const bool is_known = ::fstat(maildir.Get(), &status) == 0;
    if (is_known && status.st_nlink == 0) {
      return true;  // somebody else was faster
    }
    if (!is_known || !IsEntry(parent, name, status)) {
      NoteFolderLeft(kMoved);
      return false;
    }
    if (!Unlink(parent.Get(), name.c_str(), AT_REMOVEDIR)) {
      NoteFolderLeft(Reason(errno));
      return false;
    }
    return true;
  }

  // A mail directory in which something new has turned up must not look like none for that.
  static void PutFoldersBack(const FileDescriptor& maildir) {
    for (const char* folder : kMaildirFolders) {
      ::mkdirat(maildir.Get(), folder, 0700);
    }
  }

  static bool IsMaildirFolder(std::string_view name) {
    return std::find(kMaildirFolders.begin(), kMaildirFolders.end(), name) != kMaildirFolders.end();
  }

  static bool IsEntry(const FileDescriptor& parent, const std::string& name,
                      const struct stat& folder) {
    struct stat entry {};
    return ::fstatat(parent.Get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
           entry.st_dev == folder.st_dev && entry.st_ino == folder.st_ino;
  }

  // Answers whether it is gone, else errno has the reason.
  static bool Unlink(int folder, const char* name, int flags) {
    return ::unlinkat(folder, name, flags) == 0 || errno == ENOENT;
  }

  // The same, but it is noted.
  bool RemoveEntry(int folder, const char* name, int flags) {
    if (Unlink(folder, name, flags)) {
      return true;
    }
    NoteLeft(name, errno);
    return false;
  }

  // A path is made for the first one only: far below, paths are so long that a removal would do
  // little else.
  void NoteLeft(const char* name, int error) {
    if (left_ == 0) {
      reason_ = Message(PathOf(name), Reason(error));
    }
    ++left_;
  }

  void NoteFolderLeft(const std::string& reason) {
    if (left_ == 0) {
      reason_ = Message(FolderPath(), reason);
    }
    ++left_;
  }

  unsigned long long left_ = 0;
  std::string reason_;  // of the first thing that is left
};

}  // namespace

MaildirContents MeasureTree(const FileDescriptor& maildir, const std::string& path) {
  return Measuring(path).Measure(maildir);
}

bool RemoveTree(const FileDescriptor& parent, const std::string& name,
                const FileDescriptor& maildir, const std::string& path) {
  return Removal(path).Remove(parent, name, maildir);
}

}  // namespace quillon::platform
