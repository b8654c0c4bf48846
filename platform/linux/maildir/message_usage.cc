#include "maildir/message_usage.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "maildir/directory.h"
#include "utils/decimal.h"
#include "utils/saturating_add.h"

namespace quillon::platform {

namespace {

using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/maildir/message_usage";
constexpr int kOpenFailedLine = 52;
constexpr int kReadFailedLine = 66;
constexpr int kStatFailedLine = 84;
constexpr int kTooDeepLine = 117;

// Every level holds a descriptor while what is below it is counted.
constexpr int kDeepestLevel = 64;

// Counts one mail directory; `path_` is that of the directory being read.
class Counter {
 public:
  explicit Counter(std::string path) : path_(std::move(path)) {}

  unsigned long long Count(int maildir) {
    CountFolder(maildir, ".", 0);
    return bytes_;
  }

 private:
  [[noreturn]] void Fail(ErrorCode code, int line, const std::string& path) const {
    throw LogException(code, path + ": " + std::generic_category().message(errno), 3, kSourceFile,
                       line);
  }

  // Not open when the directory has vanished or been replaced by something else.
  Directory Open(int parent, const char* name) const {
    Directory directory(FileDescriptor(::openat(parent, name, kReadFolder)));
    if (!directory.IsOpen() && errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
      Fail(velamailserver::ERR_SDK_FILE_ENUM_DIR, kOpenFailedLine, path_);
    }
    return directory;
  }

  const dirent* Next(Directory& directory) const {
    const dirent* const entry = directory.Next();
    if (entry == nullptr && errno != 0) {
      Fail(velamailserver::ERR_SDK_FILE_ENUM_DIR, kReadFailedLine, path_);
    }
    return entry;
  }

  // Nothing when the entry has vanished.
  std::optional<struct stat> Status(const Directory& directory, const char* name) const {
    struct stat status {};
    if (::fstatat(directory.Get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      return status;
    }
    if (errno != ENOENT) {
      Fail(velamailserver::ERR_LSTAT_FILE, kStatFailedLine, path_ + "/" + name);
    }
    return std::nullopt;
  }

  bool IsFolder(const Directory& directory, const dirent& entry) const {
    if (entry.d_type != DT_UNKNOWN) {
      return entry.d_type == DT_DIR;
    }
    const auto status = Status(directory, entry.d_name);
    return status && S_ISDIR(status->st_mode);
  }

  // NOLINTNEXTLINE(misc-no-recursion): not below the deepest level
  void CountFolder(int parent, const char* name, int level) {
    Directory directory = Open(parent, name);
    if (!directory.IsOpen()) {
      return;
    }
    while (const dirent* entry = Next(directory)) {
      const std::string_view child = entry->d_name;
      if (child == "tmp" || !IsFolder(directory, *entry)) {
        continue;
      }
      const std::size_t length = path_.size();
      path_.append("/").append(child);
      if (child == "cur" || child == "new") {
        CountMessages(directory.Get(), entry->d_name);
      } else if (level < kDeepestLevel) {
        CountFolder(directory.Get(), entry->d_name, level + 1);
      } else {
        LogTooDeep();
      }
      path_.resize(length);
    }
  }

  void CountMessages(int folder, const char* name) {
    Directory directory = Open(folder, name);
    if (!directory.IsOpen()) {
      return;
    }
    while (const dirent* entry = Next(directory)) {
      if (entry->d_name[0] != '.') {
        bytes_ = SaturatingAdd(bytes_, MessageSize(directory, *entry));
      }
    }
  }

  // 0 for what is not a regular file. The name tells the size without a system call.
  unsigned long long MessageSize(const Directory& directory, const dirent& entry) const {
    if (entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN) {
      return 0;
    }
    const auto size_in_name = SizeInName(entry.d_name);
    if (size_in_name && entry.d_type == DT_REG) {
      return *size_in_name;
    }
    const auto status = Status(directory, entry.d_name);
    if (!status || !S_ISREG(status->st_mode)) {
      return 0;
    }
    return size_in_name.value_or(static_cast<unsigned long long>(status->st_size));
  }

  // Once: the owner may have made any number of such folders.
  void LogTooDeep() {
    if (!is_too_deep_) {
      maillog(4, "%s:%d not counted, too deep: %s", kSourceFile, kTooDeepLine, path_.c_str());
    }
    is_too_deep_ = true;
  }

  std::string path_;
  unsigned long long bytes_ = 0;
  bool is_too_deep_ = false;
};

}  // namespace

std::optional<unsigned long long> SizeInName(std::string_view file_name) {
  constexpr std::string_view kField = ",S=";
  const std::string_view name = file_name.substr(0, file_name.find(':'));
  const auto field = name.find(kField);
  if (field == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view size = name.substr(field + kField.size());
  return ParseDecimal<unsigned long long>(size.substr(0, size.find(',')));
}

unsigned long long CountMessageBytes(const FileDescriptor& maildir, const std::string& path) {
  return Counter(path).Count(maildir.Get());
}

}  // namespace quillon::platform
