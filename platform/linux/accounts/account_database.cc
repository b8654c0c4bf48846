#include "accounts/account_database.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_state.h>
#include <velamailserver/maillog.h>

#include "accounts/account_lines.h"
#include "accounts/account_table.h"
#include "utils/file_text.h"

namespace quillon::platform {

namespace {

using Entry = velamailserver::velasdk::AccountEntry;
using SharedEntry = std::shared_ptr<const Entry>;
using SharedTable = std::shared_ptr<const AccountTable>;

constexpr char kSourceFile[] = "platform/linux/accounts/account_database";
constexpr int kBrokenLineLine = 41;

// A file of accounts that is read again when it has changed. Looking whether it has costs as much
// as everything else in a lookup, so that is done at most every 50 ms, and whenever a lookup finds
// nothing.
class AccountFile {
 public:
  enum Freshness { kRecent, kNow };

  using Path = const std::string& (*)(const Configuration::Accounts& settings);

  AccountFile(Path path_of, AccountLines::Format format) : path_of_(path_of), format_(format) {}

  SharedTable Table(Freshness freshness) {
    const auto configuration = CurrentConfiguration();
    const std::string& path = path_of_(configuration->accounts);
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    if (freshness == kNow || table_ == nullptr || path != path_ ||
        now - looked_at_ > kLookInterval) {
      Refresh(path);
      looked_at_ = now;
    }
    return table_;
  }

 private:
  static constexpr std::chrono::milliseconds kLookInterval{50};

  void Refresh(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      throw FileError(errno, path);
    }
    if (table_ != nullptr && path == path_ && FileState(status) == state_) {
      return;
    }
    const FileText file = ReadAccountFile(path);
    table_ = std::make_shared<const AccountTable>(file.text, format_);
    path_ = path;
    state_ = FileState(file.status);
    if (table_->broken_line() != 0) {
      maillog(4, "%s:%d %s:%zu is not an account entry, it is left out", kSourceFile,
              kBrokenLineLine, path.c_str(), table_->broken_line());
    }
  }

  const Path path_of_;
  const AccountLines::Format format_;
  std::mutex mutex_;
  std::string path_;
  FileState state_{{}};
  SharedTable table_;
  std::chrono::steady_clock::time_point looked_at_;
};

AccountFile& Users() {
  using Settings = Configuration::Accounts;
  static AccountFile file([](const Settings& s) -> const std::string& { return s.passwd_file; },
                          AccountLines::kPasswd);
  return file;
}

AccountFile& Groups() {
  using Settings = Configuration::Accounts;
  static AccountFile file([](const Settings& s) -> const std::string& { return s.group_file; },
                          AccountLines::kGroup);
  return file;
}

// The host's own, beside a file of virtual users.
AccountFile& HostUsers() {
  static const std::string path = kHostPasswdFile;
  static AccountFile file([](const Configuration::Accounts&) -> const std::string& { return path; },
                          AccountLines::kPasswd);
  return file;
}

// As it is now, to its last line.
SharedTable WholeTable(AccountFile& file, const std::string& path) {
  SharedTable table = file.Table(AccountFile::kNow);
  if (table->broken_line() != 0) {
    throw FileError(EINVAL, path,
                    fmt::format("line {} is not an account entry", table->broken_line()));
  }
  return table;
}

template <typename Key>
SharedEntry FindInFile(AccountFile& file, const Key& key) {
  for (const auto freshness : {AccountFile::kRecent, AccountFile::kNow}) {
    const SharedTable table = file.Table(freshness);
    if (const Entry* entry = table->Find(key)) {
      return {table, entry};
    }
  }
  return nullptr;
}

// An entry that owns its name.
SharedEntry MakeEntry(const char* name, std::uint32_t id) {
  struct OwnedEntry {
    std::string name;
    Entry entry;
  };
  const auto owned = std::make_shared<OwnedEntry>(OwnedEntry{name, {}});
  owned->entry = {owned->name, id};
  return {owned, &owned->entry};
}

SharedEntry EntryOf(const struct passwd& record) {
  return MakeEntry(record.pw_name, record.pw_uid);
}
SharedEntry EntryOf(const struct group& record) { return MakeEntry(record.gr_name, record.gr_gid); }

// Asks NSS by one of its reentrant functions, whose buffer is enlarged until the answer fits.
template <typename Record, typename Key>
SharedEntry AskNSS(int (*get)(Key, Record*, char*, std::size_t, Record**), Key key) {
  std::vector<char> buffer(1024);
  while (true) {
    Record record{};
    Record* result = nullptr;
    errno = EIO;  // the answer of a service that fails without saying why
    const int error = get(key, &record, buffer.data(), buffer.size(), &result);
    if (result != nullptr) {
      return EntryOf(*result);
    }
    if (error == 0) {
      return nullptr;
    }
    if (error == ERANGE) {
      buffer.resize(2 * buffer.size());
    } else if (error != EINTR) {
      throw std::system_error(error, std::generic_category(), "name service");
    }
  }
}

// Names that no account can have; cut at its NUL, one could name another account.
bool IsImpossibleName(const std::string& name) {
  return name.empty() || name.find_first_of(std::string_view("\0:\n", 3)) != std::string::npos;
}

}  // namespace

