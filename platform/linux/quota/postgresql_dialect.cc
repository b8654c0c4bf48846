#include "quota/postgresql_dialect.h"

#include <libpq-fe.h>

#include <cstring>
#include <memory>
#include <string_view>

#include <fmt/format.h>
#include <soci/postgresql/soci-postgresql.h>

#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/postgresql_dialect";
constexpr int kMalformedUrlLine = 63;

// How many busy time-outs the server has for a statement: long enough for the largest batches.
// Nothing bounds the wait for a server that has been stopped in the middle of one.
constexpr int kStatementTimeouts = 10;

constexpr QuotaDialect::Sql kPostgresqlSql = {
    // The number is the store's own; two writers would otherwise meet row by row, in any order.
    .begin = "BEGIN; SELECT pg_advisory_xact_lock(487301543009)",
    .id_type = "BIGINT",
    .ids = "SELECT unnest(CAST('{' || CAST(:ids AS text) || '}' AS bigint[]))",
    .list_listed =
        "SELECT t.id, t.bytes"
        " FROM unnest(CAST('{{' || CAST(:ids AS text) || '}}' AS bigint[])) AS listed (id)"
        " JOIN {} AS t ON t.id = listed.id ORDER BY t.id",
    .named_ids = "json_each_text(CAST(:names AS json))",
    .rows = "json_array_elements(CAST(:rows AS json))"};

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
      value = fmt::format(
          "-c lock_timeout={}s -c statement_timeout={}s -c client_min_messages=warning {}",
          busy_timeout, kStatementTimeouts * busy_timeout, value);
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

}  // namespace

}  // namespace quillon::platform

extern "C" quillon::platform::QuotaDialect* MakePostgresqlDialect(const std::string& url,
                                                                  int busy_timeout) {
  return std::make_unique<quillon::platform::PostgresqlDialect>(url, busy_timeout).release();
}
