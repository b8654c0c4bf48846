#include "doctor/host_checks.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/mail_users.h>
#include <quillon/platform/store_check.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "count.h"
#include "doctor/ownership.h"

namespace {

using quillon::platform::Configuration;
using quillon::platform::CurrentConfiguration;
namespace fs = std::filesystem;

constexpr double kMostClockError = 2;  // seconds
constexpr std::string_view kSqliteScheme = "sqlite://";

std::string CheckAccounts() {
  const auto changes = quillon::platform::SyncMailUsers(true);
  return Count(changes.added + changes.changed + changes.unchanged, "mail user", "mail users");
}

std::string CheckMailFolders() {
  const Configuration::Maildir maildir = CurrentConfiguration()->maildir;
  const std::string folder = maildir.root + "/" + maildir.domain;
  for (const std::string& path : {maildir.root, folder}) {
    if (!S_ISDIR(StatusOf(path).st_mode)) {
      throw Problem(path + " is no folder", "correct maildir.root and maildir.domain");
    }
    RequireRootsOwn(path);
  }
  return folder;
}

std::string CheckQuotaStore() {
  quillon::platform::CheckQuotaStore();
  const std::string store = CurrentConfiguration()->quota.store;
  if (store.starts_with(kSqliteScheme)) {
    const std::string file = store.substr(kSqliteScheme.size());
    RequireRootsOwn(file);
    RequireRootsOwn(fs::path(file).parent_path());
    return file;
  }
  return "PostgreSQL, can be written to";
}

std::string CheckUsageStore() {
  quillon::platform::CheckUsageStore();
  return "can be written to";
}

std::string CheckClock() {
  std::optional<double> offset;
  try {
    offset = quillon::platform::CheckUsageStore();
  } catch (const velamailserver::LogException&) {
    // that is another check's to report
  }
  if (!offset) {
    throw Note("the usage store does not tell its time");
  }
  if (std::abs(*offset) > kMostClockError) {
    throw Problem(
        fmt::format("the clock of the usage store's host is {:.0f} seconds {}", std::abs(*offset),
                    *offset > 0 ? "ahead" : "behind"),
        "have both hosts keep time by NTP (apt-get install systemd-timesyncd; timedatectl)");
  }
  return "that of the usage store's host is the same";
}

std::string CheckLockFolder() {
  try {
    const velamailserver::velasdk::FileLockGuard guard(quillon::platform::kUsageCountLockFile);
  } catch (const velamailserver::velasdk::FileLockHeld&) {
    return "usage is being counted";
  }
  return fs::path(quillon::platform::kUsageCountLockFile).parent_path();
}

std::string CheckMailLog() {
  const Configuration::Log log = CurrentConfiguration()->log;
  if (log.target != "file") {
    return log.target;
  }
  const bool is_there = fs::exists(log.file);
  const std::string path = is_there ? log.file : fs::path(log.file).parent_path().string();
  if (::access(path.c_str(), W_OK) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return log.file;
}

std::string CheckUsageCache() {
  const std::string folder =
      fs::path(CurrentConfiguration()->maildir.usage_cache).parent_path().string();
  RequireRootsOwn(folder);
  return folder;
}

}  // namespace

std::vector<Check> HostChecks() {
  return {
      {"quota store", CheckQuotaStore,
       "start the database, or correct quota.store; docs/operations.md, \"The stores\""},
      {"accounts", CheckAccounts,
       "mend the line of the accounts file, or bring the name service back"},
      {"mail folders", CheckMailFolders,
       "mount the mail disk, or correct maildir.root and maildir.domain"},
      {"usage store", CheckUsageStore,
       "start Redis (systemctl start redis-server), or correct the table usage"},
      {"clock", CheckClock, ""},
      {"lock folder", CheckLockFolder,
       "systemd-tmpfiles --create, or make the folder as root's, with mode 0755"},
      {"usage cache", CheckUsageCache,
       "make the folder, as root's, or correct maildir.usage_cache"},
      {"mail log", CheckMailLog, "make the file's folder, or correct log.file"},
  };
}