SharedEntry FindUser(const std::string& name) {
  if (IsImpossibleName(name)) {
    return nullptr;
  }
  SharedEntry entry = FindInFile(Users(), name);
  return entry ? entry : AskNSS<struct passwd, const char*>(::getpwnam_r, name.c_str());
}

SharedEntry FindUser(std::uint32_t uid) {
  SharedEntry entry = FindInFile(Users(), uid);
  return entry ? entry : FindHostUser(uid);
}

SharedEntry FindHostUser(std::uint32_t uid) {
  return AskNSS<struct passwd, uid_t>(::getpwuid_r, uid);
}

bool IsInUsersFiles(std::uint32_t uid) {
  const std::string users_file = CurrentConfiguration()->accounts.passwd_file;
  return WholeTable(Users(), users_file)->Find(uid) != nullptr ||
         (users_file != kHostPasswdFile &&
          WholeTable(HostUsers(), kHostPasswdFile)->Find(uid) != nullptr);
}

SharedEntry FindGroup(const std::string& name) {
  if (IsImpossibleName(name)) {
    return nullptr;
  }
  SharedEntry entry = FindInFile(Groups(), name);
  return entry ? entry : AskNSS<struct group, const char*>(::getgrnam_r, name.c_str());
}

SharedEntry FindGroup(std::uint32_t gid) {
  SharedEntry entry = FindInFile(Groups(), gid);
  return entry ? entry : AskNSS<struct group, gid_t>(::getgrgid_r, gid);
}

namespace {

// One walk through the users that NSS lists; the position of such a walk is the process's own.
std::vector<std::uint32_t> ListNSSUids() {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::vector<std::uint32_t> uids;
  std::vector<char> buffer(1024);
  ::setpwent();
  while (true) {
    struct passwd record {};
    struct passwd* result = nullptr;
    const int error = ::getpwent_r(&record, buffer.data(), buffer.size(), &result);
    if (error == 0 && result != nullptr) {
      uids.push_back(result->pw_uid);
    } else if (error == ERANGE) {
      buffer.resize(2 * buffer.size());
    } else if (error != EINTR) {
      ::endpwent();
      if (error == 0 || error == ENOENT) {
        return uids;
      }
      throw std::system_error(error, std::generic_category(), "name service");
    }
  }
}

}  // namespace

std::vector<std::uint32_t> ListUids(std::uint32_t lowest, std::uint32_t highest) {
  std::vector<std::uint32_t> uids;
  for (const Entry& entry : Users().Table(AccountFile::kNow)->entries()) {
    uids.push_back(entry.id);
  }
  if (CurrentConfiguration()->accounts.passwd_file == kHostPasswdFile) {
    const std::vector<std::uint32_t> more = ListNSSUids();
    uids.insert(uids.end(), more.begin(), more.end());
  }
  std::erase_if(uids, [=](std::uint32_t uid) { return uid < lowest || uid > highest; });
  std::sort(uids.begin(), uids.end());
  uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
  return uids;
}

}  // namespace quillon::platform
