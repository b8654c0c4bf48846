#include "doctor/host_checks.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/mail_users.h>
#include <quillon/platform/maildir_folder.h>
#include <quillon/platform/store_check.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "count.h"
#include "doctor/ownership.h"

namespace {

using quillon::platform::Configuration;
using quillon::platform::CurrentConfiguration;
namespace fs = std::filesystem;

constexpr double kMostClockError = 2;  // seconds

std::string CheckAccounts() {
  const auto changes = ChangesOfMailUsers();
  return Count(changes.added + changes.changed + changes.unchanged, "mail user", "mail users");
}

std::string CheckMailFolders() {
  const std::string folder = quillon::platform::MaildirFolder();
  for (const std::string& path : {fs::path(folder).parent_path().string(), folder}) {
    if (!S_ISDIR(StatusOf(path).st_mode)) {
      throw Problem(path + " is no folder", "correct maildir.root and maildir.domain");
    }
    RequireRootsOwn(path);
  }
  return folder;
}

std::string CheckQuotaStore() {
  const std::string file = CurrentConfiguration()->quota.SqliteFile();
  if (file.empty()) {
    quillon::platform::CheckQuotaStore();
    return "PostgreSQL, can be written to";
  }
  if (!fs::exists(fs::symlink_status(file))) {
    throw Problem(file + " is not there",
                  "correct quota.store; if it is right and the store new, quillonctl quota sync "
                  "makes it");
  }
  RequireRootsOwn(file);
  RequireRootsOwn(fs::path(file).parent_path());
  quillon::platform::CheckQuotaStore();
  return file;
}

std::string CheckUsageStore() {
  quillon::platform::CheckUsageStore();
  return "can be written to";
}

std::string CheckClock() {
  const auto offset = quillon::platform::ClockOffsetOfUsageStore();
  if (!offset) {
    throw Note("the usage store does not tell its time");
  }
  if (std::abs(*offset) > kMostClockError) {
    throw Problem(fmt::format("the clock of the usage store's host is {:.0f} seconds {}",
                              std::abs(*offset), *offset > 0 ? "ahead" : "behind"),
                  "see that a service keeps the time on both hosts (timedatectl)");
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
  if (is_there && !fs::is_regular_file(log.file)) {
    throw std::runtime_error(log.file + " is no file");
  }
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

const quillon::platform::MailUserChanges& ChangesOfMailUsers() {
  static const auto changes = quillon::platform::SyncMailUsers(true);
  return changes;
}

std::vector<Check> HostChecks() {
  return {
      {"quota store", CheckQuotaStore,
       "correct quota.store; if it does not answer, start it (systemctl start postgresql)"},
      {"accounts",
       CheckAccounts,
       "mend the line of the accounts file, or bring the name service back",
       {"quota store"}},
      {"mail folders", CheckMailFolders,
       "mount the mail disk, or correct maildir.root and maildir.domain"},
      {"usage store", CheckUsageStore,
       "correct the table usage; if it does not answer, start it (systemctl start redis-server)"},
      {"clock", CheckClock, "", {"usage store"}},
      {"lock folder", CheckLockFolder,
       "systemd-tmpfiles --create, or make the folder as root's, with mode 0755"},
      {"usage cache", CheckUsageCache,
       "make the folder, as root's, or correct maildir.usage_cache"},
      {"mail log", CheckMailLog, "make the file's folder, or correct log.file"},
  };
}
