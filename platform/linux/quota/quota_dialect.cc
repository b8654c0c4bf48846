#include "quota/quota_dialect.h"

#include <libpq-fe.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_CREATE;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/quota_dialect";
constexpr int kUnknownUrlLine = 21;
constexpr int kUnusablePathLine = 34;
constexpr int kFileNotCreatedLine = 47;
constexpr int kNotAFileLine = 52;
constexpr int kMalformedUrlLine = 63;

constexpr char kSqliteScheme[] = "sqlite://";
constexpr char kPostgresqlScheme[] = "postgresql://";

// SQLite.

constexpr QuotaDialect::Sql kSqliteSql = {
    .begin = "BEGIN IMMEDIATE",
    .id_type = "INTEGER",
    .ids = "SELECT value FROM json_each('[' || :ids || ']')",
    // CROSS JOIN makes SQLite walk the list, and so keep its order, and not the table.
    .list_listed =
        "SELECT t.id, t.name, t.bytes FROM json_each('[' || :ids || ']') AS listed"
        " CROSS JOIN {} AS t ON t.id = listed.value",
    .named_ids = "json_each(:names)"};

int SqliteResult(const soci::soci_error& error) {
  const auto* sqlite_error = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
  return sqlite_error == nullptr ? SQLITE_OK : sqlite_error->result();
}

void CreateFile(const std::string& path) {
  // Not by opening it: to close a descriptor of the file would drop the locks that another thread's
  // connection may hold on it by then.
  if (::mknod(path.c_str(), S_IFREG | 0640, 0) == 0 || errno == EEXIST) {
    return;
  }
  const int error = errno;
  const std::string folder = std::filesystem::path(path).parent_path();
  const std::string problem =
      error == ENOENT ? fmt::format(
                            "there is no folder [{0}]: create it (mkdir -p {0}), or set "
                            "quota.store to another place",
                            folder)
                      : std::generic_category().message(error);
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
};

// PostgreSQL.

constexpr QuotaDialect::Sql kPostgresqlSql = {
    // The number is the store's own; two writers would otherwise meet row by row, in any order.
    .begin = "BEGIN; SELECT pg_advisory_xact_lock(487301543009)",
    .id_type = "BIGINT",
    .ids = "SELECT unnest(CAST('{' || CAST(:ids AS text) || '}' AS bigint[]))",
    .list_listed =
        "SELECT t.id, t.name, t.bytes"
        " FROM unnest(CAST('{{' || CAST(:ids AS text) || '}}' AS bigint[])) AS listed (id)"
        " JOIN {} AS t ON t.id = listed.id ORDER BY t.id",
    .named_ids = "json_each_text(CAST(:names AS json))"};

using ConnectionOptions = std::unique_ptr<PQconninfoOption, decltype(&::PQconninfoFree)>;

// libpq's own complaints quote parts of the URL, and so perhaps of the password.
ConnectionOptions ParseUrl(const std::string& url) {
  const std::string_view behind_scheme =
      std::string_view(url).substr(std::strlen(kPostgresqlScheme));
  const std::string_view address = behind_scheme.substr(0, behind_scheme.find('?'));
  const auto at = address.find_first_of("@/");
  const bool is_ambiguous =
      at != std::string_view::npos && address.find('@', at + 1) != std::string_view::npos;
  ConnectionOptions options(is_ambiguous ? nullptr : ::PQconninfoParse(url.c_str(), nullptr),
                            &::PQconninfoFree);
  if (options == nullptr) {
    throw LogException(ERR_BAD_DB_SESSION,
                       "quota.store is not a valid postgresql:// URL (in names and passwords write "
                       "@ as %40, / as %2F, : as %3A, ? as %3F, % as %25)",
                       3, kSourceFile, kMalformedUrlLine);
  }
  return options;
}

std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + "'";
}

std::string TextOf(const char* text) { return text == nullptr ? "" : text; }

std::string StoreName(const PQconninfoOption* options) {
  std::string host;
  std::string port;
  std::string database;
  for (const auto* option = options; option->keyword != nullptr; ++option) {
    const std::string_view keyword = option->keyword;
    if (keyword == "host") {
      host = TextOf(option->val);
    } else if (keyword == "port") {
      port = TextOf(option->val);
    } else if (keyword == "dbname") {
      database = TextOf(option->val);
    }
  }
  return fmt::format("{}{}{}{}/{}", kPostgresqlScheme, host, port.empty() ? "" : ":", port,
                     database);
}

