#include "accounts/account_database.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "accounts/account_lines.h"
#include "accounts/account_table.h"
#include "accounts/name_services.h"
#include "utils/file_text.h"
#include "utils/indexed_file.h"

namespace quillon::platform {

namespace {

using Entry = velamailserver::velasdk::AccountEntry;
using SharedEntry = std::shared_ptr<const Entry>;
using SharedTable = std::shared_ptr<const AccountTable>;

constexpr char kSourceFile[] = "platform/linux/accounts/account_database";
constexpr int kBrokenLineLine = 41;

using AccountFile = IndexedFile<AccountTable>;
using Settings = Configuration::Accounts;

template <AccountLines::Format kFormat>
AccountFile::Reading ReadTable(const std::string& path) {
  const FileText file = ReadAccountFile(path);
  auto table = std::make_shared<const AccountTable>(file.text, kFormat);
  if (table->broken_line() != 0) {
    maillog(4, "%s:%d %s:%zu is not an account entry, it is left out", kSourceFile, kBrokenLineLine,
            path.c_str(), table->broken_line());
  }
  return {FileState(file.status), std::move(table)};
}

AccountFile& Users() {
  static AccountFile file([](const Settings& s) -> const std::string& { return s.passwd_file; },
                          ReadTable<AccountLines::kPasswd>);
  return file;
}

AccountFile& Groups() {
  static AccountFile file([](const Settings& s) -> const std::string& { return s.group_file; },
                          ReadTable<AccountLines::kGroup>);
  return file;
}

// The host's own, beside a file of virtual users.
AccountFile& HostUsers() {
  static const std::string path = kHostPasswdFile;
  static AccountFile file([](const Settings&) -> const std::string& { return path; },
                          ReadTable<AccountLines::kPasswd>);
  return file;
}

// The host's own, beside another file of groups.
AccountFile& HostGroups() {
  static const std::string path = kHostGroupFile;
  static AccountFile file([](const Settings&) -> const std::string& { return path; },
                          ReadTable<AccountLines::kGroup>);
  return file;
}

// As it is now, to its last line.
SharedTable WholeTable(AccountFile& file, const std::string& path) {
  SharedTable table = file.Get(AccountFile::kNow);
  if (table->broken_line() != 0) {
    throw FileError(EINVAL, path,
                    fmt::format("line {} is not an account entry", table->broken_line()));
  }
  return table;
}

template <typename Key>
SharedEntry FindInFile(AccountFile& file, const Key& key) {
  for (const auto freshness : {AccountFile::kRecent, AccountFile::kNow}) {
    const SharedTable table = file.Get(freshness);
    if (const Entry* entry = table->Find(key)) {
      return {table, entry};
    }
  }
  return nullptr;
}

// An entry that owns its name.
SharedEntry MakeEntry(const char* name, const Entry& ids) {
  struct OwnedEntry {
    std::string name;
    Entry entry;
  };
  const auto owned = std::make_shared<OwnedEntry>(OwnedEntry{name, ids});
  owned->entry.name = owned->name;
  return {owned, &owned->entry};
}

SharedEntry EntryOf(const struct passwd& record) {
  return MakeEntry(record.pw_name, {.id = record.pw_uid, .primary_gid = record.pw_gid});
}
SharedEntry EntryOf(const struct group& record) {
  return MakeEntry(record.gr_name, {.id = record.gr_gid});
}

std::uint32_t IdOf(const struct passwd& record) { return record.pw_uid; }
std::uint32_t IdOf(const struct group& record) { return record.gr_gid; }

void MakeUnique(std::vector<std::uint32_t>& ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
}

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
  const SharedEntry entry = FindInFile(Users(), name);
  return entry ? entry : AskNSS<struct passwd, const char*>(::getpwnam_r, name.c_str());
}

SharedEntry FindUser(std::uint32_t uid) {
  const SharedEntry entry = FindInFile(Users(), uid);
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

void RequireWholeAccountFiles() {
  const auto configuration = CurrentConfiguration();
  const Settings& settings = configuration->accounts;
  WholeTable(Users(), settings.passwd_file);
  WholeTable(Groups(), settings.group_file);
  const bool has_host_users = settings.passwd_file == kHostPasswdFile;
  if (has_host_users && settings.group_file != kHostGroupFile) {
    WholeTable(HostGroups(), kHostGroupFile);
  }
}

SharedEntry FindGroup(const std::string& name) {
  if (IsImpossibleName(name)) {
    return nullptr;
  }
  const SharedEntry entry = FindInFile(Groups(), name);
  return entry ? entry : AskNSS<struct group, const char*>(::getgrnam_r, name.c_str());
}

SharedEntry FindGroup(std::uint32_t gid) {
  const SharedEntry entry = FindInFile(Groups(), gid);
  return entry ? entry : AskNSS<struct group, gid_t>(::getgrgid_r, gid);
}

namespace {

// How the C library lists its records of one kind.
struct UserListing {
  using Record = struct passwd;
  static constexpr auto kBegin = ::setpwent;
  static constexpr auto kNext = ::getpwent_r;
  static constexpr auto kEnd = ::endpwent;
};
struct GroupListing {
  using Record = struct group;
  static constexpr auto kBegin = ::setgrent;
  static constexpr auto kNext = ::getgrent_r;
  static constexpr auto kEnd = ::endgrent;
};

// One walk through what NSS lists; the position of such a walk is the process's own.
template <typename Listing>
std::vector<std::uint32_t> ListNSSIds() {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::vector<std::uint32_t> ids;
  std::vector<char> buffer(1024);
  Listing::kBegin();
  while (true) {
    typename Listing::Record record{};
    typename Listing::Record* result = nullptr;
    const int error = Listing::kNext(&record, buffer.data(), buffer.size(), &result);
    if (error == 0 && result != nullptr) {
      ids.push_back(IdOf(*result));
    } else if (error == ERANGE) {
      buffer.resize(2 * buffer.size());
    } else if (error != EINTR) {
      Listing::kEnd();
      if (error == 0 || error == ENOENT) {
        return ids;
      }
      throw std::system_error(error, std::generic_category(), "name service");
    }
  }
}

template <typename Listing>
std::vector<std::uint32_t> ListIds(AccountFile& file, bool is_hosts_own, std::uint32_t lowest,
                                   std::uint32_t highest) {
  std::vector<std::uint32_t> ids;
  const SharedTable table = file.Get(AccountFile::kNow);
  for (const Entry& entry : table->entries()) {
    ids.push_back(entry.id);
  }
  if (is_hosts_own) {
    const std::vector<std::uint32_t> more = ListNSSIds<Listing>();
    ids.insert(ids.end(), more.begin(), more.end());
  }
  std::erase_if(ids, [=](std::uint32_t id) { return id < lowest || id > highest; });
  MakeUnique(ids);
  return ids;
}

bool IsVirtual(const Entry& user) {
  if (CurrentConfiguration()->accounts.passwd_file == kHostPasswdFile) {
    return false;
  }
  const SharedTable table = Users().Get(AccountFile::kRecent);
  const Entry* const found = table->Find(user.name);
  return found != nullptr && found->name == user.name;
}

// Whether a member's name, which is the user's but for letter case, is that of the user's account.
bool IsNameOf(const Entry& user, std::string_view member) {
  if (member == user.name) {
    return true;
  }
  const SharedEntry found = FindUser(std::string(member));
  return found != nullptr && found->name == user.name;
}

void AddGidsInFile(AccountFile& file, const Entry& user, std::vector<std::uint32_t>& gids) {
  const SharedTable table = file.Get(AccountFile::kRecent);
  for (const AccountTable::Membership& membership : table->Memberships(user.name)) {
    if (IsNameOf(user, membership.member)) {
      gids.push_back(membership.gid);
    }
  }
}

}  // namespace

std::vector<std::uint32_t> ListUids(std::uint32_t lowest, std::uint32_t highest) {
  const bool is_hosts_own = CurrentConfiguration()->accounts.passwd_file == kHostPasswdFile;
  return ListIds<UserListing>(Users(), is_hosts_own, lowest, highest);
}

std::vector<std::uint32_t> ListGids(std::uint32_t lowest, std::uint32_t highest) {
  const bool is_hosts_own = CurrentConfiguration()->accounts.group_file == kHostGroupFile;
  return ListIds<GroupListing>(Groups(), is_hosts_own, lowest, highest);
}

std::vector<std::uint32_t> GroupsOf(const Entry& user) {
  std::vector<std::uint32_t> gids = {user.primary_gid};
  AddGidsInFile(Groups(), user, gids);
  if (!IsVirtual(user)) {
    if (CurrentConfiguration()->accounts.group_file != kHostGroupFile) {
      AddGidsInFile(HostGroups(), user, gids);
    }
    const auto more = ListGidsOfNameServices(std::string(user.name));
    gids.insert(gids.end(), more.begin(), more.end());
  }
  MakeUnique(gids);
  return gids;
}

}  // namespace quillon::platform
