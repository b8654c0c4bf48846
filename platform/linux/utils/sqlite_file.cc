#include "utils/sqlite_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include <fmt/format.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_CREATE;
using velamailserver::LogException;

using Status = struct stat;

constexpr char kSourceFile[] = "platform/linux/utils/sqlite_file";
constexpr int kUnusablePathLine = 34;
constexpr int kFileNotCreatedLine = 47;
constexpr int kNotAFileLine = 52;

std::string AccessRemedy(const std::string& path) {
  return fmt::format("run this as root, or as a user who may write to {} and to its folder", path);
}

bool MayWrite(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0 || errno != EACCES;
}

void CreateFile(const SqliteFile& file) {
  // Not by opening it: to close a descriptor of the file would drop the locks that another thread's
  // connection may hold on it by then.
  if (::mknod(file.path.c_str(), S_IFREG | file.mode, 0) == 0 || errno == EEXIST) {
    return;
  }
  const int error = errno;
  const std::string folder = std::filesystem::path(file.path).parent_path();
  std::string problem = std::generic_category().message(error);
  if (error == ENOENT) {
    problem = fmt::format(
        "there is no folder [{0}]: create it (mkdir -p {0}), or set {1} to another place", folder,
        file.setting);
  } else if (error == EACCES) {
    problem += ": " + AccessRemedy(file.path);
  }
  throw LogException(ERR_DB_CREATE,
                     fmt::format("{} [{}]: cannot create it: {}", file.purpose, file.path, problem),
                     3, kSourceFile, kFileNotCreatedLine);
}

}  // namespace

std::optional<struct stat> ExamineSqliteFile(const SqliteFile& file) {
  // To SOCI that would be a list of parameters.
  if (file.path.find('=') != std::string::npos) {
    throw LogException(
        ERR_BAD_DB_SESSION,
        fmt::format("{} [{}]: its path must not hold an equals sign", file.purpose, file.path), 3,
        kSourceFile, kUnusablePathLine);
  }
  struct stat status {};
  if (::lstat(file.path.c_str(), &status) != 0) {
    return errno == ENOENT ? std::nullopt : std::optional(status);
  }
  if (!S_ISREG(status.st_mode)) {
    throw LogException(ERR_BAD_DB_SESSION,
                       fmt::format("{} [{}]: it is {}, not a regular file", file.purpose, file.path,
                                   S_ISLNK(status.st_mode) ? "a link" : "a folder or a device"),
                       3, kSourceFile, kNotAFileLine);
  }
  return status;
}

struct stat ProvideSqliteFile(const SqliteFile& file) {
  if (const auto status = ExamineSqliteFile(file)) {
    return *status;
  }
  CreateFile(file);
  return ExamineSqliteFile(file).value_or(Status{});
}

std::unique_ptr<soci::session> OpenSqliteFile(const SqliteFile& file) {
  // Nothing but the path, and so no time-out: SOCI goes on for ever in a list of parameters when
  // memory ends while it reads that.
  auto session = std::make_unique<soci::session>(soci::sqlite3, file.path);
  constexpr int kMillisecondsPerSecond = 1000;
  *session << fmt::format("PRAGMA busy_timeout = {}", file.busy_timeout * kMillisecondsPerSecond);
  return session;
}

// A switch to WAL that meets another program's is refused at once, whatever the busy time-out is.
void UseWriteAheadLog(soci::session& session, const SqliteFile& file) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(file.busy_timeout);
  while (true) {
    try {
      std::string mode;
      session << "PRAGMA journal_mode = WAL", soci::into(mode);
      return;
    } catch (const soci::soci_error& error) {
      if (SqliteResult(error) != SQLITE_BUSY || Clock::now() > deadline) {
        throw;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int SqliteResult(const soci::soci_error& error) {
  const auto* sqlite_error = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
  return sqlite_error == nullptr ? SQLITE_OK : sqlite_error->result();
}

std::string SqliteRemedy(const soci::soci_error& error, const SqliteFile& file) {
  const int result = SqliteResult(error);
  if (result != SQLITE_CANTOPEN && result != SQLITE_READONLY) {
    return "";
  }
  // SQLite keeps files of its own beside the database. Both errors have other reasons, too.
  const std::string folder = std::filesystem::path(file.path).parent_path();
  return MayWrite(file.path) && MayWrite(folder) ? "" : AccessRemedy(file.path);
}

}  // namespace quillon::platform
