#include "maildir/maildir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>

#include <quillon/platform/configuration.h>
#include <quillon/platform/maildir_folder.h>
#include <velamailserver/account/maildir.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_user.h>

#include "maildir/directory.h"

namespace quillon::platform {

namespace {

using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/maildir/maildir";
constexpr int kRootLine = 44;
constexpr int kDomainLine = 51;
constexpr int kFolderLine = 58;
constexpr int kSubfolderLine = 71;
constexpr int kOpenLine = 84;
constexpr int kReadLine = 89;
constexpr int kStatusLine = 96;

constexpr std::array kSubfolders = {"cur", "new", "tmp"};

[[noreturn]] void Fail(int line, const std::string& path,
                       ErrorCode code = velamailserver::ERR_LSTAT_FILE) {
  throw LogException(code, path + ": " + std::generic_category().message(errno), 3, kSourceFile,
                     line);
}

std::string Below(const std::string& folder, const std::string& name) {
  return folder + (folder.ends_with('/') ? "" : "/") + name;
}

FileDescriptor OpenFolder(const FileDescriptor& parent, const std::string& name) {
  return FileDescriptor(
      ::openat(parent.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

FileDescriptor OpenRoot(const std::string& root) {
  FileDescriptor folder(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.IsOpen()) {
    Fail(kRootLine, root + " (maildir.root)");
  }
  return folder;
}

// The domain of the host's own accounts. Holds nothing before its first mail.
FileDescriptor OpenDomain(const std::string& name) {
  const std::string root = MaildirRoot();
  FileDescriptor domain = OpenFolder(OpenRoot(root), name);
  if (!domain.IsOpen() && errno != ENOENT) {
    Fail(kDomainLine, Below(root, name) + " (maildir.domain)");
  }
  return domain;
}

// Holds nothing, and errno is set, when there is no folder of the name.
FileDescriptor OpenFolderIfAny(const FileDescriptor& parent, const std::string& name,
                               const std::string& path) {
  FileDescriptor folder = OpenFolder(parent, name);
  const bool is_absent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  if (!folder.IsOpen() && !is_absent && errno != ENAMETOOLONG) {
    Fail(kFolderLine, path);
  }
  return folder;
}

bool HasFolder(const FileDescriptor& parent, const std::string& name, const std::string& path) {
  struct stat status {};
  if (::fstatat(parent.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISDIR(status.st_mode);
  }
  if (errno != ENOENT) {
    Fail(kSubfolderLine, Below(path, name));
  }
  return false;
}

bool HasAllSubfolders(const FileDescriptor& folder, const std::string& path) {
  return std::all_of(kSubfolders.begin(), kSubfolders.end(),
                     [&](const char* name) { return HasFolder(folder, name, path); });
}

// What a removal that is cut short leaves at last.
bool HasNothingButSubfolders(const FileDescriptor& folder, const std::string& path) {
  Directory directory(FileDescriptor(::openat(folder.Get(), ".", kReadFolder)));
  if (!directory.IsOpen()) {
    Fail(kOpenLine, path, velamailserver::ERR_SDK_FILE_ENUM_DIR);
  }
  while (const dirent* entry = directory.Next()) {
    const std::string name = entry->d_name;
    if (std::count(kSubfolders.begin(), kSubfolders.end(), name) == 0 ||
        !HasFolder(folder, name, path)) {
      return false;
    }
  }
  if (errno != 0) {
    Fail(kReadLine, path, velamailserver::ERR_SDK_FILE_ENUM_DIR);
  }
  return true;
}

bool IsMaildir(const FileDescriptor& folder, const std::string& path) {
  return HasAllSubfolders(folder, path) || HasNothingButSubfolders(folder, path);
}

// The two names that a path has below the root, if it has nothing else.
struct Place {
  std::string domain;
  std::string account;
};

std::optional<Place> PlaceOf(std::string_view path, const std::string& root) {
  const std::string prefix = Below(root, "");
  // The command that scans the disk ends its lines like this.
  if (!path.starts_with(prefix) || path.find('\n') != std::string_view::npos) {
    return std::nullopt;
  }
  path.remove_prefix(prefix.size());
  const auto slash = path.find('/');
  if (slash == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view domain = path.substr(0, slash);
  const std::string_view account = path.substr(slash + 1);
  if (!IsFolderName(domain) || !IsFolderName(account)) {
    return std::nullopt;
  }
  return Place{std::string(domain), std::string(account)};
}

struct stat StatusOf(const FileDescriptor& folder, const std::string& path) {
  struct stat status {};
  if (::fstat(folder.Get(), &status) != 0) {
    Fail(kStatusLine, path);
  }
  return status;
}

}  // namespace

// A scan asks 100,000 times. The root is as good as fixed, but a link on the way to it may turn.
std::string MaildirRoot() {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLookInterval{50};
  static std::mutex mutex;
  static std::string configured;
  static std::string canonical;
  static Clock::time_point looked_at;

  const auto configuration = CurrentConfiguration();
  const std::string& root = configuration->maildir.root;
  const auto now = Clock::now();
  const std::lock_guard lock(mutex);
  if (root != configured || now - looked_at > kLookInterval) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::canonical(root, error);
    if (error) {
      return root;
    }
    configured = root;
    canonical = path.string();
    looked_at = now;
  }
  return canonical;
}

FileDescriptor OpenMaildirRoot() { return OpenRoot(MaildirRoot()); }

bool IsFolderName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::string MaildirFolder() { return Below(MaildirRoot(), CurrentConfiguration()->maildir.domain); }

std::string MaildirPath(const std::string& account) {
  if (!IsFolderName(account)) {
    return "";
  }
  return Below(MaildirFolder(), account);
}

FileDescriptor OpenMaildir(const std::string& account) {
  if (!IsFolderName(account)) {
    return {};
  }
  const FileDescriptor domain = OpenDomain(CurrentConfiguration()->maildir.domain);
  if (!domain.IsOpen()) {
    return {};
  }
  const std::string path = MaildirPath(account);
  FileDescriptor folder = OpenFolderIfAny(domain, account, path);
  return folder.IsOpen() && IsMaildir(folder, path) ? std::move(folder) : FileDescriptor();
}

MaildirAt OpenMaildirAt(const std::string& path) {
  MaildirAt maildir;
  const std::string root = MaildirRoot();
  const auto place = PlaceOf(path, root);
  if (!place) {
    return maildir;
  }
  FileDescriptor folder;
  FileDescriptor domain = OpenFolderIfAny(OpenRoot(root), place->domain, path);
  if (domain.IsOpen()) {
    folder = OpenFolderIfAny(domain, place->account, path);
  }
  if (!folder.IsOpen()) {
    maildir.state = errno == ENOENT ? MaildirAt::kAbsent : MaildirAt::kNone;
    return maildir;
  }
  if (!IsMaildir(folder, path)) {
    return maildir;
  }
  const struct stat status = StatusOf(folder, path);
  return {.state = MaildirAt::kMaildir,
          .domain_name = place->domain,
          .account = place->account,
          .domain = std::move(domain),
          .folder = std::move(folder),
          .uid = status.st_uid,
          .inode = status.st_ino};
}

}  // namespace quillon::platform

namespace velamailserver::account {

Maildir::Maildir(unsigned int user_id) {
  account = velasdk::VelaUser(user_id).Name();
  uid = user_id;
  path = quillon::platform::MaildirPath(account);
  flag = quillon::platform::OpenMaildir(account).IsOpen();
}

}  // namespace velamailserver::account
