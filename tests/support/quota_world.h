#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include "support/postgres_server.h"

namespace quillon::test {

inline constexpr char kQuotaPassword[] = "s3cret";

/// One server for all tests of the program.
inline PostgresServer& QuotaServer() {
  static PostgresServer server;
  return server;
}

/// What there is to know of a kind of store in order to reach it past the product.
class QuotaWorld {
 public:
  virtual ~QuotaWorld() = default;
  virtual std::string Url() const = 0;
  virtual std::unique_ptr<soci::session> Connect() const = 0;
  /// SQL that lets writes to a table fail for one id, leaving to the writer what was done before.
  virtual std::vector<std::string> Refuse(const std::string& operation, unsigned id,
                                          const std::string& table = "user_limit") const = 0;
  /// SQL that has the table "writes" hold a row for each row of these tables that is written.
  virtual std::vector<std::string> CountWrites(const std::vector<std::string>& tables) const = 0;
};

class SqliteWorld : public QuotaWorld {
 public:
  explicit SqliteWorld(std::string path) : path_(std::move(path)) {}

  std::string Url() const override { return "sqlite://" + path_; }

  std::unique_ptr<soci::session> Connect() const override {
    return std::make_unique<soci::session>(soci::sqlite3,
                                           fmt::format("dbname=\"{}\" timeout=5", path_));
  }

  std::vector<std::string> Refuse(const std::string& operation, unsigned id,
                                  const std::string& table) const override {
    return {
        fmt::format("CREATE TRIGGER refusal BEFORE {0} ON {3} WHEN {1}.id = {2}"
                    " BEGIN SELECT RAISE(FAIL, 'no such luck'); END",
                    operation, operation == "INSERT" ? "NEW" : "OLD", id, table)};
  }

  std::vector<std::string> CountWrites(const std::vector<std::string>& tables) const override {
    std::vector<std::string> statements = {"CREATE TABLE writes (n INTEGER)"};
    for (const std::string& table : tables) {
      for (const char* operation : {"INSERT", "UPDATE", "DELETE"}) {
        statements.push_back(
            fmt::format("CREATE TRIGGER {0}_{1} AFTER {1} ON {0}"
                        " BEGIN INSERT INTO writes VALUES (1); END",
                        table, operation));
      }
    }
    return statements;
  }

 private:
  std::string path_;
};

class PostgresqlWorld : public QuotaWorld {
 public:
  PostgresqlWorld() : database_(QuotaServer().CreateDatabase()) {}

  std::string Url() const override { return QuotaServer().Url(database_, kQuotaPassword); }

  std::unique_ptr<soci::session> Connect() const override {
    return std::make_unique<soci::session>(soci::postgresql, QuotaServer().Url(database_));
  }

  std::vector<std::string> Refuse(const std::string& operation, unsigned id,
                                  const std::string& table) const override {
    return {
        "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS"
        " $$ BEGIN RAISE EXCEPTION 'no such luck'; END $$",
        fmt::format("CREATE TRIGGER refusal BEFORE {} ON {} FOR EACH ROW"
                    " WHEN ({}.id = {}) EXECUTE FUNCTION refuse()",
                    operation, table, operation == "INSERT" ? "NEW" : "OLD", id)};
  }

  std::vector<std::string> CountWrites(const std::vector<std::string>& tables) const override {
    std::vector<std::string> statements = {
        "CREATE TABLE writes (n INTEGER)",
        "CREATE FUNCTION note_write() RETURNS trigger LANGUAGE plpgsql AS"
        " $$ BEGIN INSERT INTO writes VALUES (1); RETURN NULL; END $$"};
    for (const std::string& table : tables) {
      statements.push_back(
          fmt::format("CREATE TRIGGER note AFTER INSERT OR UPDATE OR DELETE ON {}"
                      " FOR EACH ROW EXECUTE FUNCTION note_write()",
                      table));
    }
    return statements;
  }

 private:
  std::string database_;
};

/// The world of a store by its kind, "Sqlite", in the file `path`, or "Postgresql".
inline std::unique_ptr<QuotaWorld> MakeQuotaWorld(std::string_view kind, const std::string& path) {
  if (kind == "Sqlite") {
    return std::make_unique<SqliteWorld>(path);
  }
  return std::make_unique<PostgresqlWorld>();
}

}  // namespace quillon::test
