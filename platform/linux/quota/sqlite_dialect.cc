#include "quota/sqlite_dialect.h"

#include <soci/sqlite3/soci-sqlite3.h>

#include "utils/sqlite_file.h"

namespace quillon::platform {

namespace {

constexpr QuotaDialect::Sql kSqliteSql = {
    .begin = "BEGIN IMMEDIATE",
    .id_type = "INTEGER",
    .ids = "SELECT value FROM json_each('[' || :ids || ']')",
    // CROSS JOIN makes SQLite walk the list, and so keep its order, and not the table.
    .list_listed =
        "SELECT t.id, t.bytes FROM json_each('[' || :ids || ']') AS listed"
        " CROSS JOIN {} AS t ON t.id = listed.value",
    .named_ids = "json_each(:names)",
    .rows = "json_each(:rows)"};

class SqliteDialect : public QuotaDialect {
 public:
  SqliteDialect(const std::string& path, int busy_timeout)
      : QuotaDialect(path, busy_timeout, kSqliteSql),
        file_{path, "quota store", "quota.store", 0640, busy_timeout} {}

  std::unique_ptr<soci::session> Connect() const override {
    ProvideSqliteFile(file_);
    return OpenSqliteFile(file_);
  }

  void PrepareNew(soci::session& session) const override { UseWriteAheadLog(session, file_); }

  // Our statements are right, so that nothing but a missing table makes one of them wrong.
  bool IsMissingTable(const soci::soci_error& error) const override {
    return SqliteResult(error) == SQLITE_ERROR;
  }

 protected:
  bool IsLocked(const soci::soci_error& error) const override {
    return SqliteResult(error) == SQLITE_BUSY;
  }

  std::string Remedy(const soci::soci_error& error) const override {
    return SqliteRemedy(error, file_);
  }

 private:
  const SqliteFile file_;
};

}  // namespace

std::unique_ptr<QuotaDialect> MakeSqliteDialect(const std::string& path, int busy_timeout) {
  return std::make_unique<SqliteDialect>(path, busy_timeout);
}

}  // namespace quillon::platform
