#include "quota/quota_schema.h"

#include <array>
#include <optional>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

#include "quota/quota_transaction.h"

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

// The one at index N takes a store from version N to N + 1. One that was released never changes.
using Migration = void (*)(soci::session&, const QuotaDialect&);
constexpr std::array<Migration, 1> kMigrations = {CreateTables};

constexpr int kNewestVersion = static_cast<int>(kMigrations.size());

// 0 for a store whose first migration is still to come.
int ReadVersion(soci::session& session) {
  int version = 0;
  session << "SELECT coalesce(max(version), 0) FROM quota_schema", soci::into(version);
  return version;
}

std::optional<int> ReadVersionIfAny(soci::session& session, const QuotaDialect& dialect) {
  try {
    return ReadVersion(session);
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

void RefuseUnknownVersion(int version, const QuotaDialect& dialect) {
  if (version < 0 || version > kNewestVersion) {
    throw LogException(
        ERR_DB_UPGRADE,
        fmt::format("quota store [{}]: its schema has version {}, this program knows versions up "
                    "to {}: install the program that wrote it, or a newer one",
                    dialect.store(), version, kNewestVersion),
        3, kSourceFile, kUnknownVersionLine);
  }
}

void Migrate(soci::session& session, const QuotaDialect& dialect) {
  QuotaTransaction transaction(session, dialect.sql().begin);
  session << "CREATE TABLE IF NOT EXISTS quota_schema (version INTEGER NOT NULL)";
  // Another program may have been faster.
  const int version = ReadVersion(session);
  RefuseUnknownVersion(version, dialect);
  for (int next = version; next < kNewestVersion; ++next) {
    kMigrations[static_cast<std::size_t>(next)](session, dialect);
  }
  session << "DELETE FROM quota_schema";
  session << "INSERT INTO quota_schema (version) VALUES (:version)",
      soci::use(kNewestVersion, "version");
  transaction.Commit();
}

}  // namespace

void UpgradeQuotaSchema(soci::session& session, const QuotaDialect& dialect) {
  const std::optional<int> version = ReadVersionIfAny(session, dialect);
  if (version == kNewestVersion) {
    return;
  }
  RefuseUnknownVersion(version.value_or(0), dialect);
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
