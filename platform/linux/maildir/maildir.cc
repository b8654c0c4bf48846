#include "maildir/maildir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/maildir.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_user.h>

namespace quillon::platform {

namespace {

using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/maildir/maildir";
constexpr int kRootLine = 44;
constexpr int kDomainLine = 51;
constexpr int kFolderLine = 58;
constexpr int kSubfolderLine = 71;

bool IsFolderName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

[[noreturn]] void Fail(int line, const std::string& path) {
  throw LogException(velamailserver::ERR_LSTAT_FILE,
                     path + ": " + std::generic_category().message(errno), 3, kSourceFile, line);
}

std::string DomainPath(const Configuration::Maildir& maildir) {
  return maildir.root + (maildir.root.ends_with('/') ? "" : "/") + maildir.domain;
}

FileDescriptor OpenFolder(const FileDescriptor& parent, const std::string& name) {
  return FileDescriptor(
      ::openat(parent.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Holds nothing before the first mail of the domain. A missing root is an error: with a disk that
// is not mounted, or a slip in the configuration, all users would seem to have no mail.
FileDescriptor OpenDomain(const Configuration::Maildir& maildir) {
  const FileDescriptor root(::open(maildir.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.IsOpen()) {
    Fail(kRootLine, maildir.root + " (maildir.root)");
  }
  FileDescriptor domain = OpenFolder(root, maildir.domain);
  if (!domain.IsOpen() && errno != ENOENT) {
    Fail(kDomainLine, DomainPath(maildir) + " (maildir.domain)");
  }
  return domain;
}

FileDescriptor OpenAccount(const FileDescriptor& domain, const std::string& account,
                           const std::string& path) {
  FileDescriptor folder = OpenFolder(domain, account);
  const bool is_absent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  if (!folder.IsOpen() && !is_absent && errno != ENAMETOOLONG) {
    Fail(kFolderLine, path);
  }
  return folder;
}

bool HasFolder(const FileDescriptor& parent, const char* name, const std::string& path) {
  struct stat status {};
  if (::fstatat(parent.Get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISDIR(status.st_mode);
  }
  if (errno != ENOENT) {
    Fail(kSubfolderLine, path + "/" + name);
  }
  return false;
}

}  // namespace

std::string MaildirPath(const std::string& account) {
  if (!IsFolderName(account)) {
    return "";
  }
  return DomainPath(CurrentConfiguration()->maildir) + "/" + account;
}

FileDescriptor OpenMaildir(const std::string& account) {
  if (!IsFolderName(account)) {
    return {};
  }
  const FileDescriptor domain = OpenDomain(CurrentConfiguration()->maildir);
  if (!domain.IsOpen()) {
    return {};
  }
  const std::string path = MaildirPath(account);
  FileDescriptor folder = OpenAccount(domain, account, path);
  for (const char* name : {"cur", "new", "tmp"}) {
    if (!folder.IsOpen() || !HasFolder(folder, name, path)) {
      return {};
    }
  }
  return folder;
}

}  // namespace quillon::platform

namespace velamailserver::account {

Maildir::Maildir(unsigned int user_id) {
  const std::string account = velasdk::VelaUser(user_id).Name();
  uid = user_id;
  path = quillon::platform::MaildirPath(account);
  flag = quillon::platform::OpenMaildir(account).IsOpen();
}

}  // namespace velamailserver::account