// What the URL leaves open and an environment variable would decide gets libpq's own default. Not
// all of the options can be written as empty.
bool IsPinned(const PQconninfoOption& option) {
  const std::string_view keyword = option.keyword;
  return option.envvar != nullptr && keyword != "user" && keyword != "service" &&
         keyword != "sslcertmode";
}

std::string ConnectString(const PQconninfoOption* options, int busy_timeout) {
  std::string text;
  for (const auto* option = options; option->keyword != nullptr; ++option) {
    const std::string_view keyword = option->keyword;
    std::string value = TextOf(option->val);
    if (keyword == "connect_timeout" && value.empty()) {
      value = std::to_string(busy_timeout);
    } else if (keyword == "options") {
      // The URL's own come last and win.
      value =
          fmt::format("-c lock_timeout={}s -c client_min_messages=warning {}", busy_timeout, value);
    } else if (keyword == "client_encoding") {
      value = "UTF8";
    } else if (option->val == nullptr && !IsPinned(*option)) {
      continue;
    } else if (option->val == nullptr) {
      value = TextOf(option->compiled);
    }
    text += fmt::format("{}={} ", keyword, Quoted(value));
  }
  return text;
}

std::string SqlState(const soci::soci_error& error) {
  const auto* postgresql_error = dynamic_cast<const soci::postgresql_soci_error*>(&error);
  return postgresql_error == nullptr ? "" : postgresql_error->sqlstate();
}

class PostgresqlDialect : public QuotaDialect {
 public:
  PostgresqlDialect(const std::string& url, int busy_timeout)
      : PostgresqlDialect(ParseUrl(url), busy_timeout) {}

  std::unique_ptr<soci::session> Connect() const override {
    return std::make_unique<soci::session>(soci::postgresql, connect_string_);
  }

  void PrepareNew(soci::session& /*session*/) const override {}

  bool IsMissingTable(const soci::soci_error& error) const override {
    return SqlState(error) == "42P01";
  }

 protected:
  bool IsLocked(const soci::soci_error& error) const override { return SqlState(error) == "55P03"; }

 private:
  PostgresqlDialect(const ConnectionOptions& options, int busy_timeout)
      : QuotaDialect(StoreName(options.get()), busy_timeout, kPostgresqlSql),
        connect_string_(ConnectString(options.get(), busy_timeout)) {}

  std::string connect_string_;
};

// SOCI begins some messages with the name of its own function.
std::string_view WithoutOrigin(std::string_view text) {
  const auto colon = text.find(": ");
  return text.starts_with("sqlite3_statement_backend::") && colon != std::string_view::npos
             ? text.substr(colon + 2)
             : text;
}

// libpq's messages have several lines.
std::string OnOneLine(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const bool is_blank = c == ' ' || c == '\n' || c == '\t' || c == '\r';
    if (!is_blank) {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

}  // namespace

std::unique_ptr<QuotaDialect> QuotaDialect::Of(const Configuration::Quota& settings) {
  if (settings.store.starts_with(kPostgresqlScheme)) {
    return std::make_unique<PostgresqlDialect>(settings.store, settings.busy_timeout);
  }
  if (settings.store.starts_with(kSqliteScheme + std::string("/"))) {
    return std::make_unique<SqliteDialect>(settings.store.substr(std::strlen(kSqliteScheme)),
                                           settings.busy_timeout);
  }
  throw LogException(ERR_BAD_DB_SESSION,
                     "quota.store must be sqlite:///ABSOLUTE/PATH or a postgresql:// URL", 3,
                     kSourceFile, kUnknownUrlLine);
}

std::string QuotaDialect::Explain(const soci::soci_error& error) const {
  if (IsLocked(error)) {
    return fmt::format("another program has locked it for more than {} s", busy_timeout());
  }
  // Without SOCI's account of the statement and all its parameters, which may be megabytes.
  return OnOneLine(WithoutOrigin(error.get_error_message()));
}

}  // namespace quillon::platform
