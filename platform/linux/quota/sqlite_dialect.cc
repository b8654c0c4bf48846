#include "quota/sqlite_dialect.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_CREATE;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/sqlite_dialect";
constexpr int kUnusablePathLine = 34;
constexpr int kFileNotCreatedLine = 47;
constexpr int kNotAFileLine = 52;

constexpr QuotaDialect::Sql kSqliteSql = {
    .begin = "BEGIN IMMEDIATE",
    .id_type = "INTEGER",
    .ids = "SELECT value FROM json_each('[' || :ids || ']')",
    // CROSS JOIN makes SQLite walk the list, and so keep its order, and not the table.
    .list_listed =
        "SELECT t.id, t.bytes FROM json_each('[' || :ids || ']') AS listed"
        " CROSS JOIN {} AS t ON t.id = listed.value",
    .named_ids = "json_each(:names)"};

int SqliteResult(const soci::soci_error& error) {
  const auto* sqlite_error = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
  return sqlite_error == nullptr ? SQLITE_OK : sqlite_error->result();
}

// SQLite keeps files of its own beside the database.
std::string AccessRemedy(const std::string& path) {
  return fmt::format("run this as root, or as a user who may write to {} and to its folder", path);
}

void CreateFile(const std::string& path) {
  // Not by opening it: to close a descriptor of the file would drop the locks that another thread's
  // connection may hold on it by then.
  if (::mknod(path.c_str(), S_IFREG | 0640, 0) == 0 || errno == EEXIST) {
    return;
  }
  const int error = errno;
  const std::string folder = std::filesystem::path(path).parent_path();
  std::string problem = std::generic_category().message(error);
  if (error == ENOENT) {
    problem = fmt::format(
        "there is no folder [{0}]: create it (mkdir -p {0}), or set quota.store to another place",
        folder);
  } else if (error == EACCES) {
    problem += ": " + AccessRemedy(path);
  }
  throw LogException(ERR_DB_CREATE,
                     fmt::format("quota store [{}]: cannot create it: {}", path, problem), 3,
                     kSourceFile, kFileNotCreatedLine);
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
    CreateFile(path);
    ::lstat(path.c_str(), &status);
  }
  return status;
}

class SqliteDialect : public QuotaDialect {
 public:
  SqliteDialect(std::string path, int busy_timeout)
      : QuotaDialect(std::move(path), busy_timeout, kSqliteSql) {
    // SOCI's connection string cannot carry it.
    if (store().find('"') != std::string::npos) {
      throw LogException(ERR_BAD_DB_SESSION,
                         "quota store [" + store() + "]: its path must not hold a quote", 3,
                         kSourceFile, kUnusablePathLine);
    }
  }

  std::unique_ptr<soci::session> Connect() const override {
    // A link could make root write elsewhere. What cannot be examined is left to SQLite to refuse.
    const struct stat status = StatusOf(store());
    if (status.st_mode != 0 && !S_ISREG(status.st_mode)) {
      throw LogException(ERR_BAD_DB_SESSION,
                         fmt::format("quota store [{}]: it is {}, not a regular file", store(),
                                     S_ISLNK(status.st_mode) ? "a link" : "a folder or a device"),
                         3, kSourceFile, kNotAFileLine);
    }
    return std::make_unique<soci::session>(
        soci::sqlite3, fmt::format("dbname=\"{}\" timeout={}", store(), busy_timeout()));
  }

  // A switch to WAL that meets another program's is refused at once, whatever the busy time-out is.
  void PrepareNew(soci::session& session) const override {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(busy_timeout());
    while (true) {
      try {
        std::string mode;
        session << "PRAGMA journal_mode = WAL", soci::into(mode);
        return;
      } catch (const soci::soci_error& error) {
        if (!IsLocked(error) || Clock::now() > deadline) {
          throw;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  // Our statements are right, so that nothing but a missing table makes one of them wrong.
  bool IsMissingTable(const soci::soci_error& error) const override {
    return SqliteResult(error) == SQLITE_ERROR;
  }

 protected:
  bool IsLocked(const soci::soci_error& error) const override {
    return SqliteResult(error) == SQLITE_BUSY;
  }

  std::string Remedy(const soci::soci_error& error) const override {
    const int result = SqliteResult(error);
    return result == SQLITE_CANTOPEN || result == SQLITE_READONLY ? AccessRemedy(store()) : "";
  }
};

}  // namespace

std::unique_ptr<QuotaDialect> MakeSqliteDialect(const std::string& path, int busy_timeout) {
  return std::make_unique<SqliteDialect>(path, busy_timeout);
}

}  // namespace quillon::platform
