#include "quota/quota_schema.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

#include "utils/database_transaction.h"
#include "utils/decimal.h"
#include "utils/excerpt.h"

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_CREATE;
using velamailserver::ERR_DB_UPGRADE;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/quota_schema";
constexpr int kUnreadableLine = 24;
constexpr int kUnknownVersionLine = 37;
constexpr int kNotCreatedLine = 58;
constexpr int kNotUpgradedLine = 61;

void CreateTables(soci::session& session, const QuotaDialect& dialect) {
  for (const char* table :
       {kUserLimitTable, kUserWarningTable, kGroupLimitTable, kGroupWarningTable}) {
    session << fmt::format(
        "CREATE TABLE {} (id {} PRIMARY KEY, name TEXT NOT NULL, bytes TEXT NOT NULL"
        " CHECK (length(bytes) BETWEEN 1 AND 20 AND ltrim(bytes, '0123456789') = ''))",
        table, dialect.sql().id_type);
  }
}

// Numbers are compared as texts of equal length. A limit of 0 is none, so the largest.
constexpr char kMailUserQuota[] =
    "CREATE VIEW mail_user_quota AS"
    " SELECT u.name, u.id AS uid, u.gid, u.home,"
    " nullif(coalesce(own.bytes, (SELECT g.bytes FROM mail_user_group AS m"
    " JOIN group_limit AS g ON g.id = m.gid WHERE m.id = u.id"
    " ORDER BY CASE g.bytes WHEN '0' THEN 0 ELSE 1 END, length(g.bytes) DESC, g.bytes DESC"
    " LIMIT 1)), '0') AS quota_limit,"
    " nullif(w.bytes, '0') AS quota_warning"
    " FROM mail_user AS u LEFT JOIN user_limit AS own ON own.id = u.id"
    " LEFT JOIN user_warning AS w ON w.id = u.id";

void CreateMailUsers(soci::session& session, const QuotaDialect& dialect) {
  session << fmt::format(
      "CREATE TABLE {} (id {} PRIMARY KEY, name TEXT NOT NULL UNIQUE, gid BIGINT NOT NULL,"
      " home TEXT NOT NULL)",
      kMailUserTable, dialect.sql().id_type);
  session << fmt::format(
      "CREATE TABLE {} (id BIGINT NOT NULL, gid BIGINT NOT NULL, PRIMARY KEY (id, gid))",
      kMailUserGroupTable);
  session << kMailUserQuota;
}

// The one at index N takes a store from version N to N + 1. One that was released never changes.
using Migration = void (*)(soci::session&, const QuotaDialect&);
constexpr std::array<Migration, 2> kMigrations = {CreateTables, CreateMailUsers};

constexpr std::size_t kNewestVersion = kMigrations.size();

// 0 for a store whose first migration is still to come. As text, because SQLite keeps anything in a
// column of numbers and answers a number all the same.
std::size_t ReadVersion(soci::session& session, const QuotaDialect& dialect) {
  std::string text;
  session << "SELECT coalesce(CAST(max(version) AS TEXT), '0') FROM quota_schema", soci::into(text);
  const auto version = ParseDecimal<std::size_t>(text);
  if (!version || *version > kNewestVersion) {
    throw LogException(
        ERR_DB_UPGRADE,
        fmt::format("quota store [{}]: its schema has version {}, this program knows versions up "
                    "to {}: install the program that wrote it, or a newer one",
                    dialect.store(), Excerpt(text), kNewestVersion),
        3, kSourceFile, kUnknownVersionLine);
  }
  return *version;
}

std::optional<std::size_t> ReadVersionIfAny(soci::session& session, const QuotaDialect& dialect) {
  try {
    return ReadVersion(session, dialect);
  } catch (const soci::soci_error& error) {
    if (dialect.IsMissingTable(error)) {
      return std::nullopt;
    }
    throw LogException(ERR_BAD_DB_SESSION,
                       fmt::format("quota store [{}]: cannot read it: {}", dialect.store(),
                                   dialect.Explain(error)),
                       3, kSourceFile, kUnreadableLine);
  }
}

void Migrate(soci::session& session, const QuotaDialect& dialect) {
  DatabaseTransaction transaction(session, dialect.sql().begin);
  session << "CREATE TABLE IF NOT EXISTS quota_schema (version INTEGER NOT NULL)";
  // Another program may have been faster.
  for (auto next = ReadVersion(session, dialect); next < kNewestVersion; ++next) {
    kMigrations[next](session, dialect);
  }
  session << "DELETE FROM quota_schema";
  session << "INSERT INTO quota_schema (version) VALUES (" << kNewestVersion << ")";
  transaction.Commit();
}

}  // namespace

void UpgradeQuotaSchema(soci::session& session, const QuotaDialect& dialect) {
  const auto version = ReadVersionIfAny(session, dialect);
  if (version == kNewestVersion) {
    return;
  }
  try {
    if (!version) {
      dialect.PrepareNew(session);
    }
    Migrate(session, dialect);
  } catch (const soci::soci_error& error) {
    throw LogException(
        version ? ERR_DB_UPGRADE : ERR_DB_CREATE,
        fmt::format("quota store [{}]: cannot {}: {}", dialect.store(),
                    version ? "upgrade its tables" : "create its tables", dialect.Explain(error)),
        3, kSourceFile, version ? kNotUpgradedLine : kNotCreatedLine);
  }
}

}  // namespace quillon::platform
