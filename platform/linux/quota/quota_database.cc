#include "quota/quota_database.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <json/writer.h>

#include <velamailserver/account/quota_record.h>
#include <velamailserver/log_exception.h>

#include "utils/database_transaction.h"
#include "utils/excerpt.h"

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_DELETE;
using velamailserver::ERR_DB_REPLACE;
using velamailserver::ERR_DB_SELECT;
using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/quota_database";
constexpr int kNotOpenedLine = 31;
constexpr int kNotSetLine = 48;
constexpr int kNotClearedLine = 59;
constexpr int kNotListedLine = 72;
constexpr int kInvalidValueLine = 85;

using Ids = std::vector<std::uint32_t>;

void MakeUnique(Ids& ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
}

void MakeUnique(std::vector<QuotaDatabase::Subject>& subjects) {
  std::sort(subjects.begin(), subjects.end(),
            [](const auto& left, const auto& right) { return left.id < right.id; });
  subjects.erase(
      std::unique(subjects.begin(), subjects.end(),
                  [](const auto& left, const auto& right) { return left.id == right.id; }),
      subjects.end());
}

// To read the whole range is cheaper than to name every id, when it cannot hold many others.
bool IsDense(const Ids& ids) { return (ids.back() - ids.front()) / 2 < ids.size(); }

// A JSON object of the names by id.
std::string NamesById(const std::vector<QuotaDatabase::Subject>& subjects) {
  std::string names;
  for (const QuotaDatabase::Subject& subject : subjects) {
    fmt::format_to(std::back_inserter(names), "{}\"{}\":{}", names.empty() ? '{' : ',', subject.id,
                   Json::valueToQuotedString(subject.name.c_str()));
  }
  return names + "}";
}

}  // namespace

// What an operation says about itself when it fails.
struct QuotaDatabase::Task {
  ErrorCode code;
  const char* verb;
  const char* table;
  int line;
};

void QuotaDatabase::Open() {
  if (session_ != nullptr) {
    return;
  }
  dialect_ = QuotaDialect::Of(CurrentConfiguration()->quota);
  try {
    auto session = dialect_->Connect();
    UpgradeQuotaSchema(*session, *dialect_);
    session_ = std::move(session);
  } catch (const soci::soci_error& error) {
    throw LogException(ERR_BAD_DB_SESSION,
                       fmt::format("quota store [{}]: cannot open it: {}", dialect_->store(),
                                   dialect_->Explain(error)),
                       3, kSourceFile, kNotOpenedLine);
  }
}

// A server may have closed the connection since the last operation, or close it during this one.
// Then there is one more try: doing the work twice leaves the same values as doing it once.
template <typename Work>
auto QuotaDatabase::Run(const Task& task, const Work& work) {
  for (bool is_retried = false;; is_retried = true) {
    Open();
    try {
      return work();
    } catch (const soci::soci_error& error) {
      const bool is_lost = !session_->is_connected();
      if (is_lost) {
        session_.reset();
      }
      if (!is_lost || is_retried) {
        throw LogException(task.code,
                           fmt::format("quota store [{}]: cannot {} {}: {}", dialect_->store(),
                                       task.verb, task.table, dialect_->Explain(error)),
                           3, kSourceFile, task.line);
      }
    }
  }
}

void QuotaDatabase::Set(const char* table, std::vector<Subject> subjects,
                        unsigned long long bytes) {
  if (subjects.empty()) {
    return;
  }
  MakeUnique(subjects);
  const std::string names = NamesById(subjects);
  const std::string bytes_text = std::to_string(bytes);
  Run({ERR_DB_REPLACE, "write", table, kNotSetLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    *session_ << fmt::format(
        "INSERT INTO {} (id, name, bytes) SELECT CAST(key AS BIGINT), value, :bytes FROM {}"
        " WHERE true ON CONFLICT (id) DO UPDATE SET name = excluded.name, bytes = excluded.bytes",
        table, dialect_->sql().named_ids),
        soci::use(bytes_text, "bytes"), soci::use(names, "names");
    transaction.Commit();
  });
}

void QuotaDatabase::Clear(const char* table, Ids ids) {
  if (ids.empty()) {
    return;
  }
  MakeUnique(ids);
  const std::string ids_text = fmt::format("{}", fmt::join(ids, ","));
  Run({ERR_DB_DELETE, "clear", table, kNotClearedLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    *session_ << fmt::format("DELETE FROM {} WHERE id IN ({})", table, dialect_->sql().ids),
        soci::use(ids_text, "ids");
    transaction.Commit();
  });
}

template <typename Record>
std::vector<Record> QuotaDatabase::List(const char* table, Ids ids) {
  if (ids.empty()) {
    return {};
  }
  MakeUnique(ids);
  return Run({ERR_DB_SELECT, "list", table, kNotListedLine},
             [&] { return Fetch<Record>(table, ids); });
}

template <typename Record>
std::vector<Record> QuotaDatabase::Fetch(const char* table, const Ids& ids) {
  const long long first = ids.front();
  const long long last = ids.back();
  const bool is_dense = IsDense(ids);
  const std::string ids_text = is_dense ? "" : fmt::format("{}", fmt::join(ids, ","));

  long long id = 0;
  Record record;
  soci::indicator indicator = soci::i_ok;
  soci::statement select =
      is_dense
          ? (session_->prepare << fmt::format(
                 "SELECT id, bytes FROM {} WHERE id BETWEEN :first AND :last ORDER BY id", table),
             soci::use(first, "first"), soci::use(last, "last"), soci::into(id),
             soci::into(record.value, indicator))
          : (session_->prepare << fmt::format(fmt::runtime(dialect_->sql().list_listed), table),
             soci::use(ids_text, "ids"), soci::into(id), soci::into(record.value, indicator));
  select.execute();

  std::vector<Record> records;
  records.reserve(ids.size());
  auto wanted = ids.begin();
  while (select.fetch()) {
    wanted = std::find_if(wanted, ids.end(), [id](std::uint32_t next) { return next >= id; });
    if (wanted == ids.end() || *wanted != id) {
      continue;
    }
    record.id = *wanted;
    if (indicator == soci::i_null) {
      record.value = "NULL";
    }
    if (!record.IsValid()) {
      throw LogException(
          ERR_DB_SELECT,
          fmt::format("quota store [{}]: the value of id {} in {} is no 64-bit number: [{}]",
                      dialect_->store(), record.id, table, Excerpt(record.value)),
          3, kSourceFile, kInvalidValueLine);
    }
    records.push_back(record);
  }
  return records;
}

template std::vector<velamailserver::account::UserRecord> QuotaDatabase::List(const char*, Ids);
template std::vector<velamailserver::account::GroupRecord> QuotaDatabase::List(const char*, Ids);

}  // namespace quillon::platform
