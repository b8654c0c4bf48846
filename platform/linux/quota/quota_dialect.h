#pragma once

#include <memory>
#include <string>
#include <utility>

#include <soci/soci.h>

#include <quillon/platform/configuration.h>

namespace quillon::platform {

/// Everything in which the databases that may hold the quota store differ. All other SQL is common
/// to them.
class QuotaDialect {
 public:
  /// SQL for this database.
  struct Sql {
    const char* begin;        ///< begins a transaction that keeps other programs' writes out
    const char* id_type;      ///< a primary key that holds 32 bits unsigned
    const char* ids;          ///< the numbers of the comma-separated list :ids, one per row
    const char* list_listed;  ///< id and bytes of the ascending :ids in table {}, in their order
    const char* named_ids;    ///< the members of the JSON object :names, as "key" and "value"
    const char* rows;         ///< the elements of the JSON array :rows, as "value"
  };

  /// The dialect of the store that the settings name. Throws `LogException` with
  /// `ERR_BAD_DB_SESSION` for a URL that cannot be understood.
  static std::unique_ptr<QuotaDialect> Of(const Configuration::Quota& settings);

  QuotaDialect(const QuotaDialect&) = delete;
  QuotaDialect& operator=(const QuotaDialect&) = delete;
  virtual ~QuotaDialect() = default;

  /// The store in messages. It holds no password.
  const std::string& store() const { return store_; }
  const Sql& sql() const { return sql_; }

  /// Throws `LogException`, or `soci::soci_error` when the database itself refuses.
  virtual std::unique_ptr<soci::session> Connect() const = 0;
  /// Settings that a database keeps for good, made before its first table.
  virtual void PrepareNew(soci::session& session) const = 0;
  virtual bool IsMissingTable(const soci::soci_error& error) const = 0;
  /// What went wrong, on one line.
  std::string Explain(const soci::soci_error& error) const;

 protected:
  QuotaDialect(std::string store, int busy_timeout, const Sql& sql)
      : store_(std::move(store)), busy_timeout_(busy_timeout), sql_(sql) {}

  int busy_timeout() const { return busy_timeout_; }
  virtual bool IsLocked(const soci::soci_error& error) const = 0;
  /// What to do about a failure, when its message does not say it; else empty.
  virtual std::string Remedy(const soci::soci_error& /*error*/) const { return ""; }

 private:
  std::string store_;
  int busy_timeout_;  // seconds
  const Sql& sql_;
};

}  // namespace quillon::platform
