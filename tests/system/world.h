#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

#include "support/program.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// A mail server's host in a throw-away folder: accounts, mail directories, quota store (SQLite),
/// usage store (Redis), usage cache, log, and the configuration file that says where they are. It
/// is also the configuration of this process. Everything gives up after a second.
class World {
 public:
  static constexpr unsigned int kUsers = 100;    ///< gid of the group "users"
  static constexpr unsigned int kMailGroup = 8;  ///< of "mail", which every Debian has

  /// The accounts alice, bob and carol, with the uids 1001 to 1003, and their group "users". The
  /// administrators' group is "admins", which is not there.
  World();

  const TemporaryFolder& folder() const { return folder_; }
  RedisServer& redis() { return redis_; }
  std::string configuration_file() const { return folder_ / "mailserver.toml"; }
  std::string quota_database() const { return folder_ / "quota.db"; }

  void AddAccount(const std::string& name, unsigned int uid, unsigned int gid = kUsers);
  void AddGroup(const std::string& name, unsigned int gid,
                const std::vector<std::string>& members = {});
  /// Makes another quota store that of the host, by its URL.
  void UseStore(const std::string& url);
  void SetUsage(const std::string& name, const std::string& bytes) const;
  /// Writes to the quota store what the library would not: a warning level by itself.
  void SetWarning(const std::string& name, unsigned long long bytes) const;
  /// Puts a message of `size` bytes into a folder of the account's mail directory.
  void Deliver(const std::string& account, const std::string& folder, std::size_t size);
  /// The account's mail directory, which need not exist.
  std::string Maildir(const std::string& account) const;
  /// Everything about a mail directory that a change beside it must not change: names, sizes,
  /// owners, times and contents.
  std::string Image(const std::string& account) const;
  /// Makes a uid the owner of the account's mail directory and of all that is in it now.
  void Give(const std::string& account, unsigned int uid) const;

  /// quillonctl with this host's configuration, ready to be run.
  std::vector<std::string> CommandLine(const std::vector<std::string>& arguments) const;
  Outcome Quillonctl(const std::vector<std::string>& arguments, const std::string& input = "",
                     const std::vector<std::string>& environment = {}) const;
  /// What it prints with --json; throws unless it succeeds and prints nothing else.
  Json::Value QuillonctlJson(std::vector<std::string> arguments) const;

 private:
  TemporaryFolder folder_;
  RedisServer redis_;
  std::string passwd_;
  std::string group_;
  std::size_t messages_ = 0;
};

/// The path of quillonctl.
std::string QuillonctlPath();
/// The path of the platform's library, by the name that programs load it by.
std::string PlatformLibraryPath();

/// The values of one member of all users, or of all groups, in a report, as text.
std::vector<std::string> Column(const Json::Value& report, const char* member);

}  // namespace quillon::test
